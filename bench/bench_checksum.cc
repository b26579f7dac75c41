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

#include <cmath>

#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench_common.h"
#include "bench_suite.h"
#include "sbacc.h"

namespace sbacc_bench {
namespace {

constexpr int kWriteSize = 4096;
constexpr int kWriteCap = 256 << 10;    // data capacity of the ca* / cb* areas
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
            const std::vector<double> (&cpu)[kVariants], double paired) {
  state.counters["sum_us"] = Median(t[kSum]) / 1e3;
  state.counters["plain_us"] = Median(t[kPlain]) / 1e3;
  state.counters["sum_cpu_us"] = Median(cpu[kSum]) / 1e3;
  state.counters["plain_cpu_us"] = Median(cpu[kPlain]) / 1e3;
  if (Median(t[kPlain]) > 0) state.counters["sum_over_plain"] = Median(t[kSum]) / Median(t[kPlain]);
  if (paired > 0) state.counters["sum_over_plain_paired"] = paired;
  state.counters["samples"] = static_cast<double>(t[kSum].size());
}

// A 4 KiB write through a handle with records and through one without, back
// to back in rotating order.  Append: every write extends the data (all four
// durable rounds; no old bytes to read).  Overwrite: every write lands at a
// 4 KiB boundary inside 64 KiB of data (three rounds; with records the old
// bytes of the range are read first).
//
// Two areas of one shape are not equally fast: with both handles without
// records, one 8-copy area of this layout came out 10 % slower than the
// other on ext4.  So the records sit on area a for the first half of the
// iterations and on area b for the second, and the ratio is the geometric
// mean of the two halves' paired medians, which cancels a factor that
// belongs to the area.
void BM_WriteChecksum(benchmark::State& state, int copies, bool overwrite) {
  UseController(Family::kChecksum);
  const std::string names[2] = {Numbered("ca", copies), Numbered("cb", copies)};
  void* fp[2] = {nullptr, nullptr};
  int filesize[2] = {0, 0};
  std::vector<uint8_t> data(kOverwriteSpan, 0x5a);
  // Opens both areas, records on area `with` only.  The first write of each
  // handle stays outside the measurement: the handle now keeping records
  // computes them afresh from the data, and the first data read of a handle
  // verifies the whole copy (the first-read benchmark measures that).
  auto open_pair = [&](int with) {
    for (int a = 0; a < 2; ++a) {
      if (fp[a] != nullptr) sbacc_close(fp[a]);
      fp[a] = OpenUnder(a == with, names[a], "w");
      if (fp[a] == nullptr) return false;
      if (!overwrite && filesize[a] + kWriteSize > kWriteCap) {
        if (sbacc_write_size(0, fp[a]) != 0) Die("sbacc_write_size " + names[a]);
        filesize[a] = 0;
      }
      const int off = overwrite ? kWriteSize : filesize[a];
      if (sbacc_write(data.data(), kWriteSize, off, fp[a]) != kWriteSize) Die("warm-up " + names[a]);
      if (!overwrite) filesize[a] += kWriteSize;
    }
    return true;
  };
  bool opened = true;
  for (int a = 0; a < 2 && opened; ++a) {
    opened = (fp[a] = OpenUnder(false, names[a], "w")) != nullptr;
    if (opened && sbacc_write_size(0, fp[a]) != 0) Die("sbacc_write_size " + names[a]);
    if (opened && overwrite) {
      if (sbacc_write(data.data(), kOverwriteSpan, 0, fp[a]) != kOverwriteSpan) Die("fill " + names[a]);
      filesize[a] = kOverwriteSpan;
    }
  }
  if (!opened || !open_pair(0)) {
    state.SkipWithError("sbacc_open failed");
    for (void* f : fp) {
      if (f != nullptr) sbacc_close(f);
    }
    return;
  }

  std::vector<double> t[kVariants], cpu[kVariants], ratio[2];
  const auto iterations = state.max_iterations;
  int with = 0;  // the area that keeps records
  unsigned rot = 0;
  for (auto _ : state) {
    if (with == 0 && iterations >= 2 && rot == (iterations + 1) / 2) {
      with = 1;
      if (!open_pair(with)) {
        state.SkipWithError("sbacc_open failed");
        break;
      }
    }
    // New bytes every iteration, so an overwrite really changes the data.
    memset(data.data(), (rot & 1) != 0 ? 0xa5 : 0x5a, kWriteSize);
    const int at = kWriteSize * static_cast<int>(1 + rot % (kOverwriteSpan / kWriteSize - 2));
    double sum_ns = 0;
    bool ok = true;
    for (int k = 0; k < kVariants && ok; ++k) {
      const int v = static_cast<int>((k + rot) % kVariants);
      const int a = v == kSum ? with : 1 - with;
      if (!overwrite && filesize[a] + kWriteSize > kWriteCap) {
        if (sbacc_write_size(0, fp[a]) != 0) Die("sbacc_write_size " + names[a]);
        filesize[a] = 0;
      }
      const int off = overwrite ? at : filesize[a];
      const int64_t c0 = CpuNs();
      const int64_t t0 = NowNs();
      ok = sbacc_write(data.data(), kWriteSize, off, fp[a]) == kWriteSize;
      const double ns = static_cast<double>(NowNs() - t0);
      const double used = static_cast<double>(CpuNs() - c0);
      if (!overwrite) filesize[a] += kWriteSize;
      t[v].push_back(ns);
      cpu[v].push_back(used);
      if (v == kSum) sum_ns = ns;
    }
    if (!ok) {
      state.SkipWithError("a write failed");
      break;
    }
    ++rot;
    ratio[with].push_back(t[kSum].back() / t[kPlain].back());
    state.SetIterationTime(sum_ns / 1e9);
  }
  for (void* f : fp) {
    if (f != nullptr) sbacc_close(f);
  }
  state.counters["size"] = kWriteSize;
  state.counters["copies"] = copies;
  const double ra = Median(ratio[0]), rb = Median(ratio[1]);
  Report(state, t, cpu, ra > 0 && rb > 0 ? std::sqrt(ra * rb) : (ra > 0 ? ra : rb));
  if (ra > 0) state.counters["sum_over_plain_paired_a"] = ra;
  if (rb > 0) state.counters["sum_over_plain_paired_b"] = rb;
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
  Report(state, t, cpu, Median(ratio));
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
