// Start-up (NV initialisation over 64 areas x 4 copies), parallel against the
// serial fall-back and verifying the copies against not verifying, and the
// rebuild of one stale 1 MiB copy against a bare copy loop.
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench_common.h"
#include "bench_suite.h"
#include "sbacc.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"

namespace sbacc_bench {
namespace {

void BM_Startup(benchmark::State& state, bool stale) {
  Controller& c = UseController(Family::kStartup);
  static const Controller* prepared = nullptr;
  if (prepared != &c) {
    PrepareStartup(c);
    prepared = &c;
  }
  std::vector<double> par, ser, par_cpu, ser_cpu;
  unsigned rot = 0;
  for (auto _ : state) {
    double par_ns = 0;
    for (int k = 0; k < 2; ++k) {
      const bool serial = ((k + rot) % 2) == 1;
      if (stale) MakeStale(c);
      const int64_t c0 = CpuNs();
      const int64_t t0 = NowNs();
      int rc;
      if (serial) {
        SerialScope serial;
        rc = sbacc_nv_init(0);
      } else {
        rc = sbacc_nv_init(0);
      }
      const double ns = static_cast<double>(NowNs() - t0);
      const double cpu = static_cast<double>(CpuNs() - c0);
      if (rc != 0 || (stale && !Rebuilt(c))) {
        state.SkipWithError(rc != 0 ? "sbacc_nv_init failed" : "stale copy not rebuilt");
        return;
      }
      (serial ? ser : par).push_back(ns);
      (serial ? ser_cpu : par_cpu).push_back(cpu);
      if (!serial) par_ns = ns;
    }
    ++rot;
    state.SetIterationTime(par_ns / 1e9);
  }
  state.counters["areas"] = static_cast<double>(c.Areas().size());
  state.counters["copies"] = 4;
  state.counters["parallel_ms"] = Median(par) / 1e6;
  state.counters["serial_ms"] = Median(ser) / 1e6;
  state.counters["parallel_cpu_ms"] = Median(par_cpu) / 1e6;
  state.counters["serial_cpu_ms"] = Median(ser_cpu) / 1e6;
  if (Median(ser) > 0) state.counters["parallel_over_serial"] = Median(par) / Median(ser);
  state.counters["samples"] = static_cast<double>(par.size());
}

// The start-up verifying every copy (records on) against the start-up that
// does not (SBACC_CHECKSUM=0), back to back in rotating order.  A start-up
// without records counts as an open that unbinds them, so every run starts
// from the same images, put back outside the timed region: each area holds
// 4 KiB of data under a record on every copy.
void BM_StartupChecksum(benchmark::State& state) {
  Controller& c = UseController(Family::kStartup);
  PrepareStartup(c);
  auto records_hold = [&c] {
    for (const Area& a : c.Areas()) {
      for (int hdd = 0; hdd < a.copies; ++hdd) {
        if (!RecordHolds(c.HddPath(hdd), a.addr, 4096)) return false;
      }
    }
    return true;
  };
  if (!records_hold()) {
    state.SkipWithError("no integrity records to verify");
    return;
  }
  const ImageSnapshot snapshot(c, 4);
  std::vector<double> t[2], cpu[2], ratio;
  unsigned rot = 0;
  for (auto _ : state) {
    double sum_ns = 0;
    for (int k = 0; k < 2; ++k) {
      const bool sums = ((k + rot) % 2) == 0;
      snapshot.Restore();
      int rc;
      int64_t c0, t0;
      {
        ChecksumEnv env(sums);
        c0 = CpuNs();
        t0 = NowNs();
        rc = sbacc_nv_init(0);
      }
      const double ns = static_cast<double>(NowNs() - t0);
      const double used = static_cast<double>(CpuNs() - c0);
      // The verifying start-up carries the records to its own open.
      if (rc != 0 || (sums && !records_hold())) {
        state.SkipWithError(rc != 0 ? "sbacc_nv_init failed" : "records lost by the start-up");
        return;
      }
      t[sums ? 0 : 1].push_back(ns);
      cpu[sums ? 0 : 1].push_back(used);
      if (sums) sum_ns = ns;
    }
    ++rot;
    ratio.push_back(t[0].back() / t[1].back());
    state.SetIterationTime(sum_ns / 1e9);
  }
  snapshot.Restore();
  state.counters["areas"] = static_cast<double>(c.Areas().size());
  state.counters["copies"] = 4;
  state.counters["sum_ms"] = Median(t[0]) / 1e6;
  state.counters["plain_ms"] = Median(t[1]) / 1e6;
  state.counters["sum_cpu_ms"] = Median(cpu[0]) / 1e6;
  state.counters["plain_cpu_ms"] = Median(cpu[1]) / 1e6;
  if (Median(t[1]) > 0) state.counters["sum_over_plain"] = Median(t[0]) / Median(t[1]);
  if (!ratio.empty()) state.counters["sum_over_plain_paired"] = Median(ratio);
  state.counters["samples"] = static_cast<double>(t[0].size());
}

constexpr int kChunk = 2048;

// Floor of a rebuild: the same bytes in the same 2048-byte chunks, each
// written chunk flushed, then the header.
bool CopyFloor(int src, int dst, off_t base, int bytes, std::vector<uint8_t>& buf) {
  bool ok = true;
  for (int p = 0; p < bytes; p += kChunk) {
    const off_t pos = base + 128 + p;
    ok = (::pread(src, buf.data(), kChunk, pos) == kChunk) && ok;
    ok = (::pwrite(dst, buf.data(), kChunk, pos) == kChunk) && ok;
    ok = (::fsync(dst) == 0) && ok;
  }
  ok = (::pread(src, buf.data(), 128, base) == 128) && ok;
  ok = (::pwrite(dst, buf.data(), 128, base) == 128) && ok;
  return (::fsync(dst) == 0) && ok;
}

// `bytes` of data in the stale copy's area: 1 MiB, or none at all, which
// leaves the fixed cost of a rebuild (NV bookkeeping, header copy and the
// unfencing header write to every copy).
void BM_Repair(benchmark::State& state, int bytes) {
  Controller& c = UseController(Family::kRepair);
  const Area& area = c.Areas()[bytes > 0 ? 0 : 1];
  {
    void* fp = nullptr;
    boolean_t clean = B_FALSE;
    std::vector<uint8_t> data(65536, 0x3c);
    if (sbacc_open(area.name.c_str(), "w", &fp, &clean) != 0) Die("open " + area.name);
    if (sbacc_write_size(0, fp) != 0) Die("size " + area.name);
    for (int p = 0; p < bytes; p += 65536) {
      if (sbacc_write(data.data(), 65536, p, fp) != 65536) Die("write " + area.name);
    }
    sbacc_close(fp);
  }
  SBACC_FILE_DISCRIPTER* sfd = nullptr;
  boolean_t clean = B_FALSE;
  if (sbacc_ma_alloc_sfd(area.name.c_str(), SBACC_OPENMODE_WRITE, &sfd) != 0) Die("alloc sfd");
  if (sbacc_ma_open(sfd, &clean, B_FALSE) != 0) Die("sbacc_ma_open");

  const std::vector<int> floor = OpenAll({c.FloorPath(0), c.FloorPath(1)});
  std::vector<uint8_t> buf(kChunk);
  std::vector<double> lib, flo, lib_cpu, flo_cpu;
  unsigned rot = 0;
  for (auto _ : state) {
    double lib_ns = 0;
    for (int k = 0; k < 2; ++k) {
      const bool is_floor = ((k + rot) % 2) == 1;
      bool ok;
      int64_t t0, c0;
      if (is_floor) {
        c0 = CpuNs();
        t0 = NowNs();
        ok = CopyFloor(floor[0], floor[1], static_cast<off_t>(area.addr), bytes, buf);
      } else {
        // Copy 1 fenced off (and its data spoiled, as a failed write leaves it).
        if (bytes > 0) c.PokeHdd32(1, area.addr + 128, kGarbage);
        if (sbacc_memset_hddblockade(sfd, 0x2) != 0) Die("sbacc_memset_hddblockade");
        c0 = CpuNs();
        t0 = NowNs();
        ok = sbacc_ma_hddrepair_copy(sfd, 0, 1) == 0;
      }
      const double ns = static_cast<double>(NowNs() - t0);
      const double cpu = static_cast<double>(CpuNs() - c0);
      if (!is_floor && bytes > 0) ok = ok && Peek32(c.HddPath(1), area.addr + 128) != kGarbage;
      if (!ok) {
        state.SkipWithError("rebuild failed");
        break;
      }
      (is_floor ? flo : lib).push_back(ns);
      (is_floor ? flo_cpu : lib_cpu).push_back(cpu);
      if (!is_floor) lib_ns = ns;
    }
    ++rot;
    state.SetIterationTime(lib_ns / 1e9);
  }
  CloseAll(floor);
  sbacc_ma_close(sfd);
  sbacc_ma_free_sfd(sfd);

  const double mib = static_cast<double>(bytes) / (1 << 20);
  state.counters["bytes"] = bytes;
  state.counters["lib_ms"] = Median(lib) / 1e6;
  state.counters["floor_ms"] = Median(flo) / 1e6;
  state.counters["lib_cpu_ms"] = Median(lib_cpu) / 1e6;
  state.counters["floor_cpu_ms"] = Median(flo_cpu) / 1e6;
  if (bytes > 0 && Median(lib) > 0) state.counters["lib_MiBps"] = mib / (Median(lib) / 1e9);
  if (bytes > 0 && Median(flo) > 0) state.counters["floor_MiBps"] = mib / (Median(flo) / 1e9);
  if (Median(flo) > 0) state.counters["vs_floor"] = Median(lib) / Median(flo);
  state.counters["samples"] = static_cast<double>(lib.size());
}

}  // namespace

void RegisterStartupBenchmarks(const Budget& b) {
  benchmark::RegisterBenchmark("startup/clean", BM_Startup, false)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond)
      ->Iterations(b.startup_iters);
  benchmark::RegisterBenchmark("startup/stale_copy", BM_Startup, true)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond)
      ->Iterations(b.startup_iters);
  benchmark::RegisterBenchmark("startup/checksum", BM_StartupChecksum)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond)
      // Paired per iteration against a 20 % target: more samples than the
      // parallel / serial comparison.
      ->Iterations(2 * b.startup_iters);
  benchmark::RegisterBenchmark("repair/1MiB", BM_Repair, 1 << 20)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond)
      ->Iterations(b.repair_iters);
  benchmark::RegisterBenchmark("repair/empty", BM_Repair, 0)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond)
      ->Iterations(b.repair_iters * 4);
}

}  // namespace sbacc_bench
