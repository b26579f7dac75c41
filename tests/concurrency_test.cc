// Concurrency: fork while each lock of the library is held, the crew after
// its workers retired, bounded and dlclosed; four controllers contending for
// the repair lock of the same areas (threads with handles of their own and
// forks among them run in schedule_test.cc).
// Every test is bounded by alarm(): a deadlock ends it with SIGALRM.
#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include "testutil.h"

namespace {

#if defined(__has_feature)
constexpr bool kUnderAsan = __has_feature(address_sanitizer), kUnderTsan = __has_feature(thread_sanitizer);
#else
constexpr bool kUnderAsan = false, kUnderTsan = false;
#endif

// Areas a0 .. a<n-1> side by side, each on HDDs 0 .. copies-1.
void SetAreas(sbacc_test::Sim& sim, int n, int copies) {
  std::vector<sbacc_test::AreaSpec> areas;
  for (int a = 0; a < n; ++a) areas.push_back({"a" + std::to_string(a), 0x1000 + a * 8192ull, 8192, copies});
  sim.SetAreas(areas);
}

// Writes n bytes of Pattern(seed) at `pos` of area a<area> through a handle
// of its own and reads them back through that handle, then through a reader
// of its own.  False if a step failed (the handle is then left open) or a
// read saw other bytes.
bool WriteAndReadBack(int area, int seed, int n, int pos) {
  const std::string name = "a" + std::to_string(area);
  Bytes got(n), again(n);
  void *w = nullptr, *r = nullptr;
  boolean_t clean = B_FALSE;
  return sbacc_open(name.c_str(), "w", &w, &clean) == 0 && sbacc_write(Pattern(n, seed).data(), n, pos, w) == n &&
         sbacc_read(got.data(), n, pos, w) == n && sbacc_close(w) == 0 && got == Pattern(n, seed) &&
         sbacc_open(name.c_str(), "r", &r, &clean) == 0 && sbacc_read(again.data(), n, pos, r) == n &&
         sbacc_close(r) == 0 && again == Pattern(n, seed);
}

// Runs body(0) .. body(n-1) in child processes of their own, all at once,
// and waits for them: each must end with 0.
void InChildren(int n, const std::function<int(int)>& body) {
  std::vector<pid_t> pids;
  for (int i = 0; i < n; ++i) {
    if (pids.emplace_back(fork()) == 0) {
      alarm(60);  // not inherited
      _exit(body(i));
    }
  }
  for (pid_t pid : pids) {
    int status = -1;  // stays so if the fork or the wait failed
    EXPECT_TRUE(pid > 0 && waitpid(pid, &status, 0) == pid && status == 0) << "child ended with status " << status;
  }
}

class Concurrency : public ::testing::Test {
 protected:
  void SetUp() override {
    sbacc_test::QuickFailures();
    setenv("SANFWCTL_MASTER", "1", 1);  // this process (controller 0) is not the master
    alarm(90);
  }
  void TearDown() override { alarm(0); }
};

// fork() while another thread holds each of the library's locks: the child
// uses the library at once, crew, allocator and NV records alike (one
// inherited taken would hang it until the alarm).  The child runs its tasks
// in itself: ThreadSanitizer does not support threads started after such a
// fork, and the crew's lock is taken all the same.
TEST_F(Concurrency, ForkWhileEachLockIsHeld) {
  if (kUnderTsan) GTEST_SKIP() << "forks of a threaded process";
  sbacc_test::Sim sim(2);
  SetAreas(sim, 1, 2);
  ASSERT_TRUE(WriteAndReadBack(0, 1, 512, 0));
  const struct {
    const char* name;
    void (*hold)(bool);
  } kLocks[] = {{"crew", sbacc::CrewLockForTest},
                {"allocator", sbacc::AllocLockForTest},
                {"NV records", sbacc::NvRecordLocksForTest}};
  for (const auto& lock : kLocks) {
    SCOPED_TRACE(lock.name);
    std::atomic<bool> held{false};
    std::thread holder([&] {
      lock.hold(true);
      held = true;
      usleep(20000);  // the fork below waits for this
      lock.hold(false);
    });
    while (!held) usleep(100);
    InChildren(1, [&](int) {
      sbacc::CrewSetBound(0);
      {
        sbacc_test::FaultEnv env;  // copy 1 fenced off: the record's lock taken
        env.FailOp(sbacc_test::FaultEnv::kWrite, sim.HddPath(1), 0, -1, EIO);
        if (!WriteAndReadBack(0, 2, 512, 0)) return 1;
      }
      return sbacc_nv_init(0) == 0 ? 0 : 2;  // and rebuilt
    });
    holder.join();
    EXPECT_EQ(Pattern(512, 2), sim.Data(0, 1, 512));
    EXPECT_EQ(0u, sim.NvEntry(0).hddblockade);
  }
}

// Every worker retired after its idle time: the next write hands its tasks
// to new ones (a retired worker left parked would be handed a task it never
// runs, and its caller would wait until the alarm).
TEST_F(Concurrency, WorkAfterEveryWorkerRetired) {
  sbacc_test::Sim sim(8);
  SetAreas(sim, 1, 8);
  ASSERT_TRUE(WriteAndReadBack(0, 1, 512, 0));
  ASSERT_GT(sbacc::CrewCountsNow().live, 0);
  for (int ms = 0; ms < 10000 && sbacc::CrewCountsNow().live > 0; ms += 10) usleep(10000);
  ASSERT_EQ(0, sbacc::CrewCountsNow().live);
  const long started = sbacc::CrewCountsNow().started;
  ASSERT_TRUE(WriteAndReadBack(0, 2, 512, 0));
  EXPECT_GT(sbacc::CrewCountsNow().started, started);
}

// The crew at 0 (every task runs in its caller), 1 and 2 workers and at its
// default: a restore over 70 areas x 8 copies runs one task per area and,
// inside, one per copy to rebuild (a crew that let a task wait behind its own
// busy workers would hang here until the alarm).  Copy 7 of every area is
// stale.  Area 30's files are gone, and controller 1 holds the repair lock
// of the last area (past the first 64 tasks): those two keep what they had,
// every other area is rebuilt whichever thread ran it, and the result
// follows the first failing area (no usable copy: 0).
class BoundedCrew : public Concurrency, public ::testing::WithParamInterface<int> {};

TEST_P(BoundedCrew, RestoreOfSeventyAreasOfEightCopies) {
  constexpr int kAreas = 70, kLen = 600, kMissing = 30, kLast = kAreas - 1;
  sbacc::CrewSetBound(GetParam());
  sbacc_test::Sim sim(8);
  SetAreas(sim, kAreas, 8);
  for (int a = 0; a < kAreas; ++a) {
    ASSERT_TRUE(WriteAndReadBack(a, a, kLen, 0));
    sbacc_test::FaultEnv env;
    env.FailOp(sbacc_test::FaultEnv::kWrite, sim.HddPath(7), 0, -1, EIO);
    ASSERT_TRUE(WriteAndReadBack(a, a + 100, kLen, 0));
  }
  std::string list;
  for (int a = 0; a < kAreas; ++a) {
    char addr[16];
    snprintf(addr, sizeof addr, "%x", 0x1000 + a * 8192);
    list += "a" + std::to_string(a) + "," + addr + ",8192";
    for (int c = 0; c < 8; ++c) list += "," + sim.HddPath(c) + (a == kMissing ? ".gone" : "");
    list += "\n";
  }
  sim.SetFilelistText(list);
  sbacc_reset_process_state();
  sim.PutNvBytes(SBACC_NV_BASE + 128ull * kLast + kMemRepairlock + 1, "\1", 1);  // controller 1's byte up
  EXPECT_EQ(0, sbacc_hdd_restore(0));
  EXPECT_LE(sbacc::CrewCountsNow().peak, GetParam());
  for (int a = 0; a < kAreas; ++a) {
    if (a == kMissing) continue;
    EXPECT_EQ(a == kLast ? 0x80u : 0u, sim.NvEntry(a).hddblockade) << "area " << a;
    EXPECT_EQ(a == kLast ? 1 : 0, sim.NvEntry(a).hddrepairlock_cntno[1]) << "area " << a;
    for (int c = 0; c < 8; ++c)
      EXPECT_EQ(Pattern(kLen, a == kLast && c == 7 ? a : a + 100), sim.Data(a, c, kLen)) << a << "/" << c;
  }
}

INSTANTIATE_TEST_SUITE_P(Workers, BoundedCrew, ::testing::Values(0, 1, 2, 32));

// dlclose leaves the library loaded (it is linked not to be unloaded), so
// the workers it parked never outlive its code.
TEST_F(Concurrency, DlcloseKeepsTheLibraryOfParkedWorkers) {
  if (kUnderAsan) GTEST_SKIP() << "the shared library has no sanitizer runtime: LeakSanitizer fails on its workers";
  sbacc_test::Sim sim(2);
  SetAreas(sim, 1, 2);
  for (int i = 0; i < 3; ++i) {
    void* lib = dlopen(SBACC_SHARED_LIB, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, lib) << dlerror();
    void* fp = nullptr;
    boolean_t clean = B_FALSE;
    // The open hands a task to a worker of this copy of the library.
    ASSERT_EQ(0, reinterpret_cast<decltype(&sbacc_open)>(dlsym(lib, "sbacc_open"))("a0", "w", &fp, &clean));
    ASSERT_EQ(0, reinterpret_cast<decltype(&sbacc_close)>(dlsym(lib, "sbacc_close"))(fp));
    ASSERT_EQ(0, dlclose(lib));
    EXPECT_NE(nullptr, dlopen(SBACC_SHARED_LIB, RTLD_NOW | RTLD_NOLOAD));
  }
}

// Four processes, controllers 0 to 3 on one NV image, take and release the
// repair lock of the same two areas over and over.  Every holder counts
// itself in a shared slot per area while it holds the lock.
//  - Without a master (9), the raise-then-look protocol alone must keep every
//    slot at one holder at most.
//  - Controller 0 as the master clears the other controller's byte whether
//    that one is still asking or already holds the lock (a stale byte of a
//    stopped controller looks the same).  Only controller 1's byte can be
//    cleared (2 and 3 end the master's call with -100), and once it is, that
//    hold is invisible to every controller: any overlap must have controller
//    1 on one side.  Two holders whose bytes both stay visible never meet.
class LockContention : public Concurrency, public ::testing::WithParamInterface<int> {};

TEST_P(LockContention, AtMostOneHolder) {
  setenv("SANFWCTL_MASTER", std::to_string(GetParam()).c_str(), 1);
  setenv("SBACC_REPAIRLOCK_MAXRETRY", "3", 1);
  sbacc_test::Sim sim(1);
  SetAreas(sim, 2, 1);
  // Shared with the children: the locks taken, then per area its current
  // holders as a bit set of controller numbers.
  void* mem = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(MAP_FAILED, mem);
  std::atomic<int>* taken = new (mem) std::atomic<int>[3]();
  std::atomic<int>* holders = taken + 1;
  // Exits 3 to 5: a call failed other than by refusing the lock; 6: came in
  // on a holder it must never meet.
  InChildren(4, [&](int cnt) {
    // The master breaks controller 1's lock by clearing its byte, so with a
    // master controller 1 may hold beside anyone (and, its byte cleared after
    // it looked, count itself in after whoever came in next); every other
    // pair excludes each other.
    const int allowed = GetParam() != 0 ? 0 : cnt == 1 ? 0xf : 0x2;
    sbacc_reset_process_state();
    sbacc_cntno = cnt;
    FaultEnv env;  // back-offs recorded, not slept: the attempts meet often
    for (int r = 0; r < 400; ++r) {
      const int a = (r + cnt) % 2;
      SBACC_FILE_DISCRIPTER* sfd = nullptr;
      if (sbacc_ma_alloc_sfd(("a" + std::to_string(a)).c_str(), SBACC_OPENMODE_INSPECT, &sfd) != 0) return 3;
      const int rc = sbacc_ma_enter_repairlock(sfd);
      if (rc != 0 && rc != SBACC_E_REPAIR && rc != SBACC_E_UNSUPPORTED) return 4;
      if (rc == 0) {
        if ((holders[a].fetch_or(1 << cnt) & ~allowed) != 0) return 6;
        ++*taken;
        usleep(200);
        holders[a] &= ~(1 << cnt);
        if (sbacc_ma_leave_repairlock(sfd) != 0) return 5;
      }
      sbacc_ma_free_sfd(sfd);
      usleep(static_cast<useconds_t>(20 * (cnt + 1)));
    }
    return 0;
  });
  EXPECT_GT(taken->load(), 0);
  // Every byte is down again.
  for (int a = 0; a < 2; ++a) EXPECT_EQ(Bytes(4), sim.NvBytes(SBACC_NV_BASE + 128ull * a + kMemRepairlock, 4));
  munmap(mem, 4096);
}

INSTANTIATE_TEST_SUITE_P(Master, LockContention, ::testing::Values(9, 0));

}  // namespace
