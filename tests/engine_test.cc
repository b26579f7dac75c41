// Scenario tests of the mirror engine through the public area calls, on real
// HDD image files and the NV stand-in.
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fault_env.h"
#include "sbacc.h"
#include "sbacc_alloc.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"
#include "sim.h"

using sbacc_test::FaultEnv;
using sbacc_test::Sim;

namespace {

constexpr uint64_t kAddr = 0x1000;
constexpr uint64_t kSize = 8192;  // 8064 data bytes

// Checks that a test leaves no descriptor and no block behind.
class EngineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fds_ = sbacc_test::OpenFdCount();
    blocks_ = sbacc::AllocLiveBlocks();
  }
  void TearDown() override {
    EXPECT_EQ(fds_, sbacc_test::OpenFdCount()) << "descriptor leaked";
    EXPECT_EQ(blocks_, sbacc::AllocLiveBlocks()) << "block leaked";
  }
  int fds_ = 0;
  long blocks_ = 0;
};

void* OpenW(const char* name, boolean_t* clean = nullptr) {
  void* fp = nullptr;
  boolean_t cf = B_FALSE;
  EXPECT_EQ(0, sbacc_open(name, "w", &fp, &cf));
  if (clean != nullptr) *clean = cf;
  return fp;
}

std::vector<uint8_t> Pattern(size_t n, uint8_t seed) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(seed + i * 7);
  return v;
}

TEST_F(EngineTest, NewAreaInWriteModeGetsFreshHeadersAndNvEntry) {
  Sim sim(3);
  sim.SetAreas({{"area", kAddr, kSize, 3}});
  boolean_t clean = B_FALSE;
  void* fp = OpenW("area", &clean);
  EXPECT_EQ(B_TRUE, clean);  // an all-zero header has openflag 0
  for (int i = 0; i < 3; ++i) {
    SBACC_HDD_HEADER h = sim.Header(0, i);
    EXPECT_TRUE(sbacc_l_header_valid(&h));
    EXPECT_STREQ("area", h.filename);
    EXPECT_EQ(static_cast<int32_t>(kSize), h.areasize);
    EXPECT_EQ(0, h.filesize);
    EXPECT_EQ(1, h.openflag);
    EXPECT_EQ(1, h.opencnt);
  }
  SBACC_MEM_LIST_ENTRY e = sim.NvEntry(0);
  EXPECT_TRUE(sbacc_l_entry_valid(&e));
  EXPECT_EQ(3, e.hddcount);
  EXPECT_EQ(0u, e.hddblockade);
  ASSERT_EQ(0, sbacc_close(fp));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(0, sim.Header(0, i).openflag);
    EXPECT_NE(0, sim.Header(0, i).closetime);
  }
  fp = OpenW("area", &clean);
  EXPECT_EQ(B_TRUE, clean);
  EXPECT_EQ(2, sim.Header(0, 0).opencnt);
  ASSERT_EQ(0, sbacc_close(fp));
}

class CopiesTest : public EngineTest, public ::testing::WithParamInterface<int> {};

TEST_P(CopiesTest, WritesGapFillsAndReadsAgreeOnEveryCopy) {
  const int copies = GetParam();
  Sim sim(copies);
  sim.SetAreas({{"area", kAddr, kSize, copies}});
  void* fp = OpenW("area");
  FaultEnv env;
  const std::vector<uint8_t> head = Pattern(100, 1), tail = Pattern(10, 9);
  ASSERT_EQ(100, sbacc_write(head.data(), 100, 0, fp));
  env.ResetCounters();
  // 10 bytes at 3000 on 100 bytes of data: a gap of 2900 zero bytes in
  // chunks of 1024, 1024 and 852, each between two intent records.
  ASSERT_EQ(10, sbacc_write(tail.data(), 10, 3000, fp));
  for (int i = 0; i < copies; ++i) EXPECT_EQ(3 * 3 + 3 + 1, env.Calls(FaultEnv::kWrite, sim.HddPath(i)));
  EXPECT_EQ(3010, sbacc_read_size(fp));

  std::vector<uint8_t> want(3010, 0);
  memcpy(want.data(), head.data(), 100);
  memcpy(want.data() + 3000, tail.data(), 10);
  for (int i = 0; i < copies; ++i) {
    EXPECT_EQ(want, sim.Data(0, i, 3010)) << "copy " << i;
    SBACC_HDD_HEADER h = sim.Header(0, i);
    EXPECT_EQ(3010, h.filesize);
    EXPECT_EQ(0, h.writeflag);
    EXPECT_EQ(0, h.write_offset);
    EXPECT_EQ(0, h.write_size);
  }
  std::vector<uint8_t> got(4000, 0xEE);
  EXPECT_EQ(3010, sbacc_read(got.data(), 4000, 0, fp));
  EXPECT_TRUE(memcmp(want.data(), got.data(), 3010) == 0);
  EXPECT_EQ(10, sbacc_read(got.data(), 100, 3000, fp));
  EXPECT_EQ(0, sbacc_read(got.data(), 100, 3010, fp));
  // A write inside the data leaves the size alone.
  ASSERT_EQ(5, sbacc_write(head.data(), 5, 50, fp));
  EXPECT_EQ(3010, sbacc_read_size(fp));
  ASSERT_EQ(0, sbacc_close(fp));
}

INSTANTIATE_TEST_SUITE_P(Copies, CopiesTest, ::testing::Values(1, 2, 4, 8));

TEST_F(EngineTest, BoundsAndResize) {
  Sim sim(2);
  sim.SetAreas({{"area", kAddr, kSize, 2}});
  void* fp = OpenW("area");
  const int cap = static_cast<int>(kSize) - 128;
  std::vector<uint8_t> d = Pattern(16, 3);
  EXPECT_EQ(16, sbacc_write(d.data(), 16, cap - 16, fp));
  EXPECT_EQ(SBACC_E_NOSPACE, sbacc_write(d.data(), 16, cap - 15, fp));
  EXPECT_EQ(SBACC_E_NOSPACE, sbacc_write(d.data(), 16, 0x7ffffff8, fp));
  EXPECT_EQ(cap, sbacc_write_size(cap, fp));
  EXPECT_EQ(SBACC_E_NOSPACE, sbacc_write_size(cap + 1, fp));
  EXPECT_EQ(0, sbacc_write_size(0, fp));
  EXPECT_EQ(0, sbacc_read_size(fp));
  // Growing zero-fills from the new, smaller size, not from the old one.
  EXPECT_EQ(cap, sbacc_write_size(cap, fp));
  std::vector<uint8_t> got(16, 0xEE);
  EXPECT_EQ(16, sbacc_read(got.data(), 16, cap - 16, fp));
  EXPECT_EQ(std::vector<uint8_t>(16, 0), got);
  ASSERT_EQ(0, sbacc_close(fp));
}

// One copy fails the k-th HDD write of a data write: intent record, data,
// intent clear or size.  The write still succeeds on the others, and the
// failed copy is fenced off in NV and in the surviving headers.
class WriteStepFailure : public EngineTest, public ::testing::WithParamInterface<std::tuple<int, int>> {};

TEST_P(WriteStepFailure, FailingCopyIsFencedOffAndDataSurvives) {
  const auto [step, victim] = GetParam();
  Sim sim(3);
  sim.SetAreas({{"area", kAddr, kSize, 3}});
  void* fp = OpenW("area");
  {
    FaultEnv env;
    env.FailOp(FaultEnv::kWrite, sim.HddPath(victim), step - 1, 1, EIO);
    std::vector<uint8_t> d = Pattern(64, 5);
    ASSERT_EQ(64, sbacc_write(d.data(), 64, 0, fp));
    const uint32_t bit = 1u << victim;
    EXPECT_EQ(bit, sim.NvEntry(0).hddblockade);
    EXPECT_EQ(0u, sim.NvEntry(0).latesthdd);
    for (int i = 0; i < 3; ++i) {
      if (i == victim) continue;
      EXPECT_EQ(bit, sim.Header(0, i).hddblockade) << "copy " << i;
      EXPECT_EQ(d, sim.Data(0, i, 64));
      EXPECT_EQ(64, sim.Header(0, i).filesize);
    }
    std::vector<uint8_t> got(64);
    EXPECT_EQ(64, sbacc_read(got.data(), 64, 0, fp));
    EXPECT_EQ(d, got);
  }
  ASSERT_EQ(0, sbacc_close(fp));
  // The next open keeps the copy fenced off and never opens it.
  FaultEnv env;
  void* again = OpenW("area");
  EXPECT_EQ(0, env.Calls(FaultEnv::kOpen, sim.HddPath(victim)));
  ASSERT_EQ(0, sbacc_close(again));
}

INSTANTIATE_TEST_SUITE_P(Steps, WriteStepFailure,
                         ::testing::Combine(::testing::Values(1, 2, 3, 4), ::testing::Values(0, 1, 2)),
                         [](const ::testing::TestParamInfo<std::tuple<int, int>>& i) {
                           return "step" + std::to_string(std::get<0>(i.param)) + "_copy" +
                                  std::to_string(std::get<1>(i.param));
                         });

TEST_F(EngineTest, LastCopyFailingRecordsLatestAndRefusesLaterAccess) {
  Sim sim(2);
  sim.SetAreas({{"area", kAddr, kSize, 2}});
  void* fp = OpenW("area");
  FaultEnv env;
  env.FailOp(FaultEnv::kWrite, sim.HddPath(1), 0, -1, EIO);
  std::vector<uint8_t> d = Pattern(8, 1);
  ASSERT_EQ(8, sbacc_write(d.data(), 8, 0, fp));
  EXPECT_EQ(0x2u, sim.NvEntry(0).hddblockade);
  env.FailOp(FaultEnv::kWrite, sim.HddPath(0), 0, -1, EIO);
  EXPECT_EQ(SBACC_E_NOCOPY, sbacc_write(d.data(), 8, 0, fp));
  EXPECT_EQ(0x3u, sim.NvEntry(0).hddblockade);
  EXPECT_EQ(0x1u, sim.NvEntry(0).latesthdd);
  EXPECT_EQ(0x2u, sim.Header(0, 0).hddblockade);  // no copy was left to take 0x3
  env.ResetCounters();
  EXPECT_EQ(SBACC_E_NOCOPY, sbacc_read_size(fp));
  EXPECT_EQ(0, env.Calls(FaultEnv::kRead));
  ASSERT_EQ(0, sbacc_close(fp));
}

TEST_F(EngineTest, ReadFallsBackToTheNextCopyAndReadOnlyWritesNothing) {
  Sim sim(2);
  sim.SetAreas({{"area", kAddr, kSize, 2}});
  void* fp = OpenW("area");
  std::vector<uint8_t> d = Pattern(32, 2);
  ASSERT_EQ(32, sbacc_write(d.data(), 32, 0, fp));
  ASSERT_EQ(0, sbacc_close(fp));

  const std::vector<uint8_t> hdd0 = sim.HddBytes(0, 0, 1 << 14), nv = sim.NvBytes(0, 8192);
  void* rp = nullptr;
  boolean_t clean = B_FALSE;
  ASSERT_EQ(0, sbacc_open("area", "r", &rp, &clean));
  EXPECT_EQ(B_TRUE, clean);
  EXPECT_EQ(SBACC_E_NOTALLOWED, sbacc_write(d.data(), 1, 0, rp));
  EXPECT_EQ(SBACC_E_NOTALLOWED, sbacc_write_size(0, rp));
  {
    FaultEnv env;
    env.FailOp(FaultEnv::kRead, sim.HddPath(0), 0, 1, EIO);
    std::vector<uint8_t> got(32);
    EXPECT_EQ(32, sbacc_read(got.data(), 32, 0, rp));
    EXPECT_EQ(d, got);
    EXPECT_EQ(0, env.Calls(FaultEnv::kWrite));
    // Read-only use records nothing: the next access tries copy 0 afresh.
    EXPECT_EQ(32, sbacc_read(got.data(), 32, 0, rp));
    // Header and data of both reads went to copy 0 again: 4 reads.
    EXPECT_EQ(4, env.Calls(FaultEnv::kRead, sim.HddPath(0)));
  }
  ASSERT_EQ(0, sbacc_close(rp));
  EXPECT_EQ(hdd0, sim.HddBytes(0, 0, 1 << 14));
  EXPECT_EQ(nv, sim.NvBytes(0, 8192));
}

// Crafted headers: which copy the open keeps.
struct LatestCase {
  const char* name;
  uint32_t mask0, mask1;
  int64_t close0, close1;
  uint32_t fenced;  // NV mask after a write-mode open
};

class LatestCopyRule : public EngineTest, public ::testing::WithParamInterface<LatestCase> {};

TEST_P(LatestCopyRule, OpenKeepsTheLatestCopy) {
  const LatestCase c = GetParam();
  Sim sim(2);
  sim.SetAreas({{"area", kAddr, kSize, 2}});
  void* fp = OpenW("area");
  ASSERT_EQ(0, sbacc_close(fp));
  const uint32_t masks[2] = {c.mask0, c.mask1};
  const int64_t closes[2] = {c.close0, c.close1};
  for (int i = 0; i < 2; ++i) {
    SBACC_HDD_HEADER h = sim.Header(0, i);
    h.hddblockade = masks[i];
    h.closetime = closes[i];
    h.filesize = 1;
    sim.PutHeader(0, i, h);
    const uint8_t mark = static_cast<uint8_t>('A' + i);
    sim.PutHddBytes(i, kAddr + 128, &mark, 1);
  }
  fp = OpenW("area");
  EXPECT_EQ(c.fenced, sim.NvEntry(0).hddblockade);
  uint8_t got = 0;
  ASSERT_EQ(1, sbacc_read(&got, 1, 0, fp));
  EXPECT_EQ(c.fenced == 0x1 ? 'B' : 'A', got);
  ASSERT_EQ(0, sbacc_close(fp));
}

INSTANTIATE_TEST_SUITE_P(Cases, LatestCopyRule,
                         ::testing::Values(LatestCase{"more_bits_second", 0x0, 0x4, 5, 5, 0x1},
                                           LatestCase{"more_bits_first", 0x4, 0x0, 5, 5, 0x2},
                                           LatestCase{"later_close_second", 0x2, 0x4, 5, 9, 0x1},
                                           LatestCase{"later_close_first", 0x2, 0x4, 9, 5, 0x2},
                                           LatestCase{"tie_keeps_lower", 0x2, 0x4, 7, 7, 0x2},
                                           LatestCase{"equal_masks_both_stay", 0x4, 0x4, 1, 9, 0x0}),
                         [](const ::testing::TestParamInfo<LatestCase>& i) { return std::string(i.param.name); });

TEST_F(EngineTest, InvalidHeaderCopyIsFencedAndUncleanCloseReported) {
  Sim sim(2);
  sim.SetAreas({{"area", kAddr, kSize, 2}});
  void* fp = OpenW("area");
  ASSERT_EQ(0, sbacc_close(fp));
  const uint8_t junk[4] = {'X', 'X', 'X', 'X'};
  sim.PutHddBytes(0, kAddr, junk, 4);
  sbacc_test::TraceCapture trace;
  boolean_t clean = B_FALSE;
  fp = OpenW("area", &clean);
  EXPECT_EQ(B_TRUE, clean);
  EXPECT_TRUE(trace.Has("[sbacc_ma_open] HDD HEADER is invalid. HDD bit [0x1] filename=area")) << trace.Dump();
  EXPECT_EQ(0x1u, sim.NvEntry(0).hddblockade);
  // Handle dropped without a close: the next open reports it.
  SBACC_FILE_DISCRIPTER* sfd = static_cast<SBACC_FILE_DISCRIPTER*>(fp);
  for (int i = 0; i < 8; ++i) {
    if (sfd->fd[i] != -1) close(sfd->fd[i]);
    sfd->fd[i] = -1;
  }
  sbacc_ma_free_sfd(sfd);
  void* again = OpenW("area", &clean);
  EXPECT_EQ(B_FALSE, clean);
  ASSERT_EQ(0, sbacc_close(again));
}

TEST_F(EngineTest, UnknownAreaTouchesNothing) {
  Sim sim(1);
  sim.SetAreas({{"first", kAddr, kSize, 1}});
  const std::vector<uint8_t> nv = sim.NvBytes(0, 8192), hdd = sim.HddBytes(0, 0, 1 << 14);
  FaultEnv env;
  void* fp = reinterpret_cast<void*>(0x1234);
  boolean_t clean = B_FALSE;
  EXPECT_EQ(SBACC_E_PARAM, sbacc_open("nosuch", "w", &fp, &clean));
  EXPECT_EQ(reinterpret_cast<void*>(0x1234), fp);
  EXPECT_EQ(0, env.Calls(FaultEnv::kOpen));
  EXPECT_EQ(nv, sim.NvBytes(0, 8192));
  EXPECT_EQ(hdd, sim.HddBytes(0, 0, 1 << 14));
}

// Headers that lie about sizes never send a transfer into the header or
// past the area.
TEST_F(EngineTest, CorruptSizesAreRefusedAndResizeMendsThem) {
  Sim sim(1);
  sim.SetAreas({{"a", kAddr, kSize, 1}, {"b", kAddr + kSize, kSize, 1}});
  void* fp = OpenW("a");
  std::vector<uint8_t> d = Pattern(8, 4);
  ASSERT_EQ(8, sbacc_write(d.data(), 8, 0, fp));
  SBACC_HDD_HEADER h = sim.Header(0, 0);
  const SBACC_HDD_HEADER good = h;
  std::vector<uint8_t> buf(64);

  h.filesize = -50;
  sim.PutHeader(0, 0, h);
  EXPECT_EQ(SBACC_E_HDDREAD, sbacc_read(buf.data(), 8, 0, fp));
  EXPECT_EQ(SBACC_E_HDDREAD, sbacc_write(d.data(), 8, 20, fp));
  EXPECT_EQ(16, sbacc_write_size(16, fp));  // grows from 0, mending the header
  EXPECT_EQ(16, sbacc_read(buf.data(), 64, 0, fp));

  h = good;
  h.areasize = 100;  // below the header size: no room at all
  sim.PutHeader(0, 0, h);
  EXPECT_EQ(SBACC_E_NOSPACE, sbacc_write(d.data(), 1, 0, fp));

  h = good;
  h.areasize = 1 << 30;  // larger than configured: the configured size bounds it
  sim.PutHeader(0, 0, h);
  EXPECT_EQ(SBACC_E_NOSPACE, sbacc_write(d.data(), 8, static_cast<int>(kSize) - 128, fp));
  EXPECT_EQ(std::vector<uint8_t>(8, 0), sim.HddBytes(0, kAddr + kSize, 8));
  ASSERT_EQ(0, sbacc_close(fp));
}

// An Env that measures how many copy writes are in flight at once.
class ConcurrencyProbe : public FaultEnv {
 public:
  ssize_t WriteAt(int fd, const void* buf, size_t len, int64_t pos) override {
    const int now = ++in_flight_;
    int seen = max_.load();
    while (now > seen && !max_.compare_exchange_weak(seen, now)) {
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    ssize_t n = FaultEnv::WriteAt(fd, buf, len, pos);
    --in_flight_;
    return n;
  }
  std::atomic<int> in_flight_{0}, max_{0};
};

TEST_F(EngineTest, CopiesAreWrittenInParallelAndSeriallyWithoutThreads) {
  Sim sim(4);
  sim.SetAreas({{"area", kAddr, kSize, 4}});
  void* fp = OpenW("area");
  std::vector<uint8_t> d = Pattern(16, 6);
  {
    ConcurrencyProbe probe;
    ASSERT_EQ(16, sbacc_write(d.data(), 16, 0, fp));
    EXPECT_EQ(4, probe.max_.load());
  }
  {
    ConcurrencyProbe probe;
    probe.FailThreadStart(0, -1);
    ASSERT_EQ(16, sbacc_write(d.data(), 16, 16, fp));
    EXPECT_EQ(1, probe.max_.load());
  }
  {
    ConcurrencyProbe probe;
    probe.FailMutexInit(0, -1);
    ASSERT_EQ(16, sbacc_write(d.data(), 16, 32, fp));
    EXPECT_EQ(1, probe.max_.load());
  }
  for (int i = 0; i < 4; ++i) EXPECT_EQ(48, sim.Header(0, i).filesize);
  ASSERT_EQ(0, sbacc_close(fp));
}

TEST_F(EngineTest, ManyThreadsManyHandles) {
  Sim sim(2);
  std::vector<sbacc_test::AreaSpec> areas;
  for (int i = 0; i < 4; ++i) areas.push_back({"a" + std::to_string(i), kAddr + i * kSize, kSize, 2});
  sim.SetAreas(areas);
  // Sized up front: two handles extending one area at once could each
  // zero-fill a gap over the other's bytes, which the design does not serialise.
  for (int i = 0; i < 4; ++i) {
    void* fp = OpenW(areas[i].name.c_str());
    ASSERT_EQ(64, sbacc_write_size(64, fp));
    ASSERT_EQ(0, sbacc_close(fp));
  }
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  // Two threads per area, each with its own handle and its own byte range.
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      void* fp = nullptr;
      boolean_t clean;
      if (sbacc_open(areas[t / 2].name.c_str(), "w", &fp, &clean) != 0) {
        ++failures;
        return;
      }
      std::vector<uint8_t> d = Pattern(32, static_cast<uint8_t>(t));
      for (int k = 0; k < 10; ++k) {
        if (sbacc_write(d.data(), 32, (t % 2) * 32, fp) != 32) ++failures;
        std::vector<uint8_t> got(32);
        if (sbacc_read(got.data(), 32, (t % 2) * 32, fp) != 32 || got != d) ++failures;
      }
      sbacc_close(fp);
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(0, failures.load());
  for (int a = 0; a < 4; ++a) {
    EXPECT_EQ(0u, sim.NvEntry(a).hddblockade);
    EXPECT_EQ(sim.Data(a, 0, 64), sim.Data(a, 1, 64));
  }
}

}  // namespace
