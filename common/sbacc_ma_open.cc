// Opening an area: NV entry, parallel open of the copies, fencing, choice of
// the copy with the latest data, new-area headers and the open record.
#define SBACC_MODULE SBACC_MODULE_MA
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <string.h>

#include "sbacc_alloc.h"
#include "sbacc_env.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"
#include "sbacc_trace.h"
#include "sbacc_worker.h"

namespace {

using sbacc::CurrentEnv;

void CloseAll(SBACC_FILE_DISCRIPTER* sfd) {
  for (int i = 0; i < SBACC_HDD_MAX; ++i) sbacc_ma_close_hdd(sfd, i);
}

// Opens copy i in the calling thread (no worker, or none could be started).
void OpenInline(SBACC_FILE_DISCRIPTER* sfd, int i, int openprm) {
  SBACC_TRACE(5, "[sbacc_ma_open] open[%d] sfn=(%s) openprm=%d", i, sfd->sfe.hddname[i], openprm);
  int fd = CurrentEnv()->OpenRetry(sfd->sfe.hddname[i], openprm);
  if (fd < 0) {
    SBACC_TRACE(1, "[sbacc_ma_open] open error. errno=%d sfn=%s filename=%s", errno, sfd->sfe.hddname[i],
                sfd->sfe.filename);
    return;
  }
  sfd->fd[i] = fd;
}

// Opens every copy that has a path and is not fenced off, one worker each.
void OpenCopies(SBACC_FILE_DISCRIPTER* sfd, uint32_t blockade, int openprm) {
  const int n = sbacc_ma_copies(sfd);
  auto* blk = sbacc::WorkerBlockCreate<SBACC_HDDSET_THREAD_PARAM>("sbacc_ma_open");
  if (blk != nullptr) {
    blk->sfd = sfd;
    blk->openprm = openprm;
  }
  auto wanted = [&](int i) { return sfd->sfe.hddname[i][0] != '\0' && ((blockade >> i) & 1u) == 0; };
  int last = n - 1;  // opened by the calling thread, which would only wait otherwise
  while (last >= 0 && !wanted(last)) --last;
  for (int i = 0; i < n; ++i) {
    sfd->fd[i] = -1;
    if (!wanted(i)) continue;
    if (blk != nullptr && i != last) {
      blk->param[i].index = i;
      blk->param[i].addr = blk;
      if (sbacc::WorkerStart(blk, sbacc_ma_open_thread, &blk->param[i])) continue;
    }
    OpenInline(sfd, i, openprm);
  }
  sbacc::WorkerBlockRelease(blk);
}

bool AllBlockaded(const SBACC_MEM_LIST_ENTRY& e) {
  return e.hddblockade == SBACC_HDD_MAXBIT(e.hddcount);
}

}  // namespace

void* sbacc_ma_open_thread(void* arg) {
  auto* sub = static_cast<SBACC_HDDSET_THREAD_PARAM_SUB*>(arg);
  sbacc::WorkerThreadSetup(sbacc::WorkerLog::kRestore1);
  SBACC_TRACE(5, "[sbacc_ma_open_thread] [ENTER]");
  SBACC_HDDSET_THREAD_PARAM* blk = sub->addr;
  const int index = sub->index;
  SBACC_FILE_DISCRIPTER* sfd = blk->sfd;
  const int fd = CurrentEnv()->OpenRetry(sfd->sfe.hddname[index], blk->openprm);
  sfd->fd[index] = fd < 0 ? -1 : fd;  // this worker is the only writer of the slot
  if (fd < 0) {
    SBACC_TRACE(1, "[sbacc_ma_open_thread] open error. errno=%d sfn=%s filename=%s", errno,
                sfd->sfe.hddname[index], sfd->sfe.filename);
  }
  const int rc = fd < 0 ? -1 : 0;
  sbacc::WorkerFinish(blk, &blk->thread_retcode[index], rc);  // last touch of the block
  SBACC_TRACE(5, "[sbacc_ma_open_thread] [LEAVE] %d", rc);
  return reinterpret_cast<void*>(static_cast<intptr_t>(rc));
}

int sbacc_ma_detect_hdd(SBACC_FILE_DISCRIPTER* sfd, SBACC_HDD_HEADER* headers, int* hdd) {
  SBACC_TRACE(5, "[sbacc_ma_detect_hdd] [ENTER]");
  int k = *hdd;
  const int n = sbacc_ma_copies(sfd);
  for (int i = 0; i < k; ++i) sbacc_ma_close_hdd(sfd, i);  // open ones below k had invalid headers
  for (int j = k + 1; j < n; ++j) {
    if (sfd->fd[j] == -1) continue;
    const SBACC_HDD_HEADER& hj = headers[j];
    const SBACC_HDD_HEADER& hk = headers[k];
    if (!sbacc_l_header_valid(&hj)) {
      sbacc_ma_close_hdd(sfd, j);
      continue;
    }
    if (hj.hddblockade == hk.hddblockade) continue;
    const int bits_k = sbacc_l_bitcount(static_cast<int>(hk.hddblockade));
    const int bits_j = sbacc_l_bitcount(static_cast<int>(hj.hddblockade));
    // More fenced-off copies recorded means a later view of the area.
    bool j_wins = bits_j > bits_k;
    if (bits_j == bits_k) j_wins = hk.closetime < hj.closetime;  // a tie keeps the lower index
    if (j_wins) {
      sbacc_ma_close_hdd(sfd, k);
      k = j;
      SBACC_TRACE(4, "[sbacc_ma_detect_hdd] update candidate HDD :HDD[%d]", j);
    } else {
      sbacc_ma_close_hdd(sfd, j);
    }
  }
  *hdd = k;
  SBACC_TRACE(5, "[sbacc_ma_detect_hdd] [LEAVE] %d", 0);
  return 0;
}

namespace {

// The body of the open; on failure the caller closes every copy.
int OpenArea(SBACC_FILE_DISCRIPTER* sfd, boolean_t* closeflag, boolean_t nvinit) {
  const char* name = sfd->sfe.filename;
  SBACC_HDD_HEADER headers[SBACC_HDD_MAX];
  memset(headers, 0, sizeof headers);

  int openprm;
  if (sfd->openmode == SBACC_OPENMODE_READ) {
    openprm = O_RDONLY;
  } else if (sfd->openmode == SBACC_OPENMODE_WRITE) {
    openprm = O_RDWR;
  } else {
    SBACC_TRACE(1, "[sbacc_ma_open] openmode error. openmode=%#x", static_cast<unsigned>(sfd->openmode));
    return SBACC_E_UNSUPPORTED;
  }
  const bool write_mode = (sfd->openmode == SBACC_OPENMODE_WRITE);

  // A name that no accepted line of the area list carries has no copies and
  // borrows index 0, the NV entry of the first configured area: refuse it
  // before anything of that area is read or written.
  if (sfd->sfe.hddcount <= 0) {
    SBACC_TRACE(1, "[sbacc_ma_open] area is not configured. filename=%s", name);
    return SBACC_E_PARAM;
  }

  SBACC_MEM_LIST_ENTRY entry;
  int rc;
  if (!nvinit) {
    rc = sbacc_memget_entry(sfd, &entry);
    if (rc != 0) return rc;
    if (!sbacc_l_entry_valid(&entry)) {
      if (!write_mode) {
        SBACC_TRACE(1, "[sbacc_ma_open] file exist error. filename=%s", name);
        return SBACC_E_NOTINIT;
      }
      SBACC_TRACE(1, "[sbacc_ma_open] NV is not initialized ---> initialize NV");
      rc = sbacc_l_memini_entry(sfd, &entry);
      if (rc != 0) return rc;
    }
  } else {
    uint32_t mask;
    rc = sbacc_memget_hddblockade(sfd, &mask);
    if (rc != 0) {
      SBACC_TRACE(1, "[sbacc_ma_open] sbacc_memget_hddblockade error. retcode=%d", rc);
      return rc;
    }
    SBACC_TRACE(5, "[sbacc_ma_open] nv_init ---> initialize NV");
    rc = sbacc_l_memini_entry(sfd, &entry);
    if (rc != 0) {
      SBACC_TRACE(1, "[sbacc_ma_open] sbacc_l_memini_entry error. retcode=%d", rc);
      return rc;
    }
  }

  OpenCopies(sfd, entry.hddblockade, openprm);

  rc = sbacc_ma_set_hddblockade(sfd, &entry);
  if (rc != 0) {
    SBACC_TRACE(1, "[sbacc_ma_open] sbacc_ma_set_hddblockade error. retcode=%d filename=%s", rc, name);
    return rc;
  }
  if (AllBlockaded(entry)) {
    SBACC_TRACE(1, "[sbacc_ma_open] opencnt error. hddblockade0x%x", entry.hddblockade);
    return SBACC_E_ALLBLOCKADE;
  }

  const int n = sbacc_ma_copies(sfd);
  for (int i = 0; i < n; ++i) {
    if (sfd->fd[i] == -1) continue;
    SBACC_TRACE(5, "[sbacc_ma_open] sbacc_l_hddget_header[%d]", i);
    rc = sbacc_l_hddget_header(sfd, i, &headers[i]);
    if (rc != 0) {
      SBACC_TRACE(1, "[sbacc_ma_open] sbacc_l_hddget_header[%d] error. retcode=%d filename=%s", i, rc, name);
      sbacc_ma_close_hdd(sfd, i);
    }
  }

  SBACC_TRACE(5, "[sbacc_ma_open] sbacc_ma_set_hddblockade");
  rc = sbacc_ma_set_hddblockade(sfd, &entry);
  if (rc != 0) {
    SBACC_TRACE(1, "[sbacc_ma_open] sbacc_ma_set_hddblockade error. retcode=%d filename=%s", rc, name);
    return rc;
  }
  if (AllBlockaded(entry)) {
    SBACC_TRACE(1, "[sbacc_ma_open] all blockade. filename=%s", name);
    return SBACC_E_ALLBLOCKADE;
  }

  int candidate = -1;
  uint32_t invalid = 0;
  for (int i = 0; i < n; ++i) {
    if (sfd->fd[i] == -1) continue;
    if (!sbacc_l_header_valid(&headers[i])) {
      SBACC_TRACE(5, "[sbacc_ma_open] HDD HEADER is invalid HDD[%d] filename=%s", i, name);
      invalid |= 1u << i;
      continue;
    }
    candidate = i;
    SBACC_TRACE(5, "[sbacc_ma_open] HDD[%d] is candidate(1) filename=%s", i, name);
    break;
  }
  if (invalid != 0) {
    SBACC_TRACE(1, "[sbacc_ma_open] HDD HEADER is invalid. HDD bit [0x%x] filename=%s", invalid, name);
  }

  if (candidate >= 0) {
    SBACC_TRACE(5, "[sbacc_ma_open] sbacc_ma_detect_hdd");
    sbacc_ma_detect_hdd(sfd, headers, &candidate);
    SBACC_TRACE(5, "[sbacc_ma_open] HDD[%d] is candidate(3) filename=%s", candidate, name);
  } else if (!write_mode) {
    SBACC_TRACE(1, "[sbacc_ma_open] file exist error(all HDD is invalid). filename=%s", name);
    return SBACC_E_NOTINIT;
  } else {
    // A new area: every open copy gets a fresh, empty header.
    SBACC_TRACE(4, "[sbacc_ma_open] HDD HEADER is initialize. HDD bit [0x%x] filename=%s", invalid, name);
    for (int i = 0; i < n; ++i) {
      if (sfd->fd[i] == -1) continue;
      SBACC_TRACE(5, "[sbacc_ma_open] sbacc_l_hddini_header HDD[%d] filename=%s", i, name);
      rc = sbacc_l_hddini_header(sfd, i, 0);
      if (rc != 0) {
        SBACC_TRACE(1, "[sbacc_ma_open] sbacc_l_hddini_header error. retcode=%d HDD[%d] filename=%s", rc, i,
                    name);
        sbacc_ma_close_hdd(sfd, i);
        continue;
      }
      if (candidate < 0) {
        candidate = i;
        SBACC_TRACE(4, "[sbacc_ma_open] HDD[%d] is candidate(2) filename=%s", i, name);
      }
    }
  }

  SBACC_TRACE(5, "[sbacc_ma_open] sbacc_ma_set_hddblockade");
  rc = sbacc_ma_set_hddblockade(sfd, &entry);
  if (rc != 0) {
    SBACC_TRACE(1, "[sbacc_ma_open] sbacc_ma_set_hddblockade error. retcode=%d filename=%s", rc, name);
    return rc;
  }
  if (AllBlockaded(entry) || candidate < 0) {
    SBACC_TRACE(1, "[sbacc_ma_open] all blockade. filename=%s", name);
    return SBACC_E_ALLBLOCKADE;
  }

  // The header copy of a freshly initialised candidate still holds what was
  // read before the initialisation; the open count continues from it.
  SBACC_HDD_HEADER& h = headers[candidate];
  const boolean_t clean = (h.openflag == 0) ? B_TRUE : B_FALSE;
  if (write_mode) {
    h.openflag = 1;
    h.opentime = CurrentEnv()->Now();
    h.opencnt = static_cast<int32_t>(static_cast<uint32_t>(h.opencnt) + 1u);
    rc = sbacc_ma_hddset_openinfo(sfd, &h);
    if (rc != 0) {
      SBACC_TRACE(1, "[sbacc_ma_open] sbacc_ma_hddset_openinfo error. retcode=%d filename=%s", rc, name);
      return rc;
    }
  } else {
    // Nothing of the choice reaches NV in read mode; the handle keeps it.
    sfd->readset = 0;
    for (int i = 0; i < n; ++i) {
      if (sfd->fd[i] != -1) sfd->readset |= 1u << i;
    }
  }
  *closeflag = clean;
  return 0;
}

}  // namespace

int sbacc_ma_open(SBACC_FILE_DISCRIPTER* sfd, boolean_t* closeflag, boolean_t nvinit) {
  SBACC_TRACE(5, "[sbacc_ma_open] [ENTER]");
  const int rc = OpenArea(sfd, closeflag, nvinit);
  if (rc != 0) CloseAll(sfd);
  SBACC_TRACE(5, "[sbacc_ma_open] [LEAVE] %d", rc);
  return rc;
}
