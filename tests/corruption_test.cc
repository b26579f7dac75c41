// Bytes changed underneath the library, the way failing disks change them
// (no I/O error, just wrong bytes), on one copy of 2 or 3: reads return the
// data of a copy that proves it, and the start-up rebuilds the bad copy from
// a good one, never the other way round.
#include "testutil.h"

namespace {

using sbacc_test::AreaSpec;
using sbacc_test::Store;

constexpr uint64_t kSize = 4096;
const char* const kNames[] = {"envfw_backup0", "envfw_backup1", "envfw_sysback", "envfw_sysacpt",
                              "envfw_verid",   "envfw_verback", "envfw_reboot",  "a",   "b"};
constexpr int kA = 7, kB = 8, kBackup1 = 1;

struct Case {
  const char* name;
  int area;
  std::function<void(Sim&, int copy, int copies, const Bytes& before)> rot;  // before: the copy at v1
  bool two = false;  // the rot damages two copies
};
const Case kCases[] = {
    {"data_byte", kA, [](Sim& s, int c, int, const Bytes&) { s.PutData(kA, c, 500, {static_cast<uint8_t>(s.Data(kA, c, 501)[500] ^ 1)}); }},
    {"lost_write", kA, [](Sim& s, int c, int, const Bytes&) { s.PutData(kA, c, 0, Pattern(1000, 1)); }},
    {"other_area", kA, [](Sim& s, int c, int, const Bytes&) { s.PutData(kA, c, 0, s.Data(kB, c, 1000)); }},
    {"lowered_size", kA, [](Sim& s, int c, int, const Bytes&) { s.EditHeader(kA, c, [](auto& h) { h.filesize = 500; }); }},
    {"flip_under_intent", kA,
     [](Sim& s, int c, int n, const Bytes&) {
       for (int i = 0; i < n; ++i) s.EditHeader(kA, i, [](auto& h) { h.writeflag = 1, h.write_offset = 400, h.write_size = 200; });
       s.PutData(kA, c, 450, {0xee});
     }},
    // Every write of the last session lost but the close stamp: an older
    // generation under the same close time.
    {"lost_session", kA,
     [](Sim& s, int c, int, const Bytes& before) {
       const int64_t closed = s.Header(kA, c).closetime;
       s.PutHddBytes(c, 0x1000 + kSize * kA, before.data(), before.size());
       s.EditHeader(kA, c, [&](auto& h) { h.closetime = closed; });
     }},
    // Copies written before records existed: no checksum, not corruption; the start-up adopts them.
    {"no_record", kA, [](Sim& s, int, int n, const Bytes&) { for (int i = 0; i < n; ++i) s.EditHeader(kA, i, [](auto& h) { memset(h.rfu5, 0, 36); }); }},
    {"two_copies", kA, [](Sim& s, int c, int n, const Bytes&) { s.PutData(kA, c, 500, {1}), s.PutData(kA, (c + 1) % n, 600, {1}); }, true},
    {"rotted_backup", kBackup1, [](Sim& s, int c, int, const Bytes&) { s.PutData(kBackup1, c, 3, {'?'}); }},
};

class Corruption : public ::testing::TestWithParam<std::tuple<int, int, int>> {};

TEST_P(Corruption, ReadsAndStartUpUseOnlyCopiesThatProveTheirData) {
  const auto [index, copies, bad] = GetParam();
  const Case& c = kCases[index];
  Sim sim(copies, 64 * 1024);
  std::vector<AreaSpec> areas;
  for (const char* n : kNames) areas.push_back({n, 0x1000 + kSize * areas.size(), kSize, copies});
  sim.SetAreas(areas);
  const Bytes want = c.area == kA ? Pattern(1000, 2) : Pattern(150, 5);
  for (int a = 0; a < static_cast<int>(std::size(kNames)); ++a) Store(kNames[a], a == kA ? Pattern(1000, 1) : Pattern(150, 5));
  ASSERT_EQ(0, sbacc_nv_init(0));
  const Bytes before = sim.HddBytes(bad, 0x1000 + kSize * kA, 128 + 1000);
  Store(kNames[kA], want);
  Store(kNames[kB], Pattern(1000, 3));
  // envfw_backup0 left open: the start-up's data repair copies backup1 over it.
  sim.EditHeader(0, 0, [](auto& h) { h.openflag = 1; });
  c.rot(sim, bad, copies, before);
  sbacc_reset_process_state();

  sbacc_test::TraceCapture trace;
  void* fp = sbacc_test::OpenArea(kNames[c.area], "r");
  Bytes got(want.size());
  const int n = sbacc_read(got.data(), static_cast<int>(got.size()), 0, fp);
  EXPECT_EQ(0, sbacc_close(fp));
  got.resize(n < 0 ? 0 : static_cast<size_t>(n));
  EXPECT_EQ(Bytes(want.begin(), want.begin() + static_cast<long>(got.size())), got) << "a read returned bytes that fail";
  if (c.two && copies == 2) {  // no copy proves its data: none is served, none is spread
    EXPECT_EQ(SBACC_E_HDDREAD, n);
    EXPECT_EQ(0, sbacc_nv_init(0));
    for (int i = 0; i < copies; ++i) EXPECT_EQ(SBACC_VERIFY_BAD, sbacc_test::VerifyCopy(kNames[kA], i)) << i;
    return;
  }
  EXPECT_EQ(0, sbacc_nv_init(0)) << trace.Dump();
  for (int a : {c.area, 0}) {
    const Bytes& held = a == kA ? want : Pattern(150, 5);
    for (int i = 0; i < copies; ++i) {
      EXPECT_EQ(SBACC_VERIFY_OK, sbacc_test::VerifyCopy(kNames[a], i)) << kNames[a] << " copy " << i;
      EXPECT_EQ(held, sim.Data(a, i, held.size())) << kNames[a] << " copy " << i;
      EXPECT_EQ(static_cast<int>(held.size()), sim.Header(a, i).filesize) << kNames[a] << " copy " << i;
    }
  }
}

std::string CaseName(const ::testing::TestParamInfo<std::tuple<int, int, int>>& p) {
  const auto [i, copies, bad] = p.param;
  return std::string(kCases[i].name) + "_" + std::to_string(copies) + "copies_bad" + std::to_string(bad);
}
INSTANTIATE_TEST_SUITE_P(Matrix, Corruption,
                         ::testing::Combine(::testing::Range(0, static_cast<int>(std::size(kCases))),
                                            ::testing::Values(2, 3), ::testing::Values(0, 1)),
                         CaseName);

}  // namespace
