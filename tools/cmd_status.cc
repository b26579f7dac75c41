// sbacc ls / sbacc status: what is configured, and what NV and the copies
// hold right now.
#include <fcntl.h>
#include <stdio.h>

#include <algorithm>
#include <utility>

#include <nlohmann/json.hpp>

#include "health.h"
#include "scrub.h"
#include "sbacc_l.h"
#include "sbacc_tool_iface.h"
#include "tool.h"

namespace sbacc_tool {

namespace {

// Why the parser passed over a line, or nullptr for a line that is no problem.
const char* IgnoredWhy(SBACC_LINE_FATE fate) {
  switch (fate) {
    case SBACC_LINE_TOO_LONG: return "longer than 1022 characters";
    case SBACC_LINE_NO_NAME: return "no area name";
    case SBACC_LINE_FEW_FIELDS: return "fewer than 4 fields (name, address, size, HDD paths)";
    case SBACC_LINE_BAD_ADDRESS: return "an address the library refuses (hexadecimal digits only, no 0x)";
    case SBACC_LINE_BAD_SIZE: return "a size the library refuses (decimal digits only)";
    case SBACC_LINE_NO_PATH: return "no HDD path";
    case SBACC_LINE_ACCEPTED:
    case SBACC_LINE_COMMENT:
    case SBACC_LINE_BLANK: return nullptr;
  }
  return nullptr;
}

void NoteIgnored(void* arg, int line, const char* name, SBACC_LINE_FATE fate) {
  const char* why = IgnoredWhy(fate);
  if (why == nullptr) return;
  const std::string what = name != nullptr ? "'" + std::string(name) + "' " : std::string();
  static_cast<std::vector<std::string>*>(arg)->push_back("line " + std::to_string(line) + ": " + what + "ignored: " + why);
}

}  // namespace

std::vector<std::string> AreaListProblems() {
  const auto& areas = Areas();
  // The parser itself tells what it made of each line.
  std::vector<std::string> out;
  if (sbacc_l_walk_filelist(NoteIgnored, &out) != 0) return {std::string("cannot read ") + sbacc_l_filelist_path()};
  // The NV record follows the lookup's count of earlier named lines, ignored
  // ones included, while the list position counts only accepted lines.
  for (size_t i = 0; i < areas.size(); ++i) {
    SBACC_FILE_LIST_ENTRY e;
    if (sbacc_l_get_filelist_entry(areas[i].filename, &e) != 0) continue;
    if (e.index != static_cast<int>(i)) {
      out.push_back(std::string("area '") + areas[i].filename + "' (#" + std::to_string(i) + ") uses NV record " +
                    std::to_string(e.index) + (e.index > static_cast<int>(i) ? ", shifted by an ignored line above it"
                                                                               : ", the record of an earlier line of the same name"));
    }
  }
  return out;
}

void WarnAreaList() {
  const auto problems = AreaListProblems();
  if (!problems.empty()) {
    fprintf(stderr, "sbacc: warning: the area list %s has %zu problem%s (see 'sbacc ls --check')\n",
            sbacc_l_filelist_path(), problems.size(), problems.size() == 1 ? "" : "s");
  }
}

int CmdLs(bool check) {
  const auto& areas = Areas();
  std::vector<std::vector<std::string>> rows{{"#", "AREA", "ADDRESS", "SIZE", "CAPACITY", "COPIES"}};
  for (size_t i = 0; i < areas.size(); ++i) {
    const SBACC_FILE_LIST_ENTRY& e = areas[i];
    char addr[32];
    snprintf(addr, sizeof addr, "0x%08llx", static_cast<unsigned long long>(e.areaaddr));
    rows.push_back({std::to_string(i), e.filename, addr, std::to_string(e.areasize), std::to_string(Capacity(e)),
                    std::to_string(e.hddcount)});
  }
  std::vector<size_t> width(rows.front().size(), 0);
  for (const auto& r : rows) {
    for (size_t k = 0; k < r.size(); ++k) width[k] = std::max(width[k], r[k].size());
  }
  for (size_t i = 0; i < rows.size(); ++i) {
    const auto& r = rows[i];
    printf("%*s  %-*s %*s %*s %*s %s\n", static_cast<int>(width[0]), r[0].c_str(), static_cast<int>(width[1]),
           r[1].c_str(), static_cast<int>(width[2]), r[2].c_str(), static_cast<int>(width[3]), r[3].c_str(),
           static_cast<int>(width[4]), r[4].c_str(), r[5].c_str());
    if (i == 0) continue;
    const SBACC_FILE_LIST_ENTRY& e = areas[i - 1];
    for (int j = 0; j < e.hddcount && j < SBACC_HDD_MAX; ++j) {
      printf("%*s %d: %s\n", static_cast<int>(width[0]) + 2, "", j, e.hddname[j]);
    }
  }
  if (!check) return kExitOk;
  const auto problems = AreaListProblems();
  printf("\ncheck of %s: ", sbacc_l_filelist_path());
  if (problems.empty()) {
    printf("every line is used, and every area's NV record is its list position\n");
    return kExitOk;
  }
  printf("%zu problem%s\n", problems.size(), problems.size() == 1 ? "" : "s");
  for (const std::string& p : problems) printf("  %s\n", p.c_str());
  return kExitUnavailable;
}

namespace {

nlohmann::json CodeJson(int code) {
  return {{"code", code}, {"name", sbacc_code_name(code)}, {"text", sbacc_code_text(code)}};
}

// "0x6 (copies 1, 2)"; "0x0" alone when no copy is named.
std::string Mask(unsigned mask) {
  char buf[16];
  snprintf(buf, sizeof buf, "0x%x", mask);
  std::string out = buf, list;
  int n = 0;
  for (int j = 0; j < 32; ++j) {
    if ((mask & (1u << j)) == 0) continue;
    list += (n++ ? ", " : "") + std::to_string(j);
  }
  if (n > 0) out += std::string(n == 1 ? " (copy " : " (copies ") + list + ")";
  return out;
}

nlohmann::json TimeJson(int64_t t) { return t == 0 ? nlohmann::json(nullptr) : nlohmann::json(LocalTime(t)); }

// The --json shape (version 2), one object per area, keys always present
// (null when the value could not be read):
// {"version": 2, "status": n, "status_name": s, "ok": bool,
//  "last_scrub": null | {"version": n, "time": n, "controller": n | null, "area_list": s, "nv_image": s,
//                        "areas": {NAME: {"time": n, "result": s}}} | {"error": s},
//  "areas": [{
//    "index": n, "name": s, "address": n, "size": n, "capacity": n,
//    "verdict": "ok" | "degraded" | "no usable copy" | "NV not initialised" | "NV unreadable",
//    "status": n, "usable": n, "flags": [{"text": s, "problem": bool, "status": n}],
//    "nv": {"readable": bool, "error": {code,name,text} | null, "valid": bool,
//           "hddcount": n, "hddblockade": n, "latesthdd": n, "hddrepair": n,
//           "write_on_repair": n, "repairlock": [n, n, n, n]},
//    "copies": [{"copy": n, "path": s,
//                "state": "healthy" | "fenced off" | "under repair" | "missing" | "blank" | "bad header",
//                "error": s | null,
//                "integrity": "verified" | "none" | "bad" | "unknown" | null,
//                "header": null | {"valid": bool, "filesize": n, "hddblockade": n,
//                   "openflag": n, "opencnt": n,
//                   "opentime": n, "opentime_local": s | null,
//                   "closetime": n, "closetime_local": s | null,
//                   "write": {"flag": n, "offset": n, "size": n}}}]}]}
// Times are seconds since the epoch; the _local forms are local dates.
// "integrity" is the copy's data against its integrity record: "none" when no
// record applies (written before records), "unknown" when a write was in
// flight or the data could not be read, null when not checked (a copy not
// usable, or SBACC_CHECKSUM=0).
// After the areas: "disks": [{"path": s, "copy": n, "areas": n, "fenced": n,
// "missing": n, "blank": n, "bad_header": n, "failing": n}], "action": s, "summary": s.
nlohmann::json NvJson(const AreaProbe& p) {
  nlohmann::json nv = {{"readable", p.nv_rc == 0},
                       {"error", p.nv_rc == 0 ? nlohmann::json(nullptr) : CodeJson(p.nv_rc)},
                       {"valid", p.nv_valid}};
  if (p.nv_rc == 0) {
    nv["hddcount"] = p.nv.hddcount;
    nv["hddblockade"] = p.nv.hddblockade;
    nv["latesthdd"] = p.nv.latesthdd;
    nv["hddrepair"] = p.nv.hddrepair;
    nv["write_on_repair"] = p.nv.write_on_repair;
    nv["repairlock"] = {p.nv.hddrepairlock_cntno[0], p.nv.hddrepairlock_cntno[1], p.nv.hddrepairlock_cntno[2],
                        p.nv.hddrepairlock_cntno[3]};
  } else {
    for (const char* k : {"hddcount", "hddblockade", "latesthdd", "hddrepair", "write_on_repair", "repairlock"})
      nv[k] = nullptr;
  }
  return nv;
}

nlohmann::json IntegrityJson(Integrity i) {
  switch (i) {
    case Integrity::kNotChecked: return nullptr;
    case Integrity::kNone: return "none";
    case Integrity::kVerified: return "verified";
    case Integrity::kBad: return "bad";
    case Integrity::kUnknown: return "unknown";
  }
  return nullptr;
}

nlohmann::json AreaJson(const AreaProbe& p, const AreaHealth& h) {
  nlohmann::json flags = nlohmann::json::array();
  for (const Flag& f : h.flags) flags.push_back({{"text", f.text}, {"problem", f.status != kExitOk}, {"status", f.status}});
  nlohmann::json copies = nlohmann::json::array();
  for (const CopyProbe& c : p.copies) {
    nlohmann::json header = nullptr;
    if (c.header_read) {
      const SBACC_HDD_HEADER& hd = c.hdr;
      header = {{"valid", c.header_valid},
                {"filesize", hd.filesize},
                {"hddblockade", hd.hddblockade},
                {"openflag", hd.openflag},
                {"opencnt", hd.opencnt},
                {"opentime", hd.opentime},
                {"opentime_local", TimeJson(hd.opentime)},
                {"closetime", hd.closetime},
                {"closetime_local", TimeJson(hd.closetime)},
                {"write", {{"flag", hd.writeflag}, {"offset", hd.write_offset}, {"size", hd.write_size}}}};
    }
    copies.push_back({{"copy", c.index},
                      {"path", c.path},
                      {"state", StateName(c.state)},
                      {"error", c.error.empty() ? nlohmann::json(nullptr) : nlohmann::json(c.error)},
                      {"integrity", IntegrityJson(c.integrity)},
                      {"header", header}});
  }
  const SBACC_FILE_LIST_ENTRY& e = p.entry();
  return {{"index", h.index},        {"name", e.filename},          {"address", e.areaaddr},
          {"size", e.areasize},      {"capacity", Capacity(e)},     {"verdict", VerdictName(h.verdict)},
          {"status", h.status},      {"usable", p.usable_count()},  {"flags", flags},
          {"nv", NvJson(p)},         {"copies", copies}};
}

std::string AreaTitle(const AreaProbe& p, const AreaHealth& h) {
  const SBACC_FILE_LIST_ENTRY& e = p.entry();
  char buf[160];
  snprintf(buf, sizeof buf, " (#%d, %llu bytes at 0x%llx): %s, %d of %zu copies usable", h.index,
           static_cast<unsigned long long>(e.areasize), static_cast<unsigned long long>(e.areaaddr),
           VerdictName(h.verdict), p.usable_count(), p.copies.size());
  const auto failing = std::count_if(p.copies.begin(), p.copies.end(),
                                     [](const CopyProbe& c) { return c.integrity == Integrity::kBad; });
  const std::string fails = failing == 0 ? "" : ", " + std::to_string(failing) + " failing its integrity record";
  return e.filename + std::string(buf) + fails;
}

void PrintCopies(const AreaProbe& p) {
  // Columns as wide as their widest value, so large sizes and counts keep
  // the table straight.
  std::vector<std::vector<std::string>> rows{
      {"#", "state", "hdr", "integrity", "filesize", "opn", "cnt", "opened", "closed"}};
  for (const CopyProbe& c : p.copies) {
    if (c.header_read) {
      const SBACC_HDD_HEADER& h = c.hdr;
      const std::string open = h.openflag == 0 ? "no" : (h.openflag == 1 ? "yes" : std::to_string(h.openflag));
      rows.push_back({std::to_string(c.index), StateName(c.state), c.header_valid ? "ok" : "bad",
                      IntegrityName(c.integrity), std::to_string(h.filesize), open, std::to_string(h.opencnt),
                      LocalTime(h.opentime), LocalTime(h.closetime)});
    } else {
      rows.push_back({std::to_string(c.index), StateName(c.state), "-", "-", "-", "-", "-", "-", "-"});
    }
  }
  std::vector<size_t> width(rows.front().size(), 0);
  for (const auto& r : rows) {
    for (size_t k = 0; k < r.size(); ++k) width[k] = std::max(width[k], r[k].size());
  }
  for (size_t i = 0; i < rows.size(); ++i) {
    const auto& r = rows[i];
    std::string line = " ";
    for (size_t k = 0; k < r.size(); ++k) {
      const bool right = k == 4 || k == 6;  // numbers
      const std::string pad(width[k] - r[k].size(), ' ');
      line += " " + (right ? pad + r[k] : (k + 1 == r.size() ? r[k] : r[k] + pad));
    }
    printf("%s\n", line.c_str());
    if (i == 0) continue;
    const CopyProbe& c = p.copies[i - 1];
    std::string note;
    if (c.header_read && c.hdr.writeflag != 0) {
      note = "  write pending: " + std::to_string(c.hdr.write_size) + " bytes at " + std::to_string(c.hdr.write_offset);
    } else if (!c.error.empty()) {
      note = "  (" + c.error + ")";
    }
    printf("    %s%s\n", c.path.c_str(), note.c_str());
  }
}

void PrintArea(const AreaProbe& p, const AreaHealth& h) {
  printf("%s\n", AreaTitle(p, h).c_str());
  for (const Flag& f : h.flags) printf("  %s %s\n", f.status != kExitOk ? "!" : "-", f.text.c_str());
  if (p.nv_rc != 0) {
    printf("  NV unreadable: %s\n", CodeString(p.nv_rc).c_str());
  } else if (!p.nv_valid) {
    printf("  NV not initialised\n");
  } else {
    printf("  NV valid  hddcount %d  blockade %s  latest %s  repair %s  locks %u %u %u %u\n", p.nv.hddcount,
           Mask(p.nv.hddblockade).c_str(), Mask(p.nv.latesthdd).c_str(), Mask(p.nv.hddrepair).c_str(),
           p.nv.hddrepairlock_cntno[0], p.nv.hddrepairlock_cntno[1], p.nv.hddrepairlock_cntno[2],
           p.nv.hddrepairlock_cntno[3]);
  }
  PrintCopies(p);
}

// The problem lines of an area alone: its title, its problems and the copies
// that are not usable.
void PrintProblems(const AreaProbe& p, const AreaHealth& h) {
  printf("%s\n", AreaTitle(p, h).c_str());
  for (const Flag& f : h.flags) {
    if (f.status != kExitOk) printf("  ! %s\n", f.text.c_str());
  }
  if (p.nv_rc != 0) printf("  ! NV unreadable: %s\n", CodeString(p.nv_rc).c_str());
  for (const CopyProbe& c : p.copies) {
    if (!c.usable()) printf("  ! copy %d %s: %s\n", c.index, StateName(c.state), c.path.c_str());
  }
}

// One HDD file across the areas shown.
struct Disk {
  std::string path;
  int copy = 0;  // its copy number in the first area that names it
  int areas = 0, fenced = 0, missing = 0, blank = 0, bad = 0, failing = 0;
  int problems() const { return fenced + missing + blank + bad + failing; }
};

void Count(std::vector<Disk>* disks, const AreaProbe& p) {
  for (const CopyProbe& c : p.copies) {
    auto it = std::find_if(disks->begin(), disks->end(), [&](const Disk& d) { return d.path == c.path; });
    if (it == disks->end()) {
      disks->push_back(Disk{c.path, c.index});
      it = disks->end() - 1;
    }
    ++it->areas;
    it->fenced += c.state == CopyState::kFenced || c.state == CopyState::kRepair;
    it->missing += c.state == CopyState::kMissing;
    it->blank += c.state == CopyState::kBlank;
    it->bad += c.state == CopyState::kBadHeader;
    it->failing += c.integrity == Integrity::kBad;
  }
}

std::string DiskLine(const Disk& d) {
  std::string out = "disk " + std::to_string(d.copy) + " (" + d.path + "): in " + std::to_string(d.areas) + " area" +
                    (d.areas == 1 ? "" : "s");
  if (d.problems() == 0) return out + ", healthy in all";
  for (const auto& [n, what] : {std::pair<int, const char*>{d.fenced, "fenced off"}, {d.missing, "missing"},
                                {d.blank, "blank"}, {d.bad, "with a bad header"},
                                {d.failing, "failing its integrity record"}}) {
    if (n > 0) out += ", " + std::string(what) + " in " + std::to_string(n);
  }
  return out;
}

// What the areas shown add up to, for the action line.
struct Totals {
  int ok = 0, not_init = 0, left_open = 0, no_copy = 0;
  std::vector<std::string> mismatch, unscrubbed;
  std::vector<std::pair<int, std::string>> failing;  // copy, area
  // By the library's verdict: areas the start-up holds for an unseen disk
  // (disk path, area), and disks whose loss would leave an area no intact
  // copy elsewhere.
  std::vector<std::pair<std::string, std::string>> held;
  std::vector<std::string> keep;
};

// "bring disk N back first" when an area's only copy may be on it.
std::string BringBack(const std::vector<Disk>& disks, const Totals& t) {
  for (const Disk& d : disks) {
    std::string areas, first;
    for (const auto& [path, area] : t.held) {
      if (path != d.path) continue;
      areas += (areas.empty() ? "" : ", ") + area;
      if (first.empty()) first = area;
    }
    if (areas.empty()) continue;
    return "bring disk " + std::to_string(d.copy) + " back first: it may hold the only copy of " + areas +
           "; then run 'sbacc restore' (only if it is gone for good: 'sbacc restore --accept-loss " + first + "')";
  }
  return std::string();
}

// The one thing to do first.
std::string Action(const std::vector<Disk>& disks, const Totals& t) {
  if (std::string back = BringBack(disks, t); !back.empty()) return back;
  for (const Disk& d : disks) {
    const int gone = d.fenced + d.missing + d.bad;
    const bool keep = std::find(t.keep.begin(), t.keep.end(), d.path) != t.keep.end();
    if (gone > 0 && gone == d.areas && !keep) {
      return "disk " + std::to_string(d.copy) + " " + (d.missing == d.areas ? "missing" : "fenced off") + " in " +
             std::to_string(gone) + " of " + std::to_string(d.areas) + " areas: replace it, then run 'sbacc restore'";
    }
  }
  if (t.no_copy > 0) {
    return std::to_string(t.no_copy) + " area(s) without a usable copy: bring the disks back before anything else";
  }
  for (const Disk& d : disks) {
    if (d.fenced + d.missing + d.bad > 0) {
      return "disk " + std::to_string(d.copy) + " has failed copies in " + std::to_string(d.fenced + d.missing + d.bad) +
             " of " + std::to_string(d.areas) + " areas: check it, then run 'sbacc restore' to rebuild them";
    }
  }
  if (t.not_init > 0) return "NV not initialised: run 'sbacc init'";
  if (!t.mismatch.empty()) {
    return "the last scrub found copies that differ in " + t.mismatch.front() +
           (t.mismatch.size() > 1 ? " and " + std::to_string(t.mismatch.size() - 1) + " more" : "") +
           ": run 'sbacc verify --repair " + t.mismatch.front() + "'";
  }
  if (!t.failing.empty()) {
    const auto& [copy, area] = t.failing.front();
    return "copy " + std::to_string(copy) + " of " + area + " fails its integrity record" +
           (t.failing.size() > 1 ? " (and " + std::to_string(t.failing.size() - 1) + " more)" : "") +
           ": run 'sbacc verify --repair " + area + "'";
  }
  for (const Disk& d : disks) {
    if (d.blank > 0) return "blank copies on disk " + std::to_string(d.copy) + ": run 'sbacc restore' to fill them";
  }
  if (t.left_open > 0) return "areas left open by a writer that died: run 'sbacc restore'";
  if (!t.unscrubbed.empty()) {
    std::string names;
    for (const std::string& n : t.unscrubbed) names += " " + n;
    return "the last scrub left " + std::to_string(t.unscrubbed.size()) + " area(s) unverified: run 'sbacc verify" +
           names + "'";
  }
  return "none";
}

// Which disks the area needs back, by the start-up's own verdict on its
// copies: a copy not usable here is lost safely only while an intact copy
// on another disk is the one the start-up takes.
void Weigh(const AreaProbe& p, Totals* t) {
  const SBACC_COPY_VERDICT v = LibraryVerdict(p, false);
  const bool held = v.hold == SBACC_HOLD_UNSEEN || v.hold == SBACC_HOLD_FENCED_SOURCE;
  const bool intact = v.hold == SBACC_HOLD_NONE && v.src >= 0 && p.copies[static_cast<size_t>(v.src)].usable();
  for (const CopyProbe& c : p.copies) {
    if (held && !c.header_read) t->held.push_back({c.path, p.entry().filename});
    if (!c.usable() && (!intact || c.index == v.src)) t->keep.push_back(c.path);
  }
}

void AddUp(const AreaProbe& p, const AreaHealth& h, Totals* t) {
  Weigh(p, t);
  t->ok += h.status == kExitOk;
  const bool nv_bad = h.verdict == Verdict::kNvUninit || h.verdict == Verdict::kNvUnreadable;
  t->not_init += nv_bad || h.never_started;
  t->no_copy += h.verdict == Verdict::kNoCopy && !h.never_started;
  t->left_open += h.left_open;
  for (const CopyProbe& c : p.copies) {
    if (c.integrity == Integrity::kBad) t->failing.push_back({c.index, p.entry().filename});
  }
  for (const Condition& c : h.conditions) {
    if (c.kind == "scrub-mismatch") t->mismatch.push_back(p.entry().filename);
    if (c.kind == "scrub-incomplete") t->unscrubbed.push_back(p.entry().filename);
  }
}

}  // namespace

int CmdStatus(const std::vector<std::string>& names, bool json, bool problems_only) {
  const auto selected = SelectAreas(names);
  CheckNvImage("status");
  WarnAreaList();
  const auto& all = Areas();
  const nlohmann::json scrub = LastScrub();
  nlohmann::json out = {{"version", kJsonVersion}, {"areas", nlohmann::json::array()}};
  std::vector<Disk> disks;
  Totals t;
  int status = kExitOk, shown = 0;
  for (const SBACC_FILE_LIST_ENTRY* e : selected) {
    AreaProbe probe(*e, O_RDONLY);
    // Reads every copy's data: slower on large areas, but a copy that rotted
    // shows before a reader meets it.
    probe.CheckIntegrity();
    const AreaHealth h = Assess(static_cast<int>(e - all.data()), probe, scrub);
    status = Graver(status, h.status);
    AddUp(probe, h, &t);
    Count(&disks, probe);
    if (problems_only && h.status == kExitOk) continue;
    if (json) {
      out["areas"].push_back(AreaJson(probe, h));
    } else {
      if (shown > 0 && !problems_only) printf("\n");
      problems_only ? PrintProblems(probe, h) : PrintArea(probe, h);
    }
    ++shown;
  }
  const std::string action = Action(disks, t);
  const int n = static_cast<int>(selected.size());
  const std::string summary = "status: " + std::to_string(n) + " area" + (n == 1 ? "" : "s") + ", " +
                              std::to_string(t.ok) + " ok, " + std::to_string(n - t.ok) + " with problems, " +
                              std::to_string(disks.size()) + " disk" + (disks.size() == 1 ? "" : "s") + ": " +
                              ExitName(status);
  if (json) {
    out["disks"] = nlohmann::json::array();
    for (const Disk& d : disks) {
      out["disks"].push_back({{"path", d.path}, {"copy", d.copy}, {"areas", d.areas}, {"fenced", d.fenced},
                              {"missing", d.missing}, {"blank", d.blank}, {"bad_header", d.bad},
                              {"failing", d.failing}});
    }
    out["action"] = action;
    out["summary"] = summary;
    PutStatus(out, status);
    out["last_scrub"] = scrub;
    printf("%s\n", out.dump(2).c_str());
  } else if (problems_only && status == kExitOk) {
    printf("%s\n", summary.c_str());
  } else {
    if (shown > 0) printf("\n");
    for (const Disk& d : disks) {
      if (!problems_only || d.problems() > 0) printf("%s\n", DiskLine(d).c_str());
    }
    printf("action: %s\n%s\n", action.c_str(), summary.c_str());
    if (const std::string line = LastScrubLine(scrub); !line.empty() && !problems_only) printf("%s\n", line.c_str());
  }
  return status;
}

}  // namespace sbacc_tool
