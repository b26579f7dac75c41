// Low layer: the area list, the on-media record codecs, and the raw transfers
// on one HDD copy and on NV memory.
#ifndef SBACC_L_H
#define SBACC_L_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "sbacc_types.h"

// ---- Area list (configuration file) --------------------------------------

// The file read: SBACC_FILELIST when set, else /etc/env_frmwkapi/filelist.ini.
const char* sbacc_l_filelist_path();

int sbacc_l_get_filelist_entry_num();
int sbacc_l_get_filelist(SBACC_FILE_LIST** list);
int sbacc_l_get_filelist_entry(const char* filename, SBACC_FILE_LIST_ENTRY* entry);
int sbacc_l_get_filelist_2(SBACC_FILE_LIST* list, const char* filename, SBACC_FILE_LIST_ENTRY* entry);
char* sbacc_l_strsep(char** cursor, const char* sep);

// ---- On-media records -----------------------------------------------------
// One encoder/decoder per record; little-endian on any host.  Field offsets
// are the media offsets; engine code slices encoded images by these constants
// instead of touching bytes by hand.

enum HddHeaderOffset {
  kHdrMagic = 0, kHdrVersion = 4, kHdrFilename = 8, kHdrAreasize = 40, kHdrFilesize = 44,
  kHdrHddblockade = 48, kHdrRfu1 = 52, kHdrOpenflag = 59, kHdrOpencnt = 60, kHdrOpentime = 64,
  kHdrClosetime = 72, kHdrWriteflag = 80, kHdrRfu4 = 81, kHdrWriteOffset = 84, kHdrWriteSize = 88,
  kHdrRfu5 = 92,
  kHdrOpeninfoLen = 13,  // openflag, opencnt, opentime
  kHdrWriteinfoLen = 12  // writeflag, rfu4, write_offset, write_size
};

enum MemEntryOffset {
  kMemMagic = 0, kMemVersion = 4, kMemFilename = 8, kMemHddcount = 40, kMemHddblockade = 44,
  kMemLatesthdd = 48, kMemHddrepair = 52, kMemWriteOnRepair = 53, kMemRfu = 54,
  kMemRepairlock = 56, kMemRfu2 = 60,
  // The repair lock heartbeats: the last 8 reserved bytes, 2 per controller.
  kMemLockbeat = 120
};

#define SBACC_HDD_MAGIC "SBFS"
#define SBACC_MEM_MAGIC "SBNM"
#define SBACC_RECORD_VERSION 3

void sbacc_l_encode_header(const SBACC_HDD_HEADER* h, uint8_t out[SBACC_HEADER_SIZE]);
void sbacc_l_decode_header(const uint8_t in[SBACC_HEADER_SIZE], SBACC_HDD_HEADER* h);
void sbacc_l_encode_entry(const SBACC_MEM_LIST_ENTRY* e, uint8_t out[SBACC_NV_ENTRY_SIZE]);
void sbacc_l_decode_entry(const uint8_t in[SBACC_NV_ENTRY_SIZE], SBACC_MEM_LIST_ENTRY* e);
bool sbacc_l_header_valid(const SBACC_HDD_HEADER* h);  // "SBFS", version 3
bool sbacc_l_entry_valid(const SBACC_MEM_LIST_ENTRY* e);  // "SBNM", version 3

// The integrity record in the header's bytes 92..127; offsets relative to
// its start (layout and reasons: sbacc_l_record.cc).
enum IntegrityOffset {
  kIntTag = 0, kIntLength = 4, kIntCrc = 8, kIntGeneration = 12, kIntOpencnt = 20,
  kIntPendLength = 24, kIntPendCrc = 28, kIntCheck = 32,
  kIntSize = 36
};

#define SBACC_INTEGRITY_TAG "SC1"  // with its NUL, the 4 bytes at kIntTag

void sbacc_l_integrity_encode(const SBACC_INTEGRITY* r, uint8_t out[kIntSize]);
// SBACC_INTEGRITY_NONE (and *r zeroed), _OK or _PENDING.
int sbacc_l_integrity_decode(const uint8_t in[kIntSize], SBACC_INTEGRITY* r);
// The same on a decoded header's rfu5 bytes.
int sbacc_l_integrity_get(const SBACC_HDD_HEADER* h, SBACC_INTEGRITY* r);
void sbacc_l_integrity_put(SBACC_HDD_HEADER* h, const SBACC_INTEGRITY* r);
// The record only when it belongs to this header's open count, else
// SBACC_INTEGRITY_NONE (and *r zeroed).
int sbacc_l_integrity_applies(const SBACC_HDD_HEADER* h, SBACC_INTEGRITY* r);

uint16_t sbacc_l_get_le16(const uint8_t* p);
void sbacc_l_put_le16(uint8_t* p, uint16_t v);
uint32_t sbacc_l_get_le32(const uint8_t* p);
void sbacc_l_put_le32(uint8_t* p, uint32_t v);
uint64_t sbacc_l_get_le64(const uint8_t* p);
void sbacc_l_put_le64(uint8_t* p, uint64_t v);

// ---- HDD area file (one copy) ---------------------------------------------
// Offsets are relative to areaaddr: header at 0..127, data byte n at 128 + n.

int sbacc_l_hddset(SBACC_FILE_DISCRIPTER* sfd, int hdd, int offset, const void* buf, int len);
// Writes every slice, then flushes once (n >= 1).
int sbacc_l_hddset_slices(SBACC_FILE_DISCRIPTER* sfd, int hdd, const SBACC_SLICE* slices, int n);
int sbacc_l_hddget(SBACC_FILE_DISCRIPTER* sfd, int hdd, int offset, void* buf, int len);
int sbacc_l_hddini_header(SBACC_FILE_DISCRIPTER* sfd, int hdd, int hddblockade);

int sbacc_l_hddset_header(SBACC_FILE_DISCRIPTER* sfd, int hdd, const SBACC_HDD_HEADER* h);
int sbacc_l_hddset_magic(SBACC_FILE_DISCRIPTER* sfd, int hdd);
int sbacc_l_hddget_header(SBACC_FILE_DISCRIPTER* sfd, int hdd, SBACC_HDD_HEADER* h);
int sbacc_l_hddget_filesize(SBACC_FILE_DISCRIPTER* sfd, int hdd, int32_t* filesize);
int sbacc_l_hddset_data(SBACC_FILE_DISCRIPTER* sfd, int hdd, int offset, const void* buf, int len);
int sbacc_l_hddget_data(SBACC_FILE_DISCRIPTER* sfd, int hdd, int offset, void* buf, int len);

// ---- NV area entry ----------------------------------------------------------
// The record of area `index` lies at NV byte 4096 + 128 * index.

int sbacc_l_memset(SBACC_FILE_DISCRIPTER* sfd, int offset, const void* buf, int len);
int sbacc_l_memget(SBACC_FILE_DISCRIPTER* sfd, int offset, void* buf, int len);
int sbacc_l_memini_entry(SBACC_FILE_DISCRIPTER* sfd, SBACC_MEM_LIST_ENTRY* entry);
int sbacc_memget_check_entry(SBACC_FILE_DISCRIPTER* sfd, SBACC_MEM_LIST_ENTRY* entry);
int sbacc_l_bitcount(int mask);

int sbacc_memset_entry(SBACC_FILE_DISCRIPTER* sfd, const SBACC_MEM_LIST_ENTRY* entry);
int sbacc_memset_magic(SBACC_FILE_DISCRIPTER* sfd);
int sbacc_memget_entry(SBACC_FILE_DISCRIPTER* sfd, SBACC_MEM_LIST_ENTRY* entry);
int sbacc_memset_hddblockade(SBACC_FILE_DISCRIPTER* sfd, uint32_t mask);
int sbacc_memget_hddblockade(SBACC_FILE_DISCRIPTER* sfd, uint32_t* mask);
int sbacc_memset_latesthdd(SBACC_FILE_DISCRIPTER* sfd, uint32_t mask);
int sbacc_memset_hddrepair(SBACC_FILE_DISCRIPTER* sfd, uint8_t mask);
int sbacc_memget_hddrepair(SBACC_FILE_DISCRIPTER* sfd, uint8_t* mask);
int sbacc_memset_hddrepairlock(SBACC_FILE_DISCRIPTER* sfd, int cntno, uint8_t value);
int sbacc_memget_hddrepairlock_all(SBACC_FILE_DISCRIPTER* sfd, uint8_t lockall[4]);
// Controller cntno's repair lock heartbeat (2 bytes) / all four (8 bytes).
int sbacc_memset_lockbeat(SBACC_FILE_DISCRIPTER* sfd, int cntno, uint16_t beat);
int sbacc_memget_lockbeat_all(SBACC_FILE_DISCRIPTER* sfd, uint16_t beats[4]);

namespace sbacc {
// Held over every read-change-write of one area's NV record in this process
// (handles fencing copies, a repair marking and unfencing them).  Not
// recursive: nothing called while it is held takes it again.
class NvRecordLock {
 public:
  // data: the area's data lock instead (held over a write of the data and
  // its integrity record; a record lock may be taken under it).
  explicit NvRecordLock(const SBACC_FILE_DISCRIPTER* sfd, bool data = false);
  ~NvRecordLock();
  NvRecordLock(const NvRecordLock&) = delete;
  NvRecordLock& operator=(const NvRecordLock&) = delete;

 private:
  pthread_mutex_t* mu_;
};
// Tests: takes (true) or releases (false) every record lock at once.
void NvRecordLocksForTest(bool hold);
}  // namespace sbacc

#endif  // SBACC_L_H
