// Stand-ins of the trace and firmware-control libraries, as far as the other
// tests rely on them: whole trace lines across threads and processes, rotation,
// atomic NV transfers.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <thread>

#include "mc_logapi.h"
#include "sanfwctl.h"
#include "sim.h"

namespace {

namespace fs = std::filesystem;
using sbacc_test::TempDir;
using Lines = std::vector<std::string>;

Lines lines_of(const std::string& path) {
  Lines out;
  std::ifstream in(path);
  for (std::string l; std::getline(in, l);) out.push_back(l);
  return out;
}

long entries(const TempDir& t) { return std::distance(fs::directory_iterator(t.path()), {}); }

// Timestamp, PROC[PID.TID], level, module:line, message.
const std::regex kLine(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} (\S+)\[(\d+)\.(\d+)\] L(\d) (\S+):(\d+) (.*)$)");

void set_trace_env(const std::string& file) {
  ::setenv("MC_TRACE_FILE", file.c_str(), 1);
  ::setenv("MC_TRACE_LEVEL", "5", 1);
  ::unsetenv("MC_TRACE_DIR");
  MC_TestReloadEnv();
}

// Runs fn(1..procs) in forked children (forked first, while this process
// has one thread) and fn(-1..-threads) in threads, all at once.
bool run_everywhere(int procs, int threads, const std::function<int(int)>& fn) {
  std::vector<pid_t> kids;
  for (int i = 1; i <= procs; ++i) {
    pid_t p = ::fork();
    if (p == 0) ::_exit(fn(i));
    kids.push_back(p);
  }
  std::atomic<bool> ok{true};
  std::vector<std::thread> th;
  for (int i = 1; i <= threads; ++i) th.emplace_back([&, i] { if (fn(-i) != 0) ok = false; });
  for (auto& x : th) x.join();
  for (pid_t p : kids) {
    int st = 0;
    if (::waitpid(p, &st, 0) != p || !WIFEXITED(st) || WEXITSTATUS(st) != 0) ok = false;
  }
  return ok;
}

// n lines "w=<who> n=<i> <pad>", the pad a run of one letter per writer.
std::string pad_of(int who) { return std::string(150, static_cast<char>('a' + (who + 26) % 26)); }
int trace_lines(int who, int n) {
  for (int i = 0; i < n; ++i) MC_OutTrace("../common/sbacc", 100 + who, 3, "w=%d n=%d %s", who, i, pad_of(who).c_str());
  return 0;
}

// Every line well formed, every writer's lines complete and in order.
void expect_whole_lines(const Lines& lines, size_t writers, int per_writer) {
  std::map<int, int> next;
  for (const std::string& l : lines) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(l, m, kLine)) << l;
    int who = 0, n = -1;
    char pad[200] = {};
    ASSERT_EQ(3, std::sscanf(m[7].str().c_str(), "w=%d n=%d %199s", &who, &n, pad)) << l;
    EXPECT_EQ(pad_of(who), pad) << l;
    EXPECT_EQ(next[who]++, n) << l;
    EXPECT_EQ("3 " + std::to_string(100 + who), m[4].str() + " " + m[6].str()) << l;
  }
  ASSERT_EQ(writers, next.size());
  for (auto& [who, count] : next) EXPECT_EQ(per_writer, count) << "writer " << who;
}

TEST(McLogapi, ThreadsAndProcessesWriteWholeLines) {
  TempDir t;
  set_trace_env(t.File("all.log"));  // opened here, shared by the children
  ASSERT_TRUE(run_everywhere(3, 8, [](int w) { return trace_lines(w, 500); }));
  expect_whole_lines(lines_of(t.File("all.log")), 11, 500);
}

// With room for every rotated file nothing may be lost, and every rotated
// file must have been past the limit: a file rotated twice would be small or
// leave a gap.
TEST(McLogapi, ConcurrentRotationLosesNothing) {
  TempDir t;
  set_trace_env(t.File("unused.log"));
  ASSERT_TRUE(run_everywhere(2, 4, [&](int w) {
    MC_SetTraceName(t.path().c_str(), "r.log");
    MC_SetTraceSizeNum(2, 200);
    return trace_lines(w, 150);
  }));
  const long rotated = entries(t) - 1 - fs::exists(t.File("r.log"));  // the last line may have rotated it away
  ASSERT_GT(rotated, 20);
  Lines all;
  for (long i = rotated; i >= 0; --i) {  // oldest first
    const std::string f = t.File(i ? "r.log." + std::to_string(i) : "r.log");
    std::error_code missing;
    const auto size = fs::file_size(f, missing);
    EXPECT_TRUE(missing ? i == 0 : i == 0 || size > 2 * 1024) << f << " " << size;
    for (auto& l : lines_of(f)) all.push_back(l);
  }
  expect_whole_lines(all, 6, 150);
  EXPECT_TRUE(lines_of(t.File("unused.log")).empty());
}

TEST(McLogapi, RotationKeepsNumFiles) {
  TempDir t;
  MC_SetTraceName(t.path().c_str(), "r.log");
  MC_SetTraceSizeNum(1, 3);
  trace_lines(0, 100);
  EXPECT_TRUE(fs::exists(t.File("r.log.2")));
  EXPECT_EQ(2 + fs::exists(t.File("r.log")), entries(t));
  Lines kept;
  for (const char* f : {"r.log.2", "r.log.1", "r.log"})
    for (auto& l : lines_of(t.File(f))) kept.push_back(l);
  ASSERT_GE(kept.size(), 8u);
  for (size_t i = 0; i < kept.size(); ++i)  // the newest lines, in order
    EXPECT_NE(std::string::npos, kept[i].find(" n=" + std::to_string(100 - kept.size() + i) + " ")) << kept[i];
}

// ---- Firmware control --------------------------------------------------------

int nv_io(bool write, void* buf, uint64_t off, uint64_t len) {
  cpfw_nv_region_t region = 2;
  cpfw_ioctl_nv_access req{reinterpret_cast<uintptr_t>(buf), off, len};
  return write ? Ezosanfwctl_write_nv(-1, &region, &req, 1) : Ezosanfwctl_read_nv(-1, &region, &req, 1);
}

// Records straddle a page boundary, so an unlocked reader sees a mix.  Two
// threads per process: threads share the descriptor and its flock.
TEST(Sanfwctl, ReadModifyWriteAcrossProcessesAndThreads) {
  constexpr uint64_t off = 4096 - 64;
  for (uint64_t len : {128, 64 * 1024}) {
    sbacc_test::Sim sim(0);
    std::vector<unsigned char> first(len);
    ASSERT_EQ(0, nv_io(false, first.data(), off, len));  // the children inherit this descriptor
    auto rmw = [len](int id) {
      std::vector<unsigned char> buf(len);
      auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
      for (int i = 0; std::chrono::steady_clock::now() < end; ++i) {
        if (nv_io(false, buf.data(), off, len) != 0) return 1;
        for (unsigned char b : buf) if (b != buf[0]) return 2;  // a torn record
        std::memset(buf.data(), static_cast<unsigned>(id * 7 + i + ::getpid()) % 250 + 1, len);
        if (nv_io(true, buf.data(), off, len) != 0) return 3;
      }
      return 0;
    };
    EXPECT_TRUE(run_everywhere(3, 2, [&](int id) { return id < 0 ? rmw(id) : run_everywhere(0, 2, rmw) ? 0 : 1; })) << len;
  }
}

}  // namespace
