#include "sim.h"

#include <dirent.h>
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

namespace sbacc_test {

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string tmpl = std::string(base != nullptr ? base : "/tmp") + "/sbacc-test-XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = buf.data();
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

namespace {

void WriteAt(const std::string& path, uint64_t pos, const void* data, size_t len) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) throw std::runtime_error("open " + path);
  ssize_t n = ::pwrite(fd, data, len, static_cast<off_t>(pos));
  ::close(fd);
  if (n != static_cast<ssize_t>(len)) throw std::runtime_error("pwrite " + path);
}

std::vector<uint8_t> ReadAt(const std::string& path, uint64_t pos, size_t len) {
  std::vector<uint8_t> out(len, 0);
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return out;
  ssize_t n = ::pread(fd, out.data(), len, static_cast<off_t>(pos));
  (void)n;
  ::close(fd);
  return out;
}

void MakeFile(const std::string& path, uint64_t bytes) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) throw std::runtime_error("create " + path);
  if (::ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
    ::close(fd);
    throw std::runtime_error("ftruncate " + path);
  }
  ::close(fd);
}

}  // namespace

Sim::Sim(int hdds, uint64_t hdd_bytes) : hdds_(hdds), hdd_bytes_(hdd_bytes) {
  for (int i = 0; i < hdds_; ++i) MakeFile(HddPath(i), hdd_bytes_);
  // Full size from the start, so a test that plants NV bytes before the
  // library's first NV access does not leave a short image behind.
  MakeFile(NvPath(), 1 << 20);
  setenv("SBACC_FILELIST", dir_.File("filelist.ini").c_str(), 1);
  setenv("SANFWCTL_NV_IMAGE", NvPath().c_str(), 1);
  unsetenv("SANFWCTL_FAIL_READ");
  unsetenv("SANFWCTL_FAIL_WRITE");
  unsetenv("SANFWCTL_FAIL_STATUS");
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
  std::ofstream out(dir_.File("filelist.ini"), std::ios::binary | std::ios::trunc);
  out << text;
}

std::string Sim::HddPath(int i) const { return dir_.File("hdd" + std::to_string(i) + ".img"); }

std::vector<uint8_t> Sim::HddBytes(int hdd, uint64_t pos, size_t len) const {
  return ReadAt(HddPath(hdd), pos, len);
}

void Sim::PutHddBytes(int hdd, uint64_t pos, const void* data, size_t len) {
  WriteAt(HddPath(hdd), pos, data, len);
}

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

std::vector<uint8_t> Sim::Data(int area, int hdd, size_t len) const {
  return HddBytes(hdd, areas_.at(area).addr + 128, len);
}

void Sim::RemoveHdd(int hdd) { ::unlink(HddPath(hdd).c_str()); }

void Sim::RecreateHdd(int hdd) { MakeFile(HddPath(hdd), hdd_bytes_); }

// ---- Trace capture --------------------------------------------------------------

namespace {
std::mutex g_trace_mu;
std::vector<TraceCapture::Line>* g_trace_lines = nullptr;

void CaptureLine(void*, int level, const char* module, int, const char* message) {
  std::lock_guard<std::mutex> lock(g_trace_mu);
  if (g_trace_lines != nullptr) g_trace_lines->push_back({level, module, message});
}
}  // namespace

TraceCapture::TraceCapture() {
  {
    std::lock_guard<std::mutex> lock(g_trace_mu);
    delete g_trace_lines;
    g_trace_lines = new std::vector<Line>();
  }
  // Outside our lock: the trace library calls CaptureLine under its own.
  MC_TestSetCapture(&CaptureLine, nullptr);
}

TraceCapture::~TraceCapture() {
  MC_TestSetCapture(nullptr, nullptr);
  std::lock_guard<std::mutex> lock(g_trace_mu);
  delete g_trace_lines;
  g_trace_lines = nullptr;
}

std::vector<TraceCapture::Line> TraceCapture::Lines() const {
  std::lock_guard<std::mutex> lock(g_trace_mu);
  return g_trace_lines != nullptr ? *g_trace_lines : std::vector<Line>();
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

void TraceCapture::Clear() {
  std::lock_guard<std::mutex> lock(g_trace_mu);
  if (g_trace_lines != nullptr) g_trace_lines->clear();
}

std::string TraceCapture::Dump() const {
  std::string out;
  for (const Line& l : Lines()) out += "L" + std::to_string(l.level) + " " + l.text + "\n";
  return out;
}

int OpenFdCount() {
  int n = 0;
  DIR* d = opendir("/proc/self/fd");
  if (d == nullptr) return -1;
  while (struct dirent* e = readdir(d)) {
    if (e->d_name[0] != '.') ++n;
  }
  closedir(d);
  return n - 1;  // the directory stream itself
}

}  // namespace sbacc_test
