// Data operations on an open area: read, write with gap fill and the
// write-intent record, size, close.
#define SBACC_MODULE SBACC_MODULE_MA
#include <stdint.h>
#include <string.h>

#include <optional>

#include "sbacc_env.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"
#include "sbacc_trace.h"

namespace {

constexpr int kZeroChunk = 1024;

// Bytes of data the area can hold.  Writes are checked against the header's
// areasize; the configured size bounds it as well, so a corrupt header can
// never send data past the area into its neighbour.  Negative: the header
// leaves no room at all.
int64_t Capacity(const SBACC_FILE_DISCRIPTER* sfd, const SBACC_HDD_HEADER& h) {
  const int64_t by_header = static_cast<int64_t>(h.areasize) - SBACC_HEADER_SIZE;
  const int64_t configured = sbacc_ma_data_capacity(sfd);
  return by_header < configured ? by_header : configured;
}

// A stored size outside 0..capacity cannot be trusted to mark the end of the
// data: reading or extending from it could reach into the header or past the
// area.  Reads and writes refuse such a header with a size-inconsistency
// code; resizing repairs it.
bool FilesizeSane(const SBACC_HDD_HEADER& h, int64_t capacity) {
  return capacity >= 0 && h.filesize >= 0 && h.filesize <= capacity;
}

bool BeyondCapacity(int64_t end, int64_t capacity) {
  // Compared unsigned in 64 bits, so an end that overflowed fails as well.
  return capacity < 0 || static_cast<uint64_t>(end) > static_cast<uint64_t>(capacity);
}

int SetWriteIntent(SBACC_FILE_DISCRIPTER* sfd, SBACC_HDD_HEADER* h, uint8_t flag, int offset, int size) {
  h->writeflag = flag;
  h->write_offset = offset;
  h->write_size = size;
  return sbacc_ma_hddset_writeinfo(sfd, h);
}

// The integrity record a write starts from: the one in force, or, where none
// applies (a copy written before records existed, by a writer that keeps
// none, or left by a write that failed half-way), one computed afresh from
// the data the handle reads.  False without checksums.
bool RecordInForce(SBACC_FILE_DISCRIPTER* sfd, const SBACC_HDD_HEADER& h, SBACC_INTEGRITY* r, int* rc) {
  *rc = 0;
  if (!sbacc_ma_checksums(sfd)) return false;
  if (sbacc_l_integrity_applies(&h, r) == SBACC_INTEGRITY_OK &&
      static_cast<int64_t>(r->length) <= sbacc_ma_data_capacity(sfd)) {
    return true;
  }
  *rc = sbacc_ma_integrity_start(sfd, &h, h.filesize, r);
  if (*rc != 0) SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_write] integrity record error. retcode=%d", *rc);
  return *rc == 0;
}

// One intent-guarded write of `n` bytes at `offset`: the intent record (and
// with checksums the record the data will have) goes down first, then the
// data, then the cleared intent with the new record.  No flush more than
// the write would make without checksums.
int GuardedWrite(SBACC_FILE_DISCRIPTER* sfd, SBACC_HDD_HEADER* h, SBACC_INTEGRITY* r, int offset, const void* buf,
                 int n, int size) {
  SBACC_INTEGRITY next{};
  if (r != nullptr) {
    next = *r;
    int rc = sbacc_ma_integrity_write(sfd, &next, offset, buf, n);
    if (rc != 0) return rc;
    r->pend_length = next.length;
    r->pend_crc = next.crc;
    sbacc_l_integrity_put(h, r);
    next.generation = r->generation + 1;
  }
  int rc = SetWriteIntent(sfd, h, 1, offset, size);
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_write] sbacc_ma_hddset_writeinfo error. retcode=%d", rc);
    return rc;
  }
  rc = sbacc_ma_hddset_data(sfd, offset, buf, n);
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_write] sbacc_ma_hddset_data error. retcode=%d", rc);
    return rc;  // the intent record stays set on the copies still in use
  }
  if (r != nullptr) {
    *r = next;
    sbacc_l_integrity_put(h, r);
  }
  rc = SetWriteIntent(sfd, h, 0, 0, 0);
  if (rc != 0) SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_write] sbacc_ma_hddset_writeinfo error. retcode=%d", rc);
  return rc;
}

}  // namespace

int sbacc_ma_write(const void* buf, int size, int offset, SBACC_FILE_DISCRIPTER* sfd) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_write] [ENTER]");
  // Another handle's write between this one's reading of the record and
  // writing it back would be lost from the checksum.
  std::optional<sbacc::NvRecordLock> data_lock;
  if (sbacc_ma_checksums(sfd)) data_lock.emplace(sfd, true);
  SBACC_HDD_HEADER h;
  int rc = sbacc_ma_hddget_header(sfd, &h);
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_write] sbacc_ma_hddget_header error. retcode=%d", rc);
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_write] [LEAVE] %d", rc);
    return rc;
  }
  const int64_t capacity = Capacity(sfd, h);
  const int64_t end = static_cast<int64_t>(offset) + size;
  if (BeyondCapacity(end, capacity)) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_write] nospace error. offset=%d + size=%d > header.areasize=%d + sizeof(header)=%d",
                offset, size, h.areasize, SBACC_HEADER_SIZE);
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_write] [LEAVE] %d", SBACC_E_NOSPACE);
    return SBACC_E_NOSPACE;
  }
  if (!FilesizeSane(h, capacity)) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_write] header error. filesize=%d areasize=%d", h.filesize, h.areasize);
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_write] [LEAVE] %d", SBACC_E_HDDREAD);
    return SBACC_E_HDDREAD;
  }

  SBACC_INTEGRITY record;
  const bool sums = RecordInForce(sfd, h, &record, &rc);
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_write] [LEAVE] %d", rc);
    return rc;
  }
  SBACC_INTEGRITY* r = sums ? &record : nullptr;
  static const uint8_t zeros[kZeroChunk] = {};
  for (int p = h.filesize; p < offset;) {
    const int n = (offset - p < kZeroChunk) ? offset - p : kZeroChunk;
    rc = GuardedWrite(sfd, &h, r, p, zeros, n, size);
    if (rc != 0) {
      SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_write] [LEAVE] %d", rc);
      return rc;
    }
    p += n;
  }
  rc = GuardedWrite(sfd, &h, r, offset, buf, size, size);
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_write] [LEAVE] %d", rc);
    return rc;
  }

  if (end > h.filesize) {
    rc = sbacc_ma_hddset_filesize(sfd, static_cast<int>(end));
    if (rc != 0) {
      SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_write] sbacc_ma_hddset_filesize error. retcode=%d", rc);
      SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_write] [LEAVE] %d", rc);
      return rc;
    }
  }
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_write] [LEAVE] %d", size);
  return size;
}

int sbacc_ma_read(void* buf, int size, int offset, SBACC_FILE_DISCRIPTER* sfd) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_read] [ENTER]");
  SBACC_HDD_HEADER h;
  int rc = sbacc_ma_hddget_header(sfd, &h);
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_read] sbacc_ma_hddget_header error. retcode=%d", rc);
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_read] [LEAVE] %d", rc);
    return rc;
  }
  if (!FilesizeSane(h, Capacity(sfd, h))) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_read] header error. filesize=%d areasize=%d", h.filesize, h.areasize);
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_read] [LEAVE] %d", SBACC_E_HDDREAD);
    return SBACC_E_HDDREAD;
  }
  if (offset >= h.filesize) {
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_read] [LEAVE] %d", 0);
    return 0;
  }
  int n = size;
  if (static_cast<int64_t>(offset) + size >= h.filesize) n = h.filesize - offset;
  rc = sbacc_ma_hddget_data(sfd, offset, buf, n);
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_read] sbacc_ma_hddget_data error. retcode=%d", rc);
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_read] [LEAVE] %d", rc);
    return rc;
  }
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_read] [LEAVE] %d", n);
  return n;
}

int sbacc_ma_write_size(int size, SBACC_FILE_DISCRIPTER* sfd) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_write_size] [ENTER]");
  std::optional<sbacc::NvRecordLock> data_lock;
  if (sbacc_ma_checksums(sfd)) data_lock.emplace(sfd, true);
  SBACC_HDD_HEADER h;
  int rc = sbacc_ma_hddget_header(sfd, &h);
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_write_size] sbacc_ma_hddget_header error. retcode=%d", rc);
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_write_size] [LEAVE] %d", rc);
    return rc;
  }
  const int64_t capacity = Capacity(sfd, h);
  if (BeyondCapacity(size, capacity)) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_write_size] nospace error.");
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_write_size] [LEAVE] %d", SBACC_E_NOSPACE);
    return SBACC_E_NOSPACE;
  }
  // A stored size outside the area is not trusted: growing starts from the
  // nearest valid size, so setting the size is also how such a header is mended.
  int from = h.filesize;
  if (from < 0) from = 0;
  if (from > capacity) from = static_cast<int>(capacity);

  // The record follows the size in the size's own flush.  It covers exactly
  // the data the size says, so the zeros below land outside it; a record
  // that covers more (a size write cut short) is dropped first, as the zeros
  // would make it wrong before the size write could put it right.
  SBACC_INTEGRITY record;
  const bool sums = RecordInForce(sfd, h, &record, &rc);
  if (rc == 0 && sums && static_cast<int64_t>(record.length) != from) {
    const SBACC_INTEGRITY none{};
    rc = sbacc_ma_hddset_record(sfd, &none);
    record.length = static_cast<uint32_t>(from);
    if (rc == 0) rc = sbacc_ma_crc_data(sfd, -1, 0, 0, from, &record.crc);
  }
  if (rc == 0 && sums) {
    rc = sbacc_ma_integrity_resize(sfd, &record, size);
    record.generation += 1;
  }
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_write_size] integrity record error. retcode=%d", rc);
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_write_size] [LEAVE] %d", rc);
    return rc;
  }

  static const uint8_t zeros[kZeroChunk] = {};
  for (int p = from; p < size;) {
    const int n = (size - p < kZeroChunk) ? size - p : kZeroChunk;
    rc = sbacc_ma_hddset_data(sfd, p, zeros, n);
    if (rc != 0) {
      SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_write_size] sbacc_ma_hddset_data error. retcode=%d", rc);
      SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_write_size] [LEAVE] %d", rc);
      return rc;
    }
    p += n;
  }
  rc = sbacc_ma_hddset_filesize_record(sfd, size, sums ? &record : nullptr);
  if (rc != 0) SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_write_size] sbacc_ma_hddset_filesize error. retcode=%d", rc);
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_write_size] [LEAVE] %d", rc);
  return rc;
}

int sbacc_ma_read_size(int* size, SBACC_FILE_DISCRIPTER* sfd) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_read_size] [ENTER]");
  int rc = sbacc_ma_hddget_filesize(sfd, size);
  if (rc != 0) SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_read_size] sbacc_ma_hddget_filesize error. retcode=%d", rc);
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_read_size] [LEAVE] %d", rc);
  return rc;
}

int sbacc_ma_close(SBACC_FILE_DISCRIPTER* sfd) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_close] [ENTER]");
  if (sfd->openmode != SBACC_OPENMODE_READ) {
    // The stamp goes first: a close cut short between the two leaves the open
    // flag raised, and the next open reports an unclean close.
    (void)sbacc_ma_hddset_closetime(sfd, static_cast<int64_t>(sbacc::CurrentEnv()->Now()));
    (void)sbacc_ma_hddset_openflag(sfd, 0);
  }
  for (int i = 0; i < SBACC_HDD_MAX; ++i) {
    if (sfd->fd[i] != -1) {
      sbacc::CurrentEnv()->Close(sfd->fd[i]);
      sfd->fd[i] = -1;
    }
  }
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_close] [LEAVE] %d", 0);
  return 0;
}
