// Crash consistency: a workload over several areas (the seven paired data
// areas among them), ending in a start-up that has a stale copy to rebuild
// and a write cut between its copies to resync, is cut off at every point;
// after a restart the NV initialisation must succeed, every copy must be
// usable, and every area must hold what it held before or after the call
// that was cut off (the seven, once the start-up's data repair has rewritten
// them, copies that agree).
//
// A power cut: from some write on, every HDD call fails, and from the same
// moment NV memory takes no transfer either.  NV writes count among the
// writes: each is one request that lands whole or not at all, and every one
// is a cut point of every model.  Four models of what reaches the disks,
// each over every point it can cut:
//  - base: writes 1 .. k land, write k+1 does not;
//  - subset: the writes of one parallel round land on any proper subset of
//    the copies (the round in flight everywhere, its flushes not yet back);
//  - torn: a write longer than 512 bytes lands up to one of its 512-byte
//    boundaries;
//  - lost: the power goes as write k is made, and every write not yet
//    flushed is lost.
// After the start-up the copies of every area agree byte for byte.  The HDDs
// are in memory.
#include "testutil.h"

using Contents = std::map<std::string, Bytes>;  // area name to data
using WriteLog = std::vector<FaultEnv::Write>;

namespace {

constexpr uint64_t kSize = 4096;
constexpr uint64_t kHddBytes = 64 * 1024;
constexpr time_t kSetupTime = 1000;
constexpr time_t kRunTime = 2000;  // step i of the workload runs at kRunTime + i

const char* const kAreas[] = {"envfw_backup0", "envfw_backup1", "envfw_sysback", "envfw_sysacpt", "envfw_verid",
                              "envfw_verback", "envfw_reboot",  "plain",         "fresh",        "intent"};
constexpr int kSeven = 7;  // the paired areas come first in kAreas


enum Kind { kOpen, kWrite, kResize, kClose, kStartup };
struct Step {
  std::string area;
  Kind kind;
  int offset;  // a write's position; a resize's new size
  Bytes data;  // a write's bytes
};
Step Write(int offset, Bytes data) { return {"", kWrite, offset, std::move(data)}; }
Step Resize(int size) { return {"", kResize, size, {}}; }

// What a public write or resize does to an area's data.
Bytes Apply(Bytes d, const Step& s) {
  if (s.kind == kResize) d.resize(static_cast<size_t>(s.offset), 0);
  if (s.kind != kWrite) return d;
  d.resize(std::max(d.size(), s.offset + s.data.size()), 0);
  std::copy(s.data.begin(), s.data.end(), d.begin() + s.offset);
  return d;
}

std::vector<Step> Workload() {
  std::vector<Step> w;
  auto session = [&](const std::string& a, std::vector<Step> body) {
    w.push_back({a, kOpen, 0, {}});
    for (const Step& s : body) w.push_back({a, s.kind, s.offset, s.data});
    w.push_back({a, kClose, 0, {}});
  };
  // In place, across the end of the data, with a gap, and a shrink.
  session("envfw_backup0", {Write(20, Pattern(10, 1)), Write(190, Pattern(30, 2)), Write(1500, Pattern(20, 3)),
                            Resize(1000)});
  session("envfw_backup1", {Write(0, Pattern(40, 4)), Resize(400)});
  session("envfw_sysback", {Write(0, Text("envfw_backup1"))});
  session("envfw_sysacpt", {Write(0, Text("envfw_backup0"))});
  session("envfw_verid", {Write(0, {8, 0, 0, 0})});
  session("envfw_verback", {Write(0, {7, 0, 0, 0})});
  session("envfw_reboot", {Write(0, {8, 0, 0, 0})});
  session("plain", {Write(100, Pattern(1100, 5)), Write(2500, Pattern(16, 6)), Resize(300)});
  session("fresh", {Write(0, Pattern(64, 7))});  // first use: the open writes fresh headers
  w.push_back({"", kStartup, 0, {}});
  return w;
}

Contents InitialContents() {
  return {{"envfw_backup0", Pattern(200, 10)}, {"envfw_backup1", Pattern(150, 11)},
          {"envfw_sysback", Text("envfw_backup0")}, {"envfw_sysacpt", Text("envfw_backup1")},
          {"envfw_verid", {7, 0, 0, 0}}, {"envfw_verback", {6, 0, 0, 0}}, {"envfw_reboot", {7, 0, 0, 0}},
          {"plain", Pattern(100, 12)}, {"fresh", {}}, {"intent", Pattern(64, 13)}};
}

// One step of the workload on the handle fp (an open sets it, a failed
// open clears it, and the steps up to the close are then skipped).
void Do(const Step& s, void*& fp) {
  boolean_t clean = B_FALSE;
  if (s.kind == kStartup) (void)sbacc_nv_init(0);
  if (s.kind == kOpen && sbacc_open(s.area.c_str(), "w", &fp, &clean) != 0) fp = nullptr;
  if (fp == nullptr) return;
  if (s.kind == kWrite) sbacc_write(s.data.data(), static_cast<int>(s.data.size()), s.offset, fp);
  if (s.kind == kResize) sbacc_write_size(s.offset, fp);
  if (s.kind == kClose) {
    EXPECT_EQ(0, sbacc_close(std::exchange(fp, nullptr)));
  }
}

enum Model { kBase, kSubset, kTorn, kLost };
const char* const kModels[] = {"base", "subset", "torn", "lost"};
struct Cut {
  long n;  // the writes made before the power goes
  FaultEnv::When when;
  FaultEnv::Landing lands;
};

// Where an area starts; for "" (the start-up) where all of them start.
uint64_t AreaAddr(const std::string& name) {
  return 0x1000 + kSize * static_cast<uint64_t>(name.empty() ? 0 : std::find(kAreas, std::end(kAreas), name) - kAreas);
}

// Runs the workload with the power cut (none if cut.n < 0), each step's
// writes bound to its area.  After a cut the calls go on failing, as in a
// process that has not noticed yet, and every handle is still closed.
// Returns the step cut off, w.size() if none.
size_t RunWorkload(const std::vector<Step>& w, const Cut& c, WriteLog* log = nullptr) {
  FaultEnv env;
  env.PowerCutAfterWrites(c.n, c.when, c.lands);
  void* fp = nullptr;
  size_t cut = w.size();
  for (size_t i = 0; i < w.size(); ++i) {
    env.SetNow(kRunTime + static_cast<time_t>(i));
    env.BoundWrites(AreaAddr(w[i].area), AreaAddr(w[i].area) + kSize * (w[i].area.empty() ? std::size(kAreas) : 1));
    Do(w[i], fp);
    if (cut == w.size() && env.PowerIsCut()) cut = i;
  }
  if (log != nullptr) *log = env.WriteLog();
  return cut;
}

// Every area written, closed and through one start-up: a controller in normal
// service before the workload.  Then copy 0 of "plain" misses a rewrite of
// its data (fenced off, stale), and with the resync on a write of "intent"
// was cut after copy 0's record and copy 1's new bytes: the resync must put
// copy 0's bytes back on copy 1 before it clears the record.  Then an uncut
// run logs every write.
Sim::Images Prepare(int copies, bool resync, const std::vector<Step>& work, WriteLog* log) {
  Sim sim(copies, kHddBytes, true);
  std::vector<sbacc_test::AreaSpec> areas;
  for (const char* a : kAreas) areas.push_back({a, 0x1000 + areas.size() * kSize, kSize, copies});
  sim.SetAreas(areas);
  FaultEnv env;
  env.SetNow(kSetupTime);
  for (const auto& [name, data] : InitialContents()) {
    if (name != "fresh") sbacc_test::Store(name, data);  // "fresh" stays unused till the workload
  }
  EXPECT_EQ(0, sbacc_nv_init(0));
  env.FailOp(FaultEnv::kWrite, sim.HddPath(0), 0, copies > 1 ? -1 : 0, EIO);
  sbacc_test::Store("plain", InitialContents()["plain"]);
  env.ClearRules();
  if (resync) sim.PutData(9, 1, 10, Pattern(20, 98));  // unlike the bytes at 10 of Pattern(64, 13)
  if (resync) sim.EditHeader(9, 0, [](auto& h) { h.writeflag = 1, h.write_offset = 10, h.write_size = 20; });
  sbacc_reset_process_state();
  const Sim::Images start = sim.Save();
  RunWorkload(work, {-1, FaultEnv::kNextWrite, {}}, log);
  sbacc_reset_process_state();
  return start;
}

// The parameter: the number of copies; negative, the start-up's resync off
// (the base model only).
class CrashTest : public ::testing::TestWithParam<int> {
 protected:
  void SetUp() override {
    sbacc_test::QuickFailures();
    sbacc::CrewSetBound(0);  // every task in its caller: the same writes in the same order every run
  }
};

Bytes Content(const Sim& sim, int area, int copy) {
  const int32_t size = std::clamp<int32_t>(sim.Header(area, copy).filesize, 0, static_cast<int32_t>(kSize) - 128);
  return sim.Data(area, copy, static_cast<size_t>(size));
}

bool IsNv(const WriteLog& log, long i) { return i >= 1 && i <= static_cast<long>(log.size()) && log[i - 1].path == FaultEnv::kNv; }

// Every cut of a model, from the uncut run's writes (numbered from 1).
std::vector<Cut> Cuts(Model m, const WriteLog& log) {
  const long total = static_cast<long>(log.size());
  std::vector<Cut> cuts;
  for (long k = m == kLost; m == kBase || m == kLost ? k <= total : false; ++k)
    cuts.push_back({k, m == kLost ? FaultEnv::kLoseUnflushed : FaultEnv::kNextWrite, {}});
  // Torn and subset writes are HDD writes; an NV write is cut before it.
  for (long i = 1; (m == kTorn || m == kSubset) && i <= total; ++i) {
    if (IsNv(log, i)) cuts.push_back({i - 1, FaultEnv::kNextWrite, {}});
  }
  for (long i = 1; m == kTorn && i <= total; ++i) {
    const FaultEnv::Write& w = log[static_cast<size_t>(i - 1)];
    for (uint64_t b = (static_cast<uint64_t>(w.pos) / 512 + 1) * 512; b < w.pos + w.len; b += 512)
      cuts.push_back({i - 1, FaultEnv::kNextWrite, [i, n = b - w.pos](long j, const std::string&, size_t len) {
                        return j < i ? len : n;
                      }});
  }
  // A round: consecutive writes of one position and length, each on another copy.
  for (long first = 1, last; m == kSubset && first <= total; first = last + 1) {
    std::set<std::string> paths{log[static_cast<size_t>(first - 1)].path};
    for (last = first; last < total; ++last) {
      const FaultEnv::Write &w = log[static_cast<size_t>(last)], &f = log[static_cast<size_t>(first - 1)];
      if (w.pos != f.pos || w.len != f.len || !paths.insert(w.path).second) break;
    }
    for (uint32_t sub = 1; last > first && sub + 1 < 1u << (last - first + 1); ++sub)
      cuts.push_back({last, FaultEnv::kNow, [first, sub](long j, const std::string&, size_t len) {
                        return j < first || (sub >> (j - first) & 1u) ? len : 0;
                      }});
  }
  return cuts;
}

TEST_P(CrashTest, EveryCutPointRecovers) {
  const int copies = std::abs(GetParam());
  const bool resync = GetParam() > 0;
  setenv("SBACC_RESTORE_RESYNC", resync ? "1" : "0", 1);
  const std::vector<Step> work = Workload();
  WriteLog log;
  const Sim::Images start = Prepare(copies, resync, work, &log);
  const long total = static_cast<long>(log.size());
  ASSERT_GT(total, 40 * copies);

  // Model: each area's data before every step.
  std::vector<Contents> data(1, InitialContents());
  for (size_t i = 0; i < work.size(); ++i) {
    data.push_back(data[i]);
    data.back()[work[i].area] = Apply(data[i][work[i].area], work[i]);
  }

  for (Model m : {kBase, kSubset, kTorn, kLost}) {
  if (!resync && m != kBase) break;
  const std::vector<Cut> cuts = Cuts(m, log);
  long repaired = 0, points = 0, nv_points = 0, diverged = 0, lost = 0, verified = 0, copies_seen = 0;
  for (const Cut& c : cuts) {
    ++points;
    const long k = c.n;
    nv_points += IsNv(log, m == kLost ? k : k + 1) && !c.lands;
    SCOPED_TRACE(std::string(kModels[m]) + " model: power cut after write " + std::to_string(k) + " of " + std::to_string(total));
    Sim sim(copies, kHddBytes, true);
    sim.Load(start);
    std::map<std::string, int64_t> closed;  // each area's close time before the step cut off
    for (int a = 0; a < static_cast<int>(std::size(kAreas)); ++a) closed[kAreas[a]] = sim.Header(a, copies - 1).closetime;
    const Sim::Held held = sim.HeldNow();
    const size_t cut = RunWorkload(work, c);  // work.size(): none
    for (size_t i = 0; i < cut; ++i) {
      for (auto& [area, t] : closed) {
        if (work[i].kind == kStartup || (work[i].kind == kClose && work[i].area == area)) t = kRunTime + static_cast<int64_t>(i);
      }
    }
    // A close stamps its time before it clears the open flag: a copy that
    // reads as closed and is not fenced off carries the time of its last
    // close (a start-up cut off may or may not have closed it yet).
    for (int a = 0; a < static_cast<int>(std::size(kAreas)); ++a) {
      const bool startup = cut < work.size() && work[cut].kind == kStartup;
      const bool closing = startup || (cut < work.size() && work[cut].kind == kClose && work[cut].area == kAreas[a]);
      for (int c = 0; c < copies; ++c) {
        const SBACC_HDD_HEADER h = sim.Header(a, c);
        const int64_t want = closing ? kRunTime + static_cast<int64_t>(cut) : closed[kAreas[a]];
        EXPECT_TRUE(!sbacc_l_header_valid(&h) || h.openflag != 0 || (sim.NvEntry(a).hddblockade >> c & 1) ||
                    h.closetime == want || (startup && h.closetime == closed[kAreas[a]]))
            << kAreas[a] << " copy " << c << " closed at " << h.closetime;
      }
    }
    // Restart: the same disks, fresh process state, NV answering.
    sbacc_reset_process_state();
    sanfwctl_reset();
    EXPECT_TRUE(held == sim.HeldNow()) << "descriptor or block leaked by the cut-off workload";
    sbacc_test::TraceCapture trace;
    ASSERT_EQ(0, sbacc_nv_init(0)) << trace.Dump();
    unsigned flags = 0, f = 0;
    for (const auto& line : trace.Lines()) {
      if (sscanf(line.text.c_str(), "[sbacc_hdd_restore] [%*[^]]] data repair need. flag[0x%x]", &f) == 1) flags |= f;
    }
    // What each area may hold now: what it held before the step that was
    // cut off, and for that step's area also what the step leaves.
    const std::string victim = cut < work.size() ? work[cut].area : "";
    std::map<std::string, std::set<Bytes>> allowed;
    for (const char* a : kAreas) allowed[a] = {data[cut].at(a)};
    if (!victim.empty()) {  // the start-up changes no area's data
      const Bytes &b = data[cut].at(victim), &after = data[cut + 1].at(victim);
      allowed[victim].insert(after);
      // A write across the end of the data whose bytes landed before its new
      // size did: the old size, with the new bytes in it.
      if (after.size() > b.size()) allowed[victim].insert(Bytes(after.begin(), after.begin() + b.size()));
    }
    // A torn write leaves its range part old, part new: no copy holds the
    // whole of either, and the data has either size.
    auto torn = [&](const Bytes& got) {
      const Bytes &b = data[cut].at(victim), &after = data[cut + 1].at(victim);
      for (size_t i = 0; i < got.size(); ++i) {
        if (!(i < b.size() && got[i] == b[i]) && !(i < after.size() && got[i] == after[i])) return false;
      }
      return m == kTorn && (got.size() == b.size() || got.size() == after.size());
    };
    // Only an area of the seven open at the cut can ask for the data repair,
    // which rewrites the seven from one another (what it writes is checked
    // on its own elsewhere): here its copies need only agree.
    const bool repair = flags != 0;
    if (repair) {
      EXPECT_TRUE(cut < work.size() && (work[cut].kind == kStartup || std::find(kAreas, kAreas + kSeven, victim) < kAreas + kSeven))
          << "data repair for '" << victim << "'";
    }
    bool area_lost = false;
    for (int a = 0; a < static_cast<int>(std::size(kAreas)); ++a) {
      SCOPED_TRACE(kAreas[a]);
      const SBACC_MEM_LIST_ENTRY nv = sim.NvEntry(a);
      // No disk failed: every copy comes back usable, and the start-up's
      // resync leaves the copies of the area cut off byte for byte alike.
      EXPECT_TRUE(sbacc_l_entry_valid(&nv));
      // Without the resync a start-up cut between a rebuild's header and NV
      // unfencing leaves the rebuilt copy's mark, which writes the copy's own
      // bit into its header: the next start-up takes it for an unfinished
      // rebuild and fences it off again (to be rebuilt); only the copies
      // outside `out` need to agree then.
      const uint32_t out = resync ? 0u : nv.hddblockade;
      EXPECT_EQ(0u, resync ? nv.hddblockade : (nv.hddblockade & (nv.hddblockade - 1)));
      EXPECT_EQ(0, nv.hddrepair);
      for (int c = 0; c < copies; ++c) {
        const SBACC_HDD_HEADER h = sim.Header(a, c);
        const bool held = (repair && a < kSeven) || allowed[kAreas[a]].count(Content(sim, a, c)) ||
                          (victim == kAreas[a] && torn(Content(sim, a, c)));
        area_lost |= !held || !sbacc_l_header_valid(&h);
        EXPECT_TRUE(sbacc_l_header_valid(&h)) << "copy " << c;
        // No copy the start-up leaves in use fails its own integrity record
        // (0 false alarms); without the resync a copy cut off from an access
        // rightly fails the record the next write gave every copy.
        const int verdict = sbacc_test::VerifyCopy(kAreas[a], c);
        EXPECT_TRUE(verdict == SBACC_VERIFY_OK || verdict == SBACC_VERIFY_NONE || (!resync && victim == kAreas[a]))
            << "copy " << c << ": " << verdict;
        verified += verdict == SBACC_VERIFY_OK, ++copies_seen;
        EXPECT_EQ(0, h.openflag) << "copy " << c;
        EXPECT_TRUE(held) << "copy " << c << " holds " << Content(sim, a, c).size() << " bytes no allowed state has";
      }
      // The start-up's resync leaves the copies byte for byte alike.  Without
      // it they may differ only in the area cut off, where the cut fell
      // between its copies' writes of one access, and only in that access's
      // bytes; or, after a start-up cut between a rebuild's header and NV
      // unfencing, in the blockade word alone (the mark it left fences the
      // rebuilt copy again).
      const std::string why = sim.Disagreement(a, out);
      if (why.empty()) continue;
      ++diverged;
      EXPECT_FALSE(resync) << why;
      if (victim.empty()) {
        for (int c = 0; c < copies; ++c) sim.EditHeader(a, c, [](auto& h) { h.hddblockade = 0; });
        EXPECT_EQ("", sim.Disagreement(a)) << "beyond the blockade word";
        continue;
      }
      EXPECT_EQ(victim, kAreas[a]) << why;
      // The access cut off: from the same piece on the copy before (an
      // access may write two pieces of a header per copy) to the cut.
      const FaultEnv::Write& w = log[static_cast<size_t>(k)];
      auto same = [&](long i) { return i >= 0 && log[i].pos == w.pos && log[i].len == w.len; };
      const long j = same(k - 1) || (k > 0 && log[k - 1].path == w.path) ? k - 1 : same(k - 2) ? k - 2 : -1;
      ASSERT_TRUE(k > 0 && k < total && j >= 0) << "copies differ, yet the cut split no access";
      const uint64_t at = sim.Areas()[static_cast<size_t>(a)].addr;
      auto inside = [&](uint64_t p) {
        for (long i = j; i <= k; ++i) {
          if (p >= static_cast<uint64_t>(log[i].pos) && p < static_cast<uint64_t>(log[i].pos) + log[i].len) return true;
        }
        return false;
      };
      long outside = 0;
      for (int c = 1; c < copies; ++c) {
        const Bytes x = sim.HddBytes(0, at, kSize), y = sim.HddBytes(c, at, kSize);
        for (uint64_t i = 0; i < kSize; ++i) outside += x[i] != y[i] && !inside(at + i);
      }
      EXPECT_EQ(0, outside) << "bytes differ outside the access cut off";
    }
    repaired += flags != 0;
    lost += area_lost;
    sbacc_reset_process_state();
    if (HasFailure()) return;
  }
  printf("%d copies, resync %s, %s model: %ld cut points explored (%ld at NV writes), %ld with a data repair, "
         "%ld where copies differ, %ld where an area is lost; %ld of %ld copies verified by their records\n",
         copies, resync ? "on" : "off", kModels[m], points, nv_points, repaired, diverged, lost, verified, copies_seen);
  }
}

INSTANTIATE_TEST_SUITE_P(Copies, CrashTest, ::testing::Values(1, 2, 3, -2));

}  // namespace
