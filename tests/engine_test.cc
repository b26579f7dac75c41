// The mirror engine through the public area calls, on real HDD image files and
// the NV stand-in: the rules the fault matrix does not derive.
#include "testutil.h"

namespace {

constexpr uint64_t kAddr = 0x1000, kSize = 8192;

void* Open(const char* mode, boolean_t* clean = nullptr) { return sbacc_test::OpenArea("area", mode, clean); }

// Area "area" on `copies` HDD files.
class EngineTest : public ::testing::Test {
 protected:
  Sim& Area(int copies) {
    sim_ = std::make_unique<Sim>(copies);
    sim_->SetAreas({{"area", kAddr, kSize, copies}});
    return *sim_;
  }
  std::unique_ptr<Sim> sim_;
};

TEST_F(EngineTest, OpenStampsFencesBrokenHeaderAndReportsUncleanClose) {
  Sim& sim = Area(3);
  boolean_t clean = B_FALSE;
  void* fp = Open("w", &clean);
  EXPECT_EQ(B_TRUE, clean);  // fresh HDDs: the all-zero header has openflag 0
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(sim.Header(0, i).openflag == 1 && sim.Header(0, i).opencnt == 1) << i;
  EXPECT_EQ(3, sim.NvEntry(0).hddcount);
  ASSERT_EQ(0, sbacc_close(fp));
  sim.PutHddBytes(0, kAddr + 4, "\4", 1);  // copy 0's header of another version
  sbacc_test::TraceCapture trace;
  fp = Open("w", &clean);
  EXPECT_EQ(B_TRUE, clean);
  EXPECT_TRUE(trace.Has("[sbacc_ma_open] HDD HEADER is invalid. HDD bit [0x1] filename=area")) << trace.Dump();
  EXPECT_EQ(0x1u, sim.NvEntry(0).hddblockade);
  EXPECT_EQ(2, sim.Header(0, 1).opencnt);
  sbacc_test::Abandon(fp);  // dropped without a close
  fp = Open("w", &clean);
  EXPECT_EQ(B_FALSE, clean);
  ASSERT_EQ(0, sbacc_close(fp));
}

class CopiesTest : public EngineTest, public ::testing::WithParamInterface<int> {};

TEST_P(CopiesTest, GapIsZeroFilledInChunksOnEveryCopy) {
  const int copies = GetParam();
  Sim& sim = Area(copies);
  void* fp = Open("w");
  FaultEnv env;
  const Bytes head = Pattern(3000, 1), tail = Pattern(10, 9);
  ASSERT_EQ(3000, sbacc_write(head.data(), 3000, 0, fp));
  ASSERT_EQ(50, sbacc_write_size(50, fp));  // the old bytes 50..2999 stay on disk, in every chunk below
  env.ResetCounters();
  // 10 bytes at 3000 on 50 bytes of data: 2950 zero bytes in chunks of 1024,
  // 1024 and 902, each between intent record and clear; then data and size.
  ASSERT_EQ(10, sbacc_write(tail.data(), 10, 3000, fp));
  Bytes want(3010, 0);
  memcpy(want.data(), head.data(), 50);
  memcpy(want.data() + 3000, tail.data(), 10);
  for (int i = 0; i < copies; ++i) {
    EXPECT_EQ(3 * 3 + 3 + 1, env.Calls(FaultEnv::kWrite, sim.HddPath(i)));
    EXPECT_EQ(want, sim.Data(0, i, 3010)) << "copy " << i;
    const SBACC_HDD_HEADER h = sim.Header(0, i);
    EXPECT_EQ(3010, h.filesize);
    EXPECT_EQ(0, h.writeflag | h.write_offset | h.write_size) << "intent record left behind";
  }
  ASSERT_EQ(0, sbacc_close(fp));
}

INSTANTIATE_TEST_SUITE_P(Copies, CopiesTest, ::testing::Values(1, 2, 8));

// The data capacity is the area less its header, to the byte; an offset near
// INT_MAX must not wrap past the check; growing after a shrink zero-fills
// from the smaller size.  An unknown name touches no file.
TEST_F(EngineTest, CapacityEdgesAndUnknownName) {
  Sim& sim = Area(2);
  void* fp = Open("w");
  const int cap = static_cast<int>(kSize) - 128;
  const Bytes d = Pattern(16, 3);
  EXPECT_EQ(16, sbacc_write(d.data(), 16, cap - 16, fp));
  EXPECT_EQ(SBACC_E_NOSPACE, sbacc_write(d.data(), 16, cap - 15, fp));
  EXPECT_EQ(SBACC_E_NOSPACE, sbacc_write(d.data(), 16, 0x7ffffff8, fp));
  EXPECT_EQ(SBACC_E_NOSPACE, sbacc_write_size(cap + 1, fp));
  EXPECT_EQ(0, sbacc_write_size(0, fp));
  EXPECT_EQ(cap, sbacc_write_size(cap, fp));
  Bytes got(16, 0xEE);
  EXPECT_EQ(16, sbacc_read(got.data(), 16, cap - 16, fp));
  EXPECT_EQ(Bytes(16, 0), got);
  for (int i = 0; i < 2; ++i) {
    const Bytes all = sim.Data(0, i, static_cast<size_t>(cap));
    EXPECT_EQ(Bytes(16, 0), Bytes(all.end() - 16, all.end())) << "copy " << i;
  }
  ASSERT_EQ(0, sbacc_close(fp));

  const Bytes nv = sim.NvBytes(0, 8192), hdd = sim.HddBytes(0, 0, 1 << 14);
  FaultEnv env;
  void* other = reinterpret_cast<void*>(0x1234);
  boolean_t clean = B_FALSE;
  EXPECT_EQ(SBACC_E_PARAM, sbacc_open("nosuch", "w", &other, &clean));
  EXPECT_EQ(reinterpret_cast<void*>(0x1234), other);
  EXPECT_EQ(0, env.Calls(FaultEnv::kOpen));
  EXPECT_TRUE(nv == sim.NvBytes(0, 8192) && hdd == sim.HddBytes(0, 0, 1 << 14));
}

// Copies fenced off stay closed at the next open; when the last one fails
// too, NV names it as the last one standing and its header keeps its mask.
TEST_F(EngineTest, LastCopyStandingIsRecorded) {
  Sim& sim = Area(3);
  void* fp = Open("w");
  FaultEnv env;
  const Bytes d = Pattern(64, 5);
  env.FailOp(FaultEnv::kWrite, sim.HddPath(0), 0, -1, EIO);
  env.FailOp(FaultEnv::kWrite, sim.HddPath(1), 2, -1, EIO);
  ASSERT_EQ(64, sbacc_write(d.data(), 64, 0, fp));
  ASSERT_EQ(0, sbacc_close(fp));
  env.ClearRules();
  env.ResetCounters();
  fp = Open("w");
  EXPECT_EQ(0, env.Calls(FaultEnv::kOpen, sim.HddPath(0)) + env.Calls(FaultEnv::kOpen, sim.HddPath(1)));
  env.FailOp(FaultEnv::kWrite, sim.HddPath(2), 0, -1, EIO);
  EXPECT_EQ(SBACC_E_NOCOPY, sbacc_write(d.data(), 8, 0, fp));
  const SBACC_MEM_LIST_ENTRY nv = sim.NvEntry(0);
  EXPECT_EQ(0x7u, nv.hddblockade);
  EXPECT_EQ(0x4u, nv.latesthdd);
  EXPECT_EQ(0x3u, sim.Header(0, 2).hddblockade);
  ASSERT_EQ(0, sbacc_close(fp));
}

// Two handles on one area, each losing a copy while the other's write is in
// flight (copy 2 under the first handle, copy 1 under the second): NV ends
// with both fenced.  A handle that recorded its own view alone would take
// copy 1 back into use with stale bytes.
TEST_F(EngineTest, TwoHandlesOnlyAddFenceBits) {
  Sim& sim = Area(3);
  sbacc::CrewSetBound(0);  // every copy written in its caller, in order
  setenv("SBACC_CHECKSUM", "0", 1);  // one write inside another: only without the data lock
  void* first = Open("w");
  void* second = Open("w");
  unsetenv("SBACC_CHECKSUM");
  struct Interleave : FaultEnv {
    Sim* sim;
    void* second;
    bool fired = false;
    ssize_t WriteAt(int fd, const void* buf, size_t len, int64_t pos) override {
      const long before = Calls(kWrite, sim->HddPath(2));
      const ssize_t rc = FaultEnv::WriteAt(fd, buf, len, pos);
      if (!fired && Calls(kWrite, sim->HddPath(2)) > before) {
        fired = true;
        FailOp(kWrite, sim->HddPath(1), 0, 1, EIO);  // the second handle's write alone
        const Bytes d = Pattern(32, 2);
        EXPECT_EQ(32, sbacc_write(d.data(), 32, 0, second));
      }
      return rc;
    }
  } env;
  env.sim = &sim;
  env.second = second;
  env.FailOp(FaultEnv::kWrite, sim.HddPath(2), 0, 1, EIO);
  const Bytes d = Pattern(32, 1);
  EXPECT_EQ(32, sbacc_write(d.data(), 32, 0, first));
  EXPECT_TRUE(env.fired);
  EXPECT_EQ(0x6u, sim.NvEntry(0).hddblockade);
  EXPECT_EQ(0, sbacc_close(first));
  EXPECT_EQ(0, sbacc_close(second));
  EXPECT_EQ(0x6u, sim.NvEntry(0).hddblockade);
  sbacc::CrewSetBound(sbacc::kCrewDefaultBound);
}

// Crafted headers: which copy a write-mode open keeps (the other is fenced):
// more blockade bits, then the later close, then the lower index; equal
// words fence nothing.
TEST_F(EngineTest, LatestCopyRuleAtOpen) {
  const struct {
    uint32_t mask[2];
    int64_t close[2];
    uint32_t fenced;
  } cases[] = {{{0x0, 0x4}, {5, 5}, 0x1}, {{0x4, 0x0}, {5, 5}, 0x2}, {{0x2, 0x4}, {5, 9}, 0x1},
               {{0x2, 0x4}, {9, 5}, 0x2}, {{0x2, 0x4}, {7, 7}, 0x2}, {{0x4, 0x4}, {1, 9}, 0x0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "masks " << c.mask[0] << "/" << c.mask[1] << " closed " << c.close[0] << "/"
                                    << c.close[1]);
    Sim& sim = Area(2);
    ASSERT_EQ(0, sbacc_close(Open("w")));
    for (int i = 0; i < 2; ++i) {
      sim.EditHeader(0, i, [&](auto& h) { h.hddblockade = c.mask[i], h.closetime = c.close[i], h.filesize = 1; });
      sim.PutData(0, i, 0, {static_cast<uint8_t>('A' + i)});
    }
    void* fp = Open("w");
    EXPECT_EQ(c.fenced, sim.NvEntry(0).hddblockade);
    char got = 0;
    ASSERT_EQ(1, sbacc_read(&got, 1, 0, fp));
    EXPECT_EQ(c.fenced == 0x1 ? 'B' : 'A', got);
    ASSERT_EQ(0, sbacc_close(fp));
  }
}

}  // namespace
