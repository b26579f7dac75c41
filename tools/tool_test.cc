// The sbacc tool driven as a program on a simulated controller of its own:
// exit statuses, output, status --json, verify and repair, bad input.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

extern char** environ;

namespace {

using Args = std::vector<std::string>;
using nlohmann::json;
constexpr int kAreaSize = 1024;  // every area of the simulated controller

struct Result {
  int status = -1;
  std::string out, err;
};

std::string Slurp(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(f), {}};
}

::testing::AssertionResult Has(const std::string& text, const std::string& part) {
  return ::testing::IsSubstring("part", "text", part, text);
}

// The values at the JSON pointers PATHS in J, null where there is none.
json Pick(const json& j, std::initializer_list<const char*> paths) {
  json values = json::array();
  for (const char* path : paths) values.push_back(j.value(json::json_pointer(path), json()));
  return values;
}

class ToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tmp_ = std::filesystem::temp_directory_path() / "sbacc-tool-test-XXXXXX";
    ASSERT_NE(mkdtemp(tmp_.data()), nullptr);
    Create("ctl", {"--areas", "1"});
    setenv("MC_TRACE_FILE", (dir_ + "/log/sbacc.log").c_str(), 1);
    setenv("SBACC_STATE_DIR", tmp_.c_str(), 1);
    setenv("SBACC_CONTROLLER", "0", 1);
  }
  void TearDown() override {
    if (holder_ > 0 && kill(holder_, SIGKILL) == 0) waitpid(holder_, nullptr, 0);
    std::filesystem::remove_all(tmp_);
  }
  // A simulated controller in tmp_/NAME, made the one the tool works on.
  void Create(const std::string& name, Args options) {
    dir_ = tmp_ + "/" + name;
    options.insert(options.begin(), {"sim", "create", dir_, "--size", std::to_string(kAreaSize)});
    Run(options);
    setenv("SBACC_FILELIST", (dir_ + "/filelist.ini").c_str(), 1);
    setenv("SANFWCTL_NV_IMAGE", (dir_ + "/nv.img").c_str(), 1);
  }

  // Starts the tool with standard input, output and error in IO.in, .out, .err.
  pid_t Spawn(const Args& args, const std::string& input, const std::string& io) {
    std::ofstream(io + ".in", std::ios::binary) << input;
    const std::string script = "exec \"$0\" \"$@\" <'" + io + ".in' >'" + io + ".out' 2>'" + io + ".err'";
    std::vector<const char*> argv{"sh", "-c", script.c_str(), SBACC_TOOL_PATH};
    for (const std::string& a : args) argv.push_back(a.c_str());
    argv.push_back(nullptr);
    pid_t pid = -1;
    return posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv.data()), environ) == 0 ? pid : -1;
  }
  // Runs the tool and expects exit WANT with every one of PARTS in its standard output.
  Result Run(const Args& args, int want = 0, std::initializer_list<std::string> parts = {},
             const std::string& input = "") {
    int ws = 0;
    const pid_t pid = Spawn(args, input, tmp_ + "/run");
    EXPECT_TRUE(pid > 0 && waitpid(pid, &ws, 0) == pid);
    Result r{WIFEXITED(ws) ? WEXITSTATUS(ws) : 128 + WTERMSIG(ws), Slurp(tmp_ + "/run.out"), Slurp(tmp_ + "/run.err")};
    EXPECT_EQ(r.status, want) << ::testing::PrintToString(args) << "\n" << r.out << r.err;
    for (const std::string& part : parts) EXPECT_TRUE(Has(r.out, part)) << ::testing::PrintToString(args);
    return r;
  }
  // A writer that holds AREA open (with DATA written) until the test ends.
  void Hold(const std::string& area, const std::string& data) {
    std::ofstream(tmp_ + "/hold.data", std::ios::binary) << data;
    holder_ = Spawn({"hold", area, tmp_ + "/hold.data"}, "", tmp_ + "/hold");
    for (int i = 0; i < 500 && !Has(Slurp(tmp_ + "/hold.out"), "holding"); ++i) usleep(10000);
    ASSERT_TRUE(Has(Slurp(tmp_ + "/hold.out"), "holding"));
  }
  // status --json for AREA (all areas if empty), expecting exit WANT.
  json Status(const std::string& area, int want) {
    return json::parse(Run(area.empty() ? Args{"status", "--json"} : Args{"status", "--json", area}, want).out);
  }
  json Area(const std::string& area, int want) { return Status(area, want)["areas"][0]; }
  std::string Hdd(int copy) const { return dir_ + "/hdd" + std::to_string(copy) + ".img"; }
  std::string AreaBytes(int copy, int area, size_t len) const { return Slurp(Hdd(copy)).substr(area * kAreaSize, len); }
  std::string Images() const { return Slurp(Hdd(0)) + Slurp(Hdd(1)) + Slurp(dir_ + "/nv.img"); }
  void Plant(int copy, long offset, const std::string& bytes) {
    std::fstream(Hdd(copy), std::ios::in | std::ios::out | std::ios::binary).seekp(offset) << bytes;
  }

  std::string tmp_, dir_;
  pid_t holder_ = -1;
};

TEST_F(ToolTest, StatusFollowsAPulledAndReplacedDisk) {
  EXPECT_EQ(Pick(Status("envfw_backup1", 3), {"/areas/0/copies/1/state", "/action"}),
            json::array({"blank", "NV not initialised: run 'sbacc init'"}));  // never started
  Run({"init"});
  Plant(1, 2 * kAreaSize + 80, "\x01");  // an unfinished write in copy 1 of envfw_sysback
  EXPECT_TRUE(Has(Area("envfw_sysback", 2)["flags"][0]["text"], "copy 1 has a write-intent record set (0 bytes at 0)"));
  Plant(1, 2 * kAreaSize + 80, std::string(1, '\0'));
  // Area 1 alone, with two copies.
  EXPECT_EQ(Pick(Status("envfw_backup1", 0), {"/areas/0/index", "/areas/0/address", "/areas/0/capacity",
                                              "/areas/0/copies/1/state", "/areas/0/copies/2", "/areas/1"}),
            json::array({1, kAreaSize, kAreaSize - 128, "healthy", nullptr, nullptr}));

  Run({"put", "area00"}, 0, {}, "precious");
  Run({"sim", "pull", dir_, "1"});
  EXPECT_EQ(Area("envfw_backup0", 2)["copies"][1]["state"], "missing");
  EXPECT_TRUE(Has(Run({"put", "envfw_backup0"}, 2, {}, "still here").err, "copy 1 of envfw_backup0"));
  EXPECT_EQ(Pick(Area("envfw_backup0", 2), {"/copies/1/state", "/nv/hddblockade", "/verdict"}),
            json::array({"fenced off", 2, "degraded"}));
  EXPECT_EQ(Status("", 2)["action"], "disk 1 fenced off in 8 of 8 areas: replace it, then run 'sbacc restore'");
  // Problem lines only: the title and the copy, not the healthy copy 0.
  const std::string x = Run({"status", "-x"}, 2, {"  ! copy 1 fenced off: "}).out;
  EXPECT_EQ(x.find("  ! copy 0"), std::string::npos);
  EXPECT_EQ(std::count(x.begin(), x.end(), '\n'), 8 * 2 + 4) << x;
  EXPECT_EQ(Run({"cat", "envfw_backup0"}).out, "still here");
  // With copy 0 of area00 damaged its only copy may be on the pulled disk:
  // bring it back, never replace it; only an explicit request writes it off.
  Plant(0, 7 * kAreaSize, "X");
  EXPECT_EQ(Run({"status", "-x"}, 3, {"action: bring disk 1 back first: it may hold the only copy of area00;"})
                .out.find("replace"), std::string::npos);
  Run({"restore"}, 3, {"no usable copy: left as it is"});
  Run({"sim", "return", dir_, "1"});
  Run({"restore"}, 0, {"area00                          rebuilt: stale copy 0 rebuilt from copy 1"});
  EXPECT_EQ(Run({"cat", "area00"}).out, "precious");
  Run({"sim", "pull", dir_, "1"});
  Plant(0, 7 * kAreaSize, "X");
  Run({"restore", "--accept-loss", "area00"}, 3, {"copy 0 (" + Hdd(0) + "): no valid header", "RE-CREATED EMPTY"});
  EXPECT_EQ(Run({"cat", "area00"}).out, "");

  Run({"sim", "replace", dir_, "1"});
  const std::string replaced = Images();  // a dry run foresees the rebuild and writes nothing
  Run({"init", "--dry-run"}, 0, {"stale copy 1 rebuilt from copy 0", "init (dry run, nothing written): 8 areas"});
  EXPECT_EQ(Images(), replaced);
  Run({"init"});
  EXPECT_EQ(Pick(Status("", 0), {"/ok", "/areas/7/name", "/areas/8", "/version"}),
            json::array({true, "area00", nullptr, 2}));
  EXPECT_EQ(Run({"status", "-x"}).out, "status: 8 areas, 8 ok, 0 with problems, 2 disks: healthy\n");
  EXPECT_EQ(AreaBytes(1, 0, kAreaSize), AreaBytes(0, 0, kAreaSize));  // rebuilt at start-up
}

// Differences planted in area 1 (copy, offset in the area, bytes) are
// reported with status 3.  --repair rewrites only when the integrity records
// or, where no copy has one, the headers justify a side; otherwise it
// refuses, writes nothing, and --from names the copy.
TEST_F(ToolTest, VerifyRepairsOnlyWhatItCanJustify) {
  const std::string no_record(36, '\0'), failed = "its data pass its integrity record; copy ";
  const std::tuple<std::vector<std::tuple<int, long, std::string>>, std::string, std::string, int> cases[] = {
      {{{1, 128 + 5, "XY"}}, "2 data bytes differ, the first at offset 5\n", failed + "1 fails its own", 0},
      // One flipped byte in copy 0 must never be copied over the good copy 1.
      {{{0, 128 + 3, "?"}}, "1 data byte differs, the first at offset 3\n", failed + "0 fails its own", 1},
      {{{1, 60, "\x7f"}}, "header field opencnt\n", "the data agree", 0},
      // The copy claims two more bytes, past what its record covers: both copies pass.
      {{{1, 44, "\x12"}, {1, 144, "@@"}},
       "header field filesize; 2 data bytes differ, the first at offset 16\n",
       "",
       0},
      // The record outweighs the close time.
      {{{1, 79, "\x01"}, {1, 128, "new"}}, "copy 0 differs from copy 1: header field closetime; 3 data bytes differ",
       failed + "1 fails its own", 0},
      // Without records, copy 1 closed last is the latest copy, the one the others are compared with.
      {{{0, 92, no_record}, {1, 92, no_record}, {1, 79, "\x01"}, {1, 128, "new"}},
       "copy 0 differs from copy 1: header field closetime; 3 data bytes differ", "it was closed last", 1}};
  Run({"init"});
  for (const auto& [writes, report, decision, right] : cases) {
    SCOPED_TRACE(report);
    Run({"put", "envfw_backup1"}, 0, {}, "0123456789abcdef");
    Run({"verify"});
    for (const auto& [copy, offset, bytes] : writes) Plant(copy, kAreaSize + offset, bytes);
    const std::string bad = "copy " + std::to_string(1 - right), fails = " fails its integrity record";
    if (decision.starts_with(failed)) {  // known to status before any scrub: degraded
      const json st = Status("", 2);
      EXPECT_EQ(st["areas"][1]["copies"][1 - right]["integrity"], "bad");
      EXPECT_EQ(st["action"], bad + " of envfw_backup1" + fails + ": run 'sbacc verify --repair envfw_backup1'");
      Run({"status", "-x"}, 2, {"  ! " + bad + fails});
    }
    Run({"verify"}, 3, {report.starts_with("copy ") ? report : "copy 1 differs from copy 0: " + report, "1 mismatch",
                        decision.starts_with(failed) ? bad + fails : ""});
    // Kept by verify for status, which shows it as a problem.
    EXPECT_EQ(Pick(Status("", 3), {"/last_scrub/areas/envfw_backup1/result", "/last_scrub/areas/area00/result",
                                   "/action"}),
              json::array({"mismatch", "ok", "the last scrub found copies that differ in envfw_backup1: run "
                                             "'sbacc verify --repair envfw_backup1'"}));
    const std::string planted = Images(), rewritten = "rewritten from copy " + std::to_string(right);
    if (decision.empty()) {
      Run({"verify", "--repair", "envfw_backup1"}, 3, {"not repaired: nothing shows which copy is right"});
      EXPECT_EQ(Images(), planted);
      Run({"verify", "--repair", "--from", std::to_string(right), "envfw_backup1"}, 0, {rewritten});
    } else {
      Run({"verify", "--repair", "envfw_backup1"}, 0,
          {"copy " + std::to_string(right) + " is taken as right: " + decision, rewritten});
    }
    EXPECT_EQ(AreaBytes(0, 1, 128 + 16), AreaBytes(1, 1, 128 + 16));  // header and data up to the size (16)
    Run({"verify"});
    EXPECT_EQ(Area("envfw_backup1", 0)["nv"]["repairlock"][0], 0);
  }
  // With three copies and the records off, two that agree outvote the one a
  // flipped byte damaged; status checks nothing then.
  setenv("SBACC_CHECKSUM", "0", 1);
  Create("ctl3", {"-k", "3"});
  Run({"init"});
  Run({"put", "envfw_verid"}, 0, {}, "0123");
  Plant(0, 4 * kAreaSize + 128 + 1, "?");
  EXPECT_EQ(Area("envfw_verid", 0)["copies"][0]["integrity"], nullptr);
  Run({"verify", "--repair"}, 0, {"copy 1 is taken as right: copies 1 and 2 hold the same data, a majority of 3"});
  EXPECT_EQ(AreaBytes(0, 4, 128 + 4), AreaBytes(2, 4, 128 + 4));
  unsetenv("SBACC_CHECKSUM");
}

// No service action touches the controller while a writer holds an area open,
// even with a difference between its copies; a writer that died is no reason
// to refuse, and its area is reported as repaired.
TEST_F(ToolTest, ServiceActionsLeaveALiveWriterAlone) {
  Run({"init"});
  Run({"put", "envfw_backup1"}, 0, {}, "intact");
  Hold("envfw_backup0", "live data");
  Plant(1, 128 + 2, "#");
  const std::string before = Images();
  const std::tuple<Args, int, std::string> cases[] = {{{"verify", "--repair"}, 1, "envfw_backup0: being written (pid "},
                                                      {{"init"}, 4, "refused: pid "},
                                                      {{"restore", "-c", "1"}, 4, "refused: pid "}};
  for (const auto& [args, status, message] : cases) {
    const Result r = Run(args, status);
    EXPECT_TRUE(Has(r.out + r.err, message));
    EXPECT_EQ(Images(), before);
  }
  // With --json the refusal is a JSON error object on standard output too.
  const json refused = json::parse(Run({"init", "--json"}, 4).out);
  EXPECT_EQ(Pick(refused, {"/status", "/ok", "/error/usage"}), json::array({4, false, false}));
  EXPECT_TRUE(Has(refused["error"]["message"], "refused: pid "));
  // The scrub skipped it: incomplete until a verify of it finds it clean; the
  // planted byte fails copy 1's record (degraded).
  EXPECT_EQ(Pick(Area("envfw_backup0", 2), {"/flags/0/problem", "/flags/1/status"}), json::array({false, 1}));
  EXPECT_TRUE(Has(Area("envfw_backup0", 2)["flags"][0]["text"], "open for writing now"));
  ASSERT_EQ(kill(holder_, SIGKILL), 0);
  waitpid(holder_, nullptr, 0);
  holder_ = -1;
  EXPECT_EQ(Area("envfw_backup0", 2)["flags"][0]["problem"], true);  // left open
  Run({"restore"}, 0,
      {"envfw_backup0                   repaired: was left open by a writer that never closed; "
       "data repaired: copied from envfw_backup1"});
}

// Bad usage exits 4 with the reason and a pointer to --help on standard
// error, and writes nothing.
TEST_F(ToolTest, BadInputExits4AndWritesNothing) {
  const std::tuple<Args, std::string, std::string> cases[] = {
      {{"cat", "nosuch"}, "", "unknown area 'nosuch'"},
      {{"truncate", "envfw_backup0", "897"}, "", "holds at most 896 bytes"},
      {{"put", "envfw_backup0"}, std::string(897, 'x'), "holds at most 896 bytes"},
      {{"repair-init"}, "", "which controller is this? give --controller or set SBACC_CONTROLLER"},
      {{"restore"}, "", "which controller is this?"},
      {{"__doc", "nonsense"}, "", "expected man, markdown or complete"}};
  Run({"init"});
  Run({"put", "envfw_backup0"}, 0, {}, "keep");
  const std::string before = Images();
  unsetenv("SBACC_CONTROLLER");  // a command that takes a lock must not guess
  for (const auto& [args, input, message] : cases) {
    const Result r = Run(args, 4, {}, input);
    EXPECT_EQ(r.out, "");
    // One line with the reason, one with where the help is.
    EXPECT_TRUE(Has(r.err.substr(0, r.err.find('\n')), message));
    EXPECT_TRUE(Has(r.err, "\nTry '"));
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 2) << r.err;
    EXPECT_EQ(Images(), before);
  }
  setenv("SBACC_CONTROLLER", "7", 1);
  EXPECT_TRUE(Has(Run({"restore"}, 4).err, "SBACC_CONTROLLER='7' is not a controller number (0-3)"));
  EXPECT_EQ(Images(), before);
  // A line the library ignores is named, with every area whose NV record it shifts.
  Run({"ls", "--check"});
  const std::string list = dir_ + "/filelist.ini";
  std::ofstream(list + ".new") << "broken,zz,100," << Hdd(0) << "\n" << Slurp(list);
  std::filesystem::rename(list + ".new", list);
  Run({"ls", "--check"}, 3, {"line 1: 'broken' ignored", "area 'area00' (#7) uses NV record 8, shifted"});
  EXPECT_TRUE(Has(Run({"status"}, 3).err, "warning: the area list"));
  // With --json a failure is a JSON document too.
  EXPECT_EQ(Pick(json::parse(Run({"status", "--json", "nosuch"}, 4).out), {"/status", "/error/message", "/version"}),
            json::array({4, "unknown area 'nosuch' (see 'sbacc ls')", 2}));
}

// A stand-in for the journal: a datagram socket the monitor sends to.
class Journal {
 public:
  explicit Journal(const std::string& path) {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    path.copy(addr.sun_path, sizeof addr.sun_path - 1);
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    setenv("SBACC_JOURNAL_SOCKET", path.c_str(), 1);
  }
  ~Journal() {
    close(fd_);
    unsetenv("SBACC_JOURNAL_SOCKET");
  }
  // The datagrams sent since the last call.
  std::vector<std::string> Drain() {
    std::vector<std::string> out;
    char buf[4096];
    for (ssize_t n; (n = recv(fd_, buf, sizeof buf, MSG_DONTWAIT)) > 0;) out.emplace_back(buf, static_cast<size_t>(n));
    return out;
  }

 private:
  int fd_ = -1;
};

// The events in the journal's datagrams, as "EVENT AREA COPY".
std::vector<std::string> Events(const std::vector<std::string>& datagrams) {
  std::vector<std::string> out;
  for (const std::string& d : datagrams) {
    auto field = [&](const std::string& key) {
      const size_t at = d.find("\n" + key + "=");
      return at == std::string::npos ? std::string("-") : d.substr(at + key.size() + 2, d.find('\n', at + 1) - at - key.size() - 2);
    };
    out.push_back(field("SBACC_EVENT") + " " + field("SBACC_AREA") + " " + field("SBACC_COPY"));
  }
  std::sort(out.begin(), out.end());
  return out;
}

// What an operations team relies on, on one simulated controller with three
// disks: a disk pulled (event, hook, metrics, exit 2), an area without a
// usable copy (exit 3), a scrub with a mismatch and a skipped area that status
// reports and a verify of another area keeps, and the disk replaced and
// rebuilt (event, exit 0).
TEST_F(ToolTest, OperationsScenario) {
  Create("ops", {"-k", "3", "--areas", "1"});
  Journal journal(tmp_ + "/journal.sock");
  const std::string hook = tmp_ + "/hook.sh", log = tmp_ + "/hook.log", prom = tmp_ + "/sbacc.prom";
  std::ofstream(hook) << "#!/bin/sh\n{ echo \"$SBACC_EVENT $SBACC_AREA $SBACC_COPY $SBACC_DISK\"; cat; } >>'" << log
                      << "'\n";
  std::filesystem::permissions(hook, std::filesystem::perms::owner_all);
  const Args monitor{"monitor", "--oneshot", "--hook", hook};
  Run({"init"});
  Run({"put", "envfw_backup1"}, 0, {}, "configuration");
  Run(monitor);
  EXPECT_EQ(journal.Drain(), std::vector<std::string>{});

  // A disk pulled, and fenced off by the next write.
  Run({"sim", "pull", dir_, "2"});
  EXPECT_TRUE(Has(Run({"put", "envfw_backup0"}, 2, {}, "gen 2").err, "copy 2 of envfw_backup0"));
  Run(monitor, 2);
  const std::vector<std::string> pulled = Events(journal.Drain());
  ASSERT_EQ(pulled.size(), 8u);
  EXPECT_EQ(pulled.front(), "copy-fenced envfw_backup0 2");
  EXPECT_EQ(pulled.back(), "copy-unusable envfw_verid 2");
  const std::string hooked = Slurp(log);
  EXPECT_TRUE(Has(hooked, "copy-fenced envfw_backup0 2 " + Hdd(2) + "\n{"));
  const json first = json::parse(hooked.substr(hooked.find('{'), hooked.find('\n', hooked.find('{')) - hooked.find('{')));
  EXPECT_EQ(Pick(first, {"/version", "/status", "/disk"}), json::array({2, 2, Hdd(2)}));
  Run(monitor, 2);
  EXPECT_EQ(journal.Drain().size(), 0u);  // nothing changed, nothing raised
  Run({"metrics", "--textfile", tmp_}, 2);
  for (const std::string& line : std::vector<std::string>{"sbacc_area_copies_usable{area=\"envfw_backup0\"} 2\n",
                                  "sbacc_area_copies_fenced{area=\"envfw_backup0\"} 1\n",
                                  "sbacc_disk_areas_fenced{disk=\"" + Hdd(2) + "\",copy=\"2\"} 1\n", "sbacc_status 2\n"}) {
    EXPECT_TRUE(Has(Slurp(prom), line));
  }
  EXPECT_FALSE(std::filesystem::exists(prom + ".tmp"));
  EXPECT_EQ(Status("", 2)["status_name"], "degraded");

  // Area 7 without a usable copy: copy 2 gone, the other two headers damaged.
  const std::string header0 = AreaBytes(0, 7, 4), header1 = AreaBytes(1, 7, 4);
  Plant(0, 7 * kAreaSize, "XXXX");
  Plant(1, 7 * kAreaSize, "XXXX");
  EXPECT_EQ(Status("area00", 3)["areas"][0]["verdict"], "no usable copy");
  Run(monitor, 3);
  const std::vector<std::string> lost = Events(journal.Drain());
  EXPECT_TRUE(std::find(lost.begin(), lost.end(), "area-unavailable area00 -") != lost.end());
  Plant(0, 7 * kAreaSize, header0);
  Plant(1, 7 * kAreaSize, header1);

  // A scrub: copies 0 and 1 of envfw_backup1 differ, envfw_verid is being written.
  Plant(1, kAreaSize + 128 + 2, "#");
  Hold("envfw_verid", "1234");
  Run({"verify"}, 3, {"envfw_verid: being written", "envfw_backup1: copy 1 differs"});
  for (const Args& after : {Args{}, Args{"verify", "envfw_reboot"}}) {
    if (!after.empty()) Run(after, 1);  // partial: copy 2 is left out
    const json st = Status("", 3);
    EXPECT_EQ(Pick(st, {"/areas/1/flags/0/status", "/areas/4/flags/1/status", "/last_scrub/areas/envfw_reboot/result"}),
              json::array({3, 1, "partial"}));
    EXPECT_TRUE(Has(st["areas"][1]["flags"][0]["text"], "found copies that differ: run 'sbacc verify --repair envfw_backup1'"));
    EXPECT_TRUE(Has(st["areas"][4]["flags"][1]["text"], "skipped it (being written): run 'sbacc verify envfw_verid'"));
  }
  Run({"metrics", "--textfile", tmp_}, 3);
  EXPECT_TRUE(Has(Slurp(prom), "sbacc_scrub_mismatch_areas 1\n"));
  EXPECT_TRUE(Has(Slurp(prom), "sbacc_scrub_skipped_areas 1\n"));
  Run(monitor, 3);
  // The writer's open fenced off copy 2 of envfw_verid, which was missing.
  EXPECT_EQ(Events(journal.Drain()),
            (std::vector<std::string>{"area-unavailable-cleared area00 -", "copy-fenced envfw_verid 2",
                                      "rebuild-finished area00 0", "rebuild-finished area00 1",
                                      "scrub-incomplete envfw_verid -", "scrub-mismatch envfw_backup1 -"}));

  // The disk replaced and rebuilt, the writer gone, the copies repaired.
  kill(holder_, SIGKILL);
  waitpid(holder_, nullptr, 0);
  holder_ = -1;
  Run({"sim", "replace", dir_, "2"});
  Run({"restore"}, 0, {"rebuilt"});
  Run({"verify", "--repair", "--from", "0", "envfw_backup1"}, 0);
  Run({"verify", "envfw_verid"});
  Run(monitor);
  const std::vector<std::string> back = Events(journal.Drain());
  EXPECT_EQ(std::count_if(back.begin(), back.end(), [](const std::string& e) { return e.rfind("rebuild-finished", 0) == 0; }), 8);
  EXPECT_EQ(back.size(), 10u);
  EXPECT_EQ(Run({"status", "-x"}).out, "status: 8 areas, 8 ok, 0 with problems, 3 disks: healthy\n");
}

// Both disks replaced: every copy blank, but NV knew the areas, so the
// start-up reports their data lost (exit 3), not new areas.
TEST_F(ToolTest, StartupReportsReplacedDisksAsLost) {
  Run({"init"});
  Run({"put", "envfw_backup0"}, 0, {}, "precious");
  for (const char* copy : {"0", "1"}) Run({"sim", "replace", dir_, copy});
  const json out = json::parse(Run({"init", "--json"}, 3).out);
  EXPECT_EQ(Pick(out, {"/areas/0/verdict", "/areas/0/data_lost", "/areas/7/verdict", "/status", "/version"}),
            json::array({"lost", true, "lost", 3, 2}));
}

// Read-only commands on a controller whose NV image is missing: each fails
// (exit 4) and none creates the image.
TEST_F(ToolTest, ReadOnlyCommandsNeverCreateTheNvImage) {
  const std::string nv = dir_ + "/nv.img";
  std::filesystem::remove(nv);
  for (const Args& args : {Args{"status"}, Args{"cat", "envfw_backup0"}, Args{"verify"}, Args{"dump"},
                           Args{"metrics"}, Args{"monitor", "--oneshot"}}) {
    EXPECT_TRUE(Has(Run(args, 4).err, "cannot use the NV memory image")) << args[0];
    EXPECT_FALSE(std::filesystem::exists(nv)) << args[0];
  }
}

// examine reads headers off one image with nothing else configured.
TEST_F(ToolTest, ExamineReadsOneImageAlone) {
  Run({"init"});
  Run({"put", "envfw_backup1"}, 0, {}, "12345");
  Plant(0, 3 * kAreaSize + 128, "SBFS");  // the magic inside data is no header
  unsetenv("SBACC_FILELIST");
  unsetenv("SANFWCTL_NV_IMAGE");
  const json all = json::parse(Run({"examine", "--json", Hdd(0)}).out);
  EXPECT_EQ(all["headers"].size(), 8u);
  EXPECT_EQ(Pick(all, {"/headers/1/offset", "/headers/1/name", "/headers/1/filesize", "/headers/1/valid"}),
            json::array({kAreaSize, "envfw_backup1", 5, true}));
  const std::tuple<Args, int, std::string> cases[] = {
      {{"examine", Hdd(1), "--offset", std::to_string(2 * kAreaSize)}, 0, "envfw_sysback"},
      {{"examine", Hdd(1), "--offset", "100"}, 3, "bad"},
      {{"examine", Hdd(1), "--offset", "100000000"}, 1, "examine: 0 headers"},
      {{"examine", tmp_ + "/nosuch"}, 4, ""}};
  for (const auto& [args, status, part] : cases) Run(args, status, {part});
}

// Completion offers area names only where an AREA goes.
TEST_F(ToolTest, CompletionFollowsTheArgumentKind) {
  const std::tuple<Args, bool, std::string> cases[] = {
      {{"cat"}, true, "--help"},          {{"put", "envfw_backup0"}, false, "--help"},
      {{"write", "envfw_backup0"}, false, ""}, {{"verify", "envfw_backup0"}, true, "--repair"},
      {{"verify", "--controller"}, false, ""}, {{"sim"}, false, "create"},
      {{"examine"}, false, "--offset"}};
  for (const auto& [words, areas, other] : cases) {
    Args args{"__doc", "complete"};
    args.insert(args.end(), words.begin(), words.end());
    const std::string out = Run(args).out;
    EXPECT_EQ(Has(out, "envfw_reboot\n"), areas) << words.back();
    EXPECT_TRUE(Has(out, other)) << words.back();
  }
}

// Two controllers (their own NV images) sharing one state directory keep
// their own scrub records and monitor states.
TEST_F(ToolTest, ScrubRecordAndMonitorStateArePerController) {
  const std::string a = dir_;
  Run({"init"});
  Run({"verify"});
  Create("other", {});
  Run({"init"});
  Run({"verify", "envfw_backup0"});
  Run({"monitor", "--oneshot"});
  Run({"sim", "pull", dir_, "1"});
  EXPECT_EQ(Status("", 2)["last_scrub"]["areas"].size(), 1u);
  // A hook that fails is reported; the events still go out and the state is kept.
  const Result failed = Run({"monitor", "--oneshot", "--hook", "false"}, 2);
  EXPECT_TRUE(Has(failed.out, "copy-unusable: envfw_backup0: copy 1 missing"));
  EXPECT_TRUE(Has(failed.err, "hook false failed for copy-unusable (exit 1)"));
  EXPECT_EQ(Run({"monitor", "--oneshot"}, 2).out, "");
  setenv("SBACC_FILELIST", (a + "/filelist.ini").c_str(), 1);
  setenv("SANFWCTL_NV_IMAGE", (a + "/nv.img").c_str(), 1);
  EXPECT_EQ(Status("", 0)["last_scrub"]["areas"].size(), 8u);
  EXPECT_EQ(Run({"monitor", "--oneshot"}).out, "");
  size_t records = 0;
  for (const auto& f : std::filesystem::directory_iterator(tmp_)) records += f.path().extension() == ".json";
  EXPECT_EQ(records, 4u);  // scrub and monitor, per controller
}

// verify's exit status and record follow what it could compare: all copies
// (0), one copy left (1, not compared), none (3).
TEST_F(ToolTest, VerifyStatusFollowsWhatItCompared) {
  Run({"init"});
  const std::tuple<std::function<void()>, int, std::string> steps[] = {
      {[] {}, 0, "ok"},
      {[&] { Run({"sim", "pull", dir_, "1"}); }, 1, "not compared"},
      {[&] { Plant(0, 0, "XXXX"); }, 3, "no usable copy"}};
  for (const auto& [change, status, result] : steps) {
    change();
    const json v = json::parse(Run({"verify", "--json", "envfw_backup0"}, status).out);
    EXPECT_EQ(Pick(v, {"/areas/0/result", "/status"}), json::array({result, status}));
    EXPECT_EQ(Status("", status == 0 ? 0 : 2 + (status == 3))["last_scrub"]["areas"]["envfw_backup0"]["result"],
              result);
  }
}

}  // namespace
