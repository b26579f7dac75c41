// Schedules shaken: seeded yields and short sleeps around every file call,
// task hand-off and NV record lock, over the parallel sites with copies
// failing.  Every run checks what no interleaving may break: nothing written
// outside the areas, no descriptor or block left, every area that can be
// repaired is, and the usable copies agree and hold the last data.
// SBACC_SHAKE_SCHEDULES sets the schedules per site (default 4).
#include <sys/wait.h>

#include "testutil.h"

namespace {

#if defined(__has_feature)
constexpr bool kUnderSanitizer = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool kUnderSanitizer = false;
#endif

constexpr int kAreas = 8, kCopies = 3, kLen = 700, kGone = 3, kTwoStale = 5;
constexpr uint64_t kAreaSize = 4096, kBase = 0x1000;

int Schedules() {
  const char* v = getenv("SBACC_SHAKE_SCHEDULES");
  return v != nullptr ? atoi(v) : 4;
}
std::string Name(int a) { return "a" + std::to_string(a); }

class Schedule : public ::testing::Test {
 protected:
  void SetUp() override {
    alarm(600);
    std::vector<sbacc_test::AreaSpec> areas;
    for (int a = 0; a < kAreas; ++a) areas.push_back({Name(a), kBase + a * kAreaSize, kAreaSize, kCopies});
    sim_.SetAreas(areas);
  }
  void TearDown() override {
    sbacc::CrewSetBound(sbacc::kCrewDefaultBound);
    alarm(0);
  }
  // Forks while other threads are inside the library: the child writes and
  // reads back an area of its own at once (its disks are its own copy).
  static void ForkAndUse() {
    if (kUnderSanitizer) return;  // forks of a threaded process hang under them
    const pid_t pid = fork();
    if (pid == 0) {
      alarm(60);
      sbacc::CrewSetBound(0);
      void* fp = nullptr;
      boolean_t clean = B_FALSE;
      Bytes got(64);
      const bool ok = sbacc_open(Name(6).c_str(), "w", &fp, &clean) == 0 &&
                      sbacc_write(Pattern(64, 7).data(), 64, 0, fp) == 64 && sbacc_read(got.data(), 64, 0, fp) == 64 &&
                      sbacc_close(fp) == 0 && got == Pattern(64, 7);
      _exit(ok ? 0 : 1);
    }
    int status = -1;
    EXPECT_TRUE(pid > 0 && waitpid(pid, &status, 0) == pid && status == 0) << "child ended with " << status;
  }
  // A crew of 1, 2 or the default bound, by seed.
  static void Crew(uint64_t seed) {
    const int bounds[] = {1, 2, sbacc::kCrewDefaultBound};
    sbacc::CrewSetBound(bounds[seed % 3]);
  }
  Sim sim_{kCopies, 1 << 16, true};
};

// The restore: copy 2 of every area is stale, so is copy 1 of one area, one
// area's files are gone, and every write to copy 1 fails while it runs (a
// rebuild beside a failing sibling, a source's neighbour fenced mid-way).
TEST_F(Schedule, RestoreWithFailingCopies) {
  for (int a = 0; a < kAreas; ++a) sbacc_test::Store(Name(a), Pattern(kLen, a));
  {
    FaultEnv env;
    env.FailOp(FaultEnv::kWrite, sim_.HddPath(2), 0, -1, EIO);
    for (int a = 0; a < kAreas; ++a) sbacc_test::Store(Name(a), Pattern(kLen, a + 100));
    env.FailOp(FaultEnv::kWrite, sim_.HddPath(1), 0, -1, EIO);
    sbacc_test::Store(Name(kTwoStale), Pattern(kLen, 200));
  }
  const Sim::Images snap = sim_.Save();
  std::string list;  // kGone's copies point at files that do not exist
  for (int a = 0; a < kAreas; ++a) {
    char line[64];
    snprintf(line, sizeof line, "%s,%llx,%llu", Name(a).c_str(), static_cast<unsigned long long>(kBase + a * kAreaSize),
             static_cast<unsigned long long>(kAreaSize));
    list += line;
    for (int c = 0; c < kCopies; ++c) list += "," + sim_.HddPath(c) + (a == kGone ? ".gone" : "");
    list += "\n";
  }
  for (int s = 1; s <= Schedules(); ++s) {
    SCOPED_TRACE("schedule " + std::to_string(s));
    sim_.Load(snap);
    sim_.SetFilelistText(list);
    sbacc_reset_process_state();
    Crew(s);
    const Sim::Held held = sim_.HeldNow();
    {
      FaultEnv env;
      env.FailOp(FaultEnv::kWrite, sim_.HddPath(1), 0, -1, EIO);
      env.BoundWrites(kBase, kBase + kAreas * kAreaSize);
      env.Shake(static_cast<uint64_t>(s));
      int rc = -1;
      std::thread restore([&] { rc = sbacc_hdd_restore(0); });
      if (s % 4 == 0) ForkAndUse();
      restore.join();
      ASSERT_EQ(0, rc);  // the first failing area has no usable copy
      // No write went through a descriptor that had been closed (one a
      // sibling's failure closed while a task still used it).
      for (const FaultEnv::Write& w : env.WriteLog()) ASSERT_FALSE(w.path.empty()) << "write at " << w.pos;
    }
    sbacc_reset_process_state();
    ASSERT_TRUE(held == sim_.HeldNow()) << "descriptor or block left";
    for (int a = 0; a < kAreas; ++a) {
      if (a == kGone) continue;
      ASSERT_EQ(0x2u, sim_.NvEntry(a).hddblockade) << "area " << a;
      ASSERT_EQ("", sim_.Disagreement(a, 0x2)) << "area " << a;
      ASSERT_EQ(Pattern(kLen, a == kTwoStale ? 200 : a + 100), sim_.Data(a, 2, kLen)) << "area " << a;
    }
  }
}

// Handles: four threads with areas of their own and two sharing one, each
// writing rounds and reading them back while copy 2 fails for a stretch of
// writes; the process forks meanwhile and the child writes an area of its
// own.  Every read sees its own round, and at the end the copies not fenced
// off agree and hold every thread's last round.
TEST_F(Schedule, HandlesWithAFailingCopyAndAFork) {
  constexpr int kThreads = 6, kRounds = 5, kSlice = 512;
  auto area = [](int t) { return t < 4 ? t : 4; };
  auto pos = [](int t) { return t < 4 ? 0 : (t - 4) * kSlice; };
  sbacc_test::Store(Name(4), Pattern(2 * kSlice, 0));  // sized first: extensions of one area race
  const Sim::Images snap = sim_.Save();
  for (int s = 1; s <= Schedules(); ++s) {
    SCOPED_TRACE("schedule " + std::to_string(s));
    sim_.Load(snap);
    sbacc_reset_process_state();
    Crew(s);
    const Sim::Held held = sim_.HeldNow();
    {
      FaultEnv env;
      env.FailOp(FaultEnv::kWrite, sim_.HddPath(2), 10 + s % 20, 6, EIO);
      env.BoundWrites(kBase, kBase + kAreas * kAreaSize);
      env.Shake(static_cast<uint64_t>(s));
      std::vector<std::thread> threads;
      for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
          for (int r = 0; r < kRounds; ++r) {
            void* fp = sbacc_test::OpenArea(Name(area(t)), "w");
            Bytes got(kSlice);
            EXPECT_EQ(kSlice, sbacc_write(Pattern(kSlice, t * 10 + r).data(), kSlice, pos(t), fp));
            EXPECT_EQ(kSlice, sbacc_read(got.data(), kSlice, pos(t), fp));
            EXPECT_EQ(Pattern(kSlice, t * 10 + r), got) << "thread " << t << " round " << r;
            EXPECT_EQ(0, sbacc_close(fp));
          }
        });
      }
      if (s % 4 == 0) ForkAndUse();
      for (std::thread& th : threads) th.join();
    }
    sbacc_reset_process_state();
    ASSERT_TRUE(held == sim_.HeldNow()) << "descriptor or block left";
    for (int a = 0; a < 5; ++a) ASSERT_EQ("", sim_.Disagreement(a, sim_.NvEntry(a).hddblockade, false)) << a;
    for (int t = 0; t < kThreads; ++t) {
      // An open that meets a header update half made may fence a current
      // copy, never leave a stale one in use: the lowest usable copy holds
      // the last round.
      const int ref = std::countr_zero(~sim_.NvEntry(area(t)).hddblockade);
      const Bytes d = sim_.HddBytes(ref, kBase + area(t) * kAreaSize + 128 + pos(t), kSlice);
      ASSERT_EQ(Pattern(kSlice, t * 10 + kRounds - 1), d) << "thread " << t;
    }
  }
}

}  // namespace
