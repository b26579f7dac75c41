// Opening an area: NV entry, parallel open of the copies, fencing, choice of
// the copy with the latest data, new-area headers and the open record.
#define SBACC_MODULE SBACC_MODULE_MA
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <string.h>

#include <optional>

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

// One copy's open: the task's result is the descriptor, or -1.
struct OpenTask {
  const char* path;
  const char* area;
  const char* who;
  int hdd;
  int flags;
};

int OpenCopy(void* arg) {
  const auto* t = static_cast<const OpenTask*>(arg);
  SBACC_TRACE(sbacc::kTraceFlow, "[%s] open[%d] sfn=(%s) openprm=%d", t->who, t->hdd, t->path, t->flags);
  const int fd = CurrentEnv()->OpenRetry(t->path, t->flags);
  if (fd < 0) {
    SBACC_TRACE(sbacc::kTraceError, "[%s] open error. errno=%d sfn=%s filename=%s", t->who, errno, t->path, t->area);
    return -1;
  }
  return fd;
}

bool AllBlockaded(const SBACC_MEM_LIST_ENTRY& e) {
  return e.hddblockade == SBACC_HDD_MAXBIT(e.hddcount);
}

}  // namespace

void sbacc_ma_open_copies(SBACC_FILE_DISCRIPTER* sfd, uint32_t wanted, int flags, const char* who) {
  const int n = sbacc_ma_copies(sfd);
  OpenTask tasks[SBACC_HDD_MAX];
  int fds[SBACC_HDD_MAX];
  int last = n - 1;  // opened by the calling thread, which would only wait otherwise
  while (last >= 0 && ((wanted >> last) & 1u) == 0) --last;
  {
    sbacc::TaskGroup group(who, sbacc::WorkerLog::kRestore1);
    for (int i = 0; i < n; ++i) {
      fds[i] = -1;
      if (((wanted >> i) & 1u) == 0) continue;
      tasks[i] = OpenTask{sfd->sfe.hddname[i], sfd->sfe.filename, who, i, flags};
      group.Run(OpenCopy, &tasks[i], &fds[i], i == last);
    }
  }
  for (int i = 0; i < n; ++i) {
    if (((wanted >> i) & 1u) != 0) sfd->fd[i] = fds[i];
  }
}

int sbacc_ma_detect_hdd(SBACC_FILE_DISCRIPTER* sfd, SBACC_HDD_HEADER* headers, const SBACC_COPY_EVIDENCE* ev,
                        int* hdd) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_detect_hdd] [ENTER]");
  const int n = sbacc_ma_copies(sfd);
  uint32_t read = 0;
  for (int i = 0; i < n; ++i) {
    if (sfd->fd[i] != -1) read |= 1u << i;
  }
  SBACC_COPY_VERDICT v;
  sbacc_ma_classify(headers, n, read, ev, SBACC_CLASSIFY_OPEN, sfd->sfe.filename, &v);
  int rc = 0;
  if (v.hold == SBACC_HOLD_UNSEEN) {
    SBACC_TRACE(sbacc::kTraceError,
                "[sbacc_ma_detect_hdd] %s refused: no readable copy holds a valid header while HDD bit [0x%x] is not "
                "read",
                sfd->sfe.filename, ev->unseen);
    rc = SBACC_E_NOCOPY;
  } else if (v.hold != SBACC_HOLD_NONE) {
    SBACC_TRACE(sbacc::kTraceError,
                "[sbacc_ma_detect_hdd] %s refused: HDD[%d] is fenced off in NV and the only candidate while HDD bit "
                "[0x%x] is not read",
                sfd->sfe.filename, v.src, ev->unseen);
    rc = SBACC_E_NOCOPY;
  } else if (v.src >= 0) {
    // Copies holding an older view (or none) are closed, and so end fenced
    // off.  With no valid header anywhere the caller starts the area afresh.
    for (int i = 0; i < n; ++i) {
      if (((v.stale >> i) & 1u) != 0) sbacc_ma_close_hdd(sfd, i);
    }
    *hdd = v.src;
  }
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_detect_hdd] [LEAVE] %d", rc);
  return rc;
}

namespace {

// The area's NV entry as the open starts from it: read (and, for a
// write-mode open of an area NV does not know yet, initialised); with
// `nvinit` only read here (ReinitEntry makes it anew).  *ev gets what the
// entry said before.
int EntryForOpen(SBACC_FILE_DISCRIPTER* sfd, bool write_mode, boolean_t nvinit, SBACC_MEM_LIST_ENTRY* entry,
                 SBACC_COPY_EVIDENCE* ev) {
  const char* name = sfd->sfe.filename;
  const int rc = sbacc_memget_entry(sfd, entry);
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_open] sbacc_memget_entry error. retcode=%d", rc);
    return rc;
  }
  *ev = SBACC_COPY_EVIDENCE{0, 0, sbacc_l_entry_valid(entry) ? 1 : 0, 0};
  if (ev->existed != 0) ev->nvfenced = entry->hddblockade;
  if (nvinit || ev->existed != 0) return 0;
  if (!write_mode) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_open] file exist error. filename=%s", name);
    return SBACC_E_NOTINIT;
  }
  SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_open] NV is not initialized ---> initialize NV");
  return sbacc_l_memini_entry(sfd, entry);
}

int ReinitEntry(SBACC_FILE_DISCRIPTER* sfd, SBACC_MEM_LIST_ENTRY* entry) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_open] nv_init ---> initialize NV");
  const int rc = sbacc_l_memini_entry(sfd, entry);
  if (rc != 0) SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_open] sbacc_l_memini_entry error. retcode=%d", rc);
  return rc;
}

// Records which copies are out (closed or never opened) in NV and in the
// headers; an area left with none is refused (`after_scan`: once the
// headers have been read).
int Record(SBACC_FILE_DISCRIPTER* sfd, SBACC_MEM_LIST_ENTRY* entry, bool after_scan) {
  const char* name = sfd->sfe.filename;
  const int rc = sbacc_ma_set_hddblockade(sfd, entry);
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_open] sbacc_ma_set_hddblockade error. retcode=%d filename=%s", rc, name);
    return rc;
  }
  if (!AllBlockaded(*entry)) return 0;
  if (after_scan) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_open] all blockade. filename=%s", name);
  } else {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_open] opencnt error. hddblockade0x%x", entry->hddblockade);
  }
  return SBACC_E_ALLBLOCKADE;
}

uint32_t OpenSet(const SBACC_FILE_DISCRIPTER* sfd) {
  uint32_t open = 0;
  for (int i = 0; i < sbacc_ma_copies(sfd); ++i) {
    if (sfd->fd[i] != -1) open |= 1u << i;
  }
  return open;
}

// Opens every configured copy outside `skip` and reads the open copies'
// headers (a copy whose header cannot be read is closed); *opened gets the
// copies opened, ev->unseen the configured copies not read.  Nothing is
// written: the copies that failed are recorded once the choice is made.
void OpenAndRead(SBACC_FILE_DISCRIPTER* sfd, uint32_t skip, int openprm, SBACC_HDD_HEADER* headers,
                 SBACC_COPY_EVIDENCE* ev, uint32_t* opened) {
  const int n = sbacc_ma_copies(sfd);
  uint32_t wanted = 0;
  for (int i = 0; i < n; ++i) {
    sfd->fd[i] = -1;
    if (sfd->sfe.hddname[i][0] != '\0' && ((skip >> i) & 1u) == 0) wanted |= 1u << i;
  }
  sbacc_ma_open_copies(sfd, wanted, openprm, "sbacc_ma_open");
  *opened = OpenSet(sfd);
  for (int i = 0; i < n; ++i) {
    if (sfd->fd[i] == -1) continue;
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_open] sbacc_l_hddget_header[%d]", i);
    const int hrc = sbacc_l_hddget_header(sfd, i, &headers[i]);
    if (hrc != 0) {
      SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_open] sbacc_l_hddget_header[%d] error. retcode=%d filename=%s", i, hrc,
                  sfd->sfe.filename);
      sbacc_ma_close_hdd(sfd, i);
    }
  }
  ev->unseen = SBACC_HDD_MAXBIT(n) & ~OpenSet(sfd);
}

// A new area: every open copy gets a fresh, empty header.  The first copy
// that takes one is the candidate (-1: none did).
int InitNewArea(SBACC_FILE_DISCRIPTER* sfd, uint32_t invalid) {
  const char* name = sfd->sfe.filename;
  int candidate = -1;
  SBACC_TRACE(sbacc::kTraceState, "[sbacc_ma_open] HDD HEADER is initialize. HDD bit [0x%x] filename=%s", invalid, name);
  for (int i = 0; i < sbacc_ma_copies(sfd); ++i) {
    if (sfd->fd[i] == -1) continue;
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_open] sbacc_l_hddini_header HDD[%d] filename=%s", i, name);
    const int rc = sbacc_l_hddini_header(sfd, i, 0);
    if (rc != 0) {
      SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_open] sbacc_l_hddini_header error. retcode=%d HDD[%d] filename=%s", rc,
                  i, name);
      sbacc_ma_close_hdd(sfd, i);
      continue;
    }
    if (candidate < 0) {
      candidate = i;
      SBACC_TRACE(sbacc::kTraceState, "[sbacc_ma_open] HDD[%d] is candidate(2) filename=%s", i, name);
    }
  }
  return candidate;
}

// The copy holding the latest data among those with a valid header (the
// others are closed) into *candidate, or -1 when none has one; SBACC_E_NOCOPY
// when the evidence cannot justify the choice (or a new area).
int ChooseCandidate(SBACC_FILE_DISCRIPTER* sfd, SBACC_HDD_HEADER* headers, const SBACC_COPY_EVIDENCE* ev,
                    uint32_t* invalid, int* chosen) {
  const char* name = sfd->sfe.filename;
  int candidate = -1;
  *invalid = 0;
  for (int i = 0; i < sbacc_ma_copies(sfd); ++i) {
    if (sfd->fd[i] == -1) continue;
    if (!sbacc_l_header_valid(&headers[i])) {
      SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_open] HDD HEADER is invalid HDD[%d] filename=%s", i, name);
      *invalid |= 1u << i;
      continue;
    }
    candidate = i;
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_open] HDD[%d] is candidate(1) filename=%s", i, name);
    break;
  }
  if (*invalid != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_open] HDD HEADER is invalid. HDD bit [0x%x] filename=%s", *invalid, name);
  }
  if (candidate >= 0) SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_open] sbacc_ma_detect_hdd");
  const int rc = sbacc_ma_detect_hdd(sfd, headers, ev, &candidate);
  if (rc != 0) return rc;
  if (candidate >= 0) {
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_open] HDD[%d] is candidate(3) filename=%s", candidate, name);
  }
  *chosen = candidate;
  return 0;
}

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
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_open] openmode error. openmode=%#x", static_cast<unsigned>(sfd->openmode));
    return SBACC_E_UNSUPPORTED;
  }
  const bool write_mode = (sfd->openmode == SBACC_OPENMODE_WRITE);

  // A name that no accepted line of the area list carries has no copies and
  // borrows index 0, the NV entry of the first configured area: refuse it
  // before anything of that area is read or written.
  if (sfd->sfe.hddcount <= 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_open] area is not configured. filename=%s", name);
    return SBACC_E_PARAM;
  }

  SBACC_MEM_LIST_ENTRY entry;
  SBACC_COPY_EVIDENCE ev;
  int rc = EntryForOpen(sfd, write_mode, nvinit, &entry, &ev);
  if (rc != 0) return rc;
  uint32_t opened = 0;
  OpenAndRead(sfd, nvinit ? 0 : entry.hddblockade, openprm, headers, &ev, &opened);
  // The choice is made before anything is written, so a refused one leaves
  // headers and record as they were (nv_init rebuilds the record only
  // after it).  A read-mode open writes nothing and so holds nothing back;
  // an area with no header read is refused below as one without a copy.
  uint32_t invalid = 0;
  int candidate = -1;
  const bool judge = write_mode && OpenSet(sfd) != 0;
  rc = ChooseCandidate(sfd, headers, judge ? &ev : nullptr, &invalid, &candidate);
  if (rc == 0 && nvinit) rc = ReinitEntry(sfd, &entry);
  if (rc != 0) return rc;
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_open] sbacc_ma_set_hddblockade");
  rc = Record(sfd, &entry, opened != 0);
  if (rc != 0) return rc;

  if (candidate < 0 && !write_mode) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_open] file exist error(all HDD is invalid). filename=%s", name);
    return SBACC_E_NOTINIT;
  }
  if (candidate < 0) candidate = InitNewArea(sfd, invalid);

  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_open] sbacc_ma_set_hddblockade");
  rc = Record(sfd, &entry, true);
  if (rc != 0) return rc;
  if (candidate < 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_open] all blockade. filename=%s", name);
    return SBACC_E_ALLBLOCKADE;
  }

  // The header copy of a freshly initialised candidate still holds what was
  // read before the initialisation; the open count continues from it.
  SBACC_HDD_HEADER& h = headers[candidate];
  *closeflag = (h.openflag == 0) ? B_TRUE : B_FALSE;
  if (!write_mode) {
    // Nothing of the choice reaches NV in read mode; the handle keeps it.
    sfd->readset = 0;
    for (int i = 0; i < sbacc_ma_copies(sfd); ++i) {
      if (sfd->fd[i] != -1) sfd->readset |= 1u << i;
    }
    return 0;
  }
  h.openflag = 1;
  h.opentime = CurrentEnv()->Now();
  h.opencnt = static_cast<int32_t>(static_cast<uint32_t>(h.opencnt) + 1u);
  rc = sbacc_ma_hddset_openinfo(sfd, &h);
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_ma_open] sbacc_ma_hddset_openinfo error. retcode=%d filename=%s", rc, name);
  }
  return rc;
}

}  // namespace

int sbacc_ma_open(SBACC_FILE_DISCRIPTER* sfd, boolean_t* closeflag, boolean_t nvinit) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_open] [ENTER]");
  // A write-mode open carries the integrity record over to its new open
  // count: no other handle's write may change the record between the
  // reading of the headers and that update.
  std::optional<sbacc::NvRecordLock> data_lock;
  if (sfd->openmode == SBACC_OPENMODE_WRITE && sbacc_ma_checksums(sfd)) data_lock.emplace(sfd, true);
  const int rc = OpenArea(sfd, closeflag, nvinit);
  if (rc != 0) CloseAll(sfd);
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_ma_open] [LEAVE] %d", rc);
  return rc;
}
