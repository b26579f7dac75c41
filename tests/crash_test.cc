// Crash consistency: a workload over several areas (the seven paired data
// areas among them) is cut off after every possible number of HDD writes;
// after a restart the NV initialisation must succeed, every copy must be
// usable, and every area must hold what it held before or after the call
// that was cut off, or what the start-up's data repair makes of that.
//
// A power cut here: write k+1 and everything after it fails on every HDD, and
// from the same moment NV memory takes no transfer either.  Writes of one
// access that were already under way land; no write lands half.
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fault_env.h"
#include "sanfwctl.h"
#include "sbacc.h"
#include "sbacc_alloc.h"
#include "sbacc_core.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"
#include "sim.h"

using sbacc_test::FaultEnv;
using sbacc_test::Pattern;
using sbacc_test::Sim;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr uint64_t kSize = 4096;
constexpr uint64_t kHddBytes = 64 * 1024;
constexpr time_t kSetupTime = 1000;
constexpr time_t kRunTime = 2000;  // step i of the workload runs at kRunTime + i

const char* const kKnown[] = {"envfw_backup0", "envfw_backup1", "envfw_sysback", "envfw_sysacpt",
                              "envfw_verid",   "envfw_verback", "envfw_reboot"};
const char* const kAreas[] = {"envfw_backup0", "envfw_backup1", "envfw_sysback", "envfw_sysacpt", "envfw_verid",
                              "envfw_verback", "envfw_reboot",  "plain",         "fresh"};
constexpr int kAreaCount = 9;
// The data repair's bit for each of the seven, as its start-up trace shows it.
const std::map<std::string, unsigned> kBit = {{"envfw_backup0", 0x1}, {"envfw_backup1", 0x2},
                                              {"envfw_sysback", 0x4}, {"envfw_sysacpt", 0x8},
                                              {"envfw_verid", 0x10},  {"envfw_verback", 0x20},
                                              {"envfw_reboot", 0x800}};

Bytes Text(const char* s) { return Bytes(s, s + strlen(s)); }
Bytes Int(int32_t v) {
  Bytes b(4);
  sbacc_l_put_le32(b.data(), static_cast<uint32_t>(v));
  return b;
}

// ---- The workload and its model --------------------------------------------

enum Kind { kOpen, kWrite, kResize, kClose };
struct Step {
  std::string area;
  Kind kind = kOpen;
  int offset = 0;  // write
  Bytes data;      // write
  int size = 0;    // resize
};
Step Mark(const std::string& area, Kind kind) {
  Step s;
  s.area = area;
  s.kind = kind;
  return s;
}
Step Write(int offset, Bytes data) {
  Step s = Mark("", kWrite);
  s.offset = offset;
  s.data = std::move(data);
  return s;
}
Step Resize(int size) {
  Step s = Mark("", kResize);
  s.size = size;
  return s;
}

// What a public write or resize does to an area's data.
Bytes Apply(Bytes d, const Step& s) {
  if (s.kind == kWrite) {
    if (d.size() < s.offset + s.data.size()) d.resize(s.offset + s.data.size(), 0);
    std::copy(s.data.begin(), s.data.end(), d.begin() + s.offset);
  } else if (s.kind == kResize) {
    d.resize(static_cast<size_t>(s.size), 0);
  }
  return d;
}

std::vector<Step> Workload() {
  std::vector<Step> w;
  auto session = [&](const std::string& a, std::vector<Step> body) {
    w.push_back(Mark(a, kOpen));
    for (Step& s : body) {
      s.area = a;
      w.push_back(s);
    }
    w.push_back(Mark(a, kClose));
  };
  // In place, across the end of the data, with a gap, and a shrink.
  session("envfw_backup0", {Write(20, Pattern(10, 1)),
                            Write(190, Pattern(30, 2)),
                            Write(1500, Pattern(20, 3)),
                            Resize(1000)});
  session("envfw_backup1", {Write(0, Pattern(40, 4)), Resize(400)});
  session("envfw_sysback", {Write(0, Text("envfw_backup1"))});
  session("envfw_sysacpt", {Write(0, Text("envfw_backup0"))});
  session("envfw_verid", {Write(0, Int(8))});
  session("envfw_verback", {Write(0, Int(7))});
  session("envfw_reboot", {Write(0, Int(8))});
  session("plain", {Write(100, Pattern(50, 5)), Write(2500, Pattern(16, 6)), Resize(300)});
  session("fresh", {Write(0, Pattern(64, 7))});  // first use: the open writes fresh headers
  return w;
}

std::map<std::string, Bytes> InitialContents() {
  return {{"envfw_backup0", Pattern(200, 10)}, {"envfw_backup1", Pattern(150, 11)},
          {"envfw_sysback", Text("envfw_backup0")}, {"envfw_sysacpt", Text("envfw_backup1")},
          {"envfw_verid", Int(7)}, {"envfw_verback", Int(6)}, {"envfw_reboot", Int(7)},
          {"plain", Pattern(100, 12)}, {"fresh", {}}};
}

// ---- The data repair of the seven, as a model ------------------------------

// A public write of src at offset 0 on a copy holding `own`, the open having
// read the size from the copy holding `view`: the size is raised (on every
// copy) only past the size read; a copy keeps its own longer tail otherwise.
Bytes WriteAtZero(const Bytes& own, const Bytes& view, const Bytes& src) {
  if (src.size() > view.size()) return src;
  Bytes out = own;
  std::copy(src.begin(), src.begin() + static_cast<long>(std::min(src.size(), out.size())), out.begin());
  return out;
}

// What the start-up makes of the seven, given the content each area's reads
// see (view), the content of the copy in question (own), the areas flagged,
// and the close times of the backup pair.
std::map<std::string, Bytes> DataRepair(const std::map<std::string, Bytes>& view, const std::map<std::string, Bytes>& own,
                                        unsigned flags, int type, time_t close0, time_t close1) {
  std::map<std::string, Bytes> out = own;
  if (type == 0) return out;
  auto clear = [&] {
    out["envfw_verback"].clear();
    return out;
  };
  if ((flags & 0x3) == 0x3 || ((type & 1) && (flags & 0x20)) || ((type & 2) && (flags & 0x10))) return clear();
  const bool from1 = (flags & 0x1) || close1 > close0;
  const std::string src = from1 ? "envfw_backup1" : "envfw_backup0", dst = from1 ? "envfw_backup0" : "envfw_backup1";
  if (view.at(src).empty()) return clear();
  out[dst] = WriteAtZero(own.at(dst), view.at(dst), view.at(src));
  out["envfw_sysback"] = WriteAtZero(own.at("envfw_sysback"), view.at("envfw_sysback"), Text("envfw_backup0"));
  out["envfw_sysacpt"] = WriteAtZero(own.at("envfw_sysacpt"), view.at("envfw_sysacpt"), Text("envfw_backup1"));
  if (type == 1) {
    Bytes vb = view.at("envfw_verback");
    if (vb.empty()) return clear();
    uint8_t word[4] = {0, 0, 0, 0};
    std::copy(vb.begin(), vb.begin() + static_cast<long>(std::min<size_t>(4, vb.size())), word);
    sbacc_l_put_le32(word, sbacc_l_get_le32(word) + 1);
    std::copy(word, word + std::min<size_t>(4, vb.size()), vb.begin());
    out["envfw_verid"] = WriteAtZero(own.at("envfw_verid"), view.at("envfw_verid"), vb);
  } else {
    const Bytes vi = view.at("envfw_verid");
    if (vi.empty()) return clear();
    out["envfw_verback"] = WriteAtZero(own.at("envfw_verback"), view.at("envfw_verback"), vi);
    out["envfw_reboot"] = WriteAtZero(own.at("envfw_reboot"), view.at("envfw_reboot"), vi);
  }
  return out;
}

// ---- Power cut ----------------------------------------------------------------

// Numbers every HDD write; when the power goes, NV memory goes with it.
class CutEnv : public FaultEnv {
 public:
  ssize_t WriteAt(int fd, const void* buf, size_t len, int64_t pos) override {
    const ssize_t n = FaultEnv::WriteAt(fd, buf, len, pos);
    std::lock_guard<std::mutex> lock(mu_);
    writes_.push_back({pos, len});
    if (PowerIsCut() && cut_step_ < 0) {
      cut_step_ = step_;
      sanfwctl_set_fault(SANFWCTL_FAULT_WRITE, sanfwctl_call_count(SANFWCTL_FAULT_WRITE), -1);
      sanfwctl_set_fault(SANFWCTL_FAULT_READ, sanfwctl_call_count(SANFWCTL_FAULT_READ), -1);
    }
    return n;
  }
  void SetStep(int s) {
    std::lock_guard<std::mutex> lock(mu_);
    step_ = s;
  }
  int CutStep() {
    std::lock_guard<std::mutex> lock(mu_);
    return cut_step_;
  }
  // Position and length of every write, in the order they were decided.
  std::vector<std::pair<int64_t, size_t>> Log() {
    std::lock_guard<std::mutex> lock(mu_);
    return writes_;
  }

 private:
  std::mutex mu_;
  int step_ = -1;
  int cut_step_ = -1;
  std::vector<std::pair<int64_t, size_t>> writes_;
};

// Runs the workload; after a cut the calls go on failing, as they would in a
// process that has not noticed yet, and every handle is still closed.
void RunWorkload(CutEnv& env, const std::vector<Step>& w) {
  void* fp = nullptr;
  for (size_t i = 0; i < w.size(); ++i) {
    const Step& s = w[i];
    env.SetStep(static_cast<int>(i));
    env.SetNow(kRunTime + static_cast<time_t>(i));
    switch (s.kind) {
      case kOpen: {
        boolean_t clean = B_FALSE;
        fp = nullptr;
        if (sbacc_open(s.area.c_str(), "w", &fp, &clean) != 0) fp = nullptr;
        break;
      }
      case kWrite:
        if (fp != nullptr) sbacc_write(s.data.data(), static_cast<int>(s.data.size()), s.offset, fp);
        break;
      case kResize:
        if (fp != nullptr) sbacc_write_size(s.size, fp);
        break;
      case kClose:
        if (fp != nullptr) {
          EXPECT_EQ(0, sbacc_close(fp));
        }
        fp = nullptr;
        break;
    }
  }
}

struct Images {
  std::vector<Bytes> hdd;
  Bytes nv;
};

// The sanitizer builds walk every few cut points only: they look for races
// and memory errors, which a sample finds as well, at a fraction of the time.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr long kStride = 4;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
constexpr long kStride = 4;
#else
constexpr long kStride = 1;
#endif
#else
constexpr long kStride = 1;
#endif

// Parameters: number of copies, and which half of the cut points.
class CrashTest : public ::testing::TestWithParam<std::tuple<int, int>> {
 protected:
  void SetUp() override {
    if (getenv("TMPDIR") == nullptr && access("/dev/shm", W_OK) == 0) setenv("TMPDIR", "/dev/shm", 1);
    setenv("SBACC_MEMSET_MAXRETRY", "1", 1);
    setenv("SBACC_MEMGET_MAXRETRY", "1", 1);
    setenv("SBACC_REPAIRLOCK_MAXRETRY", "1", 1);
    setenv("SANFWCTL_MASTER", "0", 1);
  }

  void Configure(Sim& sim, int copies) {
    std::vector<sbacc_test::AreaSpec> list;
    for (int a = 0; a < kAreaCount; ++a) list.push_back({kAreas[a], 0x1000 + a * kSize, kSize, copies});
    sim.SetAreas(list);
  }

  Images Capture(const Sim& sim, int copies) {
    Images im;
    for (int i = 0; i < copies; ++i) im.hdd.push_back(sim.HddBytes(i, 0, kHddBytes));
    im.nv = sim.NvBytes(0, 8192);
    return im;
  }

  // Every area written, closed, and through one start-up: a controller in
  // normal service before the workload.
  Images Prepare(int copies) {
    Sim sim(copies, kHddBytes);
    Configure(sim, copies);
    {
      FaultEnv env;
      env.SetNow(kSetupTime);
      for (const auto& [name, data] : InitialContents()) {
        if (name == "fresh") continue;
        void* fp = nullptr;
        boolean_t clean = B_FALSE;
        EXPECT_EQ(0, sbacc_open(name.c_str(), "w", &fp, &clean));
        EXPECT_EQ(static_cast<int>(data.size()), sbacc_write(data.data(), static_cast<int>(data.size()), 0, fp));
        EXPECT_EQ(0, sbacc_close(fp));
      }
      EXPECT_EQ(0, sbacc_nv_init(0));
    }
    sbacc_reset_process_state();
    return Capture(sim, copies);
  }
};

// The header bytes that the open and close stamp on every copy at start-up
// are left out; everything else is compared.
std::vector<int> DifferingBytes(const Sim& sim, int area, int a, int b) {
  const SBACC_HDD_HEADER ha = sim.Header(area, a), hb = sim.Header(area, b);
  const size_t n = 128 + static_cast<size_t>(std::max({ha.filesize, hb.filesize, 0}));
  const uint64_t base = sim.Areas()[static_cast<size_t>(area)].addr;
  const Bytes x = sim.HddBytes(a, base, n), y = sim.HddBytes(b, base, n);
  std::vector<int> diff;
  for (size_t i = 0; i < n; ++i) {
    if (x[i] != y[i]) diff.push_back(static_cast<int>(i));
  }
  return diff;
}

Bytes Content(const Sim& sim, int area, int copy) {
  const SBACC_HDD_HEADER h = sim.Header(area, copy);
  return sim.Data(area, copy, static_cast<size_t>(std::clamp<int32_t>(h.filesize, 0, static_cast<int32_t>(kSize) - 128)));
}

// The scrub `sbacc verify --repair` performs: every usable copy rewritten
// from the one an open reads (the lowest usable index when the blockade
// words agree), magic first off and last on.
void Scrub(Sim& sim, int area, int copies) {
  const uint64_t base = sim.Areas()[static_cast<size_t>(area)].addr;
  const SBACC_HDD_HEADER ref = sim.Header(area, 0);
  const Bytes raw = sim.HddBytes(0, base, 128 + static_cast<size_t>(std::max(ref.filesize, 0)));
  for (int c = 1; c < copies; ++c) {
    const uint8_t zero[4] = {0, 0, 0, 0};
    sim.PutHddBytes(c, base, zero, 4);
    sim.PutHddBytes(c, base + 4, raw.data() + 4, raw.size() - 4);
    sim.PutHddBytes(c, base, raw.data(), 4);
  }
}

TEST_P(CrashTest, EveryCutPointRecovers) {
  const auto [copies, half] = GetParam();
  const std::vector<Step> work = Workload();
  const Images start = Prepare(copies);

  // The uncut run: how many writes, and which writes form one access (the
  // copies' writes of one access come one after the other, each at the same
  // position and length).
  std::vector<std::pair<int64_t, size_t>> log;
  {
    Sim sim(copies, kHddBytes);
    Configure(sim, copies);
    for (int i = 0; i < copies; ++i) sim.PutHddBytes(i, 0, start.hdd[i].data(), kHddBytes);
    sim.PutNvBytes(0, start.nv.data(), start.nv.size());
    CutEnv env;
    RunWorkload(env, work);
    log = env.Log();
    sbacc_reset_process_state();
  }
  const long total = static_cast<long>(log.size());
  ASSERT_GT(total, 40 * copies);
  const long first = half == 0 ? 0 : total / 2 + 1, last = half == 0 ? total / 2 : total;

  // Model: each area's data before every step.
  std::map<std::string, Bytes> state = InitialContents();
  std::vector<std::map<std::string, Bytes>> before;
  std::map<std::string, time_t> closed = {};
  std::vector<std::map<std::string, time_t>> closed_before;
  for (const char* a : kAreas) closed[a] = kSetupTime;
  for (size_t i = 0; i < work.size(); ++i) {
    before.push_back(state);
    closed_before.push_back(closed);
    state[work[i].area] = Apply(state[work[i].area], work[i]);
    if (work[i].kind == kClose) closed[work[i].area] = kRunTime + static_cast<time_t>(i);
  }
  before.push_back(state);
  closed_before.push_back(closed);

  long diverged = 0, repaired = 0, points = 0;
  for (long k = first; k <= last; k += kStride) {
    ++points;
    SCOPED_TRACE("copies " + std::to_string(copies) + ", power cut after write " + std::to_string(k) + " of " +
                 std::to_string(total));
    Sim sim(copies, kHddBytes);
    Configure(sim, copies);
    for (int i = 0; i < copies; ++i) sim.PutHddBytes(i, 0, start.hdd[i].data(), kHddBytes);
    sim.PutNvBytes(0, start.nv.data(), start.nv.size());
    const int fds = sbacc_test::OpenFdCount();
    const long blocks = sbacc::AllocLiveBlocks();
    int cut = static_cast<int>(work.size());  // the step that was cut off; none at the end
    {
      CutEnv env;
      env.PowerCutAfterWrites(k);
      RunWorkload(env, work);
      if (env.CutStep() >= 0) cut = env.CutStep();
    }
    // Restart: the default environment, fresh process state, NV answering.
    sbacc_reset_process_state();
    sanfwctl_reset();
    EXPECT_EQ(blocks, sbacc::AllocLiveBlocks()) << "block leaked by the cut-off workload";
    EXPECT_EQ(fds, sbacc_test::OpenFdCount()) << "descriptor leaked by the cut-off workload";

    sbacc_test::TraceCapture trace;
    ASSERT_EQ(0, sbacc_nv_init(0)) << trace.Dump();
    unsigned flags = 0;
    int type = 0;
    for (const auto& line : trace.Lines()) {
      unsigned f = 0;
      int t = 0;
      char name[64];
      if (sscanf(line.text.c_str(), "[sbacc_hdd_restore] [%63[^]]] data repair need. flag[0x%x] type[%d]", name, &f,
                 &t) == 3) {
        flags |= f;
        type |= t;
      }
    }

    // The states the call that was cut off may have left, per area.
    const bool in_run = cut < static_cast<int>(work.size());
    const std::string victim = in_run ? work[static_cast<size_t>(cut)].area : "";
    std::map<std::string, std::vector<Bytes>> states;
    for (const char* a : kAreas) states[a] = {before[static_cast<size_t>(cut)].at(a)};
    if (in_run) {
      const Bytes& b = before[static_cast<size_t>(cut)].at(victim);
      const Bytes& after = before[static_cast<size_t>(cut) + 1].at(victim);
      states[victim].push_back(after);
      // A write across the end of the data whose bytes landed before its new
      // size did: the old size, with the new bytes in it.
      if (after.size() > b.size()) states[victim].push_back(Bytes(after.begin(), after.begin() + b.size()));
    }
    // Only an area open at the cut can be flagged for data repair.
    if (flags != 0) {
      ASSERT_TRUE(kBit.count(victim)) << std::hex << flags;
      EXPECT_EQ(kBit.at(victim), flags);
    }

    // What each area may hold now.
    std::map<std::string, std::set<Bytes>> allowed;
    for (const char* a : kAreas) allowed[a].insert(states[a].begin(), states[a].end());
    if (flags != 0) {
      const size_t c = static_cast<size_t>(cut);
      const auto ct0 = {closed_before[c].at("envfw_backup0"), closed_before[c + 1].at("envfw_backup0")};
      const auto ct1 = {closed_before[c].at("envfw_backup1"), closed_before[c + 1].at("envfw_backup1")};
      for (const char* a : kKnown) allowed[a].clear();
      for (const Bytes& v : states[victim]) {
        for (const Bytes& o : states[victim]) {
          std::map<std::string, Bytes> view = before[static_cast<size_t>(cut)], own = view;
          view[victim] = v;
          own[victim] = o;
          for (time_t c0 : ct0) {
            for (time_t c1 : ct1) {
              for (const auto& [a, d] : DataRepair(view, own, flags, type, c0, c1)) {
                if (kBit.count(a)) allowed[a].insert(d);
              }
            }
          }
        }
      }
    }

    // The access that the cut split between the copies, if it split one.
    std::optional<std::pair<int64_t, size_t>> split;
    if (k > 0 && k < total && log[static_cast<size_t>(k)] == log[static_cast<size_t>(k) - 1]) {
      split = log[static_cast<size_t>(k)];
    }

    for (int a = 0; a < kAreaCount; ++a) {
      SCOPED_TRACE(kAreas[a]);
      const SBACC_MEM_LIST_ENTRY nv = sim.NvEntry(a);
      // No disk failed: every copy comes back usable.
      EXPECT_TRUE(sbacc_l_entry_valid(&nv));
      EXPECT_EQ(0u, nv.hddblockade);
      EXPECT_EQ(0, nv.hddrepair);
      for (int c = 0; c < copies; ++c) {
        const SBACC_HDD_HEADER h = sim.Header(a, c);
        EXPECT_TRUE(sbacc_l_header_valid(&h)) << "copy " << c;
        EXPECT_EQ(0, h.openflag) << "copy " << c;
        EXPECT_TRUE(allowed[kAreas[a]].count(Content(sim, a, c)))
            << "copy " << c << " holds " << Content(sim, a, c).size() << " bytes no allowed state has";
      }
      // Copies that disagree after the start-up.  The start-up only rebuilds
      // a copy whose blockade word says it missed writes; a cut that lands
      // between the copies' writes of one access leaves words that agree and
      // bytes that do not, and each copy individually holds a state the call
      // could leave.  The difference is exactly the range of that access,
      // and only the area that was cut off has one.  A scrub ends it.
      bool differ = false;
      for (int c = 1; c < copies; ++c) {
        const std::vector<int> diff = DifferingBytes(sim, a, 0, c);
        if (diff.empty()) continue;
        differ = true;
        EXPECT_EQ(victim, kAreas[a]) << "copies of an area that was not cut off differ";
        ASSERT_TRUE(split.has_value()) << "copies differ, yet the cut split no access";
        const int64_t lo = split->first - static_cast<int64_t>(sim.Areas()[static_cast<size_t>(a)].addr);
        EXPECT_GE(diff.front(), lo);
        EXPECT_LT(diff.back(), lo + static_cast<int64_t>(split->second));
      }
      if (differ) {
        ++diverged;
        Scrub(sim, a, copies);
        for (int c = 1; c < copies; ++c) EXPECT_TRUE(DifferingBytes(sim, a, 0, c).empty()) << "after the scrub";
        EXPECT_TRUE(allowed[kAreas[a]].count(Content(sim, a, 0)));
      }
    }
    repaired += flags != 0;
    sbacc_reset_process_state();
    if (HasFailure()) break;
  }
  RecordProperty("crash_points", static_cast<int>(points));
  printf("%d copies, cut points %ld..%ld of %ld: %ld explored, %ld with a data repair, %ld left to the scrub\n",
         copies, first, last, total, points, repaired, diverged);
}

INSTANTIATE_TEST_SUITE_P(Copies, CrashTest, ::testing::Combine(::testing::Values(1, 2, 3), ::testing::Values(0, 1)),
                         [](const ::testing::TestParamInfo<std::tuple<int, int>>& p) {
                           return std::to_string(std::get<0>(p.param)) + "_copies_part_" +
                                  std::to_string(std::get<1>(p.param));
                         });

// A cut during the start-up itself, while it rebuilds a copy that missed
// writes, and a second start-up after the restart: whatever the first one got
// done, the data written after the copy was fenced off must survive, and the
// copies must agree.  The stale copy is the first or the last one, and the
// area was closed after the copy was fenced or the controller stopped with
// the area still open (so both copies carry the same close time).
TEST_F(CrashTest, CutWhileTheStartupRebuildsAStaleCopy) {
  long points = 0;
  for (int copies : {2, 3}) {
    for (int stale : {0, copies - 1}) {
      for (bool closed : {true, false}) {
        const std::string variant = std::to_string(copies) + " copies, stale copy " + std::to_string(stale) +
                                    (closed ? ", closed after the fence" : ", left open");
        const Bytes old_data = Pattern(3000, 20), new_data = Pattern(3000, 21);
        Images start;
        {
          Sim sim(copies, kHddBytes);
          sim.SetAreas({{"area", 0x1000, kSize, copies}});
          FaultEnv env;
          env.SetNow(kSetupTime);
          void* fp = nullptr;
          boolean_t clean = B_FALSE;
          ASSERT_EQ(0, sbacc_open("area", "w", &fp, &clean));
          ASSERT_EQ(3000, sbacc_write(old_data.data(), 3000, 0, fp));
          ASSERT_EQ(0, sbacc_close(fp));
          env.SetNow(kSetupTime + 10);
          ASSERT_EQ(0, sbacc_open("area", "w", &fp, &clean));
          env.FailOp(FaultEnv::kWrite, sim.HddPath(stale), 0, -1, EIO);
          ASSERT_EQ(3000, sbacc_write(new_data.data(), 3000, 0, fp));
          env.ClearRules();
          if (closed) {
            env.SetNow(kSetupTime + 20);
            ASSERT_EQ(0, sbacc_close(fp));
          } else {
            // The controller stops: the handle is never closed.
            auto* sfd = static_cast<SBACC_FILE_DISCRIPTER*>(fp);
            for (int& fd : sfd->fd) {
              if (fd != -1) close(fd);
              fd = -1;
            }
            sbacc_ma_free_sfd(sfd);
          }
          ASSERT_EQ(1u << stale, sim.NvEntry(0).hddblockade);
          start = Capture(sim, copies);
          sbacc_reset_process_state();
        }
        long total = 0;
        {
          Sim sim(copies, kHddBytes);
          sim.SetAreas({{"area", 0x1000, kSize, copies}});
          for (int i = 0; i < copies; ++i) sim.PutHddBytes(i, 0, start.hdd[i].data(), kHddBytes);
          sim.PutNvBytes(0, start.nv.data(), start.nv.size());
          CutEnv env;
          ASSERT_EQ(0, sbacc_nv_init(0));
          total = env.Writes();
          sbacc_reset_process_state();
        }
        for (long k = 0; k <= total; ++k) {
          SCOPED_TRACE(variant + ", power cut after write " + std::to_string(k) + " of " + std::to_string(total) +
                       " of the start-up");
          ++points;
          Sim sim(copies, kHddBytes);
          sim.SetAreas({{"area", 0x1000, kSize, copies}});
          for (int i = 0; i < copies; ++i) sim.PutHddBytes(i, 0, start.hdd[i].data(), kHddBytes);
          sim.PutNvBytes(0, start.nv.data(), start.nv.size());
          {
            CutEnv env;
            env.PowerCutAfterWrites(k);
            (void)sbacc_nv_init(0);
          }
          sbacc_reset_process_state();
          sanfwctl_reset();
          ASSERT_EQ(0, sbacc_nv_init(0));
          const uint32_t usable = ((1u << copies) - 1) & ~sim.NvEntry(0).hddblockade;
          EXPECT_NE(0u, usable);
          for (int c = 0; c < copies; ++c) {
            if ((usable >> c & 1u) == 0) continue;
            EXPECT_EQ(new_data, Content(sim, 0, c)) << "copy " << c << (c == stale ? " (the stale one)" : "");
          }
          sbacc_reset_process_state();
          if (HasFailure()) return;
        }
      }
    }
  }
  RecordProperty("crash_points", static_cast<int>(points));
  printf("%ld cut points in the start-up rebuild\n", points);
}

}  // namespace
