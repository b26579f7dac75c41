// The Env's transfers that survive interruption, and its default NV memory
// and controller status through the firmware-control library.
#define SBACC_MODULE SBACC_MODULE_SBACC
#include <errno.h>

#include <algorithm>

#include "sanfwctl.h"
#include "sbacc_env.h"

namespace sbacc {

namespace {

// A signal that keeps arriving (an interval timer faster than the disk) can
// interrupt every attempt.  After this many interruptions in a row with no
// byte moved the call counts as failed, so a caller never spins for ever;
// an ordinary signal interrupts a call once or twice.
constexpr int kMaxInterrupts = 64;

template <class Call>
int Retry(Call call) {
  int rc;
  for (int i = 1; (rc = call()) < 0 && errno == EINTR && i < kMaxInterrupts; ++i) {
  }
  return rc;
}

// Calls call(done) until `len` bytes have moved, an attempt moves none (end
// of file, or a device that takes no more) or one fails for real.  One
// attempt even for len 0, as the plain call would make.
template <class Call>
ssize_t Complete(size_t len, Call call) {
  size_t done = 0;
  int interrupts = 0;
  do {
    const ssize_t n = call(done);
    if (n < 0) {
      if (errno == EINTR && ++interrupts < kMaxInterrupts) continue;
      return -1;
    }
    if (n == 0) break;
    done += std::min(static_cast<size_t>(n), len - done);
    interrupts = 0;
  } while (done < len);
  return static_cast<ssize_t>(done);
}

constexpr int kNvHandle = -1;              // the firmware library's "any controller" handle
constexpr cpfw_nv_region_t kNvRegion = 2;  // region that holds the area records
constexpr int kStatusHandle = 0;

}  // namespace

int Env::OpenRetry(const char* path, int flags) {
  return Retry([&] { return Open(path, flags); });
}

ssize_t Env::ReadFully(int fd, void* buf, size_t len, int64_t pos) {
  return Complete(len, [&](size_t done) {
    return ReadAt(fd, static_cast<char*>(buf) + done, len - done, pos + static_cast<int64_t>(done));
  });
}

ssize_t Env::WriteFully(int fd, const void* buf, size_t len, int64_t pos) {
  return Complete(len, [&](size_t done) {
    return WriteAt(fd, static_cast<const char*>(buf) + done, len - done, pos + static_cast<int64_t>(done));
  });
}

int Env::FsyncRetry(int fd) {
  return Retry([&] { return Fsync(fd); });
}

int Env::NvRead(uint64_t nv_offset, void* buf, size_t len) {
  cpfw_ioctl_nv_access req{static_cast<uint64_t>(reinterpret_cast<uintptr_t>(buf)), nv_offset, len};
  cpfw_nv_region_t region = kNvRegion;
  return Ezosanfwctl_read_nv(kNvHandle, &region, &req, 1);
}

int Env::NvWrite(uint64_t nv_offset, const void* buf, size_t len) {
  cpfw_ioctl_nv_access req{static_cast<uint64_t>(reinterpret_cast<uintptr_t>(buf)), nv_offset, len};
  cpfw_nv_region_t region = kNvRegion;
  return Ezosanfwctl_write_nv(kNvHandle, &region, &req, 1);
}

int Env::ControllerStatus(sanfw_getstatus_out* out) { return Ezosanfwctl_get_status(kStatusHandle, out); }

}  // namespace sbacc
