// sbacc init / sbacc restore: the library's start-up, refused on a live
// controller, and a per-area account of what it did.
//
// The library keeps no per-area verdicts once the start-up returns (its
// data-repair records live for the call only), so the account comes from
// reading every area before and after the call: NV entry, each copy's header
// and a digest of its data.  The copies a start-up rebuilds are found with the
// same latest-copy rule the start-up applies to the headers read before it.
#include <fcntl.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "health.h"
#include "sbacc_l.h"
#include "sbacc_tool_iface.h"
#include "tool.h"

namespace sbacc_tool {

namespace {

constexpr int kChunk = 64 * 1024;

struct CopySnap {
  bool readable = false;  // header read
  bool valid = false;
  bool blank = false;     // never initialised: 128 zero bytes
  SBACC_HDD_HEADER hdr = {};
  uint64_t digest = 0;    // size and data up to it
};

struct AreaSnap {
  bool nv_valid = false;
  uint32_t nv_blockade = 0;
  std::vector<CopySnap> copies;
  int source = -1;        // the copy the start-up takes as latest
  uint32_t stale = 0;     // the copies it rebuilds from the source
  int hold = SBACC_HOLD_NONE;  // nonzero: the start-up leaves the area as it is
};

uint64_t Digest(SBACC_FILE_DISCRIPTER* sfd, int j, const SBACC_HDD_HEADER& h, int64_t capacity) {
  uint64_t d = 1469598103934665603ull;
  auto mix = [&d](const uint8_t* p, size_t n) {
    for (size_t i = 0; i < n; ++i) d = (d ^ p[i]) * 1099511628211ull;
  };
  const int64_t n = std::clamp<int64_t>(h.filesize, 0, capacity);
  mix(reinterpret_cast<const uint8_t*>(&n), sizeof n);
  std::vector<uint8_t> buf(kChunk);
  for (int64_t off = 0; off < n; off += kChunk) {
    const int len = static_cast<int>(std::min<int64_t>(kChunk, n - off));
    if (sbacc_l_hddget_data(sfd, j, static_cast<int>(off), buf.data(), len) != 0) return 0;
    mix(buf.data(), static_cast<size_t>(len));
  }
  return d;
}

// accept_loss: the copies that cannot be read are written off.
AreaSnap Snapshot(const SBACC_FILE_LIST_ENTRY& e, bool accept_loss = false) {
  AreaProbe p(e, O_RDONLY);
  AreaSnap s;
  s.nv_valid = p.nv_valid;
  s.nv_blockade = p.nv_valid ? p.nv.hddblockade : 0;
  for (const CopyProbe& c : p.copies) {
    CopySnap cs;
    cs.readable = c.header_read;
    cs.valid = c.header_valid;
    cs.hdr = c.hdr;
    cs.blank = c.header_read && std::all_of(c.raw, c.raw + SBACC_HEADER_SIZE, [](uint8_t b) { return b == 0; });
    if (cs.valid) cs.digest = Digest(p.sfd(), c.index, c.hdr, Capacity(e));
    s.copies.push_back(cs);
  }
  // The start-up's own choice: the library's latest-copy rule, the one its
  // open and restore apply.
  const SBACC_COPY_VERDICT v = LibraryVerdict(p, accept_loss);
  s.hold = v.hold;
  s.source = v.src;
  s.stale = v.stale;
  return s;
}

// The content a reader of the area gets after the start-up: the digest of a
// copy that is not fenced off.
uint64_t Content(const AreaSnap& s) {
  for (size_t i = 0; i < s.copies.size(); ++i) {
    if (s.copies[i].valid && (!s.nv_valid || (s.nv_blockade & (1u << i)) == 0)) return s.copies[i].digest;
  }
  return 0;
}

// The library's position of a paired area, or -1.
int PairedIndex(const char* name) {
  for (int i = 0; sbacc_known_area(i) != nullptr; ++i) {
    if (strcmp(sbacc_known_area(i), name) == 0) return i;
  }
  return -1;
}

// Where the start-up's data repair takes each paired area from, by its
// position in the library's table.
std::string RepairSource(int i) {
  auto k = [](int j) { return std::string(sbacc_known_area(j)); };
  switch (i) {
    case 0: return "copied from " + k(1);
    case 1: return "copied from " + k(0);
    case 2:
    case 3: return "marker rewritten";
    case 4: return "set to " + k(5) + " + 1";
    default: return "copied from " + k(4);
  }
}

std::string Holders(const std::vector<FileUser>& users) {
  std::string files;
  std::vector<int> pids;
  for (const FileUser& u : users) {
    if (files.find(u.path) == std::string::npos) files += (files.empty() ? "" : ", ") + u.path;
    if (std::find(pids.begin(), pids.end(), u.pid) == pids.end()) pids.push_back(u.pid);
  }
  return DescribeUsers(users) + (pids.size() == 1 ? " holds " : " hold ") + files + " open";
}

enum class StartupVerdict { kClean, kNew, kRebuilt, kFenced, kRepaired, kLost, kNoCopy };

const char* VerdictName(StartupVerdict v) {
  switch (v) {
    case StartupVerdict::kClean: return "clean";
    case StartupVerdict::kNew: return "new";
    case StartupVerdict::kRebuilt: return "rebuilt";
    case StartupVerdict::kFenced: return "fenced";
    case StartupVerdict::kRepaired: return "repaired";
    case StartupVerdict::kLost: return "lost";
    case StartupVerdict::kNoCopy: return "no usable copy";
  }
  return "?";
}

struct Outcome {
  StartupVerdict verdict = StartupVerdict::kClean;
  std::vector<std::string> events;
  std::vector<int> rebuilt, fenced;
  bool loss = false;
};

std::string CopyWord(const std::vector<int>& v) {
  std::string out = v.size() == 1 ? "copy " : "copies ";
  for (size_t i = 0; i < v.size(); ++i) out += (i ? ", " : "") + std::to_string(v[i]);
  return out;
}

// Why the start-up leaves an area as it is, for the engineer.
const char* HoldText(int hold) {
  switch (hold) {
    case SBACC_HOLD_UNSEEN:
      return "left as it is: no readable copy holds a valid header while a copy that may hold its data cannot be "
             "read; bring that disk back";
    case SBACC_HOLD_FENCED_SOURCE:
      return "left as it is: the only candidate is a copy NV fences off while a current copy cannot be read; bring "
             "that disk back";
    case SBACC_HOLD_UNVERIFIED:
      return "left as it is: the latest copy fails its integrity record and no copy that proves its data holds the "
             "same; see 'sbacc verify'";
    default:
      return "left as it is: a copy the start-up would rebuild counts more writes than its source; see 'sbacc verify'";
  }
}

Outcome Judge(size_t index, const std::vector<SBACC_FILE_LIST_ENTRY>& areas, const std::vector<AreaSnap>& before,
              const std::vector<AreaSnap>& after) {
  const AreaSnap& b = before[index];
  const AreaSnap& a = after[index];
  Outcome o;
  if (b.hold != SBACC_HOLD_NONE) {
    o.verdict = StartupVerdict::kNoCopy;
    o.loss = true;
    o.events.push_back(HoldText(b.hold));
    return o;
  }
  const bool any_valid = std::any_of(b.copies.begin(), b.copies.end(), [](const CopySnap& c) { return c.valid; });
  const bool all_blank = std::all_of(b.copies.begin(), b.copies.end(),
                                     [](const CopySnap& c) { return !c.readable || c.blank; });
  for (size_t j = 0; j < a.copies.size(); ++j) {
    const bool fenced_after = !a.copies[j].valid || (a.nv_valid && (a.nv_blockade & (1u << j)) != 0);
    if (fenced_after) {
      o.fenced.push_back(static_cast<int>(j));
      const char* why = !b.copies[j].readable ? "cannot be read" : "could not be rebuilt";
      o.events.push_back("copy " + std::to_string(j) + " fenced off (" + why + ")");
    } else if (any_valid && (b.stale & (1u << j)) != 0) {
      o.rebuilt.push_back(static_cast<int>(j));
    }
  }
  if (o.fenced.size() == a.copies.size()) {
    o.verdict = StartupVerdict::kNoCopy;
    o.loss = true;
    o.events.push_back("every copy is fenced off: the area cannot be read until a disk comes back");
    return o;
  }
  if (!any_valid) {
    // Blank copies of an area NV knew: the disks were replaced, not new.
    if (all_blank && !b.nv_valid) {
      o.verdict = StartupVerdict::kNew;
      o.events.push_back("new area, created empty");
    } else {
      o.verdict = StartupVerdict::kLost;
      o.loss = true;
      o.events.push_back(all_blank ? "RE-CREATED EMPTY: every copy is blank (disks replaced?) but NV knew the area, "
                                     "its data is lost"
                                   : "RE-CREATED EMPTY: no copy held a valid header, its data is lost");
    }
    return o;
  }
  if (!o.rebuilt.empty()) {
    o.verdict = StartupVerdict::kRebuilt;
    o.events.insert(o.events.begin(), "stale " + CopyWord(o.rebuilt) + " rebuilt from copy " + std::to_string(b.source));
  }
  if (!o.fenced.empty()) o.verdict = StartupVerdict::kFenced;
  if (b.copies[static_cast<size_t>(b.source)].hdr.openflag != 0) {
    o.events.push_back("was left open by a writer that never closed");
  }
  const char* name = areas[index].filename;
  const uint64_t was = b.copies[static_cast<size_t>(b.source)].digest, now = Content(a);
  const int paired = PairedIndex(name);
  if (paired >= 0 && was != now) {
    const bool emptied = std::all_of(a.copies.begin(), a.copies.end(),
                                     [](const CopySnap& c) { return !c.valid || c.hdr.filesize == 0; });
    o.verdict = StartupVerdict::kRepaired;
    if (emptied) {
      o.events.push_back("data cleared: the paired areas could not be repaired consistently");
    } else {
      o.events.push_back("data repaired: " + RepairSource(paired));
    }
  }
  return o;
}

// What the start-up would leave, by the library's latest-copy rule: copies
// that cannot be read fenced off, every other copy current (the stale ones
// rebuilt from the source).  The data repair of the paired areas is not
// foreseen: it depends on what the repairs find.
AreaSnap Predict(const AreaSnap& b) {
  AreaSnap a = b;
  if (b.hold != SBACC_HOLD_NONE) return a;
  a.nv_valid = true;
  a.nv_blockade = 0;
  // Every copy read ends valid: rebuilt from the source, or, with none,
  // started afresh.
  for (size_t j = 0; j < a.copies.size(); ++j) {
    a.copies[j].valid = b.copies[j].readable;
    if (!b.copies[j].readable) a.nv_blockade |= 1u << j;
  }
  return a;
}

void Print(int index, const char* name, const Outcome& o) {
  printf("%3d  %-31s %s", index, name, VerdictName(o.verdict));
  for (size_t i = 0; i < o.events.size(); ++i) printf("%s%s", i == 0 ? ": " : "; ", o.events[i].c_str());
  printf("\n");
}

// What accepting the loss of AREA's unreadable copies gives up, told before
// anything is written; refused (a usage error) unless the start-up holds the
// area for want of those copies.
void TellLoss(const SBACC_FILE_LIST_ENTRY& e, FILE* to) {
  AreaProbe p(e, O_RDONLY);
  const std::string name = e.filename;
  const int hold = LibraryVerdict(p, false).hold;
  if (hold == SBACC_HOLD_NONE) {
    throw UsageError(name + " is not held: nothing to accept; a plain 'sbacc restore' repairs it");
  }
  if (hold == SBACC_HOLD_UNVERIFIED || hold == SBACC_HOLD_NEWER_STALE) {
    throw UsageError(name + " is held by its integrity records, not for an unseen disk; "
                            "see 'sbacc verify --repair --from COPY " + name + "'");
  }
  const SBACC_COPY_VERDICT v = LibraryVerdict(p, true);
  fprintf(to, "accepting the loss in %s:\n", name.c_str());
  for (const CopyProbe& c : p.copies) {
    std::string what;
    if (!c.header_read) {
      what = "unseen (" + (c.error.empty() ? std::string("cannot be read") : c.error) +
             "): whatever disk " + std::to_string(c.index) + " holds of it is lost";
    } else if (!c.header_valid) {
      what = "no valid header: its data is lost";
    } else {
      what = std::to_string(c.hdr.filesize) + " bytes, closed " + LocalTime(c.hdr.closetime) +
             (c.index == v.src ? ": taken as the source, what was written after that is lost"
                               : ": stale, rebuilt from copy " + std::to_string(v.src));
    }
    fprintf(to, "  copy %d (%s): %s\n", c.index, c.path.c_str(), what.c_str());
  }
  if (v.src < 0) fprintf(to, "  no copy read holds a valid header: %s is re-created empty\n", name.c_str());
  fflush(to);
}

}  // namespace

int CmdStartup(bool nv_init, int given_controller, bool force, bool json, bool dry_run,
               const std::string& accept_loss) {
  const auto& areas = Areas();
  const int controller = ControllerNumber(given_controller, !dry_run);
  const char* what = nv_init ? "init" : "restore";
  const std::vector<FileUser> users = dry_run ? std::vector<FileUser>() : OtherUsers(ControllerFiles());
  if (!users.empty()) {
    if (!force) {
      throw std::runtime_error("refused: " + Holders(users) +
                               "; a start-up on a live controller rewrites what its writers write. "
                               "Stop them first, or use --force.");
    }
    fprintf(stderr, "sbacc %s: going on with --force although %s\n", what, Holders(users).c_str());
  }

  WarnAreaList();
  if (!accept_loss.empty()) TellLoss(FindArea(accept_loss), json ? stderr : stdout);
  std::vector<AreaSnap> before, after;
  for (const SBACC_FILE_LIST_ENTRY& e : areas) before.push_back(Snapshot(e, accept_loss == e.filename));
  int rc = 0;
  if (dry_run) {
    for (const AreaSnap& b : before) after.push_back(Predict(b));
  } else {
    const auto call = [&] {
      if (!accept_loss.empty()) return sbacc_accept_loss(accept_loss.c_str(), controller);
      return nv_init ? sbacc_nv_init(controller) : sbacc_hdd_restore(controller);
    };
    rc = json ? call() : WithTicker(nv_init ? "start-up restore and NV initialisation" : "start-up restore", call);
    for (const SBACC_FILE_LIST_ENTRY& e : areas) after.push_back(Snapshot(e));
  }

  nlohmann::json out = {{"version", kJsonVersion},
                        {"controller", controller >= 0 ? nlohmann::json(controller) : nlohmann::json(nullptr)},
                        {"call", nv_init ? "sbacc_nv_init" : "sbacc_hdd_restore"},
                        {"dry_run", dry_run},
                        {"error", rc == 0 ? nlohmann::json(nullptr)
                                          : nlohmann::json({{"code", rc}, {"name", sbacc_code_name(rc)},
                                                            {"text", sbacc_code_text(rc)}})},
                        {"areas", nlohmann::json::array()}};
  int clean = 0, lost = 0, status = kExitOk;
  for (size_t i = 0; i < areas.size(); ++i) {
    const Outcome o = Judge(i, areas, before, after);
    clean += o.verdict == StartupVerdict::kClean || o.verdict == StartupVerdict::kNew;
    lost += o.loss;
    // What the start-up leaves behind: data gone, or fewer usable copies.
    status = Graver(status, o.loss ? kExitUnavailable : o.fenced.empty() ? kExitOk : kExitDegraded);
    out["areas"].push_back({{"index", i},
                            {"name", areas[i].filename},
                            {"verdict", VerdictName(o.verdict)},
                            {"events", o.events},
                            {"rebuilt", o.rebuilt},
                            {"fenced", o.fenced},
                            {"data_lost", o.loss}});
    if (!json) Print(static_cast<int>(i), areas[i].filename, o);
  }
  const size_t n = areas.size();
  std::string summary = std::string(what) + (dry_run ? " (dry run, nothing written)" : "") + ": " +
                        std::to_string(n) + " area" + (n == 1 ? "" : "s") +
                        (controller >= 0 ? " as controller " + std::to_string(controller) : std::string()) + ", " + std::to_string(clean) +
                        " clean, " + std::to_string(static_cast<int>(n) - clean - lost) + " repaired or degraded, " +
                        std::to_string(lost) + " without data";
  if (rc != 0) status = kExitError;
  summary += std::string(": ") + ExitName(status);
  out["summary"] = summary;
  PutStatus(out, status);
  if (json) {
    printf("%s\n", out.dump(2).c_str());
  } else {
    printf("%s\n", summary.c_str());
  }
  fflush(stdout);
  if (rc != 0) throw LibError(nv_init ? "sbacc_nv_init" : "sbacc_hdd_restore", rc);
  return status;
}

}  // namespace sbacc_tool
