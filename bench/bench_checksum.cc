// What the per-copy integrity records cost: a write with records against the
// same write without, the first read of a read-mode handle (which verifies
// the copy it reads), and the start-up that verifies every copy.
//
// SBACC_CHECKSUM is read when a handle is made, so the two variants are two
// handles made under different settings.  The writes go to two areas of one
// shape rather than two handles on one area: a handle without records leaves
// the record of the area stale and its open unbinds it, so the handle with
// records would recompute it from the data and would not be measuring the
// write it makes in normal use.
#include <string.h>

#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench_common.h"
#include "bench_suite.h"
#include "sbacc.h"

namespace sbacc_bench {
namespace {

constexpr int kWriteSize = 4096;
constexpr int kWriteCap = 256 << 10;    // data capacity of the cs* / pl* areas
constexpr int kOverwriteSpan = 65536;   // data an overwrite lands inside

const Area& FindArea(const Controller& c, const std::string& name) {
  for (const Area& a : c.Areas()) {
    if (a.name == name) return a;
  }
  Die("no area " + name);
}

// Variant 0 keeps records, variant 1 does not.
enum { kSum = 0, kPlain = 1, kVariants = 2 };

void* OpenUnder(bool sums, const std::string& name, const char* mode) {
  ChecksumEnv env(sums);
  void* fp = nullptr;
  boolean_t clean = B_FALSE;
  if (sbacc_open(name.c_str(), mode, &fp, &clean) != 0) return nullptr;
  return fp;
}

void Report(benchmark::State& state, const std::vector<double> (&t)[kVariants],
            const std::vector<double> (&cpu)[kVariants], const std::vector<double>& ratio) {
  state.counters["sum_us"] = Median(t[kSum]) / 1e3;
  state.counters["plain_us"] = Median(t[kPlain]) / 1e3;
  state.counters["sum_cpu_us"] = Median(cpu[kSum]) / 1e3;
  state.counters["plain_cpu_us"] = Median(cpu[kPlain]) / 1e3;
  if (Median(t[kPlain]) > 0) state.counters["sum_over_plain"] = Median(t[kSum]) / Median(t[kPlain]);
  if (!ratio.empty()) state.counters["sum_over_plain_paired"] = Median(ratio);
  state.counters["samples"] = static_cast<double>(t[kSum].size());
}

// A 4 KiB write through a handle with records and through one without, back
// to back in rotating order.  Append: every write extends the data (all four
// durable rounds; no old bytes to read).  Overwrite: every write lands at a
// 4 KiB boundary inside 64 KiB of data (three rounds; with records the old
// bytes of the range are read first).
void BM_WriteChecksum(benchmark::State& state, int copies, bool overwrite) {
  UseController(Family::kChecksum);
  const std::string names[kVariants] = {Numbered("cs", copies), Numbered("pl", copies)};
  void* fp[kVariants] = {nullptr, nullptr};
  int filesize[kVariants] = {0, 0};
  std::vector<uint8_t> data(kOverwriteSpan, 0x5a);
  for (int v = 0; v < kVariants; ++v) {
    fp[v] = OpenUnder(v == kSum, names[v], "w");
    if (fp[v] == nullptr) {
      state.SkipWithError("sbacc_open failed");
      if (v == kPlain) sbacc_close(fp[kSum]);
      return;
    }
    if (sbacc_write_size(0, fp[v]) != 0) Die("sbacc_write_size " + names[v]);
    if (overwrite) {
      if (sbacc_write(data.data(), kOverwriteSpan, 0, fp[v]) != kOverwriteSpan) Die("fill " + names[v]);
      filesize[v] = kOverwriteSpan;
    }
    // One write outside the measurement: the first data read of a handle
    // verifies the whole copy, which the first-read benchmark measures.
    const int off = overwrite ? kWriteSize : filesize[v];
    if (sbacc_write(data.data(), kWriteSize, off, fp[v]) != kWriteSize) Die("warm-up " + names[v]);
    if (!overwrite) filesize[v] += kWriteSize;
  }

  std::vector<double> t[kVariants], cpu[kVariants], ratio;
  unsigned rot = 0;
  for (auto _ : state) {
    // New bytes every iteration, so an overwrite really changes the data.
    memset(data.data(), (rot & 1) != 0 ? 0xa5 : 0x5a, kWriteSize);
    const int at = kWriteSize * static_cast<int>(1 + rot % (kOverwriteSpan / kWriteSize - 2));
    double sum_ns = 0;
    for (int k = 0; k < kVariants; ++k) {
      const int v = static_cast<int>((k + rot) % kVariants);
      if (!overwrite && filesize[v] + kWriteSize > kWriteCap) {
        if (sbacc_write_size(0, fp[v]) != 0) Die("sbacc_write_size " + names[v]);
        filesize[v] = 0;
      }
      const int off = overwrite ? at : filesize[v];
      const int64_t c0 = CpuNs();
      const int64_t t0 = NowNs();
      const bool ok = sbacc_write(data.data(), kWriteSize, off, fp[v]) == kWriteSize;
      const double ns = static_cast<double>(NowNs() - t0);
      const double used = static_cast<double>(CpuNs() - c0);
      if (!ok) {
        state.SkipWithError("a write failed");
        break;
      }
      if (!overwrite) filesize[v] += kWriteSize;
      t[v].push_back(ns);
      cpu[v].push_back(used);
      if (v == kSum) sum_ns = ns;
    }
    ++rot;
    if (!t[kSum].empty() && t[kSum].size() == t[kPlain].size()) ratio.push_back(t[kSum].back() / t[kPlain].back());
    state.SetIterationTime(sum_ns / 1e9);
  }
  for (void* f : fp) sbacc_close(f);
  state.counters["size"] = kWriteSize;
  state.counters["copies"] = copies;
  Report(state, t, cpu, ratio);
}

// Open "r", one read of the whole area, close: with records the read first
// checks the copy it reads against its record (the whole copy once), without
// them it only reads.  The area was written with records, and the benchmark
// checks that every copy holds one.
void BM_FirstRead(benchmark::State& state, const char* name, int bytes) {
  Controller& c = UseController(Family::kChecksum);
  const Area& area = FindArea(c, name);
  std::vector<uint8_t> data(static_cast<size_t>(bytes), 0x3c), buf(static_cast<size_t>(bytes));
  {
    void* fp = OpenUnder(true, name, "w");
    if (fp == nullptr) Die(std::string("open ") + name);
    if (sbacc_write_size(0, fp) != 0) Die(std::string("size ") + name);
    if (sbacc_write(data.data(), bytes, 0, fp) != bytes) Die(std::string("write ") + name);
    sbacc_close(fp);
  }
  for (int i = 0; i < area.copies; ++i) {
    if (!RecordHolds(c.HddPath(i), area.addr, static_cast<uint32_t>(bytes))) {
      state.SkipWithError("no integrity record to verify");
      return;
    }
  }

  std::vector<double> t[kVariants], cpu[kVariants], ratio;
  unsigned rot = 0;
  for (auto _ : state) {
    double sum_ns = 0;
    bool ok = true;
    for (int k = 0; k < kVariants && ok; ++k) {
      const int v = static_cast<int>((k + rot) % kVariants);
      ChecksumEnv env(v == kSum);
      void* fp = nullptr;
      boolean_t clean = B_FALSE;
      const int64_t c0 = CpuNs();
      const int64_t t0 = NowNs();
      ok = sbacc_open(name, "r", &fp, &clean) == 0;
      if (ok) {
        ok = sbacc_read(buf.data(), bytes, 0, fp) == bytes;
        sbacc_close(fp);
      }
      const double ns = static_cast<double>(NowNs() - t0);
      const double used = static_cast<double>(CpuNs() - c0);
      t[v].push_back(ns);
      cpu[v].push_back(used);
      if (v == kSum) sum_ns = ns;
    }
    if (!ok || memcmp(buf.data(), data.data(), buf.size()) != 0) {
      state.SkipWithError("a read failed");
      break;
    }
    ++rot;
    ratio.push_back(t[kSum].back() / t[kPlain].back());
    state.SetIterationTime(sum_ns / 1e9);
  }
  state.counters["bytes"] = bytes;
  state.counters["copies"] = area.copies;
  Report(state, t, cpu, ratio);
}

}  // namespace

void RegisterChecksumBenchmarks(const Budget& b) {
  const int counts[4] = {1, 2, 4, 8};
  for (const bool overwrite : {false, true}) {
    for (int copies : counts) {
      const std::string n = Numbered("write_checksum/size:", kWriteSize) + Numbered("/copies:", copies) +
                            (overwrite ? "/overwrite" : "/append");
      benchmark::RegisterBenchmark(n.c_str(), BM_WriteChecksum, copies, overwrite)
          ->UseManualTime()
          ->Unit(benchmark::kMicrosecond)
          // A 5 % target needs more samples than the floors' 20 %.
          ->Iterations(3 * b.write_iters);
    }
  }
  benchmark::RegisterBenchmark("first_read/size:4096", BM_FirstRead, "rd4k", 4096)
      ->UseManualTime()
      ->Unit(benchmark::kMicrosecond)
      ->Iterations(5 * b.open_iters);
  benchmark::RegisterBenchmark("first_read/size:65536", BM_FirstRead, "rd64k", 65536)
      ->UseManualTime()
      ->Unit(benchmark::kMicrosecond)
      ->Iterations(5 * b.open_iters);
}

}  // namespace sbacc_bench
