#include "fault_env.h"

#include <limits.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "sanfwctl.h"

namespace sbacc_test {

FaultEnv::FaultEnv() { sbacc::SetEnvForTest(this); }

FaultEnv::~FaultEnv() { sbacc::SetEnvForTest(nullptr); }

void FaultEnv::AddRule(Op op, const std::string& path, long start, long count, int err, size_t cut, unsigned delay,
                       bool replace) {
  std::lock_guard<std::mutex> lock(mu_);
  if (replace) std::erase_if(rules_, [op](const Rule& r) { return r.op == op; });
  rules_.push_back(Rule{op, path, start, count, 0, err, cut, delay});
}

void FaultEnv::ClearRules() {
  std::lock_guard<std::mutex> lock(mu_);
  rules_.clear();
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

void FaultEnv::BoundWrites(uint64_t lo, uint64_t hi) {
  std::lock_guard<std::mutex> lock(mu_);
  bound_lo_ = lo, bound_hi_ = hi, stray_ = 0;
}

long FaultEnv::StrayWrites() const {
  std::lock_guard<std::mutex> lock(mu_);
  return stray_;
}

void FaultEnv::SetNow(time_t t) {
  std::lock_guard<std::mutex> lock(mu_);
  fixed_clock_ = true;
  now_ = t;
}

std::vector<unsigned> FaultEnv::Sleeps() const {
  std::lock_guard<std::mutex> lock(mu_);
  return sleeps_;
}

long FaultEnv::Calls(Op op, const std::string& path) const {
  std::lock_guard<std::mutex> lock(mu_);
  long n = 0;
  for (const auto& [key, count] : calls_) n += key.first == op && (path.empty() || key.second == path) ? count : 0;
  return n;
}

void FaultEnv::ResetCounters() {
  std::lock_guard<std::mutex> lock(mu_);
  calls_.clear();
  sleeps_.clear();
}

int FaultEnv::Enter(Op op, int fd, const std::string& named, size_t* cut) {
  int err = 0;
  unsigned delay = 0;
  {
    std::lock_guard<std::mutex> lock(mu_);
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
  }
  if (delay > 0) ::usleep(delay);
  if (err != 0) errno = err;
  return err;
}

int FaultEnv::Open(const char* path, int flags) {
  if (Enter(kOpen, -1, path != nullptr ? path : "") != 0) return -1;
  const int fd = Env::Open(path, flags);
  if (fd >= 0) {
    std::lock_guard<std::mutex> lock(mu_);
    fd_paths_[fd] = path;
  }
  return fd;
}

int64_t FaultEnv::Seek(int fd, int64_t pos) { return Enter(kSeek, fd) != 0 ? -1 : Env::Seek(fd, pos); }

ssize_t FaultEnv::ReadAt(int fd, void* buf, size_t len, int64_t pos) {
  size_t cut = 0;
  return Enter(kRead, fd, "", &cut) != 0 ? -1 : Env::ReadAt(fd, buf, len > cut ? len - cut : 0, pos);
}

ssize_t FaultEnv::WriteAt(int fd, const void* buf, size_t len, int64_t pos) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    const uint64_t at = static_cast<uint64_t>(pos);
    if (bound_hi_ > bound_lo_ && (pos < 0 || at < bound_lo_ || at + len > bound_hi_)) ++stray_;
  }
  size_t cut = 0;
  return Enter(kWrite, fd, "", &cut) != 0 ? -1 : Env::WriteAt(fd, buf, len > cut ? len - cut : 0, pos);
}

int FaultEnv::Fsync(int fd) { return Enter(kFsync, fd) != 0 ? -1 : Env::Fsync(fd); }

int FaultEnv::Close(int fd) {
  const int err = Enter(kClose, fd);
  // The real descriptor is released even when the call is made to fail, as
  // Linux does after a failed close: an injected fault must not leak an fd.
  const int rc = Env::Close(fd);
  if (err != 0) errno = err;
  return err != 0 ? -1 : rc;
}

int FaultEnv::StartThread(void* (*fn)(void*), void* arg) {
  const int err = Enter(kThread, -1);
  return err != 0 ? err : Env::StartThread(fn, arg);
}

int FaultEnv::MutexInit(pthread_mutex_t* m) {
  const int err = Enter(kMutex, -1);
  return err != 0 ? err : Env::MutexInit(m);
}

int FaultEnv::CondInit(pthread_cond_t* c) {
  const int err = Enter(kCond, -1);
  return err != 0 ? err : Env::CondInit(c);
}

void FaultEnv::SleepMicros(unsigned micros) {
  std::lock_guard<std::mutex> lock(mu_);
  sleeps_.push_back(micros);
}

time_t FaultEnv::Now() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (fixed_clock_) return now_;
  }
  return Env::Now();
}

}  // namespace sbacc_test
