// Start-up and repair entry points: NV initialisation of every area, the
// repair set-up and flag, and the two HDD repair entry points that this
// library accepts without work.
#define SBACC_MODULE SBACC_MODULE_SBACC
#include "sbacc_trace.h"

#include <errno.h>

#include "sbacc_core.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"

using sbacc::kTraceError;
using sbacc::kTraceFlow;
using sbacc::kTraceState;

namespace {

int NvInit(int cntno) {
  sbacc_cntno = cntno;
  SBACC_TRACE(kTraceFlow, "[sbacc_nv_init] SBACC_HDD_HEADER size=%d SBACC_MEM_LIST_ENTRY size=%d", SBACC_HEADER_SIZE,
              SBACC_NV_ENTRY_SIZE);

  int rc = sbacc_hdd_restore(cntno);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_nv_init] sbacc_hdd_restore error. ret=%d", rc);
    return rc;
  }
  if (p_sbacc_file_list == nullptr) {
    rc = sbacc_l_get_filelist(&p_sbacc_file_list);
    if (rc != 0) {
      SBACC_TRACE(kTraceError, "[sbacc_nv_init] sbacc_l_get_filelist error. ret=%d errno=%d", rc, errno);
      return rc;
    }
  }

  // Stops at the first area that fails; the areas before it stay done.  An
  // area without a usable copy now (its open refused to re-create it while a
  // copy that may hold its data cannot be read) only fails the call at the
  // end: the others still get their records.
  int held = 0;
  for (int i = 0; i < p_sbacc_file_list->filenum; ++i) {
    SBACC_TRACE(kTraceFlow, "[sbacc_nv_init] [%d/%d]", i, p_sbacc_file_list->filenum);
    SBACC_FILE_DISCRIPTER* sfd = nullptr;
    rc = sbacc_ma_alloc_sfd(p_sbacc_file_list->file[i].filename, SBACC_OPENMODE_WRITE, &sfd);
    if (rc != 0) {
      SBACC_TRACE(kTraceError, "[sbacc_nv_init] sbacc_ma_alloc_sfd error. ret=%d errno=%d", rc, errno);
      return rc;
    }
    // Beyond the base design: the record is rebuilt under the area's repair
    // lock, so no other controller's start-up repairs the area meanwhile (it
    // would take this open for a writer that never closed, and this rebuild
    // would overwrite its NV updates).
    rc = sbacc_ma_enter_repairlock(sfd);
    if (rc != 0) {
      SBACC_TRACE(kTraceError, "[sbacc_nv_init] sbacc_ma_enter_repairlock error. ret=%d filename=%s", rc,
                  sfd->sfe.filename);
      sbacc_ma_free_sfd(sfd);
      return rc;
    }
    SBACC_TRACE(kTraceFlow, "[sbacc_nv_init] sbacc_ma_open filename=(%s)", sfd->sfe.filename);
    boolean_t closeflag = B_TRUE;
    rc = sbacc_ma_open(sfd, &closeflag, B_TRUE);
    if (rc == SBACC_E_NOCOPY) {
      SBACC_TRACE(kTraceError, "[sbacc_nv_init] %s left as it is: no usable copy now. ret=%d", sfd->sfe.filename, rc);
      ++held;
      (void)sbacc_ma_leave_repairlock(sfd);
      sbacc_ma_free_sfd(sfd);
      continue;
    }
    if (rc != 0) {
      SBACC_TRACE(kTraceError, "[sbacc_nv_init] sbacc_ma_open error. ret=%d errno=%d", rc, errno);
      (void)sbacc_ma_leave_repairlock(sfd);
      sbacc_ma_free_sfd(sfd);
      return rc;
    }
    (void)sbacc_ma_close(sfd);
    (void)sbacc_ma_leave_repairlock(sfd);
    sbacc_ma_free_sfd(sfd);
  }
  return held != 0 ? SBACC_E_NOCOPY : 0;
}

int RepairInit(int cntno) {
  if (sbacc_repair_thread_flag != B_FALSE) {
    SBACC_TRACE(kTraceError, "[sbacc_repair_init] function error. init=already");
    return SBACC_E_NOTALLOWED;
  }
  // Stored as given: the repair lock itself refuses a number outside 0..3.
  sbacc_cntno = cntno;
  int rc;
  if (p_sbacc_file_list == nullptr) {
    rc = sbacc_l_get_filelist(&p_sbacc_file_list);
    if (rc != 0) {
      SBACC_TRACE(kTraceError, "[sbacc_repair_init] sbacc_l_get_filelist error. retcode=%d", rc);
      return rc;
    }
  }
  // Clears this controller's lock byte everywhere: a repair cut short may
  // have left it raised.
  for (int i = 0; i < p_sbacc_file_list->filenum; ++i) {
    SBACC_FILE_DISCRIPTER* sfd = nullptr;
    rc = sbacc_ma_alloc_sfd(p_sbacc_file_list->file[i].filename, SBACC_OPENMODE_INSPECT, &sfd);
    if (rc != 0) {
      SBACC_TRACE(kTraceError, "[sbacc_repair_init] sbacc_ma_alloc_sfd error. retcode=%d", rc);
      return rc;
    }
    rc = sbacc_ma_leave_repairlock(sfd);
    sbacc_ma_free_sfd(sfd);
    if (rc != 0) {
      SBACC_TRACE(kTraceError, "[sbacc_repair_init] sbacc_ma_leave_repairlock error. retcode=%d", rc);
      return rc;
    }
  }
  sbacc_repair_thread_flag = B_TRUE;
  return 0;
}

}  // namespace

int sbacc_nv_init(int cntno) {
  SBACC_TRACE(kTraceFlow, "[sbacc_nv_init] [ENTER] %s", "sbacc_nv_init");
  const int rc = NvInit(cntno);
  if (rc != 0) SBACC_TRACE_PARAM_NOARGS("sbacc_nv_init", rc);
  SBACC_TRACE(kTraceFlow, "[sbacc_nv_init] [LEAVE] %d", rc);
  return rc;
}

int sbacc_repair_init(int cntno) {
  SBACC_TRACE(kTraceFlow, "[sbacc_repair_init] [ENTER]");
  const int rc = RepairInit(cntno);
  if (rc != 0) SBACC_TRACE_PARAM_NOARGS("sbacc_repair_init", rc);
  SBACC_TRACE(kTraceFlow, "[sbacc_repair_init] [LEAVE] %d", rc);
  return rc;
}

boolean_t sbacc_repair_flag(boolean_t flag) {
  SBACC_TRACE(kTraceFlow, "[sbacc_repair_flag] [ENTER]");
  // Only raises; there is no way to lower the flag.
  if (flag != B_FALSE) sbacc_repair_thread_flag = flag;
  const boolean_t now = sbacc_repair_thread_flag;
  SBACC_TRACE(kTraceFlow, "[sbacc_repair_flag] [LEAVE] %d", static_cast<int>(now));
  return now;
}

// Repairing named HDDs is not this library's job: both entry points accept
// any list (NULL included) and report success.
int sbacc_repair(SBACC_REPAIR_HDD* hdd, boolean_t flag) {
  (void)hdd;
  (void)flag;
  SBACC_TRACE(kTraceFlow, "[sbacc_repair] [ENTER]");
  SBACC_TRACE(kTraceFlow, "[sbacc_repair] [LEAVE] %d", 0);
  return 0;
}

int sbacc_ma_hddrepair(SBACC_REPAIR_HDD* hdd, boolean_t flag) {
  (void)hdd;
  (void)flag;
  SBACC_TRACE(kTraceState, "[sbacc_ma_hddrepair] [ENTER] %s", "sbacc_ma_hddrepair");
  SBACC_TRACE(kTraceFlow, "[sbacc_ma_hddrepair] [LEAVE] %d", 0);
  return 0;
}
