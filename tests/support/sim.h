// Test support: a simulated controller in a temporary directory (HDD image
// files, area list, NV image), a fault-injecting Env, trace capture and
// resource counting.
#ifndef SBACC_TEST_SIM_H
#define SBACC_TEST_SIM_H

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <climits>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <numeric>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "mc_logapi.h"
#include "sanfwctl.h"
#include "sbacc.h"
#include "sbacc_alloc.h"
#include "sbacc_core.h"
#include "sbacc_crew.h"
#include "sbacc_env.h"
#include "sbacc_env_mem.h"
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

inline Bytes Text(const char* s) { return Bytes(s, s + strlen(s)); }

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

// Open file descriptors of this process (less the iterator's own).
inline int OpenFdCount() {
  return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {})) - 1;
}

struct AreaSpec {
  std::string name;
  uint64_t addr;   // position of the header in every HDD file
  uint64_t size;   // header included
  int copies;      // uses HDD files 0 .. copies-1
  bool operator==(const AreaSpec&) const = default;
};

// A controller: `hdds` HDD image files of `hdd_bytes` each, an area list and
// an NV image in one temporary directory, wired up through the environment,
// with the library's process state and the stand-ins reset.  With `memory`
// the HDD images live in a MemEnv, the library's Env while the Sim lives.
class Sim {
 public:
  explicit Sim(int hdds = 2, uint64_t hdd_bytes = 1 << 20, bool memory = false)
      : hdds_(hdds), hdd_bytes_(hdd_bytes), mem_(memory ? new sbacc::MemEnv : nullptr) {
    if (mem_) sbacc::SetEnvForTest(mem_.get());
    for (int i = 0; i < hdds_; ++i) RecreateHdd(i);
    // Full size from the start, so a test that plants NV bytes before the
    // library's first NV access does not leave a short image behind.
    if (!mem_) MakeFile(NvPath(), 1 << 20);
    setenv("SBACC_FILELIST", dir_.File("filelist.ini").c_str(), 1);
    setenv("SANFWCTL_NV_IMAGE", ((mem_ ? "mem:" : "") + NvPath()).c_str(), 1);
    for (const char* v : {"SANFWCTL_FAIL_READ", "SANFWCTL_FAIL_WRITE", "SANFWCTL_FAIL_STATUS"}) unsetenv(v);
    sanfwctl_reset();
    MC_TestReloadEnv();
    sbacc_reset_process_state();
    SetFilelistText("");
  }
  ~Sim() {
    sbacc_reset_process_state();
    sanfwctl_reset();
    if (mem_) sbacc::SetEnvForTest(nullptr);
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
  std::string NvPath() const { return dir_.File("nv.img"); }  // the stand-in's NV image (in memory mode only its name)
  const std::vector<AreaSpec>& Areas() const { return areas_; }

  // Raw bytes of an HDD image / the NV image (zero-padded past the end).
  Bytes HddBytes(int hdd, uint64_t pos, size_t len) const {
    return mem_ ? mem_->Get(HddPath(hdd), pos, len) : ReadAt(HddPath(hdd), pos, len);
  }
  void PutHddBytes(int hdd, uint64_t pos, const void* data, size_t len) {
    mem_ ? mem_->Put(HddPath(hdd), pos, data, len) : WriteAt(HddPath(hdd), pos, data, len);
  }
  Bytes NvBytes(uint64_t pos, size_t len) const {
    Bytes out(len, 0);
    if (sanfwctl_test_access(pos, out.data(), len, 0) != 0) throw std::runtime_error("NV read");
    return out;
  }
  void PutNvBytes(uint64_t pos, const void* data, size_t len) {
    if (sanfwctl_test_access(pos, const_cast<void*>(data), len, 1) != 0) throw std::runtime_error("NV write");
  }

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

  // Why the usable copies of an area (those outside `mask`) disagree, "" if
  // they do not: each must carry `mask` as its blockade word and match the
  // lowest one in its data up to the larger size and in its header (every
  // byte, or with `stamps` false all but the open and close stamps).
  std::string Disagreement(int area, uint32_t mask = 0, bool stamps = true) const {
    const AreaSpec& a = areas_.at(area);
    const uint32_t usable = ((1u << a.copies) - 1u) & ~mask;
    const int ref = std::countr_zero(usable);
    auto raw = [&](int i, int32_t size) {
      Bytes b = HddBytes(i, a.addr, 128 + static_cast<size_t>(std::clamp<int64_t>(size, 0, a.size - 128)));
      if (!stamps) std::fill(b.begin() + kHdrOpenflag, b.begin() + kHdrWriteflag, 0);
      return b;
    };
    for (int i = ref; i < a.copies; ++i) {
      if ((usable >> i & 1u) == 0) continue;
      if (Header(area, i).hddblockade != mask) return "copy " + std::to_string(i) + " has another blockade word";
      const int32_t size = std::max(Header(area, ref).filesize, Header(area, i).filesize);
      if (raw(i, size) != raw(ref, size)) return "copy " + std::to_string(i) + " differs from copy " + std::to_string(ref);
    }
    return "";
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

  // What a run may not leave behind: open descriptors, tracked bytes and
  // live blocks.  The NV image is opened first, as the stand-in keeps it
  // open from its first use on.
  struct Held {
    int fds, bytes;
    long blocks;
    bool operator==(const Held&) const = default;
  };
  Held HeldNow() const {
    uint8_t b = 0;
    sbacc::Env{}.NvRead(SBACC_NV_BASE, &b, 1);  // past the Env a test installed
    return {OpenFdCount() + (mem_ ? mem_->OpenCount() : 0), sbacc::AllocTrackedTotal(), sbacc::AllocLiveBlocks()};
  }

  void RemoveHdd(int hdd) { mem_ ? mem_->Remove(HddPath(hdd)) : (void)::unlink(HddPath(hdd).c_str()); }
  void RecreateHdd(int hdd) {  // empty, full size
    mem_ ? mem_->PutFile(HddPath(hdd), Bytes(hdd_bytes_, 0)) : MakeFile(HddPath(hdd), hdd_bytes_);
  }

 private:
  TempDir dir_;
  int hdds_;
  uint64_t hdd_bytes_;
  std::unique_ptr<sbacc::MemEnv> mem_;
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

// Failure paths at test speed: one NV retry, a repair lock given up after a
// second and a lock byte taken for stale after a second, this controller the
// master; temporary files in memory when there is such a place.
inline void QuickFailures() {
  if (getenv("TMPDIR") == nullptr && access("/dev/shm", W_OK) == 0) setenv("TMPDIR", "/dev/shm", 1);
  for (const char* v : {"SBACC_MEMSET_MAXRETRY", "SBACC_MEMGET_MAXRETRY", "SBACC_REPAIRLOCK_WAIT", "SBACC_REPAIRLOCK_STALE"})
    setenv(v, "1", 1);
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

// One session that writes `data` at offset 0 of an area.
inline void Store(const std::string& name, const Bytes& data) {
  void* fp = OpenArea(name, "w");
  if (sbacc_write(data.data(), static_cast<int>(data.size()), 0, fp) != static_cast<int>(data.size()) ||
      sbacc_close(fp) != 0)
    throw std::runtime_error("store " + name);
}

// Copy `hdd` of an area against its integrity record (SBACC_VERIFY_*, or a
// negative code when it cannot be read).
inline int VerifyCopy(const std::string& name, int hdd) {
  SBACC_FILE_DISCRIPTER* sfd = nullptr;
  if (sbacc_ma_alloc_sfd(name.c_str(), SBACC_OPENMODE_READ, &sfd) != 0) return SBACC_E_PARAM;
  sfd->fd[hdd] = sbacc::CurrentEnv()->Open(sfd->sfe.hddname[hdd], O_RDONLY);
  SBACC_HDD_HEADER h;
  int rc = sbacc_l_hddget_header(sfd, hdd, &h);
  if (rc == 0) rc = sbacc_ma_verify_copy(sfd, hdd, &h);
  sbacc_ma_close_hdd(sfd, hdd);
  sbacc_ma_free_sfd(sfd);
  return rc;
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

// A fault-injecting Env for tests.  While an instance lives it is the
// library's environment: HDD file calls, NV transfers and status calls go to
// the Env it replaced (real files, or the simulated controller's MemEnv; the
// NV stand-in) unless a rule says otherwise, sleeps are recorded instead of
// slept, and the clock can be fixed.
//
// Paths: a rule names a path exactly as the library opens it ("" = any
// path; NV transfers and status calls are on kNv); a descriptor opened
// before this Env was installed is resolved by the Env below (a MemEnv or
// another FaultEnv) or through /proc/self/fd, so the simulated controller's
// paths are canonical.
//
// Counting: each rule counts the calls it matches from the moment it is added;
// calls S+1 .. S+N are hit (N = -1: every call after the first S).  Calls()
// counters run from construction (or ResetCounters) and include failed calls.
//
// Thread-safe; the real system calls run outside the lock.
class FaultEnv : public sbacc::Env {
  // Runs f under the lock (defined first: the members below use it).
  template <class F>
  auto Locked(F f) const {
    std::lock_guard<std::mutex> lock(mu_);
    return f();
  }

 public:
  // The file calls, the thread and lock set-ups (which name no path), NV
  // memory and the controller status.
  enum Op { kOpen = 0, kSeek, kRead, kWrite, kFsync, kClose, kThread, kMutex, kCond, kNvRead, kNvWrite, kStatus };
  static constexpr const char* kNv = "NV";

  FaultEnv() : base_(sbacc::CurrentEnv()) { sbacc::SetEnvForTest(this); }
  ~FaultEnv() override { sbacc::SetEnvForTest(base_); }
  FaultEnv(const FaultEnv&) = delete;
  FaultEnv& operator=(const FaultEnv&) = delete;

  // Calls start+1 .. start+count of `op` on `path` fail with `err` (-1 return).
  // EINTR makes an interrupted call, for the library to make again.
  void FailOp(Op op, const std::string& path, long start, long count, int err) { AddRule(op, path, start, count, err, 0); }
  // Same calls of kRead / kWrite move `cut` bytes fewer than asked (at least
  // 0), or with kHalf half of it (rounded up: any call asking for bytes moves some).
  static constexpr size_t kHalf = SIZE_MAX;
  void ShortOp(Op op, const std::string& path, long start, long count, size_t cut) { AddRule(op, path, start, count, 0, cut); }
  void ClearRules() { Locked([&] { rules_.clear(); }); }  // counters stay

  // Power cut: counting writes on all paths from now, NV writes among them
  // (path kNv), write n+1 fails with EIO, and from then on every file call
  // but Close fails with EIO (Close still closes the descriptor), and so does
  // every NV transfer.  n < 0: no cut.  `lands(i, path, len)` says how many
  // bytes of write i (1 .. n+1) reach the file, by default all of 1 .. n and
  // none of n+1; an NV write is one request and lands whole or not at all.  A
  // write before the cut is reported as made however much of it lands.  kNow
  // cuts the power as write n is made, before its flush; kLoseUnflushed also
  // drops every write the MemEnv below holds unflushed.
  enum When { kNextWrite, kNow, kLoseUnflushed };
  using Landing = std::function<size_t(long i, const std::string& path, size_t len)>;
  void PowerCutAfterWrites(long n, When when = kNextWrite, Landing lands = {}) {
    Locked([&] { power_budget_ = n, power_writes_ = 0, power_cut_ = false, when_ = when, lands_ = std::move(lands); });
  }
  bool PowerIsCut() const { return Locked([&] { return power_cut_; }); }

  // From now every HDD write must land inside bytes [lo, hi) of its file (the
  // area the call works on): one that does not aborts the process on the spot.
  void BoundWrites(uint64_t lo, uint64_t hi) { Locked([&] { bound_lo_ = lo, bound_hi_ = hi; }); }

  void SetNow(time_t t) { Locked([&] { fixed_clock_ = true, now_ = t; }); }  // fixes the clock

  // Shakes the schedule from now: around every file call and at every point
  // the library marks (tasks handed out and reporting, NV record locks), a
  // yield or a sleep of up to 60 us, chosen by `seed` and the call's number.
  // 0 stops it.
  void Shake(uint64_t seed) { shake_seed_ = seed, shake_calls_ = 0; }
  void Reschedule() override { Jiggle(); }
  std::vector<unsigned> Sleeps() const { return Locked([&] { return sleeps_; }); }
  // From now every sleep, once recorded, runs `hook` with its length outside
  // the lock: a test's stand-in for what another controller does meanwhile,
  // or a real pause.
  void OnSleep(std::function<void(unsigned)> hook) { Locked([&] { on_sleep_ = std::move(hook); }); }

  // Calls of `op` on `path` so far ("" = on every path together).
  long Calls(Op op, const std::string& path = "") const {
    return Locked([&] {
      long n = 0;
      for (const auto& [at, count] : calls_) n += path.empty() || at == path ? count[op] : 0;
      return n;
    });
  }
  // Every write so far, NV writes included, in the order they were made.
  struct Write {
    int64_t pos;
    size_t len;
    std::string path;
  };
  std::vector<Write> WriteLog() const { return Locked([&] { return writes_; }); }
  // From now `hook` sees every write (as logged) before it is made, outside
  // the lock: a test's stand-in for what happens elsewhere meanwhile.
  void OnWrite(std::function<void(const Write&)> hook) { Locked([&] { on_write_ = std::move(hook); }); }
  // Zeroes the call counters, the sleep record and the write log (rules
  // keep their own).
  void ResetCounters() {
    Locked([&] {
      for (auto& [path, n] : calls_) n.fill(0);  // entries stay: open descriptors point at them
      sleeps_.clear(), writes_.clear();
    });
  }

  // sbacc::Env
  int Open(const char* path, int flags) override {
    if (Enter(kOpen, -1, path != nullptr ? path : "") != 0) return -1;
    const int fd = base_->Open(path, flags);
    if (fd >= 0) Locked([&] { fd_paths_[fd] = {path, &calls_[path]}; });
    return fd;
  }
  int64_t Seek(int fd, int64_t pos) override { return Enter(kSeek, fd) != 0 ? -1 : base_->Seek(fd, pos); }
  ssize_t ReadAt(int fd, void* buf, size_t len, int64_t pos) override {
    size_t cut = 0;
    return Enter(kRead, fd, "", &cut) != 0 ? -1 : base_->ReadAt(fd, buf, Moved(len, cut), pos);
  }
  ssize_t WriteAt(int fd, const void* buf, size_t len, int64_t pos) override {
    size_t cut = 0;
    int err = Enter(kWrite, fd, "", &cut);
    size_t n = Moved(len, cut);
    bool made = false;
    std::function<void(const Write&)> hook;
    Write logged;
    Locked([&] {
      const uint64_t at = static_cast<uint64_t>(pos);
      if (bound_hi_ > bound_lo_ && (pos < 0 || at < bound_lo_ || at + len > bound_hi_)) {
        fprintf(stderr, "write of %zu bytes at %lld outside the area [%llu, %llu)\n", len, static_cast<long long>(pos),
                static_cast<unsigned long long>(bound_lo_), static_cast<unsigned long long>(bound_hi_));
        abort();
      }
      auto it = fd_paths_.find(fd);
      err = MeetPower(pos, len, it != fd_paths_.end() ? it->second.path : "", err, &n, &made);
      hook = on_write_, logged = writes_.back();
    });
    if (hook) hook(logged);
    const ssize_t rc = err == 0 || n > 0 ? base_->WriteAt(fd, buf, n, pos) : -1;
    AfterWrite(made);
    if (err != 0) errno = err;
    return err != 0 ? -1 : made ? static_cast<ssize_t>(len) : rc;
  }
  int NvRead(uint64_t at, void* buf, size_t len) override {
    return Enter(kNvRead, -1, kNv) != 0 ? -1 : base_->NvRead(at, buf, len);
  }
  int NvWrite(uint64_t at, const void* buf, size_t len) override {
    int err = Enter(kNvWrite, -1, kNv);
    size_t n = len;
    bool made = false;
    err = Locked([&] { return MeetPower(static_cast<int64_t>(at), len, kNv, err, &n, &made); });
    const int rc = n == len ? base_->NvWrite(at, buf, len) : -1;  // one request: whole or nothing
    AfterWrite(made);
    if (err != 0) errno = err;
    return err != 0 ? -1 : made ? 0 : rc;
  }
  int ControllerStatus(sanfw_getstatus_out* out) override {
    return Enter(kStatus, -1, kNv) != 0 ? -1 : base_->ControllerStatus(out);
  }
  int Fsync(int fd) override { return Enter(kFsync, fd) != 0 ? -1 : base_->Fsync(fd); }
  int Close(int fd) override {
    const int err = Enter(kClose, fd);
    // The descriptor is released even when the call is made to fail, as
    // Linux does after a failed close: an injected fault must not leak an fd.
    const int rc = base_->Close(fd);
    if (err != 0) errno = err;
    return err != 0 ? -1 : rc;
  }
  int CreateThread(void* (*fn)(void*), void* arg) override {
    const int err = Enter(kThread, -1);
    return err != 0 ? err : base_->CreateThread(fn, arg);
  }
  int MutexInit(pthread_mutex_t* m) override {
    const int err = Enter(kMutex, -1);
    return err != 0 ? err : base_->MutexInit(m);
  }
  int CondInit(pthread_cond_t* c) override {
    const int err = Enter(kCond, -1);
    return err != 0 ? err : base_->CondInit(c);
  }
  void SleepMicros(unsigned micros) override {
    std::function<void(unsigned)> hook;
    Locked([&] { sleeps_.push_back(micros), hook = on_sleep_; });
    if (hook) hook(micros);
  }
  time_t Now() override {
    const time_t fixed = Locked([&] { return fixed_clock_ ? now_ : time_t{-1}; });
    return fixed != -1 ? fixed : base_->Now();
  }

 private:
  struct Rule {
    Op op;
    std::string path;  // "" = any
    long start, count, seen;
    int err;
    size_t cut;
  };

  static size_t Moved(size_t len, size_t cut) { return cut == kHalf ? len - len / 2 : len > cut ? len - cut : 0; }
  void AddRule(Op op, const std::string& path, long start, long count, int err, size_t cut, bool replace = false) {
    Locked([&] {
      if (replace) std::erase_if(rules_, [op](const Rule& r) { return r.op == op; });
      rules_.push_back(Rule{op, path, start, count, 0, err, cut});
    });
  }
  // Counts the call and applies the rules.  Returns the errno to fail with
  // (also set in errno), 0 for none; `cut` gets the bytes to leave out.
  // `fd` < 0: the call names `path`.
  void Jiggle() {
    const uint64_t seed = shake_seed_.load(std::memory_order_relaxed);
    if (seed == 0) return;
    uint64_t h = seed + 0x9e3779b97f4a7c15ull * (shake_calls_.fetch_add(1, std::memory_order_relaxed) + 1);
    h = (h ^ (h >> 30)) * 0xbf58476d1ce4e5b9ull;
    h = (h ^ (h >> 27)) * 0x94d049bb133111ebull;
    h ^= h >> 31;
    if (h % 8 == 0) {
      usleep(static_cast<useconds_t>((h >> 8) % 60));
    } else if (h % 8 < 4) {
      std::this_thread::yield();
    }
  }

  int Enter(Op op, int fd, const std::string& named = "", size_t* cut = nullptr) {
    Jiggle();
    int err = 0;
    Locked([&] {
      auto it = fd_paths_.find(fd);
      const bool known = fd >= 0 && it != fd_paths_.end();
      const std::string below = fd >= 0 && !known ? PathBelow(fd) : "";  // opened before this Env was installed
      const std::string& path = fd < 0 ? named : known ? it->second.path : below;
      ++(known ? *it->second.calls : calls_[path])[op];
      for (Rule& r : rules_) {
        if (r.op != op || !(r.path.empty() || r.path == path)) continue;
        if (++r.seen <= r.start || (r.count >= 0 && r.seen > r.start + r.count)) continue;
        if (cut != nullptr) *cut = std::max(*cut, r.cut);
        if (err == 0 && r.cut == 0) err = r.err;
      }
      if (power_cut_ && (op < kClose || op == kNvRead || op == kNvWrite)) err = EIO;
      if (op == kClose && it != fd_paths_.end()) fd_paths_.erase(it);
    });
    if (err != 0) errno = err;
    return err;
  }

  std::string PathOf(int fd) const {
    const std::string own = Locked([&] {
      auto it = fd_paths_.find(fd);
      return it != fd_paths_.end() ? it->second.path : std::string();
    });
    return own.empty() ? PathBelow(fd) : own;
  }
  std::string PathBelow(int fd) const {
    if (auto* f = dynamic_cast<FaultEnv*>(base_)) return f->PathOf(fd);
    if (auto* m = dynamic_cast<sbacc::MemEnv*>(base_)) return m->PathOf(fd);
    char link[64], buf[PATH_MAX];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t n = readlink(link, buf, sizeof buf - 1);
    return std::string(buf, n > 0 ? static_cast<size_t>(n) : 0);
  }

  // Under the lock: a write of `len` bytes at `pos` on `path` is logged and,
  // unless a rule fails it with `err`, meets the power budget: `*n` (the
  // bytes that would land) becomes what lands, none for a failed write, and
  // `*made` whether it is reported as made.  Returns the errno to fail with.
  int MeetPower(int64_t pos, size_t len, const std::string& path, int err, size_t* n, bool* made) {
    writes_.push_back({pos, len, path});
    if (err != 0) *n = 0;
    if (err != 0 || power_budget_ < 0) return err;
    const long i = ++power_writes_;
    *made = i <= power_budget_;
    *n = lands_ ? std::min(*n, lands_(i, path, *n)) : *made ? *n : 0;
    if (!*made) CutPower();
    return *made ? 0 : EIO;
  }
  // After a write reported as made: kNow and kLoseUnflushed cut the power as
  // the last write of the budget is made.
  void AfterWrite(bool made) {
    Locked([&] { made && when_ != kNextWrite && power_writes_ == power_budget_ && !power_cut_ ? CutPower() : void(); });
  }
  // Under the lock: the power goes, NV memory with the HDDs (Enter fails
  // their calls from now on).
  void CutPower() {
    power_cut_ = true;
    if (auto* mem = dynamic_cast<sbacc::MemEnv*>(base_); mem != nullptr && when_ == kLoseUnflushed) mem->LoseUnflushed();
  }

  sbacc::Env* const base_;
  mutable std::mutex mu_;
  sbacc::ForkSafeLocks fork_safe_{&mu_};
  struct Tracked {
    std::string path;
    std::array<long, kStatus + 1>* calls;  // its entry of calls_
  };
  std::map<int, Tracked> fd_paths_;
  std::vector<Rule> rules_;
  std::map<std::string, std::array<long, kStatus + 1>, std::less<>> calls_;  // per path, per Op
  long power_budget_ = -1;  // writes allowed before the cut; -1 = disarmed
  long power_writes_ = 0;   // writes since arming
  bool power_cut_ = false;
  When when_ = kNextWrite;
  Landing lands_;
  bool fixed_clock_ = false;
  time_t now_ = 0;
  std::vector<unsigned> sleeps_;
  std::function<void(unsigned)> on_sleep_;
  std::function<void(const Write&)> on_write_;
  std::vector<Write> writes_;
  uint64_t bound_lo_ = 0, bound_hi_ = 0;  // no bound while equal
  std::atomic<uint64_t> shake_seed_{0};
  std::atomic<uint64_t> shake_calls_{0};
};

// A controller's areas with work for a start-up (4 KiB each, side by side
// from 0x1000, on every HDD): "plain", whose copy 1 missed a rewrite (a
// rebuild); "intent", a write cut between its copies (a resync); "other",
// with nothing to do; then the seven paired areas, envfw_backup0 left open by
// a writer that died (a data repair: backup1 over backup0, the markers, verid
// one past verback).  Without Plant() the areas are new: HDDs and NV never
// written.
struct StartUpWork {
  static void SetAreas(Sim& sim, int copies) {
    std::vector<AreaSpec> areas;
    for (const char* n : kNames) areas.push_back({n, 0x1000 + 4096 * areas.size(), 4096, copies});
    sim.SetAreas(areas);
  }
  static constexpr int kAreas = 10, kPlain = 0, kIntent = 1, kPaired = 3;  // the seven from kPaired on
  static constexpr const char* kNames[kAreas] = {
      "plain", "intent", "other", "envfw_backup0", "envfw_backup1", "envfw_sysback", "envfw_sysacpt",
      "envfw_verid", "envfw_verback", "envfw_reboot"};
  static std::vector<Bytes> Before() {
    return {Pattern(300, 3), Pattern(300, 4), Pattern(100, 5), Pattern(200, 1), Pattern(150, 2),
            Text("envfw_backup0"), Text("envfw_backup1"), {7, 0, 0, 0}, {6, 0, 0, 0}, {7, 0, 0, 0}};
  }
  static void Plant(Sim& sim, int copies) {
    SetAreas(sim, copies);
    for (int a = 0; a < kAreas; ++a) Store(kNames[a], Before()[a]);
    if (sbacc_nv_init(0) != 0) throw std::runtime_error("start-up of the planted areas");
    {
      FaultEnv env;
      env.FailOp(FaultEnv::kWrite, sim.HddPath(1), 0, -1, EIO);
      Store("plain", Pattern(300, 6));
    }
    sim.PutData(kIntent, 1, 10, Pattern(20, 7));  // landed on copy 1 alone; copy 0 has the record
    sim.EditHeader(kIntent, 0, [](auto& h) { h.writeflag = 1, h.write_offset = 10, h.write_size = 20; });
    for (int i = 0; i < copies; ++i) sim.EditHeader(kIntent, i, [](auto& h) { memset(h.rfu5, 0, sizeof h.rfu5); });
    for (int i = 0; i < copies; ++i) sim.EditHeader(kPaired, i, [](auto& h) { h.openflag = 1; });
    sbacc_reset_process_state();
  }
  // Every area healthy (copies that agree, a valid NV record with nothing
  // fenced off, under repair or locked, no copy left open) and, when the
  // work was planted, holding what the start-up's repairs leave.
  static std::string Done(const Sim& sim, bool planted = true) {
    std::vector<Bytes> want = Before();
    want[kPlain] = Pattern(300, 6);
    std::copy(want[kPaired + 1].begin(), want[kPaired + 1].end(), want[kPaired].begin());  // backup1 over backup0
    want[kPaired + 4] = {7, 0, 0, 0};
    for (int a = 0; a < kAreas; ++a) {
      const SBACC_MEM_LIST_ENTRY e = sim.NvEntry(a);
      const SBACC_HDD_HEADER h = sim.Header(a, 0);
      const bool free = std::all_of(e.hddrepairlock_cntno, e.hddrepairlock_cntno + 4, [](int b) { return b == 0; }) &&
                        std::all_of(e.lockbeat, e.lockbeat + 4, [](int b) { return b == 0; });
      if (!sim.Disagreement(a).empty() || !sbacc_l_entry_valid(&e) || e.hddblockade != 0 || e.hddrepair != 0 ||
          !free || h.openflag != 0 || (planted && sim.Data(a, 0, static_cast<size_t>(h.filesize)) != want[a]))
        return std::string(kNames[a]) + " is not as the start-up should leave it " + sim.Disagreement(a);
    }
    return "";
  }
};

}  // namespace sbacc_test

#endif  // SBACC_TEST_SIM_H
