// Rebuild of one stale HDD copy of an open area from a good one.
#define SBACC_MODULE SBACC_MODULE_MA
#include "sbacc_trace.h"

#include <errno.h>
#include <stdint.h>

#include "sbacc_alloc.h"
#include "sbacc_crc32c.h"
#include "sbacc_env.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"

using sbacc::kTraceError;
using sbacc::kTraceFlow;
using sbacc::kTraceState;

namespace {

constexpr int kChunk = 2048;

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

// The data, then the header.  A size beyond the capacity cannot say where
// the data ends, so the whole capacity is copied: the destination then holds
// exactly the source's bytes, and reads refuse the bad size on both copies
// alike until a resize mends it.  A negative size leaves nothing to copy.
// The copy reaches as far as the source's integrity record covers too (a
// size write cut short leaves it past the size), so that the rebuilt copy
// proves the same data.
int CopyAll(SBACC_FILE_DISCRIPTER* sfd, int src, int dst, uint8_t* buf) {
  SBACC_HDD_HEADER h;
  int rc = sbacc_l_hddget_header(sfd, src, &h);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_hddrepair_copy] sbacc_l_hddget_filesize error. retcode=%d", rc);
    return rc;
  }
  int32_t filesize = h.filesize;
  SBACC_INTEGRITY r;
  if (sbacc_l_integrity_applies(&h, &r) != SBACC_INTEGRITY_NONE) {
    const uint32_t covered = r.pend_length > r.length ? r.pend_length : r.length;
    if (covered <= INT32_MAX && static_cast<int32_t>(covered) > filesize) filesize = static_cast<int32_t>(covered);
  }
  const int32_t capacity = sbacc_ma_data_capacity(sfd);
  if (filesize > capacity) filesize = capacity;
  uint32_t crc = 0;
  for (int32_t p = 0; p < filesize;) {
    const int chunk = (filesize - p < kChunk) ? static_cast<int>(filesize - p) : kChunk;
    rc = CopyRange(sfd, src, dst, SBACC_HEADER_SIZE + p, buf, chunk, false);
    if (rc != 0) return rc;
    crc = sbacc::Crc32cExtend(crc, buf, static_cast<size_t>(chunk));
    p += chunk;
  }
  // The source is checked as it is copied: bytes that changed since the
  // start-up checked it never become a rebuilt copy's data.
  if (sbacc_ma_checksums(sfd) && sbacc_l_integrity_applies(&h, &r) == SBACC_INTEGRITY_OK &&
      static_cast<int32_t>(r.length) == filesize && crc != r.crc) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_hddrepair_copy] HDD[%d] fails its integrity record as it is copied. %s", src,
                sfd->sfe.filename);
    return SBACC_E_REPAIR;
  }
  // The header goes last: a copy cut short keeps the destination's old one.
  return CopyRange(sfd, src, dst, 0, buf, SBACC_HEADER_SIZE, true);
}

// Takes dst off the blockade, headers first, then NV.  The header write is
// an access of its own on every copy in use (dst still marked under repair,
// so it reaches dst's fresh header too); the NV word is changed under the
// record's lock, so no handle's update falls between its read and write.
int Unfence(SBACC_FILE_DISCRIPTER* sfd, int dst) {
  const uint32_t bit = 1u << dst;
  uint32_t word = 0;
  int rc = sbacc_ma_repairlock_check(sfd);
  if (rc != 0) return rc;
  rc = sbacc_ma_hddget_hddblockade(sfd, &word);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_hddrepair_copy] sbacc_ma_hddget_hddblockade error. retcode=%d", rc);
    return rc;
  }
  rc = sbacc_ma_hddset_hddblockade(sfd, word & ~bit);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_hddrepair_copy] sbacc_ma_hddset_hddblockade error. retcode=%d", rc);
    return rc;
  }

  sbacc::NvRecordLock lock(sfd);
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

}  // namespace

int sbacc_ma_data_capacity(const SBACC_FILE_DISCRIPTER* sfd) {
  const uint64_t area = sfd->sfe.areasize > INT32_MAX ? INT32_MAX : sfd->sfe.areasize;
  return area > SBACC_HEADER_SIZE ? static_cast<int>(area - SBACC_HEADER_SIZE) : 0;
}

int sbacc_ma_memset_hddrepair(SBACC_FILE_DISCRIPTER* sfd, int hdd, boolean_t flag) {
  int rc = sbacc_ma_repairlock_check(sfd);
  if (rc != 0) return rc;
  sbacc::NvRecordLock lock(sfd);
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


int sbacc_ma_hddrepair_begin(SBACC_FILE_DISCRIPTER* sfd, int src, int dst) {
  int rc = sbacc_ma_mem_check_blockade(sfd, src);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_hddrepair_copy] sbacc_ma_mem_check_blockade error. retcode=%d", rc);
    return rc;
  }
  rc = sbacc_ma_memset_hddrepair(sfd, dst, B_TRUE);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_hddrepair_copy] sbacc_ma_memset_hddrepair error. retcode=%d", rc);
  }
  return rc;
}

int sbacc_ma_hddrepair_transfer(SBACC_FILE_DISCRIPTER* sfd, int src, int dst) {
  auto* buf = static_cast<uint8_t*>(SBACC_CALLOC(1, kChunk));
  if (buf == nullptr) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_hddrepair_copy] calloc error. errno=%d", errno);
    return SBACC_E_NOMEM;
  }
  const int rc = CopyAll(sfd, src, dst, buf);
  SBACC_FREE(buf);
  return rc;
}

int sbacc_ma_hddrepair_end(SBACC_FILE_DISCRIPTER* sfd, int src, int dst, int rc) {
  if (rc == 0) {
    // The second look: a source fenced off while the copy ran may have
    // missed writes that the copy then lacks, so the copy stays fenced.
    rc = sbacc_ma_mem_check_blockade(sfd, src);
    if (rc != 0) {
      SBACC_TRACE(kTraceError, "[sbacc_ma_hddrepair_copy] sbacc_ma_mem_check_blockade error. retcode=%d", rc);
    }
  }
  if (rc == 0) rc = Unfence(sfd, dst);
  (void)sbacc_ma_memset_hddrepair(sfd, dst, B_FALSE);
  return rc;
}

int sbacc_ma_hddrepair_copy(SBACC_FILE_DISCRIPTER* sfd, int src, int dst) {
  SBACC_TRACE(kTraceFlow, "[sbacc_ma_hddrepair_copy] [ENTER]");
  int rc = sbacc_ma_hddrepair_begin(sfd, src, dst);
  if (rc == 0) {
    // From here on every exit clears the mark again.
    rc = sbacc_ma_hddrepair_end(sfd, src, dst, sbacc_ma_hddrepair_transfer(sfd, src, dst));
  }
  SBACC_TRACE(kTraceFlow, "[sbacc_ma_hddrepair_copy] [LEAVE] %d", rc);
  return rc;
}
