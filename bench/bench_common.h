// Shared pieces of the benchmarks: a controller set up in a scratch directory
// (HDD image files, area list, NV image), Envs that force the serial
// fall-back, the two floors a write is measured against, and small timing
// helpers.
//
// Every benchmark here times the library and its floor inside the same loop,
// one after the other, so both see the same machine load; the ratios in the
// report come from these interleaved samples (medians), not from separate runs.
#ifndef SBACC_BENCH_COMMON_H
#define SBACC_BENCH_COMMON_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "sbacc_crew.h"
#include "sbacc_env.h"

namespace sbacc_bench {

// ---- Where the images live -----------------------------------------------------

// SBACC_BENCH_DIR, or /var/tmp (disk-backed) when unset.
std::string BaseDir();
// Filesystem type of a path ("ext4", "tmpfs", ...), from /proc/self/mounts.
std::string FsType(const std::string& path);
// True for filesystems that live in memory (tmpfs, ramfs).
bool MemoryBacked(const std::string& path);

// A scratch directory under BaseDir(), removed with its contents.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::string& path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

struct Area {
  std::string name;
  uint64_t addr;  // header position in every HDD file
  uint64_t size;  // header included
  int copies;     // HDD files 0 .. copies-1
};

// A controller: `hdds` HDD image files (and as many floor files), fully written with zeros and flushed
// so no benchmark pays for block allocation, an area list and an NV image,
// wired into the environment the library reads, with its process state reset.
class Controller {
 public:
  Controller(int hdds, uint64_t hdd_bytes, const std::vector<Area>& areas);
  ~Controller();
  Controller(const Controller&) = delete;
  Controller& operator=(const Controller&) = delete;

  std::string HddPath(int i) const;
  // Files of the same size beside the HDD images, for the floors to write:
  // same filesystem, same offsets, none of the library's state in them.
  std::string FloorPath(int i) const;
  std::string NvPath() const { return dir_.File("nv.img"); }
  const ScratchDir& Dir() const { return dir_; }
  const std::vector<Area>& Areas() const { return areas_; }

  // Raw 32-bit little-endian store into an HDD image / the NV image, flushed.
  void PokeHdd32(int hdd, uint64_t pos, uint32_t v) const;
  void PokeNv32(uint64_t pos, uint32_t v) const;
  // The same store at many positions of one HDD image, flushed once.
  void PokeHdd32Many(int hdd, const std::vector<uint64_t>& pos, uint32_t v) const;

 private:
  ScratchDir dir_;
  int hdds_;
  std::vector<Area> areas_;
};

// Creates a file of `bytes` zeros (really written, then flushed).
void MakeZeroFile(const std::string& path, uint64_t bytes);

// The controller the running benchmark family works on.  Families that share
// a layout share the controller; switching to another family rebuilds it
// (the library reads its configuration from process-wide environment).
enum class Family { kWrite, kStartup, kRepair, kChecksum };
Controller& UseController(Family f);
void DropController();

// ---- Start-up family helpers (64 areas x 4 copies) ----------------------------------

constexpr uint32_t kGarbage = 0xdeadbeefu;
constexpr int kStaleCopy = 3;

uint32_t Peek32(const std::string& path, uint64_t pos);
// Brings every area to a clean, initialised state with 4 KiB of data each.
void PrepareStartup(const Controller& c);
// Makes copy 3 of every area stale as if a write had fenced it off: the other
// copies' headers record it in their blockade word, its own header does not,
// and its data differ.
void MakeStale(const Controller& c);
// The stale copies were rebuilt and no copy is fenced off any more.
bool Rebuilt(const Controller& c);

// ---- Integrity records ----------------------------------------------------------

// Sets SBACC_CHECKSUM for its lifetime (1: records on, 0: off), then puts
// the previous value back.  The library reads it when a handle is made.
class ChecksumEnv {
 public:
  explicit ChecksumEnv(bool on);
  ~ChecksumEnv();
  ChecksumEnv(const ChecksumEnv&) = delete;
  ChecksumEnv& operator=(const ChecksumEnv&) = delete;

 private:
  bool had_ = false;
  std::string old_;
};

// The header at `addr` of an HDD image holds an integrity record that
// applies to its data and covers `length` bytes.
bool RecordHolds(const std::string& hdd_path, uint64_t addr, uint32_t length);

// The whole contents of some HDD images and the NV image, put back in place
// (same files, flushed) by Restore, so that every run starts from the same bytes.
class ImageSnapshot {
 public:
  ImageSnapshot(const Controller& c, int hdds);
  void Restore() const;

 private:
  std::vector<std::string> paths_;
  std::vector<std::vector<char>> bytes_;
};

// ---- Envs ------------------------------------------------------------------------

// For its lifetime no worker takes a task: every parallel site of the
// library does the work in the calling thread, copy by copy / area by area.
// (Parked workers retire, so the next parallel run starts its threads anew.)
class SerialScope {
 public:
  SerialScope();
  ~SerialScope();
  SerialScope(const SerialScope&) = delete;
  SerialScope& operator=(const SerialScope&) = delete;
};

// Installs an Env for its lifetime (no library call may be running).
class ScopedEnv {
 public:
  explicit ScopedEnv(sbacc::Env* env);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;
};

// ---- Floors -----------------------------------------------------------------------

// One positioned write on one file, flushed afterwards by the round.
struct Piece {
  const void* buf;
  size_t len;
  off_t pos;
};

// A durable round: on every one of K files, the same pieces written with
// pwrite, then fsync.  Returns false when any call failed.
bool WriteRoundOne(int fd, const std::vector<Piece>& pieces);

// Physical floor: K threads that live for the whole run; each round wakes
// them, each writes and flushes its own file, the caller waits for all.
class PersistentPool {
 public:
  explicit PersistentPool(const std::vector<int>& fds);
  ~PersistentPool();
  PersistentPool(const PersistentPool&) = delete;
  PersistentPool& operator=(const PersistentPool&) = delete;
  // wake_ns, when given, receives the summed delay from the broadcast to each
  // worker running again.
  bool Round(const std::vector<Piece>& pieces, int64_t* wake_ns = nullptr);

 private:
  static void* Main(void* arg);
  struct Slot {
    PersistentPool* pool;
    int index;
  };
  std::vector<int> fds_;
  std::vector<pthread_t> threads_;
  std::vector<Slot> slots_;
  pthread_mutex_t mu_ = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t go_ = PTHREAD_COND_INITIALIZER;
  pthread_cond_t done_ = PTHREAD_COND_INITIALIZER;
  uint64_t generation_ = 0;
  int pending_ = 0;
  bool failed_ = false;
  bool stop_ = false;
  const std::vector<Piece>* pieces_ = nullptr;
  int64_t round_start_ = 0;
  int64_t wake_sum_ = 0;
};

// Design floor: each round starts one detached thread per file and waits on a
// condition until all have reported -- the least the design asks for.
// start_ns, when given, receives the summed delay from each pthread_create
// call to that thread running: on a busy machine a new thread can wait for a
// core far longer than a sleeping one that is woken.
bool SpawnRound(const std::vector<int>& fds, const std::vector<Piece>& pieces, int64_t* start_ns = nullptr);

// ---- Timing ------------------------------------------------------------------------

int64_t NowNs();
// CPU time of the whole process (all threads), in ns.
int64_t CpuNs();
double Median(std::vector<double> v);

// Opens the files read-write (aborts the run on failure).
std::vector<int> OpenAll(const std::vector<std::string>& paths);
void CloseAll(const std::vector<int>& fds);

// prefix + n + suffix.  (Built with snprintf: gcc 12 warns falsely on
// "literal" + std::string temporaries at -O3.)
std::string Numbered(const char* prefix, long n, const char* suffix = "");

// Stops the run with a message (benchmarks have no exceptions to throw into).
[[noreturn]] void Die(const std::string& what);

}  // namespace sbacc_bench

#endif  // SBACC_BENCH_COMMON_H
