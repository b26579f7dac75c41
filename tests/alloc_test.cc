// Tracked allocator: trace lines with owners and running total, the failure
// hook, untracked mode, the total under threads.
#include "testutil.h"

namespace {

char kPath[] = "../common/sbacc_l";  // recorded as "cc_l"

std::string Self() { return std::to_string(static_cast<uint32_t>(pthread_self())); }

TEST(Alloc, TrackedBlocksTraceOwnersTotalAndName) {
  sbacc_test::TraceCapture tc;
  const int t0 = sbacc::AllocTrackedTotal();
  char* p = nullptr;
  std::string owner;  // allocated in another thread: the free names both
  std::thread([&] { p = static_cast<char*>(sbacc_calloc_debug(4, 10, kPath, 10, 1)), owner = Self(); }).join();
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(std::string(p, 40), std::string(40, '\0'));
  char other[] = "../t/sbacc_zz";
  sbacc_free_debug(p, other, 30, 1);
  EXPECT_EQ(sbacc::AllocTrackedTotal(), t0);
  for (const std::string& line :
       {"***** CALLOC(ALLOC_SIZE =40 TOTAL_SIZE =" + std::to_string(t0 + 40) + " THREADNO =" + owner +
            " FILE =cc_l LINE =10)",
        "***** FREE(FREE_SIZE =40 TOTAL_SIZE =" + std::to_string(t0) + " THREADNO =" + Self() +
            " FILE =cc_zz LINE =30 (THREADNO =" + owner + " FILE =cc_l LINE =10))"}) {
    EXPECT_EQ(tc.Count(line), 1) << line << "\n" << tc.Dump();
  }
}

// The armed allocation alone fails, without a trace or a change of the total,
// and the hook disarms; blocks and the total balance, also under threads; only
// tracked mode traces.
class AllocMode : public ::testing::TestWithParam<int> {};

TEST_P(AllocMode, FailureHookBalanceAndTraces) {
  const int track = GetParam();
  sbacc_test::TraceCapture tc;
  const int t0 = sbacc::AllocTrackedTotal();
  const long live = sbacc::AllocLiveBlocks();
  sbacc::AllocFailNth(2);
  std::vector<void*> got;
  for (int i = 0; i < 3; ++i) got.push_back(sbacc_calloc_debug(3, 10, kPath, i, track));
  EXPECT_TRUE(got[0] != nullptr && got[1] == nullptr && got[2] != nullptr);
  EXPECT_EQ(sbacc::AllocLiveBlocks(), live + 2);
  EXPECT_EQ(sbacc::AllocTrackedTotal(), t0 + (track ? 60 : 0));
  for (void* p : got) sbacc_free_debug(p, kPath, 7, track);
  EXPECT_EQ(tc.CountContaining("*****"), track ? 4 : 0) << tc.Dump();
  std::vector<std::thread> ts;
  for (int t = 0; t < 4; ++t) {
    ts.emplace_back([track] {
      for (int i = 1; i <= 200; ++i) sbacc_free_debug(sbacc_calloc_debug(i, 3, kPath, i, track), kPath, i, track);
    });
  }
  for (auto& t : ts) t.join();
  EXPECT_EQ(sbacc::AllocLiveBlocks(), live);
  EXPECT_EQ(sbacc::AllocTrackedTotal(), t0);
}

INSTANTIATE_TEST_SUITE_P(Modes, AllocMode, ::testing::Values(0, 1));

}  // namespace
