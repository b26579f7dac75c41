#include "bench_common.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include "mc_logapi.h"
#include "sanfwctl.h"
#include "sbacc.h"
#include "sbacc_core.h"
#include "sbacc_l.h"

namespace sbacc_bench {

std::string Numbered(const char* prefix, long n, const char* suffix) {
  char buf[160];
  snprintf(buf, sizeof buf, "%s%ld%s", prefix, n, suffix);
  return buf;
}

void Die(const std::string& what) {
  fprintf(stderr, "sbacc bench: %s (errno %d: %s)\n", what.c_str(), errno, strerror(errno));
  fflush(stderr);
  _exit(2);
}

std::string BaseDir() {
  const char* d = getenv("SBACC_BENCH_DIR");
  return (d != nullptr && *d != '\0') ? d : "/var/tmp";
}

std::string FsType(const std::string& path) {
  // The longest mount point that is a prefix of the canonical path wins.
  std::error_code ec;
  std::string canon = std::filesystem::weakly_canonical(path, ec).string();
  if (ec) canon = path;
  std::ifstream in("/proc/self/mounts");
  std::string line, best_mnt, best_type = "unknown";
  while (std::getline(in, line)) {
    std::istringstream ls(line);
    std::string dev, mnt, type;
    ls >> dev >> mnt >> type;
    const bool prefix = canon.compare(0, mnt.size(), mnt) == 0 &&
                        (canon.size() == mnt.size() || mnt == "/" || canon[mnt.size()] == '/');
    if (prefix && mnt.size() >= best_mnt.size()) {
      best_mnt = mnt;
      best_type = type;
    }
  }
  return best_type;
}

bool MemoryBacked(const std::string& path) {
  const std::string t = FsType(path);
  return t == "tmpfs" || t == "ramfs";
}

ScratchDir::ScratchDir() {
  std::string tmpl = BaseDir() + "/sbacc-bench-XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) Die("mkdtemp " + tmpl);
  path_ = buf.data();
}

ScratchDir::~ScratchDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

void MakeZeroFile(const std::string& path, uint64_t bytes) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) Die("create " + path);
  static const std::vector<char> zeros(1 << 20, 0);
  for (uint64_t done = 0; done < bytes;) {
    const size_t n = static_cast<size_t>(std::min<uint64_t>(bytes - done, zeros.size()));
    if (::pwrite(fd, zeros.data(), n, static_cast<off_t>(done)) != static_cast<ssize_t>(n)) Die("fill " + path);
    done += n;
  }
  if (::fsync(fd) != 0) Die("fsync " + path);
  ::close(fd);
}

namespace {

void Poke32(const std::string& path, const std::vector<uint64_t>& positions, uint32_t v) {
  uint8_t raw[4] = {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v >> 16),
                    static_cast<uint8_t>(v >> 24)};
  int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) Die("open " + path);
  for (uint64_t pos : positions) {
    if (::pwrite(fd, raw, 4, static_cast<off_t>(pos)) != 4) Die("poke " + path);
  }
  // Flushed here, outside any timed region, so the library's own fsyncs do
  // not pay for it.
  if (::fsync(fd) != 0) Die("fsync " + path);
  ::close(fd);
}

}  // namespace

Controller::Controller(int hdds, uint64_t hdd_bytes, const std::vector<Area>& areas)
    : hdds_(hdds), areas_(areas) {
  for (int i = 0; i < hdds_; ++i) {
    MakeZeroFile(HddPath(i), hdd_bytes);
    MakeZeroFile(FloorPath(i), hdd_bytes);
  }
  std::string text = "# name,areaaddr(hex),areasize,hdd paths...\n";
  for (const Area& a : areas_) {
    char addr[32];
    snprintf(addr, sizeof addr, "%llx", static_cast<unsigned long long>(a.addr));
    text += a.name;
    text += ',';
    text += addr;
    text += Numbered(",", static_cast<long>(a.size));
    for (int i = 0; i < a.copies; ++i) {
      text += ',';
      text += HddPath(i);
    }
    text += '\n';
  }
  {
    std::ofstream out(dir_.File("filelist.ini"), std::ios::binary | std::ios::trunc);
    out << text;
  }
  // The NV image is created by the firmware stand-in on first use; made here
  // so its creation is not part of any measurement.
  MakeZeroFile(NvPath(), 1 << 20);
  setenv("SBACC_FILELIST", dir_.File("filelist.ini").c_str(), 1);
  setenv("SANFWCTL_NV_IMAGE", NvPath().c_str(), 1);
  unsetenv("SANFWCTL_FAIL_READ");
  unsetenv("SANFWCTL_FAIL_WRITE");
  unsetenv("SANFWCTL_FAIL_STATUS");
  sanfwctl_reset();
  MC_TestReloadEnv();
  sbacc_reset_process_state();
}

Controller::~Controller() {
  sbacc_reset_process_state();
  sanfwctl_reset();
}

std::string Controller::HddPath(int i) const { return dir_.File(Numbered("hdd", i, ".img")); }

std::string Controller::FloorPath(int i) const { return dir_.File(Numbered("floor", i, ".img")); }

// ---- Families ------------------------------------------------------------------------

namespace {

std::unique_ptr<Controller> g_controller;
int g_family = -1;

std::unique_ptr<Controller> MakeFamily(Family f) {
  std::vector<Area> areas;
  switch (f) {
    case Family::kWrite: {
      // One 1 MiB area per copy count for the writes, one small area per copy
      // count for open and close.
      const int counts[4] = {1, 2, 4, 8};
      const uint64_t big = (1u << 20) + 128, stride = (5u << 20) / 4;
      for (int i = 0; i < 4; ++i) areas.push_back({Numbered("w", counts[i]), i * stride, big, counts[i]});
      for (int i = 0; i < 4; ++i) {
        areas.push_back({Numbered("oc", counts[i]), (5u << 20) + i * 16384u, 4096 + 128, counts[i]});
      }
      return std::make_unique<Controller>(8, (5u << 20) + 65536, areas);
    }
    case Family::kStartup:
      for (int i = 0; i < 64; ++i) {
        char name[16];
        snprintf(name, sizeof name, "area%02d", i);
        areas.push_back({name, i * 16384u, 8192 + 128, 4});
      }
      return std::make_unique<Controller>(4, 1u << 20, areas);
    case Family::kChecksum: {
      // Per copy count two areas of one shape, one written with records and
      // one without (they swap halfway); then a 4 KiB and a 64 KiB area for
      // the first reads.
      const int counts[4] = {1, 2, 4, 8};
      const uint64_t wsize = (256u << 10) + 128, stride = 320u << 10;
      for (int i = 0; i < 4; ++i) {
        areas.push_back({Numbered("ca", counts[i]), (2 * i) * stride, wsize, counts[i]});
        areas.push_back({Numbered("cb", counts[i]), (2 * i + 1) * stride, wsize, counts[i]});
      }
      areas.push_back({"rd4k", 8 * stride, 4096 + 128, 2});
      areas.push_back({"rd64k", 8 * stride + 16384, 65536 + 128, 2});
      return std::make_unique<Controller>(8, 8 * stride + (128u << 10), areas);
    }
    case Family::kRepair:
      areas.push_back({"rep", 0, (1u << 20) + 128, 2});
      areas.push_back({"rep0", (1u << 20) + 4096, 4096 + 128, 2});
      return std::make_unique<Controller>(2, (1u << 20) + 65536, areas);
  }
  return nullptr;
}

}  // namespace

Controller& UseController(Family f) {
  if (g_controller == nullptr || g_family != static_cast<int>(f)) {
    g_controller.reset();  // the old directory goes before the new one is made
    g_controller = MakeFamily(f);
    g_family = static_cast<int>(f);
  }
  return *g_controller;
}

void DropController() {
  g_controller.reset();
  g_family = -1;
}

void Controller::PokeHdd32(int hdd, uint64_t pos, uint32_t v) const { Poke32(HddPath(hdd), {pos}, v); }

void Controller::PokeHdd32Many(int hdd, const std::vector<uint64_t>& pos, uint32_t v) const {
  Poke32(HddPath(hdd), pos, v);
}

void Controller::PokeNv32(uint64_t pos, uint32_t v) const { Poke32(NvPath(), {pos}, v); }

// ---- Start-up family helpers ---------------------------------------------------

uint32_t Peek32(const std::string& path, uint64_t pos) {
  uint8_t raw[4] = {0, 0, 0, 0};
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) Die("open " + path);
  if (::pread(fd, raw, 4, static_cast<off_t>(pos)) != 4) Die("peek " + path);
  ::close(fd);
  return sbacc_l_get_le32(raw);
}

void PrepareStartup(const Controller& c) {
  constexpr int kData = 4096;
  if (sbacc_nv_init(0) != 0) Die("first sbacc_nv_init");
  std::vector<uint8_t> data(kData, 0xa5);
  for (const Area& a : c.Areas()) {
    void* fp = nullptr;
    boolean_t clean = B_FALSE;
    if (sbacc_open(a.name.c_str(), "w", &fp, &clean) != 0) Die("open " + a.name);
    if (sbacc_write(data.data(), kData, 0, fp) != kData) Die("write " + a.name);
    sbacc_close(fp);
  }
}

void MakeStale(const Controller& c) {
  std::vector<uint64_t> words, data;
  for (const Area& a : c.Areas()) {
    words.push_back(a.addr + kHdrHddblockade);
    data.push_back(a.addr + SBACC_HEADER_SIZE);
  }
  for (int hdd = 0; hdd < 4; ++hdd) {
    if (hdd != kStaleCopy) c.PokeHdd32Many(hdd, words, 1u << kStaleCopy);
  }
  c.PokeHdd32Many(kStaleCopy, data, kGarbage);
}

bool Rebuilt(const Controller& c) {
  for (const Area& a : c.Areas()) {
    if (Peek32(c.HddPath(kStaleCopy), a.addr + SBACC_HEADER_SIZE) == kGarbage) return false;
    for (int hdd = 0; hdd < 4; ++hdd) {
      if (Peek32(c.HddPath(hdd), a.addr + kHdrHddblockade) != 0) return false;
    }
  }
  return true;
}

// ---- Integrity records ----------------------------------------------------------

ChecksumEnv::ChecksumEnv(bool on) {
  const char* old = getenv("SBACC_CHECKSUM");
  had_ = old != nullptr;
  if (had_) old_ = old;
  setenv("SBACC_CHECKSUM", on ? "1" : "0", 1);
}

ChecksumEnv::~ChecksumEnv() {
  if (had_) {
    setenv("SBACC_CHECKSUM", old_.c_str(), 1);
  } else {
    unsetenv("SBACC_CHECKSUM");
  }
}

bool RecordHolds(const std::string& hdd_path, uint64_t addr, uint32_t length) {
  uint8_t raw[SBACC_HEADER_SIZE];
  int fd = ::open(hdd_path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) Die("open " + hdd_path);
  const bool read = ::pread(fd, raw, sizeof raw, static_cast<off_t>(addr)) == static_cast<ssize_t>(sizeof raw);
  ::close(fd);
  if (!read) return false;
  SBACC_HDD_HEADER h;
  SBACC_INTEGRITY r;
  sbacc_l_decode_header(raw, &h);
  return sbacc_l_integrity_applies(&h, &r) == SBACC_INTEGRITY_OK && r.length == length;
}

namespace {

std::vector<char> ReadWhole(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) Die("open " + path);
  std::vector<char> out;
  char buf[1 << 16];
  for (off_t pos = 0;;) {
    const ssize_t n = ::pread(fd, buf, sizeof buf, pos);
    if (n < 0) Die("read " + path);
    if (n == 0) break;
    out.insert(out.end(), buf, buf + n);
    pos += n;
  }
  ::close(fd);
  return out;
}

}  // namespace

ImageSnapshot::ImageSnapshot(const Controller& c, int hdds) {
  for (int i = 0; i < hdds; ++i) paths_.push_back(c.HddPath(i));
  paths_.push_back(c.NvPath());
  for (const std::string& p : paths_) bytes_.push_back(ReadWhole(p));
}

void ImageSnapshot::Restore() const {
  for (size_t i = 0; i < paths_.size(); ++i) {
    // In place: the firmware stand-in keeps its NV image open.
    int fd = ::open(paths_[i].c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) Die("open " + paths_[i]);
    const std::vector<char>& b = bytes_[i];
    if (::pwrite(fd, b.data(), b.size(), 0) != static_cast<ssize_t>(b.size())) Die("restore " + paths_[i]);
    // Flushed outside the timed region, so the measured run does not pay for it.
    if (::fsync(fd) != 0) Die("fsync " + paths_[i]);
    ::close(fd);
  }
}

// ---- Envs ------------------------------------------------------------------------

SerialScope::SerialScope() { sbacc::CrewSetBound(0); }
SerialScope::~SerialScope() { sbacc::CrewSetBound(sbacc::kCrewDefaultBound); }

ScopedEnv::ScopedEnv(sbacc::Env* env) { sbacc::SetEnvForTest(env); }
ScopedEnv::~ScopedEnv() { sbacc::SetEnvForTest(nullptr); }

// ---- Floors ------------------------------------------------------------------------

bool WriteRoundOne(int fd, const std::vector<Piece>& pieces) {
  bool ok = true;
  for (const Piece& p : pieces) {
    ok = (::pwrite(fd, p.buf, p.len, p.pos) == static_cast<ssize_t>(p.len)) && ok;
  }
  return (::fsync(fd) == 0) && ok;
}

PersistentPool::PersistentPool(const std::vector<int>& fds) : fds_(fds) {
  slots_.resize(fds_.size());
  threads_.resize(fds_.size());
  for (size_t i = 0; i < fds_.size(); ++i) {
    slots_[i] = {this, static_cast<int>(i)};
    if (pthread_create(&threads_[i], nullptr, &PersistentPool::Main, &slots_[i]) != 0) Die("pthread_create");
  }
}

PersistentPool::~PersistentPool() {
  pthread_mutex_lock(&mu_);
  stop_ = true;
  pthread_cond_broadcast(&go_);
  pthread_mutex_unlock(&mu_);
  for (pthread_t t : threads_) pthread_join(t, nullptr);
}

void* PersistentPool::Main(void* arg) {
  auto* slot = static_cast<Slot*>(arg);
  PersistentPool* p = slot->pool;
  uint64_t seen = 0;
  for (;;) {
    pthread_mutex_lock(&p->mu_);
    while (!p->stop_ && p->generation_ == seen) pthread_cond_wait(&p->go_, &p->mu_);
    if (p->stop_) {
      pthread_mutex_unlock(&p->mu_);
      return nullptr;
    }
    seen = p->generation_;
    const std::vector<Piece>* pieces = p->pieces_;
    p->wake_sum_ += NowNs() - p->round_start_;
    pthread_mutex_unlock(&p->mu_);

    const bool ok = WriteRoundOne(p->fds_[slot->index], *pieces);

    pthread_mutex_lock(&p->mu_);
    if (!ok) p->failed_ = true;
    if (--p->pending_ == 0) pthread_cond_signal(&p->done_);
    pthread_mutex_unlock(&p->mu_);
  }
}

bool PersistentPool::Round(const std::vector<Piece>& pieces, int64_t* wake_ns) {
  pthread_mutex_lock(&mu_);
  pieces_ = &pieces;
  pending_ = static_cast<int>(fds_.size());
  failed_ = false;
  wake_sum_ = 0;
  round_start_ = NowNs();
  ++generation_;
  pthread_cond_broadcast(&go_);
  while (pending_ > 0) pthread_cond_wait(&done_, &mu_);
  const bool ok = !failed_;
  if (wake_ns != nullptr) *wake_ns += wake_sum_;
  pthread_mutex_unlock(&mu_);
  return ok;
}

namespace {

struct SpawnBlock {
  pthread_mutex_t mu;
  pthread_cond_t cond;
  int running;
  bool failed;
  int64_t start_sum;
  const std::vector<Piece>* pieces;
};

struct SpawnArg {
  SpawnBlock* blk;
  int fd;
  int64_t created;
};

void* SpawnMain(void* arg) {
  auto* a = static_cast<SpawnArg*>(arg);
  const int64_t started = NowNs();
  pthread_detach(pthread_self());
  SpawnBlock* b = a->blk;
  const bool ok = WriteRoundOne(a->fd, *b->pieces);
  pthread_mutex_lock(&b->mu);
  b->start_sum += started - a->created;
  if (!ok) b->failed = true;
  b->running--;
  pthread_cond_signal(&b->cond);
  pthread_mutex_unlock(&b->mu);
  return nullptr;
}

}  // namespace

bool SpawnRound(const std::vector<int>& fds, const std::vector<Piece>& pieces, int64_t* start_ns) {
  SpawnBlock b;
  pthread_mutex_init(&b.mu, nullptr);
  pthread_cond_init(&b.cond, nullptr);
  b.running = 0;
  b.failed = false;
  b.start_sum = 0;
  b.pieces = &pieces;
  SpawnArg args[8];
  bool inline_ok = true;
  for (size_t i = 0; i < fds.size() && i < 8; ++i) {
    args[i] = {&b, fds[i], NowNs()};
    pthread_mutex_lock(&b.mu);
    b.running++;
    pthread_mutex_unlock(&b.mu);
    pthread_t tid;
    if (pthread_create(&tid, nullptr, SpawnMain, &args[i]) != 0) {
      pthread_mutex_lock(&b.mu);
      b.running--;
      pthread_mutex_unlock(&b.mu);
      inline_ok = WriteRoundOne(fds[i], pieces) && inline_ok;
    }
  }
  pthread_mutex_lock(&b.mu);
  while (b.running > 0) pthread_cond_wait(&b.cond, &b.mu);
  const bool ok = !b.failed && inline_ok;
  if (start_ns != nullptr) *start_ns += b.start_sum;
  pthread_mutex_unlock(&b.mu);
  pthread_cond_destroy(&b.cond);
  pthread_mutex_destroy(&b.mu);
  return ok;
}

// ---- Timing ------------------------------------------------------------------------

int64_t NowNs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

int64_t CpuNs() {
  struct timespec ts;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

double Median(std::vector<double> v) {
  if (v.empty()) return 0.0;
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return (n % 2 == 1) ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

std::vector<int> OpenAll(const std::vector<std::string>& paths) {
  std::vector<int> fds;
  for (const std::string& p : paths) {
    int fd = ::open(p.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) Die("open " + p);
    fds.push_back(fd);
  }
  return fds;
}

void CloseAll(const std::vector<int>& fds) {
  for (int fd : fds) ::close(fd);
}

}  // namespace sbacc_bench
