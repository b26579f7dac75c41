// The sbacc tool driven as a program on a simulated controller of its own:
// exit statuses, output, the --json shape, verify and repair, bad input.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Args = std::vector<std::string>;

struct Result {
  int status = -1;
  std::string out, err;
};

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

void Spit(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

constexpr int kAreaSize = 1024;  // every area of the simulated controller

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
  }
  void TearDown() override { fs::remove_all(tmp_); }

  Result Run(const Args& args, const std::string& input = "") {
    const std::string in = tmp_ + "/stdin", out = tmp_ + "/stdout", err = tmp_ + "/stderr";
    Spit(in, input);
    pid_t pid = fork();
    if (pid == 0) {
      dup2(open(in.c_str(), O_RDONLY), 0);
      dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
      dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
      std::vector<char*> argv{const_cast<char*>(SBACC_TOOL_PATH)};
      for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      execv(SBACC_TOOL_PATH, argv.data());
      _exit(127);
    }
    int ws = 0;
    waitpid(pid, &ws, 0);
    return {WIFEXITED(ws) ? WEXITSTATUS(ws) : 128 + WTERMSIG(ws), Slurp(out), Slurp(err)};
  }

  nlohmann::json Status(const Args& areas, int want_status) {
    Args args{"status", "--json"};
    args.insert(args.end(), areas.begin(), areas.end());
    Result r = Run(args);
    EXPECT_EQ(r.status, want_status) << r.out << r.err;
    return nlohmann::json::parse(r.out);
  }

  std::string Hdd(int copy) const { return dir_ + "/hdd" + std::to_string(copy) + ".img"; }
  std::string AreaBytes(int copy, int area) const {
    return Slurp(Hdd(copy)).substr(static_cast<size_t>(area) * kAreaSize, kAreaSize);
  }
  void PutBytes(int copy, long pos, const std::string& bytes) {
    std::fstream f(Hdd(copy), std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(pos);
    f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }

  std::string tmp_, dir_;
};

std::set<std::string> Keys(const nlohmann::json& j) {
  std::set<std::string> k;
  for (auto it = j.begin(); it != j.end(); ++it) k.insert(it.key());
  return k;
}

TEST_F(ToolTest, DataCommandsRoundTrip) {
  ASSERT_EQ(Run({"init"}).status, 0);
  EXPECT_EQ(Run({"put", "envfw_backup0"}, "hello world").status, 0);
  EXPECT_EQ(Run({"write", "envfw_backup0", "6", "-"}, "WORLD!").status, 0);
  EXPECT_EQ(Run({"cat", "envfw_backup0"}).out, "hello WORLD!");
  EXPECT_EQ(Run({"truncate", "envfw_backup0", "5"}).status, 0);
  EXPECT_EQ(Run({"cat", "envfw_backup0"}).out, "hello");
  // A shorter put leaves no old tail behind.
  EXPECT_EQ(Run({"put", "envfw_backup0"}, "hi").status, 0);
  EXPECT_EQ(Run({"cat", "envfw_backup0"}).out, "hi");
}

TEST_F(ToolTest, LibraryErrorsNameTheCodeAndExit2) {
  Result r = Run({"cat", "envfw_backup0"});  // NV never initialised
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("SBACC_E_NOTINIT (-104): not initialised"), std::string::npos) << r.err;
  EXPECT_EQ(r.out, "");
}

TEST_F(ToolTest, StatusFollowsAPulledAndReplacedDisk) {
  ASSERT_EQ(Run({"init"}).status, 0);
  nlohmann::json s = Status({"envfw_backup1"}, 0);
  EXPECT_EQ(Keys(s), (std::set<std::string>{"areas", "ok"}));
  ASSERT_EQ(s["areas"].size(), 1u);
  const nlohmann::json& a = s["areas"][0];
  EXPECT_EQ(Keys(a), (std::set<std::string>{"index", "name", "address", "size", "capacity", "verdict", "usable",
                                            "nv", "copies"}));
  EXPECT_EQ(a["index"], 1);
  EXPECT_EQ(a["address"], kAreaSize);
  EXPECT_EQ(a["capacity"], kAreaSize - 128);
  EXPECT_EQ(Keys(a["nv"]), (std::set<std::string>{"readable", "error", "valid", "hddcount", "hddblockade",
                                                   "latesthdd", "hddrepair", "write_on_repair", "repairlock"}));
  ASSERT_EQ(a["copies"].size(), 2u);
  EXPECT_EQ(Keys(a["copies"][1]), (std::set<std::string>{"copy", "path", "state", "error", "header"}));
  EXPECT_EQ(Keys(a["copies"][1]["header"]),
            (std::set<std::string>{"valid", "filesize", "hddblockade", "openflag", "opencnt", "opentime",
                                   "opentime_local", "closetime", "closetime_local", "write"}));
  EXPECT_EQ(a["copies"][1]["state"], "healthy");

  ASSERT_EQ(Run({"sim", "pull", dir_, "1"}).status, 0);
  EXPECT_EQ(Status({"envfw_backup0"}, 1)["areas"][0]["copies"][1]["state"], "missing");
  ASSERT_EQ(Run({"put", "envfw_backup0"}, "still here").status, 0);
  s = Status({"envfw_backup0"}, 1);
  EXPECT_EQ(s["areas"][0]["copies"][1]["state"], "fenced off");
  EXPECT_EQ(s["areas"][0]["nv"]["hddblockade"], 2);
  EXPECT_EQ(s["areas"][0]["verdict"], "degraded");
  EXPECT_EQ(Run({"cat", "envfw_backup0"}).out, "still here");
  EXPECT_EQ(Run({"status"}).status, 1);

  ASSERT_EQ(Run({"sim", "replace", dir_, "1"}).status, 0);
  ASSERT_EQ(Run({"init"}).status, 0);
  s = Status({}, 0);
  EXPECT_EQ(s["ok"], true);
  EXPECT_EQ(s["areas"].size(), 8u);
  EXPECT_EQ(AreaBytes(1, 0), AreaBytes(0, 0));  // rebuilt at start-up
}

TEST_F(ToolTest, HeldAreaShowsOpenAfterTheWriterIsKilled) {
  ASSERT_EQ(Run({"init"}).status, 0);
  const std::string out = tmp_ + "/hold.out";
  pid_t pid = fork();
  if (pid == 0) {
    dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
    execl(SBACC_TOOL_PATH, SBACC_TOOL_PATH, "hold", "envfw_backup0", static_cast<char*>(nullptr));
    _exit(127);
  }
  for (int i = 0; i < 100 && Slurp(out).find("holding") == std::string::npos; ++i) usleep(50000);
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  EXPECT_EQ(Status({"envfw_backup0"}, 0)["areas"][0]["copies"][0]["header"]["openflag"], 1);
}

struct Planted {
  const char* name;
  int area;
  std::vector<std::pair<long, std::string>> writes;  // offset within the area, bytes
  std::string report;
};

void PrintTo(const Planted& p, std::ostream* os) { *os << p.name; }

class VerifyTest : public ToolTest, public ::testing::WithParamInterface<Planted> {};

TEST_P(VerifyTest, FindsAndRepairsAPlantedMismatch) {
  const Planted p = GetParam();
  ASSERT_EQ(Run({"init"}).status, 0);
  ASSERT_EQ(Run({"put", "envfw_backup1"}, "0123456789abcdef").status, 0);
  ASSERT_EQ(Run({"verify"}).status, 0);
  for (const auto& [offset, bytes] : p.writes) PutBytes(1, static_cast<long>(p.area) * kAreaSize + offset, bytes);

  Result r = Run({"verify"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find(p.report), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("1 mismatch"), std::string::npos) << r.out;

  r = Run({"verify", "--repair", "envfw_backup1"});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("envfw_backup1: copy 1 rewritten from copy 0"), std::string::npos) << r.out;
  // Header and data up to the filesize (16) are the reference's again.
  EXPECT_EQ(AreaBytes(1, p.area).substr(0, 128 + 16), AreaBytes(0, p.area).substr(0, 128 + 16));
  EXPECT_EQ(Run({"verify"}).status, 0);
  EXPECT_EQ(Status({"envfw_backup1"}, 0)["areas"][0]["nv"]["repairlock"][0], 0);  // lock released
}

INSTANTIATE_TEST_SUITE_P(
    Tool, VerifyTest,
    ::testing::Values(
        Planted{"DataBytes", 1, {{128 + 5, "XY"}},
                "envfw_backup1: copy 1 differs from copy 0: 2 data bytes differ, the first at offset 5\n"},
        Planted{"OpenCount", 1, {{60, "\x7f"}}, "envfw_backup1: copy 1 differs from copy 0: header field opencnt\n"},
        // The copy claims two more bytes, and they differ from what the reference holds there.
        Planted{"FileSize", 1, {{44, "\x12"}, {128 + 16, "@@"}},
                "copy 1 differs from copy 0: header field filesize; 2 data bytes differ, the first at offset 16\n"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(ToolTest, DumpGoesToStdoutOrAppendsToAFile) {
  ASSERT_EQ(Run({"init"}).status, 0);
  Result r = Run({"dump"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.rfind(">>>>> OUTPUT TIME: ", 0), 0u);
  EXPECT_NE(r.out.find("***** NV MEMORY [7/8] *****\n"), std::string::npos);
  const std::string file = tmp_ + "/dump.txt";
  EXPECT_EQ(Run({"dump", file}).status, 0);
  EXPECT_EQ(Run({"dump", file}).status, 0);
  const std::string text = Slurp(file);
  EXPECT_EQ(text.size(), 2 * r.out.size());
  EXPECT_EQ(text.find(">>>>> OUTPUT TIME: ", 1), r.out.size());
}

struct Bad {
  Args args;
  std::string input;
  std::string message;  // expected in the first line of standard error
};

void PrintTo(const Bad& b, std::ostream* os) {
  *os << "sbacc";
  for (const std::string& a : b.args) *os << " " << a;
}

class BadInputTest : public ToolTest, public ::testing::WithParamInterface<Bad> {};

TEST_P(BadInputTest, Exits2AndWritesNothing) {
  ASSERT_EQ(Run({"init"}).status, 0);
  ASSERT_EQ(Run({"put", "envfw_backup0"}, "keep").status, 0);
  const std::string before = Slurp(Hdd(0)) + Slurp(Hdd(1)) + Slurp(dir_ + "/nv.img");
  Args args = GetParam().args;
  for (std::string& a : args) {
    if (a == "DIR") a = dir_;
  }
  Result r = Run(args, GetParam().input);
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "");
  const std::string first = r.err.substr(0, r.err.find('\n'));
  EXPECT_NE(first.find(GetParam().message), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("Usage:"), std::string::npos) << r.err;
  EXPECT_EQ(Slurp(Hdd(0)) + Slurp(Hdd(1)) + Slurp(dir_ + "/nv.img"), before);
}

INSTANTIATE_TEST_SUITE_P(
    Tool, BadInputTest,
    ::testing::Values(Bad{{}, "", "A subcommand is required"},
                      Bad{{"frobnicate"}, "", "unknown command 'frobnicate'"},
                      Bad{{"sim", "frob"}, "", "unknown command 'frob'"},
                      Bad{{"cat"}, "", "AREA is required"},
                      Bad{{"cat", "nosuch"}, "", "unknown area 'nosuch'"},
                      Bad{{"verify", "envfw_backup0", "nosuch"}, "", "unknown area 'nosuch'"},
                      Bad{{"cat", "envfw_backup0", "extra"}, "", "not expected: extra"},
                      Bad{{"write", "envfw_backup0", "12x"}, "x", "'12x' is not a number"},
                      Bad{{"truncate", "envfw_backup0", "-1"}, "", "'-1' is negative"},
                      Bad{{"truncate", "envfw_backup0", "897"}, "", "holds at most 896 bytes"},
                      Bad{{"write", "envfw_backup0", "890"}, "12345678", "holds at most 896 bytes"},
                      Bad{{"put", "envfw_backup0"}, std::string(897, 'x'), "holds at most 896 bytes"},
                      Bad{{"put", "envfw_backup0", "/nonexistent/file"}, "", "cannot read '/nonexistent/file'"},
                      Bad{{"init", "--controller", "7"}, "", "not in range 0 to 3"},
                      Bad{{"repair-init"}, "", "--controller is required"},
                      Bad{{"sim", "pull", "DIR", "2"}, "", "no copy 2"},
                      Bad{{"sim", "create", "DIR"}, "", "already holds a simulated controller"}));

TEST_F(ToolTest, EverySubcommandHasHelp) {
  for (const Args& a : {Args{"--help"}, Args{"ls", "--help"}, Args{"status", "--help"}, Args{"cat", "--help"},
                        Args{"put", "--help"}, Args{"write", "--help"}, Args{"truncate", "--help"},
                        Args{"init", "--help"}, Args{"restore", "--help"}, Args{"repair-init", "--help"},
                        Args{"dump", "--help"}, Args{"verify", "--help"}, Args{"sim", "create", "--help"},
                        Args{"sim", "pull", "--help"}, Args{"sim", "replace", "--help"}}) {
    Result r = Run(a);
    EXPECT_EQ(r.status, 0) << a[0];
    EXPECT_NE(r.out.find("Usage:"), std::string::npos) << a[0];
  }
}

}  // namespace
