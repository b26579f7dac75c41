// Write latency against its floors, parallel against serial copies, and open
// plus close against the bare file work they stand for.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench_common.h"
#include "bench_suite.h"
#include "mc_logapi.h"
#include "sbacc.h"
#include "sbacc_env.h"

namespace sbacc_bench {
namespace {

constexpr int kDataCap = 1 << 20;  // data capacity of the w* areas

const Area& FindArea(const Controller& c, const std::string& name) {
  for (const Area& a : c.Areas()) {
    if (a.name == name) return a;
  }
  Die("no area " + name);
}

std::vector<std::string> FloorPaths(const Controller& c, int copies) {
  std::vector<std::string> p;
  for (int i = 0; i < copies; ++i) p.push_back(c.FloorPath(i));
  return p;
}

// Raises the trace filter to everything for the lifetime of the object, then
// puts the configured level back.
class TraceAll {
 public:
  TraceAll() {
    const char* old = getenv("MC_TRACE_LEVEL");
    had_ = old != nullptr;
    if (had_) old_ = old;
    setenv("MC_TRACE_LEVEL", "5", 1);
    MC_TestReloadEnv();
  }
  ~TraceAll() {
    if (had_) {
      setenv("MC_TRACE_LEVEL", old_.c_str(), 1);
    } else {
      unsetenv("MC_TRACE_LEVEL");
    }
    MC_TestReloadEnv();
  }

 private:
  bool had_ = false;
  std::string old_;
};

// Phases of one write iteration.
enum Phase { kLib = 0, kPhys, kDesign, kSerial, kPhases };

// One data write that extends the data, so every write does all four durable
// rounds: intent record (12 B at header 80), data, intent clear (12 B at 80)
// and the new size (4 B at 44).  The floors do the same four rounds on their
// own files at the same offsets.  When the area is nearly full the size is
// set back to 0 outside the timed region.
void BM_Write(benchmark::State& state, int size, int copies, bool with_serial, bool trace_all) {
  Controller& c = UseController(Family::kWrite);
  const std::string name = Numbered("w", copies);
  const Area& area = FindArea(c, name);
  void* fp = nullptr;
  boolean_t clean = B_FALSE;
  if (sbacc_open(name.c_str(), "w", &fp, &clean) != 0) {
    state.SkipWithError("sbacc_open failed");
    return;
  }
  if (sbacc_write_size(0, fp) != 0) Die("sbacc_write_size");

  const std::vector<int> floor_fds = OpenAll(FloorPaths(c, copies));
  PersistentPool pool(floor_fds);

  std::vector<uint8_t> data(static_cast<size_t>(size), 0x5a);
  uint8_t intent[12] = {1};
  uint8_t clear[12] = {0};
  uint8_t newsize[4] = {0};
  const off_t base = static_cast<off_t>(area.addr);

  std::vector<double> t[kPhases], cpu[kPhases];
  // Per-iteration ratios: library and floor measured back to back, so a
  // drift of the machine between iterations cancels out.
  std::vector<double> r_design, r_phys, r_serial;
  // Summed thread start / wake-up delays of the two floors, for the mean per thread.
  int64_t spawn_delay = 0, wake_delay = 0;
  long spawned = 0, woken = 0;
  int filesize = 0;
  unsigned rot = 0;
  bool phys = !trace_all;  // the trace variant is about the library's own cost

  std::unique_ptr<TraceAll> trace;
  if (trace_all) trace = std::make_unique<TraceAll>();
  // Threads the crew starts during the library's writes, counted after three
  // warm-up iterations.
  long starts = 0, writes_counted = 0;

  for (auto _ : state) {
    if (filesize + 2 * size > kDataCap) {
      if (sbacc_write_size(0, fp) != 0) Die("sbacc_write_size");
      filesize = 0;
    }
    const std::vector<std::vector<Piece>> rounds = {
        {{intent, sizeof intent, base + 80}},
        {{data.data(), data.size(), base + 128 + filesize}},
        {{clear, sizeof clear, base + 80}},
        {{newsize, sizeof newsize, base + 44}},
    };
    double lib_ns = 0;
    for (int k = 0; k < kPhases; ++k) {
      const int ph = static_cast<int>((k + rot) % kPhases);
      if (ph == kPhys && !phys) continue;
      if (ph == kSerial && !with_serial) continue;
      const int64_t c0 = CpuNs();
      const int64_t t0 = NowNs();
      bool ok = true;
      switch (ph) {
        case kLib: {
          const long s0 = sbacc::CrewCountsNow().started;
          ok = sbacc_write(data.data(), size, filesize, fp) == size;
          filesize += size;
          if (rot >= 3) {  // after the warm-up
            starts += sbacc::CrewCountsNow().started - s0;
            ++writes_counted;
          }
          break;
        }
        case kSerial: {
          SerialScope serial;
          ok = sbacc_write(data.data(), size, filesize, fp) == size;
          filesize += size;
          break;
        }
        case kPhys:
          for (const auto& r : rounds) ok = pool.Round(r, &wake_delay) && ok;
          woken += static_cast<long>(rounds.size()) * copies;
          break;
        case kDesign:
          for (const auto& r : rounds) ok = SpawnRound(floor_fds, r, &spawn_delay) && ok;
          spawned += static_cast<long>(rounds.size()) * copies;
          break;
      }
      const double ns = static_cast<double>(NowNs() - t0);
      if (!ok) {
        state.SkipWithError("a write failed");
        break;
      }
      t[ph].push_back(ns);
      cpu[ph].push_back(static_cast<double>(CpuNs() - c0));
      if (ph == kLib) lib_ns = ns;
    }
    ++rot;
    const size_t n = t[kLib].size();
    if (n > 0 && t[kDesign].size() == n) r_design.push_back(t[kLib].back() / t[kDesign].back());
    if (n > 0 && t[kPhys].size() == n) r_phys.push_back(t[kLib].back() / t[kPhys].back());
    if (n > 0 && t[kSerial].size() == n) r_serial.push_back(t[kSerial].back() / t[kLib].back());
    state.SetIterationTime(lib_ns / 1e9);
  }
  trace.reset();
  CloseAll(floor_fds);
  sbacc_close(fp);

  const double lib = Median(t[kLib]);
  state.counters["size"] = size;
  state.counters["copies"] = copies;
  state.counters["lib_us"] = lib / 1e3;
  state.counters["design_us"] = Median(t[kDesign]) / 1e3;
  // CPU time of the whole process during each phase: what the library itself
  // spends, independent of how long the threads waited for a CPU.
  state.counters["lib_cpu_us"] = Median(cpu[kLib]) / 1e3;
  if (spawned > 0) state.counters["design_start_delay_us"] = static_cast<double>(spawn_delay) / spawned / 1e3;
  if (woken > 0) state.counters["phys_wake_delay_us"] = static_cast<double>(wake_delay) / woken / 1e3;
  state.counters["design_cpu_us"] = Median(cpu[kDesign]) / 1e3;
  if (Median(t[kDesign]) > 0) state.counters["vs_design"] = lib / Median(t[kDesign]);
  if (!r_design.empty()) state.counters["vs_design_paired"] = Median(r_design);
  if (phys) {
    state.counters["phys_us"] = Median(t[kPhys]) / 1e3;
    state.counters["phys_cpu_us"] = Median(cpu[kPhys]) / 1e3;
    if (Median(t[kPhys]) > 0) state.counters["vs_phys"] = lib / Median(t[kPhys]);
    if (!r_phys.empty()) state.counters["vs_phys_paired"] = Median(r_phys);
  }
  if (with_serial) {
    state.counters["serial_us"] = Median(t[kSerial]) / 1e3;
    state.counters["serial_cpu_us"] = Median(cpu[kSerial]) / 1e3;
    if (lib > 0) state.counters["serial_over_parallel"] = Median(t[kSerial]) / lib;
    if (!r_serial.empty()) state.counters["serial_over_parallel_paired"] = Median(r_serial);
  }
  if (writes_counted > 0) {
    state.counters["thread_starts_per_1000"] = 1000.0 * static_cast<double>(starts) / writes_counted;
  }
  state.counters["samples"] = static_cast<double>(t[kLib].size());
}

enum OcPhase { kOcLib = 0, kOcFloor2, kOcFloor3, kOcPhases };

// sbacc_open "w" + sbacc_close against the file work they stand for: open K
// files, read K headers, and the durable header writes.  Two floors: the
// open record (13 B) and the close record (8 B stamp + 1 B flag) as two
// rounds, and as three rounds -- the close stamp and the close flag are two
// separate durable writes in the design, so the stamp is durable before the
// flag is cleared.
void BM_OpenClose(benchmark::State& state, int copies) {
  Controller& c = UseController(Family::kWrite);
  const std::string name = Numbered("oc", copies);
  const Area& area = FindArea(c, name);
  void* fp = nullptr;
  boolean_t clean = B_FALSE;
  // First open initialises the area's NV record and headers.
  if (sbacc_open(name.c_str(), "w", &fp, &clean) != 0 || sbacc_close(fp) != 0) {
    state.SkipWithError("first open failed");
    return;
  }
  const std::vector<std::string> paths = FloorPaths(c, copies);
  const off_t base = static_cast<off_t>(area.addr);
  uint8_t header[128];
  uint8_t openinfo[13] = {1};
  uint8_t stamp[8] = {0};
  uint8_t flag[1] = {0};
  const std::vector<Piece> r_open = {{openinfo, sizeof openinfo, base + 59}};
  const std::vector<Piece> r_close2 = {{stamp, sizeof stamp, base + 72}, {flag, 1, base + 59}};
  const std::vector<Piece> r_stamp = {{stamp, sizeof stamp, base + 72}};
  const std::vector<Piece> r_flag = {{flag, 1, base + 59}};

  std::vector<double> t[kOcPhases];
  std::vector<double> r2, r3;  // per-iteration ratios
  unsigned rot = 0;
  for (auto _ : state) {
    double lib_ns = 0;
    for (int k = 0; k < kOcPhases; ++k) {
      const int ph = static_cast<int>((k + rot) % kOcPhases);
      const int64_t t0 = NowNs();
      bool ok = true;
      if (ph == kOcLib) {
        ok = sbacc_open(name.c_str(), "w", &fp, &clean) == 0 && sbacc_close(fp) == 0;
      } else {
        const std::vector<int> fds = OpenAll(paths);
        for (int fd : fds) ok = (::pread(fd, header, sizeof header, base) == sizeof header) && ok;
        ok = SpawnRound(fds, r_open) && ok;
        if (ph == kOcFloor2) {
          ok = SpawnRound(fds, r_close2) && ok;
        } else {
          ok = SpawnRound(fds, r_stamp) && ok;
          ok = SpawnRound(fds, r_flag) && ok;
        }
        CloseAll(fds);
      }
      const double ns = static_cast<double>(NowNs() - t0);
      if (!ok) {
        state.SkipWithError("open/close failed");
        break;
      }
      t[ph].push_back(ns);
      if (ph == kOcLib) lib_ns = ns;
    }
    ++rot;
    const size_t n = t[kOcLib].size();
    if (n > 0 && t[kOcFloor2].size() == n && t[kOcFloor3].size() == n) {
      r2.push_back(t[kOcLib].back() / t[kOcFloor2].back());
      r3.push_back(t[kOcLib].back() / t[kOcFloor3].back());
    }
    state.SetIterationTime(lib_ns / 1e9);
  }
  const double lib = Median(t[kOcLib]);
  state.counters["copies"] = copies;
  state.counters["lib_us"] = lib / 1e3;
  state.counters["floor2_us"] = Median(t[kOcFloor2]) / 1e3;
  state.counters["floor3_us"] = Median(t[kOcFloor3]) / 1e3;
  if (Median(t[kOcFloor2]) > 0) state.counters["vs_floor2"] = lib / Median(t[kOcFloor2]);
  if (Median(t[kOcFloor3]) > 0) state.counters["vs_floor3"] = lib / Median(t[kOcFloor3]);
  if (!r2.empty()) state.counters["vs_floor2_paired"] = Median(r2);
  if (!r3.empty()) state.counters["vs_floor3_paired"] = Median(r3);
  state.counters["samples"] = static_cast<double>(t[kOcLib].size());
}

}  // namespace

void RegisterWriteBenchmarks(const Budget& b) {
  const int sizes[3] = {64, 4096, 65536};
  const int counts[4] = {1, 2, 4, 8};
  for (int size : sizes) {
    for (int copies : counts) {
      const std::string n = Numbered("write/size:", size) + Numbered("/copies:", copies);
      benchmark::RegisterBenchmark(n.c_str(), BM_Write, size, copies, true, false)
          ->UseManualTime()
          ->Unit(benchmark::kMicrosecond)
          // The configuration with targets gets more samples.
          ->Iterations(size == 4096 && copies == 4 ? 5 * b.write_iters : b.write_iters);
    }
  }
  // The same 4 KiB x 4 copies write with every trace level let through (the
  // library's default when MC_TRACE_LEVEL is unset), to show what the trace
  // calls cost when they are not filtered out.
  benchmark::RegisterBenchmark("write_trace_all/size:4096/copies:4", BM_Write, 4096, 4, false, true)
      ->UseManualTime()
      ->Unit(benchmark::kMicrosecond)
      ->Iterations(b.write_iters);
  for (int copies : counts) {
    const std::string n = Numbered("open_close/copies:", copies);
    benchmark::RegisterBenchmark(n.c_str(), BM_OpenClose, copies)
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond)
        ->Iterations(b.open_iters);
  }
}

}  // namespace sbacc_bench
