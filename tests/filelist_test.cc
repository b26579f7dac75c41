// Area list: which lines are accepted and what they yield, the index of
// the line after them, the failure codes; no FILE* and no block may be left
// behind.
#include "sbacc_tool_iface.h"
#include "testutil.h"

namespace {

class Filelist : public ::testing::Test {
 protected:
  void SetUp() override { setenv("SBACC_FILELIST", path_.c_str(), 1); }
  void TearDown() override {
    EXPECT_EQ(sbacc::AllocLiveBlocks(), live_) << "leaked block";
    EXPECT_EQ(sbacc_test::OpenFdCount(), fds_) << "leaked FILE*";
  }
  void Write(const std::string& text) { std::ofstream(path_, std::ios::binary | std::ios::trunc) << text; }
  // The whole list of `text` (copied) and the lookup of `name`.
  std::vector<SBACC_FILE_LIST_ENTRY> Load(const std::string& text) {
    Write(text);
    fates_.clear();
    EXPECT_EQ(sbacc_l_walk_filelist(Note, this), 0);
    SBACC_FILE_LIST* l = nullptr;
    EXPECT_EQ(sbacc_l_get_filelist(&l), 0);
    if (l == nullptr) return {};
    std::vector<SBACC_FILE_LIST_ENTRY> v(l->file, l->file + l->filenum);
    sbacc_free_debug(l, nullptr, 0, sbacc::AllocTrackSwitch());
    return v;
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
  std::vector<std::pair<int, int>> fates_;  // what the parser tells of each line of the last Load
  static void Note(void* t, int line, const char*, SBACC_LINE_FATE f) {
    static_cast<Filelist*>(t)->fates_.emplace_back(line, f);
  }
};

// Each line is followed by a valid line "Z": an ignored line must not stop
// the parsing, and counts for Z's lookup index when it carries a name.
TEST_F(Filelist, LinesAcceptedOrIgnored) {
  const std::string n31(31, 'n'), p1016 = "/" + std::string(1015, 'p'), nul("A,1,2,/a\0,/b", 12);
  const struct { std::string line; std::string name; uint64_t addr, size; int count; std::string last; } kept[] = {
      {"A,1F,100,/a", "A", 31, 100, 1, "/a"},
      {"  A , 10 ,100 ,, /a ", "A", 16, 100, 1, "/a"},
      {"A,FFFFFFFFFFFFFFFF,18446744073709551615,/a", "A", UINT64_MAX, UINT64_MAX, 1, "/a"},
      {"A,1,2,/a\r", "A", 1, 2, 1, "/a\r"},  // CR-LF line end
      {"A,1,2,/a\t", "A", 1, 2, 1, "/a\t"},
      {"  #note,1,2,/a", "#note", 1, 2, 1, "/a"},
      {"A,1,2,/1,/2,/3,/4,/5,/6,/7,/8,/9", "A", 1, 2, 8, "/8"},
      {"A,1,2," + std::string(200, 'p'), "A", 1, 2, 1, std::string(127, 'p')},
      {n31 + ",1,2,/a", n31, 1, 2, 1, "/a"},
      {n31 + "x,1,2,/a", n31 + "x", 1, 2, 1, "/a"},
      {n31 + "123456789,1,2,/a", n31 + "123456789", 1, 2, 1, "/a"},  // looked up by its full name
      {"A,1,2," + p1016, "A", 1, 2, 1, p1016.substr(0, 127)},      // 1022 characters
      {nul, "A", 1, 2, 1, "/a"}};
  for (const auto& c : kept) {
    SCOPED_TRACE(c.line.substr(0, 40));
    const auto l = Load(c.line + "\nZ,1,2,/z\n");
    ASSERT_EQ(l.size(), 2u);
    EXPECT_EQ(l[1].index, 1);
    for (const SBACC_FILE_LIST_ENTRY& e : {l[0], Lookup(c.name)}) {
      EXPECT_EQ(e.index, 0);
      EXPECT_EQ(e.filename, c.name.substr(0, 31));
      EXPECT_EQ(e.areaaddr, c.addr);
      EXPECT_EQ(e.areasize, c.size);
      ASSERT_EQ(e.hddcount, c.count);
      EXPECT_EQ(e.hddname[c.count - 1], c.last);
    }
  }
  const struct { std::string line; SBACC_LINE_FATE fate; } ignored[] = {
      {"A,0x10,100,/a", SBACC_LINE_BAD_ADDRESS}, {"A,+1,1,/a", SBACC_LINE_BAD_ADDRESS}, {"", SBACC_LINE_BLANK},
      {"A,1 0,1,/a", SBACC_LINE_BAD_ADDRESS}, {"A,\t1,1,/a", SBACC_LINE_BAD_ADDRESS}, {"A,10,-5,/a", SBACC_LINE_BAD_SIZE},
      {"A,10000000000000000,1,/a", SBACC_LINE_BAD_ADDRESS}, {"A,1,18446744073709551616,/a", SBACC_LINE_BAD_SIZE},
      {"A,10,,/a", SBACC_LINE_BAD_SIZE}, {"A,10,100", SBACC_LINE_FEW_FIELDS}, {"A,10,100,, ,", SBACC_LINE_NO_PATH},
      {std::string("A,1\0,2,/a", 9), SBACC_LINE_FEW_FIELDS}, {"#A,1,2,/a", SBACC_LINE_COMMENT},
      {" ,1,2,/a", SBACC_LINE_NO_NAME}, {"A,1,2,/" + std::string(1016, 'p'), SBACC_LINE_TOO_LONG},  // 1023 characters
      {"A,1,2,/" + std::string(4993, 'p'), SBACC_LINE_TOO_LONG},
      {std::string("A,1,2,/a\0", 9) + std::string(1014, 'p'), SBACC_LINE_TOO_LONG}};  // NUL in a 1023-character line
  for (const auto& c : ignored) {
    SCOPED_TRACE(c.line.substr(0, 40));
    const auto l = Load(c.line + "\nZ,1,2,/z\n");
    ASSERT_EQ(l.size(), 1u);
    EXPECT_EQ(fates_, (std::vector<std::pair<int, int>>{{1, c.fate}, {2, SBACC_LINE_ACCEPTED}}));
    EXPECT_STREQ(l[0].filename, "Z");
    EXPECT_EQ(l[0].index, 0);
    EXPECT_EQ(Lookup("Z").index, c.fate >= SBACC_LINE_FEW_FIELDS);
  }
}

TEST_F(Filelist, PathAndFailureCodes) {
  setenv("SBACC_FILELIST", "", 1);
  EXPECT_STREQ(sbacc_l_filelist_path(), "/etc/env_frmwkapi/filelist.ini");
  setenv("SBACC_FILELIST", path_.c_str(), 1);
  sbacc_test::TraceCapture tc;
  SBACC_FILE_LIST* l = reinterpret_cast<SBACC_FILE_LIST*>(8);
  EXPECT_EQ(sbacc_l_get_filelist_entry_num(), -151);  // not written yet
  EXPECT_EQ(sbacc_l_get_filelist(&l), -151);
  EXPECT_EQ(l, nullptr);
  Lookup("A", -151);
  EXPECT_EQ(tc.Count("[sbacc_l_get_filelist_2] fopen error. errno=2 path=" + path_), 1) << tc.Dump();
  Write("");
  EXPECT_EQ(sbacc_l_get_filelist_entry_num(), -152);
  EXPECT_EQ(sbacc_l_get_filelist(&l), -152);
  EXPECT_EQ(Lookup("A").hddcount, 0);
  Write("#a\n\n#b\n" + std::string(5000, 'x') + "\n");  // 3 lines, then 5 pieces
  EXPECT_EQ(sbacc_l_get_filelist_entry_num(), 8);
  EXPECT_TRUE(Load("#a\n\n#b\n").empty());
  // Parser misuse: no destination; a full list while a name is given.
  EXPECT_EQ(sbacc_l_get_filelist_2(nullptr, "A", nullptr), -102);
  Write("A,1,1,/a\nB,1,1,/b\n");
  auto* one = static_cast<SBACC_FILE_LIST*>(calloc(1, sizeof(SBACC_FILE_LIST) + sizeof(SBACC_FILE_LIST_ENTRY)));
  one->filenum = 1;  // capacity 1: the B line must not be written past it
  EXPECT_EQ(sbacc_l_get_filelist_2(one, "A", nullptr), -103);
  EXPECT_EQ(one->filenum, 1);
  free(one);
}

}  // namespace
