// Record codecs: media bytes of every field, and decoding of arbitrary bytes.
#include <gtest/gtest.h>
#include <string.h>

#include <random>
#include <vector>

#include "sbacc_l.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes At(const uint8_t* raw, size_t off, size_t len) { return Bytes(raw + off, raw + off + len); }

TEST(Record, HeaderFieldsLandLittleEndianAtTheirOffsets) {
  SBACC_HDD_HEADER h;
  memset(&h, 0, sizeof h);
  memcpy(h.magic, "SBFS", 4);
  h.version = 3;
  memset(h.filename, 'n', sizeof h.filename);  // all 32 bytes, no NUL
  h.areasize = -2;
  h.filesize = 0x01020304;
  h.hddblockade = 0x80000001u;
  h.rfu1[6] = 0x77;
  h.openflag = 1;
  h.opencnt = 0x0a0b0c0d;
  h.opentime = 0x1122334455667788;
  h.closetime = -1;
  h.writeflag = 0xfe;
  h.write_offset = 0x100;
  h.write_size = 0x7fffffff;
  h.rfu5[35] = 0x99;
  uint8_t raw[128];
  sbacc_l_encode_header(&h, raw);
  EXPECT_EQ(At(raw, 0, 8), Bytes({'S', 'B', 'F', 'S', 3, 0, 0, 0}));
  EXPECT_EQ(At(raw, 8, 32), Bytes(32, 'n'));
  EXPECT_EQ(At(raw, 40, 12), Bytes({0xfe, 0xff, 0xff, 0xff, 4, 3, 2, 1, 1, 0, 0, 0x80}));
  EXPECT_EQ(At(raw, 52, 12), Bytes({0, 0, 0, 0, 0, 0, 0x77, 1, 0x0d, 0x0c, 0x0b, 0x0a}));
  EXPECT_EQ(At(raw, 64, 16), Bytes({0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}));
  EXPECT_EQ(At(raw, 80, 12), Bytes({0xfe, 0, 0, 0, 0, 1, 0, 0, 0xff, 0xff, 0xff, 0x7f}));
  EXPECT_EQ(At(raw, 92, 36), [] { Bytes b(36, 0); b[35] = 0x99; return b; }());
  SBACC_HDD_HEADER back;
  sbacc_l_decode_header(raw, &back);
  EXPECT_EQ(memcmp(&back, &h, sizeof h), 0);
  EXPECT_TRUE(sbacc_l_header_valid(&back));
}

TEST(Record, EntryFieldsLandLittleEndianAtTheirOffsets) {
  SBACC_MEM_LIST_ENTRY e;
  memset(&e, 0, sizeof e);
  memcpy(e.magic, "SBNM", 4);
  e.version = 3;
  memcpy(e.filename, "envfw_verid", 11);
  e.hddcount = 8;
  e.hddblockade = 0x000000ffu;
  e.latesthdd = 0xa0000005u;
  e.hddrepair = 0x81;
  e.write_on_repair = 2;
  e.rfu[1] = 0x33;
  e.hddrepairlock_cntno[2] = 1;
  e.rfu2[67] = 0x44;
  uint8_t raw[128];
  sbacc_l_encode_entry(&e, raw);
  EXPECT_EQ(At(raw, 0, 8), Bytes({'S', 'B', 'N', 'M', 3, 0, 0, 0}));
  EXPECT_EQ(At(raw, 8, 12), Bytes({'e', 'n', 'v', 'f', 'w', '_', 'v', 'e', 'r', 'i', 'd', 0}));
  EXPECT_EQ(At(raw, 40, 20), Bytes({8, 0, 0, 0, 0xff, 0, 0, 0, 5, 0, 0, 0xa0, 0x81, 2, 0, 0x33, 0, 0, 1, 0}));
  EXPECT_EQ(raw[127], 0x44);
  SBACC_MEM_LIST_ENTRY back;
  sbacc_l_decode_entry(raw, &back);
  EXPECT_EQ(memcmp(&back, &e, sizeof e), 0);
  EXPECT_TRUE(sbacc_l_entry_valid(&back));
}

TEST(Record, LittleEndianHelpers) {
  uint8_t b[8];
  sbacc_l_put_le64(b, 0x8877665544332211ull);
  EXPECT_EQ(Bytes(b, b + 8), Bytes({0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88}));
  EXPECT_EQ(sbacc_l_get_le64(b), 0x8877665544332211ull);
  EXPECT_EQ(sbacc_l_get_le32(b + 4), 0x88776655u);
  sbacc_l_put_le32(b, 0xdeadbeefu);
  EXPECT_EQ(Bytes(b, b + 4), Bytes({0xef, 0xbe, 0xad, 0xde}));
}

// Any 128 bytes decode (UBSan watches the conversions), re-encode to the same
// bytes, and are valid exactly when magic and version say so.
TEST(Record, ArbitraryBytesRoundTripAndValidity) {
  std::mt19937 rng(12345);
  for (int i = 0; i < 2000; ++i) {
    uint8_t raw[128];
    for (uint8_t& b : raw) b = static_cast<uint8_t>(rng());
    const int variant = i % 4;  // 0: random; 1: magic+version; 2: magic, bad version; 3: version only
    const char* magic = (i % 8 < 4) ? SBACC_HDD_MAGIC : SBACC_MEM_MAGIC;
    if (variant == 1 || variant == 2) memcpy(raw, magic, 4);
    if (variant != 0) sbacc_l_put_le32(raw + 4, 3);
    if (variant == 2) raw[4 + rng() % 4] ^= static_cast<uint8_t>(1u << (rng() % 8));
    const bool magic_ok_hdr = memcmp(raw, "SBFS", 4) == 0, magic_ok_mem = memcmp(raw, "SBNM", 4) == 0;
    const bool version_ok = sbacc_l_get_le32(raw + 4) == 3;

    SBACC_HDD_HEADER h;
    sbacc_l_decode_header(raw, &h);
    SBACC_MEM_LIST_ENTRY e;
    sbacc_l_decode_entry(raw, &e);
    uint8_t again[128];
    sbacc_l_encode_header(&h, again);
    ASSERT_EQ(memcmp(again, raw, 128), 0) << "header round trip, pattern " << i;
    sbacc_l_encode_entry(&e, again);
    ASSERT_EQ(memcmp(again, raw, 128), 0) << "entry round trip, pattern " << i;
    ASSERT_EQ(sbacc_l_header_valid(&h), magic_ok_hdr && version_ok) << i;
    ASSERT_EQ(sbacc_l_entry_valid(&e), magic_ok_mem && version_ok) << i;
  }
}

}  // namespace
