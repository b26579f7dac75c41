// Start-up resync of one area's usable copies.  A power cut between the
// copies' writes of one access leaves headers that agree and data that does
// not; the write-intent record (or a data size that differs between copies)
// says where.  The range is copied from the copy that reads return to every
// other usable copy, so that no copy fenced off later can show readers other
// bytes than they have seen.
#define SBACC_MODULE SBACC_MODULE_MA
#include "sbacc_trace.h"

#include <stdint.h>
#include <string.h>

#include "sbacc_core.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"

using sbacc::kTraceError;
using sbacc::kTraceFlow;
using sbacc::kTraceMilestone;

namespace {

constexpr int kChunk = 2048;

struct Plan {
  int ref = -1;  // the copy that reads return: the lowest usable one
  int64_t lo = 0, hi = 0;
  int32_t size = 0;  // the data size every copy gets: the reference's proven one
  bool needed = false;
};

// The size the copies are made to agree on.  Without checksums, the
// reference's.  With them, the largest size a copy both states and proves:
// a size field is believed only as far as the copy's integrity record
// covers, so a damaged size field never shortens the others, while a write
// cut short (its record ahead of its size) is not rolled forward.
int32_t TargetSize(const SBACC_FILE_DISCRIPTER* sfd, const SBACC_HDD_HEADER* hdr, int ref) {
  if (!sbacc_ma_checksums(sfd)) return hdr[ref].filesize;
  const int32_t cap = sbacc_ma_data_capacity(sfd);
  int32_t best = -1;
  for (int i = 0; i < sbacc_ma_copies(sfd); ++i) {
    if (sfd->fd[i] == -1) continue;
    int32_t size = hdr[i].filesize < 0 ? 0 : (hdr[i].filesize > cap ? cap : hdr[i].filesize);
    SBACC_INTEGRITY r;
    if (sbacc_l_integrity_applies(&hdr[i], &r) == SBACC_INTEGRITY_OK && static_cast<int64_t>(r.length) < size) {
      size = static_cast<int32_t>(r.length);
    }
    if (size > best) best = size;
  }
  return best < 0 ? hdr[ref].filesize : best;
}

// Reads every open copy's header (a copy that cannot deliver it is closed,
// and so ends fenced off) and decides whether and what to copy.
Plan Decide(SBACC_FILE_DISCRIPTER* sfd, SBACC_HDD_HEADER* hdr) {
  Plan plan;
  const int n = sbacc_ma_copies(sfd);
  const int32_t cap = sbacc_ma_data_capacity(sfd);
  bool whole = false;
  plan.lo = cap;
  for (int i = 0; i < n; ++i) {
    if (sfd->fd[i] == -1) continue;
    const int rc = sbacc_l_hddget_header(sfd, i, &hdr[i]);
    if (rc != 0) {
      SBACC_TRACE(kTraceError, "[sbacc_ma_resync_copies] sbacc_l_hddget_header[%d] error. retcode=%d filename=%s", i,
                  rc, sfd->sfe.filename);
      sbacc_ma_close_hdd(sfd, i);
      continue;
    }
    const SBACC_HDD_HEADER& h = hdr[i];
    if (plan.ref < 0) plan.ref = i;
    if (h.writeflag == 0) continue;
    plan.needed = true;
    // Only a record as the write leaves it names the range; anything else
    // cannot be trusted to, and the whole data is made to agree.
    if (h.writeflag != 1 || h.write_offset < 0 || h.write_size <= 0 || h.write_offset >= cap) {
      whole = true;
      continue;
    }
    const int64_t end = static_cast<int64_t>(h.write_offset) + h.write_size;
    if (h.write_offset < plan.lo) plan.lo = h.write_offset;
    if (end > plan.hi) plan.hi = end > cap ? cap : end;
  }
  if (plan.ref >= 0) plan.size = TargetSize(sfd, hdr, plan.ref);
  for (int i = 0; i < n && plan.ref >= 0; ++i) {
    if (sfd->fd[i] != -1 && hdr[i].filesize != plan.size) whole = plan.needed = true;
  }
  if (whole && plan.ref >= 0) {
    const int32_t size = plan.size;
    plan.lo = 0;
    plan.hi = (size >= 0 && size <= cap) ? size : cap;
  }
  if (plan.lo > plan.hi) plan.lo = plan.hi;
  return plan;
}

// A failed write means the copy cannot be kept in step: it is closed and
// ends fenced off.
// Nothing is written once the repair lock is lost.
void Put(SBACC_FILE_DISCRIPTER* sfd, int i, int offset, const void* buf, int len) {
  if (sfd->fd[i] == -1 || sbacc_ma_repairlock_check(sfd) != 0) return;
  const int rc = sbacc_l_hddset(sfd, i, offset, buf, len);
  if (rc == 0) return;
  SBACC_TRACE(kTraceError, "[sbacc_ma_resync_copies] sbacc_l_hddset error. retcode=%d HDD[%d] filename=%s", rc, i,
              sfd->sfe.filename);
  sbacc_ma_close_hdd(sfd, i);
}

// Clears copy i's intent record; with `rec` it also gives the copy that
// integrity record (bound to its own open count) in the same write.
void ClearIntent(SBACC_FILE_DISCRIPTER* sfd, int i, SBACC_HDD_HEADER* h, const SBACC_INTEGRITY* rec) {
  if (rec == nullptr && h->writeflag == 0 && h->write_offset == 0 && h->write_size == 0) return;
  h->writeflag = 0;
  h->write_offset = 0;
  h->write_size = 0;
  int len = kHdrWriteinfoLen;
  if (rec != nullptr) {
    SBACC_INTEGRITY r = *rec;
    r.opencnt = h->opencnt;
    sbacc_l_integrity_put(h, &r);
    len = SBACC_HEADER_SIZE - kHdrWriteflag;
  }
  uint8_t raw[SBACC_HEADER_SIZE];
  sbacc_l_encode_header(h, raw);
  Put(sfd, i, kHdrWriteflag, raw + kHdrWriteflag, len);
}

// The record every copy gets once it holds the reference's data: computed
// from that data, one generation past any copy's.  False when the
// reference cannot be read (it is closed, and the caller plans again).
bool RecordOfReference(SBACC_FILE_DISCRIPTER* sfd, const SBACC_HDD_HEADER* hdr, int ref, int32_t size,
                       SBACC_INTEGRITY* rec) {
  memset(rec, 0, sizeof *rec);
  const int32_t cap = sbacc_ma_data_capacity(sfd);
  rec->length = static_cast<uint32_t>(size < 0 ? 0 : (size > cap ? cap : size));
  for (int i = 0; i < sbacc_ma_copies(sfd); ++i) {
    SBACC_INTEGRITY r;
    if (sfd->fd[i] != -1 && sbacc_l_integrity_get(&hdr[i], &r) != SBACC_INTEGRITY_NONE && r.generation >= rec->generation) {
      rec->generation = r.generation + 1;
    }
  }
  if (rec->generation == 0) rec->generation = 1;
  const int rc = sbacc_ma_crc_data(sfd, ref, 0, 0, rec->length, &rec->crc);
  if (rc == 0) return true;
  SBACC_TRACE(kTraceError, "[sbacc_ma_resync_copies] sbacc_l_hddget error. retcode=%d HDD[%d] filename=%s", rc, ref,
              sfd->sfe.filename);
  sbacc_ma_close_hdd(sfd, ref);
  return false;
}

// One pass from plan.ref.  False when the reference copy failed a read: it
// is closed and the caller plans again from the next one.
bool Copy(SBACC_FILE_DISCRIPTER* sfd, const Plan& plan, SBACC_HDD_HEADER* hdr, uint8_t* buf) {
  const int n = sbacc_ma_copies(sfd);
  const int ref = plan.ref;
  for (int64_t p = plan.lo; p < plan.hi;) {
    const int len = static_cast<int>(plan.hi - p < kChunk ? plan.hi - p : kChunk);
    const int off = static_cast<int>(SBACC_HEADER_SIZE + p);
    const int rc = sbacc_l_hddget(sfd, ref, off, buf, len);
    if (rc != 0) {
      SBACC_TRACE(kTraceError, "[sbacc_ma_resync_copies] sbacc_l_hddget error. retcode=%d HDD[%d] filename=%s", rc,
                  ref, sfd->sfe.filename);
      sbacc_ma_close_hdd(sfd, ref);
      return false;
    }
    for (int i = 0; i < n; ++i) {
      if (i != ref) Put(sfd, i, off, buf, len);
    }
    p += len;
  }
  // The others' records (with their integrity records, which cover what
  // they now hold), then their sizes, then the reference's record: until
  // the end some copy still differs in size or carries a record, so a cut
  // anywhere in here leaves work that the next start-up does again.
  SBACC_INTEGRITY rec;
  const bool sums = sbacc_ma_checksums(sfd);
  if (sums && !RecordOfReference(sfd, hdr, ref, plan.size, &rec)) return false;
  for (int i = 0; i < n; ++i) {
    if (i != ref && sfd->fd[i] != -1) ClearIntent(sfd, i, &hdr[i], sums ? &rec : nullptr);
  }
  uint8_t size[4];
  sbacc_l_put_le32(size, static_cast<uint32_t>(plan.size));
  for (int i = 0; i < n; ++i) {
    if (i != ref && sfd->fd[i] != -1 && hdr[i].filesize != plan.size) Put(sfd, i, kHdrFilesize, size, 4);
  }
  if (hdr[ref].filesize != plan.size) Put(sfd, ref, kHdrFilesize, size, 4);
  ClearIntent(sfd, ref, &hdr[ref], sums ? &rec : nullptr);
  return true;
}

}  // namespace

int sbacc_ma_resync_copies(SBACC_FILE_DISCRIPTER* sfd) {
  SBACC_TRACE(kTraceFlow, "[sbacc_ma_resync_copies] [ENTER]");
  if (sfd->env[SBACC_ENV_RESYNC] == 0) {
    SBACC_TRACE(kTraceFlow, "[sbacc_ma_resync_copies] [LEAVE] %d", 0);
    return 0;
  }
  uint8_t buf[kChunk];
  // Each failed reference is closed, so this ends after at most 8 passes.
  for (;;) {
    SBACC_HDD_HEADER hdr[SBACC_HDD_MAX];
    memset(hdr, 0, sizeof hdr);
    const Plan plan = Decide(sfd, hdr);
    if (!plan.needed) break;
    SBACC_TRACE(kTraceMilestone, "[sbacc_ma_resync_copies] resync %s range %lld-%lld from HDD[%d]: repaired by controller %d",
                sfd->sfe.filename, static_cast<long long>(plan.lo), static_cast<long long>(plan.hi), plan.ref,
                sbacc_cntno);
    if (Copy(sfd, plan, hdr, buf)) break;
  }
  SBACC_TRACE(kTraceFlow, "[sbacc_ma_resync_copies] [LEAVE] %d", 0);
  return 0;
}

// Marks under repair are set only under the repair lock, which the caller
// holds: a mark found now was left by a start-up cut short after its rebuild
// had already taken the copy off the blockade in the headers.  Left standing
// it would have every access of this start-up count that copy as fenced off
// again, in NV and in the other headers, while its own header says current.
// The headers alone say which copies are stale; the start-up marks those
// afresh.
int sbacc_ma_clear_leftover_marks(SBACC_FILE_DISCRIPTER* sfd) {
  sbacc::NvRecordLock lock(sfd);
  uint8_t marks = 0;
  if (sfd->env[SBACC_ENV_RESYNC] == 0 || sbacc_memget_hddrepair(sfd, &marks) != 0 || marks == 0) return 0;
  SBACC_TRACE(kTraceMilestone, "[sbacc_ma_clear_leftover_marks] %s marked under repair by a start-up cut short: hddrepair[0x%x] cleared",
              sfd->sfe.filename, marks);
  const int rc = sbacc_memset_hddrepair(sfd, 0);
  if (rc != 0) SBACC_TRACE(kTraceError, "[sbacc_ma_clear_leftover_marks] sbacc_memset_hddrepair error. retcode=%d", rc);
  return 0;
}
