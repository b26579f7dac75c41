// The library's plain records: configuration, descriptor and the two
// on-media records (in their decoded, host form).
#ifndef SBACC_TYPES_H
#define SBACC_TYPES_H

#include <pthread.h>
#include <stdint.h>
#include <time.h>

#include "sbacc.h"

#define SBACC_HDD_MAX 8
#define SBACC_FILENAME_LEN 32
#define SBACC_HDDNAME_LEN 128
#define SBACC_HEADER_SIZE 128
#define SBACC_NV_ENTRY_SIZE 128
#define SBACC_NV_BASE 4096
#define SBACC_ENV_NUM 8

// Mask with the low n bits set: every one of n copies fenced off.
#define SBACC_HDD_MAXBIT(n) \
  ((n) <= 0 ? 0u : ((n) >= 32 ? 0xffffffffu : ((1u << (unsigned)(n)) - 1u)))

// Open modes of a descriptor.
#define SBACC_OPENMODE_INSPECT 0
#define SBACC_OPENMODE_READ 1
#define SBACC_OPENMODE_WRITE 3

// One configured area.
typedef struct _TAG_SBACC_FILE_LIST_ENTRY {
  int index;
  char filename[SBACC_FILENAME_LEN];
  uint64_t areaaddr;
  uint64_t areasize;
  int hddcount;
  char hddname[SBACC_HDD_MAX][SBACC_HDDNAME_LEN];
} SBACC_FILE_LIST_ENTRY;

// All configured areas; `file` runs to the end of the allocation.
typedef struct _TAG_SBACC_FILE_LIST {
  int filenum;
  SBACC_FILE_LIST_ENTRY file[];
} SBACC_FILE_LIST;

// One tunable read from the environment.
typedef struct _TAG_SBACC_ENV_LIST_ENTRY {
  const char* name;
  int def;
  int min;
  int max;
} SBACC_ENV_LIST_ENTRY;

enum {
  SBACC_ENV_MEMSET = 0,
  SBACC_ENV_MEMGET = 1,
  SBACC_ENV_REPAIR = 2,
  SBACC_ENV_REPAIRLOCK_WAIT = 3,
  SBACC_ENV_RESYNC = 4,
  SBACC_ENV_REPAIRLOCK_STALE = 5,
  SBACC_ENV_FENCE_MERGE = 6,
  SBACC_ENV_CHECKSUM = 7
};

// Per-area descriptor; the public handle points at one.
typedef struct _TAG_SBACC_FILE_DISCRIPTER {
  SBACC_FILE_LIST_ENTRY sfe;
  int openmode;
  int fd[SBACC_HDD_MAX];
  int env[SBACC_ENV_NUM];
  // Read mode: the copies the open accepted (bit i = copy i), read before
  // any other; 0 until the open has settled.
  uint32_t readset;
  // Copies whose data this handle has checked against their integrity
  // records (each once), and, in read mode, those that failed the check.
  uint32_t verified;
  uint32_t failed;
} SBACC_FILE_DISCRIPTER;

// The 128-byte header in front of every HDD copy, decoded.  The host layout
// happens to match the media layout; the codec never relies on that.
typedef struct _TAG_SBACC_HDD_HEADER {
  char magic[4];
  int32_t version;
  char filename[SBACC_FILENAME_LEN];
  int32_t areasize;
  int32_t filesize;
  uint32_t hddblockade;
  uint8_t rfu1[7];
  uint8_t openflag;
  int32_t opencnt;
  int64_t opentime;
  int64_t closetime;
  uint8_t writeflag;
  uint8_t rfu4[3];
  int32_t write_offset;
  int32_t write_size;
  uint8_t rfu5[36];
} SBACC_HDD_HEADER;

// The integrity record of one copy, decoded; on the media it fills the
// header's rfu5 bytes (layout: sbacc_l_record.cc).
typedef struct _TAG_SBACC_INTEGRITY {
  uint32_t length;       // data bytes the checksum covers
  uint32_t crc;          // CRC-32C of data[0, length)
  uint64_t generation;   // raised by every write
  int32_t opencnt;       // the header's open count when the record was written
  uint32_t pend_length;  // a write in flight: the length and crc the data
  uint32_t pend_crc;     // has once it lands; 0, 0 when none
} SBACC_INTEGRITY;

// What the media bytes of a record say.  Never "corrupt": bytes that are not
// a sound record of ours only mean that no checksum is known.
enum {
  SBACC_INTEGRITY_NONE = 0,    // no checksum: zeros, another format, a failing self-check
  SBACC_INTEGRITY_OK = 1,      // the data is length bytes with CRC crc
  SBACC_INTEGRITY_PENDING = 2  // a write was in flight: either pair may describe the data
};

// The 128-byte per-area record in NV memory, decoded.
typedef struct _TAG_SBACC_MEM_LIST_ENTRY {
  char magic[4];
  int32_t version;
  char filename[SBACC_FILENAME_LEN];
  int32_t hddcount;
  uint32_t hddblockade;
  uint32_t latesthdd;
  uint8_t hddrepair;
  uint8_t write_on_repair;
  uint8_t rfu[2];
  uint8_t hddrepairlock_cntno[4];
  uint8_t rfu2[60];
  // Beyond the base design, which reserves bytes 60..127: the last 8 of them
  // hold one repair lock heartbeat per controller (16 bits, little-endian),
  // which controller n advances while its lock byte of this area is raised;
  // 0 = nothing recorded (see sbacc_ma_lock.cc).
  uint16_t lockbeat[4];
} SBACC_MEM_LIST_ENTRY;

// One piece of a write to an HDD copy: `len` bytes of `buf` at area offset `offset`.
typedef struct {
  int offset;
  const void* buf;
  int len;
} SBACC_SLICE;

// Start-up verdict on one area's data.
typedef struct _TAG_SBACC_DATA_REPAIR {
  char filename[SBACC_FILENAME_LEN];
  int data_repair;  // 0: nothing to do; 1: the data repair is needed; SBACC_DATA_REPAIR_HELD
  int all_bk_flag;
  int64_t closetime;
  char rfu2[16];
} SBACC_DATA_REPAIR;
// The restore left the area as it is (a copy that may hold its data could not
// be read): not repairable now, neither read nor written by the data repair.
enum { SBACC_DATA_REPAIR_HELD = 2 };

#endif  // SBACC_TYPES_H
