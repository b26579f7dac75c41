// Area descriptors: allocation from the area list plus the tunables read from
// the environment, and release.
#define SBACC_MODULE SBACC_MODULE_MA
#include <errno.h>
#include <limits.h>
#include <stdlib.h>

#include "sbacc.h"
#include "sbacc_alloc.h"
#include "sbacc_env.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"
#include "sbacc_trace.h"

// Row i fills env slot i; the NULL row ends the table.
const SBACC_ENV_LIST_ENTRY sbacc_env_list[] = {
    {"SBACC_MEMSET_MAXRETRY", 5, 1, 999},
    {"SBACC_MEMGET_MAXRETRY", 5, 1, 999},
    {"SBACC_REPAIR_MAXRETRY", 3, 1, 999},
    // Beyond the base design (sbacc_ma_lock.cc): seconds a controller waits
    // for a repair lock before it gives up, in place of the base design's
    // SBACC_REPAIRLOCK_MAXRETRY back-offs of 100 ms (no longer read) ...
    {"SBACC_REPAIRLOCK_WAIT", 600, 1, 86400},
    {"SBACC_RESTORE_RESYNC", 1, 0, 1},
    // ... and seconds the master watches a raised lock byte whose heartbeat
    // does not move before it takes it for the byte of a stopped controller.
    {"SBACC_REPAIRLOCK_STALE", 60, 1, 3600},
    {"SBACC_FENCE_MERGE", 1, 0, 1},
    // 0: the per-copy integrity records are neither written nor checked.
    {"SBACC_CHECKSUM", 1, 0, 1},
    {nullptr, 0, 0, 0},
};

namespace {

// The value of one tunable.  Read like atoi (leading blanks and a sign
// accepted, conversion stops at the first non-digit, no digits gives 0), but
// through strtol so that a number too large for an int is out of range
// instead of undefined behaviour.
int TunableValue(const SBACC_ENV_LIST_ENTRY& row) {
  const char* text = getenv(row.name);
  if (text == nullptr) return row.def;
  errno = 0;
  const long v = strtol(text, nullptr, 10);
  if (errno == ERANGE || v < row.min || v > row.max) return row.def;
  return static_cast<int>(v);
}

}  // namespace

int sbacc_ma_alloc_sfd(const char* filename, int openmode, SBACC_FILE_DISCRIPTER** sfd) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_alloc_sfd] [ENTER]");
  // Internal callers always pass both; a NULL here is a caller bug that would
  // otherwise crash inside the list lookup or on the store.
  if (filename == nullptr || sfd == nullptr) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_alloc_sfd] parameter error. filename=%s sfd=%s",
                SBACC_STRSTR(filename), SBACC_PTRSTR(sfd));
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_alloc_sfd] [LEAVE] %d", SBACC_E_PARAM);
    return SBACC_E_PARAM;
  }

  auto* p = static_cast<SBACC_FILE_DISCRIPTER*>(SBACC_CALLOC(1, sizeof(SBACC_FILE_DISCRIPTER)));
  if (p == nullptr) {
    const int err = errno;
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_alloc_sfd] calloc error. errno=%d", err);
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_alloc_sfd] [LEAVE] %d", SBACC_E_NOMEM);
    return SBACC_E_NOMEM;
  }
  for (int i = 0; i < SBACC_HDD_MAX; ++i) p->fd[i] = -1;
  p->openmode = openmode;

  const int rc = sbacc_l_get_filelist_entry(filename, &p->sfe);
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_alloc_sfd] sbacc_l_get_filelist_entry error. retcode=%d", rc);
    SBACC_FREE(p);
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_alloc_sfd] [LEAVE] %d", rc);
    return rc;
  }

  // Read afresh at every allocation so a changed variable takes effect at
  // the next open; descriptors already out keep their values.
  for (int i = 0; i < SBACC_ENV_NUM && sbacc_env_list[i].name != nullptr; ++i) {
    p->env[i] = TunableValue(sbacc_env_list[i]);
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_alloc_sfd] %s: %d", sbacc_env_list[i].name, p->env[i]);
  }

  *sfd = p;
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_alloc_sfd] [LEAVE] %d", 0);
  return 0;
}

void sbacc_ma_free_sfd(SBACC_FILE_DISCRIPTER* sfd) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_free_sfd] [ENTER]");
  // The HDD descriptors are not closed here: whoever opened them closes them.
  if (sfd != nullptr) SBACC_FREE(sfd);
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_free_sfd] [LEAVE]");
}

int sbacc_ma_copies(const SBACC_FILE_DISCRIPTER* sfd) {
  const int n = sfd->sfe.hddcount;
  return n < 0 ? 0 : (n > SBACC_HDD_MAX ? SBACC_HDD_MAX : n);
}

void sbacc_ma_close_hdd(SBACC_FILE_DISCRIPTER* sfd, int hdd) {
  if (sfd->fd[hdd] != -1) (void)sbacc::CurrentEnv()->Close(sfd->fd[hdd]);
  sfd->fd[hdd] = -1;
}
