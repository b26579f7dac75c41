// sbacc monitor and sbacc metrics: the controller's state for people who are
// not watching it, as events (journal or syslog, and a hook program) and as
// node-exporter textfile metrics.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "health.h"
#include "scrub.h"
#include "tool.h"

extern char** environ;

namespace sbacc_tool {

namespace {

constexpr const char* kJournalSocket = "/run/systemd/journal/socket";
constexpr int kHookSeconds = 60;

struct Event {
  std::string kind;  // what happened
  Condition about;   // the condition that started or ended
  std::string text;
};

int Priority(const Event& e) {
  if (e.kind == "rebuild-finished" || e.kind.find("-cleared") != std::string::npos) return LOG_NOTICE;
  return e.about.status >= kExitUnavailable ? LOG_ERR : e.about.status == kExitDegraded ? LOG_WARNING : LOG_NOTICE;
}

std::vector<std::pair<std::string, std::string>> Fields(const Event& e) {
  std::vector<std::pair<std::string, std::string>> f = {
      {"SBACC_EVENT", e.kind}, {"SBACC_AREA", e.about.area}, {"SBACC_STATUS", ExitName(e.about.status)},
      {"SBACC_MESSAGE", e.text}};
  if (e.about.copy >= 0) f.push_back({"SBACC_COPY", std::to_string(e.about.copy)});
  if (!e.about.disk.empty()) f.push_back({"SBACC_DISK", e.about.disk});
  return f;
}

std::string OneLine(std::string s) {
  for (char& c : s) c = c == '\n' ? ' ' : c;
  return s;
}

// The journal's native protocol: one datagram of KEY=value lines.  False when
// no journal listens here.
bool ToJournal(const Event& e, const std::string& message) {
  const char* env = getenv("SBACC_JOURNAL_SOCKET");
  const std::string path = env != nullptr && *env != '\0' ? env : kJournalSocket;
  struct sockaddr_un addr = {};
  if (path.size() >= sizeof addr.sun_path) return false;
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path, path.c_str(), path.size());
  std::string dgram = "MESSAGE=" + OneLine(message) + "\nPRIORITY=" + std::to_string(Priority(e)) +
                      "\nSYSLOG_IDENTIFIER=sbacc\n";
  for (const auto& [k, v] : Fields(e)) dgram += k + "=" + OneLine(v) + "\n";
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  const bool ok = sendto(fd, dgram.data(), dgram.size(), 0, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) ==
                  static_cast<ssize_t>(dgram.size());
  close(fd);
  return ok;
}

// The hook gets the fields in its environment and the event as JSON on its
// standard input; it is waited for, and its failure is reported, not fatal.
void RunHook(const std::string& hook, const Event& e, const std::string& message) {
  nlohmann::json js = {{"version", kJsonVersion}, {"event", e.kind}, {"area", e.about.area},
                       {"copy", e.about.copy < 0 ? nlohmann::json(nullptr) : nlohmann::json(e.about.copy)},
                       {"disk", e.about.disk.empty() ? nlohmann::json(nullptr) : nlohmann::json(e.about.disk)},
                       {"status", e.about.status}, {"status_name", ExitName(e.about.status)},
                       {"message", message}, {"time", static_cast<int64_t>(time(nullptr))}};
  std::vector<std::string> env;
  for (char** p = environ; *p != nullptr; ++p) env.push_back(*p);
  for (const auto& [k, v] : Fields(e)) env.push_back(k + "=" + v);
  std::vector<char*> envp;
  for (std::string& s : env) envp.push_back(s.data());
  envp.push_back(nullptr);
  int in[2];
  if (pipe2(in, O_CLOEXEC) != 0) return;
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_adddup2(&fa, in[0], STDIN_FILENO);
  const char* argv[] = {hook.c_str(), nullptr};
  pid_t pid = -1;
  const int rc = posix_spawnp(&pid, hook.c_str(), &fa, nullptr, const_cast<char**>(argv), envp.data());
  posix_spawn_file_actions_destroy(&fa);
  close(in[0]);
  const std::string text = js.dump() + "\n";
  if (rc == 0) {
    // A hook that does not read its input must not block the monitor.
    signal(SIGPIPE, SIG_IGN);
    if (write(in[1], text.data(), text.size()) < 0) { /* the hook did not read it: its choice */ }
  }
  close(in[1]);
  if (rc != 0) {
    fprintf(stderr, "sbacc: monitor: hook %s: %s\n", hook.c_str(), strerror(rc));
    return;
  }
  // A hook that hangs must not stop the monitor: it gets a minute.
  int ws = 0;
  pid_t done = 0;
  for (int waited = 0; (done = waitpid(pid, &ws, WNOHANG)) == 0 && waited < kHookSeconds * 10; ++waited) {
    poll(nullptr, 0, 100);
  }
  if (done == 0) {
    kill(pid, SIGKILL);
    waitpid(pid, &ws, 0);
    fprintf(stderr, "sbacc: monitor: hook %s killed after %d s for %s\n", hook.c_str(), kHookSeconds, e.kind.c_str());
  } else if (done == pid && !(WIFEXITED(ws) && WEXITSTATUS(ws) == 0)) {
    fprintf(stderr, "sbacc: monitor: hook %s failed for %s (%s)\n", hook.c_str(), e.kind.c_str(),
            WIFEXITED(ws) ? ("exit " + std::to_string(WEXITSTATUS(ws))).c_str() : "killed");
  }
}

void Raise(const Event& e, const std::string& hook) {
  const std::string message = e.kind + ": " + (e.about.area.empty() ? "" : e.about.area + ": ") + e.text;
  if (!ToJournal(e, message)) {
    openlog("sbacc", LOG_PID, LOG_DAEMON);
    syslog(Priority(e), "%s", message.c_str());
    closelog();
  }
  printf("%s\n", message.c_str());
  fflush(stdout);
  if (!hook.empty()) RunHook(hook, e, message);
}

std::map<std::string, Condition> Current(const Survey& s) {
  std::map<std::string, Condition> out;
  for (const AreaHealth& h : s.health) {
    for (const Condition& c : h.conditions) out[c.Key()] = c;
  }
  return out;
}

// The conditions the last pass saw, from the state directory.
std::map<std::string, Condition> LoadSeen(const std::string& path) {
  std::map<std::string, Condition> out;
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  const nlohmann::json js = nlohmann::json::parse(text.str(), nullptr, false);
  if (!js.is_object() || !js.contains("conditions") || !js["conditions"].is_array()) return out;
  for (const nlohmann::json& c : js["conditions"]) {
    if (!c.is_object()) continue;
    Condition k{c.value("kind", ""), c.value("area", ""), c.value("copy", -1), c.value("disk", ""),
                c.value("status", 0), c.value("text", "")};
    out[k.Key()] = k;
  }
  return out;
}

void SaveSeen(const std::string& path, const std::map<std::string, Condition>& now) {
  nlohmann::json list = nlohmann::json::array();
  for (const auto& [key, c] : now) {
    list.push_back({{"kind", c.kind}, {"area", c.area}, {"copy", c.copy}, {"disk", c.disk}, {"status", c.status},
                    {"text", c.text}});
  }
  const nlohmann::json js = {{"version", kJsonVersion}, {"time", static_cast<int64_t>(time(nullptr))},
                             {"conditions", list}};
  if (!ReplaceFile(path, js.dump() + "\n")) {
    fprintf(stderr, "sbacc: monitor: state %s not kept: %s\n", path.c_str(), strerror(errno));
  }
}

// One pass: an event per condition that started or ended since the last.
int Pass(const std::string& state, const std::string& hook) {
  const Survey s = TakeSurvey();
  const std::map<std::string, Condition> now = Current(s), seen = LoadSeen(state);
  for (const auto& [key, c] : now) {
    const auto was = seen.find(key);
    if (was == seen.end() || was->second.kind != c.kind) Raise({c.kind, c, c.text}, hook);
  }
  for (const auto& [key, c] : seen) {
    if (now.count(key) != 0) continue;
    const bool copy = c.kind == "copy-fenced" || c.kind == "copy-unusable";
    Raise({copy ? "rebuild-finished" : c.kind + "-cleared", c,
           copy ? "copy " + std::to_string(c.copy) + " is usable again" : "no longer: " + c.text},
          hook);
  }
  SaveSeen(state, now);
  return s.status;
}

volatile sig_atomic_t g_stop = 0;
void OnStop(int) { g_stop = 1; }

}  // namespace

int CmdMonitor(const MonitorOptions& o) {
  const char* env_hook = getenv("SBACC_MONITOR_HOOK");
  const std::string hook = !o.hook.empty() ? o.hook : env_hook != nullptr ? env_hook : "";
  if (!o.raise.empty()) {
    Condition c{o.raise, "", -1, "", kExitUnavailable, o.message};
    Raise({o.raise, c, o.message.empty() ? "raised by hand" : o.message}, hook);
    return kExitOk;
  }
  Areas();
  const std::string state = StatePath("monitor");
  if (state.empty()) {
    throw UsageError("no state directory to keep the last state in: set SBACC_STATE_DIR or create /var/lib/sbacc");
  }
  if (o.oneshot) return Pass(state, hook);
  signal(SIGTERM, OnStop);
  signal(SIGINT, OnStop);
  // The loop's exit says how it stopped, not the state: that went out as events.
  while (g_stop == 0) {
    Pass(state, hook);
    for (int waited = 0; waited < o.interval && g_stop == 0; ++waited) poll(nullptr, 0, 1000);
  }
  return kExitOk;
}

namespace {

std::string Label(const std::string& v) {
  std::string out;
  for (char c : v) {
    if (c == '\\' || c == '"') out += '\\';
    out += c == '\n' ? std::string("\\n") : std::string(1, c);
  }
  return out;
}

struct Metric {
  const char* name;
  const char* help;
};

void Head(std::ostringstream& out, const Metric& m) {
  out << "# HELP " << m.name << " " << m.help << "\n# TYPE " << m.name << " gauge\n";
}

}  // namespace

int CmdMetrics(const std::string& dir) {
  const Survey s = TakeSurvey();
  std::ostringstream out;
  const Metric per_area[] = {{"sbacc_area_copies", "Copies configured for the area."},
                             {"sbacc_area_copies_usable", "Copies of the area that are usable."},
                             {"sbacc_area_copies_fenced", "Copies of the area fenced off or under repair."},
                             {"sbacc_area_left_open", "1 when a writer that died left the area open."},
                             {"sbacc_area_write_pending", "1 when a copy records a write that did not finish."},
                             {"sbacc_area_status", "The area's exit status (0 healthy ... 3 unavailable)."}};
  for (size_t m = 0; m < std::size(per_area); ++m) {
    Head(out, per_area[m]);
    for (size_t i = 0; i < s.names.size(); ++i) {
      const auto& copies = s.copies[i];
      int usable = 0, fenced = 0;
      for (const CopyProbe& c : copies) {
        usable += c.usable();
        fenced += c.state == CopyState::kFenced || c.state == CopyState::kRepair;
      }
      const AreaHealth& h = s.health[i];
      const long v[] = {static_cast<long>(copies.size()), usable, fenced, h.left_open, h.write_pending, h.status};
      out << per_area[m].name << "{area=\"" << Label(s.names[i]) << "\"} " << v[m] << "\n";
    }
  }
  std::map<std::pair<std::string, int>, int> disks;
  for (const auto& copies : s.copies) {
    for (const CopyProbe& c : copies) {
      disks[{c.path, c.index}] += c.state == CopyState::kFenced || c.state == CopyState::kRepair;
    }
  }
  Head(out, {"sbacc_disk_areas_fenced", "Areas in which the disk's copy is fenced off."});
  for (const auto& [d, n] : disks) {
    out << "sbacc_disk_areas_fenced{disk=\"" << Label(d.first) << "\",copy=\"" << d.second << "\"} " << n << "\n";
  }
  int mismatch = 0, skipped = 0;
  int64_t when = 0;
  for (const std::string& name : s.names) {
    const std::string r = ScrubResultOf(s.scrub, name, &when);
    mismatch += r == "mismatch";
    skipped += r == "skipped" || r == "error";
  }
  const bool scrubbed = s.scrub.is_object() && s.scrub.contains("time");
  Head(out, {"sbacc_scrub_last_time_seconds", "When the last scrub ran (seconds since the epoch; 0: never)."});
  out << "sbacc_scrub_last_time_seconds " << (scrubbed ? s.scrub["time"].get<int64_t>() : 0) << "\n";
  Head(out, {"sbacc_scrub_mismatch_areas", "Areas whose copies the last scrub of them found differing."});
  out << "sbacc_scrub_mismatch_areas " << mismatch << "\n";
  Head(out, {"sbacc_scrub_skipped_areas", "Areas the last scrub of them skipped or could not verify."});
  out << "sbacc_scrub_skipped_areas " << skipped << "\n";
  Head(out, {"sbacc_status", "The controller's exit status (0 healthy, 1 incomplete, 2 degraded, 3 unavailable)."});
  out << "sbacc_status " << s.status << "\n";
  if (dir.empty()) {
    printf("%s", out.str().c_str());
    return s.status;
  }
  // The collector reads *.prom only: the file is written aside under another
  // name and renamed, so it never reads half a file.
  const std::string path = dir + "/sbacc.prom";
  if (!ReplaceFile(path, out.str())) {
    throw std::runtime_error("cannot write " + path + ": " + strerror(errno));
  }
  return s.status;
}

}  // namespace sbacc_tool
