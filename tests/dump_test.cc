// Diagnostic dump: exact hex lines, the section layout of a snapshot, what is
// left out when something cannot be read, trace mode and failures.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "fault_env.h"
#include "sanfwctl.h"
#include "sbacc_core.h"
#include "sim.h"

namespace {

using sbacc_test::FaultEnv;
using sbacc_test::Sim;
using sbacc_test::TraceCapture;
TEST(DumpTest, ExactHexLines) {
  const struct {
    std::string bytes, want;
  } kCases[] = {
      {"", ""},
      // The fourth group keeps 6 blanks after its 2 digits; 3 blanks close the line.
      {std::string("\x7f\x80\x20\xff\x7e\x1f\x00\x41" "ABCDE", 13),
       "00000000: 7f8020ff 7e1f0041 41424344 45        .. .~..AABCDE   \n"},
      {"0123456789abcdefZ",
       "00000000: 30313233 34353637 38396162 63646566  0123456789abcdef\n"
       "00000010: 5a                                   Z               \n"}};
  for (const auto& c : kCases) {
    char* mem = nullptr;
    size_t len = 0;
    FILE* fp = open_memstream(&mem, &len);
    std::string copy = c.bytes;
    sbacc_dump(fp, copy.data(), static_cast<int>(copy.size()));
    fclose(fp);
    EXPECT_EQ(c.want, std::string(mem, len));
    free(mem);
  }
}

// Each hex line (63 characters) becomes "H", the time "TIME": the layout
// can then be compared whole.
std::string Masked(const std::string& text) {
  const std::string t = std::regex_replace(text, std::regex(">>>>> OUTPUT TIME: [^\n]*"), "TIME");
  return std::regex_replace(t, std::regex("[0-9a-f]{8}: [^\n]{53}\n"), "H\n");
}
std::string H(int n) {
  std::string s;
  for (int i = 0; i < n; ++i) s += "H\n";
  return s;
}

// A snapshot appended to a new file.
std::string DumpFile(const Sim& sim) {
  std::string path = sim.Dir() + "/dump.txt";
  std::filesystem::remove(path);
  EXPECT_EQ(0, sbacc_dumpout(path.data()));
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

const std::string kAlpha = "***** HDD HEADER file=(alpha) *****\n";

// Data lines follow the low 32 bits of the area size less the header, two
// (32 bytes) at most, and show each copy's own bytes.
TEST(DumpTest, DataLinesFollowTheAreaSize) {
  const struct {
    uint64_t areasize;
    int data_lines;  // -1: no [data] line at all
  } kCases[] = {{100, -1}, {128, -1}, {129, 1}, {144, 1}, {145, 2}, {1000, 2}, {(1ull << 32) + 128, -1}};
  for (const auto& c : kCases) {
    SCOPED_TRACE("areasize " + std::to_string(c.areasize));
    Sim sim;
    sim.SetAreas({{"alpha", 0x2000, c.areasize, 2}});
    std::string data;
    for (int i = 0; i < 40; ++i) data += static_cast<char>('a' + i % 26);
    sim.PutHddBytes(1, 0x2000 + 128, data.data(), data.size());
    FaultEnv env;
    const std::string text = DumpFile(sim);
    std::string want = "TIME\n \n***** NV MEMORY [0/1] *****\n" + H(8) + kAlpha;
    for (int j = 0; j < 2; ++j) {
      want += "===== HDD[" + std::to_string(j) + "/2] =====\n" + H(8) + (c.data_lines >= 0 ? "[data]\n" : "");
      want += H(c.data_lines);
    }
    EXPECT_EQ(want, Masked(text));
    const std::string copy1 = "[data]\n00000000: 61626364 65666768 696a6b6c 6d6e6f70  abcdefghijklmnop\n"
                              "00000010: 71727374 75767778 797a6162 63646566  qrstuvwxyzabcdef\n";
    EXPECT_EQ(c.areasize == 1000, text.size() > copy1.size() && text.substr(text.size() - copy1.size()) == copy1);
    EXPECT_EQ(env.Calls(FaultEnv::kOpen), 2);
    EXPECT_EQ(env.Calls(FaultEnv::kClose), 2);
  }
}

TEST(DumpTest, WhatCannotBeReadIsLeftOut) {
  Sim sim;
  sim.SetAreas({{"alpha", 0, 1000, 2}, {"beta", 1000, 1000, 1}});
  sim.RemoveHdd(0);  // beta's only copy
  EXPECT_EQ("TIME\n \n***** NV MEMORY [0/2] *****\n" + H(8) + kAlpha + "===== HDD[1/2] =====\n" + H(8) + "[data]\n" +
                H(2) + "***** NV MEMORY [1/2] *****\n" + H(8) + "***** HDD HEADER file=(beta) *****\n",
            Masked(DumpFile(sim)));
  sim.RecreateHdd(0);
  sim.SetAreas({{"alpha", 0, 1000, 1}});
  sbacc_reset_process_state();  // drops the list the first dump loaded
  FaultEnv env;  // also keeps the NV retries from really sleeping
  env.FailOp(FaultEnv::kRead, sim.HddPath(0), 1, 1, EIO);  // the header reads, the data does not
  sanfwctl_set_fault(SANFWCTL_FAULT_READ, 0, -1);
  const std::string text = DumpFile(sim);
  sanfwctl_set_fault(SANFWCTL_FAULT_READ, 0, 0);
  EXPECT_EQ("TIME\n \n***** NV MEMORY [0/1] *****\n" + kAlpha + "===== HDD[0/1] =====\n" + H(8), Masked(text));
}

// Without a path the snapshot goes to the trace at level 4, one line each.
TEST(DumpTest, TraceMode) {
  Sim sim;
  sim.SetAreas({{"alpha", 0, 1000, 1}});
  TraceCapture trace;
  ASSERT_EQ(0, sbacc_dumpout(nullptr));
  std::string text;
  for (const auto& l : trace.Lines()) {
    if (l.level == 4 && l.module == "../common/sbacc" && l.text.rfind("[sbacc_dumpout] [", 0) != 0) {
      text += l.text + "\n";
    }
  }
  EXPECT_EQ("TIME\n \n\n***** NV MEMORY [0/1] *****\n" + H(8) + kAlpha + "===== HDD[0/1] =====\n" + H(8) + "[data]\n" +
                H(2),
            Masked(text));
}

TEST(DumpTest, FailureReturnsCode) {
  Sim sim;
  sim.SetAreas({{"alpha", 0, 512, 1}});
  std::string dir = sim.Dir();
  EXPECT_EQ(SBACC_E_FILEOPEN, sbacc_dumpout(dir.data()));  // a directory
  std::filesystem::remove(sim.Dir() + "/filelist.ini");
  EXPECT_EQ(SBACC_E_FILEOPEN, sbacc_dumpout(nullptr));  // trace mode without an area list
}

}  // namespace
