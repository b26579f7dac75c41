// Repair lock (in one process and raced between real processes on one NV
// image) and the repair interface.
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include <gtest/gtest.h>

#include "fault_env.h"
#include "sanfwctl.h"
#include "sbacc.h"
#include "sbacc_alloc.h"
#include "sbacc_core.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"
#include "sim.h"

using sbacc_test::FaultEnv;
using sbacc_test::Sim;
using Bytes4 = std::vector<uint8_t>;

namespace {

uint64_t LockPos(int area) { return SBACC_NV_BASE + 128ull * area + kMemRepairlock; }

class LockTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("SBACC_REPAIRLOCK_MAXRETRY");
    sim_.SetAreas({{"a", 0, 4096, 1}, {"b", 4096, 4096, 1}});
    blocks_ = sbacc::AllocLiveBlocks();
    total_ = sbacc::AllocTrackedTotal();
    ASSERT_EQ(0, sbacc_ma_alloc_sfd("a", SBACC_OPENMODE_INSPECT, &sfd_));
  }
  void TearDown() override {
    sbacc_ma_free_sfd(sfd_);
    sbacc_reset_process_state();  // the area list stays loaded by design
    EXPECT_EQ(blocks_, sbacc::AllocLiveBlocks());
    EXPECT_EQ(total_, sbacc::AllocTrackedTotal());
  }
  Bytes4 Lock(int area = 0) const { return sim_.NvBytes(LockPos(area), 4); }
  void SetLock(const Bytes4& b, int area = 0) { sim_.PutNvBytes(LockPos(area), b.data(), 4); }

  Sim sim_{1};
  SBACC_FILE_DISCRIPTER* sfd_ = nullptr;
  long blocks_ = 0;
  int total_ = 0;
};

struct EnterCase {
  const char* name;
  int own;
  Bytes4 before;
  int master;
  long status_failures;  // first N status calls fail
  int maxretry;
  int rc;
  long sleeps;  // of 100 ms each
  long status_calls;
  Bytes4 after;
};
void PrintTo(const EnterCase& c, std::ostream* os) { *os << c.name; }

class EnterTest : public LockTest, public ::testing::WithParamInterface<EnterCase> {};

TEST_P(EnterTest, TakesOrGivesUp) {
  const EnterCase& c = GetParam();
  setenv("SBACC_REPAIRLOCK_MAXRETRY", std::to_string(c.maxretry).c_str(), 1);
  sbacc_ma_free_sfd(sfd_);  // tunables are read when a descriptor is built
  ASSERT_EQ(0, sbacc_ma_alloc_sfd("a", SBACC_OPENMODE_INSPECT, &sfd_));
  setenv("SANFWCTL_MASTER", std::to_string(c.master).c_str(), 1);
  SetLock(c.before);
  sbacc_cntno = c.own;
  sanfwctl_set_fault(SANFWCTL_FAULT_STATUS, sanfwctl_call_count(SANFWCTL_FAULT_STATUS), c.status_failures);
  FaultEnv env;
  const long writes = sanfwctl_call_count(SANFWCTL_FAULT_WRITE);
  EXPECT_EQ(c.rc, sbacc_ma_enter_repairlock(sfd_));
  EXPECT_EQ(c.after, Lock());
  EXPECT_EQ(c.sleeps, env.SleepCount());
  EXPECT_EQ(static_cast<uint64_t>(c.sleeps) * 100000u, env.SleptMicros());
  EXPECT_EQ(c.status_calls, sanfwctl_call_count(SANFWCTL_FAULT_STATUS));
  if (c.rc == SBACC_E_PARAM) {
    EXPECT_EQ(writes, sanfwctl_call_count(SANFWCTL_FAULT_WRITE));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, EnterTest,
    ::testing::Values(
        EnterCase{"Free", 0, {0, 0, 0, 0}, 1, 0, 3, 0, 0, 0, {1, 0, 0, 0}},
        EnterCase{"HeldByOtherNotMaster", 0, {0, 1, 0, 0}, 1, 0, 3, SBACC_E_REPAIR, 3, 3, {0, 1, 0, 0}},
        EnterCase{"RetryLimitFromEnv", 0, {0, 1, 0, 0}, 1, 0, 1, SBACC_E_REPAIR, 1, 1, {0, 1, 0, 0}},
        EnterCase{"MasterClearsOther", 0, {0, 1, 0, 0}, 0, 0, 3, 0, 0, 1, {1, 0, 0, 0}},
        EnterCase{"Controller2Raised", 0, {0, 0, 1, 0}, 0, 0, 3, SBACC_E_UNSUPPORTED, 0, 0, {0, 0, 1, 0}},
        EnterCase{"Controller3AfterNonMaster0", 1, {1, 0, 0, 1}, 0, 0, 3, SBACC_E_UNSUPPORTED, 0, 1, {1, 0, 0, 1}},
        EnterCase{"StatusFailureIsABackoff", 0, {0, 1, 0, 0}, 0, 1, 3, 0, 1, 2, {1, 0, 0, 0}},
        EnterCase{"StatusAlwaysFails", 0, {0, 1, 0, 0}, 0, -1, 3, SBACC_E_REPAIR, 3, 3, {0, 1, 0, 0}},
        EnterCase{"ControllerNumber4", 4, {0, 1, 0, 0}, 4, 0, 3, SBACC_E_PARAM, 0, 0, {0, 1, 0, 0}},
        EnterCase{"ControllerNumberNegative", -1, {0, 0, 0, 0}, 0, 0, 3, SBACC_E_PARAM, 0, 0, {0, 0, 0, 0}}),
    [](const ::testing::TestParamInfo<EnterCase>& i) { return std::string(i.param.name); });

TEST_F(LockTest, LeaveWritesOwnByteOnly) {
  SetLock({1, 0, 1, 1});
  sbacc_cntno = 0;
  EXPECT_EQ(0, sbacc_ma_leave_repairlock(sfd_));
  EXPECT_EQ(0, sbacc_ma_leave_repairlock(sfd_));  // already 0: written again
  EXPECT_EQ((Bytes4{0, 0, 1, 1}), Lock());
  const long writes = sanfwctl_call_count(SANFWCTL_FAULT_WRITE);
  sbacc_cntno = 4;
  EXPECT_EQ(SBACC_E_PARAM, sbacc_ma_leave_repairlock(sfd_));
  EXPECT_EQ(writes, sanfwctl_call_count(SANFWCTL_FAULT_WRITE));
}

// ---- Real processes on one NV image -------------------------------------------------

// Child side: becomes controller `cntno` with `master` reported by the status
// call and returns fn(descriptor of area "a").
template <class Fn>
int RunAs(int cntno, int master, Fn fn) {
  setenv("SANFWCTL_MASTER", std::to_string(master).c_str(), 1);
  sbacc_cntno = cntno;
  SBACC_FILE_DISCRIPTER* sfd = nullptr;
  return sbacc_ma_alloc_sfd("a", SBACC_OPENMODE_INSPECT, &sfd) == 0 ? fn(sfd) : 250;
}

int Wait(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
}

template <class Fn>
int InChild(int cntno, int master, Fn fn) {
  const pid_t pid = fork();
  if (pid == 0) _exit(RunAs(cntno, master, fn));
  return Wait(pid);
}

struct Shared {
  std::atomic<int> holders, overlaps, taken, other;
};

TEST_F(LockTest, ProcessesNeverHoldTogether) {
  // The master breaks a holder's byte by design; this run checks the plain
  // protocol, so no contender is the master.
  auto* sh = static_cast<Shared*>(mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(MAP_FAILED, static_cast<void*>(sh));
  new (sh) Shared{};
  setenv("SBACC_REPAIRLOCK_MAXRETRY", "2", 1);
  pid_t kids[4];
  for (int c = 0; c < 4; ++c) {
    kids[c] = fork();
    if (kids[c] != 0) continue;
    _exit(RunAs(c, 9, [sh, c](SBACC_FILE_DISCRIPTER* sfd) {
      for (int round = 0; round < 15; ++round) {
        const int rc = sbacc_ma_enter_repairlock(sfd);
        if (rc == 0) {
          if (sh->holders.fetch_add(1) != 0) sh->overlaps++;
          usleep(3000);
          sh->holders.fetch_sub(1);
          sh->taken++;
          if (sbacc_ma_leave_repairlock(sfd) != 0) sh->other++;
        } else if (rc != SBACC_E_REPAIR && rc != SBACC_E_UNSUPPORTED) {
          sh->other++;
        }
        usleep(500 + 300 * c);
      }
      return 0;
    }));
  }
  for (pid_t k : kids) EXPECT_EQ(0, Wait(k));
  EXPECT_EQ(0, sh->overlaps.load());
  EXPECT_EQ(0, sh->other.load());
  EXPECT_GT(sh->taken.load(), 0);
  EXPECT_EQ((Bytes4{0, 0, 0, 0}), Lock());
  munmap(sh, sizeof(Shared));
}

TEST_F(LockTest, MasterWinsAcrossProcesses) {
  auto enter = [](SBACC_FILE_DISCRIPTER* sfd) {
    FaultEnv env;  // sleeps recorded, not slept
    const int rc = sbacc_ma_enter_repairlock(sfd);
    return (rc == 0 && env.SleepCount() != 0) ? 99 : -rc;
  };
  auto leave = [](SBACC_FILE_DISCRIPTER* sfd) { return -sbacc_ma_leave_repairlock(sfd); };
  EXPECT_EQ(0, InChild(1, 0, enter));  // controller 1 holds (and stops holding it)
  EXPECT_EQ(0, InChild(0, 0, enter));  // master: clears it, no sleep
  EXPECT_EQ((Bytes4{1, 0, 0, 0}), Lock());
  EXPECT_EQ(-SBACC_E_REPAIR, InChild(1, 0, enter));
  EXPECT_EQ(-SBACC_E_REPAIR, InChild(2, 0, enter));
  EXPECT_EQ(0, InChild(0, 0, leave));
  EXPECT_EQ(0, InChild(3, 0, enter));
  EXPECT_EQ(-SBACC_E_UNSUPPORTED, InChild(0, 0, enter));  // even the master
  EXPECT_EQ((Bytes4{0, 0, 0, 1}), Lock());
}

// ---- Repair interface ------------------------------------------------------------------

TEST_F(LockTest, RepairInitClearsOwnBytesOnceOnly) {
  SetLock({1, 1, 0, 0}, 0);
  SetLock({0, 1, 1, 0}, 1);
  EXPECT_EQ(B_FALSE, sbacc_repair_flag(B_FALSE));
  sbacc_test::TraceCapture trace;
  EXPECT_EQ(0, sbacc_repair_init(1));
  EXPECT_EQ((Bytes4{1, 0, 0, 0}), Lock(0));
  EXPECT_EQ((Bytes4{0, 0, 1, 0}), Lock(1));
  EXPECT_EQ(B_TRUE, sbacc_repair_flag(B_FALSE));
  SetLock({0, 1, 0, 0}, 0);
  const long writes = sanfwctl_call_count(SANFWCTL_FAULT_WRITE);
  EXPECT_EQ(SBACC_E_NOTALLOWED, sbacc_repair_init(1));
  EXPECT_EQ(SBACC_E_NOTALLOWED, sbacc_repair_init(1));
  EXPECT_EQ(writes, sanfwctl_call_count(SANFWCTL_FAULT_WRITE));
  EXPECT_EQ(2, trace.Count("[sbacc_repair_init]   retcode: -101"));
  EXPECT_EQ(0, sbacc_repair(nullptr, B_TRUE));
  EXPECT_EQ(0, sbacc_ma_hddrepair(nullptr, B_FALSE));
}

TEST_F(LockTest, RepairFlagRaisedFirstBlocksInit) {
  EXPECT_EQ(B_TRUE, sbacc_repair_flag(B_TRUE));
  EXPECT_EQ(B_TRUE, sbacc_repair_flag(B_FALSE));  // cannot be lowered
  EXPECT_EQ(SBACC_E_NOTALLOWED, sbacc_repair_init(0));
}

TEST_F(LockTest, RepairInitWithBadNumberOrEmptyList) {
  const long writes = sanfwctl_call_count(SANFWCTL_FAULT_WRITE);
  EXPECT_EQ(SBACC_E_PARAM, sbacc_repair_init(7));
  EXPECT_EQ(B_FALSE, sbacc_repair_flag(B_FALSE));
  sbacc_reset_process_state();
  sim_.SetFilelistText("# no area\n");
  EXPECT_EQ(0, sbacc_repair_init(7));
  EXPECT_EQ(B_TRUE, sbacc_repair_flag(B_FALSE));
  EXPECT_EQ(writes, sanfwctl_call_count(SANFWCTL_FAULT_WRITE));
}

}  // namespace
