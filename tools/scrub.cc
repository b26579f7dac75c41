// The scrub record: one small JSON file, replaced whole by every verify.
#include "scrub.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "tool.h"

namespace sbacc_tool {

namespace {

constexpr const char* kDefaultDir = "/var/lib/sbacc";

// The record's path, and whether it was asked for by name.
std::string RecordPath(bool* named) {
  const char* env = getenv("SBACC_SCRUB_RECORD");
  *named = env != nullptr && *env != '\0';
  return *named ? env : std::string(kDefaultDir) + "/last-scrub";
}

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

}  // namespace

void KeepScrubRecord(const ScrubResult& r) {
  bool named = false;
  const std::string path = RecordPath(&named);
  struct stat st;
  if (!named && stat(kDefaultDir, &st) != 0) return;  // not set up here: keep nothing

  const nlohmann::json rec = {{"time", static_cast<int64_t>(time(nullptr))},
                              {"areas", r.areas},
                              {"compared", r.compared},
                              {"mismatches", r.mismatches},
                              {"repaired", r.repaired},
                              {"status", r.status}};
  // Written aside and renamed over the old record, so a reader never sees half.
  const std::string tmp = path + ".tmp";
  const int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  bool ok = fd >= 0;
  int err = errno;
  if (ok) {
    ok = WriteAll(fd, rec.dump() + "\n") && fsync(fd) == 0;
    err = errno;
    if (close(fd) != 0 && ok) {
      ok = false;
      err = errno;
    }
    if (ok && rename(tmp.c_str(), path.c_str()) != 0) {
      ok = false;
      err = errno;
    }
    if (!ok) unlink(tmp.c_str());
  }
  if (!ok) fprintf(stderr, "sbacc: verify: scrub record %s not kept: %s\n", path.c_str(), strerror(err));
}

nlohmann::json LastScrub() {
  bool named = false;
  const std::string path = RecordPath(&named);
  std::ifstream in(path);
  if (!in) {
    if (errno == ENOENT) return nullptr;
    return {{"error", path + ": " + strerror(errno)}};
  }
  std::stringstream text;
  text << in.rdbuf();
  nlohmann::json rec = nlohmann::json::parse(text.str(), nullptr, false);
  for (const char* k : {"time", "areas", "compared", "mismatches", "repaired", "status"}) {
    if (!rec.is_object() || !rec.contains(k) || !rec[k].is_number_integer()) {
      return {{"error", path + ": not a scrub record"}};
    }
  }
  return rec;
}

std::string LastScrubLine() {
  const nlohmann::json rec = LastScrub();
  if (rec.is_null()) return "";
  if (rec.contains("error")) return "last scrub: unknown (" + rec["error"].get<std::string>() + ")";
  const int areas = rec["areas"], mismatches = rec["mismatches"], repaired = rec["repaired"];
  std::string line = "last scrub: " + LocalTime(rec["time"].get<int64_t>()) + ", " + std::to_string(areas) +
                     (areas == 1 ? " area, " : " areas, ") + std::to_string(mismatches) +
                     (mismatches == 1 ? " mismatch" : " mismatches");
  if (repaired > 0) line += ", " + std::to_string(repaired) + " repaired";
  return line + ", exit " + std::to_string(rec["status"].get<int>());
}

}  // namespace sbacc_tool
