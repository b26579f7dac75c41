// The last scrub's result, kept by sbacc verify for sbacc status.
#ifndef SBACC_TOOL_SCRUB_H
#define SBACC_TOOL_SCRUB_H

#include <stdint.h>

#include <string>

#include <nlohmann/json.hpp>

namespace sbacc_tool {

struct ScrubResult {
  int areas = 0;       // areas verified
  int compared = 0;    // copies compared with their area's reference copy
  int mismatches = 0;  // copies that differed
  int repaired = 0;    // of those, rewritten (verify --repair)
  int status = 0;      // verify's exit status
};

// Keeps the result with the current time, replacing the previous one in one
// rename.  Kept when SBACC_SCRUB_RECORD names a file, or by default when
// /var/lib/sbacc exists; a record that cannot be written is reported on
// standard error and changes nothing else.
void KeepScrubRecord(const ScrubResult& r);

// The last record: null when there is none; {"error": s} when it cannot be read.
nlohmann::json LastScrub();
// "last scrub: 2026-11-01 03:12:09, 8 areas, 0 mismatches, exit 0"; empty when there is none.
std::string LastScrubLine();

}  // namespace sbacc_tool

#endif  // SBACC_TOOL_SCRUB_H
