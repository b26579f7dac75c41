#include "common.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <vector>

#include "sanfwctl.h"
#include "sbacc_core.h"
#include "sbacc_env.h"

namespace sbacc_fuzz {

namespace {

class FuzzEnv : public sbacc::Env {
 public:
  void SleepMicros(unsigned) override {}
  int StartThread(void* (*fn)(void*), void* arg) override {
    return threads_.load() ? sbacc::Env::StartThread(fn, arg) : EAGAIN;
  }
  std::atomic<bool> threads_{true};
};

FuzzEnv g_env;

}  // namespace

const std::string& Dir() {
  // Never destroyed: the exit handler below still needs it.
  static const std::string& dir = *new std::string([] {
    // Every HDD write is flushed: in memory that costs nothing.
    const char* base = getenv("TMPDIR");
    if (base == nullptr) base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    std::string tmpl = std::string(base) + "/sbacc-fuzz-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) abort();
    std::string d = buf.data();
    setenv("SBACC_FILELIST", (d + "/filelist.ini").c_str(), 1);
    setenv("SANFWCTL_NV_IMAGE", (d + "/nv.img").c_str(), 1);
    setenv("SANFWCTL_NV_SIZE", "16384", 1);
    setenv("SBACC_MEMSET_MAXRETRY", "1", 1);
    setenv("SBACC_MEMGET_MAXRETRY", "1", 1);
    setenv("SBACC_REPAIR_MAXRETRY", "1", 1);
    setenv("SBACC_REPAIRLOCK_MAXRETRY", "1", 1);
    setenv("SANFWCTL_MASTER", "1", 1);
    unsetenv("MC_TRACE_FILE");
    unsetenv("MC_TRACE_DIR");
    sbacc::SetEnvForTest(&g_env);
    return d;
  }());
  static const bool cleanup = [] {
    atexit([] {
      std::error_code ec;
      std::filesystem::remove_all(Dir(), ec);
    });
    return true;
  }();
  (void)cleanup;
  return dir;
}

std::string HddPath(int i) { return Dir() + "/hdd" + std::to_string(i) + ".img"; }
std::string NvPath() { return Dir() + "/nv.img"; }
std::string ListPath() { return Dir() + "/filelist.ini"; }

void WriteFile(const std::string& path, const void* data, size_t len) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) abort();
  if (len > 0 && write(fd, data, len) != static_cast<ssize_t>(len)) abort();
  close(fd);
}

void PutBytes(const std::string& path, uint64_t pos, const void* data, size_t len) {
  const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) abort();
  if (pwrite(fd, data, len, static_cast<off_t>(pos)) != static_cast<ssize_t>(len)) abort();
  close(fd);
}

void UseThreads(bool on) { g_env.threads_.store(on); }


void ResetLibrary() {
  sbacc_reset_process_state();
}

void FreshSetup() {
  Dir();
  static const std::vector<uint8_t> zeros(16384, 0);
  for (int i = 0; i < kCopies; ++i) WriteFile(HddPath(i), zeros.data(), kHddBytes);
  WriteFile(NvPath(), zeros.data(), 16384);
  char list[1024];
  snprintf(list, sizeof list, "a,%llx,%llu,%s,%s\nb,%llx,%llu,%s,%s\n",
           static_cast<unsigned long long>(kAreaAddr), static_cast<unsigned long long>(kAreaSize),
           HddPath(0).c_str(), HddPath(1).c_str(), static_cast<unsigned long long>(kAreaAddr + kAreaSize),
           static_cast<unsigned long long>(kAreaSize), HddPath(0).c_str(), HddPath(1).c_str());
  WriteFile(ListPath(), list, strlen(list));
  sanfwctl_reset();
  ResetLibrary();
  // Opens the NV image now, so its descriptor is in place before a target
  // counts descriptors.
  uint8_t b = 0;
  cpfw_nv_region_t region = 2;
  cpfw_ioctl_nv_access req{reinterpret_cast<uintptr_t>(&b), 0, 1};
  Ezosanfwctl_read_nv(-1, &region, &req, 1);
}

}  // namespace sbacc_fuzz
