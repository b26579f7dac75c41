// The per-area record in NV memory: transfers with their retry loop, record
// initialisation and check, the bit counter, and the fixed-offset accessors.
// NV memory is reached only through the Env, one request per attempt.
#define SBACC_MODULE SBACC_MODULE_L
#include <stdint.h>
#include <string.h>

#include <bit>

#include "sbacc.h"
#include "sbacc_env.h"
#include "sbacc_l.h"
#include "sbacc_trace.h"

namespace {

constexpr unsigned kRetrySleepMicros = 100000;
constexpr int kRepairLockSlots = 4;

// Absolute NV byte of a record offset, in 64 bits so no index can wrap it.
uint64_t NvOffset(const SBACC_FILE_DISCRIPTER* sfd, int offset) {
  const int64_t abs = SBACC_NV_BASE + static_cast<int64_t>(SBACC_NV_ENTRY_SIZE) * sfd->sfe.index + offset;
  return static_cast<uint64_t>(abs);
}

// Number of attempts for a tunable: one plus the retries.  A descriptor not
// filled by sbacc_ma_alloc_sfd may hold 0 or less; it still gets one attempt.
int Attempts(int retries) { return retries > 0 ? retries + 1 : 1; }

struct NameBuf {
  char s[SBACC_FILENAME_LEN + 1];
  explicit NameBuf(const char (&name)[SBACC_FILENAME_LEN]) {
    memcpy(s, name, SBACC_FILENAME_LEN);
    s[SBACC_FILENAME_LEN] = '\0';
  }
};

}  // namespace

int sbacc_l_memset(SBACC_FILE_DISCRIPTER* sfd, int offset, const void* buf, int len) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_memset] [ENTER]");
  // A negative length would reach the firmware as an enormous unsigned
  // count; it is refused without an attempt.
  if (len >= 0) {
    const uint64_t at = NvOffset(sfd, offset);
    const int attempts = Attempts(sfd->env[SBACC_ENV_MEMSET]);
    for (int i = 0; i < attempts; ++i) {
      const int ret = sbacc::CurrentEnv()->NvWrite(at, buf, static_cast<size_t>(len));
      if (ret == 0) {
        SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_memset] [LEAVE] %d", 0);
        return 0;
      }
      SBACC_TRACE(sbacc::kTraceError, "[sbacc_l_memset] Ezosanfwctl_write_nv error. ret=%d offset=%d len=%d", ret,
                  offset, len);
      // Sleep after the last failure too: callers that retry a whole step
      // then never hammer the firmware back to back.
      sbacc::CurrentEnv()->SleepMicros(kRetrySleepMicros);
    }
  }
  SBACC_TRACE(sbacc::kTraceError, "[sbacc_l_memset] memset error.");
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_memset] [LEAVE] %d", SBACC_E_NVWRITE);
  return SBACC_E_NVWRITE;
}

int sbacc_l_memget(SBACC_FILE_DISCRIPTER* sfd, int offset, void* buf, int len) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_memget] [ENTER]");
  if (len >= 0) {  // negative length refused, see sbacc_l_memset
    const uint64_t at = NvOffset(sfd, offset);
    const int attempts = Attempts(sfd->env[SBACC_ENV_MEMGET]);
    for (int i = 0; i < attempts; ++i) {
      const int ret = sbacc::CurrentEnv()->NvRead(at, buf, static_cast<size_t>(len));
      if (ret == 0) {
        SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_memget] [LEAVE] %d", 0);
        return 0;
      }
      SBACC_TRACE(sbacc::kTraceError, "[sbacc_l_memget] Ezosanfwctl_read_nv error. ret=%d offset=%d len=%d", ret,
                  offset, len);
      sbacc::CurrentEnv()->SleepMicros(kRetrySleepMicros);
    }
  }
  SBACC_TRACE(sbacc::kTraceError, "[sbacc_l_memget] memget error.");
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_memget] [LEAVE] %d", SBACC_E_NVREAD);
  return SBACC_E_NVREAD;
}

int sbacc_l_memini_entry(SBACC_FILE_DISCRIPTER* sfd, SBACC_MEM_LIST_ENTRY* entry) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_memini_entry] [ENTER]");
  const NameBuf name(sfd->sfe.filename);
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_memini_entry] initialize NV memory filename=(%s)", name.s);

  // Body first, magic last: an interrupted initialisation leaves a record
  // that fails the validity test instead of a valid magic over stale masks.
  memset(entry, 0, sizeof *entry);
  entry->version = SBACC_RECORD_VERSION;
  memcpy(entry->filename, sfd->sfe.filename, strnlen(sfd->sfe.filename, sizeof entry->filename));
  entry->hddcount = sfd->sfe.hddcount;

  // Beyond the base design: the repair lock bytes and their heartbeats are
  // written around, not zeroed (in *entry they read 0).  They say which
  // controller repairs the area or asks to, not what its copies hold, and
  // they mean that whether the record is valid or not: an initialisation
  // under the area's lock (the start-up's NV initialisation, the data
  // repair's first open of a new area) must neither drop this controller's
  // own byte nor clear another controller's.
  uint8_t raw[SBACC_NV_ENTRY_SIZE];
  sbacc_l_encode_entry(entry, raw);
  int rc = sbacc_l_memset(sfd, kMemMagic, raw, kMemRepairlock);
  if (rc == 0) rc = sbacc_l_memset(sfd, kMemRfu2, raw + kMemRfu2, kMemLockbeat - kMemRfu2);
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_l_memini_entry] sbacc_memset_entry error. retcode=%d", rc);
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_memini_entry] [LEAVE] %d", rc);
    return rc;
  }
  memcpy(entry->magic, SBACC_MEM_MAGIC, sizeof entry->magic);
  rc = sbacc_memset_magic(sfd);
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_l_memini_entry] sbacc_memset_magic error. retcode=%d", rc);
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_memini_entry] [LEAVE] %d", rc);
    return rc;
  }
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_memini_entry] [LEAVE] %d", 0);
  return 0;
}

int sbacc_memget_check_entry(SBACC_FILE_DISCRIPTER* sfd, SBACC_MEM_LIST_ENTRY* entry) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memget_check_entry] [ENTER]");
  int rc = sbacc_memget_entry(sfd, entry);
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_memget_check_entry] sbacc_memget_entry error. retcode=%d", rc);
  } else if (!sbacc_l_entry_valid(entry)) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_memget_check_entry] NV is not initialized");
    rc = SBACC_E_NOTINIT;
  }
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memget_check_entry] [LEAVE] %d", rc);
  return rc;
}

int sbacc_l_bitcount(int mask) {
  // Counted on the unsigned pattern: masks come from disk and may have the
  // top bit set, which must neither be lost nor shifted into UB.
  return std::popcount(static_cast<uint32_t>(mask));
}

// ---- Accessors ------------------------------------------------------------------

int sbacc_memset_entry(SBACC_FILE_DISCRIPTER* sfd, const SBACC_MEM_LIST_ENTRY* entry) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memset_entry] [ENTER]");
  uint8_t raw[SBACC_NV_ENTRY_SIZE];
  sbacc_l_encode_entry(entry, raw);
  const int rc = sbacc_l_memset(sfd, kMemMagic, raw, SBACC_NV_ENTRY_SIZE);
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memset_entry] [LEAVE] %d", rc);
  return rc;
}

int sbacc_memset_magic(SBACC_FILE_DISCRIPTER* sfd) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memset_magic] [ENTER]");
  const int rc = sbacc_l_memset(sfd, kMemMagic, SBACC_MEM_MAGIC, 4);
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memset_magic] [LEAVE] %d", rc);
  return rc;
}

int sbacc_memget_entry(SBACC_FILE_DISCRIPTER* sfd, SBACC_MEM_LIST_ENTRY* entry) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memget_entry] [ENTER]");
  uint8_t raw[SBACC_NV_ENTRY_SIZE];
  const int rc = sbacc_l_memget(sfd, kMemMagic, raw, SBACC_NV_ENTRY_SIZE);
  if (rc == 0) sbacc_l_decode_entry(raw, entry);  // on failure the caller's record stays as it was
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memget_entry] [LEAVE] %d", rc);
  return rc;
}

int sbacc_memset_hddblockade(SBACC_FILE_DISCRIPTER* sfd, uint32_t mask) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memset_hddblockade] [ENTER]");
  uint8_t raw[4];
  sbacc_l_put_le32(raw, mask);
  const int rc = sbacc_l_memset(sfd, kMemHddblockade, raw, sizeof raw);
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memset_hddblockade] [LEAVE] %d", rc);
  return rc;
}

int sbacc_memget_hddblockade(SBACC_FILE_DISCRIPTER* sfd, uint32_t* mask) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memget_hddblockade] [ENTER]");
  uint8_t raw[4];
  const int rc = sbacc_l_memget(sfd, kMemHddblockade, raw, sizeof raw);
  if (rc == 0) *mask = sbacc_l_get_le32(raw);
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memget_hddblockade] [LEAVE] %d", rc);
  return rc;
}

int sbacc_memset_latesthdd(SBACC_FILE_DISCRIPTER* sfd, uint32_t mask) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memset_latesthdd] [ENTER]");
  uint8_t raw[4];
  sbacc_l_put_le32(raw, mask);
  const int rc = sbacc_l_memset(sfd, kMemLatesthdd, raw, sizeof raw);
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memset_latesthdd] [LEAVE] %d", rc);
  return rc;
}

int sbacc_memset_hddrepair(SBACC_FILE_DISCRIPTER* sfd, uint8_t mask) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memset_hddrepair] [ENTER]");
  const int rc = sbacc_l_memset(sfd, kMemHddrepair, &mask, 1);
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memset_hddrepair] [LEAVE] %d", rc);
  return rc;
}

int sbacc_memget_hddrepair(SBACC_FILE_DISCRIPTER* sfd, uint8_t* mask) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memget_hddrepair] [ENTER]");
  uint8_t raw = 0;
  const int rc = sbacc_l_memget(sfd, kMemHddrepair, &raw, 1);
  if (rc == 0) *mask = raw;
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memget_hddrepair] [LEAVE] %d", rc);
  return rc;
}

int sbacc_memset_hddrepairlock(SBACC_FILE_DISCRIPTER* sfd, int cntno, uint8_t value) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memset_hddrepairlock] [ENTER]");
  // Only four lock bytes exist; any other controller number would write into
  // the reserved bytes after them (or the masks before them), so it is
  // refused as a parameter error.
  if (cntno < 0 || cntno >= kRepairLockSlots) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_memset_hddrepairlock] parameter error. cntno=%d", cntno);
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memset_hddrepairlock] [LEAVE] %d", SBACC_E_PARAM);
    return SBACC_E_PARAM;
  }
  const int rc = sbacc_l_memset(sfd, kMemRepairlock + cntno, &value, 1);
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memset_hddrepairlock] [LEAVE] %d", rc);
  return rc;
}

int sbacc_memget_hddrepairlock_all(SBACC_FILE_DISCRIPTER* sfd, uint8_t lockall[4]) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memget_hddrepairlock_all] [ENTER]");
  uint8_t raw[kRepairLockSlots];
  const int rc = sbacc_l_memget(sfd, kMemRepairlock, raw, sizeof raw);
  if (rc == 0) memcpy(lockall, raw, sizeof raw);
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memget_hddrepairlock_all] [LEAVE] %d", rc);
  return rc;
}

int sbacc_memset_lockbeat(SBACC_FILE_DISCRIPTER* sfd, int cntno, uint16_t beat) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memset_lockbeat] [ENTER]");
  // As the lock bytes: a number outside 0..3 would write outside the slice.
  if (cntno < 0 || cntno >= kRepairLockSlots) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_memset_lockbeat] parameter error. cntno=%d", cntno);
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memset_lockbeat] [LEAVE] %d", SBACC_E_PARAM);
    return SBACC_E_PARAM;
  }
  uint8_t raw[2];
  sbacc_l_put_le16(raw, beat);
  const int rc = sbacc_l_memset(sfd, kMemLockbeat + 2 * cntno, raw, sizeof raw);
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memset_lockbeat] [LEAVE] %d", rc);
  return rc;
}

int sbacc_memget_lockbeat_all(SBACC_FILE_DISCRIPTER* sfd, uint16_t beats[4]) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memget_lockbeat_all] [ENTER]");
  uint8_t raw[2 * kRepairLockSlots];
  const int rc = sbacc_l_memget(sfd, kMemLockbeat, raw, sizeof raw);
  if (rc == 0) {
    for (int n = 0; n < kRepairLockSlots; ++n) beats[n] = sbacc_l_get_le16(raw + 2 * n);
  }
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_memget_lockbeat_all] [LEAVE] %d", rc);
  return rc;
}
