// Repair lock between controllers: one NV byte per controller number in each
// area's entry, plus the one-bit NV blockade test of the repair copy.
#define SBACC_MODULE SBACC_MODULE_MA
#include "sbacc_trace.h"

#include <string.h>

#include "sanfwctl.h"
#include "sbacc_core.h"
#include "sbacc_env.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"

using sbacc::kTraceError;
using sbacc::kTraceFlow;

namespace {

constexpr int kLockBytes = 4;
constexpr unsigned kBackoffMicros = 100000;
// The status call can only tell controller 0 from controller 1.
constexpr int kJudgeableControllers = 2;

// The lock array has four bytes.  A controller number outside them is
// refused before anything is written, so no NV byte of a neighbouring field
// (or of the next area's entry) can ever be touched through a bad number.
bool CntnoInRange() { return sbacc_cntno >= 0 && sbacc_cntno < kLockBytes; }

int EnterRepairlock(SBACC_FILE_DISCRIPTER* sfd) {
  const int own = sbacc_cntno;
  if (!CntnoInRange()) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_enter_repairlock] parameter error. sbacc_cntno=%d", own);
    return SBACC_E_PARAM;
  }

  int rc = sbacc_memset_hddrepairlock(sfd, own, 1);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_enter_repairlock] sbacc_memset_hddrepairlock error. retcode=%d", rc);
    return rc;
  }

  for (int retry = 0;; ++retry) {
    uint8_t lockall[kLockBytes] = {0, 0, 0, 0};
    rc = sbacc_memget_hddrepairlock_all(sfd, lockall);
    if (rc != 0) {
      SBACC_TRACE(kTraceError, "[sbacc_ma_enter_repairlock] sbacc_memget_hddrepairlock_all error. retcode=%d", rc);
      (void)sbacc_memset_hddrepairlock(sfd, own, 0);
      return rc;
    }

    bool contended = false;
    for (int n = 0; n < kLockBytes; ++n) {
      if (n != own && lockall[n] != 0) contended = true;
    }
    if (!contended) return 0;

    // Back off before deciding anything, so the other side can get through.
    rc = sbacc_memset_hddrepairlock(sfd, own, 0);
    if (rc != 0) {
      SBACC_TRACE(kTraceError, "[sbacc_ma_enter_repairlock] sbacc_memset_hddrepairlock error. retcode=%d", rc);
      return rc;
    }
    if (retry >= sfd->env[SBACC_ENV_REPAIRLOCK]) {
      SBACC_TRACE(kTraceError, "[sbacc_ma_enter_repairlock] lock error.");
      return SBACC_E_REPAIR;
    }

    // A master clears the other byte whether that controller is still asking
    // or already holds the lock: a byte left by a controller that stopped
    // mid-repair looks exactly like a live holder, and only the master may
    // break it.
    bool cleared = false;
    for (int n = 0; n < kLockBytes; ++n) {
      SBACC_TRACE(kTraceFlow, "[sbacc_ma_enter_repairlock] [%d/%d] sbacc_cntno=%d  lockall[%d]=%d", n, kLockBytes,
                  own, n, lockall[n]);
      if (n == own || lockall[n] == 0) continue;
      if (n >= kJudgeableControllers) {
        SBACC_TRACE(kTraceError, "[sbacc_ma_enter_repairlock] Ezosanfwctl_get_status unsupported. sbacc_cntno=%d", n);
        return SBACC_E_UNSUPPORTED;
      }
      sanfw_getstatus_out_t status;
      memset(&status, 0, sizeof status);
      const int st = sbacc::CurrentEnv()->ControllerStatus(&status);
      if (st != 0) {
        // Treated as "not the master": this round ends as a plain back-off.
        SBACC_TRACE(kTraceError, "[sbacc_ma_enter_repairlock] Ezosanfwctl_get_status error. ret=%d", st);
        break;
      }
      if (status.master_cont == own) {
        rc = sbacc_memset_hddrepairlock(sfd, n, 0);
        if (rc != 0) {
          SBACC_TRACE(kTraceError, "[sbacc_ma_enter_repairlock] sbacc_memset_hddrepairlock error. retcode=%d", rc);
          return rc;
        }
        cleared = true;
      }
    }
    // The master retries at once; everybody else gives the holder time.
    if (!cleared) sbacc::CurrentEnv()->SleepMicros(kBackoffMicros);

    rc = sbacc_memset_hddrepairlock(sfd, own, 1);
    if (rc != 0) {
      SBACC_TRACE(kTraceError, "[sbacc_ma_enter_repairlock] sbacc_memset_hddrepairlock error. retcode=%d", rc);
      return rc;
    }
  }
}

}  // namespace

int sbacc_ma_enter_repairlock(SBACC_FILE_DISCRIPTER* sfd) {
  const int rc = EnterRepairlock(sfd);
  SBACC_TRACE(kTraceFlow, "[sbacc_ma_enter_repairlock] [LEAVE] %d", rc);
  return rc;
}

int sbacc_ma_leave_repairlock(SBACC_FILE_DISCRIPTER* sfd) {
  SBACC_TRACE(kTraceFlow, "[sbacc_ma_leave_repairlock] [ENTER]");
  int rc;
  if (!CntnoInRange()) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_leave_repairlock] parameter error. sbacc_cntno=%d", sbacc_cntno);
    rc = SBACC_E_PARAM;
  } else {
    rc = sbacc_memset_hddrepairlock(sfd, sbacc_cntno, 0);
    if (rc != 0) {
      SBACC_TRACE(kTraceError, "[sbacc_ma_leave_repairlock] sbacc_memset_hddrepairlock error. retcode=%d", rc);
    }
  }
  SBACC_TRACE(kTraceFlow, "[sbacc_ma_leave_repairlock] [LEAVE] %d", rc);
  return rc;
}

int sbacc_ma_mem_check_blockade(SBACC_FILE_DISCRIPTER* sfd, int hdd) {
  uint32_t mask = 0;
  const int rc = sbacc_memget_hddblockade(sfd, &mask);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_mem_check_blockade] sbacc_memget_hddblockade error. retcode=%d", rc);
    return rc;
  }
  if (hdd >= 0 && hdd < 32 && (mask & (1u << hdd)) != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_mem_check_blockade] repair error.");
    return SBACC_E_NOCOPY;
  }
  return 0;
}
