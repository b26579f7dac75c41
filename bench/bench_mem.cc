// Memory probes, each run as a process of its own and printing one JSON
// object:
//   sbacc_bench_mem startup        peak resident memory of a start-up over
//                                  64 areas x 4 copies (clean, then with one
//                                  stale copy per area)
//   sbacc_bench_mem cycles N       N open/write/close cycles: tracked bytes,
//                                  live blocks and resident memory sampled
//                                  along the way (run with SBACC_ALLOC_TRACK=1)
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "bench_common.h"
#include "sbacc.h"
#include "sbacc_alloc.h"

namespace {

using namespace sbacc_bench;

// A field of /proc/self/status in KiB ("VmRSS", "VmHWM").
long StatusKiB(const char* field) {
  std::ifstream in("/proc/self/status");
  std::string line;
  const std::string key = std::string(field) + ":";
  while (std::getline(in, line)) {
    if (line.compare(0, key.size(), key) == 0) return atol(line.c_str() + key.size());
  }
  return -1;
}

// Starts a new peak: VmHWM drops to the current resident size.
bool ResetPeak() {
  int fd = ::open("/proc/self/clear_refs", O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = ::write(fd, "5", 1) == 1;
  ::close(fd);
  return ok;
}

long MaxRssKiB() {
  struct rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_maxrss;
}

int Startup() {
  Controller& c = UseController(Family::kStartup);
  PrepareStartup(c);
  // A first clean start-up outside the measurement, so lazily mapped library
  // and libc pages do not count as the start-up's own.
  if (sbacc_nv_init(0) != 0) Die("sbacc_nv_init");

  const long rss_before = StatusKiB("VmRSS");
  const bool reset = ResetPeak();
  if (sbacc_nv_init(0) != 0) Die("sbacc_nv_init");
  const long hwm_clean = StatusKiB("VmHWM");
  const long rss_after_clean = StatusKiB("VmRSS");

  MakeStale(c);
  ResetPeak();
  if (sbacc_nv_init(0) != 0) Die("sbacc_nv_init (stale)");
  if (!Rebuilt(c)) Die("stale copies not rebuilt");
  const long hwm_stale = StatusKiB("VmHWM");
  const long rss_after_stale = StatusKiB("VmRSS");

  printf("{\"probe\":\"startup\",\"areas\":%zu,\"copies\":4,\"peak_reset\":%s,"
         "\"rss_before_kib\":%ld,\"hwm_clean_kib\":%ld,\"rss_after_clean_kib\":%ld,"
         "\"hwm_stale_kib\":%ld,\"rss_after_stale_kib\":%ld,\"ru_maxrss_kib\":%ld,"
         "\"live_blocks_after\":%ld,\"tracked_bytes_after\":%d}\n",
         c.Areas().size(), reset ? "true" : "false", rss_before, hwm_clean, rss_after_clean, hwm_stale,
         rss_after_stale, MaxRssKiB(), sbacc::AllocLiveBlocks(), sbacc::AllocTrackedTotal());
  return 0;
}

int Cycles(long n) {
  UseController(Family::kWrite);
  const char* area = "oc2";  // two copies: every access starts worker threads
  std::vector<uint8_t> data(64, 0x11);
  auto cycle = [&](long i) {
    void* fp = nullptr;
    boolean_t clean = B_FALSE;
    if (sbacc_open(area, "w", &fp, &clean) != 0) Die("sbacc_open");
    const int off = static_cast<int>((i % 64) * 64);
    if (sbacc_write(data.data(), 64, off, fp) != 64) Die("sbacc_write");
    if (sbacc_close(fp) != 0) Die("sbacc_close");
  };
  const long warmup = n < 1000 ? n / 10 : 1000;
  for (long i = 0; i < warmup; ++i) cycle(i);

  struct Sample {
    long cycles;
    int tracked;
    long live;
    long rss;
    double seconds;
  };
  std::vector<Sample> samples;
  const int64_t t0 = NowNs();
  samples.push_back({0, sbacc::AllocTrackedTotal(), sbacc::AllocLiveBlocks(), StatusKiB("VmRSS"), 0.0});
  const long step = n >= 10 ? n / 10 : 1;
  for (long i = 1; i <= n; ++i) {
    cycle(warmup + i);
    if (i % step == 0 || i == n) {
      samples.push_back({i, sbacc::AllocTrackedTotal(), sbacc::AllocLiveBlocks(), StatusKiB("VmRSS"),
                         static_cast<double>(NowNs() - t0) / 1e9});
    }
  }
  printf("{\"probe\":\"cycles\",\"cycles\":%ld,\"warmup\":%ld,\"track_switch\":%d,\"dir_fs\":\"%s\",\"samples\":[",
         n, warmup, sbacc::AllocTrackSwitch(), FsType(BaseDir()).c_str());
  for (size_t i = 0; i < samples.size(); ++i) {
    const Sample& s = samples[i];
    printf("%s{\"cycles\":%ld,\"tracked_bytes\":%d,\"live_blocks\":%ld,\"rss_kib\":%ld,\"seconds\":%.3f}",
           i == 0 ? "" : ",", s.cycles, s.tracked, s.live, s.rss, s.seconds);
  }
  printf("]}\n");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  int rc = 2;
  if (argc >= 2 && strcmp(argv[1], "startup") == 0) {
    rc = Startup();
  } else if (argc >= 3 && strcmp(argv[1], "cycles") == 0) {
    rc = Cycles(atol(argv[2]));
  } else {
    fprintf(stderr, "usage: %s startup | cycles N\n", argv[0]);
  }
  DropController();
  return rc;
}
