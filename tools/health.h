// What status, monitor and metrics make of one area: a verdict, the problems
// with the exit status each stands for, and the conditions a monitor follows.
#ifndef SBACC_TOOL_HEALTH_H
#define SBACC_TOOL_HEALTH_H

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "sbacc_tool_iface.h"
#include "tool.h"

namespace sbacc_tool {

enum class Verdict { kOk, kDegraded, kNoCopy, kNvUninit, kNvUnreadable };
const char* VerdictName(Verdict v);

// One line about an area; `status` is the exit status it stands for (0: news,
// not a problem).
struct Flag {
  std::string text;
  int status = kExitOk;
};

// A state a monitor follows: it starts (an event) and may end (another).
struct Condition {
  std::string kind;  // copy-fenced, copy-unusable, area-unavailable, left-open, scrub-mismatch, scrub-incomplete
  std::string area;
  int copy = -1;     // for the copy kinds
  std::string disk;  // that copy's HDD file
  int status = kExitOk;
  std::string text;
  // A copy fenced off after it went missing is the same condition, changed.
  std::string Key() const {
    return (copy >= 0 ? std::string("copy") : kind) + "/" + area + "/" + std::to_string(copy);
  }
};

struct AreaHealth {
  int index = 0;
  Verdict verdict = Verdict::kOk;
  bool never_started = false;  // every copy blank
  bool left_open = false;      // by a writer that died
  bool write_pending = false;
  std::vector<Flag> flags;
  std::vector<Condition> conditions;
  int status = kExitOk;  // the gravest of the verdict's and the flags'
};

// scrub: the scrub record (LastScrub()).
AreaHealth Assess(int index, const AreaProbe& p, const nlohmann::json& scrub);

// The library's own verdict on the copies as the probe read them, with the
// evidence its start-up weighs: the copies not read are unseen (none when
// their loss is accepted), NV's fenced mask, copies failing their integrity
// record.  As in the restore, an area none of whose copies can be read is
// no hold.
SBACC_COPY_VERDICT LibraryVerdict(const AreaProbe& p, bool accept_loss);

// Every configured area's probe and health, in list order (the ones named,
// all when none); for monitor and metrics.
struct Survey {
  std::vector<std::string> names;
  std::vector<AreaHealth> health;
  std::vector<std::vector<CopyProbe>> copies;
  nlohmann::json scrub;
  int status = kExitOk;
};
Survey TakeSurvey();

}  // namespace sbacc_tool

#endif  // SBACC_TOOL_HEALTH_H
