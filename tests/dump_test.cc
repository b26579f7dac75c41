// Diagnostic dump: exact hex lines, the section layout of a snapshot, what is
// left out when a copy cannot be read, trace mode and failures.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "fault_env.h"
#include "sanfwctl.h"
#include "sbacc_core.h"
#include "sim.h"

namespace {

using sbacc_test::FaultEnv;
using sbacc_test::Sim;
using sbacc_test::TraceCapture;
using Lines = std::vector<std::string>;

Lines SplitLines(const std::string& text) {
  Lines out;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) out.push_back(l);
  return out;
}

// sbacc_dump into memory.
Lines HexDump(const std::string& bytes) {
  char* mem = nullptr;
  size_t len = 0;
  FILE* fp = open_memstream(&mem, &len);
  std::string copy = bytes;
  sbacc_dump(fp, copy.data(), static_cast<int>(copy.size()));
  fclose(fp);
  std::string text(mem, len);
  free(mem);
  return SplitLines(text);
}

struct HexCase {
  const char* name;
  std::string bytes;
  Lines expected;
};

void PrintTo(const HexCase& c, std::ostream* os) { *os << c.name; }

class HexLineTest : public ::testing::TestWithParam<HexCase> {};

TEST_P(HexLineTest, ExactLines) { EXPECT_EQ(HexDump(GetParam().bytes), GetParam().expected); }

const std::string kNvStart("SBNM\x03\0\0\0envfw_backup0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 40);

INSTANTIATE_TEST_SUITE_P(
    Dump, HexLineTest,
    ::testing::Values(
        HexCase{"Empty", "", {}},
        // The fourth group keeps 6 blanks after its 2 digits; 3 blanks close the line.
        HexCase{"Thirteen", "ABCDEFGHIJKLM",
                {"00000000: 41424344 45464748 494a4b4c 4d        ABCDEFGHIJKLM   "}},
        HexCase{"Sixteen", "0123456789abcdef",
                {"00000000: 30313233 34353637 38396162 63646566  0123456789abcdef"}},
        HexCase{"Seventeen", "0123456789abcdefZ",
                {"00000000: 30313233 34353637 38396162 63646566  0123456789abcdef",
                 "00000010: 5a                                   Z               "}},
        HexCase{"NonPrintable", std::string("\x7f\x80\x20\xff\x7e\x1f\x00\x41", 8),
                {"00000000: 7f8020ff 7e1f0041                    .. .~..A        "}},
        HexCase{"NvEntryStart", kNvStart,
                {"00000000: 53424e4d 03000000 656e7666 775f6261  SBNM....envfw_ba",
                 "00000010: 636b7570 30000000 00000000 00000000  ckup0...........",
                 "00000020: 00000000 00000000                    ........        "}}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- Snapshots -----------------------------------------------------------------

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// Hex lines become "HEX" (each checked to be 63 characters), the time line
// "TIME", so the layout can be compared whole.
Lines Skeleton(const Lines& lines) {
  static const std::regex hex("[0-9a-f]{8}: .*");
  Lines out;
  for (const std::string& l : lines) {
    if (std::regex_match(l, hex)) {
      EXPECT_EQ(l.size(), 63u) << l;
      out.push_back("HEX");
    } else if (l.rfind(">>>>> OUTPUT TIME: ", 0) == 0) {
      out.push_back("TIME");
    } else {
      out.push_back(l);
    }
  }
  return out;
}

void Add(Lines& v, const std::string& line, int times = 1) {
  for (int i = 0; i < times; ++i) v.push_back(line);
}

class DumpFileTest : public ::testing::Test {
 protected:
  std::string DumpPath() const { return sim_.Dir() + "/dump.txt"; }
  int Dump() {
    std::string p = DumpPath();
    return sbacc_dumpout(p.data());
  }
  Sim sim_;
};

struct DataCase {
  uint64_t areasize;
  int data_lines;  // -1: no [data] line at all
};

void PrintTo(const DataCase& c, std::ostream* os) { *os << "areasize " << c.areasize; }

class DumpDataSizeTest : public DumpFileTest, public ::testing::WithParamInterface<DataCase> {};

TEST_P(DumpDataSizeTest, LayoutOfOneArea) {
  const DataCase c = GetParam();
  sim_.SetAreas({{"alpha", 0x2000, c.areasize, 2}});
  std::string data;
  for (int i = 0; i < 40; ++i) data += static_cast<char>('a' + i % 26);
  sim_.PutHddBytes(1, 0x2000 + 128, data.data(), data.size());
  FaultEnv env;

  ASSERT_EQ(Dump(), 0);
  const Lines lines = SplitLines(ReadFile(DumpPath()));
  Lines want = {"TIME", " ", "***** NV MEMORY [0/1] *****"};
  Add(want, "HEX", 8);
  Add(want, "***** HDD HEADER file=(alpha) *****");
  for (int j = 0; j < 2; ++j) {
    Add(want, "===== HDD[" + std::to_string(j) + "/2] =====");
    Add(want, "HEX", 8);
    if (c.data_lines >= 0) {
      Add(want, "[data]");
      Add(want, "HEX", c.data_lines);
    }
  }
  EXPECT_EQ(Skeleton(lines), want);
  EXPECT_EQ(env.Calls(FaultEnv::kOpen), 2);
  EXPECT_EQ(env.Calls(FaultEnv::kClose), 2);
  if (c.data_lines == 2 && c.areasize >= 160) {
    // Copy 1's data: the first 32 bytes, behind its header's 8 lines.
    EXPECT_EQ(lines.end()[-2], "00000000: 61626364 65666768 696a6b6c 6d6e6f70  abcdefghijklmnop");
    EXPECT_EQ(lines.end()[-1], "00000010: 71727374 75767778 797a6162 63646566  qrstuvwxyzabcdef");
  }
}

INSTANTIATE_TEST_SUITE_P(Dump, DumpDataSizeTest,
                         ::testing::Values(DataCase{100, -1}, DataCase{128, -1}, DataCase{129, 1},
                                           DataCase{144, 1}, DataCase{145, 2}, DataCase{1000, 2},
                                           // Only the low 32 bits count: 2^32 + 128 shows nothing.
                                           DataCase{(1ull << 32) + 128, -1}));

TEST_F(DumpFileTest, MissingFirstCopyLeavesOnlyTheSecond) {
  sim_.SetAreas({{"alpha", 0, 1000, 2}, {"beta", 1000, 1000, 1}});
  sim_.RemoveHdd(0);
  ASSERT_EQ(Dump(), 0);
  Lines want = {"TIME", " ", "***** NV MEMORY [0/2] *****"};
  Add(want, "HEX", 8);
  Add(want, "***** HDD HEADER file=(alpha) *****");
  Add(want, "===== HDD[1/2] =====");
  Add(want, "HEX", 8);
  Add(want, "[data]");
  Add(want, "HEX", 2);
  Add(want, "***** NV MEMORY [1/2] *****");
  Add(want, "HEX", 8);
  Add(want, "***** HDD HEADER file=(beta) *****");  // its only copy is the missing disk
  EXPECT_EQ(Skeleton(SplitLines(ReadFile(DumpPath()))), want);
}

TEST_F(DumpFileTest, UnreadableNvAndDataAreLeftOut) {
  sim_.SetAreas({{"alpha", 0, 1000, 1}});
  FaultEnv env;  // also keeps the NV retries from really sleeping
  env.FailOp(FaultEnv::kRead, sim_.HddPath(0), 1, 1, EIO);  // the header reads, the data does not
  sanfwctl_set_fault(SANFWCTL_FAULT_READ, 0, -1);
  TraceCapture trace;
  ASSERT_EQ(Dump(), 0);
  sanfwctl_set_fault(SANFWCTL_FAULT_READ, 0, 0);
  Lines want = {"TIME", " ", "***** NV MEMORY [0/1] *****", "***** HDD HEADER file=(alpha) *****",
                "===== HDD[0/1] ====="};
  Add(want, "HEX", 8);
  EXPECT_EQ(Skeleton(SplitLines(ReadFile(DumpPath()))), want);
  EXPECT_EQ(trace.CountContaining("[sbacc_dumpout] sbacc_memget_entry error. ret=-161"), 1) << trace.Dump();
  EXPECT_EQ(trace.CountContaining("[sbacc_dumpout] sbacc_l_hddget(data)[0] error. retcode=-122 filename=alpha "
                                  "datasize=32"),
            1)
      << trace.Dump();
}

TEST_F(DumpFileTest, TwoCallsAppendTwoSnapshots) {
  sim_.SetAreas({{"alpha", 0, 512, 1}});
  ASSERT_EQ(Dump(), 0);
  const Lines first = Skeleton(SplitLines(ReadFile(DumpPath())));
  ASSERT_EQ(Dump(), 0);
  Lines both = first;
  both.insert(both.end(), first.begin(), first.end());
  EXPECT_EQ(Skeleton(SplitLines(ReadFile(DumpPath()))), both);
}

TEST_F(DumpFileTest, TraceModeCreatesNoFile) {
  sim_.SetAreas({{"alpha", 0, 1000, 1}});
  sim_.PutNvBytes(0, "", 0);  // the NV image exists before, as on a controller
  const auto before = std::distance(std::filesystem::directory_iterator(sim_.Dir()), {});
  TraceCapture trace;
  ASSERT_EQ(sbacc_dumpout(nullptr), 0);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(sim_.Dir()), {}), before);
  Lines level4;
  for (const auto& l : trace.Lines()) {
    if (l.level == 4 && l.module == "../common/sbacc" && l.text.rfind("[sbacc_dumpout] [", 0) != 0) {
      level4.push_back(l.text);
    }
  }
  ASSERT_FALSE(level4.empty());
  EXPECT_EQ(level4[0].rfind(">>>>> OUTPUT TIME: ", 0), 0u);
  EXPECT_EQ(level4[0].substr(level4[0].size() - 3), "\n \n");  // asctime's newline, a blank, the format's
  Lines want = {"TIME", "***** NV MEMORY [0/1] *****"};
  Add(want, "HEX", 8);
  Add(want, "***** HDD HEADER file=(alpha) *****");
  Add(want, "===== HDD[0/1] =====");
  Add(want, "HEX", 8);
  Add(want, "[data]");
  Add(want, "HEX", 2);
  EXPECT_EQ(Skeleton(level4), want);
}

struct FailCase {
  const char* name;
  bool path_is_dir;  // else NULL path
  bool list_missing;
  int rc;
  const char* line;  // failure line, %s = the path
};

void PrintTo(const FailCase& c, std::ostream* os) { *os << c.name; }

class DumpFailTest : public ::testing::TestWithParam<FailCase> {};

TEST_P(DumpFailTest, ReturnsCodeAndNamesIt) {
  const FailCase c = GetParam();
  Sim sim;
  sim.SetAreas({{"alpha", 0, 512, 1}});
  if (c.list_missing) std::filesystem::remove(sim.Dir() + "/filelist.ini");
  TraceCapture trace;
  std::string dir = sim.Dir();
  EXPECT_EQ(sbacc_dumpout(c.path_is_dir ? dir.data() : nullptr), c.rc);
  std::string want = c.line;
  const size_t at = want.find("%s");
  if (at != std::string::npos) want.replace(at, 2, dir);
  EXPECT_TRUE(trace.Has(want)) << trace.Dump();
  EXPECT_TRUE(trace.Has("[sbacc_dumpout] [LEAVE] " + std::to_string(c.rc)));
}

INSTANTIATE_TEST_SUITE_P(
    Dump, DumpFailTest,
    ::testing::Values(FailCase{"PathNotWritable", true, false, -151, "[sbacc_dumpout] sbacc_dumpout (%s) retcode: -151"},
                      FailCase{"ListMissingInTraceMode", false, true, -151,
                               "[sbacc_dumpout] sbacc_dumpout (NULL) retcode: -151"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
