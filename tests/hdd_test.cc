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
using Bytes = std::vector<uint8_t>;

// A descriptor of area `name` with the first `copies` HDD files opened by hand.
SBACC_FILE_DISCRIPTER* OpenArea(const Sim& sim, const char* name, int copies) {
  SBACC_FILE_DISCRIPTER* sfd = nullptr;
  EXPECT_EQ(sbacc_ma_alloc_sfd(name, SBACC_OPENMODE_WRITE, &sfd), 0);
  for (int i = 0; i < copies; ++i) sfd->fd[i] = ::open(sim.HddPath(i).c_str(), O_RDWR | O_CLOEXEC);
  return sfd;
}

void CloseArea(SBACC_FILE_DISCRIPTER* sfd) {
  for (int fd : sfd->fd) {
    if (fd >= 0) ::close(fd);
  }
  sbacc_ma_free_sfd(sfd);
}

class HddTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sim_.SetAreas({{"alpha", 4096, 8192, 2}});
    sfd_ = OpenArea(sim_, "alpha", 2);
  }
  void TearDown() override { CloseArea(sfd_); }

  Sim sim_;
  FaultEnv env_;
  sbacc_test::TraceCapture trace_;
  SBACC_FILE_DISCRIPTER* sfd_ = nullptr;
};

TEST_F(HddTest, HeaderInitialisationWritesExactBytesMagicLast) {
  sfd_->sfe.areasize = 0x100002000ull;  // stored cut to 32 bits
  ASSERT_EQ(sbacc_l_hddini_header(sfd_, 1, 0x5), 0);
  Bytes want(130, 0);  // one guard byte on each side
  memcpy(&want[1], "SBFS\3\0\0\0alpha", 13);
  want[1 + 41] = 0x20;  // areasize 0x2000
  want[1 + 48] = 5;     // hddblockade
  EXPECT_EQ(sim_.HddBytes(1, 4095, 130), want);
  EXPECT_EQ(sim_.HddBytes(0, 4096, 128), Bytes(128, 0)) << "other copy touched";
  EXPECT_EQ(env_.Calls(FaultEnv::kFsync, sim_.HddPath(1)), 2) << "each of the two writes must be flushed";
  int level = 0;
  for (const auto& l : trace_.Lines()) {
    if (l.text == "[sbacc_l_hddini_header] initialize HDD HEADER filename=(alpha) HDD[1]") level = l.level;
  }
  EXPECT_EQ(level, 4);

  env_.FailOp(FaultEnv::kWrite, sim_.HddPath(1), 1, 1, EIO);  // a valid header, then the magic write fails
  EXPECT_EQ(sbacc_l_hddini_header(sfd_, 1, 0), -123);
  EXPECT_EQ(sim_.HddBytes(1, 4096, 8), Bytes({0, 0, 0, 0, 3, 0, 0, 0}));
  EXPECT_TRUE(trace_.Has("[sbacc_l_hddini_header] sbacc_l_hddset_magic error. retcode=-123"));
}

TEST_F(HddTest, AccessorsMoveExactBytes) {
  SBACC_HDD_HEADER h{};
  h.closetime = -2;
  uint8_t hraw[128];
  sbacc_l_encode_header(&h, hraw);
  const struct {
    std::function<int()> call;
    uint64_t pos;
    Bytes bytes;
  } cases[] = {
      {[&] { return sbacc_l_hddset_data(sfd_, 0, 10, "xyz", 3); }, 4234, {'x', 'y', 'z'}},
      {[&] { return sbacc_l_hddset_magic(sfd_, 0); }, 4096, {'S', 'B', 'F', 'S'}},
      {[&] { return sbacc_l_hddset_header(sfd_, 0, &h); }, 4096, Bytes(hraw, hraw + 128)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.pos);
    Bytes want(300, 0xEE);
    sim_.PutHddBytes(0, 4000, want.data(), want.size());
    ASSERT_EQ(c.call(), 0);
    memcpy(&want[c.pos - 4000], c.bytes.data(), c.bytes.size());
    EXPECT_EQ(sim_.HddBytes(0, 4000, 300), want);
  }
  Bytes disk(200);
  for (size_t i = 0; i < disk.size(); ++i) disk[i] = static_cast<uint8_t>(i);
  sim_.PutHddBytes(1, 4096, disk.data(), disk.size());
  int32_t filesize = 0;
  uint8_t data[3];
  ASSERT_EQ(sbacc_l_hddget_filesize(sfd_, 1, &filesize) | sbacc_l_hddget_data(sfd_, 1, 10, data, 3) |
                sbacc_l_hddget_header(sfd_, 1, &h),
            0);
  EXPECT_EQ(filesize, 0x2f2e2d2c);
  EXPECT_EQ(Bytes(data, data + 3), Bytes({138, 139, 140}));
  sbacc_l_encode_header(&h, hraw);
  EXPECT_EQ(Bytes(hraw, hraw + 128), Bytes(disk.begin(), disk.begin() + 128));
}

struct FaultCase {
  const char* name;
  FaultEnv::Op op;
  int err;  // 0: cut the transfer short by 3 bytes instead
  bool write;
  int rc;
  size_t landed;      // bytes of a write that reach the file
  const char* trace;  // prefix of the expected error line
};
void PrintTo(const FaultCase& c, std::ostream* os) { *os << c.name; }

class HddFaultTest : public HddTest, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(HddFaultTest, CodeTraceAndFileContents) {
  const FaultCase& c = GetParam();
  if (c.err != 0) env_.FailOp(c.op, sim_.HddPath(0), 0, 1, c.err);
  if (c.err == 0) env_.ShortOp(c.op, sim_.HddPath(0), 0, 1, 3);
  Bytes buf(16, 0xA5);
  auto run = [&](int hdd) {
    return c.write ? sbacc_l_hddset_data(sfd_, hdd, 0, buf.data(), 16) : sbacc_l_hddget_data(sfd_, hdd, 0, buf.data(), 16);
  };
  EXPECT_EQ(run(0), c.rc);
  EXPECT_EQ(trace_.CountContaining(c.trace), 1) << trace_.Dump();
  if (c.write) {
    Bytes want(16, 0);
    std::fill(want.begin(), want.begin() + static_cast<long>(c.landed), 0xA5);
    EXPECT_EQ(sim_.Data(0, 0, 16), want);
    EXPECT_EQ(env_.Calls(FaultEnv::kFsync), c.op == FaultEnv::kFsync ? 1 : 0) << "flush after a failed write";
  }
  EXPECT_EQ(run(1), 0) << "the fault was for copy 0 alone";
}

INSTANTIATE_TEST_SUITE_P(
    Hdd, HddFaultTest,
    ::testing::Values(
        FaultCase{"seek_set", FaultEnv::kSeek, EIO, true, -124, 0, "[sbacc_l_hddset] lseek error. errno=5 index=0, offset=128"},
        FaultCase{"seek_get", FaultEnv::kSeek, EIO, false, -124, 0, "[sbacc_l_hddget] lseek error. errno=5 index=0, offset=128"},
        FaultCase{"write_fails", FaultEnv::kWrite, ENOSPC, true, -123, 0, "[sbacc_l_hddset] write error. ret=-1 errno=28 len=16"},
        FaultCase{"write_short", FaultEnv::kWrite, 0, true, -123, 13, "[sbacc_l_hddset] write error. ret=13 "},
        FaultCase{"fsync_fails", FaultEnv::kFsync, EIO, true, -123, 16, "[sbacc_l_hddset] fsync error. ret=-1 errno=5 len=16"},
        FaultCase{"read_fails", FaultEnv::kRead, EIO, false, -122, 0, "[sbacc_l_hddget] read error. ret=-1 errno=5 len=16"},
        FaultCase{"read_short", FaultEnv::kRead, 0, false, -122, 0, "[sbacc_l_hddget] read error. ret=13 "}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(HddTest, BadCopyPositionOrEndOfFile) {
  ::close(sfd_->fd[1]);
  sfd_->fd[1] = -1;
  char b[4] = {};
  for (int hdd : {-1, 8, 1}) EXPECT_EQ(sbacc_l_hddset(sfd_, hdd, 0, b, 4) + sbacc_l_hddget(sfd_, hdd, 0, b, 4), -248);
  EXPECT_EQ(trace_.CountContaining("lseek error. errno=9 index="), 6);
  sfd_->sfe.areaaddr = 3ull << 30;  // a wrapped 128 + offset would land inside the file
  EXPECT_EQ(sbacc_l_hddset_data(sfd_, 0, INT_MAX - 127, b, 1), -124);
  sfd_->sfe.areaaddr = 0;  // file position -1: refused, never wrapped
  EXPECT_EQ(sbacc_l_hddget(sfd_, 0, -1, b, 1), -124);
  EXPECT_EQ(env_.Calls(FaultEnv::kSeek) + env_.Calls(FaultEnv::kWrite), 0);

  sfd_->sfe.areaaddr = (1u << 20) - 64;  // header runs past the end of the file
  SBACC_HDD_HEADER h;
  EXPECT_EQ(sbacc_l_hddget_header(sfd_, 0, &h), -122);
  EXPECT_EQ(trace_.CountContaining("[sbacc_l_hddget] read error. ret=64 "), 1);
}

TEST(HddFar, AreaBeyond4GiBInSparseFile) {
  const uint64_t addr = (4ull << 30) + 4096;
  Sim sim(1, addr + 8192);
  sim.SetAreas({{"far", addr, 8192, 1}});
  SBACC_FILE_DISCRIPTER* sfd = OpenArea(sim, "far", 1);
  EXPECT_EQ(sbacc_l_hddini_header(sfd, 0, 0), 0);
  EXPECT_EQ(sbacc_l_hddset_data(sfd, 0, 0, "abc", 3), 0);
  EXPECT_EQ(sim.HddBytes(0, addr, 4), Bytes({'S', 'B', 'F', 'S'}));
  EXPECT_EQ(sim.HddBytes(0, addr + 128, 3), Bytes({'a', 'b', 'c'}));
  EXPECT_EQ(sim.HddBytes(0, 4096, 132), Bytes(132, 0)) << "position wrapped to 32 bits";
  CloseArea(sfd);
}

}  // namespace
