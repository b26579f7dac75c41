// Concurrency: fork while each lock of the library is held, the crew after
// its workers retired, bounded and dlclosed; two to four controllers
// contending for the repair lock of one area, and starting up at once on one
// controller's disks and NV (threads with handles of their own and forks
// among them run in schedule_test.cc).
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

// Memory shared with the children (every test runs in a process of its own).
std::atomic<int>* SharedInts() {
  return static_cast<std::atomic<int>*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
}

// Runs body(0) .. body(n-1) in child processes of their own, all at once,
// and waits for them: each must end with 0.  Under ThreadSanitizer a child
// of a process with threads may start none of its own: its tasks run in it.
void InChildren(int n, const std::function<int(int)>& body) {
  std::vector<pid_t> pids;
  for (int i = 0; i < n; ++i) {
    if (pids.emplace_back(fork()) == 0) {
      alarm(60);  // not inherited
      if (kUnderTsan) sbacc::CrewSetBound(0);
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
                {"NV records", sbacc::NvRecordLocksForTest},
                {"repair locks held", sbacc_ma_repairlock_state_for_test}};
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
// stale.  Area 30's files are gone, and controller 1, the master, holds the
// repair lock of the last area (past the first 64 tasks): this controller
// waits for it up to the bound (its pauses recorded), those two areas keep
// what they had, every other area is rebuilt whichever thread ran it, and
// the result follows the first failing area (no usable copy: 0).
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
  EXPECT_EQ(0, (FaultEnv(), sbacc_hdd_restore(0)));  // the pauses recorded, not slept
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

// Processes 0 .. n-1, controllers on one NV image, take and release the
// repair lock of one area over and over, each hold a pretend repair that
// checks the lock before each of its steps.  Nobody may come in on a holder,
// every take must succeed (within SBACC_REPAIRLOCK_WAIT), and no holder may
// find its lock lost.  The last controller may first take the lock and then
// die holding it (its byte stays up and its heartbeat stands still: the
// master clears it after SBACC_REPAIRLOCK_STALE, and without a master the
// others give up after the wait) or hold it as a slow live holder, longer
// than SBACC_REPAIRLOCK_STALE, whom the master must wait for.  Pauses are
// recorded and slept half their length, the pretend steps alike.
enum class Last { kLikeTheOthers, kDies, kSlow };
struct LockCase {
  const char* name;
  int procs, master;  // master 9: none of them
  Last last;
  int wait;  // SBACC_REPAIRLOCK_WAIT
};

class LockContention : public Concurrency, public ::testing::WithParamInterface<LockCase> {};

TEST_P(LockContention, OneHolderAtATimeAndEveryoneGetsIt) {
  const LockCase& c = GetParam();
  setenv("SANFWCTL_MASTER", std::to_string(c.master).c_str(), 1);
  setenv("SBACC_REPAIRLOCK_WAIT", std::to_string(c.wait).c_str(), 1);
  setenv("SBACC_REPAIRLOCK_STALE", "2", 1);
  sbacc_test::Sim sim(1);
  SetAreas(sim, 1, 1);
  // Shared with the children: the current holders (a bit per controller),
  // whether the last one holds the lock yet, the takes that met another byte.
  std::atomic<int>* shared = SharedInts();
  std::atomic<int>&holders = shared[0], &first = shared[1], &met = shared[2];
  const int last = c.procs - 1;
  const bool stuck = c.last == Last::kDies && c.master > last;  // nobody may clear the dead byte
  // Exits: 3 a call failed, 4 the lock not had (or had where it cannot be),
  // 5 the lock found lost (a live holder's byte cleared), 6 came in on a
  // holder.
  InChildren(c.procs, [&](int cnt) {
    sbacc_reset_process_state();
    sbacc_cntno = cnt;
    FaultEnv env;
    env.OnSleep([](unsigned us) { usleep(us / 2); });
    SBACC_FILE_DISCRIPTER* sfd = nullptr;
    if (sbacc_ma_alloc_sfd("a0", SBACC_OPENMODE_INSPECT, &sfd) != 0) return 3;
    // One hold: `steps` steps of a pretend repair, each after a check.
    auto hold = [&](int steps, unsigned step) {
      if ((holders.fetch_or(1 << cnt) & ~(1 << cnt)) != 0) return 6;
      for (int s = 0; s < steps; ++s) {
        if (sbacc_ma_repairlock_check(sfd) != 0) return 5;
        env.SleepMicros(step);
      }
      holders &= ~(1 << cnt);
      return sbacc_ma_leave_repairlock(sfd) == 0 ? 0 : 3;
    };
    // The last one, when it is special, takes the lock first: one round.
    const bool special = cnt == last && c.last != Last::kLikeTheOthers;
    while (!special && c.last != Last::kLikeTheOthers && first == 0) usleep(100);
    int rc = 0;
    for (int r = 0; r < (stuck || special ? 1 : 20) && rc == 0; ++r) {
      const size_t paused = env.Sleeps().size();
      const int got = sbacc_ma_enter_repairlock(sfd);
      if (got != (stuck && !special ? SBACC_E_REPAIR : 0)) return 4;
      met += env.Sleeps().size() > paused;
      if (special && c.last == Last::kDies) (void)sbacc_ma_repairlock_check(sfd), first = 1, _exit(0);
      first = 1;
      if (got == 0) rc = special ? hold(25, 100000) : hold(2, 1000);  // 2.5 s: past the stale bound
      usleep(static_cast<useconds_t>(20 * (cnt + 1)));
    }
    sbacc_ma_free_sfd(sfd);
    return rc;
  });
  EXPECT_GT(met.load(), 0) << "the contenders never met";
  // Every byte is down again, and every heartbeat, unless nobody could clear
  // the dead controller's.
  const SBACC_MEM_LIST_ENTRY e = sim.NvEntry(0);
  for (int n = 0; n < 4; ++n) EXPECT_EQ(stuck && n == last, e.hddrepairlock_cntno[n] != 0) << "byte " << n;
  for (int n = 0; n < 4; ++n) EXPECT_EQ(c.last == Last::kDies && n == last, e.lockbeat[n] != 0) << "beat " << n;
}

const LockCase kLockCases[] = {
    {"two", 2, 9, Last::kLikeTheOthers, 20},     {"two_master", 2, 0, Last::kLikeTheOthers, 20},
    {"three", 3, 9, Last::kLikeTheOthers, 20},   {"three_master", 3, 1, Last::kLikeTheOthers, 20},
    {"four", 4, 9, Last::kLikeTheOthers, 20},    {"four_master", 4, 2, Last::kLikeTheOthers, 20},
    {"two_dies_master", 2, 0, Last::kDies, 20},  {"three_dies_master", 3, 0, Last::kDies, 20},
    {"four_dies_master", 4, 1, Last::kDies, 20}, {"four_dies_no_master", 4, 9, Last::kDies, 3},
    {"two_slow_master", 2, 0, Last::kSlow, 20},  {"three_slow_master", 3, 0, Last::kSlow, 20},
    {"four_slow_master", 4, 2, Last::kSlow, 20}, {"four_slow_no_master", 4, 9, Last::kSlow, 20},
};
INSTANTIATE_TEST_SUITE_P(Cases, LockContention, ::testing::ValuesIn(kLockCases),
                         [](const ::testing::TestParamInfo<LockCase>& p) { return std::string(p.param.name); });

// Two to four controllers start up at once on one controller's disks and NV
// (processes 0 .. n-1, each calling sbacc_nv_init with its number, the
// tunables at their defaults) over a stale copy to rebuild ("plain"), a write
// cut between the copies to resync ("intent") and the paired areas, one of
// them left open by a writer that died (the data repair), or over new disks
// and NV (the paired areas all new: a data repair that empties verback).
// Every start-up returns 0, every area ends healthy with copies that agree
// and nothing held, the data repair's work is done, and each repair was made
// by exactly one controller: its trace line names it.
struct StartUpCase {
  const char* name;
  int procs, master;  // master 9: none of them
  bool fresh;
};

class StartUps : public Concurrency, public ::testing::WithParamInterface<StartUpCase> {};

TEST_P(StartUps, EveryControllerComesUpAndEachRepairIsMadeOnce) {
  const StartUpCase& c = GetParam();
  using sbacc_test::StartUpWork;
  sbacc_test::Sim sim(3);
  ASSERT_NO_THROW(c.fresh ? StartUpWork::SetAreas(sim, 3) : StartUpWork::Plant(sim, 3));
  for (const char* v : {"SBACC_REPAIRLOCK_WAIT", "SBACC_REPAIRLOCK_STALE"}) unsetenv(v);
  setenv("SANFWCTL_MASTER", std::to_string(c.master).c_str(), 1);
  // Shared with the children: how many made each kind of repair (the last:
  // any other), and how many are ready to start.
  std::atomic<int>* shared = SharedInts();
  const char* const kKinds[] = {"] rebuild plain ", "] resync intent ", "] data repair of the paired areas "};
  InChildren(c.procs, [&](int cnt) {
    sbacc_reset_process_state();
    TraceCapture trace;
    for (++shared[4]; shared[4] < c.procs;) usleep(50);  // all at once
    const int rc = sbacc_nv_init(cnt);
    for (const auto& line : trace.Lines()) {
      if (line.text.find("repaired by controller") == std::string::npos) continue;
      int kind = 0;
      while (kind < 3 && line.text.find(kKinds[kind]) == std::string::npos) ++kind;
      ++shared[line.text.find("repaired by controller " + std::to_string(cnt)) == std::string::npos ? 3 : kind];
    }
    return rc == 0 ? 0 : 1;
  });
  EXPECT_EQ(std::vector<int>({c.fresh ? 0 : 1, c.fresh ? 0 : 1, 1, 0}),
            std::vector<int>(shared, shared + 4)) << "controllers per kind of repair";
  EXPECT_EQ("", StartUpWork::Done(sim, !c.fresh));
}

const StartUpCase kStartUpCases[] = {{"two", 2, 0, false},          {"three", 3, 0, false},
                                     {"four", 4, 0, false},         {"three_master_2", 3, 2, false},
                                     {"four_no_master", 4, 9, false}, {"four_new", 4, 0, true},
                                     {"three_new_no_master", 3, 9, true}};
INSTANTIATE_TEST_SUITE_P(Controllers, StartUps, ::testing::ValuesIn(kStartUpCases),
                         [](const ::testing::TestParamInfo<StartUpCase>& p) { return std::string(p.param.name); });

}  // namespace
