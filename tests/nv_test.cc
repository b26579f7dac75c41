// NV record primitives: exact NV bytes, retry loop, initialisation order.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <climits>
#include <functional>
#include <vector>

#include "fault_env.h"
#include "sanfwctl.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"
#include "sim.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint64_t kRec3 = 4480;  // record of the area with index 3

class NvTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("SBACC_MEMSET_MAXRETRY");
    unsetenv("SBACC_MEMGET_MAXRETRY");
    sim_.SetAreas({{"a0", 0x1000, 4096, 1}, {"a1", 0x2000, 4096, 1}, {"a2", 0x3000, 4096, 1}, {"a3", 0x4000, 4096, 2}});
    Alloc();
    uint8_t b;  // first use makes the stand-in create its full-size image
    ASSERT_EQ(sbacc_memget_hddrepair(sfd_, &b), 0);
  }
  void TearDown() override { sbacc_ma_free_sfd(sfd_); }
  void Alloc() {
    sbacc_ma_free_sfd(sfd_);
    sfd_ = nullptr;
    ASSERT_EQ(sbacc_ma_alloc_sfd("a3", SBACC_OPENMODE_WRITE, &sfd_), 0);
    ASSERT_EQ(sfd_->sfe.index, 3);
  }
  // Calls S+1 .. S+N of that kind, counted from now, fail.
  static void FailNv(int kind, long s, long n) { sanfwctl_set_fault(kind, sanfwctl_call_count(kind) + s, n); }

  sbacc_test::Sim sim_;
  sbacc_test::FaultEnv env_;
  sbacc_test::TraceCapture trace_;
  SBACC_FILE_DISCRIPTER* sfd_ = nullptr;
};

TEST_F(NvTest, InitialisationWritesExactRecordMagicLast) {
  SBACC_MEM_LIST_ENTRY e;
  ASSERT_EQ(sbacc_l_memini_entry(sfd_, &e), 0);
  Bytes want(384, 0);  // with the neighbouring records
  memcpy(&want[128], "SBNM\3\0\0\0a3", 10);
  want[128 + 40] = 2;  // hddcount
  EXPECT_EQ(sim_.NvBytes(kRec3 - 128, 384), want);
  EXPECT_EQ(sbacc_memget_check_entry(sfd_, &e), 0);

  FailNv(SANFWCTL_FAULT_WRITE, 1, -1);  // the body lands, the magic never does
  EXPECT_EQ(sbacc_l_memini_entry(sfd_, &e), -162);
  EXPECT_EQ(sim_.NvBytes(kRec3, 8), Bytes({0, 0, 0, 0, 3, 0, 0, 0}));
  EXPECT_TRUE(trace_.Has("[sbacc_l_memini_entry] sbacc_memset_magic error. retcode=-162"));
  EXPECT_EQ(sbacc_memget_check_entry(sfd_, &e), -104);
  EXPECT_TRUE(trace_.Has("[sbacc_memget_check_entry] NV is not initialized"));
}

TEST_F(NvTest, AccessorsTouchExactlyTheirBytes) {
  const struct {
    std::function<int(SBACC_FILE_DISCRIPTER*)> call;
    uint64_t pos;
    Bytes bytes;
  } cases[] = {
      {[](auto* s) { return sbacc_memset_magic(s); }, 4480, {'S', 'B', 'N', 'M'}},
      {[](auto* s) { return sbacc_memset_hddblockade(s, 0x80000005u); }, 4524, {5, 0, 0, 0x80}},
      {[](auto* s) { return sbacc_memset_latesthdd(s, 0x0102u); }, 4528, {2, 1, 0, 0}},
      {[](auto* s) { return sbacc_memset_hddrepair(s, 0x81); }, 4532, {0x81}},
      {[](auto* s) { return sbacc_memset_hddrepairlock(s, 0, 1); }, 4536, {1}},
      {[](auto* s) { return sbacc_memset_hddrepairlock(s, 2, 1); }, 4538, {1}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.pos);
    Bytes want(130, 0xEE);  // one guard byte on each side of the record
    sim_.PutNvBytes(kRec3 - 1, want.data(), want.size());
    ASSERT_EQ(c.call(sfd_), 0);
    memcpy(&want[c.pos - kRec3 + 1], c.bytes.data(), c.bytes.size());
    EXPECT_EQ(sim_.NvBytes(kRec3 - 1, 130), want);
  }
  const Bytes before = sim_.NvBytes(kRec3, 128);
  for (int cntno : {-1, 4, INT_MAX}) EXPECT_EQ(sbacc_memset_hddrepairlock(sfd_, cntno, 0x11), -102);
  EXPECT_EQ(sim_.NvBytes(kRec3, 128), before);

  Bytes rec(128);
  for (int i = 0; i < 128; ++i) rec[i] = static_cast<uint8_t>(i + 0x80);
  sim_.PutNvBytes(kRec3, rec.data(), rec.size());
  uint32_t mask = 0;
  uint8_t repair = 0, locks[4] = {}, raw[128];
  SBACC_MEM_LIST_ENTRY e;
  ASSERT_EQ(sbacc_memget_hddblockade(sfd_, &mask) | sbacc_memget_hddrepair(sfd_, &repair) |
                sbacc_memget_hddrepairlock_all(sfd_, locks) | sbacc_memget_entry(sfd_, &e),
            0);
  EXPECT_EQ(mask, 0xafaeadacu);
  EXPECT_EQ(repair, 0xb4);
  EXPECT_EQ(Bytes(locks, locks + 4), Bytes({0xb8, 0xb9, 0xba, 0xbb}));
  sbacc_l_encode_entry(&e, raw);
  EXPECT_EQ(Bytes(raw, raw + 128), rec);
}

struct RetryCase {
  const char* name;
  bool write;
  const char* tunable;  // value of the matching variable, nullptr = unset
  long failures;        // -1 = every call
  int rc;
  long attempts;
};
void PrintTo(const RetryCase& c, std::ostream* os) { *os << c.name; }

class NvRetryTest : public NvTest, public ::testing::WithParamInterface<RetryCase> {};

TEST_P(NvRetryTest, AttemptsAndSleeps) {
  const RetryCase& c = GetParam();
  if (c.tunable != nullptr) setenv(c.write ? "SBACC_MEMSET_MAXRETRY" : "SBACC_MEMGET_MAXRETRY", c.tunable, 1);
  Alloc();
  const int kind = c.write ? SANFWCTL_FAULT_WRITE : SANFWCTL_FAULT_READ;
  FailNv(kind, 0, c.failures);
  const long before = sanfwctl_call_count(kind);
  uint8_t v = 0x5a;
  EXPECT_EQ(c.write ? sbacc_memset_hddrepair(sfd_, v) : sbacc_memget_hddrepair(sfd_, &v), c.rc);
  EXPECT_EQ(sanfwctl_call_count(kind) - before, c.attempts);
  const long failed = c.rc == 0 ? c.attempts - 1 : c.attempts;
  EXPECT_EQ(env_.Sleeps(), std::vector<unsigned>(failed, 100000u));
  EXPECT_EQ(trace_.CountContaining(c.write ? "[sbacc_l_memset] Ezosanfwctl_write_nv error. ret="
                                           : "[sbacc_l_memget] Ezosanfwctl_read_nv error. ret="),
            failed);
  EXPECT_EQ(trace_.Count(c.write ? "[sbacc_l_memset] memset error." : "[sbacc_l_memget] memget error."), c.rc != 0);
  EXPECT_EQ(sim_.NvBytes(4532, 1)[0], c.write && c.rc == 0 ? 0x5a : 0);
}

INSTANTIATE_TEST_SUITE_P(Nv, NvRetryTest,
                         ::testing::Values(RetryCase{"read_r1_always", false, "1", -1, -161, 2},
                                           RetryCase{"read_default_always", false, nullptr, -1, -161, 6},
                                           RetryCase{"read_twice_then_ok", false, nullptr, 2, 0, 3},
                                           RetryCase{"write_r3_always", true, "3", -1, -162, 4},
                                           RetryCase{"write_twice_then_ok", true, "2", 2, 0, 3}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(BitCount, CountsThe32BitPattern) {
  const int cases[][2] = {{0, 0}, {0x13, 3}, {-1, 32}, {INT_MIN, 1}, {INT_MIN | 0xff, 9}};
  for (const auto& c : cases) EXPECT_EQ(sbacc_l_bitcount(c[0]), c[1]) << c[0];
}

}  // namespace
