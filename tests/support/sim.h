// Test support: a simulated controller in a temporary directory (HDD image
// files, area list, NV image), trace capture and resource counting.
#ifndef SBACC_TEST_SIM_H
#define SBACC_TEST_SIM_H

#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "mc_logapi.h"
#include "sanfwctl.h"
#include "sbacc.h"
#include "sbacc_core.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"
#include "sbacc_types.h"

namespace sbacc_test {

using Bytes = std::vector<uint8_t>;

// Test data that differs for every seed (mod 256) and never repeats within
// 256 bytes, so a misplaced or stale byte shows.
inline Bytes Pattern(size_t n, int seed) {
  Bytes v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(seed * 37 + i * 11 + 3);
  return v;
}

// Raw file bytes, written in place (the file made if need be) / read
// zero-padded past the end or when the file is missing.
inline void WriteAt(const std::string& path, uint64_t pos, const void* data, size_t len) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  const ssize_t n = fd < 0 ? -1 : ::pwrite(fd, data, len, static_cast<off_t>(pos));
  if (fd >= 0) ::close(fd);
  if (n != static_cast<ssize_t>(len)) throw std::runtime_error("write " + path);
}
inline Bytes ReadAt(const std::string& path, uint64_t pos, size_t len) {
  Bytes out(len, 0);
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd >= 0 && ::pread(fd, out.data(), len, static_cast<off_t>(pos)) < 0) out.assign(len, 0);
  if (fd >= 0) ::close(fd);
  return out;
}
inline void MakeFile(const std::string& path, uint64_t bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc).flush();
  std::filesystem::resize_file(path, bytes);  // throws when the file could not be made
}

// A temporary directory removed with everything in it; its path canonical,
// as /proc/self/fd names its files.
class TempDir {
 public:
  TempDir() {
    const char* base = getenv("TMPDIR");
    path_ = std::string(base != nullptr ? base : "/tmp") + "/sbacc-test-XXXXXX";
    if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = std::filesystem::canonical(path_);
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

struct AreaSpec {
  std::string name;
  uint64_t addr;   // position of the header in every HDD file
  uint64_t size;   // header included
  int copies;      // uses HDD files 0 .. copies-1
  bool operator==(const AreaSpec&) const = default;
};

// A controller: `hdds` HDD image files of `hdd_bytes` each, an area list and
// an NV image in one temporary directory, wired up through the environment,
// with the library's process state and the stand-ins reset.
class Sim {
 public:
  explicit Sim(int hdds = 2, uint64_t hdd_bytes = 1 << 20) : hdds_(hdds), hdd_bytes_(hdd_bytes) {
    for (int i = 0; i < hdds_; ++i) MakeFile(HddPath(i), hdd_bytes_);
    // Full size from the start, so a test that plants NV bytes before the
    // library's first NV access does not leave a short image behind.
    MakeFile(NvPath(), 1 << 20);
    setenv("SBACC_FILELIST", dir_.File("filelist.ini").c_str(), 1);
    setenv("SANFWCTL_NV_IMAGE", NvPath().c_str(), 1);
    for (const char* v : {"SANFWCTL_FAIL_READ", "SANFWCTL_FAIL_WRITE", "SANFWCTL_FAIL_STATUS"}) unsetenv(v);
    sanfwctl_reset();
    MC_TestReloadEnv();
    sbacc_reset_process_state();
    SetFilelistText("");
  }
  ~Sim() {
    sbacc_reset_process_state();
    sanfwctl_reset();
  }

  void SetAreas(const std::vector<AreaSpec>& areas) {  // one list line per area
    areas_ = areas;
    std::string text = "# name,areaaddr(hex),areasize,hdd paths...\n";
    char addr[32];
    for (const AreaSpec& a : areas) {
      snprintf(addr, sizeof addr, "%llx", static_cast<unsigned long long>(a.addr));
      text += a.name + "," + addr + "," + std::to_string(a.size);
      for (int i = 0; i < a.copies; ++i) text += "," + HddPath(i);
      text += "\n";
    }
    SetFilelistText(text);
  }
  void SetFilelistText(const std::string& text) {
    std::ofstream(dir_.File("filelist.ini"), std::ios::binary | std::ios::trunc) << text;
  }

  std::string HddPath(int i) const { return dir_.File("hdd" + std::to_string(i) + ".img"); }
  std::string NvPath() const { return dir_.File("nv.img"); }  // where the stand-in keeps NV memory
  const std::string& Dir() const { return dir_.path(); }
  const std::vector<AreaSpec>& Areas() const { return areas_; }

  // Raw bytes of an HDD image / the NV image (zero-padded past the end).
  Bytes HddBytes(int hdd, uint64_t pos, size_t len) const { return ReadAt(HddPath(hdd), pos, len); }
  void PutHddBytes(int hdd, uint64_t pos, const void* data, size_t len) { WriteAt(HddPath(hdd), pos, data, len); }
  Bytes NvBytes(uint64_t pos, size_t len) const { return ReadAt(NvPath(), pos, len); }
  void PutNvBytes(uint64_t pos, const void* data, size_t len) { WriteAt(NvPath(), pos, data, len); }

  // Decoded records of area `index` (list position) / copy `hdd`, read,
  // written and changed in place.
  SBACC_MEM_LIST_ENTRY NvEntry(int index) const {
    SBACC_MEM_LIST_ENTRY e;
    sbacc_l_decode_entry(NvBytes(SBACC_NV_BASE + 128ull * index, 128).data(), &e);
    return e;
  }
  void PutNvEntry(int index, const SBACC_MEM_LIST_ENTRY& e) {
    uint8_t raw[128];
    sbacc_l_encode_entry(&e, raw);
    PutNvBytes(SBACC_NV_BASE + 128ull * index, raw, sizeof raw);
  }
  SBACC_HDD_HEADER Header(int area, int hdd) const {
    SBACC_HDD_HEADER h;
    sbacc_l_decode_header(HddBytes(hdd, areas_.at(area).addr, 128).data(), &h);
    return h;
  }
  void PutHeader(int area, int hdd, const SBACC_HDD_HEADER& h) {
    uint8_t raw[128];
    sbacc_l_encode_header(&h, raw);
    PutHddBytes(hdd, areas_.at(area).addr, raw, sizeof raw);
  }
  void EditHeader(int area, int hdd, const std::function<void(SBACC_HDD_HEADER&)>& f) {
    SBACC_HDD_HEADER h = Header(area, hdd);
    f(h);
    PutHeader(area, hdd, h);
  }
  void EditNvEntry(int index, const std::function<void(SBACC_MEM_LIST_ENTRY&)>& f) {
    SBACC_MEM_LIST_ENTRY e = NvEntry(index);
    f(e);
    PutNvEntry(index, e);
  }
  // Data bytes of an area's copy (from data offset 0 / from `offset`).
  Bytes Data(int area, int hdd, size_t len) const { return HddBytes(hdd, areas_.at(area).addr + 128, len); }
  void PutData(int area, int hdd, size_t offset, const Bytes& data) {
    PutHddBytes(hdd, areas_.at(area).addr + 128 + offset, data.data(), data.size());
  }
  // A copy's header, and its data from data offset 0.
  void PutCopy(int area, int hdd, const SBACC_HDD_HEADER& h, const Bytes& data) {
    PutHeader(area, hdd, h);
    PutData(area, hdd, 0, data);
  }

  // The area list, the NV records in use and every HDD image, to start
  // several runs from one state.
  struct Images {
    std::vector<AreaSpec> areas;
    std::vector<Bytes> files;  // NV, then HDD 0, 1, ...
    bool operator==(const Images&) const = default;
  };
  Images Save() const {
    Images im{areas_, {NvBytes(0, SBACC_NV_BASE + 128 * areas_.size())}};
    for (int i = 0; i < hdds_; ++i) im.files.push_back(HddBytes(i, 0, hdd_bytes_));
    return im;
  }
  void Load(const Images& im) {
    if (im.files.size() != static_cast<size_t>(hdds_) + 1) throw std::runtime_error("images of another controller");
    SetAreas(im.areas);
    PutNvBytes(0, im.files[0].data(), im.files[0].size());
    for (int i = 0; i < hdds_; ++i) PutHddBytes(i, 0, im.files[i + 1].data(), im.files[i + 1].size());
  }

  void RemoveHdd(int hdd) { ::unlink(HddPath(hdd).c_str()); }
  void RecreateHdd(int hdd) { MakeFile(HddPath(hdd), hdd_bytes_); }  // empty, full size

 private:
  TempDir dir_;
  int hdds_;
  uint64_t hdd_bytes_;
  std::vector<AreaSpec> areas_;
};

// Records as a system that ran before leaves them: magic and version valid.
inline SBACC_HDD_HEADER ValidHeader(const std::string& name, uint64_t areasize, int32_t filesize, uint32_t mask = 0) {
  SBACC_HDD_HEADER h{};
  memcpy(h.magic, SBACC_HDD_MAGIC, 4);
  strncpy(h.filename, name.c_str(), sizeof h.filename - 1);
  h.version = 3, h.areasize = static_cast<int32_t>(areasize), h.filesize = filesize, h.hddblockade = mask;
  return h;
}
inline SBACC_MEM_LIST_ENTRY ValidEntry(const std::string& name, int hddcount, uint32_t mask = 0) {
  SBACC_MEM_LIST_ENTRY e{};
  memcpy(e.magic, SBACC_MEM_MAGIC, 4);
  strncpy(e.filename, name.c_str(), sizeof e.filename - 1);
  e.version = 3, e.hddcount = hddcount, e.hddblockade = mask;
  return e;
}

// Failure paths at test speed: one NV retry, one repair lock attempt, this
// controller the master; temporary files in memory when there is such a place.
inline void QuickFailures() {
  if (getenv("TMPDIR") == nullptr && access("/dev/shm", W_OK) == 0) setenv("TMPDIR", "/dev/shm", 1);
  for (const char* v : {"SBACC_MEMSET_MAXRETRY", "SBACC_MEMGET_MAXRETRY", "SBACC_REPAIRLOCK_MAXRETRY"}) setenv(v, "1", 1);
  setenv("SANFWCTL_MASTER", "0", 1);
}

// sbacc_open that throws when the open is refused.
inline void* OpenArea(const std::string& name, const char* mode, boolean_t* clean = nullptr) {
  void* fp = nullptr;
  boolean_t cf = B_FALSE;
  const int rc = sbacc_open(name.c_str(), mode, &fp, &cf);
  if (rc != 0) throw std::runtime_error("open " + name + " " + mode + ": " + std::to_string(rc));
  if (clean != nullptr) *clean = cf;
  return fp;
}

// A handle as a process that stops leaves it: its files closed, nothing written.
inline void Abandon(void* fp) {
  auto* sfd = static_cast<SBACC_FILE_DISCRIPTER*>(fp);
  for (int h = 0; h < SBACC_HDD_MAX; ++h) sbacc_ma_close_hdd(sfd, h);
  sbacc_ma_free_sfd(sfd);
}

// Collects every trace line the process writes while it lives.  After the
// destructor returns no callback runs: the trace library calls them under
// its lock.
class TraceCapture {
 public:
  struct Line {
    int level;
    std::string module;
    std::string text;
  };
  TraceCapture() { MC_TestSetCapture(&Add, this); }
  ~TraceCapture() { MC_TestSetCapture(nullptr, nullptr); }
  std::vector<Line> Lines() const {
    std::lock_guard<std::mutex> lock(mu_);
    return lines_;
  }
  int Count(const std::string& exact) const { return Counts(exact, true); }
  int CountContaining(const std::string& part) const { return Counts(part, false); }
  bool Has(const std::string& exact) const { return Count(exact) > 0; }
  std::string Dump() const {  // for failure messages
    std::string out;
    for (const Line& l : Lines()) out += "L" + std::to_string(l.level) + " " + l.text + "\n";
    return out;
  }

 private:
  static void Add(void* self, int level, const char* module, int, const char* message) {
    auto* t = static_cast<TraceCapture*>(self);
    std::lock_guard<std::mutex> lock(t->mu_);
    t->lines_.push_back({level, module, message});
  }
  int Counts(const std::string& text, bool exact) const {
    int n = 0;
    for (const Line& l : Lines()) n += exact ? l.text == text : l.text.find(text) != std::string::npos;
    return n;
  }
  mutable std::mutex mu_;
  std::vector<Line> lines_;
};

// Open file descriptors of this process (less the iterator's own).
inline int OpenFdCount() {
  return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {})) - 1;
}

}  // namespace sbacc_test

#endif  // SBACC_TEST_SIM_H
