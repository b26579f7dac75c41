// The sbacc tool driven as a program on a simulated controller of its own:
// exit statuses, output, status --json, verify and repair, bad input.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

using Args = std::vector<std::string>;
constexpr int kAreaSize = 1024;  // every area of the simulated controller

struct Result {
  int status = -1;
  std::string out, err;
};

std::string Slurp(const std::string& path) {
  std::ostringstream s;
  s << std::ifstream(path, std::ios::binary).rdbuf();
  return s.str();
}

class ToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* base = getenv("TMPDIR");
    std::string tmpl = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/sbacc-tool-test-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
    tmp_ = tmpl;
    dir_ = tmp_ + "/ctl";
    ASSERT_EQ(Run({"sim", "create", dir_, "--size", std::to_string(kAreaSize), "--areas", "1"}).status, 0);
    setenv("SBACC_FILELIST", (dir_ + "/filelist.ini").c_str(), 1);
    setenv("SANFWCTL_NV_IMAGE", (dir_ + "/nv.img").c_str(), 1);
    setenv("MC_TRACE_FILE", (dir_ + "/log/sbacc.log").c_str(), 1);
    setenv("SBACC_SCRUB_RECORD", (tmp_ + "/last-scrub").c_str(), 1);
  }
  void TearDown() override {
    if (holder_ > 0 && kill(holder_, SIGKILL) == 0) waitpid(holder_, nullptr, 0);
    std::filesystem::remove_all(tmp_);
  }

  Result Run(const Args& args, const std::string& input = "") {
    int ws = 0;
    const pid_t pid = Spawn(args, input, "");
    if (pid <= 0 || waitpid(pid, &ws, 0) != pid) return {};
    return {WIFEXITED(ws) ? WEXITSTATUS(ws) : 128 + WTERMSIG(ws), Slurp(tmp_ + "/stdout"), Slurp(tmp_ + "/stderr")};
  }
  // A writer that holds AREA open (with DATA written) until the test ends.
  void Hold(const std::string& area, const std::string& data) {
    std::ofstream(tmp_ + "/hold.in", std::ios::binary) << data;
    holder_ = Spawn({"hold", area, tmp_ + "/hold.in"}, "", ".hold");
    for (int i = 0; i < 500 && Slurp(tmp_ + "/stdout.hold").find("holding") == std::string::npos; ++i) usleep(10000);
    ASSERT_NE(Slurp(tmp_ + "/stdout.hold").find("holding"), std::string::npos);
  }
  pid_t Spawn(const Args& args, const std::string& input, const std::string& suffix) {
    const std::string in = tmp_ + "/stdin" + suffix, out = tmp_ + "/stdout" + suffix, err = tmp_ + "/stderr" + suffix;
    std::ofstream(in, std::ios::binary) << input;
    std::vector<char*> argv{const_cast<char*>(SBACC_TOOL_PATH)};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, in.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&fa, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = 0;
    const bool started = posix_spawn(&pid, SBACC_TOOL_PATH, &fa, nullptr, argv.data(), environ) == 0;
    posix_spawn_file_actions_destroy(&fa);
    return started ? pid : -1;
  }
  nlohmann::json Status(const std::string& area, int want_status) {
    Result r = Run(area.empty() ? Args{"status", "--json"} : Args{"status", "--json", area});
    EXPECT_EQ(r.status, want_status) << r.out << r.err;
    return nlohmann::json::parse(r.out);
  }
  std::string Hdd(int copy) const { return dir_ + "/hdd" + std::to_string(copy) + ".img"; }
  std::string AreaBytes(int copy, int area, size_t len = kAreaSize) const {
    return Slurp(Hdd(copy)).substr(static_cast<size_t>(area) * kAreaSize, len);
  }
  std::string Images() const { return Slurp(Hdd(0)) + Slurp(Hdd(1)) + Slurp(dir_ + "/nv.img"); }

  void Plant(int copy, long offset, const std::string& bytes) {
    std::fstream f(Hdd(copy), std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(offset);
    f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }

  std::string tmp_, dir_;
  pid_t holder_ = -1;
};

TEST_F(ToolTest, DataCommandsAndLibraryErrors) {
  Result r = Run({"cat", "envfw_backup0"});  // NV never initialised: a library error
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("SBACC_E_NOTINIT (-104): not initialised"), std::string::npos) << r.err;
  EXPECT_EQ(r.out, "");
  ASSERT_EQ(Run({"init"}).status, 0);
  EXPECT_EQ(Run({"put", "envfw_backup0"}, "hello world").status, 0);
  EXPECT_EQ(Run({"write", "envfw_backup0", "6", "-"}, "WORLD!").status, 0);
  EXPECT_EQ(Run({"cat", "envfw_backup0"}).out, "hello WORLD!");
  EXPECT_EQ(Run({"truncate", "envfw_backup0", "5"}).status, 0);
  EXPECT_EQ(Run({"cat", "envfw_backup0"}).out, "hello");
  EXPECT_EQ(Run({"put", "envfw_backup0"}, "hi").status, 0);  // no old tail left behind
  EXPECT_EQ(Run({"cat", "envfw_backup0"}).out, "hi");
  const std::string dump = Run({"dump"}).out, file = tmp_ + "/dump.txt";
  EXPECT_EQ(dump.rfind(">>>>> OUTPUT TIME: ", 0), 0u);
  EXPECT_EQ(Run({"dump", file}).status + Run({"dump", file}).status, 0);
  EXPECT_EQ(Slurp(file).size(), 2 * dump.size());  // appended
}

TEST_F(ToolTest, StatusFollowsAPulledAndReplacedDisk) {
  nlohmann::json s = Status("envfw_backup1", 1);  // never started
  EXPECT_EQ(s["areas"][0]["copies"][1]["state"], "blank");
  EXPECT_EQ(s["action"], "NV not initialised: run 'sbacc init'");
  ASSERT_EQ(Run({"init"}).status, 0);
  Plant(1, 2 * kAreaSize + 80, "\x01");  // an unfinished write in copy 1 of envfw_sysback
  EXPECT_NE(Status("envfw_sysback", 1)["areas"][0]["flags"][0]["text"].get<std::string>().find(
                "copy 1 has a write-intent record set (0 bytes at 0)"), std::string::npos);
  Plant(1, 2 * kAreaSize + 80, std::string(1, '\0'));
  s = Status("envfw_backup1", 0);
  ASSERT_EQ(s["areas"].size(), 1u);
  const nlohmann::json& a = s["areas"][0];
  EXPECT_EQ((std::vector<int>{a["index"], a["address"], a["capacity"]}), (std::vector<int>{1, kAreaSize, kAreaSize - 128}));
  ASSERT_EQ(a["copies"].size(), 2u);
  EXPECT_EQ(a["copies"][1]["state"], "healthy");

  ASSERT_EQ(Run({"sim", "pull", dir_, "1"}).status, 0);
  EXPECT_EQ(Status("envfw_backup0", 1)["areas"][0]["copies"][1]["state"], "missing");
  ASSERT_EQ(Run({"put", "envfw_backup0"}, "still here").status, 0);
  s = Status("envfw_backup0", 1)["areas"][0];
  EXPECT_EQ(s["copies"][1]["state"], "fenced off");
  EXPECT_EQ(s["nv"]["hddblockade"], 2);
  EXPECT_EQ(s["verdict"], "degraded");
  EXPECT_EQ(Status("", 1)["action"], "disk 1 fenced off in 8 of 8 areas: replace it, then run 'sbacc restore'");
  EXPECT_NE(Run({"status", "-x"}).out.find("blockade 0x2 (copy 1)"), std::string::npos);
  EXPECT_EQ(Run({"cat", "envfw_backup0"}).out, "still here");

  ASSERT_EQ(Run({"sim", "replace", dir_, "1"}).status, 0);
  ASSERT_EQ(Run({"init"}).status, 0);
  s = Status("", 0);
  EXPECT_EQ(s["ok"], true);
  EXPECT_EQ(s["areas"].size(), 8u);
  EXPECT_EQ(AreaBytes(1, 0), AreaBytes(0, 0));  // rebuilt at start-up
}

// Differences planted in area 1 (copy, offset in the area, bytes) are
// reported with status 1.  --repair rewrites only when the headers justify a
// side; otherwise it refuses, writes nothing, and --from names the copy.
TEST_F(ToolTest, VerifyRepairsOnlyWhatItCanJustify) {
  const struct { std::vector<std::tuple<int, long, std::string>> writes; std::string report, decision; int right; } cases[] = {
      {{{1, 128 + 5, "XY"}}, "copy 1 differs from copy 0: 2 data bytes differ, the first at offset 5\n", "", 0},
      // One flipped byte in copy 0 must never be copied over the good copy 1.
      {{{0, 128 + 3, "?"}}, "copy 1 differs from copy 0: 1 data byte differs, the first at offset 3\n", "", 1},
      {{{1, 60, "\x7f"}}, "copy 1 differs from copy 0: header field opencnt\n", "the data agree", 0},
      // The copy claims two more bytes, and they differ from what the reference holds there.
      {{{1, 44, "\x12"}, {1, 128 + 16, "@@"}},
       "copy 1 differs from copy 0: header field filesize; 2 data bytes differ, the first at offset 16\n", "", 0},
      {{{1, 79, "\x01"}, {1, 128, "new"}}, "header field closetime; 3 data bytes differ", "copy 1 is taken as right: it was closed last", 1}};
  ASSERT_EQ(Run({"init"}).status, 0);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.report);
    ASSERT_EQ(Run({"put", "envfw_backup1"}, "0123456789abcdef").status, 0);
    ASSERT_EQ(Run({"verify"}).status, 0);
    for (const auto& [copy, offset, bytes] : c.writes) Plant(copy, kAreaSize + offset, bytes);
    Result r = Run({"verify"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find(c.report), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("1 mismatch"), std::string::npos) << r.out;
    const nlohmann::json scrub = Status("", 0)["last_scrub"];  // kept by verify for status
    EXPECT_EQ((std::vector<int>{scrub["areas"], scrub["mismatches"], scrub["status"]}), (std::vector<int>{8, 1, 1}));
    const std::string planted = Images();
    r = Run({"verify", "--repair", "envfw_backup1"});
    if (c.decision.empty()) {
      EXPECT_EQ(r.status, 1) << r.out << r.err;
      EXPECT_NE(r.out.find("not repaired: nothing shows which copy is right"), std::string::npos) << r.out;
      EXPECT_EQ(Images(), planted);
      r = Run({"verify", "--repair", "--from", std::to_string(c.right), "envfw_backup1"});
    } else {
      EXPECT_NE(r.out.find(c.decision), std::string::npos) << r.out;
    }
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("rewritten from copy " + std::to_string(c.right)), std::string::npos) << r.out;
    EXPECT_EQ(AreaBytes(0, 1, 128 + 16), AreaBytes(1, 1, 128 + 16));  // header and data up to the size (16)
    EXPECT_EQ(Run({"verify"}).status, 0);
    EXPECT_EQ(Status("envfw_backup1", 0)["areas"][0]["nv"]["repairlock"][0], 0);
  }
}

// With three copies, two that agree outvote the one a flipped byte damaged.
TEST_F(ToolTest, VerifyRepairFollowsAStrictMajority) {
  dir_ = tmp_ + "/ctl3";
  ASSERT_EQ(Run({"sim", "create", dir_, "-k", "3", "--size", std::to_string(kAreaSize)}).status, 0);
  setenv("SBACC_FILELIST", (dir_ + "/filelist.ini").c_str(), 1);
  setenv("SANFWCTL_NV_IMAGE", (dir_ + "/nv.img").c_str(), 1);
  ASSERT_EQ(Run({"init"}).status, 0);
  ASSERT_EQ(Run({"put", "envfw_verid"}, "0123").status, 0);
  Plant(0, 4 * kAreaSize + 128 + 1, "?");
  Result r = Run({"verify", "--repair"});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("copy 1 is taken as right: copies 1 and 2 hold the same data, a majority of 3"),
            std::string::npos) << r.out;
  EXPECT_EQ(AreaBytes(0, 4, 128 + 4), AreaBytes(2, 4, 128 + 4));
}

// No service action touches the controller while a writer holds an area open,
// even with a difference between its copies; a writer that died is no reason
// to refuse, and its area is reported as repaired.
TEST_F(ToolTest, ServiceActionsLeaveALiveWriterAlone) {
  ASSERT_EQ(Run({"init"}).status, 0);
  ASSERT_EQ(Run({"put", "envfw_backup1"}, "intact").status, 0);
  Hold("envfw_backup0", "live data");
  Plant(1, 128 + 2, "#");
  const std::string before = Images();
  const struct { Args args; int status; std::string message; } cases[] = {
      {{"verify", "--repair"}, 0, "envfw_backup0: being written (pid "},
      {{"init"}, 2, "refused: pid "},
      {{"restore", "-c", "1"}, 2, "refused: pid "}};
  for (const auto& c : cases) {
    Result r = Run(c.args);
    EXPECT_EQ(r.status, c.status) << r.out << r.err;
    EXPECT_NE((r.out + r.err).find(c.message), std::string::npos) << r.out << r.err;
    EXPECT_EQ(Images(), before);
  }
  EXPECT_NE(Status("envfw_backup0", 0)["areas"][0]["flags"][0]["text"].get<std::string>().find("open for writing now"),
            std::string::npos);
  ASSERT_EQ(kill(holder_, SIGKILL), 0);
  waitpid(holder_, nullptr, 0);
  holder_ = -1;
  EXPECT_EQ(Status("envfw_backup0", 1)["areas"][0]["flags"][0]["problem"], true);  // left open
  Result r = Run({"restore"});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("envfw_backup0                   repaired: was left open by a writer that never closed; "
                       "data repaired: copied from envfw_backup1"), std::string::npos) << r.out;
}

// A line the library ignores is named, with every area whose NV record it shifts.
TEST_F(ToolTest, LsCheckNamesIgnoredLinesAndShiftedRecords) {
  EXPECT_EQ(Run({"ls", "--check"}).status, 0);
  const std::string list = dir_ + "/filelist.ini";
  std::ofstream(list + ".new") << "broken,zz,100," << Hdd(0) << "\n" << Slurp(list);
  std::filesystem::rename(list + ".new", list);
  Result r = Run({"ls", "--check"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("line 1: 'broken' ignored"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("area 'area00' (#7) uses NV record 8, shifted"), std::string::npos) << r.out;
  EXPECT_NE(Run({"status"}).err.find("warning: the area list"), std::string::npos);
}

// Bad usage exits 2 with the reason and a pointer to --help on standard
// error, and writes nothing.
TEST_F(ToolTest, BadInputExits2AndWritesNothing) {
  const struct { Args args; std::string input, message; } cases[] = {
      {{}, "", "A subcommand is required"},
      {{"frobnicate"}, "", "unknown command 'frobnicate'"},
      {{"sim", "frob"}, "", "unknown command 'frob'"},
      {{"cat"}, "", "AREA is required"},
      {{"cat", "nosuch"}, "", "unknown area 'nosuch'"},
      {{"verify", "envfw_backup0", "nosuch"}, "", "unknown area 'nosuch'"},
      {{"cat", "envfw_backup0", "extra"}, "", "not expected: extra"},
      {{"write", "envfw_backup0", "12x"}, "x", "'12x' is not a number"},
      {{"truncate", "envfw_backup0", "-1"}, "", "'-1' is negative"},
      {{"truncate", "envfw_backup0", "897"}, "", "holds at most 896 bytes"},
      {{"write", "envfw_backup0", "890"}, "12345678", "holds at most 896 bytes"},
      {{"put", "envfw_backup0"}, std::string(897, 'x'), "holds at most 896 bytes"},
      {{"put", "envfw_backup0", "/nonexistent/file"}, "", "cannot read '/nonexistent/file'"},
      {{"init", "--controller", "7"}, "", "not in range 0 to 3"},
      {{"repair-init"}, "", "--controller is required"},
      {{"sim", "pull", dir_, "2"}, "", "no copy 2"},
      {{"sim", "create", dir_}, "", "already holds a simulated controller"},
      {{"__doc", "nonsense"}, "", "expected man, markdown or complete"}};
  ASSERT_EQ(Run({"init"}).status, 0);
  ASSERT_EQ(Run({"put", "envfw_backup0"}, "keep").status, 0);
  const std::string before = Images();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    Result r = Run(c.args, c.input);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.substr(0, r.err.find('\n')).find(c.message), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("\nTry '"), std::string::npos) << r.err;  // one line and where the help is
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 2) << r.err;
    EXPECT_EQ(Images(), before);
  }
}

}  // namespace
