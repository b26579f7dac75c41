// The one door between the library and the operating system for everything
// tests need to fail or observe: HDD file I/O, NV memory and the controller
// status, thread start, mutex and condition set-up, sleeping and the clock.
// The default forwards to POSIX and the firmware-control library; tests
// install their own subclass with SetEnvForTest.
#ifndef SBACC_ENV_H
#define SBACC_ENV_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>

struct sanfw_getstatus_out;  // sanfwctl.h

namespace sbacc {

class Env {
 public:
  virtual ~Env() = default;

  // HDD files.  Transfers are positioned (pread/pwrite), so several threads
  // may read one copy at once without moving each other's file position.
  // Each call returns what its POSIX counterpart returns and sets errno.
  virtual int Open(const char* path, int flags);
  virtual int64_t Seek(int fd, int64_t pos);  // validates the position, as lseek(SEEK_SET)
  virtual ssize_t ReadAt(int fd, void* buf, size_t len, int64_t pos);
  virtual ssize_t WriteAt(int fd, const void* buf, size_t len, int64_t pos);
  virtual int Fsync(int fd);
  virtual int Close(int fd);

  // The library's HDD I/O goes through these, never the calls above: an
  // interrupted call is made again and a short transfer is continued, so a
  // copy fails only on a real error or an attempt that moves nothing.
  // ReadFully / WriteFully return len when every byte moved, else the bytes
  // moved before an attempt that moved none, or -1 with errno.  A close is
  // never repeated: on Linux the descriptor is gone even when it says EINTR.
  int OpenRetry(const char* path, int flags);
  ssize_t ReadFully(int fd, void* buf, size_t len, int64_t pos);
  ssize_t WriteFully(int fd, const void* buf, size_t len, int64_t pos);
  int FsyncRetry(int fd);

  // NV memory and the controller status: one request of the firmware-control
  // library each (the region of the area records, `nv_offset` absolute), 0
  // or that library's nonzero result.
  virtual int NvRead(uint64_t nv_offset, void* buf, size_t len);
  virtual int NvWrite(uint64_t nv_offset, const void* buf, size_t len);
  virtual int ControllerStatus(sanfw_getstatus_out* out);

  // Threads and their synchronisation: 0 or an errno value, as pthreads.
  // CreateThread starts one OS thread: the worker crew's only way to grow.
  virtual int CreateThread(void* (*fn)(void*), void* arg);
  virtual int MutexInit(pthread_mutex_t* m);
  virtual int CondInit(pthread_cond_t* c);
  // A point where another thread may well run next: a task handed out or
  // reporting, an NV record lock taken.  Does nothing by default; tests
  // that shake the schedule yield or sleep here.
  virtual void Reschedule() {}

  virtual void SleepMicros(unsigned micros);
  virtual time_t Now();
};

// Waits on `c` (with `m` held) until signalled or `seconds` have passed on the
// real clock: 0, or ETIMEDOUT.  Not part of the replaceable Env: a parked
// worker's idle time must not follow a test's fixed clock, and the worker
// must not call into an Env that a test may be tearing down.
int WaitUpTo(pthread_cond_t* c, pthread_mutex_t* m, unsigned seconds);

// The environment in force (the POSIX default unless a test replaced it).
Env* CurrentEnv();
// nullptr restores the default.  Not to be called while library calls run.
void SetEnvForTest(Env* env);

}  // namespace sbacc

#endif  // SBACC_ENV_H
