// Keeping a copy's integrity record (CRC-32C of its data, generation, the
// write in flight) current as the data changes, from the bytes a change
// touches only, and checking a copy against its record.
#define SBACC_MODULE SBACC_MODULE_MA
#include <stdint.h>
#include <string.h>

#include "sbacc_crc32c.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"
#include "sbacc_trace.h"

namespace {

constexpr int kChunk = 2048;

// Reads data bytes [from, from + len) of copy `hdd`, or through the engine's
// reads (the copy reads return, fencing one that fails) when hdd < 0.
int ReadData(SBACC_FILE_DISCRIPTER* sfd, int hdd, int64_t from, void* buf, int len) {
  if (hdd < 0) return sbacc_ma_hddget_data(sfd, static_cast<int>(from), buf, len);
  return sbacc_l_hddget(sfd, hdd, static_cast<int>(SBACC_HEADER_SIZE + from), buf, len);
}

}  // namespace

bool sbacc_ma_checksums(const SBACC_FILE_DISCRIPTER* sfd) { return sfd->env[SBACC_ENV_CHECKSUM] != 0; }

int sbacc_ma_crc_data(SBACC_FILE_DISCRIPTER* sfd, int hdd, uint32_t crc, int64_t from, int64_t to, uint32_t* out) {
  uint8_t buf[kChunk];
  for (int64_t p = from; p < to;) {
    const int len = static_cast<int>(to - p < kChunk ? to - p : kChunk);
    const int rc = ReadData(sfd, hdd, p, buf, len);
    if (rc != 0) return rc;
    crc = sbacc::Crc32cExtend(crc, buf, static_cast<size_t>(len));
    p += len;
  }
  *out = crc;
  return 0;
}

int sbacc_ma_integrity_start(SBACC_FILE_DISCRIPTER* sfd, const SBACC_HDD_HEADER* h, int len, SBACC_INTEGRITY* r) {
  memset(r, 0, sizeof *r);
  const int cap = sbacc_ma_data_capacity(sfd);
  if (len < 0) len = 0;
  if (len > cap) len = cap;
  r->length = static_cast<uint32_t>(len);
  r->generation = 1;
  r->opencnt = h->opencnt;
  return sbacc_ma_crc_data(sfd, -1, 0, 0, len, &r->crc);
}

int sbacc_ma_integrity_write(SBACC_FILE_DISCRIPTER* sfd, SBACC_INTEGRITY* r, int offset, const void* data, int n) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  int64_t length = r->length;
  uint32_t crc = r->crc;
  // Bytes between the covered end and the write are whatever the copy holds
  // there: they join the covered data as read.
  if (offset > length) {
    const int rc = sbacc_ma_crc_data(sfd, -1, crc, length, offset, &crc);
    if (rc != 0) return rc;
    length = offset;
  }
  // The covered part changes by the difference of old and new bytes.
  uint8_t old[kChunk];
  for (int64_t p = offset; p < length && p < static_cast<int64_t>(offset) + n;) {
    const int64_t end = length < static_cast<int64_t>(offset) + n ? length : static_cast<int64_t>(offset) + n;
    const int len = static_cast<int>(end - p < kChunk ? end - p : kChunk);
    const int rc = ReadData(sfd, -1, p, old, len);
    if (rc != 0) return rc;
    crc = sbacc::Crc32cReplace(crc, static_cast<uint64_t>(length), static_cast<uint64_t>(p), old, bytes + (p - offset),
                               static_cast<size_t>(len));
    p += len;
  }
  // The rest extends it.
  const int64_t end = static_cast<int64_t>(offset) + n;
  if (end > length) {
    crc = sbacc::Crc32cExtend(crc, bytes + (length - offset), static_cast<size_t>(end - length));
    length = end;
  }
  r->length = static_cast<uint32_t>(length);
  r->crc = crc;
  return 0;
}

int sbacc_ma_integrity_resize(SBACC_FILE_DISCRIPTER* sfd, SBACC_INTEGRITY* r, int size) {
  const int64_t length = r->length;
  if (size >= length) {
    r->crc = sbacc::Crc32cExtendZeros(r->crc, static_cast<uint64_t>(size - length));
  } else {
    // What is cut off leaves the checksum by the bytes themselves, read from
    // the end backwards one chunk at a time.
    uint8_t tail[kChunk];
    for (int64_t end = length; end > size;) {
      const int len = static_cast<int>(end - size < kChunk ? end - size : kChunk);
      const int rc = ReadData(sfd, -1, end - len, tail, len);
      if (rc != 0) return rc;
      r->crc = sbacc::Crc32cTruncate(r->crc, tail, static_cast<size_t>(len));
      end -= len;
    }
  }
  r->length = static_cast<uint32_t>(size);
  return 0;
}

int sbacc_ma_verify_copy(SBACC_FILE_DISCRIPTER* sfd, int hdd, const SBACC_HDD_HEADER* h) {
  SBACC_INTEGRITY r;
  const int state = sbacc_l_integrity_applies(h, &r);
  if (state == SBACC_INTEGRITY_NONE) return SBACC_VERIFY_NONE;
  const int64_t cap = sbacc_ma_data_capacity(sfd);
  if (r.length > cap || r.pend_length > cap) return SBACC_VERIFY_BAD;
  // A write in flight leaves the data as it was or as it was to become.
  const int64_t first = state == SBACC_INTEGRITY_PENDING && r.pend_length < r.length ? r.pend_length : r.length;
  uint32_t crc = 0;
  int rc = sbacc_ma_crc_data(sfd, hdd, 0, 0, first, &crc);
  if (rc != 0) return rc;
  if (first == r.length && crc == r.crc) return SBACC_VERIFY_OK;
  if (state != SBACC_INTEGRITY_PENDING) return SBACC_VERIFY_BAD;
  if (first == r.pend_length && crc == r.pend_crc) return SBACC_VERIFY_OK;
  const int64_t second = first == r.length ? r.pend_length : r.length;
  rc = sbacc_ma_crc_data(sfd, hdd, crc, first, second, &crc);
  if (rc != 0) return rc;
  return crc == (second == r.length ? r.crc : r.pend_crc) ? SBACC_VERIFY_OK : SBACC_VERIFY_BAD;
}

namespace {

// Compares data bytes [0, len) of every open copy with the reference's in
// one pass, and leaves the CRC of those bytes in *crc.  1: all equal, 0:
// not, negative: a read failed.
int AllSame(SBACC_FILE_DISCRIPTER* sfd, int ref, int64_t len, uint32_t* crc) {
  uint8_t a[kChunk], b[kChunk];
  uint32_t c = 0;
  for (int64_t p = 0; p < len;) {
    const int n = static_cast<int>(len - p < kChunk ? len - p : kChunk);
    int rc = ReadData(sfd, ref, p, a, n);
    for (int i = 0; i < sbacc_ma_copies(sfd) && rc == 0; ++i) {
      if (i == ref || sfd->fd[i] == -1) continue;
      rc = ReadData(sfd, i, p, b, n);
      if (rc == 0 && memcmp(a, b, static_cast<size_t>(n)) != 0) return 0;
    }
    if (rc != 0) return rc;
    c = sbacc::Crc32cExtend(c, a, static_cast<size_t>(n));
    p += n;
  }
  *crc = c;
  return 1;
}

}  // namespace

int sbacc_ma_adopt_copies(SBACC_FILE_DISCRIPTER* sfd) {
  if (!sbacc_ma_checksums(sfd)) return 0;
  const int n = sbacc_ma_copies(sfd);
  SBACC_HDD_HEADER hdr[SBACC_HDD_MAX];
  int ref = -1;
  uint32_t lacking = 0;
  for (int i = 0; i < n; ++i) {
    SBACC_INTEGRITY r;
    if (sfd->fd[i] == -1 || sbacc_l_hddget_header(sfd, i, &hdr[i]) != 0) continue;
    if (ref < 0) ref = i;
    if (sbacc_l_integrity_applies(&hdr[i], &r) == SBACC_INTEGRITY_NONE) lacking |= 1u << i;
    // Only copies that agree on every field about the data are adopted.
    if (hdr[i].filesize != hdr[ref].filesize || hdr[i].writeflag != 0) return 0;
  }
  const int32_t size = ref < 0 ? -1 : hdr[ref].filesize;
  if (lacking == 0 || size < 0 || size > sbacc_ma_data_capacity(sfd)) return 0;
  SBACC_INTEGRITY rec{};
  rec.length = static_cast<uint32_t>(size);
  rec.generation = 1;
  if (AllSame(sfd, ref, size, &rec.crc) != 1) return 0;  // copies that differ: no record can say which is right
  SBACC_TRACE(sbacc::kTraceMilestone, "[sbacc_ma_adopt_copies] %s: copies agree byte for byte: integrity record 0-%d adopted",
              sfd->sfe.filename, size);
  for (int i = 0; i < n; ++i) {
    if (sfd->fd[i] == -1 || sbacc_ma_repairlock_check(sfd) != 0) continue;
    uint8_t raw[kIntSize];
    rec.opencnt = hdr[i].opencnt;
    sbacc_l_integrity_encode(&rec, raw);
    if (sbacc_l_hddset(sfd, i, kHdrRfu5, raw, kIntSize) != 0) sbacc_ma_close_hdd(sfd, i);
  }
  return 0;
}

int sbacc_ma_check_copy(SBACC_FILE_DISCRIPTER* sfd, int hdd, SBACC_HDD_HEADER* h) {
  int v = sbacc_l_hddget_header(sfd, hdd, h);
  if (v == 0) v = sbacc_ma_verify_copy(sfd, hdd, h);
  if (v != SBACC_VERIFY_BAD) return v;
  // A write of another handle (or process) in flight, or one that started
  // while the data was being read, proves nothing.
  SBACC_HDD_HEADER again;
  if (h->writeflag != 0 || sbacc_l_hddget_header(sfd, hdd, &again) != 0 || again.writeflag != 0 ||
      memcmp(again.rfu5, h->rfu5, sizeof h->rfu5) != 0 || again.filesize != h->filesize) {
    return SBACC_VERIFY_BUSY;
  }
  return SBACC_VERIFY_BAD;
}
