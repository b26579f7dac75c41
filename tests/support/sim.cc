#include "sim.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>

#include "mc_logapi.h"
#include "sanfwctl.h"
#include "sbacc_core.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"

namespace sbacc_test {

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  path_ = std::string(base != nullptr ? base : "/tmp") + "/sbacc-test-XXXXXX";
  if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = std::filesystem::canonical(path_);  // as /proc/self/fd names its files
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

namespace {

void WriteAt(const std::string& path, uint64_t pos, const void* data, size_t len) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  const ssize_t n = fd < 0 ? -1 : ::pwrite(fd, data, len, static_cast<off_t>(pos));
  if (fd >= 0) ::close(fd);
  if (n != static_cast<ssize_t>(len)) throw std::runtime_error("write " + path);
}

// Zero-padded past the end (or when the file is missing).
std::vector<uint8_t> ReadAt(const std::string& path, uint64_t pos, size_t len) {
  std::vector<uint8_t> out(len, 0);
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    if (::pread(fd, out.data(), len, static_cast<off_t>(pos)) < 0) out.assign(len, 0);
    ::close(fd);
  }
  return out;
}

void MakeFile(const std::string& path, uint64_t bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc).flush();
  std::filesystem::resize_file(path, bytes);  // throws when the file could not be made
}

}  // namespace

Sim::Sim(int hdds, uint64_t hdd_bytes) : hdds_(hdds), hdd_bytes_(hdd_bytes) {
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

Sim::~Sim() {
  sbacc_reset_process_state();
  sanfwctl_reset();
}

void Sim::SetAreas(const std::vector<AreaSpec>& areas) {
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

void Sim::SetFilelistText(const std::string& text) {
  std::ofstream(dir_.File("filelist.ini"), std::ios::binary | std::ios::trunc) << text;
}

std::string Sim::HddPath(int i) const { return dir_.File("hdd" + std::to_string(i) + ".img"); }

std::vector<uint8_t> Sim::HddBytes(int hdd, uint64_t pos, size_t len) const { return ReadAt(HddPath(hdd), pos, len); }

void Sim::PutHddBytes(int hdd, uint64_t pos, const void* data, size_t len) { WriteAt(HddPath(hdd), pos, data, len); }

std::vector<uint8_t> Sim::NvBytes(uint64_t pos, size_t len) const { return ReadAt(NvPath(), pos, len); }

void Sim::PutNvBytes(uint64_t pos, const void* data, size_t len) { WriteAt(NvPath(), pos, data, len); }

SBACC_MEM_LIST_ENTRY Sim::NvEntry(int index) const {
  std::vector<uint8_t> raw = NvBytes(SBACC_NV_BASE + 128ull * index, 128);
  SBACC_MEM_LIST_ENTRY e;
  sbacc_l_decode_entry(raw.data(), &e);
  return e;
}

void Sim::PutNvEntry(int index, const SBACC_MEM_LIST_ENTRY& e) {
  uint8_t raw[128];
  sbacc_l_encode_entry(&e, raw);
  PutNvBytes(SBACC_NV_BASE + 128ull * index, raw, sizeof raw);
}

SBACC_HDD_HEADER Sim::Header(int area, int hdd) const {
  std::vector<uint8_t> raw = HddBytes(hdd, areas_.at(area).addr, 128);
  SBACC_HDD_HEADER h;
  sbacc_l_decode_header(raw.data(), &h);
  return h;
}

void Sim::PutHeader(int area, int hdd, const SBACC_HDD_HEADER& h) {
  uint8_t raw[128];
  sbacc_l_encode_header(&h, raw);
  PutHddBytes(hdd, areas_.at(area).addr, raw, sizeof raw);
}

void Sim::EditHeader(int area, int hdd, const std::function<void(SBACC_HDD_HEADER&)>& f) {
  SBACC_HDD_HEADER h = Header(area, hdd);
  f(h);
  PutHeader(area, hdd, h);
}

void Sim::EditNvEntry(int index, const std::function<void(SBACC_MEM_LIST_ENTRY&)>& f) {
  SBACC_MEM_LIST_ENTRY e = NvEntry(index);
  f(e);
  PutNvEntry(index, e);
}

void Sim::PutData(int area, int hdd, size_t offset, const std::vector<uint8_t>& data) {
  PutHddBytes(hdd, areas_.at(area).addr + 128 + offset, data.data(), data.size());
}

std::vector<uint8_t> Sim::Data(int area, int hdd, size_t len) const {
  return HddBytes(hdd, areas_.at(area).addr + 128, len);
}

void Sim::PutCopy(int area, int hdd, const SBACC_HDD_HEADER& h, const std::vector<uint8_t>& data) {
  PutHeader(area, hdd, h);
  PutData(area, hdd, 0, data);
}

SBACC_HDD_HEADER ValidHeader(const std::string& name, uint64_t areasize, int32_t filesize, uint32_t mask) {
  SBACC_HDD_HEADER h{};
  memcpy(h.magic, SBACC_HDD_MAGIC, 4);
  strncpy(h.filename, name.c_str(), sizeof h.filename - 1);
  h.version = 3, h.areasize = static_cast<int32_t>(areasize), h.filesize = filesize, h.hddblockade = mask;
  return h;
}

SBACC_MEM_LIST_ENTRY ValidEntry(const std::string& name, int hddcount, uint32_t mask) {
  SBACC_MEM_LIST_ENTRY e{};
  memcpy(e.magic, SBACC_MEM_MAGIC, 4);
  strncpy(e.filename, name.c_str(), sizeof e.filename - 1);
  e.version = 3, e.hddcount = hddcount, e.hddblockade = mask;
  return e;
}

void QuickFailures() {
  if (getenv("TMPDIR") == nullptr && access("/dev/shm", W_OK) == 0) setenv("TMPDIR", "/dev/shm", 1);
  for (const char* v : {"SBACC_MEMSET_MAXRETRY", "SBACC_MEMGET_MAXRETRY", "SBACC_REPAIRLOCK_MAXRETRY"}) setenv(v, "1", 1);
  setenv("SANFWCTL_MASTER", "0", 1);
}

void* OpenArea(const std::string& name, const char* mode, boolean_t* clean) {
  void* fp = nullptr;
  boolean_t cf = B_FALSE;
  const int rc = sbacc_open(name.c_str(), mode, &fp, &cf);
  if (rc != 0) throw std::runtime_error("open " + name + " " + mode + ": " + std::to_string(rc));
  if (clean != nullptr) *clean = cf;
  return fp;
}

void Abandon(void* fp) {
  auto* sfd = static_cast<SBACC_FILE_DISCRIPTER*>(fp);
  for (int h = 0; h < SBACC_HDD_MAX; ++h) sbacc_ma_close_hdd(sfd, h);
  sbacc_ma_free_sfd(sfd);
}

Sim::Images Sim::Save() const {
  Images im{areas_, {NvBytes(0, SBACC_NV_BASE + 128 * areas_.size())}};
  for (int i = 0; i < hdds_; ++i) im.files.push_back(HddBytes(i, 0, hdd_bytes_));
  return im;
}

void Sim::Load(const Images& im) {
  if (im.files.size() != static_cast<size_t>(hdds_) + 1) throw std::runtime_error("images of another controller");
  SetAreas(im.areas);
  PutNvBytes(0, im.files[0].data(), im.files[0].size());
  for (int i = 0; i < hdds_; ++i) PutHddBytes(i, 0, im.files[i + 1].data(), im.files[i + 1].size());
}

void Sim::RemoveHdd(int hdd) { ::unlink(HddPath(hdd).c_str()); }

void Sim::RecreateHdd(int hdd) { MakeFile(HddPath(hdd), hdd_bytes_); }

TraceCapture::TraceCapture() { MC_TestSetCapture(&Add, this); }

// After this returns no callback runs: the trace library calls them under its lock.
TraceCapture::~TraceCapture() { MC_TestSetCapture(nullptr, nullptr); }

void TraceCapture::Add(void* self, int level, const char* module, int, const char* message) {
  auto* t = static_cast<TraceCapture*>(self);
  std::lock_guard<std::mutex> lock(t->mu_);
  t->lines_.push_back({level, module, message});
}

std::vector<TraceCapture::Line> TraceCapture::Lines() const {
  std::lock_guard<std::mutex> lock(mu_);
  return lines_;
}

int TraceCapture::Count(const std::string& exact) const {
  int n = 0;
  for (const Line& l : Lines()) n += (l.text == exact);
  return n;
}

int TraceCapture::CountContaining(const std::string& part) const {
  int n = 0;
  for (const Line& l : Lines()) n += (l.text.find(part) != std::string::npos);
  return n;
}

std::string TraceCapture::Dump() const {
  std::string out;
  for (const Line& l : Lines()) out += "L" + std::to_string(l.level) + " " + l.text + "\n";
  return out;
}

int OpenFdCount() {
  // The iterator's own descriptor is open while it counts.
  const auto n = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  return static_cast<int>(n) - 1;
}

}  // namespace sbacc_test
