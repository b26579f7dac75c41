// A memory-backed Env: HDD files held in memory, for tests and fuzzing that
// need the library's durable I/O at memory speed.  Each file
// keeps what was written since its last flush, so a simulated power cut can
// drop it (LoseUnflushed) the way a disk cache loses it.  Threads, locks,
// sleeps and the clock are the default Env's.
//
// Header-only and never part of the shipped library.  File contents are the
// simulated medium, not the library's memory, so they come from the standard
// heap: leak checks of the library's own blocks stay exact.
#ifndef SBACC_ENV_MEM_H
#define SBACC_ENV_MEM_H

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "sbacc_env.h"

namespace sbacc {

// The locks of the test Envs, held across fork() like the library's own, so
// that a child forked while another thread is inside an Env can use it.
// Taken newest first: an Env stacked over another calls into it while
// holding its own lock, never the other way round.
class ForkSafeLocks {
 public:
  explicit ForkSafeLocks(std::mutex* m) : m_(m) {
    static std::once_flag once;
    std::call_once(once, [] { pthread_atfork(LockAll, UnlockAll, UnlockAll); });
    std::lock_guard<std::mutex> lock(RegistryMu());
    Registry().push_back(m_);
  }
  ~ForkSafeLocks() {
    std::lock_guard<std::mutex> lock(RegistryMu());
    std::erase(Registry(), m_);
  }
  ForkSafeLocks(const ForkSafeLocks&) = delete;
  ForkSafeLocks& operator=(const ForkSafeLocks&) = delete;

 private:
  static std::mutex& RegistryMu() {
    static std::mutex mu;
    return mu;
  }
  static std::vector<std::mutex*>& Registry() {
    static std::vector<std::mutex*> v;
    return v;
  }
  static void LockAll() {
    RegistryMu().lock();
    for (auto it = Registry().rbegin(); it != Registry().rend(); ++it) (*it)->lock();
  }
  static void UnlockAll() {
    for (std::mutex* m : Registry()) m->unlock();
    RegistryMu().unlock();
  }
  std::mutex* m_;
};

class MemEnv : public Env {
 public:
  using Bytes = std::vector<uint8_t>;

  // Files as a test sets them up: durable at once.
  void PutFile(const std::string& path, Bytes data) {
    std::lock_guard<std::mutex> lock(mu_);
    files_[path] = File{std::move(data), {}};
  }
  // Bytes [pos, pos+len) as a read sees them, zero past the end; a missing
  // file reads as zeros.
  Bytes Get(const std::string& path, uint64_t pos, size_t len) const {
    std::lock_guard<std::mutex> lock(mu_);
    Bytes out(len, 0);
    auto it = files_.find(path);
    if (it != files_.end() && pos < it->second.data.size())
      std::copy_n(it->second.data.begin() + static_cast<ptrdiff_t>(pos),
                  std::min<uint64_t>(len, it->second.data.size() - pos), out.begin());
    return out;
  }
  // Writes durably, the file made if need be (a test planting bytes).
  void Put(const std::string& path, uint64_t pos, const void* src, size_t len) {
    std::lock_guard<std::mutex> lock(mu_);
    File& f = files_[path];
    Place(f, pos, src, len);
    f.unflushed.clear();
  }
  void Remove(const std::string& path) {
    std::lock_guard<std::mutex> lock(mu_);
    files_.erase(path);
  }
  std::string PathOf(int fd) const {  // as opened; "" for no such descriptor
    std::lock_guard<std::mutex> lock(mu_);
    auto it = fds_.find(fd);
    return it == fds_.end() ? "" : it->second;
  }
  int OpenCount() const {
    std::lock_guard<std::mutex> lock(mu_);
    return static_cast<int>(fds_.size());
  }
  // A power cut: every write not followed by a flush of its file is undone,
  // newest first, so each file holds what its last flush left plus what the
  // test put there.
  void LoseUnflushed() {
    std::lock_guard<std::mutex> lock(mu_);
    for (auto& [path, f] : files_) {
      for (auto u = f.unflushed.rbegin(); u != f.unflushed.rend(); ++u) {
        f.data.resize(std::max(f.data.size(), u->pos + u->old.size()));
        std::copy(u->old.begin(), u->old.end(), f.data.begin() + static_cast<ptrdiff_t>(u->pos));
        f.data.resize(u->old_size);
      }
      f.unflushed.clear();
    }
  }

  // sbacc::Env: descriptors are numbers of this Env's own, far above the
  // kernel's, so a mix-up shows as EBADF.
  int Open(const char* path, int flags) override {
    std::lock_guard<std::mutex> lock(mu_);
    if (path == nullptr || (files_.count(path) == 0 && (flags & O_CREAT) == 0)) return Fail(ENOENT);
    if ((flags & O_TRUNC) != 0) files_[path] = File{};
    files_.try_emplace(path);
    fds_[next_fd_] = path;
    return next_fd_++;
  }
  ssize_t ReadAt(int fd, void* buf, size_t len, int64_t pos) override {
    std::lock_guard<std::mutex> lock(mu_);
    File* f = Find(fd);
    if (f == nullptr || pos < 0) return Fail(f == nullptr ? EBADF : EINVAL);
    const uint64_t at = static_cast<uint64_t>(pos);
    const size_t n = at >= f->data.size() ? 0 : std::min<uint64_t>(len, f->data.size() - at);
    if (n > 0) memcpy(buf, f->data.data() + at, n);
    return static_cast<ssize_t>(n);
  }
  ssize_t WriteAt(int fd, const void* buf, size_t len, int64_t pos) override {
    std::lock_guard<std::mutex> lock(mu_);
    File* f = Find(fd);
    if (f == nullptr || pos < 0) return Fail(f == nullptr ? EBADF : EINVAL);
    const uint64_t at = static_cast<uint64_t>(pos);
    Undo u{at, f->data.size(), {}};
    if (at < f->data.size())
      u.old.assign(f->data.begin() + static_cast<ptrdiff_t>(at),
                   f->data.begin() + static_cast<ptrdiff_t>(std::min<uint64_t>(at + len, f->data.size())));
    f->unflushed.push_back(std::move(u));
    Place(*f, at, buf, len);
    return static_cast<ssize_t>(len);
  }
  int Fsync(int fd) override {
    std::lock_guard<std::mutex> lock(mu_);
    File* f = Find(fd);
    if (f == nullptr) return Fail(EBADF);
    f->unflushed.clear();
    return 0;
  }
  int Close(int fd) override {
    std::lock_guard<std::mutex> lock(mu_);
    return fds_.erase(fd) == 1 ? 0 : Fail(EBADF);
  }

 private:
  struct Undo {  // what one unflushed write replaced
    uint64_t pos;
    size_t old_size;  // the file's size before it
    Bytes old;        // the bytes it overwrote (those inside the old size)
  };
  struct File {
    Bytes data;  // as reads see it
    std::vector<Undo> unflushed;
  };

  static int Fail(int err) {
    errno = err;
    return -1;
  }
  static void Place(File& f, uint64_t pos, const void* src, size_t len) {
    if (f.data.size() < pos + len) f.data.resize(pos + len, 0);
    if (len > 0) memcpy(f.data.data() + pos, src, len);
  }
  File* Find(int fd) {
    auto it = fds_.find(fd);
    return it == fds_.end() ? nullptr : &files_[it->second];
  }

  mutable std::mutex mu_;
  ForkSafeLocks fork_safe_{&mu_};
  std::map<std::string, File> files_;
  std::map<int, std::string> fds_;
  int next_fd_ = 1 << 24;
};

}  // namespace sbacc

#endif  // SBACC_ENV_MEM_H
