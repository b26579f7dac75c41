// The scrub record: one small JSON file per controller, merged by every verify.
#include "scrub.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>

#include "sbacc_l.h"
#include "tool.h"

namespace sbacc_tool {

namespace {

constexpr const char* kDefaultDir = "/var/lib/sbacc";

bool WriteAll(int fd, const std::string& s) {
  size_t done = 0;
  while (done < s.size()) {
    const ssize_t n = write(fd, s.data() + done, s.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

std::string Absolute(const std::string& path) {
  char buf[PATH_MAX];
  return realpath(path.c_str(), buf) != nullptr ? std::string(buf) : path;
}

nlohmann::json ReadJson(const std::string& path, bool* missing) {
  std::ifstream in(path);
  *missing = !in && errno == ENOENT;
  if (!in) return nullptr;
  std::stringstream text;
  text << in.rdbuf();
  return nlohmann::json::parse(text.str(), nullptr, false);
}

}  // namespace

const char* OutcomeName(ScrubOutcome o) {
  switch (o) {
    case ScrubOutcome::kOk: return "ok";
    case ScrubOutcome::kRepaired: return "repaired";
    case ScrubOutcome::kPartial: return "partial";
    case ScrubOutcome::kNotCompared: return "not compared";
    case ScrubOutcome::kSkipped: return "skipped";
    case ScrubOutcome::kMismatch: return "mismatch";
    case ScrubOutcome::kNoCopy: return "no usable copy";
    case ScrubOutcome::kError: return "error";
  }
  return "?";
}

int OutcomeStatus(ScrubOutcome o) {
  switch (o) {
    case ScrubOutcome::kOk:
    case ScrubOutcome::kRepaired: return kExitOk;
    case ScrubOutcome::kPartial:
    case ScrubOutcome::kNotCompared:
    case ScrubOutcome::kSkipped: return kExitIncomplete;
    case ScrubOutcome::kMismatch:
    case ScrubOutcome::kNoCopy: return kExitUnavailable;
    case ScrubOutcome::kError: return kExitError;
  }
  return kExitError;
}

std::string StateDir() {
  const char* env = getenv("SBACC_STATE_DIR");
  if (env != nullptr && *env != '\0') return env;
  struct stat st;
  return stat(kDefaultDir, &st) == 0 && S_ISDIR(st.st_mode) ? kDefaultDir : "";
}

std::string StatePath(const std::string& name) {
  const std::string dir = StateDir();
  if (dir.empty()) return "";
  const std::string id = Absolute(sbacc_l_filelist_path()) + '\n' + Absolute(NvImagePath());
  uint64_t h = 1469598103934665603ull;
  for (unsigned char c : id) h = (h ^ c) * 1099511628211ull;
  char key[24];
  snprintf(key, sizeof key, "%016llx", static_cast<unsigned long long>(h));
  return dir + "/" + name + "-" + key + ".json";
}

bool ReplaceFile(const std::string& path, const std::string& text) {
  // Written aside and renamed over the old file, so a reader never sees half.
  const std::string tmp = path + ".tmp";
  const int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  bool ok = WriteAll(fd, text) && fsync(fd) == 0;
  int err = errno;
  if (close(fd) != 0 && ok) {
    ok = false;
    err = errno;
  }
  if (ok && rename(tmp.c_str(), path.c_str()) != 0) {
    ok = false;
    err = errno;
  }
  if (!ok) unlink(tmp.c_str());
  errno = err;
  return ok;
}

void KeepScrubRecord(const std::vector<std::pair<std::string, ScrubOutcome>>& outcomes, int controller) {
  const std::string path = StatePath("scrub");
  if (path.empty()) return;  // not set up here: keep nothing
  // The lock file stays: removing it would let two verifies lock two files.
  const int lock = open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (lock < 0 || flock(lock, LOCK_EX) != 0) {
    const int err = errno;
    if (lock >= 0) close(lock);
    fprintf(stderr, "sbacc: verify: scrub record %s not kept: %s\n", path.c_str(), strerror(err));
    return;
  }
  bool missing = false;
  nlohmann::json rec = ReadJson(path, &missing);
  if (!rec.is_object() || !rec.contains("areas") || !rec["areas"].is_object()) {
    rec = {{"areas", nlohmann::json::object()}};
  }
  const int64_t now = static_cast<int64_t>(time(nullptr));
  rec["version"] = kJsonVersion;
  rec["time"] = now;
  rec["controller"] = controller < 0 ? nlohmann::json(nullptr) : nlohmann::json(controller);
  rec["area_list"] = Absolute(sbacc_l_filelist_path());
  rec["nv_image"] = Absolute(NvImagePath());
  for (const auto& [area, outcome] : outcomes) rec["areas"][area] = {{"time", now}, {"result", OutcomeName(outcome)}};
  if (!ReplaceFile(path, rec.dump() + "\n")) {
    fprintf(stderr, "sbacc: verify: scrub record %s not kept: %s\n", path.c_str(), strerror(errno));
  }
  close(lock);
}

nlohmann::json LastScrub() {
  const std::string path = StatePath("scrub");
  if (path.empty()) return nullptr;
  bool missing = false;
  nlohmann::json rec = ReadJson(path, &missing);
  if (missing) return nullptr;
  if (!rec.is_object() || !rec.contains("time") || !rec["time"].is_number_integer() || !rec.contains("areas") ||
      !rec["areas"].is_object()) {
    return {{"error", path + ": " + (rec.is_null() ? std::string(strerror(errno)) : "not a scrub record")}};
  }
  return rec;
}

std::string ScrubResultOf(const nlohmann::json& record, const std::string& area, int64_t* time) {
  if (!record.is_object() || !record.contains("areas")) return "";
  const nlohmann::json& a = record["areas"].value(area, nlohmann::json());
  if (!a.is_object() || !a.contains("result") || !a["result"].is_string()) return "";
  *time = a.value("time", int64_t{0});
  return a["result"].get<std::string>();
}

std::string LastScrubLine(const nlohmann::json& rec) {
  if (rec.is_null()) return "";
  if (rec.contains("error")) return "last scrub: unknown (" + rec["error"].get<std::string>() + ")";
  std::map<std::string, int> count;
  for (const auto& [name, a] : rec["areas"].items()) {
    if (a.is_object() && a.contains("result") && a["result"].is_string()) ++count[a["result"].get<std::string>()];
  }
  const size_t n = rec["areas"].size();
  std::string line = "last scrub: " + LocalTime(rec["time"].get<int64_t>()) + ", " + std::to_string(n) +
                     (n == 1 ? " area" : " areas");
  const char* sep = ": ";
  for (const auto& [result, k] : count) {
    line += sep + std::to_string(k) + " " + result;
    sep = ", ";
  }
  return line;
}

}  // namespace sbacc_tool
