// A fault-injecting Env for tests.  While an instance lives it is the
// library's environment: HDD file calls go to the real files unless a rule
// says otherwise, sleeps are recorded instead of slept, and the clock can be
// fixed.
//
// Paths: a rule names a path exactly as the library opens it ("" = any
// path); a descriptor opened before this Env was installed is resolved
// through /proc/self/fd, so the simulated controller's paths are canonical.
//
// Counting: each rule counts the calls it matches from the moment it is added;
// calls S+1 .. S+N are hit (N = -1: every call after the first S).  Calls()
// counters run from construction (or ResetCounters) and include failed calls.
//
// Thread-safe; the real system calls and injected delays run outside the lock.
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
  // The file calls, then the thread and lock set-ups (which name no path).
  enum Op { kOpen = 0, kSeek, kRead, kWrite, kFsync, kClose, kThread, kMutex, kCond };

  FaultEnv();            // installs itself with SetEnvForTest
  ~FaultEnv() override;  // restores the default
  FaultEnv(const FaultEnv&) = delete;
  FaultEnv& operator=(const FaultEnv&) = delete;

  // Calls start+1 .. start+count of `op` on `path` fail with `err` (-1 return).
  void FailOp(Op op, const std::string& path, long start, long count, int err) { AddRule(op, path, start, count, err, 0, 0); }
  // Same calls of kRead / kWrite move `cut` bytes fewer than asked (at least 0).
  void ShortOp(Op op, const std::string& path, long start, long count, size_t cut) { AddRule(op, path, start, count, 0, cut, 0); }
  // Every call of `op` on `path` first really sleeps `micros`.
  void DelayOp(Op op, const std::string& path, unsigned micros) { AddRule(op, path, 0, -1, 0, 0, micros); }
  // StartThread / MutexInit / CondInit calls start+1 .. start+count (counted
  // from now) return `err` without doing anything; each call replaces the last.
  void FailThreadStart(long start, long count, int err = EAGAIN) { AddRule(kThread, "", start, count, err, 0, 0, true); }
  void FailMutexInit(long start, long count, int err = ENOMEM) { AddRule(kMutex, "", start, count, err, 0, 0, true); }
  void FailCondInit(long start, long count, int err = ENOMEM) { AddRule(kCond, "", start, count, err, 0, 0, true); }
  void ClearRules();  // counters stay

  // Power cut: counting writes on all paths from now, write n+1 never reaches
  // its file and fails with EIO, and from then on every file call but Close
  // fails with EIO (Close still closes the real descriptor), and so does
  // every NV transfer until the stand-in is reset.  n < 0: no cut.
  void PowerCutAfterWrites(long n);
  bool PowerIsCut() const;

  // From now every write must land inside bytes [lo, hi) of its file (the
  // area the call works on); StrayWrites() counts those that did not.
  void BoundWrites(uint64_t lo, uint64_t hi);
  long StrayWrites() const;

  void SetNow(time_t t);  // fixes the clock
  std::vector<unsigned> Sleeps() const;
  long SleepCount() const { return static_cast<long>(Sleeps().size()); }

  // Calls of `op` on `path` so far ("" = on every path together).
  long Calls(Op op, const std::string& path = "") const;
  long Writes() const { return Calls(kWrite); }  // the numbering power cuts use
  long ThreadStarts() const { return Calls(kThread); }
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
  struct Rule {
    Op op;
    std::string path;  // "" = any
    long start, count, seen;
    int err;
    size_t cut;
    unsigned delay;
  };

  void AddRule(Op op, const std::string& path, long start, long count, int err, size_t cut, unsigned delay,
               bool replace = false);
  // Counts the call and applies the rules under the lock, then sleeps any
  // delay.  Returns the errno to fail with (also set in errno), 0 for none;
  // `cut` gets the bytes to leave out.  `fd` < 0: the call names `path`.
  int Enter(Op op, int fd, const std::string& path = "", size_t* cut = nullptr);

  mutable std::mutex mu_;
  std::map<int, std::string> fd_paths_;
  std::vector<Rule> rules_;
  std::map<std::pair<int, std::string>, long> calls_;
  long power_budget_ = -1;  // writes still allowed since arming; -1 = disarmed
  bool power_cut_ = false;
  bool fixed_clock_ = false;
  time_t now_ = 0;
  std::vector<unsigned> sleeps_;
  uint64_t bound_lo_ = 0, bound_hi_ = 0;  // no bound while equal
  long stray_ = 0;
};

}  // namespace sbacc_test

#endif  // SBACC_TEST_FAULT_ENV_H
