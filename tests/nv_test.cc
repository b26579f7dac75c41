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

using sbacc_test::FaultEnv;
using sbacc_test::Sim;
using sbacc_test::TraceCapture;
using Bytes = std::vector<uint8_t>;

constexpr uint64_t kRec3 = 4480;  // record of the area with index 3

class NvTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sim_.SetAreas({{"a0", 0x1000, 4096, 1}, {"a1", 0x2000, 4096, 1}, {"a2", 0x3000, 4096, 1}, {"a3", 0x4000, 4096, 2}});
    Alloc();
    // The stand-in creates its full-size image on first use; touching it now
    // keeps PutNvBytes from creating a short image file instead.
    uint8_t b;
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

  Sim sim_;
  FaultEnv env_;
  TraceCapture trace_;
  SBACC_FILE_DISCRIPTER* sfd_ = nullptr;
};

TEST_F(NvTest, InitialisationWritesExactRecordAndReadsBackValid) {
  SBACC_MEM_LIST_ENTRY e;
  ASSERT_EQ(sbacc_l_memini_entry(sfd_, &e), 0);
  Bytes want(128, 0);
  memcpy(&want[0], "SBNM", 4);
  want[4] = 3;
  memcpy(&want[8], "a3", 2);
  want[40] = 2;  // hddcount
  EXPECT_EQ(sim_.NvBytes(kRec3, 128), want);
  EXPECT_EQ(sim_.NvBytes(kRec3 - 128, 128), Bytes(128, 0)) << "neighbouring record touched";
  EXPECT_EQ(sim_.NvBytes(kRec3 + 128, 128), Bytes(128, 0)) << "neighbouring record touched";
  uint8_t raw[128];
  sbacc_l_encode_entry(&e, raw);
  EXPECT_EQ(Bytes(raw, raw + 128), want) << "buffer differs from the record in NV";
  EXPECT_EQ(sbacc_memget_check_entry(sfd_, &e), 0);
  EXPECT_TRUE(trace_.Has("[sbacc_l_memini_entry] initialize NV memory filename=(a3)"));
}

TEST_F(NvTest, InterruptedInitialisationLeavesNoMagic) {
  const Bytes old = {'S', 'B', 'N', 'M', 3, 0, 0, 0};
  sim_.PutNvBytes(kRec3, old.data(), old.size());
  FailNv(SANFWCTL_FAULT_WRITE, 1, -1);  // the body lands, the magic never does
  SBACC_MEM_LIST_ENTRY e;
  EXPECT_EQ(sbacc_l_memini_entry(sfd_, &e), -162);
  EXPECT_EQ(sim_.NvBytes(kRec3, 8), Bytes({0, 0, 0, 0, 3, 0, 0, 0}));
  EXPECT_TRUE(trace_.Has("[sbacc_l_memini_entry] sbacc_memset_magic error. retcode=-162"));
  sanfwctl_set_fault(SANFWCTL_FAULT_WRITE, 0, 0);
  EXPECT_EQ(sbacc_memget_check_entry(sfd_, &e), -104);
  EXPECT_TRUE(trace_.Has("[sbacc_memget_check_entry] NV is not initialized"));
}

TEST_F(NvTest, SettersTouchExactlyTheirBytes) {
  struct Case {
    const char* name;
    std::function<int(SBACC_FILE_DISCRIPTER*)> call;
    uint64_t pos;
    Bytes bytes;
  };
  const Case cases[] = {
      {"magic", [](auto* s) { return sbacc_memset_magic(s); }, 4480, {'S', 'B', 'N', 'M'}},
      {"hddblockade", [](auto* s) { return sbacc_memset_hddblockade(s, 0x80000005u); }, 4524, {5, 0, 0, 0x80}},
      {"latesthdd", [](auto* s) { return sbacc_memset_latesthdd(s, 0x0102u); }, 4528, {2, 1, 0, 0}},
      {"hddrepair", [](auto* s) { return sbacc_memset_hddrepair(s, 0x81); }, 4532, {0x81}},
      {"lock0", [](auto* s) { return sbacc_memset_hddrepairlock(s, 0, 1); }, 4536, {1}},
      {"lock2", [](auto* s) { return sbacc_memset_hddrepairlock(s, 2, 1); }, 4538, {1}},
      {"lock3", [](auto* s) { return sbacc_memset_hddrepairlock(s, 3, 0); }, 4539, {0}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    // One guard byte on each side of the record.
    Bytes want(130, 0xEE);
    sim_.PutNvBytes(kRec3 - 1, want.data(), want.size());
    ASSERT_EQ(c.call(sfd_), 0);
    memcpy(&want[c.pos - kRec3 + 1], c.bytes.data(), c.bytes.size());
    EXPECT_EQ(sim_.NvBytes(kRec3 - 1, 130), want);
  }
}

TEST_F(NvTest, GettersDecodeTheirBytes) {
  Bytes rec(128);
  for (int i = 0; i < 128; ++i) rec[i] = static_cast<uint8_t>(i + 0x80);
  sim_.PutNvBytes(kRec3, rec.data(), rec.size());
  uint32_t mask = 0;
  ASSERT_EQ(sbacc_memget_hddblockade(sfd_, &mask), 0);
  EXPECT_EQ(mask, 0xafaeadacu);
  uint8_t repair = 0;
  ASSERT_EQ(sbacc_memget_hddrepair(sfd_, &repair), 0);
  EXPECT_EQ(repair, 0xb4);
  uint8_t locks[4] = {};
  ASSERT_EQ(sbacc_memget_hddrepairlock_all(sfd_, locks), 0);
  EXPECT_EQ(Bytes(locks, locks + 4), Bytes({0xb8, 0xb9, 0xba, 0xbb}));
  SBACC_MEM_LIST_ENTRY e;
  ASSERT_EQ(sbacc_memget_entry(sfd_, &e), 0);
  uint8_t raw[128];
  sbacc_l_encode_entry(&e, raw);
  EXPECT_EQ(Bytes(raw, raw + 128), rec);
  EXPECT_EQ(sbacc_memget_check_entry(sfd_, &e), -104);
}

TEST_F(NvTest, LockByteOfUnknownControllerIsRefused) {
  for (int cntno : {-1, 4, INT_MAX}) {
    const long writes = sanfwctl_call_count(SANFWCTL_FAULT_WRITE);
    EXPECT_EQ(sbacc_memset_hddrepairlock(sfd_, cntno, 1), -102);
    EXPECT_EQ(sanfwctl_call_count(SANFWCTL_FAULT_WRITE), writes);
  }
  EXPECT_EQ(sim_.NvBytes(kRec3, 256), Bytes(256, 0));
  EXPECT_EQ(trace_.CountContaining("[sbacc_memset_hddrepairlock] parameter error."), 3);
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
  const char* var = c.write ? "SBACC_MEMSET_MAXRETRY" : "SBACC_MEMGET_MAXRETRY";
  if (c.tunable != nullptr) setenv(var, c.tunable, 1);
  Alloc();
  const int kind = c.write ? SANFWCTL_FAULT_WRITE : SANFWCTL_FAULT_READ;
  FailNv(kind, 0, c.failures);
  const long before = sanfwctl_call_count(kind);
  uint8_t v = 0x5a;
  EXPECT_EQ(c.write ? sbacc_memset_hddrepair(sfd_, v) : sbacc_memget_hddrepair(sfd_, &v), c.rc);
  EXPECT_EQ(sanfwctl_call_count(kind) - before, c.attempts);
  const long failed = c.rc == 0 ? c.attempts - 1 : c.attempts;
  EXPECT_EQ(env_.Sleeps(), std::vector<unsigned>(failed, 100000u));
  const char* line = c.write ? "[sbacc_l_memset] Ezosanfwctl_write_nv error." : "[sbacc_l_memget] Ezosanfwctl_read_nv error.";
  EXPECT_EQ(trace_.CountContaining(line), failed);
  EXPECT_EQ(trace_.Count(c.write ? "[sbacc_l_memset] memset error." : "[sbacc_l_memget] memget error."), c.rc != 0);
  if (c.write && c.rc == 0) {
    EXPECT_EQ(sim_.NvBytes(4532, 1), Bytes({0x5a}));
  }
}

INSTANTIATE_TEST_SUITE_P(Nv, NvRetryTest,
                         ::testing::Values(RetryCase{"read_r1_always", false, "1", -1, -161, 2},
                                           RetryCase{"read_default_always", false, nullptr, -1, -161, 6},
                                           RetryCase{"read_twice_then_ok", false, nullptr, 2, 0, 3},
                                           RetryCase{"write_r3_always", true, "3", -1, -162, 4},
                                           RetryCase{"write_twice_then_ok", true, "2", 2, 0, 3},
                                           RetryCase{"write_first_try", true, nullptr, 0, 0, 1}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(BitCount, CountsThe32BitPattern) {
  EXPECT_EQ(sbacc_l_bitcount(0), 0);
  EXPECT_EQ(sbacc_l_bitcount(0x13), 3);
  EXPECT_EQ(sbacc_l_bitcount(-1), 32);
  EXPECT_EQ(sbacc_l_bitcount(INT_MIN), 1);
  EXPECT_EQ(sbacc_l_bitcount(INT_MIN | 0xff), 9);
}

}  // namespace
