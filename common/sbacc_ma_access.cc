// Parallel access to all copies of an area, and the blockade bookkeeping that
// fences off copies which fail.
#define SBACC_MODULE SBACC_MODULE_MA
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <string.h>

#include "sbacc_alloc.h"
#include "sbacc_env.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"
#include "sbacc_trace.h"
#include "sbacc_worker.h"

namespace {

using sbacc::CurrentEnv;

// The count stored in NV bounds the blockade computation; NV may hold any
// value, so it is clamped to the slots that exist.
int NvCopies(const SBACC_MEM_LIST_ENTRY* e) {
  int n = e->hddcount;
  return n < 0 ? 0 : (n > SBACC_HDD_MAX ? SBACC_HDD_MAX : n);
}

bool Bit(uint32_t mask, int i) { return ((mask >> i) & 1u) != 0; }

// Opens copy i when it is not open yet.  False when it cannot be opened.
bool EnsureOpen(SBACC_FILE_DISCRIPTER* sfd, int i, int flags) {
  if (sfd->fd[i] != -1) return true;
  int fd = CurrentEnv()->OpenRetry(sfd->sfe.hddname[i], flags);
  if (fd < 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_hdd_access] open error. errno=%d path=%s", errno, sfd->sfe.hddname[i]);
    return false;
  }
  sfd->fd[i] = fd;
  return true;
}

// Checks copy i's data against its integrity record, once per handle:
// kProven (it verifies, or keeps no record, or cannot be read now, which
// the read itself then reports), kFails (one trace line naming the area, the
// copy and the range) or kUnsure (a write of another handle or process was
// in flight: its bytes prove nothing either way).
enum Proof { kProven, kFails, kUnsure };
Proof CopyVerifies(SBACC_FILE_DISCRIPTER* sfd, int i) {
  if (Bit(sfd->verified, i)) return kProven;
  SBACC_HDD_HEADER h;
  const int v = sbacc_ma_check_copy(sfd, i, &h);
  if (v == SBACC_VERIFY_BUSY) return kUnsure;
  if (v != SBACC_VERIFY_BAD) {
    if (v >= 0) sfd->verified |= 1u << i;
    return kProven;
  }
  SBACC_INTEGRITY r;
  (void)sbacc_l_integrity_applies(&h, &r);
  SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_hdd_access] integrity error. filename=%s HDD[%d] range=0-%u crc=%#x",
              sfd->sfe.filename, i, r.length, r.crc);
  return kFails;
}

// Reads from the first healthy copy that delivers.  A read-mode handle writes
// nothing to NV, so NV does not know which copies its open rejected: it asks
// the copies the open accepted first and the others only when all of those
// fail, so that its reads never switch to a copy holding other bytes.  A data
// read goes to a copy that proves its data, then to one whose check a write
// in flight made inconclusive; one that fails is fenced off by a write-mode
// handle (once another copy delivers: the last evidence is never fenced) and
// skipped by a read-mode one; with none left the read fails rather than
// return bytes that fail their check.
int AccessGet(SBACC_FILE_DISCRIPTER* sfd, const SBACC_MEM_LIST_ENTRY& e, int flags, int offset, void* buf,
              int len) {
  const int n = sbacc_ma_copies(sfd);
  const bool check = offset >= SBACC_HEADER_SIZE && sbacc_ma_checksums(sfd);
  const bool read_mode = sfd->openmode == SBACC_OPENMODE_READ;
  const uint32_t first = read_mode ? sfd->readset : 0;
  uint32_t bad = 0, unsure = 0;
  auto deliver = [&](int i) {
    if (sbacc_l_hddget(sfd, i, offset, buf, len) != 0) {
      sbacc_ma_close_hdd(sfd, i);
      return false;
    }
    for (int k = 0; k < n && !read_mode; ++k) {
      if (Bit(bad, k)) sbacc_ma_close_hdd(sfd, k);
    }
    return true;
  };
  bool done = false;
  for (int pass = first != 0 ? 0 : 1; pass < 2 && !done; ++pass) {
    for (int i = 0; i < n && !done; ++i) {
      if (pass == 0 ? !Bit(first, i) : Bit(first, i)) continue;
      if (Bit(e.hddblockade, i)) {
        if (!Bit(e.hddrepair, i)) sbacc_ma_close_hdd(sfd, i);
        continue;
      }
      if (Bit(sfd->failed | bad, i) || !EnsureOpen(sfd, i, flags)) continue;
      const Proof p = check ? CopyVerifies(sfd, i) : kProven;
      bad |= p == kFails ? 1u << i : 0;
      unsure |= p == kUnsure ? 1u << i : 0;
      done = p == kProven && deliver(i);
    }
  }
  for (int i = 0; i < n && !done; ++i) done = Bit(unsure, i) && sfd->fd[i] != -1 && deliver(i);
  sfd->failed |= read_mode ? bad : 0;
  return done || bad == 0 ? 0 : SBACC_E_HDDREAD;
}

// One copy's share of a write round.  The descriptor is read-only while the
// round runs: nobody opens, closes or fences a copy until every task has
// reported, so the task's copy stays the one it was handed.
struct WriteTask {
  SBACC_FILE_DISCRIPTER* sfd;
  int hdd;
  const SBACC_SLICE* slices;
  int n;
};

int WriteCopy(void* arg) {
  const auto* t = static_cast<const WriteTask*>(arg);
  return sbacc_l_hddset_slices(t->sfd, t->hdd, t->slices, t->n);
}

// Writes to every copy in use at once; a copy whose write failed is closed
// afterwards (and so fenced off by the caller's recording).
void AccessSet(SBACC_FILE_DISCRIPTER* sfd, const SBACC_MEM_LIST_ENTRY& e, int flags, const SBACC_SLICE* slices,
               int nslices) {
  const int n = sbacc_ma_copies(sfd);
  uint32_t targets = 0;
  int last = -1;
  for (int i = 0; i < n; ++i) {
    if (Bit(e.hddblockade, i) && !Bit(e.hddrepair, i)) {
      sbacc_ma_close_hdd(sfd, i);
      continue;
    }
    if (!EnsureOpen(sfd, i, flags)) continue;
    targets |= 1u << i;
    last = i;
  }
  WriteTask tasks[SBACC_HDD_MAX];
  int results[SBACC_HDD_MAX] = {};
  {
    // The calling thread writes the last copy itself rather than wait idle:
    // a single copy needs no worker at all, and K copies K - 1 hand-offs.
    sbacc::TaskGroup round("sbacc_ma_hdd_access", sbacc::WorkerLog::kRestore1);
    for (int i = 0; i < n; ++i) {
      if (!Bit(targets, i)) continue;
      tasks[i] = WriteTask{sfd, i, slices, nslices};
      round.Run(WriteCopy, &tasks[i], &results[i], i == last);
    }
  }
  for (int i = 0; i < n; ++i) {
    if (!Bit(targets, i) || results[i] == 0) continue;
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_hdd_access] sbacc_l_hddset error. path=%s", sfd->sfe.hddname[i]);
    sbacc_ma_close_hdd(sfd, i);
  }
}

}  // namespace

namespace {

// A read of one range, or a write of every slice, on the area's copies.
int Access(SBACC_FILE_DISCRIPTER* sfd, int direction, int offset, void* buf, int len, const SBACC_SLICE* slices,
           int nslices) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_hdd_access] [ENTER]");
  const int flags = (sfd->openmode == SBACC_OPENMODE_READ) ? O_RDONLY : O_RDWR;
  const uint32_t maxbit = SBACC_HDD_MAXBIT(sfd->sfe.hddcount);

  SBACC_MEM_LIST_ENTRY entry;
  int rc = sbacc_memget_entry(sfd, &entry);
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_hdd_access] [LEAVE] %d", rc);
    return rc;
  }
  if (entry.hddblockade == maxbit) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_hdd_access] opencnt error.");
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_hdd_access] [LEAVE] %d", SBACC_E_NOCOPY);
    return SBACC_E_NOCOPY;
  }

  int got = 0;
  if (direction == SBACC_ACCESS_GET) {
    got = AccessGet(sfd, entry, flags, offset, buf, len);
  } else {
    AccessSet(sfd, entry, flags, slices, nslices);
  }

  rc = sbacc_ma_set_hddblockade(sfd, &entry);
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_hdd_access] sbacc_ma_set_hddblockade error. retcode=%d", rc);
  } else if (entry.hddblockade == maxbit) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_hdd_access] opencnt error.");
    rc = SBACC_E_NOCOPY;
  }
  if (got != 0 && (rc == 0 || rc == SBACC_E_NOCOPY)) rc = got;
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_hdd_access] [LEAVE] %d", rc);
  return rc;
}

}  // namespace

int sbacc_ma_hdd_access(SBACC_FILE_DISCRIPTER* sfd, int direction, int offset, void* buf, int len) {
  const SBACC_SLICE slice = {offset, buf, len};
  return Access(sfd, direction, offset, buf, len, &slice, 1);
}

int sbacc_ma_hdd_set_slices(SBACC_FILE_DISCRIPTER* sfd, const SBACC_SLICE* slices, int n) {
  return Access(sfd, SBACC_ACCESS_SET, 0, nullptr, 0, slices, n);
}

namespace {

// Adds the copies of `mask` to the area's fenced set.  Outside a repair,
// fence bits are only ever added: another handle on the area may have fenced
// a copy that this one still has open, and writing this handle's view alone
// would take that copy back into use with stale data.  So the mask is
// merged with the word NV holds now, under the record's lock.  With the
// SBACC_FENCE_MERGE tunable at 0 the handle's view is written as it is.
int RecordFenced(SBACC_FILE_DISCRIPTER* sfd, SBACC_MEM_LIST_ENTRY* r, uint32_t mask, bool any_healthy) {
  const char* name = sfd->sfe.filename;
  const bool write_nv = (sfd->openmode != SBACC_OPENMODE_READ);
  const bool merge = sfd->env[SBACC_ENV_FENCE_MERGE] != 0;
  sbacc::NvRecordLock lock(sfd);
  uint32_t now = r->hddblockade;
  int rc = write_nv && merge ? sbacc_memget_hddblockade(sfd, &now) : 0;
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_memset_hddblockade] sbacc_memget_hddblockade error. retcode=%d", rc);
    return rc;
  }
  const uint32_t merged = merge ? now | mask : mask;
  if (!any_healthy && merged != now) {
    // The copies in use until now hold the newest data.
    r->latesthdd = now ^ merged;
    if (write_nv) rc = sbacc_memset_latesthdd(sfd, r->latesthdd);
    if (rc != 0) {
      SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_memset_hddblockade] sbacc_memset_latesthdd error. retcode=%d", rc);
      return rc;
    }
    SBACC_TRACE(sbacc::kTraceState, "[sbacc_ma_memset_hddblockade] latesthdd: %#x", r->latesthdd);
  }
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_memset_hddblockade] hddblockade: %#x ===> %#x filename=%s", now, merged,
              name);
  r->hddblockade = merged;
  if (write_nv && merged != now) rc = sbacc_memset_hddblockade(sfd, merged);
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_memset_hddblockade] sbacc_memset_hddblockade error. retcode=%d", rc);
  }
  return rc;
}

}  // namespace

int sbacc_ma_memset_hddblockade(SBACC_FILE_DISCRIPTER* sfd, SBACC_MEM_LIST_ENTRY* r) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_memset_hddblockade] [ENTER]");
  const char* name = sfd->sfe.filename;
  uint32_t mask = 0;
  bool any_healthy = false;
  for (int i = 0; i < NvCopies(r); ++i) {
    if (sfd->fd[i] == -1 || Bit(r->hddrepair, i)) {
      mask |= 1u << i;
      SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_memset_hddblockade] HDD[%d] is blockade filename=%s", i, name);
    } else {
      any_healthy = true;
    }
  }
  if (mask != 0) SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_memset_hddblockade] hddblockade: %#x filename=%s", mask, name);
  if (mask == r->hddblockade) {
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_memset_hddblockade] [LEAVE] %d", 0);
    return 0;
  }
  const int rc = RecordFenced(sfd, r, mask, any_healthy);
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_memset_hddblockade] [LEAVE] %d", rc);
  return rc;
}

int sbacc_ma_set_hddblockade(SBACC_FILE_DISCRIPTER* sfd, SBACC_MEM_LIST_ENTRY* r) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_set_hddblockade] [ENTER]");
  const uint32_t prev = r->hddblockade;
  int rc = sbacc_ma_memset_hddblockade(sfd, r);
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_set_hddblockade] sbacc_ma_memset_hddblockade error. retcode=%d", rc);
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_set_hddblockade] [LEAVE] %d", rc);
    return rc;
  }
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_set_hddblockade] hddblockade prev=%d current=%d", static_cast<int>(prev),
              static_cast<int>(r->hddblockade));
  if (r->hddblockade != prev) {
    const uint32_t maxbit = SBACC_HDD_MAXBIT(sfd->sfe.hddcount);
    if (r->hddblockade == maxbit) {
      // No copy is left to carry the mask.
      SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_set_hddblockade] SBACC_HDD_MAXBIT=%d", static_cast<int>(maxbit));
    } else if (sfd->openmode != SBACC_OPENMODE_READ) {
      // An access of its own: a copy failing here is fenced off by a nested recording.
      rc = sbacc_ma_hddset_hddblockade(sfd, r->hddblockade);
      if (rc != 0) SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_set_hddblockade] sbacc_ma_hddset_hddblockade error. retcode=%d", rc);
    }
  }
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_set_hddblockade] [LEAVE] %d", rc);
  return rc;
}

// ---- Named accesses -------------------------------------------------------------

namespace {

// Data offsets are added to the header size in 64 bits; one that would
// leave the int range is refused as a bad position instead of wrapping.
bool DataOffset(int offset, int* area_offset) {
  const int64_t pos = static_cast<int64_t>(offset) + SBACC_HEADER_SIZE;
  if (offset < 0 || pos > INT32_MAX) return false;
  *area_offset = static_cast<int>(pos);
  return true;
}

int SetHeaderSlice(SBACC_FILE_DISCRIPTER* sfd, const SBACC_HDD_HEADER* h, int offset, int len) {
  uint8_t raw[SBACC_HEADER_SIZE];
  sbacc_l_encode_header(h, raw);
  return sbacc_ma_hdd_access(sfd, SBACC_ACCESS_SET, offset, raw + offset, len);
}

}  // namespace

int sbacc_ma_hddget_header(SBACC_FILE_DISCRIPTER* sfd, SBACC_HDD_HEADER* h) {
  uint8_t raw[SBACC_HEADER_SIZE];
  int rc = sbacc_ma_hdd_access(sfd, SBACC_ACCESS_GET, 0, raw, SBACC_HEADER_SIZE);
  if (rc == 0) sbacc_l_decode_header(raw, h);
  return rc;
}

int sbacc_ma_hddget_filesize(SBACC_FILE_DISCRIPTER* sfd, int* filesize) {
  uint8_t raw[4];
  int rc = sbacc_ma_hdd_access(sfd, SBACC_ACCESS_GET, kHdrFilesize, raw, 4);
  if (rc == 0) *filesize = static_cast<int32_t>(sbacc_l_get_le32(raw));
  return rc;
}

int sbacc_ma_hddget_hddblockade(SBACC_FILE_DISCRIPTER* sfd, uint32_t* mask) {
  uint8_t raw[4];
  int rc = sbacc_ma_hdd_access(sfd, SBACC_ACCESS_GET, kHdrHddblockade, raw, 4);
  if (rc == 0) *mask = sbacc_l_get_le32(raw);
  return rc;
}

int sbacc_ma_hddget_data(SBACC_FILE_DISCRIPTER* sfd, int offset, void* buf, int len) {
  int pos;
  if (!DataOffset(offset, &pos)) return SBACC_E_HDDSEEK;
  return sbacc_ma_hdd_access(sfd, SBACC_ACCESS_GET, pos, buf, len);
}

// A write-mode open raises the open count, which unbinds the integrity
// record (so that a writer that leaves the record alone never makes it look
// like corruption).  A record bound to the count before this open is carried
// over to the new count in the same flush.
// (A write-mode open holds the area's data lock from its reading of the
// headers on, so no other handle's write changes the record in between.)
int sbacc_ma_hddset_openinfo(SBACC_FILE_DISCRIPTER* sfd, const SBACC_HDD_HEADER* h) {
  SBACC_HDD_HEADER bound = *h;
  SBACC_INTEGRITY r;
  bound.opencnt = static_cast<int32_t>(static_cast<uint32_t>(h->opencnt) - 1u);
  if (!sbacc_ma_checksums(sfd) || sbacc_l_integrity_applies(&bound, &r) != SBACC_INTEGRITY_OK) {
    return SetHeaderSlice(sfd, h, kHdrOpenflag, kHdrOpeninfoLen);
  }
  r.opencnt = h->opencnt;
  uint8_t raw[SBACC_HEADER_SIZE];
  sbacc_l_encode_header(h, raw);
  sbacc_l_integrity_encode(&r, raw + kHdrRfu5);
  const SBACC_SLICE slices[] = {{kHdrOpenflag, raw + kHdrOpenflag, kHdrOpeninfoLen},
                                {kHdrRfu5, raw + kHdrRfu5, kIntSize}};
  return sbacc_ma_hdd_set_slices(sfd, slices, 2);
}

// With checksums the write-intent updates carry the integrity record (the
// bytes right behind them) in the same write.
int sbacc_ma_hddset_writeinfo(SBACC_FILE_DISCRIPTER* sfd, const SBACC_HDD_HEADER* h) {
  const int len = sbacc_ma_checksums(sfd) ? SBACC_HEADER_SIZE - kHdrWriteflag : kHdrWriteinfoLen;
  return SetHeaderSlice(sfd, h, kHdrWriteflag, len);
}

int sbacc_ma_hddset_filesize(SBACC_FILE_DISCRIPTER* sfd, int filesize) {
  return sbacc_ma_hddset_filesize_record(sfd, filesize, nullptr);
}

int sbacc_ma_hddset_filesize_record(SBACC_FILE_DISCRIPTER* sfd, int filesize, const SBACC_INTEGRITY* r) {
  uint8_t raw[4], rec[kIntSize];
  sbacc_l_put_le32(raw, static_cast<uint32_t>(filesize));
  if (r == nullptr) return sbacc_ma_hdd_access(sfd, SBACC_ACCESS_SET, kHdrFilesize, raw, 4);
  sbacc_l_integrity_encode(r, rec);
  const SBACC_SLICE slices[] = {{kHdrFilesize, raw, 4}, {kHdrRfu5, rec, kIntSize}};
  return sbacc_ma_hdd_set_slices(sfd, slices, 2);
}

int sbacc_ma_hddset_record(SBACC_FILE_DISCRIPTER* sfd, const SBACC_INTEGRITY* r) {
  uint8_t rec[kIntSize];
  sbacc_l_integrity_encode(r, rec);
  return sbacc_ma_hdd_access(sfd, SBACC_ACCESS_SET, kHdrRfu5, rec, kIntSize);
}

int sbacc_ma_hddset_hddblockade(SBACC_FILE_DISCRIPTER* sfd, uint32_t mask) {
  uint8_t raw[4];
  sbacc_l_put_le32(raw, mask);
  return sbacc_ma_hdd_access(sfd, SBACC_ACCESS_SET, kHdrHddblockade, raw, 4);
}

int sbacc_ma_hddset_data(SBACC_FILE_DISCRIPTER* sfd, int offset, const void* buf, int len) {
  int pos;
  if (!DataOffset(offset, &pos)) return SBACC_E_HDDSEEK;
  return sbacc_ma_hdd_access(sfd, SBACC_ACCESS_SET, pos, const_cast<void*>(buf), len);
}

int sbacc_ma_hddset_closetime(SBACC_FILE_DISCRIPTER* sfd, int64_t closetime) {
  uint8_t raw[8];
  sbacc_l_put_le64(raw, static_cast<uint64_t>(closetime));
  return sbacc_ma_hdd_access(sfd, SBACC_ACCESS_SET, kHdrClosetime, raw, 8);
}

int sbacc_ma_hddset_openflag(SBACC_FILE_DISCRIPTER* sfd, uint8_t openflag) {
  return sbacc_ma_hdd_access(sfd, SBACC_ACCESS_SET, kHdrOpenflag, &openflag, 1);
}
