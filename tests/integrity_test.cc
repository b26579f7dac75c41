// CRC-32C algebra against CRCs from scratch, and the integrity record codec.
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <random>
#include <vector>

#include "sbacc_crc32c.h"
#include "sbacc_l.h"

using namespace sbacc;

// Random overwrites, appends, zero gaps and truncations keep the CRC as if from scratch.
TEST(Integrity, CrcAlgebraMatchesScratch) {
  ASSERT_EQ(Crc32cExtend(0, "123456789", 9), 0xE3069283u);
  std::mt19937_64 rng(24);
  std::vector<uint8_t> buf, piece;
  uint32_t crc = 0;
  for (int it = 0; it < 3000; ++it) {
    const size_t len = buf.size(), n = rng() % 200, k = std::min(n, len), at = rng() % (len - k + 1);
    piece.resize(n);
    for (uint8_t& b : piece) b = static_cast<uint8_t>(rng() % 3 ? rng() : 0);
    const uint32_t cp = Crc32cExtend(0, piece.data(), n);
    uint8_t* p = buf.data();
    ASSERT_EQ(Crc32cExtendPortable(cp, p + at, k), Crc32cExtend(cp, p + at, k)) << "step " << it;
    switch (rng() % 4) {
      case 0: crc = Crc32cReplace(crc, len, at, p + at, piece.data(), k), std::copy_n(piece.begin(), k, p + at); break;
      case 1: crc = Crc32cCombine(crc, cp, n), buf.insert(buf.end(), piece.begin(), piece.end()); break;
      case 2: crc = Crc32cExtendZeros(crc, n), buf.resize(len + n); break;
      default: crc = Crc32cTruncate(crc, p + len - k, k), buf.resize(len - k);
    }
    ASSERT_EQ(crc, Crc32cExtend(0, buf.data(), buf.size())) << "step " << it;
  }
}

TEST(Integrity, RecordCodec) {
  SBACC_HDD_HEADER h{};
  SBACC_INTEGRITY r{0x01020304, 0xA1B2C3D4, 0x1122334455667788, -7, 0, 0}, d;
  sbacc_l_integrity_put(&h, &r);
  const uint8_t pinned[24] = {'S', 'C', '1', 0, 4, 3, 2, 1, 0xD4, 0xC3, 0xB2, 0xA1,
                              0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0xF9, 0xFF, 0xFF, 0xFF};
  EXPECT_EQ(memcmp(h.rfu5, pinned, sizeof pinned), 0);
  EXPECT_EQ(sbacc_l_integrity_applies(&h, &d), SBACC_INTEGRITY_NONE);  // opencnt 0, not -7
  h.opencnt = -7;
  ASSERT_EQ(sbacc_l_integrity_applies(&h, &d), SBACC_INTEGRITY_OK);
  uint8_t img[kIntSize];
  sbacc_l_integrity_encode(&d, img);
  EXPECT_EQ(memcmp(img, h.rfu5, kIntSize), 0);
  r.pend_crc = 5;
  sbacc_l_integrity_encode(&r, img);
  EXPECT_EQ(sbacc_l_integrity_decode(img, &d), SBACC_INTEGRITY_PENDING);
  for (int bit = 0; bit < 8 * kIntSize; ++bit) {
    img[bit / 8] ^= static_cast<uint8_t>(1 << (bit % 8));
    EXPECT_EQ(sbacc_l_integrity_decode(img, &d), SBACC_INTEGRITY_NONE) << "bit " << bit;
    img[bit / 8] ^= static_cast<uint8_t>(1 << (bit % 8));
  }
  img[2] = '2';  // another format, its own check sound
  sbacc_l_put_le32(img + kIntCheck, Crc32cExtend(0, img, kIntCheck));
  EXPECT_EQ(sbacc_l_integrity_decode(img, &d), SBACC_INTEGRITY_NONE);
}
