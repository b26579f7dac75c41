// Start-up and reads never mix or lose data: copies left differing by a cut
// write agree after the start-up, a read-mode handle reads the copy its open
// chose, a rebuild stays inside its area, and a start-up that could not take
// the repair lock leaves the headers as it found them.
#include "testutil.h"

namespace {

constexpr uint64_t kAddr = 0x1000, kSize = 4096;
constexpr int kLen = 3000;

enum Run { kStartup, kRead, kRestore };
struct Case {
  const char* name;
  int copies;
  std::function<void(Sim&)> poke;  // after every copy holds Pattern(kLen, 1), closed cleanly
  Run run;
  int rc;
  bool agree;  // the copies must agree afterwards
  int seed;   // kRead: the read returns Pattern(100, seed)
  uint32_t failing = 0;  // kRead: copies whose reads fail once the open is done
};


// A cut between the copies' writes of one access: copy 0 has the intent
// record and the new bytes, copy 1 the old bytes.
void CutWrite(Sim& s) {
  s.PutData(0, 1, 100, Pattern(50, 9));
  s.EditHeader(0, 0, [](auto& h) { h.writeflag = 1, h.write_offset = 100, h.write_size = 50; });
}

// Copy 0 holds other bytes under a header that is not valid.
void InvalidCopy0(Sim& s) {
  s.PutData(0, 0, 0, Pattern(kLen, 3));
  s.EditHeader(0, 0, [](auto& h) { h.magic[0] = 'X', memset(h.rfu5, 0, sizeof h.rfu5); });  // and no record
}

// Copy 1 stale, holding bytes of its own; copy 0's size is `size`.
template <int32_t size>
void StaleBehind(Sim& s) {
  s.EditHeader(0, 0, [](auto& h) { h.filesize = size, h.hddblockade = 0x2; });
  s.PutData(0, 1, 0, Pattern(kLen, 4));
}

const Case kCases[] = {
    {"resync_intent", 2, CutWrite, kStartup, 0, 1, 0},
    // A cut between the copies' size writes; a record that names no range.
    {"resync_size", 3,
     [](Sim& s) {
       s.EditHeader(0, 2, [](auto& h) { h.filesize = 2000; });
       s.PutData(0, 2, 2500, Pattern(100, 9));
       s.EditHeader(0, 1, [](auto& h) { h.writeflag = 7, h.write_offset = -5; });
     },
     kStartup, 0, 1, 0},
    // Copy 1's header records copy 2 fenced off: the open chooses copy 1.
    {"read_follows_choice", 3,
     [](Sim& s) {
       s.PutData(0, 1, 0, Pattern(kLen, 2));
       s.EditHeader(0, 1, [](auto& h) { h.hddblockade = 0x4, memset(h.rfu5, 0, sizeof h.rfu5); });  // data of its own
     },
     kRead, 100, 0, 2},
    // Copies 1 to 3 accepted, 1 and 3 failing their reads: the read goes to
    // copy 2, never to the rejected copy 0.
    {"read_tries_every_accepted_copy", 4, InvalidCopy0, kRead, 100, 0, 1, 0xa},
    // Copy 1 is stale and copy 0's size impossible: the rebuild must not
    // write into whatever lies behind the area, and must copy the capacity.
    {"rebuild_size_6000", 2, StaleBehind<6000>, kRestore, 0, 1, 0},
    // Left open, and controller 1, the master, holds the repair lock; this
    // controller may not clear its byte, so the lock is not had within the
    // wait.
    {"lock_refused_keeps_headers", 2,
     [](Sim& s) {
       for (int c = 0; c < 2; ++c) s.EditHeader(0, c, [](auto& h) { h.openflag = 1; });
       s.EditNvEntry(0, [](auto& e) { e.hddrepairlock_cntno[1] = 1; });
     },
     kRestore, SBACC_E_REPAIR, 0, 0},
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

// Area "a" holding Pattern(kLen, 1) on every copy, closed cleanly, then poked.
void Prepare(Sim& sim, const Case& c) {
  setenv("SBACC_REPAIRLOCK_WAIT", "1", 1);
  setenv("SANFWCTL_MASTER", "1", 1);
  if (c.run == kRestore) setenv("SBACC_RESTORE_RESYNC", "0", 1);  // the rebuild alone must make the copies agree
  sim.SetAreas({{"a", kAddr, kSize, c.copies}});
  sbacc_test::Store("a", Pattern(kLen, 1));
  c.poke(sim);
  sbacc_reset_process_state();
}

class Consistency : public ::testing::TestWithParam<Case> {};

TEST_P(Consistency, Reproduction) {
  const Case& c = GetParam();
  Sim sim(c.copies, 64 * 1024);
  FaultEnv env;
  env.SetNow(1000);
  ASSERT_NO_FATAL_FAILURE(Prepare(sim, c));
  std::vector<Bytes> before;
  for (int i = 0; i < c.copies; ++i) before.push_back(sim.HddBytes(i, kAddr, 128));

  sbacc_test::TraceCapture trace;
  env.BoundWrites(kAddr, kAddr + kSize);
  Bytes got(100);
  void* fp = nullptr;
  boolean_t clean = B_FALSE;
  if (c.run == kRead) {
    ASSERT_EQ(0, sbacc_open("a", "r", &fp, &clean)) << trace.Dump();
    for (int i = 0; i < c.copies; ++i) {
      if (c.failing >> i & 1u) env.FailOp(FaultEnv::kRead, sim.HddPath(i), 0, -1, EIO);
    }
    EXPECT_EQ(c.rc, sbacc_read(got.data(), 100, 0, fp));
    EXPECT_EQ(0, sbacc_close(fp));
    EXPECT_EQ(Pattern(100, c.seed), got);
  } else {
    EXPECT_EQ(c.rc, c.run == kStartup ? sbacc_nv_init(0) : sbacc_hdd_restore(0)) << trace.Dump();
  }
  // One trace line per area resynced, with the range.
  EXPECT_EQ(c.run == kStartup, trace.CountContaining("] resync a range ") == 1);
  // Copies agree on the data and on everything the header says about it, and
  // no write-intent record is left.
  const bool agree = sim.Header(0, 0).writeflag == 0 && sim.Disagreement(0, 0, false).empty();
  EXPECT_TRUE(!c.agree || agree);
  for (int i = 0; i < c.copies && c.rc == SBACC_E_REPAIR; ++i) {
    EXPECT_EQ(before[i], sim.HddBytes(i, kAddr, 128)) << "header of copy " << i;
  }
}

INSTANTIATE_TEST_SUITE_P(Cases, Consistency, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<Case>& p) { return std::string(p.param.name); });

}  // namespace
