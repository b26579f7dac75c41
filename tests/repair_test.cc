// Rebuild of one HDD copy from another, on real HDD image files: bytes on
// disk, retries, the NV repair mark and the unfencing, also with two copies
// rebuilt at once on one descriptor.
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <thread>
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

constexpr uint64_t kAddr = 0x1000;
constexpr uint64_t kSize = 16384;
constexpr size_t kData = kSize - 128;

class RepairTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("SBACC_REPAIR_MAXRETRY");
    sim_.SetAreas({{"a", kAddr, kSize, 3}});
    fds_ = sbacc_test::OpenFdCount();
    blocks_ = sbacc::AllocLiveBlocks();
    total_ = sbacc::AllocTrackedTotal();
  }
  void TearDown() override {
    CloseAll();
    sbacc_reset_process_state();
    sanfwctl_reset();  // closes the NV image
    EXPECT_EQ(fds_, sbacc_test::OpenFdCount());
    EXPECT_EQ(blocks_, sbacc::AllocLiveBlocks());
    EXPECT_EQ(total_, sbacc::AllocTrackedTotal());
  }
  // Copy 0 holds `filesize` bytes of data; the others hold stale bytes and an
  // old header.  Every header carries `word` as blockade mask, NV `nv_mask`.
  void Prepare(int32_t filesize, uint32_t word, uint32_t nv_mask) {
    SBACC_MEM_LIST_ENTRY e{};
    memcpy(e.magic, SBACC_MEM_MAGIC, 4);
    e.version = 3, e.hddcount = 3, e.hddblockade = nv_mask;
    sim_.PutNvEntry(0, e);
    for (int i = 0; i < 3; ++i) {
      SBACC_HDD_HEADER h{};
      memcpy(h.magic, SBACC_HDD_MAGIC, 4);
      h.version = 3, h.areasize = kSize, h.filesize = i == 0 ? filesize : 77;
      h.hddblockade = word, h.opencnt = 41 + i;
      sim_.PutHeader(0, i, h);
      std::vector<uint8_t> d(kData, 0xEE);
      for (size_t k = 0; i == 0 && k < kData; ++k) d[k] = static_cast<uint8_t>(k * 13 + 5);
      sim_.PutHddBytes(i, kAddr + 128, d.data(), d.size());
    }
  }
  SBACC_FILE_DISCRIPTER* Open() {
    EXPECT_EQ(0, sbacc_ma_alloc_sfd("a", SBACC_OPENMODE_WRITE, &sfd_));
    for (int i = 0; i < 3; ++i) sfd_->fd[i] = sbacc::CurrentEnv()->Open(sim_.HddPath(i).c_str(), O_RDWR);
    return sfd_;
  }
  void CloseAll() {
    if (sfd_ == nullptr) return;
    sbacc_ma_close(sfd_);
    sbacc_ma_free_sfd(sfd_);
    sfd_ = nullptr;
  }
  // Copy dst is current: its data and header are the source's, with no bit
  // left in any mask.
  void ExpectRebuilt(int dst, int32_t filesize) {
    const size_t n = filesize > 0 ? filesize : 0;
    EXPECT_EQ(sim_.Data(0, 0, n), sim_.Data(0, dst, n));
    EXPECT_EQ(std::vector<uint8_t>(kData - n, 0xEE), sim_.HddBytes(dst, kAddr + 128 + n, kData - n));
    EXPECT_EQ(sim_.HddBytes(0, kAddr, 128), sim_.HddBytes(dst, kAddr, 128));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(0u, sim_.Header(0, i).hddblockade) << "copy " << i;
    EXPECT_EQ(0u, sim_.NvEntry(0).hddblockade);
  }

  Sim sim_{3};
  SBACC_FILE_DISCRIPTER* sfd_ = nullptr;
  int fds_ = 0;
  long blocks_ = 0;
  int total_ = 0;
};

struct CopyCase {
  const char* name;
  int32_t filesize;
  FaultEnv::Op op;
  int hdd;  // -1: no fault
  long start, count;
  const char* maxretry;
  int rc;
  const char* trace;  // once per failed attempt
};
void PrintTo(const CopyCase& c, std::ostream* os) { *os << c.name; }

class CopyTest : public RepairTest, public ::testing::WithParamInterface<CopyCase> {};

TEST_P(CopyTest, RebuildsOrGivesUp) {
  const CopyCase& c = GetParam();
  if (c.maxretry != nullptr) setenv("SBACC_REPAIR_MAXRETRY", c.maxretry, 1);
  Prepare(c.filesize, 0x2, 0x2);
  const std::vector<uint8_t> old_header = sim_.HddBytes(1, kAddr, 128);
  SBACC_FILE_DISCRIPTER* sfd = Open();
  FaultEnv env;
  if (c.hdd >= 0) env.FailOp(c.op, sim_.HddPath(c.hdd), c.start, c.count, EIO);
  sbacc_test::TraceCapture trace;
  EXPECT_EQ(c.rc, sbacc_ma_hddrepair_copy(sfd, 0, 1));
  EXPECT_EQ(0, sim_.NvEntry(0).hddrepair);
  EXPECT_EQ(0, env.SleepCount());  // failed attempts are repeated at once
  if (c.trace != nullptr) {
    EXPECT_EQ(c.count, trace.Count(c.trace)) << trace.Dump();
  }
  if (c.rc == 0) {
    ExpectRebuilt(1, c.filesize);
  } else {
    EXPECT_EQ(old_header, sim_.HddBytes(1, kAddr, 128));
    EXPECT_EQ(0x2u, sim_.NvEntry(0).hddblockade);
  }
}

constexpr FaultEnv::Op R = FaultEnv::kRead, W = FaultEnv::kWrite;
const char* const kSetData = "[sbacc_ma_hddrepair_copy] sbacc_l_hddset_data error. retcode=-123";

INSTANTIATE_TEST_SUITE_P(
    Cases, CopyTest,
    ::testing::Values(
        CopyCase{"Remainder", 5000, W, -1, 0, 0, nullptr, 0, nullptr},
        CopyCase{"WholeChunks", 4096, W, -1, 0, 0, nullptr, 0, nullptr},
        CopyCase{"EmptyCopiesHeaderOnly", 0, W, -1, 0, 0, nullptr, 0, nullptr},
        CopyCase{"NegativeSizeCopiesHeaderOnly", -9, W, -1, 0, 0, nullptr, 0, nullptr},
        CopyCase{"DstWriteFailsOnce", 5000, W, 1, 1, 1, nullptr, 0, kSetData},
        CopyCase{"DstWriteFailsThreeTimes", 5000, W, 1, 0, 3, nullptr, 0, kSetData},
        CopyCase{"DstWriteFailsFourTimes", 5000, W, 1, 0, 4, nullptr, SBACC_E_REPAIR, kSetData},
        CopyCase{"RetryLimitFromEnv", 5000, W, 1, 2, 2, "1", SBACC_E_REPAIR, kSetData},
        CopyCase{"SrcReadFailsOnce", 5000, R, 0, 1, 1, nullptr, 0,
                 "[sbacc_ma_hddrepair_copy] sbacc_l_hddget_data error. retcode=-122"},
        CopyCase{"HeaderWriteFailsFourTimes", 0, W, 1, 0, 4, nullptr, SBACC_E_REPAIR,
                 "[sbacc_ma_hddrepair_copy] sbacc_l_hddset_header error. retcode=-123"},
        CopyCase{"FilesizeUnreadable", 5000, R, 0, 0, 1, nullptr, SBACC_E_HDDREAD,
                 "[sbacc_ma_hddrepair_copy] sbacc_l_hddget_filesize error. retcode=-122"}),
    [](const ::testing::TestParamInfo<CopyCase>& i) { return std::string(i.param.name); });

TEST_F(RepairTest, FencedSourceTouchesNothing) {
  Prepare(5000, 0x1, 0x1);
  const std::vector<uint8_t> before = sim_.HddBytes(1, kAddr, kSize);
  FaultEnv env;
  const long nv_writes = sanfwctl_call_count(SANFWCTL_FAULT_WRITE);
  EXPECT_EQ(SBACC_E_NOCOPY, sbacc_ma_hddrepair_copy(Open(), 0, 1));
  EXPECT_EQ(0, env.Calls(FaultEnv::kWrite));
  EXPECT_EQ(nv_writes, sanfwctl_call_count(SANFWCTL_FAULT_WRITE));  // no repair mark either
  EXPECT_EQ(before, sim_.HddBytes(1, kAddr, kSize));
}

TEST_F(RepairTest, ParallelRebuildsLoseNoBit) {
  for (int round = 0; round < 15; ++round) {
    Prepare(7000, 0x6, 0x6);
    SBACC_FILE_DISCRIPTER* sfd = Open();
    FaultEnv env;
    env.DelayWrites(sim_.HddPath(round % 2 + 1), 200);
    int rc[3] = {-1, -1, -1};
    std::thread t1([&] { rc[1] = sbacc_ma_hddrepair_copy(sfd, 0, 1); });
    std::thread t2([&] { rc[2] = sbacc_ma_hddrepair_copy(sfd, 0, 2); });
    t1.join();
    t2.join();
    ASSERT_EQ(0, rc[1]);
    ASSERT_EQ(0, rc[2]);
    ASSERT_EQ(0, sim_.NvEntry(0).hddrepair) << "round " << round;
    ExpectRebuilt(1, 7000);
    ExpectRebuilt(2, 7000);
    if (HasFailure()) return;
    CloseAll();
  }
}

}  // namespace
