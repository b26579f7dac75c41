// HDD copy primitives: exact bytes in the file, error codes and traces under
// injected faults, interrupted initialisation, positions beyond 4 GiB.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <climits>
#include <functional>
#include <vector>

#include "fault_env.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"
#include "sim.h"

namespace {

using sbacc_test::FaultEnv;
using sbacc_test::Sim;
using sbacc_test::TraceCapture;
using Bytes = std::vector<uint8_t>;

constexpr uint64_t kAddr = 0x1000;

class HddTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sim_.SetAreas({{"alpha", kAddr, 8192, 2}});
    ASSERT_EQ(sbacc_ma_alloc_sfd("alpha", SBACC_OPENMODE_WRITE, &sfd_), 0);
    for (int i = 0; i < 2; ++i) {
      sfd_->fd[i] = ::open(sim_.HddPath(i).c_str(), O_RDWR | O_CLOEXEC);
      ASSERT_GE(sfd_->fd[i], 0);
    }
  }
  void TearDown() override {
    for (int fd : sfd_->fd) {
      if (fd >= 0) ::close(fd);
    }
    sbacc_ma_free_sfd(sfd_);
  }

  Sim sim_;
  FaultEnv env_;
  TraceCapture trace_;
  SBACC_FILE_DISCRIPTER* sfd_ = nullptr;
};

TEST_F(HddTest, HeaderInitialisationWritesExactBytesMagicLast) {
  sfd_->sfe.areasize = 0x100002000ull;  // stored cut to 32 bits
  ASSERT_EQ(sbacc_l_hddini_header(sfd_, 1, 0x5), 0);
  Bytes want(130, 0);  // one guard byte on each side
  memcpy(&want[1], "SBFS", 4);
  want[1 + 4] = 3;
  memcpy(&want[1 + 8], "alpha", 5);
  want[1 + 41] = 0x20;  // areasize 0x2000
  want[1 + 48] = 5;     // hddblockade
  EXPECT_EQ(sim_.HddBytes(1, kAddr - 1, 130), want);
  EXPECT_EQ(sim_.HddBytes(0, kAddr, 128), Bytes(128, 0)) << "other copy touched";
  EXPECT_EQ(env_.Calls(FaultEnv::kWrite, sim_.HddPath(1)), 2);
  EXPECT_EQ(env_.Calls(FaultEnv::kFsync, sim_.HddPath(1)), 2) << "every write must be flushed";
  int level = 0;
  for (const auto& l : trace_.Lines()) {
    if (l.text == "[sbacc_l_hddini_header] initialize HDD HEADER filename=(alpha) HDD[1]") level = l.level;
  }
  EXPECT_EQ(level, 4);
}

TEST_F(HddTest, InterruptedInitialisationLeavesNoValidHeader) {
  struct Case {
    long fail_from;  // writes to let through before failing one
    const char* trace;
    bool old_header_survives;
  };
  const Case cases[] = {{0, "[sbacc_l_hddini_header] sbacc_l_hddset_header error. retcode=-123", true},
                        {1, "[sbacc_l_hddini_header] sbacc_l_hddset_magic error. retcode=-123", false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.trace);
    SBACC_HDD_HEADER old{};
    memcpy(old.magic, "SBFS", 4);
    old.version = 3;
    old.filesize = 77;
    sim_.PutHeader(0, 0, old);
    env_.ClearRules();
    env_.FailOp(FaultEnv::kWrite, sim_.HddPath(0), c.fail_from, 1, EIO);
    EXPECT_EQ(sbacc_l_hddini_header(sfd_, 0, 0), -123);
    EXPECT_TRUE(trace_.Has(c.trace));
    SBACC_HDD_HEADER h = sim_.Header(0, 0);
    EXPECT_EQ(sbacc_l_header_valid(&h), c.old_header_survives);
    EXPECT_EQ(h.filesize, c.old_header_survives ? 77 : 0);
  }
}

TEST_F(HddTest, AccessorsMoveExactBytes) {
  SBACC_HDD_HEADER h{};
  h.version = 0x01020304;
  h.closetime = -2;
  uint8_t hraw[128];
  sbacc_l_encode_header(&h, hraw);
  struct Case {
    const char* name;
    std::function<int()> call;
    uint64_t pos;
    Bytes bytes;
  };
  const Case cases[] = {
      {"data@10", [&] { return sbacc_l_hddset_data(sfd_, 0, 10, "xyz", 3); }, 4234, {'x', 'y', 'z'}},
      {"magic", [&] { return sbacc_l_hddset_magic(sfd_, 0); }, 4096, {'S', 'B', 'F', 'S'}},
      {"header", [&] { return sbacc_l_hddset_header(sfd_, 0, &h); }, 4096, Bytes(hraw, hraw + 128)},
      {"raw@-1", [&] { return sbacc_l_hddset(sfd_, 0, -1, "q", 1); }, 4095, {'q'}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes want(300, 0xEE);
    sim_.PutHddBytes(0, 4000, want.data(), want.size());
    ASSERT_EQ(c.call(), 0);
    memcpy(&want[c.pos - 4000], c.bytes.data(), c.bytes.size());
    EXPECT_EQ(sim_.HddBytes(0, 4000, 300), want);
  }

  Bytes disk(200);
  for (size_t i = 0; i < disk.size(); ++i) disk[i] = static_cast<uint8_t>(i);
  sim_.PutHddBytes(1, kAddr, disk.data(), disk.size());
  int32_t filesize = 0;
  ASSERT_EQ(sbacc_l_hddget_filesize(sfd_, 1, &filesize), 0);
  EXPECT_EQ(filesize, 0x2f2e2d2c);
  uint8_t data[3];
  ASSERT_EQ(sbacc_l_hddget_data(sfd_, 1, 10, data, 3), 0);
  EXPECT_EQ(Bytes(data, data + 3), Bytes({138, 139, 140}));
  SBACC_HDD_HEADER got;
  ASSERT_EQ(sbacc_l_hddget_header(sfd_, 1, &got), 0);
  sbacc_l_encode_header(&got, hraw);
  EXPECT_EQ(Bytes(hraw, hraw + 128), Bytes(disk.begin(), disk.begin() + 128));
}

struct FaultCase {
  const char* name;
  FaultEnv::Op op;
  int err;     // 0: cut the transfer short instead
  size_t cut;
  bool write;
  int rc;
  const char* trace;  // prefix of the expected error line
};
void PrintTo(const FaultCase& c, std::ostream* os) { *os << c.name; }

class HddFaultTest : public HddTest, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(HddFaultTest, CodeTraceAndFileContents) {
  const FaultCase& c = GetParam();
  if (c.err != 0) {
    env_.FailOp(c.op, sim_.HddPath(0), 0, 1, c.err);
  } else {
    env_.ShortOp(c.op, sim_.HddPath(0), 0, 1, c.cut);
  }
  Bytes buf(16);
  for (size_t i = 0; i < buf.size(); ++i) buf[i] = static_cast<uint8_t>(0xA0 + i);
  const int rc = c.write ? sbacc_l_hddset_data(sfd_, 0, 0, buf.data(), 16) : sbacc_l_hddget_data(sfd_, 0, 0, buf.data(), 16);
  EXPECT_EQ(rc, c.rc);
  EXPECT_EQ(trace_.CountContaining(c.trace), 1) << trace_.Dump();
  if (c.write) {
    const size_t landed = (c.op == FaultEnv::kWrite) ? (c.err != 0 ? 0 : 16 - c.cut) : (c.op == FaultEnv::kSeek ? 0 : 16);
    Bytes want(buf.begin(), buf.begin() + static_cast<long>(landed));
    want.resize(16, 0);
    EXPECT_EQ(sim_.Data(0, 0, 16), want);
    EXPECT_EQ(env_.Calls(FaultEnv::kFsync, sim_.HddPath(0)), c.op == FaultEnv::kFsync ? 1 : 0);
  }
  // The fault was for copy 0 alone; copy 1 still works.
  EXPECT_EQ(c.write ? sbacc_l_hddset_data(sfd_, 1, 0, buf.data(), 16) : sbacc_l_hddget_data(sfd_, 1, 0, buf.data(), 16), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Hdd, HddFaultTest,
    ::testing::Values(
        FaultCase{"seek_set", FaultEnv::kSeek, EIO, 0, true, -124, "[sbacc_l_hddset] lseek error. errno=5 index=0, offset=128"},
        FaultCase{"seek_get", FaultEnv::kSeek, EIO, 0, false, -124, "[sbacc_l_hddget] lseek error. errno=5 index=0, offset=128"},
        FaultCase{"write_fails", FaultEnv::kWrite, ENOSPC, 0, true, -123, "[sbacc_l_hddset] write error. ret=-1 errno=28 len=16"},
        FaultCase{"write_short", FaultEnv::kWrite, 0, 3, true, -123, "[sbacc_l_hddset] write error. ret=13 "},
        FaultCase{"fsync_fails", FaultEnv::kFsync, EIO, 0, true, -123, "[sbacc_l_hddset] fsync error. ret=-1 errno=5 len=16"},
        FaultCase{"read_fails", FaultEnv::kRead, EIO, 0, false, -122, "[sbacc_l_hddget] read error. ret=-1 errno=5 len=16"},
        FaultCase{"read_short", FaultEnv::kRead, 0, 5, false, -122, "[sbacc_l_hddget] read error. ret=11 "}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(HddTest, ReadReachingEndOfFileFails) {
  sfd_->sfe.areaaddr = (1u << 20) - 64;
  SBACC_HDD_HEADER h;
  EXPECT_EQ(sbacc_l_hddget_header(sfd_, 0, &h), -122);
  EXPECT_EQ(trace_.CountContaining("[sbacc_l_hddget] read error. ret=64 "), 1);
}

TEST_F(HddTest, BadCopyOrPositionIsRefusedWithoutIo) {
  ::close(sfd_->fd[1]);
  sfd_->fd[1] = -1;
  char b[4] = {};
  for (int hdd : {-1, 8, 1}) {
    EXPECT_EQ(sbacc_l_hddset(sfd_, hdd, 0, b, 4), -124);
    EXPECT_EQ(sbacc_l_hddget(sfd_, hdd, 0, b, 4), -124);
  }
  EXPECT_EQ(trace_.CountContaining("lseek error. errno=9 index="), 6);
  EXPECT_EQ(sbacc_l_hddset_data(sfd_, 0, INT_MAX - 127, b, 1), -124);
  EXPECT_EQ(sbacc_l_hddget_data(sfd_, 0, INT_MAX, b, 1), -124);
  EXPECT_EQ(env_.Calls(FaultEnv::kSeek) + env_.Calls(FaultEnv::kWrite) + env_.Calls(FaultEnv::kRead), 0);
  sfd_->sfe.areaaddr = 0;  // file position -1: refused, never wrapped
  EXPECT_EQ(sbacc_l_hddget(sfd_, 0, -1, b, 1), -124);
}

TEST(HddFar, AreaBeyond4GiBInSparseFile) {
  const uint64_t addr = (4ull << 30) + 4096;
  Sim sim(1, addr + 8192);
  sim.SetAreas({{"far", addr, 8192, 1}});
  SBACC_FILE_DISCRIPTER* sfd = nullptr;
  ASSERT_EQ(sbacc_ma_alloc_sfd("far", SBACC_OPENMODE_WRITE, &sfd), 0);
  sfd->fd[0] = ::open(sim.HddPath(0).c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(sfd->fd[0], 0);
  EXPECT_EQ(sbacc_l_hddini_header(sfd, 0, 0), 0);
  EXPECT_EQ(sbacc_l_hddset_data(sfd, 0, 0, "abc", 3), 0);
  EXPECT_EQ(sim.HddBytes(0, addr, 4), Bytes({'S', 'B', 'F', 'S'}));
  EXPECT_EQ(sim.HddBytes(0, addr + 128, 3), Bytes({'a', 'b', 'c'}));
  EXPECT_EQ(sim.HddBytes(0, 4096, 132), Bytes(132, 0)) << "position wrapped to 32 bits";
  SBACC_HDD_HEADER h;
  ASSERT_EQ(sbacc_l_hddget_header(sfd, 0, &h), 0);
  EXPECT_TRUE(sbacc_l_header_valid(&h));
  ::close(sfd->fd[0]);
  sbacc_ma_free_sfd(sfd);
}

}  // namespace
