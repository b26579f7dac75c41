// The fault-injecting Env the reliability suite stands on, on a real file: each
// row arms rules, then the same script of calls runs on file "a"; every call's
// result (-errno on failure), the file's bytes and the time taken are checked.
#include "fault_env.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <vector>

#include "sim.h"

namespace {

using sbacc_test::FaultEnv;
using Bytes = std::vector<uint8_t>;

struct EnvCase {
  const char* name;
  std::function<void(FaultEnv&, const std::string& a)> arm;
  // write "AB" at 0, write "CD" at 2, read 4, fsync, seek, open, start a thread,
  // mutex init, Writes(), Calls(kWrite, a)
  std::vector<long> want;
  Bytes file;
  bool raw_fd = false;  // "a" opened by the test and named by another path: resolved through /proc
  int min_ms = 0;       // the script takes that long, and under 1 s more (sleeps are not slept)
};
void PrintTo(const EnvCase& c, std::ostream* os) { *os << c.name; }

using E = FaultEnv;
// clang-format off
const Bytes kABCD = {'A', 'B', 'C', 'D'};
const EnvCase kCases[] = {
    {"none", [](E&, auto&) {}, {2, 2, 4, 0, 0, 0, 0, 0, 2, 2}, kABCD},
    {"second_write_of_path", [](E& e, auto& a) { e.FailOp(E::kWrite, a, 1, 1, ENOSPC); },
     {2, -ENOSPC, 2, 0, 0, 0, 0, 0, 2, 2}, {'A', 'B'}, true},
    {"other_path", [](E& e, auto& a) { e.FailOp(E::kWrite, a + "x", 0, -1, EIO); }, {2, 2, 4, 0, 0, 0, 0, 0, 2, 2}, kABCD},
    {"fsync_any_path", [](E& e, auto&) { e.FailOp(E::kFsync, "", 0, -1, EIO); }, {2, 2, 4, -EIO, 0, 0, 0, 0, 2, 2}, kABCD},
    {"read_then_seek_then_open", [](E& e, auto& a) {
       e.FailOp(E::kRead, a, 0, 1, EIO), e.FailOp(E::kSeek, a, 0, 1, EIO), e.FailOp(E::kOpen, a, 0, 1, EACCES);
     }, {2, 2, -EIO, 0, -EIO, -EACCES, 0, 0, 2, 2}, kABCD},
    {"short_first_write", [](E& e, auto& a) { e.ShortOp(E::kWrite, a, 0, 1, 1); }, {1, 2, 4, 0, 0, 0, 0, 0, 2, 2},
     {'A', 0, 'C', 'D'}},
    {"short_read", [](E& e, auto& a) { e.ShortOp(E::kRead, a, 0, 1, 3); }, {2, 2, 1, 0, 0, 0, 0, 0, 2, 2}, kABCD},
    {"power_cut_after_one_write", [](E& e, auto&) { e.PowerCutAfterWrites(1); },
     {2, -EIO, -EIO, -EIO, -EIO, -EIO, 0, 0, 2, 2}, {'A', 'B'}},
    {"thread_and_mutex", [](E& e, auto&) { e.FailThreadStart(0, 1), e.FailMutexInit(0, -1); },
     {2, 2, 4, 0, 0, 0, EAGAIN, ENOMEM, 2, 2}, kABCD},
    {"delayed_writes", [](E& e, auto& a) { e.DelayWrites(a, 40000); }, {2, 2, 4, 0, 0, 0, 0, 0, 2, 2}, kABCD, false, 80},
};
// clang-format on

class FaultEnvTest : public ::testing::TestWithParam<EnvCase> {};

TEST_P(FaultEnvTest, ScriptResultsAndFile) {
  const EnvCase& c = GetParam();
  sbacc_test::TempDir dir;
  const std::string a = dir.File("a");
  std::ofstream(a).flush();
  const int fds = sbacc_test::OpenFdCount();
  E e;
  ASSERT_EQ(sbacc::CurrentEnv(), &e);
  e.SetNow(1234);
  const int fd = c.raw_fd ? ::open(a.c_str(), O_RDWR | O_CLOEXEC) : e.Open(a.c_str(), O_RDWR);
  c.arm(e, c.raw_fd ? dir.path() + "/./a" : a);
  const auto t0 = std::chrono::steady_clock::now();
  auto r = [](long n) { return n < 0 ? -errno : n; };
  char buf[4];
  pthread_mutex_t m;
  auto reopen = [&]() -> long {
    const int f = e.Open(a.c_str(), O_RDONLY);
    return f < 0 ? -errno : e.Close(f);
  };
  auto mutex = [&]() -> long {
    const int rc = e.MutexInit(&m);
    return rc ? rc : pthread_mutex_destroy(&m);
  };
  auto quit = +[](void*) -> void* { return nullptr; };
  std::vector<long> got = {r(e.WriteAt(fd, "AB", 2, 0)), r(e.WriteAt(fd, "CD", 2, 2)), r(e.ReadAt(fd, buf, 4, 0))};
  got.insert(got.end(), {r(e.Fsync(fd)), r(e.Seek(fd, 0)), reopen(), e.StartThread(quit, nullptr), mutex()});
  got.insert(got.end(), {e.Writes(), e.Calls(E::kWrite, a)});
  e.SleepMicros(5000000);
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
  EXPECT_EQ(got, c.want);
  EXPECT_GE(ms, c.min_ms);
  EXPECT_LT(ms, c.min_ms + 1000);
  EXPECT_EQ(e.Sleeps(), std::vector<unsigned>{5000000u});
  EXPECT_EQ(e.Now(), 1234);
  EXPECT_EQ(e.Close(fd), 0);
  EXPECT_EQ(sbacc_test::OpenFdCount(), fds);
  std::ifstream in(a, std::ios::binary);
  EXPECT_EQ(Bytes(std::istreambuf_iterator<char>(in), {}), c.file);
}

INSTANTIATE_TEST_SUITE_P(Rules, FaultEnvTest, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
