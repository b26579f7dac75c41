// Start-up repair of areas on real HDD image files: which copy wins, what is
// rebuilt, what is fenced off, the verdict for the data repair, the parallel
// restore (threads failing, more than 64 areas) and the NV initialisation.
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fault_env.h"
#include "sanfwctl.h"
#include "sbacc.h"
#include "sbacc_alloc.h"
#include "sbacc_core.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"
#include "sim.h"

using sbacc_test::FaultEnv;
using sbacc_test::Sim;

namespace {

constexpr uint64_t kSize = 4096;
constexpr int32_t kFill = 3000;

SBACC_HDD_HEADER Hdr(const std::string& name, uint32_t word, int64_t closetime, int opencnt, uint8_t openflag = 0) {
  SBACC_HDD_HEADER h{};
  memcpy(h.magic, SBACC_HDD_MAGIC, 4);
  strcpy(h.filename, name.c_str());
  h.version = 3, h.areasize = kSize, h.filesize = kFill, h.hddblockade = word;
  h.openflag = openflag, h.opencnt = opencnt, h.closetime = closetime;
  return h;
}

std::vector<uint8_t> Pattern(int seed) {
  std::vector<uint8_t> v(kFill);
  for (int k = 0; k < kFill; ++k) v[k] = static_cast<uint8_t>(seed * 31 + k * 7);
  return v;
}

// The NV image at full size before the test writes into it (a short image
// would make later NV reads past its end fail).
void FullNv(Sim& sim) {
  const uint8_t zero = 0;
  sim.PutNvBytes((1 << 20) - 1, &zero, 1);
}

class RestoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("SBACC_REPAIRLOCK_MAXRETRY");
    setenv("SANFWCTL_MASTER", "1", 1);  // this process (controller 0) is not the master
    FullNv(sim_);
    blocks_ = sbacc::AllocLiveBlocks();
    total_ = sbacc::AllocTrackedTotal();
  }
  void TearDown() override {
    sbacc_reset_process_state();
    EXPECT_EQ(blocks_, sbacc::AllocLiveBlocks());
    EXPECT_EQ(total_, sbacc::AllocTrackedTotal());
  }
  void PutCopy(int area, int hdd, const SBACC_HDD_HEADER& h, int seed) {
    sim_.PutHeader(area, hdd, h);
    const std::vector<uint8_t> d = Pattern(seed);
    sim_.PutHddBytes(hdd, sim_.Areas()[area].addr + 128, d.data(), d.size());
  }
  // A valid NV entry, as a system that ran before has.
  void PutNv(int area, const std::string& name, int hddcount) {
    SBACC_MEM_LIST_ENTRY e{};
    memcpy(e.magic, SBACC_MEM_MAGIC, 4);
    strcpy(e.filename, name.c_str());
    e.version = 3, e.hddcount = hddcount;
    sim_.PutNvEntry(area, e);
  }

  Sim sim_{3};
  long blocks_ = 0;
  int total_ = 0;
};

// ---- Which copy is the source, which are rebuilt ------------------------------------

struct ChoiceCase {
  const char* name;
  uint32_t words[3];
  int64_t close[3];
  int src;
  uint32_t rebuilt;
};
void PrintTo(const ChoiceCase& c, std::ostream* os) { *os << c.name; }

class ChoiceTest : public RestoreTest, public ::testing::WithParamInterface<ChoiceCase> {
 protected:
  void Run(const ChoiceCase& c) {
    sim_.SetAreas({{"a", 0x2000, kSize, 3}});
    PutNv(0, "a", 3);
    for (int i = 0; i < 3; ++i) PutCopy(0, i, Hdr("a", c.words[i], c.close[i], 10 * i + 1), i);
    FaultEnv env;
    env.SetNow(1800000000);
    sbacc_test::TraceCapture trace;
    ASSERT_EQ(0, sbacc_hdd_restore(0));
    for (int i = 0; i < 3; ++i) {
      const bool current = i == c.src || (c.rebuilt >> i & 1) != 0;
      EXPECT_EQ(Pattern(current ? c.src : i), sim_.Data(0, i, kFill)) << "copy " << i;
      const SBACC_HDD_HEADER h = sim_.Header(0, i);
      EXPECT_EQ(10 * c.src + 2, h.opencnt) << "copy " << i;  // the source's open, on every copy
      EXPECT_EQ(0u, h.hddblockade);
      EXPECT_EQ(0, h.openflag);
      EXPECT_EQ(1800000000, h.closetime);
    }
    const SBACC_MEM_LIST_ENTRY e = sim_.NvEntry(0);
    EXPECT_EQ(0u, e.hddblockade);
    EXPECT_EQ(0, e.hddrepair);
    EXPECT_EQ(0, e.hddrepairlock_cntno[0]);
    EXPECT_EQ(c.rebuilt == 0 ? 1 : 0, trace.CountContaining("[repair_for_restore] hdd repair no exec."));
    EXPECT_EQ(1, trace.Count("[sbacc_hdd_restore] file data repair no exec."));
  }
};

TEST_P(ChoiceTest, RebuildsStaleCopiesFromTheLatest) { Run(GetParam()); }

const ChoiceCase kTwoStale{"TwoStaleRebuiltTogether", {6, 0, 0}, {100, 100, 100}, 0, 0x6};

INSTANTIATE_TEST_SUITE_P(
    Cases, ChoiceTest,
    ::testing::Values(ChoiceCase{"FencedCopyRebuilt", {0, 1, 1}, {100, 100, 100}, 1, 0x1},
                      ChoiceCase{"EqualWordsLaterCloseWins", {0, 0, 0}, {100, 300, 200}, 1, 0},
                      ChoiceCase{"EqualBitCountsEarlierCloseLoses", {2, 4, 4}, {300, 200, 200}, 0, 0x6},
                      ChoiceCase{"SourceNamesAStaleCopy", {4, 4, 4}, {100, 100, 100}, 0, 0x4}, kTwoStale),
    [](const ::testing::TestParamInfo<ChoiceCase>& i) { return std::string(i.param.name); });

TEST_F(ChoiceTest, TwoStaleCopiesRepeatedly) {
  for (int round = 0; round < 10 && !HasFailure(); ++round) Run(kTwoStale);
}

// ---- Verdict of one area ------------------------------------------------------------

struct VerdictCase {
  const char* name;
  const char* copies;  // per copy: v valid, o valid and left open, z no header, m file missing
  int rc;
  int data_repair;
  uint32_t mask;
};
void PrintTo(const VerdictCase& c, std::ostream* os) { *os << c.name; }

class VerdictTest : public RestoreTest, public ::testing::WithParamInterface<VerdictCase> {};

TEST_P(VerdictTest, RecordsMaskAndVerdict) {
  const VerdictCase& c = GetParam();
  sim_.SetAreas({{"a", 0x2000, kSize, 3}});
  PutNv(0, "a", 3);
  for (int i = 0; i < 3; ++i) {
    if (c.copies[i] == 'm') sim_.RemoveHdd(i);
    if (c.copies[i] == 'v' || c.copies[i] == 'o') PutCopy(0, i, Hdr("a", 0, 1234, 5, c.copies[i] == 'o'), 0);
  }
  SBACC_DATA_REPAIR rec[1] = {};
  ASSERT_EQ(0, sbacc_l_get_filelist(&p_sbacc_file_list));
  p_sbacc_data_repair = rec;
  const int fds = sbacc_test::OpenFdCount();
  EXPECT_EQ(c.rc, sbacc_ma_repair_for_restore(0));
  sanfwctl_reset();  // closes the NV image
  EXPECT_EQ(fds, sbacc_test::OpenFdCount());
  p_sbacc_data_repair = nullptr;
  EXPECT_STREQ("a", rec[0].filename);
  EXPECT_EQ(c.data_repair, rec[0].data_repair);
  EXPECT_EQ(strchr(c.copies, 'v') != nullptr ? 1234 : 0, rec[0].closetime);
  EXPECT_EQ(c.mask, sim_.NvEntry(0).hddblockade);
  for (int i = 0; i < 3; ++i) {
    if (c.copies[i] == 'm') continue;
    const SBACC_HDD_HEADER h = sim_.Header(0, i);
    EXPECT_TRUE(sbacc_l_header_valid(&h)) << "copy " << i;
    EXPECT_EQ(c.mask, h.hddblockade);
    EXPECT_EQ(strchr(c.copies, 'z') != nullptr && strchr(c.copies, 'v') == nullptr ? 0 : kFill, h.filesize);
  }
}

INSTANTIATE_TEST_SUITE_P(Cases, VerdictTest,
                         ::testing::Values(VerdictCase{"NewHdds", "zzz", 0, 1, 0}, VerdictCase{"LeftOpen", "ovv", 0, 1, 0},
                                           VerdictCase{"InvalidCopyRebuilt", "vzv", 0, 0, 0},
                                           VerdictCase{"MissingFileFenced", "vvm", 0, 0, 0x4},
                                           VerdictCase{"NewHddsOneMissing", "zzm", 0, 1, 0x4},
                                           VerdictCase{"NoCopy", "mmm", SBACC_E_ALLBLOCKADE, 0, 0x7}),
                         [](const ::testing::TestParamInfo<VerdictCase>& i) { return std::string(i.param.name); });

TEST_F(RestoreTest, StaleCopyStaysFencedWhenRecordingFails) {
  sim_.SetAreas({{"a", 0x2000, kSize, 2}});
  PutNv(0, "a", 2);
  PutCopy(0, 0, Hdr("a", 0x2, 100, 1), 0);
  PutCopy(0, 1, Hdr("a", 0x0, 100, 1), 1);  // missed the last write
  FaultEnv env;
  env.FailOp(FaultEnv::kWrite, "", 0, 2, EIO);  // the first blockade write on both copies
  EXPECT_EQ(0, sbacc_hdd_restore(0));
  EXPECT_NE(0u, sim_.NvEntry(0).hddblockade & 0x2);
  EXPECT_EQ(Pattern(1), sim_.Data(0, 1, kFill));  // not rebuilt, so never offered as current
}

TEST_F(RestoreTest, RefusesIndexOutsideTheList) {
  sim_.SetAreas({{"a", 0x2000, kSize, 3}});
  SBACC_DATA_REPAIR rec[1] = {};
  ASSERT_EQ(0, sbacc_l_get_filelist(&p_sbacc_file_list));
  sbacc_test::TraceCapture trace;
  EXPECT_EQ(SBACC_E_PARAM, sbacc_ma_repair_for_restore(0));  // no record array
  p_sbacc_data_repair = rec;
  EXPECT_EQ(SBACC_E_PARAM, sbacc_ma_repair_for_restore(1));
  EXPECT_EQ(SBACC_E_PARAM, sbacc_ma_repair_for_restore(-1));
  p_sbacc_data_repair = nullptr;
  EXPECT_EQ(3, trace.CountContaining("[repair_for_restore] parameter failed."));
  EXPECT_EQ(std::vector<uint8_t>(128, 0), sim_.NvBytes(SBACC_NV_BASE, 128));
}

// ---- The parallel restore --------------------------------------------------------------

// Fails the start of one area's restore worker.
class FailAreaStart : public FaultEnv {
 public:
  explicit FailAreaStart(int index) : index_(index) {}
  int StartThread(void* (*fn)(void*), void* arg) override {
    if (fn == sbacc_ma_repair_for_restore_p_thread && static_cast<SBACC_HDDRST_THREAD_PARAM_SUB*>(arg)->index == index_) {
      return EAGAIN;
    }
    return FaultEnv::StartThread(fn, arg);
  }

 private:
  int index_;
};

struct ParallelCase {
  const char* name;
  int areas;
  int inline_area;  // its worker cannot be started
  bool no_mutex;    // no worker block anywhere: all serial
  int locked_area;  // another controller holds its repair lock
  int rc;
};
void PrintTo(const ParallelCase& c, std::ostream* os) { *os << c.name; }

class ParallelTest : public RestoreTest, public ::testing::WithParamInterface<ParallelCase> {};

TEST_P(ParallelTest, RepairsEveryArea) {
  const ParallelCase& c = GetParam();
  Sim sim(2);
  FullNv(sim);
  std::vector<sbacc_test::AreaSpec> specs;
  for (int a = 0; a < c.areas; ++a) specs.push_back({"area" + std::to_string(a), kSize * a, kSize, 2});
  sim.SetAreas(specs);
  for (int a = 0; a < c.areas; ++a) {
    sim.PutHeader(a, 0, Hdr(specs[a].name, 0x2, 5, 1));  // copy 1 was fenced off
    sim.PutHeader(a, 1, Hdr(specs[a].name, 0x0, 5, 1));
    const std::vector<uint8_t> d = Pattern(a);
    sim.PutHddBytes(0, specs[a].addr + 128, d.data(), d.size());
  }
  if (c.locked_area >= 0) {
    const uint8_t held = 1;
    sim.PutNvBytes(SBACC_NV_BASE + 128ull * c.locked_area + kMemRepairlock + 1, &held, 1);
    setenv("SBACC_REPAIRLOCK_MAXRETRY", "1", 1);
  }
  FailAreaStart env(c.inline_area);
  if (c.no_mutex) env.FailMutexInit(0, -1);
  if (c.locked_area == c.inline_area && c.inline_area >= 0) env.DelayOp(FaultEnv::kWrite, "", 3000);
  sbacc_test::TraceCapture trace;
  EXPECT_EQ(c.rc, sbacc_hdd_restore(0));
  // Every worker has finished by now: its area is complete.
  for (int a = 0; a < c.areas; ++a) {
    const bool locked = a == c.locked_area;
    EXPECT_EQ(Pattern(a) == sim.Data(a, 1, kFill), !locked) << "area " << a;
    EXPECT_EQ(locked ? 1 : 0, sim.NvEntry(a).hddrepairlock_cntno[1]);
  }
  if (c.inline_area >= 0) {
    EXPECT_EQ(1, trace.CountContaining("is single exec. file_index=" + std::to_string(c.inline_area)));
  }
  EXPECT_EQ(c.rc != 0 ? 1 : 0, trace.Count("[sbacc_hdd_restore]   retcode: " + std::to_string(c.rc)));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ParallelTest,
    ::testing::Values(ParallelCase{"Area3InCallingThread", 4, 3, false, -1, 0},
                      ParallelCase{"InThreadFailureWaitsForWorkers", 4, 3, false, 3, SBACC_E_REPAIR},
                      ParallelCase{"SerialWithoutMutex", 4, -1, true, -1, 0},
                      ParallelCase{"SeventyAreas", 70, -1, false, -1, 0},
                      ParallelCase{"SeventyAreasLastOneFails", 70, -1, false, 69, SBACC_E_REPAIR}),
    [](const ::testing::TestParamInfo<ParallelCase>& i) { return std::string(i.param.name); });

// ---- NV initialisation ------------------------------------------------------------------

TEST_F(RestoreTest, NvInitOnFreshController) {
  sim_.SetAreas({{"a", 0, kSize, 2}, {"b", kSize, kSize, 3}, {"c", 2 * kSize, kSize, 1}});
  EXPECT_EQ(0, sbacc_nv_init(2));
  EXPECT_EQ(2, sbacc_cntno);
  for (int a = 0; a < 3; ++a) {
    const SBACC_MEM_LIST_ENTRY e = sim_.NvEntry(a);
    EXPECT_TRUE(sbacc_l_entry_valid(&e)) << "area " << a;
    EXPECT_EQ(sim_.Areas()[a].copies, e.hddcount);
    EXPECT_EQ(0u, e.hddblockade);
    for (int i = 0; i < sim_.Areas()[a].copies; ++i) {
      const SBACC_HDD_HEADER h = sim_.Header(a, i);
      EXPECT_TRUE(sbacc_l_header_valid(&h));
      EXPECT_EQ(0, h.openflag);
    }
  }
}

TEST_F(RestoreTest, NvInitStopsAtTheAreaThatCannotBeOpened) {
  const std::string hdds = "," + sim_.HddPath(0) + "," + sim_.HddPath(1) + "\n";
  sim_.SetFilelistText("a,0,4096" + hdds + "b,1000,4096," + sim_.Dir() + "/gone\nc,2000,4096" + hdds);
  sbacc_test::TraceCapture trace;
  EXPECT_EQ(SBACC_E_ALLBLOCKADE, sbacc_nv_init(0));
  // The restore took the area without a copy as no failure.
  EXPECT_EQ(1, trace.Count("[sbacc_hdd_restore] HDD is dose not exist. file_index=1 retcode=-121->0"));
  EXPECT_EQ(0, trace.CountContaining("[sbacc_hdd_restore]   retcode:"));
  EXPECT_EQ(1, trace.Count("[sbacc_nv_init]   retcode: -121"));
  SBACC_MEM_LIST_ENTRY e = sim_.NvEntry(0);
  EXPECT_TRUE(sbacc_l_entry_valid(&e));
  e = sim_.NvEntry(2);
  EXPECT_FALSE(sbacc_l_entry_valid(&e));
}

}  // namespace
