// The fault-injecting Env itself, on real files.
#include "fault_env.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "sim.h"

namespace {

using sbacc_test::FaultEnv;
using Bytes = std::vector<uint8_t>;

class FaultEnvTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::ofstream(a_).flush();
    std::ofstream(b_).flush();
  }
  static Bytes Contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  sbacc_test::TempDir dir_;
  std::string a_ = dir_.File("a"), b_ = dir_.File("b");
  FaultEnv env_;
};

TEST_F(FaultEnvTest, FailsChosenCallsOfOnePathWithErrno) {
  EXPECT_EQ(sbacc::CurrentEnv(), &env_);
  env_.FailOp(FaultEnv::kWrite, a_, 1, 2, ENOSPC);
  const int fa = env_.Open(a_.c_str(), O_RDWR);
  const int fb = ::open(b_.c_str(), O_RDWR | O_CLOEXEC);  // not opened through the Env: found by path
  const ssize_t want[] = {1, -1, -1, 1};
  for (int i = 0; i < 4; ++i) {
    const char c = static_cast<char>('1' + i);
    EXPECT_EQ(env_.WriteAt(fa, &c, 1, i), want[i]) << "write " << i + 1;
    if (want[i] < 0) {
      EXPECT_EQ(errno, ENOSPC);
    }
    EXPECT_EQ(env_.WriteAt(fb, &c, 1, i), 1);
  }
  EXPECT_EQ(Contents(a_), Bytes({'1', 0, 0, '4'}));
  EXPECT_EQ(env_.Calls(FaultEnv::kWrite, a_), 4);
  EXPECT_EQ(env_.Writes(), 8);
  env_.FailOp(FaultEnv::kFsync, "", 0, -1, EIO);  // any path, for ever
  EXPECT_EQ(env_.Fsync(fa) + env_.Fsync(fb), -2);
  EXPECT_EQ(env_.Close(fa) + env_.Close(fb), 0);
}

TEST_F(FaultEnvTest, ShortTransfersMoveExactlyLenMinusK) {
  const int fd = env_.Open(a_.c_str(), O_RDWR);
  env_.ShortOp(FaultEnv::kWrite, a_, 0, 1, 3);
  EXPECT_EQ(env_.WriteAt(fd, "0123456789", 10, 0), 7);
  EXPECT_EQ(Contents(a_), Bytes({'0', '1', '2', '3', '4', '5', '6'}));
  EXPECT_EQ(env_.WriteAt(fd, "ab", 2, 7), 2);  // only the first write was cut
  env_.ShortOp(FaultEnv::kRead, a_, 0, 1, 4);
  char buf[9] = {};
  EXPECT_EQ(env_.ReadAt(fd, buf, 9, 0), 5);
  EXPECT_EQ(env_.ReadAt(fd, buf, 9, 0), 9);
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
  EXPECT_EQ(env_.WriteAt(fb, "D", 1, 1), -1);
  EXPECT_TRUE(env_.PowerIsCut());
  char c;
  EXPECT_EQ(env_.ReadAt(fa, &c, 1, 0), -1);
  EXPECT_EQ(env_.Seek(fa, 0), -1);
  EXPECT_EQ(env_.Fsync(fb), -1);
  EXPECT_EQ(env_.Open(a_.c_str(), O_RDONLY), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(env_.Close(fa) + env_.Close(fb), 0);
  EXPECT_EQ(sbacc_test::OpenFdCount(), fds_before);
  EXPECT_EQ(Contents(a_), Bytes({'A'}));
  EXPECT_EQ(Contents(b_), Bytes({'B'}));
  EXPECT_EQ(env_.Writes(), 4);
}

TEST_F(FaultEnvTest, CountsAcrossThreadsAndDelaysOnePath) {
  env_.FailOp(FaultEnv::kWrite, "", 0, 10, EIO);  // the first ten writes, whichever thread makes them
  std::atomic<int> failed{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      const int fd = env_.Open((t % 2 ? a_ : b_).c_str(), O_RDWR);
      for (int i = 0; i < 50; ++i) failed += env_.WriteAt(fd, "x", 1, t * 50 + i) < 0;
      env_.Close(fd);
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(failed.load(), 10);
  EXPECT_EQ(env_.Calls(FaultEnv::kWrite, a_) + env_.Calls(FaultEnv::kWrite, b_), 200);

  env_.DelayWrites(a_, 50000);
  const int fa = env_.Open(a_.c_str(), O_RDWR);
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(env_.WriteAt(fa, "x", 1, 0), 1);
  EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(50));
  env_.Close(fa);
}

std::atomic<int> g_ran{0};
void* Detached(void*) {
  pthread_detach(pthread_self());
  g_ran.fetch_add(1);
  return nullptr;
}

TEST_F(FaultEnvTest, ThreadStartSleepAndClock) {
  env_.FailThreadStart(1, 1);
  EXPECT_EQ(env_.StartThread(&Detached, nullptr), 0);
  EXPECT_EQ(env_.StartThread(&Detached, nullptr), EAGAIN);
  EXPECT_EQ(env_.StartThread(&Detached, nullptr), 0);
  while (g_ran.load() < 2) usleep(1000);
  const auto t0 = std::chrono::steady_clock::now();
  env_.SleepMicros(5000000);
  env_.SleepMicros(100000);
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(1)) << "slept for real";
  EXPECT_EQ(env_.Sleeps(), std::vector<unsigned>({5000000u, 100000u}));
  env_.SetNow(1234);
  EXPECT_EQ(env_.Now(), 1234);
}

}  // namespace
