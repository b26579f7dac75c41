// Diagnostic dump: exact hex lines and the section layout of a snapshot.
#include <regex>

#include "testutil.h"

namespace {

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
  const std::string h8 = "H\nH\nH\nH\nH\nH\nH\nH\n";  // eight hex lines: a header or NV record
  EXPECT_EQ("TIME\n \n\n***** NV MEMORY [0/1] *****\n" + h8 + "***** HDD HEADER file=(alpha) *****\n===== HDD[0/1] =====\n" +
                h8 + "[data]\nH\nH\n",
            Masked(text));
}

}  // namespace
