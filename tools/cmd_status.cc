// sbacc ls / sbacc status: what is configured, and what NV and the copies
// hold right now.
#include <fcntl.h>
#include <stdio.h>

#include <nlohmann/json.hpp>

#include "scrub.h"
#include "tool.h"

namespace sbacc_tool {

int CmdLs() {
  const auto& areas = Areas();
  printf("%3s  %-31s %10s %10s %10s %s\n", "#", "AREA", "ADDRESS", "SIZE", "CAPACITY", "COPIES");
  int i = 0;
  for (const SBACC_FILE_LIST_ENTRY& e : areas) {
    printf("%3d  %-31s 0x%08llx %10llu %10lld %d\n", i++, e.filename,
           static_cast<unsigned long long>(e.areaaddr), static_cast<unsigned long long>(e.areasize),
           static_cast<long long>(Capacity(e)), e.hddcount);
    for (int j = 0; j < e.hddcount && j < SBACC_HDD_MAX; ++j) printf("       %d: %s\n", j, e.hddname[j]);
  }
  return kExitOk;
}

namespace {

// What is wrong with an area, in words; "ok" when nothing is.
std::string Verdict(const AreaProbe& p) {
  if (p.nv_rc != 0) return "NV unreadable";
  const int usable = p.usable_count();
  if (usable == 0) return "no usable copy";
  if (!p.nv_valid) return "NV not initialised";
  if (usable < static_cast<int>(p.copies.size())) return "degraded";
  return "ok";
}

nlohmann::json CodeJson(int code) {
  return {{"code", code}, {"name", sbacc_code_name(code)}, {"text", sbacc_code_text(code)}};
}

nlohmann::json TimeJson(int64_t t) { return t == 0 ? nlohmann::json(nullptr) : nlohmann::json(LocalTime(t)); }

// The --json shape, one object per area, keys always present (null when the
// value could not be read):
// {"ok": bool, "last_scrub": null | {"time": n, "areas": n, "compared": n, "mismatches": n,
//                                     "repaired": n, "status": n} | {"error": s},
//  "areas": [{
//    "index": n, "name": s, "address": n, "size": n, "capacity": n,
//    "verdict": "ok" | "degraded" | "no usable copy" | "NV not initialised" | "NV unreadable",
//    "usable": n,
//    "nv": {"readable": bool, "error": {code,name,text} | null, "valid": bool,
//           "hddcount": n, "hddblockade": n, "latesthdd": n, "hddrepair": n,
//           "write_on_repair": n, "repairlock": [n, n, n, n]},
//    "copies": [{"copy": n, "path": s,
//                "state": "healthy" | "fenced off" | "under repair" | "missing",
//                "error": s | null,
//                "header": null | {"valid": bool, "filesize": n, "hddblockade": n,
//                   "openflag": n, "opencnt": n,
//                   "opentime": n, "opentime_local": s | null,
//                   "closetime": n, "closetime_local": s | null,
//                   "write": {"flag": n, "offset": n, "size": n}}}]}]}
// Times are seconds since the epoch; the _local forms are local dates.
nlohmann::json AreaJson(int index, const AreaProbe& p) {
  const SBACC_FILE_LIST_ENTRY& e = p.entry();
  nlohmann::json nv = {{"readable", p.nv_rc == 0},
                       {"error", p.nv_rc == 0 ? nlohmann::json(nullptr) : CodeJson(p.nv_rc)},
                       {"valid", p.nv_valid}};
  if (p.nv_rc == 0) {
    nv["hddcount"] = p.nv.hddcount;
    nv["hddblockade"] = p.nv.hddblockade;
    nv["latesthdd"] = p.nv.latesthdd;
    nv["hddrepair"] = p.nv.hddrepair;
    nv["write_on_repair"] = p.nv.write_on_repair;
    nv["repairlock"] = {p.nv.hddrepairlock_cntno[0], p.nv.hddrepairlock_cntno[1],
                        p.nv.hddrepairlock_cntno[2], p.nv.hddrepairlock_cntno[3]};
  } else {
    for (const char* k : {"hddcount", "hddblockade", "latesthdd", "hddrepair", "write_on_repair", "repairlock"})
      nv[k] = nullptr;
  }

  nlohmann::json copies = nlohmann::json::array();
  for (const CopyProbe& c : p.copies) {
    nlohmann::json header = nullptr;
    if (c.header_read) {
      const SBACC_HDD_HEADER& h = c.hdr;
      header = {{"valid", c.header_valid},
                {"filesize", h.filesize},
                {"hddblockade", h.hddblockade},
                {"openflag", h.openflag},
                {"opencnt", h.opencnt},
                {"opentime", h.opentime},
                {"opentime_local", TimeJson(h.opentime)},
                {"closetime", h.closetime},
                {"closetime_local", TimeJson(h.closetime)},
                {"write", {{"flag", h.writeflag}, {"offset", h.write_offset}, {"size", h.write_size}}}};
    }
    copies.push_back({{"copy", c.index},
                      {"path", c.path},
                      {"state", StateName(c.state)},
                      {"error", c.error.empty() ? nlohmann::json(nullptr) : nlohmann::json(c.error)},
                      {"header", header}});
  }

  return {{"index", index},
          {"name", e.filename},
          {"address", e.areaaddr},
          {"size", e.areasize},
          {"capacity", Capacity(e)},
          {"verdict", Verdict(p)},
          {"usable", p.usable_count()},
          {"nv", nv},
          {"copies", copies}};
}

void PrintArea(int index, const AreaProbe& p) {
  const SBACC_FILE_LIST_ENTRY& e = p.entry();
  printf("%s (#%d, %llu bytes at 0x%llx): %s, %d of %zu copies usable\n", e.filename, index,
         static_cast<unsigned long long>(e.areasize), static_cast<unsigned long long>(e.areaaddr),
         Verdict(p).c_str(), p.usable_count(), p.copies.size());
  if (p.nv_rc != 0) {
    printf("  NV unreadable: %s\n", CodeString(p.nv_rc).c_str());
  } else if (!p.nv_valid) {
    printf("  NV not initialised\n");
  } else {
    printf("  NV valid  hddcount %d  blockade 0x%x  latest 0x%x  repair 0x%x  locks %u %u %u %u\n",
           p.nv.hddcount, p.nv.hddblockade, p.nv.latesthdd, p.nv.hddrepair,
           p.nv.hddrepairlock_cntno[0], p.nv.hddrepairlock_cntno[1], p.nv.hddrepairlock_cntno[2],
           p.nv.hddrepairlock_cntno[3]);
  }
  // 78 columns: copy, state, header, filesize, open flag, open count, times.
  printf("  %s %-12s %-3s %8s %-3s %4s %-19s %s\n", "#", "state", "hdr", "filesize", "opn", "cnt",
         "opened", "closed");
  for (const CopyProbe& c : p.copies) {
    if (c.header_read) {
      const SBACC_HDD_HEADER& h = c.hdr;
      const std::string open = h.openflag == 0 ? "no" : (h.openflag == 1 ? "yes" : std::to_string(h.openflag));
      printf("  %d %-12s %-3s %8d %-3s %4d %-19s %s\n", c.index, StateName(c.state),
             c.header_valid ? "ok" : "bad", h.filesize, open.c_str(), h.opencnt,
             LocalTime(h.opentime).c_str(), LocalTime(h.closetime).c_str());
    } else {
      printf("  %d %-12s %-3s %8s %-3s %4s %-19s %s\n", c.index, StateName(c.state), "-", "-", "-",
             "-", "-", "-");
    }
    std::string note;
    if (c.header_read && c.hdr.writeflag != 0) {
      note = "  write pending: " + std::to_string(c.hdr.write_size) + " bytes at " +
             std::to_string(c.hdr.write_offset);
    } else if (!c.error.empty()) {
      note = "  (" + c.error + ")";
    }
    printf("    %s%s\n", c.path.c_str(), note.c_str());
  }
}

}  // namespace

int CmdStatus(const std::vector<std::string>& names, bool json) {
  const auto selected = SelectAreas(names);
  const auto& all = Areas();
  bool all_ok = true;
  nlohmann::json out = {{"areas", nlohmann::json::array()}};
  bool first = true;
  for (const SBACC_FILE_LIST_ENTRY* e : selected) {
    const int index = static_cast<int>(e - all.data());
    AreaProbe probe(*e, O_RDONLY);
    if (Verdict(probe) != "ok") all_ok = false;
    if (json) {
      out["areas"].push_back(AreaJson(index, probe));
    } else {
      if (!first) printf("\n");
      PrintArea(index, probe);
    }
    first = false;
  }
  if (json) {
    out["ok"] = all_ok;
    out["last_scrub"] = LastScrub();
    printf("%s\n", out.dump(2).c_str());
  } else if (const std::string scrub = LastScrubLine(); !scrub.empty()) {
    printf("\n%s\n", scrub.c_str());
  }
  return all_ok ? kExitOk : kExitFound;
}

}  // namespace sbacc_tool
