// The fault-injecting Env itself, on real files.
#include "fault_env.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <chrono>
#include <fstream>
#include <string>
#include <vector>

#include "sim.h"

namespace {

using sbacc_test::FaultEnv;
using sbacc_test::TempDir;
using Bytes = std::vector<uint8_t>;

class FaultEnvTest : public ::testing::Test {
 protected:
  void SetUp() override {
    a_ = dir_.File("a");
    b_ = dir_.File("b");
    std::ofstream(a_).flush();
    std::ofstream(b_).flush();
  }
  static Bytes Contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  static off_t Size(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? st.st_size : -1;
  }
  TempDir dir_;
  std::string a_, b_;
  FaultEnv env_;
};

TEST_F(FaultEnvTest, FailsChosenCallsOfOnePathWithErrno) {
  EXPECT_EQ(sbacc::CurrentEnv(), &env_);
  env_.FailOp(FaultEnv::kWrite, a_, 1, 2, ENOSPC);
  const int fa = env_.Open(a_.c_str(), O_RDWR);
  const int fb = ::open(b_.c_str(), O_RDWR | O_CLOEXEC);  // not opened through the Env: found by path
  ASSERT_GE(fa, 0);
  ASSERT_GE(fb, 0);
  const ssize_t want[] = {1, -1, -1, 1};
  for (int i = 0; i < 4; ++i) {
    const char c = static_cast<char>('1' + i);
    errno = 0;
    EXPECT_EQ(env_.WriteAt(fa, &c, 1, i), want[i]) << "write " << i + 1;
    EXPECT_EQ(errno, want[i] < 0 ? ENOSPC : 0);
    EXPECT_EQ(env_.WriteAt(fb, &c, 1, i), 1);
  }
  EXPECT_EQ(Contents(a_), Bytes({'1', 0, 0, '4'}));
  EXPECT_EQ(env_.Calls(FaultEnv::kWrite, a_), 4);
  EXPECT_EQ(env_.Calls(FaultEnv::kWrite, b_), 4);
  EXPECT_EQ(env_.Writes(), 8);

  env_.FailOp(FaultEnv::kFsync, "", 0, -1, EIO);  // any path, for ever
  EXPECT_EQ(env_.Fsync(fa), -1);
  EXPECT_EQ(env_.Fsync(fb), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(env_.Close(fa), 0);
  EXPECT_EQ(env_.Close(fb), 0);
}

TEST_F(FaultEnvTest, ShortTransfersMoveExactlyLenMinusK) {
  const int fd = env_.Open(a_.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  env_.ShortOp(FaultEnv::kWrite, a_, 0, 1, 3);
  EXPECT_EQ(env_.WriteAt(fd, "0123456789", 10, 0), 7);
  EXPECT_EQ(Size(a_), 7);
  EXPECT_EQ(env_.WriteAt(fd, "ab", 2, 7), 2);  // only the first write was cut
  env_.ShortOp(FaultEnv::kRead, a_, 0, 1, 4);
  char buf[9] = {};
  EXPECT_EQ(env_.ReadAt(fd, buf, 9, 0), 5);
  EXPECT_EQ(env_.ReadAt(fd, buf, 9, 0), 9);
  EXPECT_EQ(std::string(buf, 9), "0123456ab");
  env_.Close(fd);
}

TEST_F(FaultEnvTest, PowerCutKeepsOnlyTheFirstNWrites) {
  const int fds_before = sbacc_test::OpenFdCount();
  const int fa = env_.Open(a_.c_str(), O_RDWR);
  const int fb = env_.Open(b_.c_str(), O_RDWR);
  env_.PowerCutAfterWrites(2);
  EXPECT_EQ(env_.WriteAt(fa, "A", 1, 0), 1);
  EXPECT_EQ(env_.WriteAt(fb, "B", 1, 0), 1);
  EXPECT_FALSE(env_.PowerIsCut());
  EXPECT_EQ(env_.WriteAt(fa, "C", 1, 1), -1);
  EXPECT_TRUE(env_.PowerIsCut());
  EXPECT_EQ(env_.WriteAt(fb, "D", 1, 1), -1);
  EXPECT_EQ(errno, EIO);
  char c;
  EXPECT_EQ(env_.ReadAt(fa, &c, 1, 0), -1);
  EXPECT_EQ(env_.Seek(fa, 0), -1);
  EXPECT_EQ(env_.Fsync(fb), -1);
  EXPECT_EQ(env_.Open(a_.c_str(), O_RDONLY), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(env_.Close(fa), 0);
  EXPECT_EQ(env_.Close(fb), 0);
  EXPECT_EQ(sbacc_test::OpenFdCount(), fds_before);
  EXPECT_EQ(Contents(a_), Bytes({'A'}));
  EXPECT_EQ(Contents(b_), Bytes({'B'}));
  EXPECT_EQ(env_.Writes(), 4);
  env_.PowerCutAfterWrites(-1);
  EXPECT_FALSE(env_.PowerIsCut());
}

TEST_F(FaultEnvTest, DelayedPathIsSlowOthersAreNot) {
  const int fa = env_.Open(a_.c_str(), O_RDWR);
  const int fb = env_.Open(b_.c_str(), O_RDWR);
  env_.DelayWrites(a_, 50000);
  auto timed = [&](int fd) {
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(env_.WriteAt(fd, "x", 1, 0), 1);
    return std::chrono::steady_clock::now() - t0;
  };
  EXPECT_GE(timed(fa), std::chrono::milliseconds(50));
  EXPECT_LT(timed(fb), std::chrono::milliseconds(50));
  env_.Close(fa);
  env_.Close(fb);
}

std::atomic<int> g_ran{0};
void* Detached(void*) {
  pthread_detach(pthread_self());
  g_ran.fetch_add(1);
  return nullptr;
}

TEST_F(FaultEnvTest, ThreadsSyncObjectsSleepAndClock) {
  env_.FailThreadStart(1, 1);
  EXPECT_EQ(env_.StartThread(&Detached, nullptr), 0);
  EXPECT_EQ(env_.StartThread(&Detached, nullptr), EAGAIN);
  EXPECT_EQ(env_.StartThread(&Detached, nullptr), 0);
  while (g_ran.load() < 2) usleep(1000);
  EXPECT_EQ(env_.ThreadStarts(), 3);

  env_.FailMutexInit(0, 1);
  env_.FailCondInit(1, -1);
  pthread_mutex_t m;
  pthread_cond_t cv;
  EXPECT_EQ(env_.MutexInit(&m), ENOMEM);
  ASSERT_EQ(env_.MutexInit(&m), 0);
  pthread_mutex_destroy(&m);
  ASSERT_EQ(env_.CondInit(&cv), 0);
  pthread_cond_destroy(&cv);
  EXPECT_EQ(env_.CondInit(&cv), ENOMEM);
  EXPECT_EQ(env_.CondInit(&cv), ENOMEM);

  const auto t0 = std::chrono::steady_clock::now();
  env_.SleepMicros(5000000);
  env_.SleepMicros(100000);
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(1)) << "slept for real";
  EXPECT_EQ(env_.Sleeps(), std::vector<unsigned>({5000000u, 100000u}));
  EXPECT_EQ(env_.SleptMicros(), 5100000u);

  env_.SetNow(1234);
  EXPECT_EQ(env_.Now(), 1234);
  env_.UseRealClock();
  EXPECT_LE(std::abs(env_.Now() - time(nullptr)), 1);
}

TEST(FaultEnvScope, RestoresTheDefaultEnv) {
  sbacc::Env* before = sbacc::CurrentEnv();
  {
    FaultEnv env;
    EXPECT_EQ(sbacc::CurrentEnv(), &env);
  }
  EXPECT_EQ(sbacc::CurrentEnv(), before);
}

}  // namespace
