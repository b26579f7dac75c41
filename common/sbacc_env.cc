// POSIX default of the Env, and the switch that lets tests replace it.
#define SBACC_MODULE SBACC_MODULE_SBACC
#include "sbacc_env.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>


namespace sbacc {

int Env::Open(const char* path, int flags) { return ::open(path, flags | O_CLOEXEC); }

// Transfers are positioned, so the file position is never used: the seek only
// validates the position, which needs no system call (a bad descriptor is
// still reported by the transfer itself).
int64_t Env::Seek(int fd, int64_t pos) {
  if (fd < 0) {
    errno = EBADF;
    return -1;
  }
  if (pos < 0) {
    errno = EINVAL;
    return -1;
  }
  return pos;
}

ssize_t Env::ReadAt(int fd, void* buf, size_t len, int64_t pos) {
  return ::pread(fd, buf, len, static_cast<off_t>(pos));
}

ssize_t Env::WriteAt(int fd, const void* buf, size_t len, int64_t pos) {
  return ::pwrite(fd, buf, len, static_cast<off_t>(pos));
}

int Env::Fsync(int fd) { return ::fsync(fd); }

int Env::Close(int fd) { return ::close(fd); }

int Env::CreateThread(void* (*fn)(void*), void* arg) {
  pthread_t tid;  // the thread detaches itself; the id is not kept
  return pthread_create(&tid, nullptr, fn, arg);
}

int Env::MutexInit(pthread_mutex_t* m) { return pthread_mutex_init(m, nullptr); }

int Env::CondInit(pthread_cond_t* c) { return pthread_cond_init(c, nullptr); }

void Env::SleepMicros(unsigned micros) { ::usleep(micros); }

time_t Env::Now() { return ::time(nullptr); }

int WaitUpTo(pthread_cond_t* c, pthread_mutex_t* m, unsigned seconds) {
  timespec until{};
  clock_gettime(CLOCK_REALTIME, &until);
  until.tv_sec += static_cast<time_t>(seconds);
  return pthread_cond_timedwait(c, m, &until);
}

namespace {
Env g_default_env;
std::atomic<Env*> g_env{&g_default_env};
}  // namespace

Env* CurrentEnv() { return g_env.load(std::memory_order_acquire); }

void SetEnvForTest(Env* env) {
  g_env.store(env != nullptr ? env : &g_default_env, std::memory_order_release);
}

}  // namespace sbacc
