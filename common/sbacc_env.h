// The one door between the library and the operating system for everything
// tests need to fail or observe: HDD file I/O, thread start, mutex and
// condition set-up, sleeping and the clock.  The default forwards to POSIX;
// tests install their own subclass with SetEnvForTest.
#ifndef SBACC_ENV_H
#define SBACC_ENV_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>

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
