// The exported area file calls: argument checks, cancellation shield, the
// parameter block on failure, and hand-over to the mirror engine.
#define SBACC_MODULE SBACC_MODULE_SBACC
#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include "sbacc.h"
#include "sbacc_ma.h"
#include "sbacc_trace.h"

namespace {

// Keeps the calling thread from being cancelled while worker threads, open
// files, NV or headers are in hand.  Cancellation is enabled again on the way
// out, whatever the state was on entry.
class CancelShield {
 public:
  CancelShield() {
    int ignored;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &ignored);
  }
  ~CancelShield() { Lift(); }
  void Lift() {
    if (lifted_) return;
    lifted_ = true;
    int ignored;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &ignored);
  }
  CancelShield(const CancelShield&) = delete;
  CancelShield& operator=(const CancelShield&) = delete;

 private:
  bool lifted_ = false;
};

SBACC_FILE_DISCRIPTER* Sfd(sbacc_fd* fp) { return static_cast<SBACC_FILE_DISCRIPTER*>(fp); }

int OpenImpl(const char* filename, const char* mode, void** fp, boolean_t* closeflag,
             SBACC_FILE_DISCRIPTER** built) {
  if (filename == nullptr) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_open] parameter error. filename=NULL");
    return SBACC_E_PARAM;
  }
  if (mode == nullptr) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_open] parameter error. mode=NULL");
    return SBACC_E_PARAM;
  }
  if (fp == nullptr) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_open] parameter error. fp=NULL");
    return SBACC_E_PARAM;
  }
  if (closeflag == nullptr) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_open] parameter error. closeflag=NULL");
    return SBACC_E_PARAM;
  }
  int openmode;
  if (strcmp(mode, "w") == 0) {
    openmode = SBACC_OPENMODE_WRITE;
  } else if (strcmp(mode, "r") == 0) {
    openmode = SBACC_OPENMODE_READ;
  } else {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_open] parameter error. mode=%s", mode);
    return SBACC_E_PARAM;
  }
  int rc = sbacc_ma_alloc_sfd(filename, openmode, built);
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_open] sbacc_ma_alloc_sfd error. retcode=%d", rc);
    return rc;
  }
  // A name no line of the area list carries leaves the looked-up entry
  // cleared; the open's traces still name what the caller asked for.
  if ((*built)->sfe.filename[0] == '\0') {
    snprintf((*built)->sfe.filename, sizeof (*built)->sfe.filename, "%s", filename);
  }
  rc = sbacc_ma_open(*built, closeflag, B_FALSE);
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_open] sbacc_ma_open error. retcode=%d", rc);
    return rc;
  }
  *fp = *built;
  return 0;
}

}  // namespace

int sbacc_open(const char* filename, const char* mode, void** fp, boolean_t* closeflag) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_open] [ENTER] filename=%s mode=%s", SBACC_STRSTR(filename), SBACC_STRSTR(mode));
  CancelShield shield;
  SBACC_FILE_DISCRIPTER* sfd = nullptr;
  const int rc = OpenImpl(filename, mode, fp, closeflag, &sfd);
  if (rc < 0) {
    SBACC_TRACE_PARAM_OPEN("sbacc_open");
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_open]   filename: %s", SBACC_STRSTR(filename));
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_open]   mode: %s", SBACC_STRSTR(mode));
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_open]   fp: %s", SBACC_PTRSTR(fp));
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_open]   closeflag: %s", SBACC_PTRSTR(closeflag));
    SBACC_TRACE_PARAM_CLOSE("sbacc_open", rc);
    sbacc_ma_free_sfd(sfd);
  }
  shield.Lift();
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_open] [LEAVE] %d", rc);
  return rc;
}

int sbacc_close(sbacc_fd* fp) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_close] [ENTER]");
  CancelShield shield;
  int rc = 0;
  if (fp == nullptr) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_close] parameter error. fp=NULL");
    rc = SBACC_E_PARAM;
    SBACC_TRACE_PARAM_OPEN("sbacc_close");
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_close]   fp: %s", SBACC_PTRSTR(fp));
    SBACC_TRACE_PARAM_CLOSE("sbacc_close", rc);
  } else {
    sbacc_ma_close(Sfd(fp));
    sbacc_ma_free_sfd(Sfd(fp));
  }
  shield.Lift();
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_close] [LEAVE] %d", rc);
  return rc;
}

namespace {

int WriteImpl(const void* buf, int wsize, int offset, sbacc_fd* fp) {
  if (fp == nullptr) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_write] parameter error. fp=NULL");
    return SBACC_E_PARAM;
  }
  if (buf == nullptr) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_write] parameter error. buf=NULL");
    return SBACC_E_PARAM;
  }
  if (wsize <= 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_write] parameter error. wsize=%d", wsize);
    return SBACC_E_PARAM;
  }
  if (offset < 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_write] parameter error. offset=%d", offset);
    return SBACC_E_PARAM;
  }
  if (Sfd(fp)->openmode == SBACC_OPENMODE_READ) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_write] function error. openmode=%d", Sfd(fp)->openmode);
    return SBACC_E_NOTALLOWED;
  }
  const int rc = sbacc_ma_write(buf, wsize, offset, Sfd(fp));
  if (rc != wsize) SBACC_TRACE(sbacc::kTraceError, "[sbacc_write] sbacc_ma_write error. retcode=%d", rc);
  return rc;
}

int ReadImpl(void* buf, int rsize, int offset, sbacc_fd* fp) {
  if (fp == nullptr) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_read] parameter error. fp=NULL");
    return SBACC_E_PARAM;
  }
  if (buf == nullptr) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_read] parameter error. buf=NULL");
    return SBACC_E_PARAM;
  }
  if (rsize <= 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_read] parameter error. rsize=%d", rsize);
    return SBACC_E_PARAM;
  }
  if (offset < 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_read] parameter error. offset=%d", offset);
    return SBACC_E_PARAM;
  }
  const int rc = sbacc_ma_read(buf, rsize, offset, Sfd(fp));
  if (rc != rsize) SBACC_TRACE(sbacc::kTraceError, "[sbacc_read] sbacc_ma_read error. retcode=%d", rc);
  return rc;
}

int WriteSizeImpl(int fsize, sbacc_fd* fp) {
  if (fp == nullptr) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_write_size] parameter error. fp=NULL");
    return SBACC_E_PARAM;
  }
  if (fsize < 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_write_size] parameter error. fsize=%d", fsize);
    return SBACC_E_PARAM;
  }
  if (Sfd(fp)->openmode == SBACC_OPENMODE_READ) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_write_size] function error. openmode=%d", Sfd(fp)->openmode);
    return SBACC_E_NOTALLOWED;
  }
  const int rc = sbacc_ma_write_size(fsize, Sfd(fp));
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_write_size] sbacc_ma_write_size error. retcode=%d", rc);
    return rc;
  }
  return fsize;
}

int ReadSizeImpl(sbacc_fd* fp) {
  if (fp == nullptr) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_read_size] parameter error. fp=NULL");
    return SBACC_E_PARAM;
  }
  int size = 0;
  const int rc = sbacc_ma_read_size(&size, Sfd(fp));
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_read_size] sbacc_ma_read_size error. retcode=%d", rc);
    return rc;
  }
  return size;
}

}  // namespace

int sbacc_write(const void* buf, int wsize, int offset, sbacc_fd* fp) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_write] [ENTER]");
  CancelShield shield;
  const int rc = WriteImpl(buf, wsize, offset, fp);
  if (rc < 0) {
    SBACC_TRACE_PARAM_OPEN("sbacc_write");
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_write]   buf: %s", SBACC_PTRSTR(buf));
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_write]   wsize: %d", wsize);
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_write]   offset: %d", offset);
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_write]   fp: %s", SBACC_PTRSTR(fp));
    SBACC_TRACE_PARAM_CLOSE("sbacc_write", rc);
  }
  shield.Lift();
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_write] [LEAVE] %d", rc);
  return rc;
}

int sbacc_read(void* buf, int rsize, int offset, sbacc_fd* fp) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_read] [ENTER]");
  CancelShield shield;
  const int rc = ReadImpl(buf, rsize, offset, fp);
  if (rc < 0) {
    SBACC_TRACE_PARAM_OPEN("sbacc_read");
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_read]   buf: %s", SBACC_PTRSTR(buf));
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_read]   rsize: %d", rsize);
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_read]   offset: %d", offset);
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_read]   fp: %s", SBACC_PTRSTR(fp));
    SBACC_TRACE_PARAM_CLOSE("sbacc_read", rc);
  }
  shield.Lift();
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_read] [LEAVE] %d", rc);
  return rc;
}

int sbacc_write_size(int fsize, sbacc_fd* fp) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_write_size] [ENTER]");
  CancelShield shield;
  const int rc = WriteSizeImpl(fsize, fp);
  if (rc < 0) {
    SBACC_TRACE_PARAM_OPEN("sbacc_write_size");
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_write_size]   fsize: %d", fsize);
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_write_size]   fp: %s", SBACC_PTRSTR(fp));
    SBACC_TRACE_PARAM_CLOSE("sbacc_write_size", rc);
  }
  shield.Lift();
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_write_size] [LEAVE] %d", rc);
  return rc;
}

int sbacc_read_size(sbacc_fd* fp) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_read_size] [ENTER]");
  CancelShield shield;
  const int rc = ReadSizeImpl(fp);
  if (rc < 0) {
    SBACC_TRACE_PARAM_OPEN("sbacc_read_size");
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_read_size]   fp: %s", SBACC_PTRSTR(fp));
    SBACC_TRACE_PARAM_CLOSE("sbacc_read_size", rc);
  }
  shield.Lift();
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_read_size] [LEAVE] %d", rc);
  return rc;
}
