// CRC-32C for the per-copy integrity records: the CPU's CRC instruction where
// there is one, slicing-by-8 tables elsewhere.  The table-driven fallback plus
// the instruction keeps the library free of a new dependency.
//
// The functions work on the register, the inverted CRC (~crc), through which
// data runs; the public calls add the inversions.  Polynomials modulo P are
// held reflected, as the register holds them: bit 31 is x^0, bit 0 is x^31.
#include "sbacc_crc32c.h"

#include <string.h>

#if defined(__x86_64__)
#include <nmmintrin.h>
#define SBACC_CRC32C_X86 1
#elif defined(__aarch64__) && defined(__ARM_FEATURE_CRC32) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
#include <arm_acle.h>
#define SBACC_CRC32C_ARM 1
#endif

namespace sbacc {
namespace {

constexpr uint32_t kPoly = 0x82F63B78u;
constexpr uint32_t kOne = 0x80000000u;  // x^0
constexpr uint32_t kX = kOne >> 1;      // x^1

// Built by the compiler: the tables sit in read-only data, so there is no
// first-use initialisation to race on and nothing to pay at load time.
struct SliceTables {
  uint32_t t[8][256];
};

constexpr SliceTables MakeSliceTables() {
  SliceTables s{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t c = i;
    for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ kPoly : c >> 1;
    s.t[0][i] = c;
  }
  for (int j = 1; j < 8; ++j) {
    for (int i = 0; i < 256; ++i) s.t[j][i] = (s.t[j - 1][i] >> 8) ^ s.t[0][s.t[j - 1][i] & 0xff];
  }
  return s;
}

constexpr SliceTables kSlice = MakeSliceTables();

inline uint32_t Le32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
         (static_cast<uint32_t>(p[3]) << 24);
}

// Byte-wise loads: the same result on a host of either byte order.
uint32_t PortableRegister(uint32_t reg, const uint8_t* p, size_t n) {
  const auto& t = kSlice.t;
  for (; n >= 8; p += 8, n -= 8) {
    const uint32_t lo = reg ^ Le32(p);
    const uint32_t hi = Le32(p + 4);
    reg = t[7][lo & 0xff] ^ t[6][(lo >> 8) & 0xff] ^ t[5][(lo >> 16) & 0xff] ^ t[4][lo >> 24] ^ t[3][hi & 0xff] ^
          t[2][(hi >> 8) & 0xff] ^ t[1][(hi >> 16) & 0xff] ^ t[0][hi >> 24];
  }
  for (; n > 0; ++p, --n) reg = (reg >> 8) ^ t[0][(reg ^ *p) & 0xff];
  return reg;
}

#if SBACC_CRC32C_X86
// Compiled for SSE4.2 on its own and called only after the run-time check, so
// the rest of the library keeps the baseline instruction set.
__attribute__((target("sse4.2"))) uint32_t Sse42Register(uint32_t reg, const uint8_t* p, size_t n) {
  uint64_t r = reg;
  for (; n >= 8; p += 8, n -= 8) {
    uint64_t v;
    memcpy(&v, p, sizeof v);
    r = _mm_crc32_u64(r, v);
  }
  uint32_t r32 = static_cast<uint32_t>(r);
  for (; n > 0; ++p, --n) r32 = _mm_crc32_u8(r32, *p);
  return r32;
}

bool HaveSse42() {
  static const bool have = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("sse4.2") != 0;
  }();
  return have;
}
#elif SBACC_CRC32C_ARM
uint32_t ArmRegister(uint32_t reg, const uint8_t* p, size_t n) {
  for (; n >= 8; p += 8, n -= 8) {
    uint64_t v;
    memcpy(&v, p, sizeof v);
    reg = __crc32cd(reg, v);
  }
  for (; n > 0; ++p, --n) reg = __crc32cb(reg, *p);
  return reg;
}
#endif

uint32_t Register(uint32_t reg, const uint8_t* p, size_t n) {
#if SBACC_CRC32C_X86
  if (HaveSse42()) return Sse42Register(reg, p, n);
  return PortableRegister(reg, p, n);
#elif SBACC_CRC32C_ARM
  return ArmRegister(reg, p, n);
#else
  return PortableRegister(reg, p, n);
#endif
}

// a * b mod P.
constexpr uint32_t MulMod(uint32_t a, uint32_t b) {
  uint32_t prod = 0;
  for (uint32_t m = kOne; m != 0; m >>= 1) {
    if (a & m) prod ^= b;
    b = (b & 1) ? (b >> 1) ^ kPoly : b >> 1;  // b * x
  }
  return prod;
}

// w * x^-1 mod P, the step "multiply by x" run backwards; x is invertible
// because P has a constant term.
constexpr uint32_t DivX(uint32_t w) { return (w & kOne) ? ((w ^ kPoly) << 1) | 1 : w << 1; }

static_assert(MulMod(kX, DivX(kOne)) == kOne, "x * x^-1 must be 1");

// base^(2^k), k = 0..66: enough for x^(8n) with n of 64 bits.
struct Squares {
  uint32_t p[67];
};

constexpr Squares MakeSquares(uint32_t base) {
  Squares s{};
  s.p[0] = base;
  for (int k = 1; k < 67; ++k) s.p[k] = MulMod(s.p[k - 1], s.p[k - 1]);
  return s;
}

constexpr Squares kXSquares = MakeSquares(kX);
constexpr Squares kXInvSquares = MakeSquares(DivX(kOne));

// v * base^(8n): square-and-multiply over the bits of n, the squares
// precomputed; what n zero bytes do to a register when base is x.
uint32_t ShiftBytes(uint32_t v, uint64_t n, const Squares& sq) {
  for (int k = 3; n != 0; n >>= 1, ++k) {
    if (n & 1) v = MulMod(sq.p[k], v);
  }
  return v;
}

}  // namespace

uint32_t Crc32cExtend(uint32_t crc, const void* data, size_t n) {
  return ~Register(~crc, static_cast<const uint8_t*>(data), n);
}

uint32_t Crc32cExtendPortable(uint32_t crc, const void* data, size_t n) {
  return ~PortableRegister(~crc, static_cast<const uint8_t*>(data), n);
}

bool Crc32cHardware() {
#if SBACC_CRC32C_X86
  return HaveSse42();
#elif SBACC_CRC32C_ARM
  return true;
#else
  return false;
#endif
}

// B's register starts at ~0 and A's ends at ~crc_a: the two ~0s cancel, and
// what remains of A is shifted by |B|.
uint32_t Crc32cCombine(uint32_t crc_a, uint32_t crc_b, uint64_t len_b) {
  return ShiftBytes(crc_a, len_b, kXSquares) ^ crc_b;
}

uint32_t Crc32cExtendZeros(uint32_t crc, uint64_t n) { return ~ShiftBytes(~crc, n, kXSquares); }

// Between messages of one length the CRC is affine: crc(M ^ D) = crc(M) ^
// raw(D), raw starting from a zero register without the final inversion, so
// the constants drop out.  D is old ^ new in the range and zero elsewhere:
// the zeros before it leave a zero register alone, those after it shift it.
uint32_t Crc32cReplace(uint32_t crc_whole, uint64_t len_whole, uint64_t offset, const void* old_bytes,
                       const void* new_bytes, size_t n) {
  // raw is linear too: no buffer for old ^ new.
  const uint32_t raw = Register(0, static_cast<const uint8_t*>(old_bytes), n) ^
                       Register(0, static_cast<const uint8_t*>(new_bytes), n);
  return crc_whole ^ ShiftBytes(raw, len_whole - offset - n, kXSquares);
}

// Combine run backwards: crc(A) = (crc(A ‖ T) ^ crc(T)) * x^(-8|T|).
uint32_t Crc32cTruncate(uint32_t crc_whole, const void* tail, size_t tail_len) {
  return ShiftBytes(crc_whole ^ Crc32cExtend(0, tail, tail_len), tail_len, kXInvSquares);
}

}  // namespace sbacc
