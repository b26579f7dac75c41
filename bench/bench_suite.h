// Registration of the benchmark families, with iteration counts chosen for
// the kind of directory the run uses (an fsync on disk costs milliseconds,
// in memory microseconds).
#ifndef SBACC_BENCH_SUITE_H
#define SBACC_BENCH_SUITE_H

namespace sbacc_bench {

struct Budget {
  int write_iters;
  int open_iters;
  int startup_iters;
  int repair_iters;
};

void RegisterWriteBenchmarks(const Budget& b);
void RegisterChecksumBenchmarks(const Budget& b);
void RegisterStartupBenchmarks(const Budget& b);

}  // namespace sbacc_bench

#endif  // SBACC_BENCH_SUITE_H
