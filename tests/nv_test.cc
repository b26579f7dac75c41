// The storage layer: header and NV record bytes as they land (little-endian,
// at their offsets, the magic last), positions beyond 4 GiB, the repair lock
// bytes and heartbeats per controller with the rank of the master and the
// lower numbers, and the repair set-up.
#include "testutil.h"

namespace {

constexpr uint64_t kRec3 = SBACC_NV_BASE + 3 * 128;  // record of the area with index 3
constexpr uint64_t kAt = (4ull << 30) + 4096;        // area a3's header in its HDD files

class NvTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int i = 0; sbacc_env_list[i].name != nullptr; ++i) unsetenv(sbacc_env_list[i].name);
    sim_.SetAreas({{"a0", 0x1000, 4096, 1}, {"a1", 0x2000, 4096, 1}, {"a2", 0x3000, 4096, 1}, {"a3", kAt, 8192, 2}});
    Alloc();
  }
  void TearDown() override { Free(); }
  void Alloc() {  // tunables are read when a descriptor is built
    Free();
    ASSERT_EQ(sbacc_ma_alloc_sfd("a3", SBACC_OPENMODE_WRITE, &sfd_), 0);
  }
  void Free() {
    if (sfd_ == nullptr) return;
    for (int& fd : sfd_->fd) fd >= 0 && sbacc::CurrentEnv()->Close(fd);
    sbacc_ma_free_sfd(sfd_);
    sfd_ = nullptr;
  }
  Bytes Lock(int area = 3) const { return sim_.NvBytes(SBACC_NV_BASE + 128 * area + kMemRepairlock, 4); }
  void SetLock(const Bytes& b, int area = 3) { sim_.PutNvBytes(SBACC_NV_BASE + 128 * area + kMemRepairlock, b.data(), 4); }
  static long Calls(int kind) { return sanfwctl_call_count(kind); }

  sbacc_test::Sim sim_{2, kAt + 8192};
  FaultEnv env_;  // records the pauses instead of sleeping
  sbacc_test::TraceCapture trace_;
  SBACC_FILE_DISCRIPTER* sfd_ = nullptr;
};

// The on-media header: every field little-endian at its offset (a byte of
// 0x11 + i in field i's lowest byte, and in the highest of the two times).
TEST_F(NvTest, HeaderFieldsAtTheirOffsets) {
  SBACC_HDD_HEADER h{};
  h.areasize = 0x11, h.filesize = 0x12, h.hddblockade = 0x13, h.openflag = 0x14, h.opencnt = 0x15;
  h.opentime = 0x1600000000000016, h.closetime = 0x1700000000000017, h.writeflag = 0x18, h.write_offset = 0x19;
  h.write_size = 0x1a;
  uint8_t raw[128];
  sbacc_l_encode_header(&h, raw);
  const int at[] = {40, 44, 48, 59, 60, 64, 72, 80, 84, 88}, high[] = {71, 79};
  for (int i = 0; i < 10; ++i) EXPECT_EQ(0x11 + i, raw[at[i]]) << "field " << i;
  for (int i = 0; i < 2; ++i) EXPECT_EQ(0x16 + i, raw[high[i]]) << "time " << i;
  EXPECT_EQ(0x11 + 0x12 + 0x13 + 0x14 + 0x15 + 2 * 0x16 + 2 * 0x17 + 0x18 + 0x19 + 0x1a,
            std::accumulate(raw, raw + 128, 0)) << "a byte lands where no field is";
}

// Header and NV record initialisation: exact bytes, each write flushed, the
// magic written last, so a failure before it leaves an invalid record.
TEST_F(NvTest, InitialisationWritesExactRecordsMagicLast) {
  for (int i = 0; i < 2; ++i) sfd_->fd[i] = sbacc::CurrentEnv()->Open(sim_.HddPath(i).c_str(), O_RDWR);
  sfd_->sfe.areasize = 0x100002000ull;  // stored cut to 32 bits
  ASSERT_EQ(sbacc_l_hddini_header(sfd_, 1, 0x5), 0);
  Bytes want(130, 0);  // a guard byte on each side
  memcpy(&want[1], "SBFS\3\0\0\0a3", 10);
  want[1 + 41] = 0x20, want[1 + 48] = 5;  // areasize 0x2000, hddblockade
  EXPECT_EQ(sim_.HddBytes(1, kAt - 1, 130), want);
  EXPECT_EQ(sim_.HddBytes(1, kAt - (4ull << 30), 128), Bytes(128, 0)) << "position wrapped to 32 bits";
  EXPECT_EQ(sim_.HddBytes(0, kAt, 128), Bytes(128, 0)) << "other copy touched";
  EXPECT_EQ(env_.Calls(FaultEnv::kFsync, sim_.HddPath(1)), 2) << "each of the two writes must be flushed";
  env_.FailOp(FaultEnv::kWrite, sim_.HddPath(0), 1, 1, EIO);
  EXPECT_EQ(sbacc_l_hddini_header(sfd_, 0, 0), SBACC_E_HDDWRITE);
  EXPECT_EQ(sim_.HddBytes(0, kAt, 8), Bytes({0, 0, 0, 0, 3, 0, 0, 0}));
  EXPECT_TRUE(trace_.Has("[sbacc_l_hddini_header] sbacc_l_hddset_magic error. retcode=-123"));

  SBACC_MEM_LIST_ENTRY e;
  ASSERT_EQ(sbacc_l_memini_entry(sfd_, &e), 0);
  want.assign(384, 0);  // with the neighbouring records
  memcpy(&want[128], "SBNM\3\0\0\0a3", 10);
  want[128 + 40] = 2;  // hddcount
  EXPECT_EQ(sim_.NvBytes(kRec3 - 128, 384), want);
  // The repair lock bytes and heartbeats are left as they are (another
  // controller's lock survives this one's NV initialisation, and so does its
  // own); all else is made afresh, of a valid record or not (below).
  sim_.EditNvEntry(3, [](auto& r) { r.hddblockade = 5, r.hddrepairlock_cntno[1] = 1, r.lockbeat[1] = 0x0304; });
  ASSERT_EQ(sbacc_l_memini_entry(sfd_, &e), 0);
  want[128 + kMemRepairlock + 1] = 1, want[128 + kMemLockbeat + 2] = 4, want[128 + kMemLockbeat + 3] = 3;
  EXPECT_EQ(sim_.NvBytes(kRec3 - 128, 384), want);
  sanfwctl_set_fault(SANFWCTL_FAULT_WRITE, Calls(SANFWCTL_FAULT_WRITE) + 1, -1);  // the body lands, the magic never
  EXPECT_EQ(sbacc_l_memini_entry(sfd_, &e), SBACC_E_NVWRITE);
  sanfwctl_set_fault(SANFWCTL_FAULT_WRITE, 0, 0);
  EXPECT_EQ(sim_.NvBytes(kRec3, 8), Bytes({0, 0, 0, 0, 3, 0, 0, 0}));
  EXPECT_EQ(sbacc_memget_check_entry(sfd_, &e), SBACC_E_NOTINIT);
  EXPECT_TRUE(trace_.Has("[sbacc_memget_check_entry] NV is not initialized"));
  ASSERT_EQ(sbacc_l_memini_entry(sfd_, &e), 0);
  EXPECT_EQ(sim_.NvBytes(kRec3 - 128, 384), want);
}

TEST_F(NvTest, AccessorsTouchExactlyTheirBytes) {
  const struct { std::function<int(SBACC_FILE_DISCRIPTER*)> call; uint64_t pos; Bytes bytes; } cases[] = {
      {[](auto* s) { return sbacc_memset_magic(s); }, 4480, {'S', 'B', 'N', 'M'}},
      {[](auto* s) { return sbacc_memset_hddblockade(s, 0x80000005u); }, 4524, {5, 0, 0, 0x80}},
      {[](auto* s) { return sbacc_memset_latesthdd(s, 0x0102u); }, 4528, {2, 1, 0, 0}},
      {[](auto* s) { return sbacc_memset_hddrepair(s, 0x81); }, 4532, {0x81}},
      {[](auto* s) { return sbacc_memset_hddrepairlock(s, 0, 1); }, 4536, {1}},
      {[](auto* s) { return sbacc_memset_hddrepairlock(s, 2, 1); }, 4538, {1}},
      {[](auto* s) { return sbacc_memset_lockbeat(s, 3, 0xfffe); }, 4606, {0xfe, 0xff}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.pos);
    Bytes want(130, 0xEE);  // one guard byte on each side of the record
    sim_.PutNvBytes(kRec3 - 1, want.data(), want.size());
    ASSERT_EQ(c.call(sfd_), 0);
    memcpy(&want[c.pos - kRec3 + 1], c.bytes.data(), c.bytes.size());
    EXPECT_EQ(sim_.NvBytes(kRec3 - 1, 130), want);
  }
  const Bytes before = sim_.NvBytes(kRec3, 128);
  for (int cntno : {-1, 4, INT_MAX}) EXPECT_EQ(sbacc_memset_hddrepairlock(sfd_, cntno, 0x11), SBACC_E_PARAM);
  EXPECT_EQ(sim_.NvBytes(kRec3, 128), before);
  Bytes rec(128);  // and each getter reads its own bytes
  for (int i = 0; i < 128; ++i) rec[i] = static_cast<uint8_t>(i + 0x80);
  sim_.PutNvBytes(kRec3, rec.data(), rec.size());
  uint32_t mask = 0;
  uint8_t repair = 0, raw[128];
  Bytes locks(4);
  uint16_t beats[4];
  SBACC_MEM_LIST_ENTRY e;
  ASSERT_EQ(sbacc_memget_hddblockade(sfd_, &mask) | sbacc_memget_hddrepair(sfd_, &repair) |
                sbacc_memget_hddrepairlock_all(sfd_, locks.data()) | sbacc_memget_lockbeat_all(sfd_, beats) |
                sbacc_memget_entry(sfd_, &e),
            0);
  EXPECT_EQ(mask, 0xafaeadacu);
  EXPECT_EQ(repair, 0xb4);
  EXPECT_EQ(locks, Bytes({0xb8, 0xb9, 0xba, 0xbb}));
  EXPECT_TRUE(beats[0] == 0xf9f8 && beats[3] == 0xfffe && e.lockbeat[1] == 0xfbfa);
  sbacc_l_encode_entry(&e, raw);
  EXPECT_EQ(Bytes(raw, raw + 128), rec);
}

// The lock taken by any of four controllers against any other (beyond the
// base design): free, it is taken at once, without a status call or a pause.
// Met, the contender that ranks first among the raised bytes (the master,
// then the lowest number) keeps its byte up and the others lower theirs,
// each pausing a random 1 to 200 ms; after SBACC_REPAIRLOCK_WAIT seconds of
// pauses it gives up with its byte down.  Only the master clears another
// byte, and only one whose heartbeat it has watched stand still for
// SBACC_REPAIRLOCK_STALE seconds.  `other` stands in for the other side
// during the pauses: it beats controller h's heartbeat, and lowers its byte
// once `leaves` microseconds of pauses have passed.
TEST_F(NvTest, RepairLockEnterTakesWaitsOrGivesUp) {
  constexpr int64_t kWait = 2000000, kStale = 1000000, kSlack = 200000;
  const struct {
    const char* name;
    int own;
    Bytes before;
    int master, status_failures;
    int live;        // controller whose heartbeat moves while we pause, -1 none
    int64_t leaves;  // its byte goes down after this long, 0 never
    int rc;
    int64_t waited;  // the pauses add up to this (up to one more pause)
    Bytes after;
    uint16_t beat;  // own heartbeat afterwards (7 before): 0 once released, or given up after beating
  } cases[] = {
      {"Free", 0, {0, 0, 0, 0}, 1, 0, -1, 0, 0, 0, {1, 0, 0, 0}, 0},
      {"LowerRankedBacksOffUntilTheBound", 2, {0, 1, 0, 0}, 9, 0, -1, 0, SBACC_E_REPAIR, kWait, {0, 1, 0, 0}, 7},
      {"Controller3IsWaitedForNotRefused", 0, {0, 0, 0, 1}, 1, 0, -1, 0, SBACC_E_REPAIR, kWait, {0, 0, 0, 1}, 0},
      {"MasterClearsAStaleByte", 0, {0, 1, 0, 0}, 0, 0, -1, 0, 0, kStale, {1, 0, 0, 0}, 0},
      {"MasterWaitsForALiveHolder", 0, {0, 1, 0, 0}, 0, 0, 1, 0, SBACC_E_REPAIR, kWait, {0, 1, 0, 0}, 0},
      {"MasterTakesWhenTheLiveHolderLeaves", 0, {0, 0, 1, 0}, 0, 0, 2, 1500000, 0, 1500000, {1, 0, 0, 0}, 0},
      {"LowerRankedTakesWhenTheHolderLeaves", 3, {0, 1, 0, 0}, 9, 0, 1, 500000, 0, 500000, {0, 0, 0, 1}, 0},
      {"FailedStatusCallMeansNoMaster", 1, {1, 0, 0, 0}, 1, 1, -1, 0, SBACC_E_REPAIR, kWait, {1, 0, 0, 0}, 7},
      {"ControllerNumber4", 4, {0, 1, 0, 0}, 4, 0, -1, 0, SBACC_E_PARAM, 0, {0, 1, 0, 0}, 7}};
  setenv("SBACC_REPAIRLOCK_WAIT", "2", 1);
  setenv("SBACC_REPAIRLOCK_STALE", "1", 1);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Alloc();
    setenv("SANFWCTL_MASTER", std::to_string(c.master).c_str(), 1);
    SetLock(c.before);
    sim_.EditNvEntry(3, [](auto& e) { std::fill(std::begin(e.lockbeat), std::end(e.lockbeat), 7); });
    sbacc_cntno = c.own;
    const long status = Calls(SANFWCTL_FAULT_STATUS), writes = Calls(SANFWCTL_FAULT_WRITE);
    sanfwctl_set_fault(SANFWCTL_FAULT_STATUS, status, c.status_failures);
    env_.ResetCounters();
    const int stale_traces = trace_.CountContaining("lock byte is stale");
    int64_t paused = 0;
    env_.OnSleep([&](unsigned us) {
      paused += us;
      if (c.live >= 0) sim_.EditNvEntry(3, [&](auto& e) { ++e.lockbeat[c.live]; });
      if (c.leaves > 0 && paused >= c.leaves) sim_.EditNvEntry(3, [&](auto& e) { e.hddrepairlock_cntno[c.live] = 0; });
    });
    EXPECT_EQ(c.rc, sbacc_ma_enter_repairlock(sfd_));
    env_.OnSleep({});
    EXPECT_EQ(c.after, Lock());
    EXPECT_TRUE(paused >= c.waited && paused < c.waited + kSlack) << paused;
    const std::vector<unsigned> sleeps = env_.Sleeps();
    const std::set<unsigned> distinct(sleeps.begin(), sleeps.end());
    EXPECT_TRUE(distinct.empty() || (*distinct.begin() >= 1000 && *distinct.rbegin() <= 200000 &&
                                     (sleeps.size() < 8 || distinct.size() > sleeps.size() / 2)))
        << "pauses out of range or not random";
    EXPECT_EQ(c.waited > 0 ? 1 : 0, Calls(SANFWCTL_FAULT_STATUS) - status);
    EXPECT_TRUE(c.rc != SBACC_E_PARAM || writes == Calls(SANFWCTL_FAULT_WRITE));
    EXPECT_EQ(c.rc == 0 && c.waited > 0 && c.master == c.own && c.live < 0,
              trace_.CountContaining("lock byte is stale") > stale_traces);
    EXPECT_TRUE(c.rc != 0 || (sbacc_ma_leave_repairlock(sfd_) == 0 && Lock()[static_cast<size_t>(c.own)] == 0));
    EXPECT_EQ(c.beat, sim_.NvEntry(3).lockbeat[c.own & 3]);
    sanfwctl_set_fault(SANFWCTL_FAULT_STATUS, 0, 0);
  }
}

// The set-up leaves the lock (clears this controller's byte, and only that)
// in every area once; the flag only rises, and once up (by either call) the
// set-up is refused without a write.  A bad number fails at the first area
// without a write; with no area nothing refuses it.
TEST_F(NvTest, RepairInitClearsOwnBytesOnceOnly) {
  SetLock({1, 1, 0, 0}, 0);
  SetLock({0, 1, 1, 0}, 3);
  EXPECT_EQ(B_FALSE, sbacc_repair_flag(B_FALSE));
  EXPECT_EQ(0, sbacc_repair_init(1));
  EXPECT_EQ((Bytes{1, 0, 0, 0}), Lock(0));
  EXPECT_EQ((Bytes{0, 0, 1, 0}), Lock(3));
  EXPECT_EQ(B_TRUE, sbacc_repair_flag(B_FALSE));
  long writes = Calls(SANFWCTL_FAULT_WRITE);
  EXPECT_EQ(SBACC_E_NOTALLOWED, sbacc_repair_init(1));
  EXPECT_EQ(writes, Calls(SANFWCTL_FAULT_WRITE));
  EXPECT_EQ(1, trace_.Count("[sbacc_repair_init]   retcode: -101"));
  sbacc_reset_process_state();
  EXPECT_EQ(B_TRUE, sbacc_repair_flag(B_TRUE));
  EXPECT_EQ(SBACC_E_NOTALLOWED, sbacc_repair_init(0));
  sbacc_reset_process_state();
  EXPECT_EQ(SBACC_E_PARAM, sbacc_repair_init(7));
  EXPECT_EQ(B_FALSE, sbacc_repair_flag(B_FALSE));
  sbacc_reset_process_state();
  sim_.SetFilelistText("# no area\n");
  EXPECT_EQ(0, sbacc_repair_init(7));
  EXPECT_EQ(B_TRUE, sbacc_repair_flag(B_FALSE));
  EXPECT_EQ(writes, Calls(SANFWCTL_FAULT_WRITE));
}

}  // namespace
