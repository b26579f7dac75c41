#include "fault_env.h"

#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <string>

namespace sbacc_test {

bool FaultEnv::Window::Hit() {
  ++seen;
  return seen > start && (count < 0 || seen <= start + count);
}

FaultEnv::FaultEnv() { sbacc::SetEnvForTest(this); }

FaultEnv::~FaultEnv() { sbacc::SetEnvForTest(nullptr); }

std::string FaultEnv::Canonical(const std::string& path) {
  if (path.empty()) return path;
  char buf[PATH_MAX];
  return realpath(path.c_str(), buf) != nullptr ? std::string(buf) : path;
}

std::string FaultEnv::PathOfLocked(int fd) const {
  auto it = fd_paths_.find(fd);
  if (it != fd_paths_.end()) return it->second;
  // Opened by the test itself: ask the kernel.
  char link[64];
  char buf[PATH_MAX];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  const ssize_t n = readlink(link, buf, sizeof buf - 1);
  if (n < 0) return std::string();
  std::string path(buf, static_cast<size_t>(n));
  static const std::string kDeleted = " (deleted)";
  if (path.size() > kDeleted.size() && path.compare(path.size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0) {
    path.resize(path.size() - kDeleted.size());
  }
  return path;
}

FaultEnv::Verdict FaultEnv::Decide(Op op, const std::string& path) {
  Verdict v;
  ++calls_[{op, path}];
  ++op_totals_[op];
  if (op == kWrite) {
    ++writes_;
    if (!power_cut_ && power_budget_ >= 0) {
      if (power_budget_ == 0) {
        power_cut_ = true;
      } else {
        --power_budget_;
      }
    }
  }
  for (Rule& r : rules_) {
    if (r.op != op || !(r.path.empty() || r.path == path)) continue;
    if (!r.window.Hit()) continue;
    if (r.cut > 0) {
      v.cut = std::max(v.cut, r.cut);
    } else if (v.err == 0) {
      v.err = r.err;
    }
  }
  if (power_cut_ && op != kClose) v.err = EIO;
  for (const Delay& d : delays_) {
    if (d.op == op && (d.path.empty() || d.path == path)) v.delay += d.micros;
  }
  return v;
}

void FaultEnv::FailOp(Op op, const std::string& path, long start, long count, int err) {
  std::lock_guard<std::mutex> lock(mu_);
  rules_.push_back(Rule{op, Canonical(path), Window{start, count, 0}, err, 0});
}

void FaultEnv::ShortOp(Op op, const std::string& path, long start, long count, size_t cut) {
  std::lock_guard<std::mutex> lock(mu_);
  rules_.push_back(Rule{op, Canonical(path), Window{start, count, 0}, 0, cut});
}

void FaultEnv::DelayOp(Op op, const std::string& path, unsigned micros) {
  std::lock_guard<std::mutex> lock(mu_);
  delays_.push_back(Delay{op, Canonical(path), micros});
}

void FaultEnv::ClearRules() {
  std::lock_guard<std::mutex> lock(mu_);
  rules_.clear();
  delays_.clear();
}

void FaultEnv::PowerCutAfterWrites(long n) {
  std::lock_guard<std::mutex> lock(mu_);
  power_budget_ = n;
  power_cut_ = false;
}

bool FaultEnv::PowerIsCut() const {
  std::lock_guard<std::mutex> lock(mu_);
  return power_cut_;
}

void FaultEnv::FailThreadStart(long start, long count, int err) {
  std::lock_guard<std::mutex> lock(mu_);
  thread_fail_ = Window{start, count, 0};
  thread_err_ = err;
}

void FaultEnv::FailMutexInit(long start, long count, int err) {
  std::lock_guard<std::mutex> lock(mu_);
  mutex_fail_ = Window{start, count, 0};
  mutex_err_ = err;
}

void FaultEnv::FailCondInit(long start, long count, int err) {
  std::lock_guard<std::mutex> lock(mu_);
  cond_fail_ = Window{start, count, 0};
  cond_err_ = err;
}

void FaultEnv::SetNow(time_t t) {
  std::lock_guard<std::mutex> lock(mu_);
  fixed_clock_ = true;
  now_ = t;
}

void FaultEnv::UseRealClock() {
  std::lock_guard<std::mutex> lock(mu_);
  fixed_clock_ = false;
}

void FaultEnv::RealSleep(bool on) {
  std::lock_guard<std::mutex> lock(mu_);
  real_sleep_ = on;
}

long FaultEnv::SleepCount() const {
  std::lock_guard<std::mutex> lock(mu_);
  return static_cast<long>(sleeps_.size());
}

uint64_t FaultEnv::SleptMicros() const {
  std::lock_guard<std::mutex> lock(mu_);
  return slept_micros_;
}

std::vector<unsigned> FaultEnv::Sleeps() const {
  std::lock_guard<std::mutex> lock(mu_);
  return sleeps_;
}

long FaultEnv::Calls(Op op, const std::string& path) const {
  std::lock_guard<std::mutex> lock(mu_);
  if (path.empty()) return op_totals_[op];
  auto it = calls_.find({op, Canonical(path)});
  return it == calls_.end() ? 0 : it->second;
}

long FaultEnv::Writes() const {
  std::lock_guard<std::mutex> lock(mu_);
  return writes_;
}

long FaultEnv::ThreadStarts() const {
  std::lock_guard<std::mutex> lock(mu_);
  return thread_starts_;
}

void FaultEnv::ResetCounters() {
  std::lock_guard<std::mutex> lock(mu_);
  calls_.clear();
  std::fill(std::begin(op_totals_), std::end(op_totals_), 0L);
  writes_ = 0;
  thread_starts_ = 0;
  sleeps_.clear();
  slept_micros_ = 0;
}

// ---- sbacc::Env -------------------------------------------------------------------

namespace {
void Pause(unsigned micros) {
  if (micros > 0) ::usleep(micros);
}
}  // namespace

int FaultEnv::Open(const char* path, int flags) {
  const std::string canon = Canonical(path != nullptr ? path : "");
  Verdict v;
  {
    std::lock_guard<std::mutex> lock(mu_);
    v = Decide(kOpen, canon);
  }
  Pause(v.delay);
  if (v.err != 0) {
    errno = v.err;
    return -1;
  }
  const int fd = Env::Open(path, flags);
  if (fd >= 0) {
    std::lock_guard<std::mutex> lock(mu_);
    fd_paths_[fd] = canon;
  }
  return fd;
}

int64_t FaultEnv::Seek(int fd, int64_t pos) {
  Verdict v;
  {
    std::lock_guard<std::mutex> lock(mu_);
    v = Decide(kSeek, PathOfLocked(fd));
  }
  Pause(v.delay);
  if (v.err != 0) {
    errno = v.err;
    return -1;
  }
  return Env::Seek(fd, pos);
}

ssize_t FaultEnv::ReadAt(int fd, void* buf, size_t len, int64_t pos) {
  Verdict v;
  {
    std::lock_guard<std::mutex> lock(mu_);
    v = Decide(kRead, PathOfLocked(fd));
  }
  Pause(v.delay);
  if (v.err != 0) {
    errno = v.err;
    return -1;
  }
  return Env::ReadAt(fd, buf, len > v.cut ? len - v.cut : 0, pos);
}

ssize_t FaultEnv::WriteAt(int fd, const void* buf, size_t len, int64_t pos) {
  Verdict v;
  {
    std::lock_guard<std::mutex> lock(mu_);
    v = Decide(kWrite, PathOfLocked(fd));
  }
  Pause(v.delay);
  if (v.err != 0) {
    errno = v.err;
    return -1;
  }
  return Env::WriteAt(fd, buf, len > v.cut ? len - v.cut : 0, pos);
}

int FaultEnv::Fsync(int fd) {
  Verdict v;
  {
    std::lock_guard<std::mutex> lock(mu_);
    v = Decide(kFsync, PathOfLocked(fd));
  }
  Pause(v.delay);
  if (v.err != 0) {
    errno = v.err;
    return -1;
  }
  return Env::Fsync(fd);
}

int FaultEnv::Close(int fd) {
  Verdict v;
  {
    std::lock_guard<std::mutex> lock(mu_);
    v = Decide(kClose, PathOfLocked(fd));
    fd_paths_.erase(fd);
  }
  Pause(v.delay);
  // The real descriptor is released even when the call is made to fail, as
  // Linux does after a failed close: an injected fault must not leak an fd.
  const int rc = Env::Close(fd);
  if (v.err != 0) {
    errno = v.err;
    return -1;
  }
  return rc;
}

int FaultEnv::StartThread(void* (*fn)(void*), void* arg) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    ++thread_starts_;
    if (thread_fail_.Hit()) return thread_err_;
  }
  return Env::StartThread(fn, arg);
}

int FaultEnv::MutexInit(pthread_mutex_t* m) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (mutex_fail_.Hit()) return mutex_err_;
  }
  return Env::MutexInit(m);
}

int FaultEnv::CondInit(pthread_cond_t* c) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (cond_fail_.Hit()) return cond_err_;
  }
  return Env::CondInit(c);
}

void FaultEnv::SleepMicros(unsigned micros) {
  bool real;
  {
    std::lock_guard<std::mutex> lock(mu_);
    sleeps_.push_back(micros);
    slept_micros_ += micros;
    real = real_sleep_;
  }
  if (real) ::usleep(micros);
}

time_t FaultEnv::Now() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (fixed_clock_) return now_;
  }
  return Env::Now();
}

}  // namespace sbacc_test
