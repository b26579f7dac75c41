// One area's health: the single place where states become problems.
#include "health.h"

#include <fcntl.h>

#include <algorithm>

#include "scrub.h"

namespace sbacc_tool {

const char* VerdictName(Verdict v) {
  switch (v) {
    case Verdict::kOk: return "ok";
    case Verdict::kDegraded: return "degraded";
    case Verdict::kNoCopy: return "no usable copy";
    case Verdict::kNvUninit: return "NV not initialised";
    case Verdict::kNvUnreadable: return "NV unreadable";
  }
  return "?";
}

namespace {

Verdict VerdictOf(const AreaProbe& p) {
  if (p.nv_rc != 0) return Verdict::kNvUnreadable;
  const int usable = p.usable_count();
  if (usable == 0) return Verdict::kNoCopy;
  if (!p.nv_valid) return Verdict::kNvUninit;
  if (usable < static_cast<int>(p.copies.size())) return Verdict::kDegraded;
  for (const CopyProbe& c : p.copies) {
    if (c.integrity == Integrity::kBad) return Verdict::kDegraded;
  }
  return Verdict::kOk;
}

void WriterFlags(const AreaProbe& p, AreaHealth* h) {
  std::vector<FileUser> users;
  bool open = false;
  for (const CopyProbe& c : p.copies) open = open || (c.usable() && c.hdr.openflag != 0);
  const bool live = open && BeingWritten(p, &users);
  if (live) {
    h->flags.push_back({"open for writing now (" + DescribeUsers(users) + ")", kExitOk});
  } else if (open) {
    h->left_open = true;
    h->flags.push_back(
        {"left open by a writer that never closed: the next start-up ('sbacc restore') settles it", kExitDegraded});
  }
  for (const CopyProbe& c : p.copies) {
    if (live || !c.usable() || c.hdr.writeflag == 0) continue;
    h->write_pending = true;
    h->flags.push_back({"copy " + std::to_string(c.index) + " has a write-intent record set (" +
                            std::to_string(c.hdr.write_size) + " bytes at " + std::to_string(c.hdr.write_offset) +
                            "): a write did not finish",
                        kExitDegraded});
  }
}

// Known only where the caller checked the copies (status does; the monitor's
// passes do not read the data).  The reads skip a copy that fails, so the
// data stay readable while another copy is left.
void IntegrityFlags(const AreaProbe& p, const std::string& name, AreaHealth* h) {
  const bool left = std::any_of(p.copies.begin(), p.copies.end(), [](const CopyProbe& c) {
    return c.usable() && c.integrity != Integrity::kBad;
  });
  for (const CopyProbe& c : p.copies) {
    if (c.integrity != Integrity::kBad) continue;
    h->flags.push_back({"copy " + std::to_string(c.index) + " fails its integrity record: run 'sbacc verify --repair " +
                            name + "'",
                        left ? kExitDegraded : kExitUnavailable});
  }
}

void ScrubFlags(const std::string& name, const nlohmann::json& scrub, AreaHealth* h) {
  int64_t when = 0;
  const std::string result = ScrubResultOf(scrub, name, &when);
  if (result == "mismatch") {
    h->flags.push_back({"the last scrub (" + LocalTime(when) +
                            ") found copies that differ: run 'sbacc verify --repair " + name + "'",
                        kExitUnavailable});
    h->conditions.push_back({"scrub-mismatch", name, -1, "", kExitUnavailable, h->flags.back().text});
  } else if (result == "skipped" || result == "error") {
    h->flags.push_back({"the last scrub (" + LocalTime(when) + ") " +
                            (result == "skipped" ? "skipped it (being written)" : "could not verify it") +
                            ": run 'sbacc verify " + name + "'",
                        kExitIncomplete});
    h->conditions.push_back({"scrub-incomplete", name, -1, "", kExitIncomplete, h->flags.back().text});
  }
}

}  // namespace

AreaHealth Assess(int index, const AreaProbe& p, const nlohmann::json& scrub) {
  AreaHealth h;
  h.index = index;
  h.verdict = VerdictOf(p);
  const std::string name = p.entry().filename;
  h.never_started = !p.copies.empty() && std::all_of(p.copies.begin(), p.copies.end(), [](const CopyProbe& c) {
    return c.state == CopyState::kBlank;
  });
  WriterFlags(p, &h);
  ScrubFlags(name, scrub, &h);
  IntegrityFlags(p, name, &h);
  // NV that cannot be read or was never set up, and an area without a usable
  // copy, all leave the data unreadable.
  h.status = h.verdict == Verdict::kOk ? kExitOk : h.verdict == Verdict::kDegraded ? kExitDegraded : kExitUnavailable;
  for (const Flag& f : h.flags) h.status = Graver(h.status, f.status);

  if (h.verdict == Verdict::kNoCopy && !h.never_started) {
    h.conditions.push_back({"area-unavailable", name, -1, "", kExitUnavailable, "no usable copy: the data cannot be read"});
  }
  if (h.left_open) h.conditions.push_back({"left-open", name, -1, "", kExitDegraded, h.flags.front().text});
  if (p.nv_valid && !h.never_started) {
    for (const CopyProbe& c : p.copies) {
      if (c.usable()) continue;
      const bool fenced = c.state == CopyState::kFenced || c.state == CopyState::kRepair;
      h.conditions.push_back({fenced ? "copy-fenced" : "copy-unusable", name, c.index, c.path, kExitDegraded,
                              std::string("copy ") + std::to_string(c.index) + " " + StateName(c.state)});
    }
  }
  return h;
}

SBACC_COPY_VERDICT LibraryVerdict(const AreaProbe& p, bool accept_loss) {
  SBACC_HDD_HEADER headers[SBACC_HDD_MAX] = {};
  uint32_t read = 0, bad = 0;
  const int n = static_cast<int>(std::min<size_t>(p.copies.size(), SBACC_HDD_MAX));
  for (int i = 0; i < n; ++i) {
    const CopyProbe& c = p.copies[static_cast<size_t>(i)];
    if (!c.header_read) continue;
    headers[i] = c.hdr;
    read |= 1u << i;
    if (c.integrity == Integrity::kBad) bad |= 1u << i;
  }
  const uint32_t unseen = accept_loss ? 0 : SBACC_HDD_MAXBIT(n) & ~read;
  const SBACC_COPY_EVIDENCE ev{unseen, p.nv_valid ? p.nv.hddblockade : 0, p.nv_valid ? 1 : 0, bad};
  SBACC_COPY_VERDICT v;
  sbacc_ma_classify(headers, n, read, &ev, SBACC_CLASSIFY_SILENT, "", &v);
  if (read == 0) v.hold = SBACC_HOLD_NONE;
  return v;
}

Survey TakeSurvey() {
  CheckNvImage("status");
  Survey s;
  s.scrub = LastScrub();
  const auto& areas = Areas();
  for (size_t i = 0; i < areas.size(); ++i) {
    AreaProbe probe(areas[i], O_RDONLY);
    s.names.push_back(areas[i].filename);
    s.health.push_back(Assess(static_cast<int>(i), probe, s.scrub));
    s.copies.push_back(probe.copies);
    s.status = Graver(s.status, s.health.back().status);
  }
  return s;
}

}  // namespace sbacc_tool
