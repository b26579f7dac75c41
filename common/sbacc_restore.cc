// Start-up restore: the HDD repair of every area, one worker per area, then
// the data repair of the seven data areas that belong together.
#define SBACC_MODULE SBACC_MODULE_SBACC
#include "sbacc_trace.h"

#include <errno.h>
#include <stdint.h>
#include <string.h>
#include <time.h>

#include <bit>
#include <initializer_list>

#include "sbacc_alloc.h"
#include "sbacc_core.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"
#include "sbacc_tool_iface.h"
#include "sbacc_worker.h"

using sbacc::kTraceError;
using sbacc::kTraceFlow;
using sbacc::kTraceMilestone;
using sbacc::kTraceState;

namespace {

typedef struct {
  int file_bit;
  int data_repair_type;
  char filename[32];
} data_repair_t;

enum {
  kBitBackup0 = 0x1,
  kBitBackup1 = 0x2,
  kBitSysback = 0x4,
  kBitSysacpt = 0x8,
  kBitVerid = 0x10,
  kBitVerback = 0x20,
  kBitReboot = 0x800,
};

constexpr int kTableRows = 7;
const data_repair_t kDataRepairTable[kTableRows] = {
    {kBitBackup0, 1, "envfw_backup0"}, {kBitBackup1, 1, "envfw_backup1"}, {kBitSysback, 2, "envfw_sysback"},
    {kBitSysacpt, 2, "envfw_sysacpt"}, {kBitVerid, 1, "envfw_verid"},     {kBitVerback, 2, "envfw_verback"},
    {kBitReboot, 2, "envfw_reboot"},
};

bool IsNoCopy(int rc) { return rc == SBACC_E_ALLBLOCKADE || rc == SBACC_E_NOCOPY; }

// The verdict on the HDD repair: true to go on with the data repair, else
// *result holds the restore's result.  Every area has been repaired as far as
// it could be; the first failing area in index order decides, as it always
// has, whichever thread ran it.
bool Judge(const int* results, int filenum, int* result) {
  for (int i = 0; i < filenum; ++i) {
    const int rc = results[i];
    if (rc == 0) continue;
    if (IsNoCopy(rc)) {
      SBACC_TRACE(kTraceError, "[sbacc_hdd_restore] HDD is dose not exist. file_index=%d retcode=%d->%d", i, rc, 0);
      *result = 0;
    } else {
      SBACC_TRACE(kTraceError, "[sbacc_hdd_restore] sbacc_ma_repair_for_restore error. retcode=%d errno=%d", rc,
                  errno);
      *result = rc;
    }
    return false;
  }
  return true;
}

// The one area whose unreadable copies an engineer has written off for this
// restore (sbacc_accept_loss); empty for none.  Set before the workers start.
char g_accept_loss[SBACC_FILENAME_LEN];

int RepairArea(void* arg) {
  const int index = *static_cast<const int*>(arg);
  SBACC_TRACE(kTraceMilestone, "[repair_for_restore_p_thread] repair exec.index=%d", index);
  const char* name = p_sbacc_file_list->file[index].filename;
  const bool accept = g_accept_loss[0] != '\0' && strncmp(name, g_accept_loss, sizeof g_accept_loss) == 0;
  const int rc = sbacc_ma_repair_for_restore_ex(index, accept);
  if (rc != 0) SBACC_TRACE(kTraceError, "[repair_for_restore_p_thread] repair error. index=%d", index);
  sbacc_progress_area_done(p_sbacc_file_list->file[index].filename);
  return rc;
}

// The HDD repair of every area, one task each.  An area that fails does not
// stop the others: each task owns its area's descriptor, verdict record and
// result slot, whichever thread runs it.
void RepairAll(int filenum, int* indexes, int* results) {
  sbacc_progress_begin(filenum);
  sbacc::TaskGroup group("sbacc_hdd_restore", sbacc::WorkerLog::kRestore2);
  for (int i = 0; i < filenum; ++i) {
    SBACC_TRACE(kTraceFlow, "[sbacc_hdd_restore] [%d/%d]", i, filenum);
    SBACC_TRACE(kTraceState, "[sbacc_hdd_restore] sbacc_ma_repair_for_restore() is multi exec. file_index=%d", i);
    indexes[i] = i;
    group.Run(RepairArea, &indexes[i], &results[i]);
  }
}

// ---- Data repair ------------------------------------------------------------------

// Version areas hold a native int.  Shorter areas supply its low-order
// bytes (the rest 0); in longer ones the first 4 bytes are the number and
// the bytes after them are passed on untouched.
int GetVersion(const uint8_t* buf, int size) {
  uint8_t raw[sizeof(int32_t)] = {0, 0, 0, 0};
  const int n = size < 4 ? size : 4;
  const int at = (std::endian::native == std::endian::big) ? 4 - n : 0;
  memcpy(raw + at, buf, static_cast<size_t>(n));
  int32_t v;
  memcpy(&v, raw, sizeof v);
  return v;
}

void PutVersion(uint8_t* buf, int size, int version) {
  uint8_t raw[sizeof(int32_t)];
  const int32_t v = version;
  memcpy(raw, &v, sizeof raw);
  const int n = size < 4 ? size : 4;
  const int at = (std::endian::native == std::endian::big) ? 4 - n : 0;
  memcpy(buf, raw + at, static_cast<size_t>(n));
}

// Beyond the base design: the seven paired areas' repair locks, held by the
// start-up from before their HDD repair to the end of their data repair.  So
// one controller alone examines the seven and acts on all their verdicts (two
// controllers that each saw some of them would each repair the set from half
// the verdicts), and nobody else examines them while the data repair writes.
// Each area's own repair takes its lock again inside (sbacc_ma_lock.cc counts
// it).  Every controller takes them in the order of the area list, so no two
// wait for each other.  Slots past the last lock taken are nullptr.
SBACC_FILE_DISCRIPTER* g_paired[kTableRows];

void ReleasePaired() {
  for (SBACC_FILE_DISCRIPTER*& sfd : g_paired) {
    if (sfd == nullptr) continue;
    (void)sbacc_ma_leave_repairlock(sfd);
    sbacc_ma_free_sfd(sfd);
    sfd = nullptr;
  }
}

SBACC_FILE_DISCRIPTER* Paired(const char* name) {
  for (SBACC_FILE_DISCRIPTER* sfd : g_paired) {
    if (sfd != nullptr && strncmp(sfd->sfe.filename, name, sizeof sfd->sfe.filename) == 0) return sfd;
  }
  return nullptr;
}

int TakePaired(const data_repair_t* table) {
  int n = 0;
  for (int i = 0; i < p_sbacc_file_list->filenum && n < kTableRows; ++i) {
    const char* name = p_sbacc_file_list->file[i].filename;
    bool paired = false;
    for (int k = 0; k < kTableRows; ++k) paired |= strncmp(table[k].filename, name, SBACC_FILENAME_LEN) == 0;
    if (!paired || Paired(name) != nullptr) continue;
    SBACC_FILE_DISCRIPTER* sfd = nullptr;
    int rc = sbacc_ma_alloc_sfd(name, SBACC_OPENMODE_INSPECT, &sfd);
    if (rc == 0) {
      rc = sbacc_ma_enter_repairlock(sfd);
      if (rc != 0) sbacc_ma_free_sfd(sfd);
    }
    if (rc != 0) {
      SBACC_TRACE(kTraceError, "[sbacc_hdd_restore] paired area %s: repair lock error. retcode=%d", name, rc);
      ReleasePaired();
      return rc;
    }
    g_paired[n++] = sfd;
  }
  return 0;
}

// Before each durable step of the data repair (the open, the write and the
// close of an area it writes): 0 while the area's lock is held (or the area
// is none of the seven).
int PairedCheck(const char* name) {
  SBACC_FILE_DISCRIPTER* sfd = Paired(name);
  return sfd != nullptr ? sbacc_ma_repairlock_check(sfd) : 0;
}

int Rw(int mode, const char* name, void** buf, int* size) {
  return sbacc_hdd_rw(mode, const_cast<char*>(name), buf, size);
}

void FreeBuf(void** buf) {
  if (*buf != nullptr) SBACC_FREE(*buf);
  *buf = nullptr;
}

int WriteFailed(const char* name, int size, int rc) {
  SBACC_TRACE(kTraceError, "[sbacc_hdd_restore] sbacc_hdd_rw(write) failed. filename(%s) size=%d retcode=%d", name, size,
              rc);
  return rc;
}

// The data repair could not be done safely: empty envfw_verback so the set is
// no longer taken as consistent.
int VerbackClear() {
  int size = 0;
  void* unused = nullptr;
  SBACC_TRACE(kTraceMilestone, "[sbacc_hdd_restore] data repair data failed. env_verback data clear.");
  SBACC_TRACE(kTraceState, "[sbacc_hdd_restore] sbacc_hdd_rw(write_size) [%s] size=%d ", "envfw_verback", size);
  const int rc = Rw(SBACC_RW_SIZE, "envfw_verback", &unused, &size);
  if (rc != 0) return WriteFailed("envfw_verback", 0, rc);
  return 0;
}

// Reads a whole area for the data repair.  False: the read failed or the
// area is empty (traced; the caller clears envfw_verback).
bool ReadForRepair(const char* name, void** buf, int* size) {
  *buf = nullptr;
  *size = 0;
  const int rc = Rw(SBACC_RW_READ, name, buf, size);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_hdd_restore] sbacc_hdd_rw(read) failed. filename(%s) retcode=%d", name, rc);
    FreeBuf(buf);
    return false;
  }
  if (*size <= 0) {
    SBACC_TRACE(kTraceError, "[sbacc_hdd_restore] %s is size 0. data repair dose not exist.", name);
    FreeBuf(buf);
    return false;
  }
  return true;
}

int DataRepairExec(int repair_flag, int type, int64_t close0, int64_t close1) {
  SBACC_TRACE(kTraceMilestone, "[sbacc_hdd_restore] file data repair exec. repair_flag(0x%x) data_repair_type=%d",
              repair_flag, type);

  // Backup pair.  A flagged backup0 is never a source; otherwise the later
  // close wins and a tie keeps backup0.
  const char* source = "envfw_backup1";
  const char* target = "envfw_backup0";
  if ((repair_flag & kBitBackup0) == 0 && !(close1 > close0)) {
    source = "envfw_backup0";
    target = "envfw_backup1";
    SBACC_TRACE(kTraceMilestone, "[sbacc_hdd_restore] data repair(envfw_backup0->envfw_backup1)");
  }
  void* buf = nullptr;
  int size = 0;
  SBACC_TRACE(kTraceState, "[sbacc_hdd_restore] sbacc_hdd_rw(read) [%s]", source);
  if (!ReadForRepair(source, &buf, &size)) return VerbackClear();
  SBACC_TRACE(kTraceState, "[sbacc_hdd_restore] sbacc_hdd_rw(write) [%s] size=%d", target, size);
  int rc = Rw(SBACC_RW_WRITE, target, &buf, &size);
  FreeBuf(&buf);
  if (rc != 0) return WriteFailed(target, size, rc);

  // Markers: whichever way the copy went, backup0 is the system backup and
  // backup1 the accepted one again.
  SBACC_TRACE(kTraceMilestone, "[sbacc_hdd_restore] data repair(sysback=envfw_backup0 sysacpt=envfw_backup1)");
  static const struct {
    const char* area;
    const char* text;
  } kMarkers[] = {{"envfw_sysback", "envfw_backup0"}, {"envfw_sysacpt", "envfw_backup1"}};
  for (const auto& m : kMarkers) {
    char text[32];
    strcpy(text, m.text);
    size = static_cast<int>(strlen(text));  // no NUL on the medium
    void* p = text;
    SBACC_TRACE(kTraceState, "[sbacc_hdd_restore] sbacc_hdd_rw(write) [%s] size=%d data=[%s]", m.area, size, text);
    rc = Rw(SBACC_RW_WRITE, m.area, &p, &size);
    if (rc != 0) return WriteFailed(m.area, size, rc);
  }

  if (type == 1) {
    // Only backups or the version id were flagged: the id moves one past
    // the backup version.
    SBACC_TRACE(kTraceState, "[sbacc_hdd_restore] sbacc_hdd_rw(read) [%s]", "envfw_verback");
    if (!ReadForRepair("envfw_verback", &buf, &size)) return VerbackClear();
    uint8_t* bytes = static_cast<uint8_t*>(buf);
    int ver = GetVersion(bytes, size);
    SBACC_TRACE(kTraceState, "[sbacc_hdd_restore] sbacc_hdd_rw(read) [%s] size=%d ver=[%d]", "envfw_verback", size, ver);
    ver = static_cast<int>(static_cast<uint32_t>(ver) + 1u);  // wraps, never overflows
    PutVersion(bytes, size, ver);
    SBACC_TRACE(kTraceMilestone, "[sbacc_hdd_restore] data repair(envfw_verid=%d)", ver);
    SBACC_TRACE(kTraceState, "[sbacc_hdd_restore] sbacc_hdd_rw(write) [%s] size=%d ver=[%d]", "envfw_verid", size, ver);
    rc = Rw(SBACC_RW_WRITE, "envfw_verid", &buf, &size);
    FreeBuf(&buf);
    if (rc != 0) return WriteFailed("envfw_verid", size, rc);
    return 0;
  }

  // A marker or a backup/reboot version was flagged: both take the id's
  // bytes unchanged.
  SBACC_TRACE(kTraceState, "[sbacc_hdd_restore] sbacc_hdd_rw(read) [%s] size=%d", "envfw_verid", size);
  if (!ReadForRepair("envfw_verid", &buf, &size)) return VerbackClear();
  const int ver = GetVersion(static_cast<uint8_t*>(buf), size);
  SBACC_TRACE(kTraceMilestone, "[sbacc_hdd_restore] data repair(envfw_verback=%d  envfw_reboot=%d)", ver, ver);
  for (const char* area : {"envfw_verback", "envfw_reboot"}) {
    SBACC_TRACE(kTraceState, "[sbacc_hdd_restore] sbacc_hdd_rw(write) [%s] size=%d ver=[%d]", area, size, ver);
    rc = Rw(SBACC_RW_WRITE, area, &buf, &size);
    if (rc != 0) {
      FreeBuf(&buf);
      return WriteFailed(area, size, rc);
    }
  }
  FreeBuf(&buf);
  return 0;
}

// A held area (its HDD repair left it as it is: a copy that may hold its
// data could not be read) is not repairable now, like a failed one, and more:
// it is never read (it would read as empty or old) nor written (its data
// would be lost).  Every run of the repair reads or writes both backups, both
// markers, envfw_verid and envfw_verback, and envfw_reboot unless only type 1
// is due; so a held area among those refuses the repair as a failed pair of
// backups does, clearing envfw_verback unless that is the held one.  True
// when refused, with the refusal's result in *rc.
bool RefuseHeld(const data_repair_t* table, int held, int type, int* rc) {
  const int needed = type == 1 ? ~kBitReboot : ~0;
  if ((held & needed) == 0) return false;
  for (int k = 0; k < kTableRows; ++k) {
    if ((held & needed & table[k].file_bit) == 0) continue;
    SBACC_TRACE(kTraceError, "[sbacc_hdd_restore] %s is left as it is. data repair dose not exist.", table[k].filename);
  }
  *rc = (held & kBitVerback) != 0 ? 0 : VerbackClear();
  return true;
}

int DataRepair(const data_repair_t* table, const SBACC_DATA_REPAIR* recs, int filenum) {
  int repair_flag = 0;
  int held = 0;
  int type = 0;
  int64_t close0 = 0;
  int64_t close1 = 0;
  if (filenum >= 1) {
    for (int i = 0; i < filenum; ++i) {
      const SBACC_DATA_REPAIR& r = recs[i];
      const data_repair_t* row = nullptr;
      for (int k = 0; k < kTableRows && row == nullptr; ++k) {
        if (strncmp(table[k].filename, r.filename, sizeof r.filename) == 0) row = &table[k];
      }
      if (row == nullptr) continue;
      SBACC_TRACE(kTraceState, "[sbacc_hdd_restore] [%s] data repair check. ", row->filename);
      char when[32];
      if (row->file_bit == kBitBackup0) {
        sbacc::TimeText(r.closetime, when);
        SBACC_TRACE(kTraceState, "[sbacc_hdd_restore] [envfw_backup0] data_repair[%d] close_tiem(%s) ", r.data_repair,
                    when);
        close0 = r.closetime;
      } else if (row->file_bit == kBitBackup1) {
        sbacc::TimeText(r.closetime, when);
        SBACC_TRACE(kTraceState, "[sbacc_hdd_restore] [envfw_backup1] data_repair[%d] close_tiem(%s) ", r.data_repair,
                    when);
        close1 = r.closetime;
      }
      if (r.data_repair == SBACC_DATA_REPAIR_HELD) held |= row->file_bit;
      if (r.data_repair == 1) {
        repair_flag |= row->file_bit;
        type |= row->data_repair_type;
        SBACC_TRACE(kTraceMilestone, "[sbacc_hdd_restore] [%s] data repair need. flag[0x%x] type[%d]", row->filename,
                    repair_flag, type);
      }
    }
  }
  if (type == 0) {
    SBACC_TRACE(kTraceMilestone, "[sbacc_hdd_restore] file data repair no exec.");
    return 0;
  }
  SBACC_TRACE(kTraceMilestone, "[sbacc_hdd_restore] data repair of the paired areas (flag 0x%x): repaired by controller %d",
              repair_flag, sbacc_cntno);
  int rc = 0;
  if (RefuseHeld(table, held, type, &rc)) return rc;
  if ((repair_flag & kBitBackup0) != 0 && (repair_flag & kBitBackup1) != 0) {
    SBACC_TRACE(kTraceError,
                "[sbacc_hdd_restore] envfw_backup0 and envfw_backup1 is failed. data repair dose not exist.");
    return VerbackClear();
  }
  if ((type & 1) != 0 && (repair_flag & kBitVerback) != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_hdd_restore] envfw_verback is failed. data repair dose not exist.");
    return VerbackClear();
  }
  if ((type & 2) != 0 && (repair_flag & kBitVerid) != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_hdd_restore] envfw_verid is failed. data repair dose not exist.");
    return VerbackClear();
  }
  return DataRepairExec(repair_flag, type, close0, close1);
}

int Restore(const data_repair_t* table) {
  int rc = 0;
  if (p_sbacc_file_list == nullptr) {
    rc = sbacc_l_get_filelist(&p_sbacc_file_list);
    if (rc != 0) {
      SBACC_TRACE(kTraceError, "[sbacc_hdd_restore] sbacc_l_get_filelist error. ret=%d errno=%d", rc, errno);
      return rc;
    }
  }
  // The list is fixed for the whole call (one restore per process at a time).
  const int filenum = p_sbacc_file_list->filenum;
  // At least one record, so that an empty list is not taken for a failed
  // allocation.
  const int records = filenum > 0 ? filenum : 1;
  p_sbacc_data_repair = static_cast<SBACC_DATA_REPAIR*>(SBACC_CALLOC(records, sizeof(SBACC_DATA_REPAIR)));
  if (p_sbacc_data_repair == nullptr) {
    SBACC_TRACE(kTraceError, "[sbacc_hdd_restore] SBACC_CALLOC error. errno=%d", errno);
    return SBACC_E_NOSPACE;
  }
  // Every area's result and the index its task reads.
  int* results = static_cast<int*>(SBACC_CALLOC(2 * static_cast<size_t>(records), sizeof(int)));
  if (results == nullptr) {
    SBACC_TRACE(kTraceError, "[sbacc_hdd_restore] SBACC_CALLOC error. errno=%d", errno);
    SBACC_FREE(p_sbacc_data_repair);
    p_sbacc_data_repair = nullptr;
    return SBACC_E_NOSPACE;
  }
  rc = TakePaired(table);
  if (rc == 0) {
    RepairAll(filenum, results + records, results);
    if (Judge(results, filenum, &rc)) rc = DataRepair(table, p_sbacc_data_repair, filenum);
  }
  ReleasePaired();

  SBACC_FREE(results);
  SBACC_FREE(p_sbacc_data_repair);
  p_sbacc_data_repair = nullptr;
  return rc;
}

}  // namespace

int sbacc_hdd_restore(int cntno) {
  data_repair_t table[kTableRows];
  memcpy(table, kDataRepairTable, sizeof table);
  SBACC_TRACE(kTraceState, "[sbacc_hdd_restore] [ENTER] %s", "sbacc_hdd_restore");
  SBACC_TRACE(kTraceMilestone, "[sbacc_hdd_restore] ===== HDD/Data repair start =====");
  sbacc_cntno = cntno;

  const int rc = Restore(table);

  if (rc != 0) SBACC_TRACE_PARAM_NOARGS("sbacc_hdd_restore", rc);
  SBACC_TRACE(kTraceState, "[sbacc_hdd_restore] [LEAVE] %d", rc);
  SBACC_TRACE(kTraceMilestone, "[sbacc_hdd_restore] ===== HDD/Data repair end[%d] =====", rc);
  return rc;
}

// ---- Whole-area transfer through the public calls ------------------------------------

int sbacc_hdd_rw(int mode, char* filename, void** buf, int* size) {
  SBACC_TRACE(kTraceFlow, "[sbacc_hdd_rw] [ENTER] %s", "sbacc_hdd_rw");
  void* fp = nullptr;
  boolean_t closeflag = B_TRUE;
  int rc = 0;

  switch (mode) {
    case SBACC_RW_READ: {
      rc = sbacc_open(filename, "r", &fp, &closeflag);
      if (rc != 0) {
        SBACC_TRACE(kTraceError, "[sbacc_hdd_rw] sbacc_open error. fine[%s] retcode=%d", filename, rc);
        fp = nullptr;
        break;
      }
      // A size beyond the area's capacity comes from a header no read would
      // trust: refused before a buffer of that size (up to 2 GiB) is made.
      const int n = sbacc_read_size(fp);
      const auto* sfd = static_cast<const SBACC_FILE_DISCRIPTER*>(fp);
      if (n < 0 || n > sbacc_ma_data_capacity(sfd)) {
        SBACC_TRACE(kTraceError, "[sbacc_hdd_rw] File Size error. file[%s]", filename);
        rc = SBACC_E_HDDREAD;
        break;
      }
      *size = n;
      // One byte at least, so an empty area still hands back a buffer.
      void* data = SBACC_CALLOC(n > 0 ? n : 1, 1);
      if (data == nullptr) {
        SBACC_TRACE(kTraceError, "[sbacc_hdd_rw] SBACC_CALLOC error. file[%s] size=%d errno=%d", filename, n, errno);
        rc = SBACC_E_NOSPACE;
        break;
      }
      *buf = data;
      // A read of 0 bytes is a parameter error in the public call; an empty
      // area needs no read at all.
      const int got = (n > 0) ? sbacc_read(data, n, 0, fp) : 0;
      if (got != n) {
        SBACC_FREE(data);
        *buf = nullptr;
        SBACC_TRACE(kTraceError, "[sbacc_hdd_rw] sbacc_read error. file[%s] size=%d retcode=%d", filename, n, got);
        rc = SBACC_E_HDDREAD;
      }
      break;
    }
    case SBACC_RW_WRITE: {
      if ((rc = PairedCheck(filename)) != 0) break;
      rc = sbacc_open(filename, "w", &fp, &closeflag);
      if (rc != 0) {
        SBACC_TRACE(kTraceError, "[sbacc_hdd_rw] sbacc_open error. file[%s] retcode=%d", filename, rc);
        fp = nullptr;
        break;
      }
      if ((rc = PairedCheck(filename)) != 0) break;
      // Writes from offset 0 and never shortens the area.
      const int put = sbacc_write(*buf, *size, 0, fp);
      if (put != *size) {
        SBACC_TRACE(kTraceError, "[sbacc_hdd_rw] sbacc_write error. file[%s] size=%d retcode=%d", filename, *size, put);
        rc = SBACC_E_HDDWRITE;
      }
      break;
    }
    case SBACC_RW_SIZE: {
      if ((rc = PairedCheck(filename)) != 0) break;
      rc = sbacc_open(filename, "w", &fp, &closeflag);
      if (rc != 0) {
        SBACC_TRACE(kTraceError, "[sbacc_hdd_rw] sbacc_open error. file[%s] retcode=%d", filename, rc);
        fp = nullptr;
        break;
      }
      if ((rc = PairedCheck(filename)) != 0) break;
      const int set = sbacc_write_size(*size, fp);
      if (set != *size) {
        SBACC_TRACE(kTraceError, "[sbacc_hdd_rw] sbacc_write_size error. file[%s] size=%d retcode=%d", filename, *size,
                    set);
        rc = SBACC_E_HDDWRITE;
      }
      break;
    }
    default:
      SBACC_TRACE(kTraceError, "[sbacc_hdd_rw] parameter error. mode(%d)", mode);
      rc = SBACC_E_PARAM;
      break;
  }

  // With the lock lost the area is left as a writer that stopped leaves it:
  // open, for whoever repairs it next.
  const int lost = (fp != nullptr && mode != SBACC_RW_READ && rc == 0) ? PairedCheck(filename) : rc;
  if (fp != nullptr && lost == SBACC_E_REPAIR) {
    auto* sfd = static_cast<SBACC_FILE_DISCRIPTER*>(fp);
    for (int i = 0; i < SBACC_HDD_MAX; ++i) sbacc_ma_close_hdd(sfd, i);
    sbacc_ma_free_sfd(sfd);
    rc = lost;
  } else if (fp != nullptr) {
    const int crc = sbacc_close(fp);
    if (crc != 0) SBACC_TRACE(kTraceError, "[sbacc_hdd_rw] sbacc_close error. file[%s] retcode=%d", filename, crc);
  }
  if (rc != 0) SBACC_TRACE_PARAM_NOARGS("sbacc_hdd_rw", rc);
  SBACC_TRACE(kTraceFlow, "[sbacc_hdd_rw] [LEAVE] %d", rc);
  return rc;
}

int sbacc_accept_loss(const char* area, int cntno) {
  if (area == nullptr || area[0] == '\0' || strlen(area) >= sizeof g_accept_loss) return SBACC_E_PARAM;
  SBACC_FILE_LIST_ENTRY entry;
  int rc = sbacc_l_get_filelist_entry(area, &entry);
  if (rc != 0) return SBACC_E_PARAM;
  SBACC_TRACE(kTraceMilestone, "[sbacc_accept_loss] %s: the unreadable copies are written off by request", area);
  strcpy(g_accept_loss, area);
  rc = sbacc_hdd_restore(cntno);
  g_accept_loss[0] = '\0';
  return rc;
}

const char* sbacc_known_area(int i) { return i >= 0 && i < kTableRows ? kDataRepairTable[i].filename : nullptr; }
