// Area descriptor: tunables from the environment, lookup outcomes, ownership.
#include <gtest/gtest.h>
#include <stdlib.h>

#include "sbacc_alloc.h"
#include "sbacc_ma.h"
#include "sim.h"

namespace {

using sbacc_test::Sim;
using sbacc_test::TraceCapture;

struct TunableCase {
  const char* name;
  int slot;
  const char* value;  // nullptr = unset
  int want;
};
void PrintTo(const TunableCase& c, std::ostream* os) { *os << c.name; }

class TunableTest : public ::testing::TestWithParam<TunableCase> {};

TEST_P(TunableTest, ValueInForce) {
  const TunableCase& c = GetParam();
  Sim sim;
  sim.SetAreas({{"a", 0x1000, 4096, 1}});
  for (int i = 0; sbacc_env_list[i].name != nullptr; ++i) unsetenv(sbacc_env_list[i].name);
  if (c.value != nullptr) setenv(sbacc_env_list[c.slot].name, c.value, 1);
  TraceCapture trace;
  SBACC_FILE_DISCRIPTER* sfd = nullptr;
  ASSERT_EQ(sbacc_ma_alloc_sfd("a", SBACC_OPENMODE_READ, &sfd), 0);
  int want[SBACC_ENV_NUM] = {5, 5, 3, 3};
  want[c.slot] = c.want;
  EXPECT_EQ(std::vector<int>(sfd->env, sfd->env + SBACC_ENV_NUM), std::vector<int>(want, want + SBACC_ENV_NUM));
  EXPECT_TRUE(trace.Has("[sbacc_ma_alloc_sfd] " + std::string(sbacc_env_list[c.slot].name) + ": " + std::to_string(c.want)));
  sbacc_ma_free_sfd(sfd);
}

INSTANTIATE_TEST_SUITE_P(
    Sfd, TunableTest,
    ::testing::Values(TunableCase{"unset", 0, nullptr, 5}, TunableCase{"zero", 0, "0", 5}, TunableCase{"above_max", 0, "1000", 5},
                      TunableCase{"max", 0, "999", 999}, TunableCase{"min", 1, "1", 1}, TunableCase{"trailing_text", 1, "12abc", 12},
                      TunableCase{"no_digits", 1, "abc", 5}, TunableCase{"blanks_sign", 3, "  +7", 7},
                      TunableCase{"negative", 2, "-3", 3}, TunableCase{"overflow", 3, "99999999999999999999", 3},
                      TunableCase{"wraps_in_int", 2, "4294967298", 3}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Sfd, UnknownAreaIsAnEmptyDescriptor) {
  Sim sim;
  sim.SetAreas({{"a", 0x1000, 4096, 1}});
  SBACC_FILE_DISCRIPTER* sfd = nullptr;
  ASSERT_EQ(sbacc_ma_alloc_sfd("nosuch", SBACC_OPENMODE_WRITE, &sfd), 0);
  EXPECT_EQ(sfd->sfe.hddcount, 0);
  EXPECT_EQ(sfd->openmode, SBACC_OPENMODE_WRITE);
  for (int fd : sfd->fd) EXPECT_EQ(fd, -1);
  sbacc_ma_free_sfd(sfd);
}

TEST(Sfd, FailuresLeaveOutPointerAndNothingAllocated) {
  Sim sim;
  sim.SetAreas({{"a", 0x1000, 4096, 1}});
  TraceCapture trace;
  const long live = sbacc::AllocLiveBlocks();
  auto* const sentinel = reinterpret_cast<SBACC_FILE_DISCRIPTER*>(0x1);
  SBACC_FILE_DISCRIPTER* sfd = sentinel;
  sbacc::AllocFailNth(1);
  EXPECT_EQ(sbacc_ma_alloc_sfd("a", SBACC_OPENMODE_WRITE, &sfd), -111);
  EXPECT_EQ(trace.CountContaining("[sbacc_ma_alloc_sfd] calloc error. errno="), 1);
  setenv("SBACC_FILELIST", (sim.Dir() + "/missing.ini").c_str(), 1);
  EXPECT_EQ(sbacc_ma_alloc_sfd("a", SBACC_OPENMODE_WRITE, &sfd), -151);
  EXPECT_TRUE(trace.Has("[sbacc_ma_alloc_sfd] sbacc_l_get_filelist_entry error. retcode=-151"));
  EXPECT_EQ(sfd, sentinel);
  EXPECT_EQ(sbacc::AllocLiveBlocks(), live);

  sbacc_ma_free_sfd(nullptr);
  EXPECT_EQ(trace.Count("[sbacc_ma_free_sfd] [ENTER]"), 1);
  EXPECT_EQ(trace.Count("[sbacc_ma_free_sfd] [LEAVE]"), 1);
}

}  // namespace
