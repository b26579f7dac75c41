// Start-up repair of one area: open every copy, choose the latest, fence off
// what cannot be used, rebuild stale copies and leave a verdict for the data
// repair.
#define SBACC_MODULE SBACC_MODULE_MA
#include "sbacc_trace.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <time.h>

#include "sbacc_alloc.h"
#include "sbacc_core.h"
#include "sbacc_env.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"
#include "sbacc_worker.h"

using sbacc::kTraceError;
using sbacc::kTraceFlow;
using sbacc::kTraceMilestone;
using sbacc::kTraceState;

namespace {

constexpr int kOpenFlags = O_RDWR;  // restore always works read-write

void OpenCopies(SBACC_FILE_DISCRIPTER* sfd) {
  uint32_t wanted = 0;
  for (int i = 0; i < sfd->sfe.hddcount; ++i) {
    sfd->fd[i] = -1;
    if (sfd->sfe.hddname[i][0] != '\0') wanted |= 1u << i;
  }
  sbacc_ma_open_copies(sfd, wanted, kOpenFlags, "repair_for_restore");
}

// One stale copy's transfer from the source; see sbacc_ma_hddrepair_begin.
struct RebuildTask {
  SBACC_FILE_DISCRIPTER* sfd;
  int src;
  int dst;
};

int RebuildCopy(void* arg) {
  const auto* t = static_cast<const RebuildTask*>(arg);
  SBACC_TRACE(kTraceMilestone, "[repair_for_restore_c_thread] repair HDD[%d] to HDD[%d] %s", t->src, t->dst,
              t->sfd->sfe.filename);
  return sbacc_ma_hddrepair_transfer(t->sfd, t->src, t->dst);
}

// Rebuilds the copies of `repair` from src: each is marked and checked in
// turn, their transfers run at once, and each is unfenced (or closed, when
// its rebuild failed) in turn once all transfers have ended.  A transfer
// writes only its own destination; the source's descriptor is only read
// (positioned reads, which do not disturb one another), and nothing opens,
// closes or fences a copy until every transfer has reported.
void RebuildCopies(SBACC_FILE_DISCRIPTER* sfd, int src, uint32_t repair) {
  const char* name = sfd->sfe.filename;
  RebuildTask tasks[SBACC_HDD_MAX];
  int results[SBACC_HDD_MAX];
  uint32_t started = 0;
  {
    sbacc::TaskGroup group("repair_for_restore", sbacc::WorkerLog::kRestore2);
    for (int i = 0; i < sfd->sfe.hddcount; ++i) {
      if (i == src || (repair & (1u << i)) == 0) continue;
      SBACC_TRACE(kTraceState, "[repair_for_restore] repair[%s] src_hdd(%d) to dst_hdd(%d)", name, src, i);
      results[i] = sbacc_ma_hddrepair_begin(sfd, src, i);
      if (results[i] != 0) continue;
      started |= 1u << i;
      tasks[i] = RebuildTask{sfd, src, i};
      group.Run(RebuildCopy, &tasks[i], &results[i]);
    }
  }
  for (int i = 0; i < sfd->sfe.hddcount; ++i) {
    if (i == src || (repair & (1u << i)) == 0) continue;
    if ((started >> i) & 1u) results[i] = sbacc_ma_hddrepair_end(sfd, src, i, results[i]);
    if (results[i] == 0) continue;
    SBACC_TRACE(kTraceError, "[repair_for_restore] repair(%d->%d) error. errno=%d filename=%s", src, i, errno, name);
    sbacc_ma_close_hdd(sfd, i);
  }
}

// Records the final mask in NV and in the headers; failures only traced.
void RecordBlockade(SBACC_FILE_DISCRIPTER* sfd, uint32_t blockade) {
  SBACC_TRACE(kTraceState, "[repair_for_restore] hddblockade set (HDD&mem) %s [0x%x]", sfd->sfe.filename, blockade);
  int rc = sbacc_memset_hddblockade(sfd, blockade);
  if (rc != 0) SBACC_TRACE(kTraceError, "[repair_for_restore] sbacc_memset_hddblockade error. retcode=%d", rc);
  rc = sbacc_ma_hddset_hddblockade(sfd, blockade);
  if (rc != 0) SBACC_TRACE(kTraceError, "[repair_for_restore] sbacc_ma_hddset_hddblockade error. retcode=%d", rc);
}

uint32_t NotOpen(const SBACC_FILE_DISCRIPTER* sfd) {
  uint32_t mask = 0;
  for (int i = 0; i < sfd->sfe.hddcount; ++i) {
    if (sfd->fd[i] == -1) mask |= 1u << i;
  }
  return mask;
}

// What the scan of an area's copies found.
struct Scan {
  SBACC_HDD_HEADER hdr[SBACC_HDD_MAX];
  uint32_t blockade = 0;  // not open or header unreadable
  uint32_t repair = 0;    // stale: to be rebuilt from src
  uint32_t noinit = 0;    // no valid header
  int src = -1;           // the copy holding the latest data
  int hold = SBACC_HOLD_NONE;
  uint32_t bad = 0;       // data fails the copy's integrity record
};

// Copies whose data fails their integrity record never serve as a source.
// A copy whose data cannot be read now is counted as unreadable.
void ProveCopies(SBACC_FILE_DISCRIPTER* sfd, Scan* sc) {
  if (!sbacc_ma_checksums(sfd)) return;
  for (int i = 0; i < sfd->sfe.hddcount; ++i) {
    if (sfd->fd[i] == -1 || !sbacc_l_header_valid(&sc->hdr[i])) continue;
    const int v = sbacc_ma_verify_copy(sfd, i, &sc->hdr[i]);
    if (v == SBACC_VERIFY_BAD) {
      sc->bad |= 1u << i;
      SBACC_TRACE(kTraceMilestone, "[repair_for_restore] HDD[%d] fails its integrity record (range 0-%d). %s", i,
                  sc->hdr[i].filesize, sfd->sfe.filename);
    } else if (v < 0) {
      SBACC_TRACE(kTraceError, "[repair_for_restore] sbacc_l_hddget_data[%d] error. retcode=%d filename=%s", i, v,
                  sfd->sfe.filename);
      sbacc_ma_close_hdd(sfd, i);
      sc->blockade |= 1u << i;
    }
  }
}

// What NV knew of the area before this start-up wrote anything.
int ReadEvidence(SBACC_FILE_DISCRIPTER* sfd, SBACC_COPY_EVIDENCE* ev) {
  SBACC_MEM_LIST_ENTRY e;
  *ev = SBACC_COPY_EVIDENCE{0, 0, 0, 0};
  const int rc = sbacc_memget_entry(sfd, &e);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[repair_for_restore] sbacc_memget_entry error. retcode=%d filename=%s", rc,
                sfd->sfe.filename);
    return rc;
  }
  ev->existed = sbacc_l_entry_valid(&e) ? 1 : 0;
  ev->nvfenced = ev->existed != 0 ? e.hddblockade : 0;
  return 0;
}

// The evidence cannot justify a choice: nothing is written, so the copies
// and the NV record keep what they hold until the unseen copy is back.
void Leave(const SBACC_FILE_DISCRIPTER* sfd, const Scan& sc, SBACC_DATA_REPAIR* rec) {
  const char* name = sfd->sfe.filename;
  if (sc.hold == SBACC_HOLD_UNVERIFIED) {
    SBACC_TRACE(kTraceMilestone,
                "[repair_for_restore] %s left as it is: the latest copy fails its integrity record and no copy that "
                "proves its data holds the same (bad HDD bit [0x%x])",
                name, sc.bad);
  } else if (sc.hold == SBACC_HOLD_NEWER_STALE) {
    SBACC_TRACE(kTraceMilestone,
                "[repair_for_restore] %s left as it is: a copy to be rebuilt from HDD[%d] counts more writes than it "
                "(repair[0x%x])",
                name, sc.src, sc.repair);
  } else if (sc.hold == SBACC_HOLD_UNSEEN) {
    SBACC_TRACE(kTraceMilestone,
                "[repair_for_restore] %s left as it is: no readable copy holds a valid header while HDD bit [0x%x] "
                "cannot be read",
                name, sc.blockade);
  } else {
    SBACC_TRACE(kTraceMilestone,
                "[repair_for_restore] %s left as it is: HDD[%d] is fenced off in NV and the only candidate while HDD "
                "bit [0x%x] cannot be read",
                name, sc.src, sc.blockade);
  }
  rec->data_repair = SBACC_DATA_REPAIR_HELD;
}

// Reads every open copy's header and chooses the latest copy; ev->unseen
// becomes the copies it could not read, or none when their loss is accepted.
void ScanCopies(SBACC_FILE_DISCRIPTER* sfd, SBACC_COPY_EVIDENCE* ev, bool accept_loss, Scan* sc) {
  const char* name = sfd->sfe.filename;
  memset(sc->hdr, 0, sizeof sc->hdr);
  for (int i = 0; i < sfd->sfe.hddcount; ++i) {
    const uint32_t bit = 1u << i;
    if (sfd->fd[i] == -1) {
      sc->blockade |= bit;
      SBACC_TRACE(kTraceMilestone, "[repair_for_restore] hddblockade(not open) HDD. HDD[%d] filename=%s blockade[0x%x]",
                  i, name, sc->blockade);
      continue;
    }
    const int rc = sbacc_l_hddget_header(sfd, i, &sc->hdr[i]);
    if (rc != 0) {
      SBACC_TRACE(kTraceError, "[repair_for_restore] sbacc_l_hddget_header[%d] error. retcode=%d filename=%s", i, rc,
                  name);
      sbacc_ma_close_hdd(sfd, i);
      sc->blockade |= bit;
      SBACC_TRACE(kTraceMilestone, "[repair_for_restore] hddblockade(read failed) HDD[%d].%s blockade[0x%x]", i, name,
                  sc->blockade);
      continue;
    }
    if (!sbacc_l_header_valid(&sc->hdr[i])) {
      sc->noinit |= bit;
      SBACC_TRACE(kTraceMilestone, "[repair_for_restore] no initialize HDD[%d].%s repair[0x%x] noinit[0x%x]", i, name,
                  sc->noinit, sc->noinit);
    }
  }
  ProveCopies(sfd, sc);
  SBACC_COPY_VERDICT v;
  const uint32_t all = SBACC_HDD_MAXBIT(sfd->sfe.hddcount);
  ev->unseen = accept_loss ? 0 : sc->blockade;
  ev->bad = sc->bad;
  if (accept_loss && sc->blockade != 0) {
    SBACC_TRACE(kTraceMilestone, "[repair_for_restore] %s: loss of HDD bit [0x%x] accepted by request", name,
                sc->blockade);
  }
  sbacc_ma_classify(sc->hdr, sfd->sfe.hddcount, all & ~sc->blockade, ev, SBACC_CLASSIFY_RESTORE, name, &v);
  sc->hold = v.hold;
  sc->src = v.src;
  sc->noinit = v.invalid;
  sc->repair = v.stale;
  SBACC_TRACE(kTraceFlow, "[repair_for_restore] filename=%s  src_hdd[%d] blockade[0x%x] repair[0x%x] noinit[0x%x]",
              name, sc->src, sc->blockade, sc->repair, sc->noinit);
}

// The final mask, and the area's result by it.
int Settle(const SBACC_FILE_DISCRIPTER* sfd, uint32_t blockade, uint32_t* blockade_out) {
  *blockade_out = blockade;
  if (blockade == SBACC_HDD_MAXBIT(sfd->sfe.hddcount)) {
    SBACC_TRACE(kTraceError, "[repair_for_restore] opencnt error. hddblockade0x%x", blockade);
    return SBACC_E_ALLBLOCKADE;
  }
  return 0;
}

// No valid header anywhere (new HDDs): every readable copy starts afresh and
// the data repair puts the contents right.
int InitAllNew(SBACC_FILE_DISCRIPTER* sfd, const Scan& sc, SBACC_DATA_REPAIR* rec, uint32_t* blockade_out) {
  const char* name = sfd->sfe.filename;
  uint32_t blockade = sc.blockade;
  SBACC_TRACE(kTraceMilestone, "[repair_for_restore] HDD HEADER is all initialize. HDD bit [0x%x] %s", sc.repair, name);
  for (int i = 0; i < sfd->sfe.hddcount; ++i) {
    if (sfd->fd[i] == -1) continue;
    SBACC_TRACE(kTraceFlow, "[repair_for_restore] sbacc_l_hddini_header HDD[%d] filename=%s", i, name);
    int rc = sbacc_ma_repairlock_check(sfd);
    if (rc != 0) return rc;
    rc = sbacc_l_hddini_header(sfd, i, 0);
    if (rc != 0) {
      SBACC_TRACE(kTraceError, "[repair_for_restore] sbacc_l_hddini_header error. retcode=%d HDD[%d] filename=%s", rc, i,
                  name);
      sbacc_ma_close_hdd(sfd, i);
      blockade |= 1u << i;
      SBACC_TRACE(kTraceError, "[repair_for_restore] hddblockade(not open) HDD. hdd=%d filename=%s", i, name);
    }
  }
  const int rc = Settle(sfd, blockade, blockade_out);
  if (rc != 0) return rc;
  SBACC_TRACE(kTraceMilestone, "[repair_for_restore] data repair is needed.(%s)", name);
  rec->data_repair = 1;
  return 0;
}

// Records the stale copies as fenced off before anything else is written,
// and marks them under repair so that the writes below still reach them and
// keep their files open.  Each one leaves the mask only when its rebuild has
// completed: a start-up cut short at any point never presents a stale copy
// as current to the next one.
int MarkStale(SBACC_FILE_DISCRIPTER* sfd, uint32_t blockade, uint32_t stale) {
  for (int i = 0; i < sfd->sfe.hddcount; ++i) {
    if (((stale >> i) & 1u) == 0) continue;
    const int rc = sbacc_ma_memset_hddrepair(sfd, i, B_TRUE);
    if (rc != 0) return rc;
  }
  const uint32_t recorded = blockade | stale;
  int rc = sbacc_ma_repairlock_check(sfd);
  if (rc == 0) rc = sbacc_memset_hddblockade(sfd, recorded);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[repair_for_restore] sbacc_memset_hddblockade error. retcode=%d", rc);
    return rc;
  }
  rc = sbacc_ma_repairlock_check(sfd);
  if (rc == 0) rc = sbacc_ma_hddset_hddblockade(sfd, recorded);
  if (rc != 0) SBACC_TRACE(kTraceError, "[repair_for_restore] sbacc_ma_hddset_hddblockade error. retcode=%d", rc);
  return rc;
}

// Counts the repair as one open and close of the area, so that a stop in the
// middle of it asks for a data repair at the next start.
int CountAsOpen(SBACC_FILE_DISCRIPTER* sfd, SBACC_HDD_HEADER* latest, int src, SBACC_DATA_REPAIR* rec) {
  const char* name = sfd->sfe.filename;
  if (latest->openflag == 1) {
    SBACC_TRACE(kTraceMilestone, "[repair_for_restore] filename(%s) is open_flag=ON HDD[%d]", name, src);
    rec->data_repair = 1;
  }
  rec->closetime = latest->closetime;
  latest->openflag = 1;
  latest->opentime = sbacc::CurrentEnv()->Now();
  // Wraps instead of overflowing on a corrupt count.
  latest->opencnt = static_cast<int32_t>(static_cast<uint32_t>(latest->opencnt) + 1u);
  char when[32];
  sbacc::TimeText(latest->opentime, when);
  SBACC_TRACE(kTraceFlow, "[repair_for_restore] set open info. openflag=ON opencnt=%d opentime(%s)", latest->opencnt,
              when);
  int rc = sbacc_ma_repairlock_check(sfd);
  if (rc == 0) rc = sbacc_ma_hddset_openinfo(sfd, latest);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[repair_for_restore] sbacc_ma_hddset_openinfo error. retcode=%d filename=%s", rc, name);
  }
  return rc;
}

// Everything between taking and releasing the repair lock, except recording
// the final mask.  Returns the area's result; *blockade_out is the mask to
// record, unless *leave says to write nothing more.
int RepairLocked(SBACC_FILE_DISCRIPTER* sfd, bool accept_loss, SBACC_DATA_REPAIR* rec, uint32_t* blockade_out,
                 bool* leave) {
  const char* name = sfd->sfe.filename;
  const int hddcount = sfd->sfe.hddcount;
  SBACC_COPY_EVIDENCE ev;
  int rc = ReadEvidence(sfd, &ev);
  *leave = rc != 0;
  if (rc != 0) return rc;
  Scan sc;
  ScanCopies(sfd, &ev, accept_loss, &sc);
  // An area none of whose copies could be read stays an area without a copy.
  if (sc.hold != SBACC_HOLD_NONE && sc.blockade != SBACC_HDD_MAXBIT(hddcount)) {
    *leave = true;
    Leave(sfd, sc, rec);
    return 0;
  }
  (void)sbacc_ma_clear_leftover_marks(sfd);
  if (sc.noinit != 0 && sc.noinit == sc.repair && sc.src < 0) return InitAllNew(sfd, sc, rec, blockade_out);
  rc = Settle(sfd, sc.blockade, blockade_out);
  if (rc != 0) return rc;

  // A stale copy is good only once rebuilt.  Every exit before the rebuild
  // records it as fenced off, together with any copy that a failed access
  // closed; recording the mask of the scan instead would let a later open
  // take the stale copy for a current one.
  const uint32_t stale = sc.repair & ~(1u << sc.src);
  rc = MarkStale(sfd, sc.blockade, stale);
  if (rc == 0) rc = CountAsOpen(sfd, &sc.hdr[sc.src], sc.src, rec);
  if (rc != 0) {
    for (int i = 0; i < hddcount; ++i) {
      if ((stale >> i) & 1u) (void)sbacc_ma_memset_hddrepair(sfd, i, B_FALSE);
    }
    *blockade_out = NotOpen(sfd) | stale;
    return rc;
  }

  if (sc.repair == 0) {
    SBACC_TRACE(kTraceState, "[repair_for_restore] hdd repair no exec. hddblockade=0x%x %s", sc.blockade, name);
  } else {
    SBACC_TRACE(kTraceFlow,
                "[repair_for_restore] hdd repair exec. src_hdd=%d repair=0x%x hddblockade hdd=0x%x filename=%s",
                sc.src, sc.repair, sc.blockade, name);
    SBACC_TRACE(kTraceMilestone, "[repair_for_restore] rebuild %s 0x%x from HDD[%d]: repaired by controller %d", name,
                stale, sc.src, sbacc_cntno);
    if (stale != 0) sbacc_progress_rebuilding(name, stale);
    RebuildCopies(sfd, sc.src, sc.repair);
    // A rebuild that never got going (source fenced off) leaves the mark set
    // above; none may outlive the repair.  Rebuilt copies are already clear.
    for (int i = 0; i < hddcount; ++i) {
      if ((stale >> i) & 1u) (void)sbacc_ma_memset_hddrepair(sfd, i, B_FALSE);
    }
  }
  // The usable copies may still differ where a write was cut between copies.
  (void)sbacc_ma_resync_copies(sfd);
  // Copies written before integrity records existed, now agreeing, get one.
  (void)sbacc_ma_adopt_copies(sfd);
  // A copy ends either open and current or closed and fenced off.
  const uint32_t blockade = NotOpen(sfd);
  for (int i = 0; i < hddcount && sc.repair != 0; ++i) {
    if ((blockade >> i) & 1u) {
      SBACC_TRACE(kTraceState, "[repair_for_restore] hddblockade(repair failed) HDD[%d]. %s blockade[0x%x]", i, name,
                  blockade);
    }
  }
  return Settle(sfd, blockade, blockade_out);
}

}  // namespace

int sbacc_ma_repair_for_restore(int index) { return sbacc_ma_repair_for_restore_ex(index, false); }

int sbacc_ma_repair_for_restore_ex(int index, bool accept_loss) {
  SBACC_TRACE(kTraceFlow, "[repair_for_restore] [ENTER]");
  // Both arrays have filenum entries; the restore may run more than 64
  // areas (in batches), so the real bound is the list, not the slot count.
  if (p_sbacc_data_repair == nullptr || p_sbacc_file_list == nullptr || index < 0 ||
      index >= p_sbacc_file_list->filenum) {
    SBACC_TRACE(kTraceError, "[repair_for_restore] parameter failed. p_sbacc_data_repair=%p index=%d",
                static_cast<void*>(p_sbacc_data_repair), index);
    return SBACC_E_PARAM;
  }
  SBACC_DATA_REPAIR* rec = &p_sbacc_data_repair[index];

  SBACC_FILE_DISCRIPTER* sfd = nullptr;
  int rc = sbacc_ma_alloc_sfd(p_sbacc_file_list->file[index].filename, SBACC_OPENMODE_WRITE, &sfd);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[repair_for_restore] sbacc_ma_alloc_sfd error. ret=%d errno=%d", rc, errno);
    SBACC_TRACE(kTraceFlow, "[repair_for_restore] [LEAVE] %d", rc);
    return rc;
  }
  strncpy(rec->filename, sfd->sfe.filename, sizeof rec->filename - 1);
  rec->filename[sizeof rec->filename - 1] = '\0';

  OpenCopies(sfd);

  rc = sbacc_ma_enter_repairlock(sfd);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[repair_for_restore] sbacc_ma_enter_repairlock error. retcode=%d filename=%s", rc,
                sfd->sfe.filename);
    // Not repaired, so not closed either: the close stamp would clear an
    // open flag that the next start-up needs to see to repair the data.
    for (int i = 0; i < SBACC_HDD_MAX; ++i) sbacc_ma_close_hdd(sfd, i);
  } else {
    uint32_t blockade = 0;
    bool leave = false;
    rc = RepairLocked(sfd, accept_loss, rec, &blockade, &leave);
    // Still held: the mask and the close stamp go down before the lock is
    // released, so the next holder finds the area closed.  Lost, or the
    // area to be left as it is: nothing more is written, as when the lock
    // could not be taken.
    const int held = leave ? 0 : sbacc_ma_repairlock_check(sfd);
    if (!leave && held == 0) {
      RecordBlockade(sfd, blockade);
      (void)sbacc_ma_close(sfd);
    } else {
      if (held != 0) rc = held;
      for (int i = 0; i < SBACC_HDD_MAX; ++i) sbacc_ma_close_hdd(sfd, i);
    }
    (void)sbacc_ma_leave_repairlock(sfd);
  }
  sbacc_ma_free_sfd(sfd);
  SBACC_TRACE(kTraceFlow, "[repair_for_restore] [LEAVE] %d", rc);
  return rc;
}
