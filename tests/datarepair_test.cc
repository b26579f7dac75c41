// Data repair of the seven paired areas at start-up, checked on the bytes each
// area holds afterwards.
#include "testutil.h"

namespace {

enum { kB0, kB1, kSysback, kSysacpt, kVerid, kVerback, kReboot, kAreas };
const char* const kNames[kAreas] = {"envfw_backup0", "envfw_backup1", "envfw_sysback", "envfw_sysacpt",
                                    "envfw_verid",   "envfw_verback", "envfw_reboot"};
constexpr uint64_t kSize = 1024;

// `now` written from offset 0 over `old`: a write never shortens an area.
Bytes Overlay(Bytes old, const Bytes& now) {
  if (old.size() < now.size()) old.resize(now.size());
  std::copy(now.begin(), now.end(), old.begin());
  return old;
}

// Version areas hold native (little-endian here) ints.
const Bytes kVeridBytes = {0x07, 0x0C, 0x0B, 0x0A};  // 0x0A0B0C07
const Bytes kVerback6 = {0x05, 0x03, 0x02, 0x01, 0xAA, 0xBB};  // 0x01020305, then 2 more bytes
const Bytes kRebootBytes = {0x03, 0, 0, 0};

// The areas flagged were left open at the stop; the start-up then rewrites
// one backup from the other (dir), puts the markers back, and brings the
// version areas in line (ver), or refuses and empties verback.
TEST(DataRepairTest, LeavesTheSetConsistent) {
  Sim sim(1);
  std::vector<sbacc_test::AreaSpec> specs;
  for (int a = 0; a < kAreas; ++a) specs.push_back({kNames[a], kSize * a, kSize, 1});
  sim.SetAreas(specs);
  // Area a holds `data` in its one copy, closed at `closetime` or left open.
  auto put = [&](int a, const Bytes& data, bool open, int64_t closetime) {
    sim.PutNvEntry(a, sbacc_test::ValidEntry(kNames[a], 1));
    SBACC_HDD_HEADER h = sbacc_test::ValidHeader(kNames[a], kSize, static_cast<int32_t>(data.size()));
    h.openflag = open ? 1 : 0, h.closetime = closetime;
    sim.PutCopy(a, 0, h, data);
  };
  const long blocks = sbacc::AllocLiveBlocks();
  const Bytes kPlus1 = {0x06, 0x03, 0x02, 0x01};
  const struct {
    const char* name;
    unsigned flagged;  // bit per area (kB0 ...)
    int64_t close0, close1;
    size_t b0_len, b1_len, verback_len;
    int dir;   // +1 backup1 over backup0, -1 backup0 over backup1, 0 no copy
    char ver;  // 'I' verid = verback + 1, 'B' verback and reboot = verid, 'C' verback emptied
    Bytes verid_after;  // for 'I'
  } kCases[] = {
      {"none flagged", 0, 100, 200, 120, 120, 4, 0, 0, {}},
      {"backup1 flagged, closed later", 1 << kB1, 100, 200, 120, 120, 4, +1, 'I', kPlus1},
      {"backup1 flagged, tie keeps backup0", 1 << kB1, 100, 100, 120, 120, 4, -1, 'I', kPlus1},
      {"reboot flagged", 1 << kReboot, 1000, 1010, 120, 120, 4, +1, 'B', {}},
      {"sysback flagged, backup0 later", 1 << kSysback, 200, 100, 120, 120, 4, -1, 'B', {}},
      {"backup0 and a marker", 1 << kB0 | 1 << kSysacpt, 100, 100, 120, 120, 4, +1, 'B', {}},
      {"both backups refused", 1 << kB0 | 1 << kB1, 100, 200, 120, 120, 4, 0, 'C', {}},
      {"backup0 and verid: verid rewritten", 1 << kB0 | 1 << kVerid, 100, 200, 120, 120, 4, +1, 'I', kPlus1},
      {"verid and verback refused", 1 << kVerid | 1 << kVerback, 100, 200, 120, 120, 4, 0, 'C', {}},
      {"verid with a marker refused", 1 << kVerid | 1 << kSysback, 100, 200, 120, 120, 4, 0, 'C', {}},
      {"verback with a backup refused", 1 << kB0 | 1 << kVerback, 100, 200, 120, 120, 4, 0, 'C', {}},
      {"empty source", 1 << kB0, 100, 200, 120, 0, 4, 0, 'C', {}},
      {"empty verback", 1 << kB0, 100, 200, 120, 120, 0, +1, 'C', {}},
      {"version of two bytes", 1 << kB0, 100, 200, 120, 120, 2, +1, 'I', {0x06, 0x03}},
      {"version of six bytes", 1 << kB0, 100, 200, 120, 120, 6, +1, 'I', {0x06, 0x03, 0x02, 0x01, 0xAA, 0xBB}}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    sim.RecreateHdd(0);
    Bytes before[kAreas] = {sbacc_test::Pattern(c.b0_len, 1), sbacc_test::Pattern(c.b1_len, 2), {}, {}, kVeridBytes,
                            Bytes(kVerback6.begin(), kVerback6.begin() + c.verback_len), kRebootBytes};
    for (int a = 0; a < kAreas; ++a) {
      put(a, before[a], (c.flagged >> a & 1) != 0, a == kB0 ? c.close0 : a == kB1 ? c.close1 : 50);
    }
    EXPECT_EQ(0, sbacc_hdd_restore(0));
    Bytes want[kAreas];
    std::copy(before, before + kAreas, want);
    if (c.dir > 0) want[kB0] = Overlay(before[kB0], before[kB1]);
    if (c.dir < 0) want[kB1] = Overlay(before[kB1], before[kB0]);
    if (c.dir != 0) {
      want[kSysback] = Text("envfw_backup0");  // 13 bytes, no NUL
      want[kSysacpt] = Text("envfw_backup1");
    }
    if (c.ver == 'I') want[kVerid] = Overlay(before[kVerid], c.verid_after);
    if (c.ver == 'B') {
      want[kVerback] = Overlay(before[kVerback], kVeridBytes);
      want[kReboot] = Overlay(before[kReboot], kVeridBytes);
    }
    if (c.ver == 'C') want[kVerback].clear();
    for (int a = 0; a < kAreas; ++a) {
      EXPECT_EQ(want[a], sim.Data(a, 0, std::max(sim.Header(a, 0).filesize, 0))) << kNames[a];
    }
    sbacc_reset_process_state();
    EXPECT_EQ(blocks, sbacc::AllocLiveBlocks());
  }
}

}  // namespace
