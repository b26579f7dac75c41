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

void OpenInline(SBACC_FILE_DISCRIPTER* sfd, int i) {
  SBACC_TRACE(kTraceState, "[repair_for_restore] open[%d] sfn=(%s) openprm=%d", i, sfd->sfe.hddname[i], kOpenFlags);
  sfd->fd[i] = sbacc::CurrentEnv()->Open(sfd->sfe.hddname[i], kOpenFlags);
  if (sfd->fd[i] < 0) {
    SBACC_TRACE(kTraceError, "[repair_for_restore] open error. errno=%d sfn=%s filename=%s", errno,
                sfd->sfe.hddname[i], sfd->sfe.filename);
    sfd->fd[i] = -1;
  }
}

// A worker block for the per-copy phases, or nullptr: the phase then runs in
// the calling thread.
SBACC_HDDSET_THREAD_PARAM* NewBlock(SBACC_FILE_DISCRIPTER* sfd) {
  auto* blk = sbacc::WorkerBlockCreate<SBACC_HDDSET_THREAD_PARAM>("repair_for_restore");
  if (blk == nullptr) return nullptr;
  blk->sfd = sfd;
  blk->openprm = kOpenFlags;
  return blk;
}

void EndBlock(SBACC_HDDSET_THREAD_PARAM* blk) { sbacc::WorkerBlockRelease(blk); }

void OpenCopies(SBACC_FILE_DISCRIPTER* sfd) {
  SBACC_HDDSET_THREAD_PARAM* blk = NewBlock(sfd);
  for (int i = 0; i < sfd->sfe.hddcount; ++i) {
    sfd->fd[i] = -1;
    if (sfd->sfe.hddname[i][0] == '\0') continue;
    if (blk != nullptr) {
      blk->param[i].index = i;
      blk->param[i].addr = blk;
      if (sbacc::WorkerStart(blk, sbacc_ma_open_thread, &blk->param[i])) continue;
    }
    OpenInline(sfd, i);
  }
  EndBlock(blk);
}

void RebuildInline(SBACC_FILE_DISCRIPTER* sfd, int src, int dst) {
  SBACC_TRACE(kTraceState, "[repair_for_restore] repair[%s] src_hdd(%d) to dst_hdd(%d)", sfd->sfe.filename, src, dst);
  if (sbacc_ma_hddrepair_copy(sfd, src, dst) != 0) {
    const int err = errno;
    // Other rebuild workers may still run on this descriptor.
    sbacc_ma_repair_close_hdd(sfd, dst);
    SBACC_TRACE(kTraceError, "[repair_for_restore] repair(%d->%d) error. errno=%d filename=%s", src, dst, err,
                sfd->sfe.filename);
  }
}

void RebuildCopies(SBACC_FILE_DISCRIPTER* sfd, int src, uint32_t repair) {
  SBACC_HDDSET_THREAD_PARAM* blk = NewBlock(sfd);
  if (blk != nullptr) blk->src_hdd = src;
  for (int i = 0; i < sfd->sfe.hddcount; ++i) {
    if (i == src || (repair & (1u << i)) == 0) continue;
    if (blk != nullptr) {
      blk->param[i].index = i;
      blk->param[i].addr = blk;
      if (sbacc::WorkerStart(blk, sbacc_ma_repair_for_restore_c_thread, &blk->param[i])) continue;
    }
    RebuildInline(sfd, src, i);
  }
  EndBlock(blk);
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

// Copy i has a valid header: decide between it and the current source.
void Compare(const SBACC_HDD_HEADER* hdr, int i, int* src, uint32_t* repair, const char* name) {
  const SBACC_HDD_HEADER& s = hdr[*src];
  const SBACC_HDD_HEADER& h = hdr[i];
  // A copy whose own header records it as fenced off is one that a start-up
  // cut short had marked stale and not yet rebuilt (only a copy under rebuild
  // receives a mask with its own bit): it never outranks one that does not.
  const bool s_stale = ((s.hddblockade >> *src) & 1u) != 0;
  const bool h_stale = ((h.hddblockade >> i) & 1u) != 0;
  if (s_stale != h_stale) {
    if (s_stale) {
      *repair |= 1u << *src;
      SBACC_TRACE(kTraceMilestone, "[repair_for_restore] update candidate HDD[%d](latest->[%d]). %s repair[0x%x]", *src,
                  i, name, *repair);
      *src = i;
    } else {
      *repair |= 1u << i;
      SBACC_TRACE(kTraceMilestone, "[repair_for_restore] update candidate HDD[%d]. %s repair[0x%x]", i, name, *repair);
    }
    return;
  }
  if (s.hddblockade == h.hddblockade) {
    // Same history: only the later close matters, and nothing is stale.
    if (h.closetime > s.closetime) {
      SBACC_TRACE(kTraceState, "[repair_for_restore]   -> latest HDD[%d]->[%d]  %s", *src, i, name);
      *src = i;
    }
    return;
  }
  // More fenced-off bits: that copy went on being written after the other
  // one had been fenced off, so it holds the newer data.
  const int sbits = sbacc_l_bitcount(static_cast<int>(s.hddblockade));
  const int hbits = sbacc_l_bitcount(static_cast<int>(h.hddblockade));
  if (hbits > sbits || (hbits == sbits && h.closetime > s.closetime)) {
    *repair |= 1u << *src;
    SBACC_TRACE(kTraceMilestone, "[repair_for_restore] update candidate HDD[%d](latest->[%d]). %s repair[0x%x]", *src, i,
                name, *repair);
    *src = i;
  } else {
    *repair |= 1u << i;
    SBACC_TRACE(kTraceMilestone, "[repair_for_restore] update candidate HDD[%d]. %s repair[0x%x]", i, name, *repair);
  }
}

// Everything between taking and releasing the repair lock, except recording
// the final mask.  Returns the area's result; *blockade_out is the mask to
// record.
int RepairLocked(SBACC_FILE_DISCRIPTER* sfd, SBACC_DATA_REPAIR* rec, uint32_t* blockade_out) {
  const char* name = sfd->sfe.filename;
  const int hddcount = sfd->sfe.hddcount;
  const uint32_t all = SBACC_HDD_MAXBIT(hddcount);
  SBACC_HDD_HEADER hdr[SBACC_HDD_MAX];
  memset(hdr, 0, sizeof hdr);
  uint32_t blockade = 0, repair = 0, noinit = 0;
  int src = -1;
  int rc = 0;

  for (int i = 0; i < hddcount; ++i) {
    const uint32_t bit = 1u << i;
    if (sfd->fd[i] == -1) {
      blockade |= bit;
      SBACC_TRACE(kTraceMilestone, "[repair_for_restore] hddblockade(not open) HDD. HDD[%d] filename=%s blockade[0x%x]",
                  i, name, blockade);
      continue;
    }
    rc = sbacc_l_hddget_header(sfd, i, &hdr[i]);
    if (rc != 0) {
      SBACC_TRACE(kTraceError, "[repair_for_restore] sbacc_l_hddget_header[%d] error. retcode=%d filename=%s", i, rc,
                  name);
      sbacc_ma_close_hdd(sfd, i);
      blockade |= bit;
      SBACC_TRACE(kTraceMilestone, "[repair_for_restore] hddblockade(read failed) HDD[%d].%s blockade[0x%x]", i, name,
                  blockade);
      continue;
    }
    if (!sbacc_l_header_valid(&hdr[i])) {
      repair |= bit;
      noinit |= bit;
      SBACC_TRACE(kTraceMilestone, "[repair_for_restore] no initialize HDD[%d].%s repair[0x%x] noinit[0x%x]", i, name,
                  repair, noinit);
      continue;
    }
    if (src < 0) {
      src = i;
      SBACC_TRACE(kTraceState, "[repair_for_restore]   -> latest HDD :HDD[%d] filename=%s", i, name);
    }
    Compare(hdr, i, &src, &repair, name);
  }
  SBACC_TRACE(kTraceFlow, "[repair_for_restore] filename=%s  src_hdd[%d] blockade[0x%x] repair[0x%x] noinit[0x%x]",
              name, src, blockade, repair, noinit);

  // No valid header anywhere (new HDDs): start every readable copy afresh and
  // let the data repair put the contents right.
  if (noinit != 0 && noinit == repair && src < 0) {
    SBACC_TRACE(kTraceMilestone, "[repair_for_restore] HDD HEADER is all initialize. HDD bit [0x%x] %s", repair, name);
    for (int i = 0; i < hddcount; ++i) {
      if (sfd->fd[i] == -1) continue;
      SBACC_TRACE(kTraceFlow, "[repair_for_restore] sbacc_l_hddini_header HDD[%d] filename=%s", i, name);
      rc = sbacc_ma_repairlock_check(sfd);
      if (rc != 0) return rc;
      rc = sbacc_l_hddini_header(sfd, i, 0);
      if (rc != 0) {
        SBACC_TRACE(kTraceError, "[repair_for_restore] sbacc_l_hddini_header error. retcode=%d HDD[%d] filename=%s", rc,
                    i, name);
        sbacc_ma_close_hdd(sfd, i);
        blockade |= 1u << i;
        SBACC_TRACE(kTraceError, "[repair_for_restore] hddblockade(not open) HDD. hdd=%d filename=%s", i, name);
      }
    }
    *blockade_out = blockade;
    if (blockade == all) {
      SBACC_TRACE(kTraceError, "[repair_for_restore] opencnt error. hddblockade0x%x", blockade);
      return SBACC_E_ALLBLOCKADE;
    }
    SBACC_TRACE(kTraceMilestone, "[repair_for_restore] data repair is needed.(%s)", name);
    rec->data_repair = 1;
    return 0;
  }

  *blockade_out = blockade;
  if (blockade == all) {
    SBACC_TRACE(kTraceError, "[repair_for_restore] opencnt error. hddblockade0x%x", blockade);
    return SBACC_E_ALLBLOCKADE;
  }

  // Copies the source itself records as fenced off missed writes.
  for (int i = 0; i < hddcount; ++i) {
    const uint32_t bit = 1u << i;
    if ((blockade & bit) == 0 && (hdr[src].hddblockade & bit) != 0) {
      repair |= bit;
      SBACC_TRACE(kTraceMilestone, "[repair_for_restore] update candidate HDD[%d]. %s repair[0x%x]", i, name, repair);
    }
  }

  // A stale copy is good only once rebuilt.  Every exit before the rebuild
  // records it as fenced off, together with any copy that a failed access
  // closed; recording the mask of the scan instead would let a later open
  // take the stale copy for a current one.
  const uint32_t stale = repair & ~(1u << src);
  auto stop = [&](int code) {
    for (int i = 0; i < hddcount; ++i) {
      if ((stale >> i) & 1u) (void)sbacc_ma_memset_hddrepair(sfd, i, B_FALSE);
    }
    *blockade_out = NotOpen(sfd) | stale;
    return code;
  };

  // The same holds for a power cut: stale copies are recorded as fenced off
  // before anything else is written, and marked under repair so that the
  // writes below still reach them and keep their files open.  Each one leaves
  // the mask only when its rebuild has completed; a start-up cut short at any
  // point never presents a stale copy as current to the next one.
  for (int i = 0; i < hddcount; ++i) {
    if (((stale >> i) & 1u) == 0) continue;
    rc = sbacc_ma_memset_hddrepair(sfd, i, B_TRUE);
    if (rc != 0) return stop(rc);
  }
  const uint32_t recorded = blockade | stale;
  rc = sbacc_ma_repairlock_check(sfd);
  if (rc != 0) return stop(rc);
  rc = sbacc_memset_hddblockade(sfd, recorded);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[repair_for_restore] sbacc_memset_hddblockade error. retcode=%d", rc);
    return stop(rc);
  }
  rc = sbacc_ma_repairlock_check(sfd);
  if (rc != 0) return stop(rc);
  rc = sbacc_ma_hddset_hddblockade(sfd, recorded);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[repair_for_restore] sbacc_ma_hddset_hddblockade error. retcode=%d", rc);
    return stop(rc);
  }

  // Count the repair as one open and close of the area, so that a stop in
  // the middle of it asks for a data repair at the next start.
  SBACC_HDD_HEADER& latest = hdr[src];
  if (latest.openflag == 1) {
    SBACC_TRACE(kTraceMilestone, "[repair_for_restore] filename(%s) is open_flag=ON HDD[%d]", name, src);
    rec->data_repair = 1;
  }
  rec->closetime = latest.closetime;
  latest.openflag = 1;
  latest.opentime = sbacc::CurrentEnv()->Now();
  // Wraps instead of overflowing on a corrupt count.
  latest.opencnt = static_cast<int32_t>(static_cast<uint32_t>(latest.opencnt) + 1u);
  char when[32];
  sbacc::TimeText(latest.opentime, when);
  SBACC_TRACE(kTraceFlow, "[repair_for_restore] set open info. openflag=ON opencnt=%d opentime(%s)", latest.opencnt,
              when);
  rc = sbacc_ma_repairlock_check(sfd);
  if (rc != 0) return stop(rc);
  rc = sbacc_ma_hddset_openinfo(sfd, &latest);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[repair_for_restore] sbacc_ma_hddset_openinfo error. retcode=%d filename=%s", rc, name);
    return stop(rc);
  }

  if (repair == 0) {
    SBACC_TRACE(kTraceState, "[repair_for_restore] hdd repair no exec. hddblockade=0x%x %s", blockade, name);
    (void)sbacc_ma_resync_copies(sfd);
    *blockade_out = NotOpen(sfd);  // and any copy the writes above closed
    if (*blockade_out == all) {
      SBACC_TRACE(kTraceError, "[repair_for_restore] opencnt error. hddblockade0x%x", *blockade_out);
      return SBACC_E_ALLBLOCKADE;
    }
    return 0;
  }

  SBACC_TRACE(kTraceFlow, "[repair_for_restore] hdd repair exec. src_hdd=%d repair=0x%x hddblockade hdd=0x%x filename=%s",
              src, repair, blockade, name);
  SBACC_TRACE(kTraceMilestone, "[repair_for_restore] rebuild %s 0x%x from HDD[%d]: repaired by controller %d", name,
              stale, src, sbacc_cntno);
  RebuildCopies(sfd, src, repair);
  // A rebuild that never got going (source fenced off, no buffer) leaves the
  // mark set above; none may outlive the repair.  Rebuilt copies are already
  // clear, so this is a no-op for them.
  for (int i = 0; i < hddcount; ++i) {
    if ((stale >> i) & 1u) (void)sbacc_ma_memset_hddrepair(sfd, i, B_FALSE);
  }
  // The rebuilt copies now match the source; the usable ones may still
  // differ where a write was cut between copies.
  (void)sbacc_ma_resync_copies(sfd);

  // A copy ends either open and current or closed and fenced off.
  blockade = 0;
  for (int i = 0; i < hddcount; ++i) {
    if (sfd->fd[i] != -1) continue;
    blockade |= 1u << i;
    SBACC_TRACE(kTraceState, "[repair_for_restore] hddblockade(repair failed) HDD[%d]. %s blockade[0x%x]", i, name,
                blockade);
  }
  *blockade_out = blockade;
  if (blockade == all) {
    SBACC_TRACE(kTraceError, "[repair_for_restore] opencnt error. hddblockade0x%x", blockade);
    return SBACC_E_ALLBLOCKADE;
  }
  return 0;
}

}  // namespace

int sbacc_ma_repair_for_restore(int index) {
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
    rc = RepairLocked(sfd, rec, &blockade);
    // Still held: the mask and the close stamp go down before the lock is
    // released, so the next holder finds the area closed.  Lost: nothing
    // more is written, as when the lock could not be taken.
    const int held = sbacc_ma_repairlock_check(sfd);
    if (held == 0) {
      RecordBlockade(sfd, blockade);
      (void)sbacc_ma_close(sfd);
    } else {
      rc = held;
      for (int i = 0; i < SBACC_HDD_MAX; ++i) sbacc_ma_close_hdd(sfd, i);
    }
    (void)sbacc_ma_leave_repairlock(sfd);
  }
  sbacc_ma_free_sfd(sfd);
  SBACC_TRACE(kTraceFlow, "[repair_for_restore] [LEAVE] %d", rc);
  return rc;
}

void* sbacc_ma_repair_for_restore_c_thread(void* arg) {
  auto* sub = static_cast<SBACC_HDDSET_THREAD_PARAM_SUB*>(arg);
  SBACC_HDDSET_THREAD_PARAM* blk = sub->addr;
  const int dst = sub->index;
  const int src = blk->src_hdd;
  SBACC_FILE_DISCRIPTER* sfd = blk->sfd;
  sbacc::WorkerThreadSetup(sbacc::WorkerLog::kRestore2);
  SBACC_TRACE(kTraceFlow, "[repair_for_restore_c_thread] [ENTER]");
  SBACC_TRACE(kTraceMilestone, "[repair_for_restore_c_thread] repair HDD[%d] to HDD[%d] %s", src, dst,
              sfd->sfe.filename);
  const int rc = sbacc_ma_hddrepair_copy(sfd, src, dst);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[repair_for_restore_c_thread] repair_for_restore(%d->%d) error. errno=%d filename=%s", src,
                dst, errno, sfd->sfe.filename);
    sbacc_ma_repair_close_hdd(sfd, dst);
  }
  // The block and the descriptor may be gone once this returns.
  sbacc::WorkerFinish(blk, &blk->thread_retcode[dst], rc);
  SBACC_TRACE(kTraceFlow, "[repair_for_restore_c_thread] [LEAVE] %d", rc);
  return reinterpret_cast<void*>(static_cast<intptr_t>(rc));
}
