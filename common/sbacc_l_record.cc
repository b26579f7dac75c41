// Codecs of the two 128-byte on-media records (HDD header, NV entry) and the
// little-endian helpers they are built on.  Every field is moved byte by byte
// at its media offset, so the result is the same on any host whatever the
// struct layout or byte order; the layout asserts below only document that
// the decoded form happens to mirror the media form on the supported hosts.
#define SBACC_MODULE SBACC_MODULE_L
#include <stddef.h>
#include <string.h>

#include "sbacc_crc32c.h"
#include "sbacc_l.h"
#include "sbacc_trace.h"

static_assert(sizeof(SBACC_HDD_HEADER) == SBACC_HEADER_SIZE, "HDD header must be 128 bytes");
static_assert(sizeof(SBACC_MEM_LIST_ENTRY) == SBACC_NV_ENTRY_SIZE, "NV entry must be 128 bytes");

static_assert(offsetof(SBACC_HDD_HEADER, magic) == kHdrMagic);
static_assert(offsetof(SBACC_HDD_HEADER, version) == kHdrVersion);
static_assert(offsetof(SBACC_HDD_HEADER, filename) == kHdrFilename);
static_assert(offsetof(SBACC_HDD_HEADER, areasize) == kHdrAreasize);
static_assert(offsetof(SBACC_HDD_HEADER, filesize) == kHdrFilesize);
static_assert(offsetof(SBACC_HDD_HEADER, hddblockade) == kHdrHddblockade);
static_assert(offsetof(SBACC_HDD_HEADER, rfu1) == kHdrRfu1);
static_assert(offsetof(SBACC_HDD_HEADER, openflag) == kHdrOpenflag);
static_assert(offsetof(SBACC_HDD_HEADER, opencnt) == kHdrOpencnt);
static_assert(offsetof(SBACC_HDD_HEADER, opentime) == kHdrOpentime);
static_assert(offsetof(SBACC_HDD_HEADER, closetime) == kHdrClosetime);
static_assert(offsetof(SBACC_HDD_HEADER, writeflag) == kHdrWriteflag);
static_assert(offsetof(SBACC_HDD_HEADER, rfu4) == kHdrRfu4);
static_assert(offsetof(SBACC_HDD_HEADER, write_offset) == kHdrWriteOffset);
static_assert(offsetof(SBACC_HDD_HEADER, write_size) == kHdrWriteSize);
static_assert(offsetof(SBACC_HDD_HEADER, rfu5) == kHdrRfu5);
static_assert(kHdrOpenflag + kHdrOpeninfoLen == kHdrClosetime, "open info is openflag..opentime");
static_assert(kHdrWriteflag + kHdrWriteinfoLen == kHdrRfu5, "write info is writeflag..write_size");
static_assert(sizeof(SBACC_HDD_HEADER::rfu1) == kHdrOpenflag - kHdrRfu1);
static_assert(sizeof(SBACC_HDD_HEADER::rfu4) == kHdrWriteOffset - kHdrRfu4);
static_assert(sizeof(SBACC_HDD_HEADER::rfu5) == SBACC_HEADER_SIZE - kHdrRfu5);

static_assert(offsetof(SBACC_MEM_LIST_ENTRY, magic) == kMemMagic);
static_assert(offsetof(SBACC_MEM_LIST_ENTRY, version) == kMemVersion);
static_assert(offsetof(SBACC_MEM_LIST_ENTRY, filename) == kMemFilename);
static_assert(offsetof(SBACC_MEM_LIST_ENTRY, hddcount) == kMemHddcount);
static_assert(offsetof(SBACC_MEM_LIST_ENTRY, hddblockade) == kMemHddblockade);
static_assert(offsetof(SBACC_MEM_LIST_ENTRY, latesthdd) == kMemLatesthdd);
static_assert(offsetof(SBACC_MEM_LIST_ENTRY, hddrepair) == kMemHddrepair);
static_assert(offsetof(SBACC_MEM_LIST_ENTRY, write_on_repair) == kMemWriteOnRepair);
static_assert(offsetof(SBACC_MEM_LIST_ENTRY, rfu) == kMemRfu);
static_assert(offsetof(SBACC_MEM_LIST_ENTRY, hddrepairlock_cntno) == kMemRepairlock);
static_assert(offsetof(SBACC_MEM_LIST_ENTRY, rfu2) == kMemRfu2);
static_assert(sizeof(SBACC_MEM_LIST_ENTRY::rfu) == kMemRepairlock - kMemRfu);
static_assert(sizeof(SBACC_MEM_LIST_ENTRY::hddrepairlock_cntno) == kMemRfu2 - kMemRepairlock);
static_assert(offsetof(SBACC_MEM_LIST_ENTRY, lockbeat) == kMemLockbeat);
static_assert(sizeof(SBACC_MEM_LIST_ENTRY::rfu2) == kMemLockbeat - kMemRfu2);
// The heartbeats take the last 8 of the base design's 68 reserved bytes and
// no more, so the bytes 60..119 stay free for other uses.
static_assert(sizeof(SBACC_MEM_LIST_ENTRY::lockbeat) == 8 && kMemLockbeat + 8 == SBACC_NV_ENTRY_SIZE);
static_assert(sizeof(SBACC_MEM_LIST_ENTRY::lockbeat) / sizeof(uint16_t) ==
              sizeof(SBACC_MEM_LIST_ENTRY::hddrepairlock_cntno), "one heartbeat per lock byte");

// ---- Little-endian helpers ------------------------------------------------------

uint16_t sbacc_l_get_le16(const uint8_t* p) {
  return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

void sbacc_l_put_le16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}

uint32_t sbacc_l_get_le32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

void sbacc_l_put_le32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

uint64_t sbacc_l_get_le64(const uint8_t* p) {
  return static_cast<uint64_t>(sbacc_l_get_le32(p)) |
         (static_cast<uint64_t>(sbacc_l_get_le32(p + 4)) << 32);
}

void sbacc_l_put_le64(uint8_t* p, uint64_t v) {
  sbacc_l_put_le32(p, static_cast<uint32_t>(v));
  sbacc_l_put_le32(p + 4, static_cast<uint32_t>(v >> 32));
}

namespace {

// Signed fields travel as their two's-complement bit pattern; the conversion
// back is modular (well defined since C++20), so any media bytes decode.
void PutI32(uint8_t* p, int32_t v) { sbacc_l_put_le32(p, static_cast<uint32_t>(v)); }
int32_t GetI32(const uint8_t* p) { return static_cast<int32_t>(sbacc_l_get_le32(p)); }
void PutI64(uint8_t* p, int64_t v) { sbacc_l_put_le64(p, static_cast<uint64_t>(v)); }
int64_t GetI64(const uint8_t* p) { return static_cast<int64_t>(sbacc_l_get_le64(p)); }

// Character fields are raw bytes on the media: no terminator is added or
// required, so a name of exactly 32 characters survives a round trip.
template <size_t N>
void PutBytes(uint8_t* p, const char (&src)[N]) {
  memcpy(p, src, N);
}
template <size_t N>
void PutBytes(uint8_t* p, const uint8_t (&src)[N]) {
  memcpy(p, src, N);
}
template <size_t N>
void GetBytes(const uint8_t* p, char (&dst)[N]) {
  memcpy(dst, p, N);
}
template <size_t N>
void GetBytes(const uint8_t* p, uint8_t (&dst)[N]) {
  memcpy(dst, p, N);
}

}  // namespace

// ---- HDD header -----------------------------------------------------------------

void sbacc_l_encode_header(const SBACC_HDD_HEADER* h, uint8_t out[SBACC_HEADER_SIZE]) {
  PutBytes(out + kHdrMagic, h->magic);
  PutI32(out + kHdrVersion, h->version);
  PutBytes(out + kHdrFilename, h->filename);
  PutI32(out + kHdrAreasize, h->areasize);
  PutI32(out + kHdrFilesize, h->filesize);
  sbacc_l_put_le32(out + kHdrHddblockade, h->hddblockade);
  PutBytes(out + kHdrRfu1, h->rfu1);
  out[kHdrOpenflag] = h->openflag;
  PutI32(out + kHdrOpencnt, h->opencnt);
  PutI64(out + kHdrOpentime, h->opentime);
  PutI64(out + kHdrClosetime, h->closetime);
  out[kHdrWriteflag] = h->writeflag;
  PutBytes(out + kHdrRfu4, h->rfu4);
  PutI32(out + kHdrWriteOffset, h->write_offset);
  PutI32(out + kHdrWriteSize, h->write_size);
  PutBytes(out + kHdrRfu5, h->rfu5);
}

void sbacc_l_decode_header(const uint8_t in[SBACC_HEADER_SIZE], SBACC_HDD_HEADER* h) {
  GetBytes(in + kHdrMagic, h->magic);
  h->version = GetI32(in + kHdrVersion);
  GetBytes(in + kHdrFilename, h->filename);
  h->areasize = GetI32(in + kHdrAreasize);
  h->filesize = GetI32(in + kHdrFilesize);
  h->hddblockade = sbacc_l_get_le32(in + kHdrHddblockade);
  GetBytes(in + kHdrRfu1, h->rfu1);
  h->openflag = in[kHdrOpenflag];
  h->opencnt = GetI32(in + kHdrOpencnt);
  h->opentime = GetI64(in + kHdrOpentime);
  h->closetime = GetI64(in + kHdrClosetime);
  h->writeflag = in[kHdrWriteflag];
  GetBytes(in + kHdrRfu4, h->rfu4);
  h->write_offset = GetI32(in + kHdrWriteOffset);
  h->write_size = GetI32(in + kHdrWriteSize);
  GetBytes(in + kHdrRfu5, h->rfu5);
}

bool sbacc_l_header_valid(const SBACC_HDD_HEADER* h) {
  return memcmp(h->magic, SBACC_HDD_MAGIC, sizeof h->magic) == 0 && h->version == SBACC_RECORD_VERSION;
}

// ---- Integrity record -------------------------------------------------------------
//
// The header's reserved bytes 92..127 hold the integrity record of the copy's
// data.  Relative offsets (header offset = 92 + relative), little-endian:
//
//    0..3   tag          'S' 'C' '1' 0: this format
//    4..7   length       data bytes the checksum covers
//    8..11  crc          CRC-32C of data[0, length)
//   12..19  generation   raised by every write
//   20..23  opencnt      the header's open count when the record was written
//   24..27  pend_length  a write in flight: the length and CRC the data has
//   28..31  pend_crc     once it lands (0, 0 when none)
//   32..35  check        CRC-32C of bytes 0..31, the record's own check
//
// Zeros (every copy written before the record existed), a tag of another
// format or a failing check all read as "no checksum", never as corrupt
// data: a record is trusted only when it is whole and ours.  A format that
// changes the layout takes a new tag, so an older reader sees no checksum.
//
// The opencnt binding covers writers that do not keep the record: older
// builds, or SBACC_CHECKSUM=0.  They carry these bytes through unchanged, so
// the record stays intact while the data under it changes.  But every write
// comes after an open in write mode, which raises the header's opencnt; from
// that open on the stored opencnt differs from the header's and the record
// does not apply ("no checksum").  A writer that keeps the record writes it
// again with the opencnt of its own open.

static_assert(kIntSize == sizeof(SBACC_HDD_HEADER::rfu5) && SBACC_HEADER_SIZE - kHdrRfu5 == kIntSize,
              "the record fills the header's last reserved bytes");
static_assert(sizeof(SBACC_INTEGRITY_TAG) == kIntLength - kIntTag);
static_assert(kIntCrc == kIntLength + 4 && kIntGeneration == kIntCrc + 4 && kIntOpencnt == kIntGeneration + 8);
static_assert(kIntPendLength == kIntOpencnt + 4 && kIntPendCrc == kIntPendLength + 4 && kIntCheck == kIntPendCrc + 4);
static_assert(kIntCheck + 4 == kIntSize, "the check covers everything before it");

namespace {

uint32_t RecordCheck(const uint8_t* rec) { return sbacc::Crc32cExtend(0, rec, kIntCheck); }

}  // namespace

void sbacc_l_integrity_encode(const SBACC_INTEGRITY* r, uint8_t out[kIntSize]) {
  memcpy(out + kIntTag, SBACC_INTEGRITY_TAG, sizeof SBACC_INTEGRITY_TAG);
  sbacc_l_put_le32(out + kIntLength, r->length);
  sbacc_l_put_le32(out + kIntCrc, r->crc);
  sbacc_l_put_le64(out + kIntGeneration, r->generation);
  PutI32(out + kIntOpencnt, r->opencnt);
  sbacc_l_put_le32(out + kIntPendLength, r->pend_length);
  sbacc_l_put_le32(out + kIntPendCrc, r->pend_crc);
  sbacc_l_put_le32(out + kIntCheck, RecordCheck(out));
}

int sbacc_l_integrity_decode(const uint8_t in[kIntSize], SBACC_INTEGRITY* r) {
  memset(r, 0, sizeof *r);
  if (memcmp(in + kIntTag, SBACC_INTEGRITY_TAG, sizeof SBACC_INTEGRITY_TAG) != 0 ||
      sbacc_l_get_le32(in + kIntCheck) != RecordCheck(in)) {
    return SBACC_INTEGRITY_NONE;
  }
  r->length = sbacc_l_get_le32(in + kIntLength);
  r->crc = sbacc_l_get_le32(in + kIntCrc);
  r->generation = sbacc_l_get_le64(in + kIntGeneration);
  r->opencnt = GetI32(in + kIntOpencnt);
  r->pend_length = sbacc_l_get_le32(in + kIntPendLength);
  r->pend_crc = sbacc_l_get_le32(in + kIntPendCrc);
  return r->pend_length != 0 || r->pend_crc != 0 ? SBACC_INTEGRITY_PENDING : SBACC_INTEGRITY_OK;
}

int sbacc_l_integrity_get(const SBACC_HDD_HEADER* h, SBACC_INTEGRITY* r) {
  return sbacc_l_integrity_decode(h->rfu5, r);
}

void sbacc_l_integrity_put(SBACC_HDD_HEADER* h, const SBACC_INTEGRITY* r) { sbacc_l_integrity_encode(r, h->rfu5); }

int sbacc_l_integrity_applies(const SBACC_HDD_HEADER* h, SBACC_INTEGRITY* r) {
  const int rc = sbacc_l_integrity_get(h, r);
  if (rc == SBACC_INTEGRITY_NONE || r->opencnt == h->opencnt) return rc;
  memset(r, 0, sizeof *r);
  return SBACC_INTEGRITY_NONE;
}

// ---- NV entry -------------------------------------------------------------------

void sbacc_l_encode_entry(const SBACC_MEM_LIST_ENTRY* e, uint8_t out[SBACC_NV_ENTRY_SIZE]) {
  PutBytes(out + kMemMagic, e->magic);
  PutI32(out + kMemVersion, e->version);
  PutBytes(out + kMemFilename, e->filename);
  PutI32(out + kMemHddcount, e->hddcount);
  sbacc_l_put_le32(out + kMemHddblockade, e->hddblockade);
  sbacc_l_put_le32(out + kMemLatesthdd, e->latesthdd);
  out[kMemHddrepair] = e->hddrepair;
  out[kMemWriteOnRepair] = e->write_on_repair;
  PutBytes(out + kMemRfu, e->rfu);
  PutBytes(out + kMemRepairlock, e->hddrepairlock_cntno);
  PutBytes(out + kMemRfu2, e->rfu2);
  for (int n = 0; n < 4; ++n) sbacc_l_put_le16(out + kMemLockbeat + 2 * n, e->lockbeat[n]);
}

void sbacc_l_decode_entry(const uint8_t in[SBACC_NV_ENTRY_SIZE], SBACC_MEM_LIST_ENTRY* e) {
  GetBytes(in + kMemMagic, e->magic);
  e->version = GetI32(in + kMemVersion);
  GetBytes(in + kMemFilename, e->filename);
  e->hddcount = GetI32(in + kMemHddcount);
  e->hddblockade = sbacc_l_get_le32(in + kMemHddblockade);
  e->latesthdd = sbacc_l_get_le32(in + kMemLatesthdd);
  e->hddrepair = in[kMemHddrepair];
  e->write_on_repair = in[kMemWriteOnRepair];
  GetBytes(in + kMemRfu, e->rfu);
  GetBytes(in + kMemRepairlock, e->hddrepairlock_cntno);
  GetBytes(in + kMemRfu2, e->rfu2);
  for (int n = 0; n < 4; ++n) e->lockbeat[n] = sbacc_l_get_le16(in + kMemLockbeat + 2 * n);
}

bool sbacc_l_entry_valid(const SBACC_MEM_LIST_ENTRY* e) {
  return memcmp(e->magic, SBACC_MEM_MAGIC, sizeof e->magic) == 0 && e->version == SBACC_RECORD_VERSION;
}
