// Record codecs: media bytes of the header fields, and arbitrary bytes.
#include <gtest/gtest.h>
#include <string.h>

#include <random>
#include <vector>

#include "sbacc_l.h"

namespace {

using Bytes = std::vector<uint8_t>;

TEST(Record, HeaderFieldsLandLittleEndianAtTheirOffsets) {
  SBACC_HDD_HEADER h{};
  memcpy(h.magic, "SBFS", 4);
  h.version = 3;
  memset(h.filename, 'n', sizeof h.filename);  // all 32 bytes, no NUL: kept as is
  h.areasize = -2;
  h.filesize = 0x01020304;
  h.hddblockade = 0x80000001u;
  h.openflag = 1;
  h.opencnt = 0x0a0b0c0d;
  h.opentime = 0x1122334455667788;
  h.closetime = -1;
  h.writeflag = 0xfe;
  h.write_offset = 0x100;
  h.write_size = 0x7fffffff;
  Bytes want(128, 0);
  const Bytes head = {'S', 'B', 'F', 'S', 3};
  const Bytes mid = {0xfe, 0xff, 0xff, 0xff, 4, 3, 2, 1, 1, 0, 0, 0x80, 0, 0, 0, 0, 0, 0, 0, 1, 0x0d, 0x0c, 0x0b,
                     0x0a, 0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
                     0xff, 0xfe, 0, 0, 0, 0, 1, 0, 0, 0xff, 0xff, 0xff, 0x7f};  // offsets 40..91
  std::copy(head.begin(), head.end(), want.begin());
  std::fill(want.begin() + 8, want.begin() + 40, 'n');
  std::copy(mid.begin(), mid.end(), want.begin() + 40);
  uint8_t raw[128];
  sbacc_l_encode_header(&h, raw);
  EXPECT_EQ(Bytes(raw, raw + 128), want);
}

// Any 128 bytes decode (UBSan watches the conversions), re-encode to the same
// bytes, and are valid exactly when magic and version say so.
TEST(Record, ArbitraryBytesRoundTripAndValidity) {
  std::mt19937 rng(12345);
  for (int i = 0; i < 2000; ++i) {
    uint8_t raw[128], again[128];
    for (uint8_t& b : raw) b = static_cast<uint8_t>(rng());
    const int variant = i % 4;  // 0: random; 1: magic+version; 2: magic, version off by a bit; 3: version only
    if (variant == 1 || variant == 2) memcpy(raw, (i % 8 < 4) ? SBACC_HDD_MAGIC : SBACC_MEM_MAGIC, 4);
    if (variant != 0) sbacc_l_put_le32(raw + 4, 3);
    if (variant == 2) raw[4 + rng() % 4] ^= static_cast<uint8_t>(1u << (rng() % 8));
    const bool version_ok = raw[4] == 3 && raw[5] == 0 && raw[6] == 0 && raw[7] == 0;

    SBACC_HDD_HEADER h;
    sbacc_l_decode_header(raw, &h);
    sbacc_l_encode_header(&h, again);
    ASSERT_EQ(memcmp(again, raw, 128), 0) << "header, pattern " << i;
    ASSERT_EQ(sbacc_l_header_valid(&h), memcmp(raw, "SBFS", 4) == 0 && version_ok) << i;

    SBACC_MEM_LIST_ENTRY e;
    sbacc_l_decode_entry(raw, &e);
    sbacc_l_encode_entry(&e, again);
    ASSERT_EQ(memcmp(again, raw, 128), 0) << "entry, pattern " << i;
    ASSERT_EQ(sbacc_l_entry_valid(&e), memcmp(raw, "SBNM", 4) == 0 && version_ok) << i;
  }
}

}  // namespace
