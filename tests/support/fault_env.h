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
#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "sanfwctl.h"
#include "sbacc_env.h"

namespace sbacc_test {

class FaultEnv : public sbacc::Env {
  // Runs f under the lock (defined first: the members below use it).
  template <class F>
  auto Locked(F f) const {
    std::lock_guard<std::mutex> lock(mu_);
    return f();
  }

 public:
  // The file calls, then the thread and lock set-ups (which name no path).
  enum Op { kOpen = 0, kSeek, kRead, kWrite, kFsync, kClose, kThread, kMutex, kCond };

  FaultEnv() { sbacc::SetEnvForTest(this); }
  ~FaultEnv() override { sbacc::SetEnvForTest(nullptr); }  // back to the default
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
  void ClearRules() { Locked([&] { rules_.clear(); }); }  // counters stay

  // Power cut: counting writes on all paths from now, write n+1 never reaches
  // its file and fails with EIO, and from then on every file call but Close
  // fails with EIO (Close still closes the real descriptor), and so does
  // every NV transfer until the stand-in is reset.  n < 0: no cut.
  void PowerCutAfterWrites(long n) { Locked([&] { power_budget_ = n, power_cut_ = false; }); }
  bool PowerIsCut() const { return Locked([&] { return power_cut_; }); }

  // From now every write must land inside bytes [lo, hi) of its file (the
  // area the call works on); StrayWrites() counts those that did not.
  void BoundWrites(uint64_t lo, uint64_t hi) { Locked([&] { bound_lo_ = lo, bound_hi_ = hi, stray_ = 0; }); }
  long StrayWrites() const { return Locked([&] { return stray_; }); }

  void SetNow(time_t t) { Locked([&] { fixed_clock_ = true, now_ = t; }); }  // fixes the clock
  std::vector<unsigned> Sleeps() const { return Locked([&] { return sleeps_; }); }
  long SleepCount() const { return static_cast<long>(Sleeps().size()); }

  // Calls of `op` on `path` so far ("" = on every path together).
  long Calls(Op op, const std::string& path = "") const {
    return Locked([&] {
      long n = 0;
      for (const auto& [key, count] : calls_) n += key.first == op && (path.empty() || key.second == path) ? count : 0;
      return n;
    });
  }
  long Writes() const { return Calls(kWrite); }  // the numbering power cuts use
  long ThreadStarts() const { return Calls(kThread); }
  // Zeroes the call counters and the sleep record (rules keep their own).
  void ResetCounters() { Locked([&] { calls_.clear(), sleeps_.clear(); }); }

  // sbacc::Env
  int Open(const char* path, int flags) override {
    if (Enter(kOpen, -1, path != nullptr ? path : "") != 0) return -1;
    const int fd = Env::Open(path, flags);
    if (fd >= 0) Locked([&] { fd_paths_[fd] = path; });
    return fd;
  }
  int64_t Seek(int fd, int64_t pos) override { return Enter(kSeek, fd) != 0 ? -1 : Env::Seek(fd, pos); }
  ssize_t ReadAt(int fd, void* buf, size_t len, int64_t pos) override {
    size_t cut = 0;
    return Enter(kRead, fd, "", &cut) != 0 ? -1 : Env::ReadAt(fd, buf, len > cut ? len - cut : 0, pos);
  }
  ssize_t WriteAt(int fd, const void* buf, size_t len, int64_t pos) override {
    Locked([&] {
      const uint64_t at = static_cast<uint64_t>(pos);
      if (bound_hi_ > bound_lo_ && (pos < 0 || at < bound_lo_ || at + len > bound_hi_)) ++stray_;
    });
    size_t cut = 0;
    return Enter(kWrite, fd, "", &cut) != 0 ? -1 : Env::WriteAt(fd, buf, len > cut ? len - cut : 0, pos);
  }
  int Fsync(int fd) override { return Enter(kFsync, fd) != 0 ? -1 : Env::Fsync(fd); }
  int Close(int fd) override {
    const int err = Enter(kClose, fd);
    // The real descriptor is released even when the call is made to fail, as
    // Linux does after a failed close: an injected fault must not leak an fd.
    const int rc = Env::Close(fd);
    if (err != 0) errno = err;
    return err != 0 ? -1 : rc;
  }
  int StartThread(void* (*fn)(void*), void* arg) override {
    const int err = Enter(kThread, -1);
    return err != 0 ? err : Env::StartThread(fn, arg);
  }
  int MutexInit(pthread_mutex_t* m) override {
    const int err = Enter(kMutex, -1);
    return err != 0 ? err : Env::MutexInit(m);
  }
  int CondInit(pthread_cond_t* c) override {
    const int err = Enter(kCond, -1);
    return err != 0 ? err : Env::CondInit(c);
  }
  void SleepMicros(unsigned micros) override { Locked([&] { sleeps_.push_back(micros); }); }
  time_t Now() override {
    const time_t fixed = Locked([&] { return fixed_clock_ ? now_ : time_t{-1}; });
    return fixed != -1 ? fixed : Env::Now();
  }

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
               bool replace = false) {
    Locked([&] {
      if (replace) std::erase_if(rules_, [op](const Rule& r) { return r.op == op; });
      rules_.push_back(Rule{op, path, start, count, 0, err, cut, delay});
    });
  }
  // Counts the call and applies the rules under the lock, then sleeps any
  // delay.  Returns the errno to fail with (also set in errno), 0 for none;
  // `cut` gets the bytes to leave out.  `fd` < 0: the call names `path`.
  int Enter(Op op, int fd, const std::string& named = "", size_t* cut = nullptr) {
    int err = 0;
    unsigned delay = 0;
    Locked([&] {
      std::string path = named;
      if (fd >= 0) {
        auto it = fd_paths_.find(fd);
        if (it != fd_paths_.end()) {
          path = it->second;
        } else {  // opened before this Env was installed: ask the kernel
          char link[64], buf[PATH_MAX];
          snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
          const ssize_t n = readlink(link, buf, sizeof buf - 1);
          path.assign(buf, n > 0 ? static_cast<size_t>(n) : 0);
        }
        if (op == kClose) fd_paths_.erase(fd);
      }
      ++calls_[{op, path}];
      if (op == kWrite && power_budget_ >= 0 && !power_cut_ && power_budget_-- == 0) {
        power_cut_ = true;  // NV memory goes down with the HDDs
        for (int kind : {SANFWCTL_FAULT_READ, SANFWCTL_FAULT_WRITE}) sanfwctl_set_fault(kind, sanfwctl_call_count(kind), -1);
      }
      for (Rule& r : rules_) {
        if (r.op != op || !(r.path.empty() || r.path == path)) continue;
        if (++r.seen <= r.start || (r.count >= 0 && r.seen > r.start + r.count)) continue;
        delay += r.delay;
        if (cut != nullptr) *cut = std::max(*cut, r.cut);
        if (err == 0 && r.cut == 0) err = r.err;
      }
      if (power_cut_ && op < kClose) err = EIO;
    });
    if (delay > 0) ::usleep(delay);
    if (err != 0) errno = err;
    return err;
  }

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
