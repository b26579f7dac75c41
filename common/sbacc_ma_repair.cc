// Rebuild of one stale HDD copy of an open area from a good one.
#define SBACC_MODULE SBACC_MODULE_MA
#include "sbacc_trace.h"

#include <errno.h>
#include <pthread.h>
#include <stdint.h>

#include "sbacc_alloc.h"
#include "sbacc_env.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"

using sbacc::kTraceError;
using sbacc::kTraceFlow;
using sbacc::kTraceState;

namespace {

constexpr int kChunk = 2048;

// Several copies of one area are rebuilt at once, each by its own worker on
// the same descriptor.  Their source reads are positioned transfers and do
// not disturb each other, but the NV hddrepair byte and the blockade masks
// are read-change-write words shared by all of them.
//
// This process-wide mutex serialises every read-change-write of the NV
// hddrepair byte, and the whole unfencing sequence of a copy: header blockade
// word read + clear + write, NV blockade read + clear + write, and the
// clearing of the copy's hddrepair bit.  The header write is an access that
// recomputes the blockade from the open files and the hddrepair bits; if it
// ran between another worker's NV clear and that worker's hddrepair clear, it
// would set that worker's blockade bit again.  Holding the mutex over the
// whole sequence keeps each worker's unfencing atomic with respect to the
// others.  Not recursive: nothing called while it is held takes it again
// (the access engine does not know it).
pthread_mutex_t g_repair_mutex = PTHREAD_MUTEX_INITIALIZER;

class RepairLockGuard {
 public:
  RepairLockGuard() { pthread_mutex_lock(&g_repair_mutex); }
  ~RepairLockGuard() { pthread_mutex_unlock(&g_repair_mutex); }
  RepairLockGuard(const RepairLockGuard&) = delete;
  RepairLockGuard& operator=(const RepairLockGuard&) = delete;
};

// Caller holds g_repair_mutex.
int MemsetHddrepairLocked(SBACC_FILE_DISCRIPTER* sfd, int hdd, boolean_t flag) {
  int rc = sbacc_ma_repairlock_check(sfd);
  if (rc != 0) return rc;
  uint8_t mask = 0;
  rc = sbacc_memget_hddrepair(sfd, &mask);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_memset_hddrepair] sbacc_memget_hddrepair error. retcode=%d", rc);
    return rc;
  }
  const uint8_t bit = static_cast<uint8_t>(1u << hdd);
  mask = (flag == B_TRUE) ? static_cast<uint8_t>(mask | bit) : static_cast<uint8_t>(mask & ~bit);
  SBACC_TRACE(kTraceFlow, "[sbacc_ma_memset_hddrepair] set hddrepair (%02x)", mask);
  rc = sbacc_memset_hddrepair(sfd, mask);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_memset_hddrepair] sbacc_memset_hddrepair error. retcode=%d", rc);
  }
  return rc;
}

// One transfer of `len` bytes at area offset `offset` from src to dst, with
// up to SBACC_REPAIR_MAXRETRY immediate repeats.  Every copy in this file
// moves raw bytes, so the destination ends up byte-for-byte the source.
int CopyRange(SBACC_FILE_DISCRIPTER* sfd, int src, int dst, int offset, uint8_t* buf, int len, bool header) {
  const int held = sbacc_ma_repairlock_check(sfd);
  if (held != 0) return held;
  int failures = 0;
  for (;;) {
    int rc = sbacc_l_hddget(sfd, src, offset, buf, len);
    if (rc != 0) {
      if (header) {
        SBACC_TRACE(kTraceError, "[sbacc_ma_hddrepair_copy] sbacc_l_hddget_header error. retcode=%d", rc);
      } else {
        SBACC_TRACE(kTraceError, "[sbacc_ma_hddrepair_copy] sbacc_l_hddget_data error. retcode=%d", rc);
      }
    } else {
      rc = sbacc_l_hddset(sfd, dst, offset, buf, len);
      if (rc == 0) return 0;
      if (header) {
        SBACC_TRACE(kTraceError, "[sbacc_ma_hddrepair_copy] sbacc_l_hddset_header error. retcode=%d", rc);
      } else {
        SBACC_TRACE(kTraceError, "[sbacc_ma_hddrepair_copy] sbacc_l_hddset_data error. retcode=%d", rc);
      }
    }
    if (++failures > sfd->env[SBACC_ENV_REPAIR]) {
      SBACC_TRACE(kTraceError, "[sbacc_ma_hddrepair_copy] repair error.");
      return SBACC_E_REPAIR;
    }
  }
}

// Steps between marking the destination and unfencing it: data, header, and
// the second look at the source.
int CopyAll(SBACC_FILE_DISCRIPTER* sfd, int src, int dst, uint8_t* buf) {
  int32_t filesize = 0;
  int rc = sbacc_l_hddget_filesize(sfd, src, &filesize);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_hddrepair_copy] sbacc_l_hddget_filesize error. retcode=%d", rc);
    return rc;
  }
  // The amount copied never leaves the area, whatever the source header
  // claims.  A size beyond the capacity cannot say where the data ends, so
  // the whole capacity is copied: the destination then holds exactly the
  // source's bytes, and reads refuse the bad size on both copies alike until
  // a resize mends it.  A negative size leaves nothing in use to copy.
  const int64_t area = static_cast<int64_t>(sfd->sfe.areasize > INT32_MAX ? INT32_MAX : sfd->sfe.areasize);
  const int32_t capacity = static_cast<int32_t>(area > SBACC_HEADER_SIZE ? area - SBACC_HEADER_SIZE : 0);
  if (filesize > capacity) filesize = capacity;
  for (int32_t p = 0; p < filesize;) {
    const int chunk = (filesize - p < kChunk) ? static_cast<int>(filesize - p) : kChunk;
    rc = CopyRange(sfd, src, dst, SBACC_HEADER_SIZE + p, buf, chunk, false);
    if (rc != 0) return rc;
    p += chunk;
  }
  // The header goes last: a copy cut short keeps the destination's old one.
  rc = CopyRange(sfd, src, dst, 0, buf, SBACC_HEADER_SIZE, true);
  if (rc != 0) return rc;

  rc = sbacc_ma_mem_check_blockade(sfd, src);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_hddrepair_copy] sbacc_ma_mem_check_blockade error. retcode=%d", rc);
  }
  return rc;
}

// Takes dst off the blockade, headers first, then NV.  Caller holds
// g_repair_mutex.
int UnfenceLocked(SBACC_FILE_DISCRIPTER* sfd, int dst) {
  const uint32_t bit = 1u << dst;
  uint32_t word = 0;
  int rc = sbacc_ma_repairlock_check(sfd);
  if (rc != 0) return rc;
  rc = sbacc_ma_hddget_hddblockade(sfd, &word);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_hddrepair_copy] sbacc_ma_hddget_hddblockade error. retcode=%d", rc);
    return rc;
  }
  // Still marked under repair, so this set reaches dst's fresh header too.
  rc = sbacc_ma_hddset_hddblockade(sfd, word & ~bit);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_hddrepair_copy] sbacc_ma_hddset_hddblockade error. retcode=%d", rc);
    return rc;
  }

  uint32_t mask = 0;
  rc = sbacc_memget_hddblockade(sfd, &mask);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_hddrepair_copy] sbacc_memget_hddblockade error. retcode=%d", rc);
    return rc;
  }
  SBACC_TRACE(kTraceState, "[sbacc_ma_hddrepair_copy] hddblockade: %#x->%#x  %s", mask, mask & ~bit,
              sfd->sfe.filename);
  rc = sbacc_memset_hddblockade(sfd, mask & ~bit);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_hddrepair_copy] sbacc_memset_hddblockade error. retcode=%d", rc);
  }
  return rc;
}

int HddrepairCopy(SBACC_FILE_DISCRIPTER* sfd, int src, int dst) {
  uint8_t* buf = static_cast<uint8_t*>(SBACC_CALLOC(1, kChunk));
  if (buf == nullptr) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_hddrepair_copy] calloc error. errno=%d", errno);
    return SBACC_E_NOMEM;
  }

  int rc = sbacc_ma_mem_check_blockade(sfd, src);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_hddrepair_copy] sbacc_ma_mem_check_blockade error. retcode=%d", rc);
    SBACC_FREE(buf);
    return rc;
  }

  rc = sbacc_ma_memset_hddrepair(sfd, dst, B_TRUE);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_hddrepair_copy] sbacc_ma_memset_hddrepair error. retcode=%d", rc);
    SBACC_FREE(buf);
    return rc;
  }

  // From here on every exit clears the mark again.
  rc = CopyAll(sfd, src, dst, buf);
  SBACC_FREE(buf);
  {
    RepairLockGuard guard;
    if (rc == 0) rc = UnfenceLocked(sfd, dst);
    (void)MemsetHddrepairLocked(sfd, dst, B_FALSE);
  }
  return rc;
}

}  // namespace

int sbacc_ma_memset_hddrepair(SBACC_FILE_DISCRIPTER* sfd, int hdd, boolean_t flag) {
  RepairLockGuard guard;
  return MemsetHddrepairLocked(sfd, hdd, flag);
}

int sbacc_ma_hddrepair_copy(SBACC_FILE_DISCRIPTER* sfd, int src, int dst) {
  SBACC_TRACE(kTraceFlow, "[sbacc_ma_hddrepair_copy] [ENTER]");
  const int rc = HddrepairCopy(sfd, src, dst);
  SBACC_TRACE(kTraceFlow, "[sbacc_ma_hddrepair_copy] [LEAVE] %d", rc);
  return rc;
}

void sbacc_ma_repair_close_hdd(SBACC_FILE_DISCRIPTER* sfd, int hdd) {
  // The unfencing accesses of other rebuild workers may close copies of the
  // same descriptor; doing this under the same mutex keeps one copy from
  // being closed twice.
  RepairLockGuard guard;
  if (sfd->fd[hdd] != -1) {
    (void)sbacc::CurrentEnv()->Close(sfd->fd[hdd]);
    sfd->fd[hdd] = -1;
  }
}
