// Shared set-up of the fuzz targets: one simulated controller for the whole
// process (areas "a" and "b", two copies each), made fresh for every input,
// and the test Env, which records NV retry and lock back-off pauses instead
// of sleeping them and can keep the workers in the calling thread.
#ifndef SBACC_FUZZ_RIG_H
#define SBACC_FUZZ_RIG_H

#include "sim.h"  // the library, the stand-ins and the simulated controller

namespace sbacc_fuzz {

constexpr int kCopies = 2;
constexpr uint64_t kAreaAddr = 0x400, kAreaSize = 4096;

inline void Check(bool ok) {
  if (!ok) abort();
}

// Success or one of the library's codes.
inline bool Known(int rc) { return rc >= 0 || strcmp(sbacc_code_name(rc), "SBACC_E_UNKNOWN") != 0; }

struct Rig {
  static bool Prepare() {  // before the simulated controller is made
    sbacc_test::QuickFailures();
    setenv("SBACC_REPAIR_MAXRETRY", "1", 1);
    setenv("SANFWCTL_MASTER", "1", 1);
    setenv("SANFWCTL_NV_SIZE", "16384", 1);
    for (const char* v : {"MC_TRACE_FILE", "MC_TRACE_DIR"}) unsetenv(v);
    return true;
  }
  bool prepared = Prepare();
  sbacc_test::Sim sim{kCopies, 16 * 1024, true};
  sbacc_test::FaultEnv env;
  sbacc_test::Sim::Held held;  // what a run must end with

  // Zeroed images, the two areas, the library and the stand-ins reset; with
  // threads off every worker's job runs in the calling thread (far faster
  // under the sanitizers, and the same results).
  void Fresh(bool threads) {
    for (int i = 0; i < kCopies; ++i) sim.RecreateHdd(i);
    sim.PutNvBytes(0, std::vector<uint8_t>(16384, 0).data(), 16384);
    sim.SetAreas({{"a", kAreaAddr, kAreaSize, kCopies}, {"b", kAreaAddr + kAreaSize, kAreaSize, kCopies}});
    sanfwctl_reset();
    sbacc_reset_process_state();
    env.ClearRules();
    env.ResetCounters();
    sbacc::CrewSetBound(threads ? sbacc::kCrewDefaultBound : 0);
    held = sim.HeldNow();
  }
  // From now every HDD write must land inside bytes [lo, hi) of its file
  // (the area the calls work on); a stray write aborts the run.
  void Bound(uint64_t lo, uint64_t hi) {
    env.BoundWrites(lo, hi);
  }
  // Forgets the library's process state and checks that no descriptor or
  // block outlives the run.
  void Finish() {
    Bound(0, 0);
    sbacc_reset_process_state();
    Check(sim.HeldNow() == held);
  }
};

inline Rig& TheRig() {
  static Rig rig;  // destroyed at exit, with its directory
  return rig;
}

}  // namespace sbacc_fuzz

#endif  // SBACC_FUZZ_RIG_H
