// The scrub record, kept by sbacc verify for status, monitor and metrics.
#ifndef SBACC_TOOL_SCRUB_H
#define SBACC_TOOL_SCRUB_H

#include <stdint.h>

#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace sbacc_tool {

// What a verify made of one area.
enum class ScrubOutcome {
  kOk,           // every usable copy compared, all agree
  kRepaired,     // copies differed and were rewritten
  kPartial,      // compared, but some copies were not usable and left out
  kNotCompared,  // fewer than two usable copies
  kSkipped,      // being written by a live writer
  kMismatch,     // copies differ (and were not repaired)
  kNoCopy,       // no usable copy
  kError,        // a library call failed
};
const char* OutcomeName(ScrubOutcome o);
// The exit status an outcome stands for.
int OutcomeStatus(ScrubOutcome o);

// The directory of the tool's state (scrub record, monitor state):
// SBACC_STATE_DIR, or /var/lib/sbacc when it exists; empty when neither.
std::string StateDir();
// A file of the state directory for this controller: NAME-<key>.json, the key
// a digest of the area list's and the NV image's paths, so controllers (each
// with its own NV memory) and configurations never share one.  Empty when
// there is no state directory.
std::string StatePath(const std::string& name);
// Replaces a state file whole (aside, flushed, renamed): false with errno set.
bool ReplaceFile(const std::string& path, const std::string& text);

// Merges one verify's outcomes into the record: the areas verified get new
// entries, the others keep theirs.  Under a lock on the record, so two
// verifies never lose each other's entries.  A record that cannot be written
// is reported on standard error and changes nothing else.
void KeepScrubRecord(const std::vector<std::pair<std::string, ScrubOutcome>>& outcomes, int controller);

// The record: null when there is none; {"error": s} when it cannot be read;
// else {"version", "time", "controller", "area_list", "nv_image",
// "areas": {NAME: {"time": n, "result": s}}}.
nlohmann::json LastScrub();
// The recorded result of one area ("" when none) and its time.
std::string ScrubResultOf(const nlohmann::json& record, const std::string& area, int64_t* time);
// "last scrub: 2026-11-01 03:12:09, 8 areas: 7 ok, 1 mismatch"; empty when there is none.
std::string LastScrubLine(const nlohmann::json& record);

}  // namespace sbacc_tool

#endif  // SBACC_TOOL_SCRUB_H
