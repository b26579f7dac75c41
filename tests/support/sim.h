// Test support: a simulated controller in a temporary directory (HDD image
// files, area list, NV image), trace capture and resource counting.
#ifndef SBACC_TEST_SIM_H
#define SBACC_TEST_SIM_H

#include <stdint.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "sbacc.h"
#include "sbacc_types.h"

namespace sbacc_test {

// Test data that differs for every seed (mod 256) and never repeats within
// 256 bytes, so a misplaced or stale byte shows.
inline std::vector<uint8_t> Pattern(size_t n, int seed) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(seed * 37 + i * 11 + 3);
  return v;
}

// A temporary directory removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
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
  explicit Sim(int hdds = 2, uint64_t hdd_bytes = 1 << 20);
  ~Sim();

  void SetAreas(const std::vector<AreaSpec>& areas);  // one list line per area
  void SetFilelistText(const std::string& text);

  std::string HddPath(int i) const;
  std::string NvPath() const { return dir_.File("nv.img"); }  // where the stand-in keeps NV memory
  const std::string& Dir() const { return dir_.path(); }
  const std::vector<AreaSpec>& Areas() const { return areas_; }

  // Raw bytes of an HDD image / the NV image (zero-padded past the end).
  std::vector<uint8_t> HddBytes(int hdd, uint64_t pos, size_t len) const;
  void PutHddBytes(int hdd, uint64_t pos, const void* data, size_t len);
  std::vector<uint8_t> NvBytes(uint64_t pos, size_t len) const;
  void PutNvBytes(uint64_t pos, const void* data, size_t len);

  // Decoded records of area `index` (list position) / copy `hdd`.
  SBACC_MEM_LIST_ENTRY NvEntry(int index) const;
  void PutNvEntry(int index, const SBACC_MEM_LIST_ENTRY& e);
  SBACC_HDD_HEADER Header(int area, int hdd) const;
  void PutHeader(int area, int hdd, const SBACC_HDD_HEADER& h);
  // Record changed in place.
  void EditHeader(int area, int hdd, const std::function<void(SBACC_HDD_HEADER&)>& f);
  void EditNvEntry(int index, const std::function<void(SBACC_MEM_LIST_ENTRY&)>& f);
  // Data bytes of an area's copy (from data offset 0 / from `offset`).
  std::vector<uint8_t> Data(int area, int hdd, size_t len) const;
  void PutData(int area, int hdd, size_t offset, const std::vector<uint8_t>& data);
  // A copy's header, and its data from data offset 0.
  void PutCopy(int area, int hdd, const SBACC_HDD_HEADER& h, const std::vector<uint8_t>& data);

  // The area list, the NV records in use and every HDD image, to start
  // several runs from one state.
  struct Images {
    std::vector<AreaSpec> areas;
    std::vector<std::vector<uint8_t>> files;  // NV, then HDD 0, 1, ...
    bool operator==(const Images&) const = default;
  };
  Images Save() const;
  void Load(const Images& im);

  void RemoveHdd(int hdd);
  void RecreateHdd(int hdd);  // empty, full size

 private:
  TempDir dir_;
  int hdds_;
  uint64_t hdd_bytes_;
  std::vector<AreaSpec> areas_;
};

// Records as a system that ran before leaves them: magic and version valid.
SBACC_HDD_HEADER ValidHeader(const std::string& name, uint64_t areasize, int32_t filesize, uint32_t mask = 0);
SBACC_MEM_LIST_ENTRY ValidEntry(const std::string& name, int hddcount, uint32_t mask = 0);

// Failure paths at test speed: one NV retry, one repair lock attempt, this
// controller the master; temporary files in memory when there is such a place.
void QuickFailures();

// sbacc_open that throws when the open is refused.
void* OpenArea(const std::string& name, const char* mode, boolean_t* clean = nullptr);
// A handle as a process that stops leaves it: its files closed, nothing written.
void Abandon(void* fp);

// Collects every trace line the process writes while it lives.
class TraceCapture {
 public:
  struct Line {
    int level;
    std::string module;
    std::string text;
  };
  TraceCapture();
  ~TraceCapture();
  std::vector<Line> Lines() const;
  int Count(const std::string& exact) const;
  int CountContaining(const std::string& part) const;
  bool Has(const std::string& exact) const { return Count(exact) > 0; }
  std::string Dump() const;  // for failure messages

 private:
  static void Add(void* self, int level, const char* module, int line, const char* message);
  mutable std::mutex mu_;
  std::vector<Line> lines_;
};

// Open file descriptors of this process.
int OpenFdCount();

}  // namespace sbacc_test

#endif  // SBACC_TEST_SIM_H
