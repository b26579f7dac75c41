// Rebuild of one HDD copy from another, on HDD image files: the bytes on
// disk, retries and giving up, the unfencing.  Two stale copies rebuilt at
// once are in the start-up verdict table.
#include "testutil.h"

namespace {

constexpr uint64_t kAddr = 0x1000;
constexpr uint64_t kSize = 16384;
constexpr size_t kData = kSize - 128;

class RepairTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("SBACC_REPAIR_MAXRETRY");
    sim_.SetAreas({{"a", kAddr, kSize, 3}});
  }
  void TearDown() override {
    CloseAll();
    sbacc_reset_process_state();
  }
  // Copy 0 holds `filesize` bytes of data; the others hold 0xEE bytes and an
  // old header.  Every header and NV carry `mask` as blockade mask.  Returns
  // a descriptor with every copy open.
  SBACC_FILE_DISCRIPTER* Prepare(int32_t filesize, uint32_t mask) {
    sim_.PutNvEntry(0, sbacc_test::ValidEntry("a", 3, mask));
    for (int i = 0; i < 3; ++i) {
      SBACC_HDD_HEADER h = sbacc_test::ValidHeader("", kSize, i == 0 ? filesize : 77, mask);
      h.opencnt = 41 + i;
      sim_.PutCopy(0, i, h, i == 0 ? sbacc_test::Pattern(kData, 4) : std::vector<uint8_t>(kData, 0xEE));
    }
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
  Sim sim_{3};
  SBACC_FILE_DISCRIPTER* sfd_ = nullptr;
};

// Copy 1 (fenced off, or the source itself in the last case) is rebuilt from
// copy 0 while the calls start+1 .. start+count of op on copy hdd fail.  A
// failed step is repeated at once, three more times unless the environment
// says otherwise; giving up leaves the old header and the mask.  Data of
// several chunks with a remainder is rebuilt by the parallel test below.
TEST_F(RepairTest, RebuildsOrGivesUp) {
  constexpr FaultEnv::Op R = FaultEnv::kRead, W = FaultEnv::kWrite;
  struct {
    const char* name;
    int32_t filesize;
    FaultEnv::Op op;
    int hdd;  // -1: no fault
    long start, count;
    const char* maxretry;
    int rc;
    uint32_t mask = 0x2;
  } const kCases[] = {
      {"whole chunks", 4096, W, -1, 0, 0, nullptr, 0},
      {"one byte past whole chunks", 4097, W, -1, 0, 0, nullptr, 0},
      {"empty: header only", 0, W, -1, 0, 0, nullptr, 0},
      {"negative size: header only", -9, W, -1, 0, 0, nullptr, 0},
      {"destination write fails three times", 5000, W, 1, 0, 3, nullptr, 0},
      {"destination write fails four times", 5000, W, 1, 0, 4, nullptr, SBACC_E_REPAIR},
      {"retry limit from the environment", 5000, W, 1, 2, 2, "1", SBACC_E_REPAIR},
      {"size unreadable", 5000, R, 0, 0, 1, nullptr, SBACC_E_HDDREAD},
      {"source fenced off", 5000, W, -1, 0, 0, nullptr, SBACC_E_NOCOPY, 0x1}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    if (c.maxretry != nullptr) setenv("SBACC_REPAIR_MAXRETRY", c.maxretry, 1);
    SBACC_FILE_DISCRIPTER* sfd = Prepare(c.filesize, c.mask);
    const std::vector<uint8_t> old_area = sim_.HddBytes(1, kAddr, kSize);
    FaultEnv env;
    if (c.hdd >= 0) env.FailOp(c.op, sim_.HddPath(c.hdd), c.start, c.count, EIO);
    EXPECT_EQ(c.rc, sbacc_ma_hddrepair_copy(sfd, 0, 1));
    EXPECT_EQ(0, sim_.NvEntry(0).hddrepair);
    EXPECT_TRUE(env.Sleeps().empty());
    if (c.rc == 0) {  // the source's header and data, the old bytes past them untouched, no mask bit left
      const size_t n = static_cast<size_t>(std::max(c.filesize, 0));
      EXPECT_EQ(sim_.HddBytes(0, kAddr, 128 + n), sim_.HddBytes(1, kAddr, 128 + n));
      EXPECT_EQ(Bytes(kData - n, 0xEE), sim_.HddBytes(1, kAddr + 128 + n, kData - n));
      for (int i = 0; i < 3; ++i) EXPECT_EQ(0u, sim_.Header(0, i).hddblockade) << "copy " << i;
      EXPECT_EQ(0u, sim_.NvEntry(0).hddblockade);
    } else {
      EXPECT_EQ(std::vector<uint8_t>(old_area.begin(), old_area.begin() + 128), sim_.HddBytes(1, kAddr, 128));
      EXPECT_EQ(c.mask, sim_.NvEntry(0).hddblockade);
    }
    if (c.rc == SBACC_E_NOCOPY) {  // nothing written at all, not even the repair mark
      EXPECT_EQ(0, env.Calls(FaultEnv::kWrite));
      EXPECT_EQ(0, env.Calls(FaultEnv::kNvWrite));
      EXPECT_EQ(old_area, sim_.HddBytes(1, kAddr, kSize));
    }
    CloseAll();
    unsetenv("SBACC_REPAIR_MAXRETRY");
  }
}

// The source fenced off by another handle while the copy runs (here as the
// copy's first write lands): the rebuilt copy is not trusted, it stays fenced.
TEST_F(RepairTest, SourceFencedDuringTheCopy) {
  struct FenceSource : FaultEnv {
    Sim* sim = nullptr;
    ssize_t WriteAt(int fd, const void* buf, size_t len, int64_t pos) override {
      if (Calls(kWrite) == 0) sim->EditNvEntry(0, [](auto& e) { e.hddblockade |= 0x1; });
      return FaultEnv::WriteAt(fd, buf, len, pos);
    }
  } env;
  env.sim = &sim_;
  EXPECT_NE(0, sbacc_ma_hddrepair_copy(Prepare(5000, 0x2), 0, 1));
  EXPECT_EQ(0x3u, sim_.NvEntry(0).hddblockade);
}

}  // namespace
