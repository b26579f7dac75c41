// Tracked allocator: header bookkeeping, running total, trace lines and the
// test hooks, in both modes.
#include <gtest/gtest.h>
#include <pthread.h>
#include <string.h>

#include <string>
#include <thread>
#include <vector>

#include "sbacc_alloc.h"
#include "sim.h"

namespace {

char kPath[] = "../common/sbacc_l";  // recorded as "cc_l"

std::string Self() { return std::to_string(static_cast<uint32_t>(pthread_self())); }

TEST(Alloc, TrackedLifecycleKeepsTotalAndTracesOwners) {
  sbacc_test::TraceCapture tc;  // header fields are checked through the lines
  const int t0 = sbacc::AllocTrackedTotal();
  char* p = nullptr;
  std::string owner;  // allocated in another thread: old and new owner differ
  std::thread([&] {
    p = static_cast<char*>(sbacc_calloc_debug(4, 10, kPath, 10, 1));
    owner = Self();
  }).join();
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(std::string(p, 40), std::string(40, '\0'));
  memset(p, 'q', 40);
  char other[] = "../t/sbacc_zz";
  char* q = static_cast<char*>(sbacc_realloc_debug(p, 100, other, 20, 1));
  ASSERT_NE(q, nullptr);
  EXPECT_EQ(std::string(q, 40), std::string(40, 'q'));
  sbacc_free_debug(q, kPath, 30, 1);
  EXPECT_EQ(sbacc::AllocTrackedTotal(), t0);
  const std::string me = Self(), t40 = std::to_string(t0 + 40), t100 = std::to_string(t0 + 100);
  for (const std::string& line :
       {"***** CALLOC(ALLOC_SIZE =40 TOTAL_SIZE =" + t40 + " THREADNO =" + owner + " FILE =cc_l LINE =10)",
        "***** REALLOC(ALLOC_SIZE =100  TOTAL_SIZE =" + t100 + " THREADNO =" + me +
            " FILE =cc_zz LINE =20(PRESIZE = 40 THREADNO =" + owner + " FILE =cc_l LINE =10))",
        "***** FREE(FREE_SIZE =100 TOTAL_SIZE =" + std::to_string(t0) + " THREADNO =" + me +
            " FILE =cc_l LINE =30 (THREADNO =" + me + " FILE =cc_zz LINE =20))"}) {
    EXPECT_EQ(tc.Count(line), 1) << line << "\n" << tc.Dump();
  }
}

// The name is the file name from its fourth character, cut to 15 and
// zero-padded; a file name under three characters must not be read past.
TEST(Alloc, RecordNameIsCutAndZeroPadded) {
  const char* cases[][2] = {{"../x/sbacc_very_long_module", "cc_very_long_mo"}, {"../x/abcd", "d"}, {"../x/ab", ""}};
  for (const auto& c : cases) {
    std::string path = c[0];
    void* p = sbacc_calloc_debug(1, 4, path.data(), 1, 1);
    char want[16] = {};
    strncpy(want, c[1], 15);
    EXPECT_EQ(memcmp(static_cast<char*>(p) - 32 + 12, want, 16), 0) << c[0];  // the name field
    sbacc_free_debug(p, path.data(), 2, 1);
  }
}

class AllocMode : public ::testing::TestWithParam<int> {};

TEST_P(AllocMode, BlocksBalanceAndOnlyTrackedModeTraces) {
  const int track = GetParam();
  sbacc_test::TraceCapture tc;
  const int t0 = sbacc::AllocTrackedTotal();
  const long live = sbacc::AllocLiveBlocks();
  auto* m = static_cast<unsigned char*>(sbacc_calloc_debug(3, 10, kPath, 1, track));
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(sbacc::AllocTrackedTotal(), t0 + (track ? 30 : 0));
  void* z = sbacc_realloc_debug(nullptr, 16, kPath, 3, track);  // allocates, as realloc does
  auto* n = static_cast<unsigned char*>(sbacc_malloc_debug(8, kPath, 2, track));
  for (int i = 0; i < 8; ++i) EXPECT_EQ(n[i], 0);
  EXPECT_EQ(sbacc::AllocLiveBlocks(), live + 3);
  // Armed for the second call from now: that one fails without a trace or a
  // change of the total, and a failed realloc keeps the old block.
  sbacc::AllocFailNth(2);
  void* a = sbacc_malloc_debug(8, kPath, 4, track);
  strcpy(reinterpret_cast<char*>(m), "keep");
  EXPECT_EQ(sbacc_realloc_debug(reinterpret_cast<char*>(m), 1000, kPath, 5, track), nullptr);
  EXPECT_STREQ(reinterpret_cast<char*>(m), "keep");
  void* b = sbacc_malloc_debug(8, kPath, 6, track);  // disarmed after firing
  EXPECT_NE(b, nullptr);
  for (void* p : {static_cast<void*>(m), z, static_cast<void*>(n), a, b, static_cast<void*>(nullptr)}) {
    sbacc_free_debug(p, kPath, 7, track);
  }
  EXPECT_EQ(sbacc::AllocLiveBlocks(), live);
  EXPECT_EQ(sbacc::AllocTrackedTotal(), t0);
  EXPECT_EQ(tc.CountContaining("*****"), track ? 10 : 0) << tc.Dump();
}

INSTANTIATE_TEST_SUITE_P(Modes, AllocMode, ::testing::Values(0, 1));

TEST(Alloc, ConcurrentTrackedUseBalances) {
  const int t0 = sbacc::AllocTrackedTotal();
  std::vector<std::thread> ts;
  for (int t = 0; t < 4; ++t) {
    ts.emplace_back([] {
      for (int i = 1; i <= 200; ++i) {
        char* p = static_cast<char*>(sbacc_calloc_debug(i, 3, kPath, i, 1));
        sbacc_free_debug(sbacc_realloc_debug(p, i * 5, kPath, i, 1), kPath, i, 1);
      }
    });
  }
  for (auto& t : ts) t.join();
  EXPECT_EQ(sbacc::AllocTrackedTotal(), t0);
}

}  // namespace
