// A fault-injecting Env for tests.  While an instance lives it is the
// library's environment: HDD file calls go to the real files unless a rule
// says otherwise, sleeps are recorded instead of slept, and the clock can be
// fixed.
//
// Paths: every rule names a path exactly as the test knows it ("" = any
// path).  Descriptors opened through the Env are mapped to the path given to
// Open; descriptors the test opened itself are resolved through
// /proc/self/fd.  Both sides are compared in canonical form when the file
// exists, so "/tmp/x/../x/a" and "/tmp/x/a" are one path.
//
// Counting: each rule counts the calls it matches from the moment it is added,
// starting at 1; calls S+1 .. S+N are hit (N = -1: every call after the first
// S).  Calls() counters run from construction (or ResetCounters) and include
// failed calls.
//
// Thread-safe: one mutex guards the bookkeeping; the real system calls and
// any injected delay run outside it.
#ifndef SBACC_TEST_FAULT_ENV_H
#define SBACC_TEST_FAULT_ENV_H

#include <errno.h>
#include <stddef.h>
#include <stdint.h>

#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "sbacc_env.h"

namespace sbacc_test {

class FaultEnv : public sbacc::Env {
 public:
  enum Op { kOpen = 0, kSeek, kRead, kWrite, kFsync, kClose, kOpCount };

  FaultEnv();            // installs itself with SetEnvForTest
  ~FaultEnv() override;  // restores the default
  FaultEnv(const FaultEnv&) = delete;
  FaultEnv& operator=(const FaultEnv&) = delete;

  // Calls start+1 .. start+count of `op` on `path` fail with `err` (-1 return).
  void FailOp(Op op, const std::string& path, long start, long count, int err);
  // Calls start+1 .. start+count of kRead / kWrite on `path` move `cut` bytes
  // fewer than asked (never fewer than 0) and return what they moved.
  void ShortOp(Op op, const std::string& path, long start, long count, size_t cut);
  // Every call of `op` on `path` first really sleeps `micros`.
  void DelayOp(Op op, const std::string& path, unsigned micros);
  void DelayWrites(const std::string& path, unsigned micros) { DelayOp(kWrite, path, micros); }
  // Drops every rule above (counters stay).
  void ClearRules();

  // Power cut: counting writes on all paths from now, write n+1 never reaches
  // its file and fails with EIO, and from then on every Open, Seek, Read,
  // Write and Fsync fails with EIO.  Close still closes the real descriptor.
  // n < 0 disarms (and restores power).
  void PowerCutAfterWrites(long n);
  bool PowerIsCut() const;

  // StartThread / MutexInit / CondInit calls start+1 .. start+count (counted
  // from now) return `err` without doing anything.
  void FailThreadStart(long start, long count, int err = EAGAIN);
  void FailMutexInit(long start, long count, int err = ENOMEM);
  void FailCondInit(long start, long count, int err = ENOMEM);

  // Clock: a fixed time, or the real one again.
  void SetNow(time_t t);
  void UseRealClock();

  // Sleeps: recorded; really slept only with RealSleep(true).
  void RealSleep(bool on);
  long SleepCount() const;
  uint64_t SleptMicros() const;
  std::vector<unsigned> Sleeps() const;

  // Calls of `op` on `path` so far ("" = on every path together).
  long Calls(Op op, const std::string& path = "") const;
  // Writes attempted so far on every path (the numbering power cuts use).
  long Writes() const;
  long ThreadStarts() const;
  // Zeroes the call counters and the sleep record (rules keep their own).
  void ResetCounters();

  // sbacc::Env
  int Open(const char* path, int flags) override;
  int64_t Seek(int fd, int64_t pos) override;
  ssize_t ReadAt(int fd, void* buf, size_t len, int64_t pos) override;
  ssize_t WriteAt(int fd, const void* buf, size_t len, int64_t pos) override;
  int Fsync(int fd) override;
  int Close(int fd) override;
  int StartThread(void* (*fn)(void*), void* arg) override;
  int MutexInit(pthread_mutex_t* m) override;
  int CondInit(pthread_cond_t* c) override;
  void SleepMicros(unsigned micros) override;
  time_t Now() override;

 private:
  struct Window {
    long start = 0;
    long count = 0;
    long seen = 0;
    // Counts one call; true when it falls inside start+1 .. start+count.
    bool Hit();
  };
  struct Rule {
    Op op;
    std::string path;  // canonical, "" = any
    Window window;
    int err;           // failure rule when cut == 0
    size_t cut;        // short-transfer rule when > 0
  };
  struct Delay {
    Op op;
    std::string path;
    unsigned micros;
  };
  // What one call has to do, decided under the mutex.
  struct Verdict {
    int err = 0;       // non-zero: fail with this errno
    size_t cut = 0;    // short transfer
    unsigned delay = 0;
  };

  static std::string Canonical(const std::string& path);
  std::string PathOfLocked(int fd) const;
  Verdict Decide(Op op, const std::string& path);

  mutable std::mutex mu_;
  std::map<int, std::string> fd_paths_;
  std::vector<Rule> rules_;
  std::vector<Delay> delays_;
  std::map<std::pair<int, std::string>, long> calls_;
  long op_totals_[kOpCount] = {};
  long writes_ = 0;

  long power_budget_ = -1;  // writes still allowed since arming; -1 = disarmed
  bool power_cut_ = false;

  Window thread_fail_, mutex_fail_, cond_fail_;
  int thread_err_ = 0, mutex_err_ = 0, cond_err_ = 0;
  long thread_starts_ = 0;

  bool fixed_clock_ = false;
  time_t now_ = 0;

  bool real_sleep_ = false;
  std::vector<unsigned> sleeps_;
  uint64_t slept_micros_ = 0;
};

}  // namespace sbacc_test

#endif  // SBACC_TEST_FAULT_ENV_H
