// The benchmark suite's entry point.  The images go to SBACC_BENCH_DIR (or
// /var/tmp); run it once on a disk-backed and once on a memory-backed
// directory.  SBACC_BENCH_SCALE multiplies the iteration counts.
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include <benchmark/benchmark.h>

#include "bench_common.h"
#include "bench_suite.h"

namespace {

int Scaled(int n, double scale) { return std::max(1, static_cast<int>(n * scale + 0.5)); }

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

  const std::string dir = sbacc_bench::BaseDir();
  const bool memory = sbacc_bench::MemoryBacked(dir);
  double scale = 1.0;
  if (const char* s = getenv("SBACC_BENCH_SCALE")) scale = std::max(0.01, atof(s));
  // An fsync in memory costs microseconds, on disk milliseconds.
  sbacc_bench::Budget b = memory ? sbacc_bench::Budget{400, 200, 5, 20} : sbacc_bench::Budget{40, 40, 3, 10};
  b.write_iters = Scaled(b.write_iters, scale);
  b.open_iters = Scaled(b.open_iters, scale);
  b.startup_iters = Scaled(b.startup_iters, scale);
  b.repair_iters = Scaled(b.repair_iters, scale);

  benchmark::AddCustomContext("sbacc_dir", dir);
  benchmark::AddCustomContext("sbacc_fs", sbacc_bench::FsType(dir));
  benchmark::AddCustomContext("sbacc_backing", memory ? "memory" : "disk");
  const char* level = getenv("MC_TRACE_LEVEL");
  benchmark::AddCustomContext("mc_trace_level", level != nullptr ? level : "(unset: 5)");

  sbacc_bench::RegisterWriteBenchmarks(b);
  sbacc_bench::RegisterChecksumBenchmarks(b);
  sbacc_bench::RegisterStartupBenchmarks(b);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  sbacc_bench::DropController();
  return 0;
}
