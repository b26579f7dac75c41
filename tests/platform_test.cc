// Stand-ins of the trace and firmware-control libraries, as far as the other
// tests rely on them: whole trace lines across threads and processes, and NV
// transfers that never tear.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <thread>

#include "mc_logapi.h"
#include "sanfwctl.h"
#include "sim.h"

namespace {

// fn(1..procs) in forked children (forked first, while this process has one
// thread) and fn(-1..-threads) in threads, all at once; true if all return 0.
bool RunEverywhere(int procs, int threads, const std::function<int(int)>& fn) {
  std::vector<pid_t> kids;
  for (int i = 1; i <= procs; ++i) {
    const pid_t p = ::fork();
    if (p == 0) ::_exit(fn(i));
    kids.push_back(p);
  }
  std::atomic<bool> ok{true};
  std::vector<std::thread> th;
  for (int i = 1; i <= threads; ++i) th.emplace_back([&, i] { ok = fn(-i) == 0 && ok; });
  for (auto& x : th) x.join();
  for (pid_t p : kids) {
    int st = 0;
    ok = ::waitpid(p, &st, 0) == p && WIFEXITED(st) && WEXITSTATUS(st) == 0 && ok;
  }
  return ok;
}

TEST(McLogapi, ThreadsAndProcessesWriteWholeLinesInOrder) {
  sbacc_test::TempDir t;
  ::setenv("MC_TRACE_FILE", t.File("all.log").c_str(), 1);
  ::setenv("MC_TRACE_LEVEL", "5", 1);
  MC_TestReloadEnv();
  const std::string pad(150, 'p');
  ASSERT_TRUE(RunEverywhere(3, 8, [&](int w) {
    for (int i = 0; i < 300; ++i) MC_OutTrace("../common/sbacc", 7, 3, "w=%d n=%d %s|", w, i, pad.c_str());
    return 0;
  }));
  std::map<int, int> next;
  std::ifstream in(t.File("all.log"));
  for (std::string l; std::getline(in, l);) {
    int w = 0, n = -1;
    const size_t at = l.find(" L3 ../common/sbacc:7 w=");
    ASSERT_NE(at, std::string::npos) << l;
    ASSERT_EQ(2, sscanf(l.c_str() + at + 24, "%d n=%d", &w, &n)) << l;
    EXPECT_EQ(next[w]++, n) << l;
    EXPECT_EQ(pad + "|", l.substr(l.size() - 151)) << l;
  }
  EXPECT_EQ(11u, next.size());
  for (auto& [w, count] : next) EXPECT_EQ(300, count) << "writer " << w;
}

// A record straddling a page boundary, rewritten whole by threads of several
// processes: a reader never sees two writers' bytes mixed.
TEST(Sanfwctl, TransfersAreAtomicAcrossProcessesAndThreads) {
  sbacc_test::Sim sim(0);
  auto io = [](bool write, std::vector<unsigned char>& buf) {
    cpfw_nv_region_t region = 2;
    cpfw_ioctl_nv_access req{reinterpret_cast<uintptr_t>(buf.data()), 4096 - 64, buf.size()};
    return write ? Ezosanfwctl_write_nv(-1, &region, &req, 1) : Ezosanfwctl_read_nv(-1, &region, &req, 1);
  };
  std::vector<unsigned char> first(64 * 1024);
  ASSERT_EQ(0, io(false, first));  // the children inherit this descriptor
  EXPECT_TRUE(RunEverywhere(3, 2, [&](int id) {
    std::vector<unsigned char> buf(first.size());
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
    for (int i = 0; std::chrono::steady_clock::now() < end; ++i) {
      if (io(false, buf) != 0) return 1;
      for (unsigned char b : buf) if (b != buf[0]) return 2;
      std::fill(buf.begin(), buf.end(), static_cast<unsigned char>((id * 7 + i + ::getpid()) % 250 + 1));
      if (io(true, buf) != 0) return 3;
    }
    return 0;
  }));
}

}  // namespace
