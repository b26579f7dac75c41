// The sbacc tool driven as a program on a simulated controller of its own:
// exit statuses, output, status --json, verify and repair, bad input.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>

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
  void TearDown() override { std::filesystem::remove_all(tmp_); }

  Result Run(const Args& args, const std::string& input = "") {
    const std::string in = tmp_ + "/stdin", out = tmp_ + "/stdout", err = tmp_ + "/stderr";
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
    int ws = 0;
    const bool started = posix_spawn(&pid, SBACC_TOOL_PATH, &fa, nullptr, argv.data(), environ) == 0;
    posix_spawn_file_actions_destroy(&fa);
    if (!started || waitpid(pid, &ws, 0) != pid) return {};
    return {WIFEXITED(ws) ? WEXITSTATUS(ws) : 128 + WTERMSIG(ws), Slurp(out), Slurp(err)};
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

  std::string tmp_, dir_;
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
  ASSERT_EQ(Run({"init"}).status, 0);
  nlohmann::json s = Status("envfw_backup1", 0);
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
  EXPECT_EQ(Run({"cat", "envfw_backup0"}).out, "still here");

  ASSERT_EQ(Run({"sim", "replace", dir_, "1"}).status, 0);
  ASSERT_EQ(Run({"init"}).status, 0);
  s = Status("", 0);
  EXPECT_EQ(s["ok"], true);
  EXPECT_EQ(s["areas"].size(), 8u);
  EXPECT_EQ(AreaBytes(1, 0), AreaBytes(0, 0));  // rebuilt at start-up
}

// A mismatch planted in copy 1 of area 1 (offset in the area, bytes) is
// reported with status 1, and --repair rewrites the copy and drops its lock.
TEST_F(ToolTest, VerifyFindsAndRepairsAPlantedMismatch) {
  const struct { std::vector<std::pair<long, std::string>> writes; std::string report; } cases[] = {
      {{{128 + 5, "XY"}}, "envfw_backup1: copy 1 differs from copy 0: 2 data bytes differ, the first at offset 5\n"},
      {{{60, "\x7f"}}, "envfw_backup1: copy 1 differs from copy 0: header field opencnt\n"},
      // The copy claims two more bytes, and they differ from what the reference holds there.
      {{{44, "\x12"}, {128 + 16, "@@"}},
       "copy 1 differs from copy 0: header field filesize; 2 data bytes differ, the first at offset 16\n"}};
  ASSERT_EQ(Run({"init"}).status, 0);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.report);
    ASSERT_EQ(Run({"put", "envfw_backup1"}, "0123456789abcdef").status, 0);
    ASSERT_EQ(Run({"verify"}).status, 0);
    for (const auto& [offset, bytes] : c.writes) {
      std::fstream f(Hdd(1), std::ios::in | std::ios::out | std::ios::binary);
      f.seekp(kAreaSize + offset);
      f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }
    Result r = Run({"verify"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find(c.report), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("1 mismatch"), std::string::npos) << r.out;
    const nlohmann::json scrub = Status("", 0)["last_scrub"];  // kept by verify for status
    EXPECT_EQ((std::vector<int>{scrub["areas"], scrub["mismatches"], scrub["status"]}), (std::vector<int>{8, 1, 1}));
    r = Run({"verify", "--repair", "envfw_backup1"});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("envfw_backup1: copy 1 rewritten from copy 0"), std::string::npos) << r.out;
    EXPECT_EQ(AreaBytes(1, 1, 128 + 16), AreaBytes(0, 1, 128 + 16));  // header and data up to the size (16)
    EXPECT_EQ(Run({"verify"}).status, 0);
    EXPECT_EQ(Status("envfw_backup1", 0)["areas"][0]["nv"]["repairlock"][0], 0);
  }
}

// Bad usage exits 2 with the reason and the usage on standard error, and
// writes nothing.
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
    EXPECT_NE(r.err.find("Usage:"), std::string::npos) << r.err;
    EXPECT_EQ(Images(), before);
  }
}

}  // namespace
