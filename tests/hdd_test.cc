// The lowest layer: header bytes as the codec and the HDD copy primitives put
// them on disk (the area beyond 4 GiB, in sparse files), positions that must
// not wrap, and the tunables an area descriptor takes from the environment.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <climits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "fault_env.h"
#include "sbacc.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"
#include "sim.h"

namespace {

using sbacc_test::FaultEnv;
using Bytes = std::vector<uint8_t>;

constexpr uint64_t kAt = (4ull << 30) + 4096, kEnd = kAt + 8192;

TEST(Record, HeaderFieldsLandLittleEndianAtTheirOffsets) {
  SBACC_HDD_HEADER h{};
  memcpy(h.magic, "SBFS", 4);
  h.version = 3;
  memset(h.filename, 'n', sizeof h.filename);  // all 32 bytes, no NUL: kept as is
  h.areasize = -2, h.filesize = 0x01020304, h.hddblockade = 0x80000001u, h.openflag = 1;
  h.opencnt = 0x0a0b0c0d, h.opentime = 0x1122334455667788, h.closetime = -1;
  h.writeflag = 0xfe, h.write_offset = 0x100, h.write_size = 0x7fffffff;
  // From offset 40: areasize, filesize, hddblockade, 7 spare, openflag, opencnt,
  // opentime, closetime, writeflag, 3 spare, write_offset, write_size.
  std::istringstream hex(
      "fe ff ff ff  04 03 02 01  01 00 00 80  00 00 00 00 00 00 00  01  0d 0c 0b 0a  88 77 66 55 44 33 22 11"
      "  ff ff ff ff ff ff ff ff  fe 00 00 00  00 01 00 00  ff ff ff 7f");
  Bytes want = {'S', 'B', 'F', 'S', 3, 0, 0, 0};
  want.resize(40, 'n');
  for (unsigned b; hex >> std::hex >> b;) want.push_back(static_cast<uint8_t>(b));
  want.resize(128, 0);
  uint8_t raw[128];
  sbacc_l_encode_header(&h, raw);
  EXPECT_EQ(Bytes(raw, raw + 128), want);
}

// Any 128 bytes decode and re-encode to the same bytes (UBSan watches the
// conversions), and are valid exactly when magic and version say so.
TEST(Record, ArbitraryBytesRoundTripAndValidity) {
  std::mt19937 rng(12345);
  for (int i = 0; i < 2000; ++i) {
    uint8_t raw[128], again[128];
    for (uint8_t& b : raw) b = static_cast<uint8_t>(rng());
    if (i % 4 != 0) memcpy(raw, i % 8 < 4 ? "SBFS\3\0\0\0" : "SBNM\3\0\0\0", 8);
    if (i % 4 == 2) raw[rng() % 8] ^= static_cast<uint8_t>(1u << (rng() % 8));  // magic or version a bit off
    const bool hdd = memcmp(raw, "SBFS\3\0\0\0", 8) == 0, mem = memcmp(raw, "SBNM\3\0\0\0", 8) == 0;
    SBACC_HDD_HEADER h;
    SBACC_MEM_LIST_ENTRY e;
    sbacc_l_decode_header(raw, &h);
    sbacc_l_encode_header(&h, again);
    ASSERT_TRUE(memcmp(again, raw, 128) == 0 && sbacc_l_header_valid(&h) == hdd) << "header, pattern " << i;
    sbacc_l_decode_entry(raw, &e);
    sbacc_l_encode_entry(&e, again);
    ASSERT_TRUE(memcmp(again, raw, 128) == 0 && sbacc_l_entry_valid(&e) == mem) << "entry, pattern " << i;
  }
}

// A descriptor of area "alpha" on two copies, the files opened by hand.
class HddTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sim_.SetAreas({{"alpha", kAt, 8192, 2}});
    ASSERT_EQ(sbacc_ma_alloc_sfd("alpha", SBACC_OPENMODE_WRITE, &sfd_), 0);
    for (int i = 0; i < 2; ++i) sfd_->fd[i] = ::open(sim_.HddPath(i).c_str(), O_RDWR | O_CLOEXEC);
  }
  void TearDown() override {
    for (int fd : sfd_->fd) {
      if (fd >= 0) ::close(fd);
    }
    sbacc_ma_free_sfd(sfd_);
  }
  sbacc_test::Sim sim_{2, kEnd};
  FaultEnv env_;
  sbacc_test::TraceCapture trace_;
  SBACC_FILE_DISCRIPTER* sfd_ = nullptr;
};

TEST_F(HddTest, HeaderInitialisationWritesExactBytesMagicLast) {
  sfd_->sfe.areasize = 0x100002000ull;  // stored cut to 32 bits
  ASSERT_EQ(sbacc_l_hddini_header(sfd_, 1, 0x5), 0);
  Bytes want(130, 0);  // a guard byte on each side
  memcpy(&want[1], "SBFS\3\0\0\0alpha", 13);
  want[1 + 41] = 0x20;  // areasize 0x2000
  want[1 + 48] = 5;     // hddblockade
  EXPECT_EQ(sim_.HddBytes(1, kAt - 1, 130), want);
  EXPECT_EQ(sim_.HddBytes(1, kAt - (4ull << 30), 128), Bytes(128, 0)) << "position wrapped to 32 bits";
  EXPECT_EQ(sim_.HddBytes(0, kAt, 128), Bytes(128, 0)) << "other copy touched";
  EXPECT_EQ(env_.Calls(FaultEnv::kFsync, sim_.HddPath(1)), 2) << "each of the two writes must be flushed";
  EXPECT_TRUE(trace_.Has("[sbacc_l_hddini_header] initialize HDD HEADER filename=(alpha) HDD[1]"));
  // A valid header, then the magic write fails: the copy stays without magic.
  env_.FailOp(FaultEnv::kWrite, sim_.HddPath(1), 1, 1, EIO);
  EXPECT_EQ(sbacc_l_hddini_header(sfd_, 1, 0), SBACC_E_HDDWRITE);
  EXPECT_EQ(sim_.HddBytes(1, kAt, 8), Bytes({0, 0, 0, 0, 3, 0, 0, 0}));
  EXPECT_TRUE(trace_.Has("[sbacc_l_hddini_header] sbacc_l_hddset_magic error. retcode=-123"));
}

// A copy index out of range or without a file, and positions that would wrap,
// are refused before any seek; a header past the end of the file is a short read.
TEST_F(HddTest, BadCopyPositionOrEndOfFile) {
  ::close(sfd_->fd[1]);
  sfd_->fd[1] = -1;
  char b[4] = {};
  for (int hdd : {-1, 8, 1}) EXPECT_EQ(sbacc_l_hddset(sfd_, hdd, 0, b, 4) + sbacc_l_hddget(sfd_, hdd, 0, b, 4), -248);
  EXPECT_EQ(trace_.CountContaining("lseek error. errno=9 index="), 6);
  sfd_->sfe.areaaddr = 3ull << 30;  // a wrapped 128 + offset would land inside the file
  EXPECT_EQ(sbacc_l_hddset_data(sfd_, 0, INT_MAX - 127, b, 1), SBACC_E_HDDSEEK);
  sfd_->sfe.areaaddr = 0;  // file position -1
  EXPECT_EQ(sbacc_l_hddget(sfd_, 0, -1, b, 1), SBACC_E_HDDSEEK);
  EXPECT_EQ(env_.Calls(FaultEnv::kSeek) + env_.Calls(FaultEnv::kWrite), 0);
  sfd_->sfe.areaaddr = kEnd - 64;
  SBACC_HDD_HEADER h;
  EXPECT_EQ(sbacc_l_hddget_header(sfd_, 0, &h), SBACC_E_HDDREAD);
  EXPECT_EQ(trace_.CountContaining("[sbacc_l_hddget] read error. ret=64 "), 1);
}

// Tunables as a descriptor takes them: read like atoi; a value out of range
// (1..999; the resync switch 0..1) or too large for a long gives the default.
TEST(Sfd, TunablesInForce) {
  sbacc_test::Sim sim;
  sim.SetAreas({{"a", 0x1000, 4096, 1}});
  const struct {
    int slot;
    const char* value;  // nullptr = unset
    int want;
  } cases[] = {{0, nullptr, 5},     {0, "0", 5},   {0, "1000", 5}, {0, "999", 999}, {1, "1", 1},
               {1, "12abc", 12},    {1, "abc", 5}, {3, "  +7", 7}, {2, "-3", 3},    {3, "99999999999999999999", 3},
               {2, "4294967298", 3}, {4, "0", 0},     {4, "2", 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value != nullptr ? c.value : "unset");
    for (int i = 0; sbacc_env_list[i].name != nullptr; ++i) unsetenv(sbacc_env_list[i].name);
    if (c.value != nullptr) setenv(sbacc_env_list[c.slot].name, c.value, 1);
    sbacc_test::TraceCapture trace;
    SBACC_FILE_DISCRIPTER* sfd = nullptr;
    ASSERT_EQ(sbacc_ma_alloc_sfd("a", SBACC_OPENMODE_READ, &sfd), 0);
    std::vector<int> want = {5, 5, 3, 3, 1};
    want[c.slot] = c.want;
    EXPECT_EQ(std::vector<int>(sfd->env, sfd->env + SBACC_ENV_NUM), want);
    EXPECT_TRUE(
        trace.Has("[sbacc_ma_alloc_sfd] " + std::string(sbacc_env_list[c.slot].name) + ": " + std::to_string(c.want)));
    sbacc_ma_free_sfd(sfd);
  }
  for (int i = 0; sbacc_env_list[i].name != nullptr; ++i) unsetenv(sbacc_env_list[i].name);
}

}  // namespace
