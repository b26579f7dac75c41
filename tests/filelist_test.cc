// Area list: which lines are accepted and what they yield, the two index
// rules, the failure codes with their traces; every test also checks that no
// FILE* and no block was left behind.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <memory>
#include <ostream>
#include <string>

#include "sbacc_alloc.h"
#include "sbacc_l.h"
#include "sim.h"

namespace {

struct FreeList {
  void operator()(SBACC_FILE_LIST* p) const { sbacc_free_debug(p, nullptr, 0, sbacc::AllocTrackSwitch()); }
};
using ListPtr = std::unique_ptr<SBACC_FILE_LIST, FreeList>;

class Filelist : public ::testing::Test {
 protected:
  void SetUp() override { setenv("SBACC_FILELIST", path_.c_str(), 1); }
  void TearDown() override {
    EXPECT_EQ(sbacc::AllocLiveBlocks(), live_) << "leaked block";
    EXPECT_EQ(sbacc_test::OpenFdCount(), fds_) << "leaked FILE*";
  }
  void Write(const std::string& text) { std::ofstream(path_, std::ios::binary | std::ios::trunc) << text; }
  ListPtr Load(const std::string& text) {
    Write(text);
    SBACC_FILE_LIST* l = nullptr;
    EXPECT_EQ(sbacc_l_get_filelist(&l), 0);
    return ListPtr(l);
  }
  SBACC_FILE_LIST_ENTRY Lookup(const std::string& name, int rc = 0) {
    SBACC_FILE_LIST_ENTRY e;
    memset(&e, 0x5A, sizeof e);  // the lookup has to clear it
    EXPECT_EQ(sbacc_l_get_filelist_entry(name.c_str(), &e), rc);
    return e;
  }
  sbacc_test::TempDir dir_;
  std::string path_ = dir_.File("filelist.ini");
  long live_ = sbacc::AllocLiveBlocks();
  int fds_ = sbacc_test::OpenFdCount();
};

struct LineCase {
  std::string line;
  int z_index;       // lookup index of the valid line "Z" that follows
  std::string name;  // empty: the line is ignored; else the full name
  uint64_t addr = 0, size = 0;
  int count = 0;
  std::string last;  // last path kept
};
LineCase Ign(const std::string& line, int z_index = 1) { return {line, z_index, "", 0, 0, 0, ""}; }

const std::string n31(31, 'n'), p1016 = "/" + std::string(1015, 'p');
const LineCase kLines[] = {
    {"A,1F,100,/a", 1, "A", 31, 100, 1, "/a"},
    {"  A , 10 ,100 ,, /a ", 1, "A", 16, 100, 1, "/a"},
    {"A,FFFFFFFFFFFFFFFF,18446744073709551615,/a", 1, "A", UINT64_MAX, UINT64_MAX, 1, "/a"},
    {"A,1,2,/a\r", 1, "A", 1, 2, 1, "/a\r"},  // CR-LF line end
    {"A,1,2,/a\t", 1, "A", 1, 2, 1, "/a\t"},
    {"  #note,1,2,/a", 1, "#note", 1, 2, 1, "/a"},
    {"A,1,2,/1,/2,/3,/4,/5,/6,/7,/8,/9", 1, "A", 1, 2, 8, "/8"},
    {"A,1,2," + std::string(200, 'p'), 1, "A", 1, 2, 1, std::string(127, 'p')},
    {n31 + ",1,2,/a", 1, n31, 1, 2, 1, "/a"},
    {n31 + "x,1,2,/a", 1, n31 + "x", 1, 2, 1, "/a"},
    {n31 + "123456789,1,2,/a", 1, n31 + "123456789", 1, 2, 1, "/a"},
    {"A,1,2," + p1016, 1, "A", 1, 2, 1, p1016.substr(0, 127)},  // 1022 characters
    {std::string("A,1,2,/a\0,/b", 12), 1, "A", 1, 2, 1, "/a"},
    Ign("A,0x10,100,/a"), Ign("A,10,-5,/a"), Ign("A,10,,/a"), Ign("A,+1,1,/a"), Ign("A,1 0,1,/a"),
    Ign("A,\t1,1,/a"), Ign("A,10000000000000000,1,/a"), Ign("A,1,18446744073709551616,/a"), Ign("A,10,100"),
    Ign("A,10,100,, ,"), Ign(std::string("A,1\0,2,/a", 9)), Ign("#A,1,2,/a", 0), Ign(" ,1,2,/a", 0), Ign("", 0),
    Ign("A,1,2,/" + std::string(1016, 'p'), 0), Ign("A,1,2,/" + std::string(4993, 'p'), 0),  // 1023, 5000
    Ign(std::string("A,1,2,/a\0", 9) + std::string(1014, 'p'), 0),  // NUL in a 1023-character line
};

void PrintTo(const LineCase& c, std::ostream* os) {  // short, printable test names
  for (char ch : c.line.substr(0, 24)) *os << (ch == '\0' ? '0' : ch < ' ' ? '^' : ch);
  *os << " (" << c.line.size() << ")";
}

class FilelistLine : public Filelist, public ::testing::WithParamInterface<LineCase> {};

TEST_P(FilelistLine, AcceptsOrIgnoresAndKeepsParsing) {
  const LineCase& c = GetParam();
  ListPtr l = Load(c.line + "\nZ,1,2,/z\n");
  ASSERT_TRUE(l);
  ASSERT_EQ(l->filenum, c.name.empty() ? 1 : 2);
  EXPECT_STREQ(l->file[l->filenum - 1].filename, "Z");
  EXPECT_EQ(l->file[l->filenum - 1].index, l->filenum - 1);
  EXPECT_EQ(Lookup("Z").index, c.z_index);
  if (c.name.empty()) return;
  for (const SBACC_FILE_LIST_ENTRY& e : {l->file[0], Lookup(c.name)}) {
    EXPECT_EQ(e.index, 0);
    EXPECT_EQ(e.filename, c.name.substr(0, 31));
    EXPECT_EQ(e.areaaddr, c.addr);
    EXPECT_EQ(e.areasize, c.size);
    ASSERT_EQ(e.hddcount, c.count);
    EXPECT_EQ(e.hddname[c.count - 1], c.last);
  }
}

INSTANTIATE_TEST_SUITE_P(Lines, FilelistLine, ::testing::ValuesIn(kLines));

TEST_F(Filelist, IndexRulesDuplicatesAndUnacceptedLookups) {
  ListPtr l = Load("B,zz,1,/b\nA,0,1,/a\n");
  ASSERT_EQ(l->filenum, 1);
  EXPECT_EQ(l->file[0].index, 0);
  EXPECT_EQ(Lookup("A").index, 1);
  // A failed same-name line is not counted; the first valid duplicate wins.
  l = Load("A,zz,1,/x\nB,zz,1,/b\nA,1,1,/a1\nA,2,2,/a2\nC,5,zz,/c\n");
  ASSERT_EQ(l->filenum, 2);
  EXPECT_EQ(l->file[1].areaaddr, 2u);
  SBACC_FILE_LIST_ENTRY e = Lookup("A");
  EXPECT_EQ(e.index, 1);
  EXPECT_STREQ(e.hddname[0], "/a1");
  e = Lookup("C");  // success, with what the failed line stored
  EXPECT_EQ(e.hddcount, 0);
  EXPECT_EQ(e.index, 0);
  EXPECT_EQ(e.areaaddr, 5u);
  const SBACC_FILE_LIST_ENTRY zero = {};
  e = Lookup("Q");
  EXPECT_EQ(memcmp(&e, &zero, sizeof e), 0);
}

TEST_F(Filelist, FailureCodesAndTraces) {
  sbacc_test::TraceCapture tc;
  SBACC_FILE_LIST* l = reinterpret_cast<SBACC_FILE_LIST*>(8);
  EXPECT_EQ(sbacc_l_get_filelist_entry_num(), -151);  // not written yet
  EXPECT_EQ(sbacc_l_get_filelist(&l), -151);
  EXPECT_EQ(l, nullptr);
  Lookup("A", -151);
  EXPECT_EQ(tc.Count("[sbacc_l_get_filelist_entry_num] fopen error. errno=2 path=" + path_), 2) << tc.Dump();
  EXPECT_EQ(tc.Count("[sbacc_l_get_filelist_2] fopen error. errno=2 path=" + path_), 1);
  EXPECT_EQ(tc.Count("[sbacc_l_get_filelist_entry] sbacc_l_get_filelist_2 error. retcode=-151"), 1);
  EXPECT_EQ(tc.Count("[sbacc_l_get_filelist] [LEAVE] -151"), 1);
  Write("");
  EXPECT_EQ(sbacc_l_get_filelist_entry_num(), -152);
  EXPECT_EQ(sbacc_l_get_filelist(&l), -152);
  EXPECT_EQ(Lookup("A").hddcount, 0);
  Write("#a\n\n#b\n" + std::string(5000, 'x') + "\n");  // 3 lines, then 5 pieces
  EXPECT_EQ(sbacc_l_get_filelist_entry_num(), 8);
  EXPECT_EQ(Load("#a\n\n#b\n")->filenum, 0);
  sbacc::AllocFailNth(1);
  EXPECT_EQ(sbacc_l_get_filelist(&l), -111);
  EXPECT_EQ(l, nullptr);
  EXPECT_EQ(tc.CountContaining("[sbacc_l_get_filelist] calloc error. errno="), 1);
  // Parser misuse: no destination; a full list while a name is given.
  EXPECT_EQ(sbacc_l_get_filelist_2(nullptr, "A", nullptr), -102);
  EXPECT_TRUE(tc.Has("[sbacc_l_get_filelist_2] parameter error. list=NULL,entry=NULL"));
  Write("A,1,1,/a\nB,1,1,/b\n");
  auto* one = static_cast<SBACC_FILE_LIST*>(calloc(1, sizeof(SBACC_FILE_LIST) + sizeof(SBACC_FILE_LIST_ENTRY)));
  one->filenum = 1;  // capacity 1: the B line must not be written past it
  EXPECT_EQ(sbacc_l_get_filelist_2(one, "A", nullptr), -103);
  EXPECT_EQ(one->filenum, 1);
  free(one);
  EXPECT_TRUE(tc.Has("[sbacc_l_get_filelist_2] parameter error. filename=A"));
}

TEST_F(Filelist, PathFallsBackToDefaultWhenUnsetOrEmpty) {
  EXPECT_EQ(sbacc_l_filelist_path(), path_);
  setenv("SBACC_FILELIST", "", 1);
  EXPECT_STREQ(sbacc_l_filelist_path(), "/etc/env_frmwkapi/filelist.ini");
}

TEST(FilelistStrsep, SplitsAndTrimsSpacesAndNewlinesOnly) {
  const char* cases[][4] = {{"a,b", ",", "a", "b"},      {"  a b \n\n, c", ",", "a b", " c"},
                            {" \n ", ",", "", nullptr},  {"\ta\t,", ",", "\ta\t", ""},
                            {"x::y", "::", "x", "y"},    {"\n a", "", "\n a", nullptr}};
  for (const auto& c : cases) {
    std::string buf = c[0];
    char* cursor = buf.data();
    EXPECT_STREQ(sbacc_l_strsep(&cursor, c[1]), c[2]) << c[0];
    EXPECT_STREQ(cursor, c[3]) << c[0];
  }
  char* none = nullptr;
  EXPECT_EQ(sbacc_l_strsep(&none, ","), nullptr);
}

}  // namespace
