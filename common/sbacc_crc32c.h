// CRC-32C (Castagnoli: reflected polynomial 0x82F63B78, initial value and
// final xor ~0; the check value of "123456789" is 0xE3069283) and the algebra
// that keeps a copy's checksum current from the bytes a write changes, without
// reading the rest of the area again.
//
// Every `crc` below is a finished CRC in the usual sense: 0 is the CRC of the
// empty message, so a checksum is started with Crc32cExtend(0, ...).
#ifndef SBACC_CRC32C_H
#define SBACC_CRC32C_H

#include <stddef.h>
#include <stdint.h>

namespace sbacc {

// CRC of (message ‖ data[0, n)) from the CRC of the message.
uint32_t Crc32cExtend(uint32_t crc, const void* data, size_t n);

// The same through the table-driven code only, whatever the CPU offers
// (tests hold the instruction path against it).
uint32_t Crc32cExtendPortable(uint32_t crc, const void* data, size_t n);

// True when Crc32cExtend runs on the CPU's CRC instruction.
bool Crc32cHardware();

// CRC of A ‖ B from crc(A), crc(B) and |B|.  O(log len_b).
uint32_t Crc32cCombine(uint32_t crc_a, uint32_t crc_b, uint64_t len_b);

// CRC of (message ‖ n zero bytes) from the CRC of the message.  O(log n).
uint32_t Crc32cExtendZeros(uint32_t crc, uint64_t n);

// CRC of the message of len_whole bytes after its bytes [offset, offset + n)
// changed from old_bytes to new_bytes.  Needs offset + n <= len_whole.
// O(n + log len_whole).
uint32_t Crc32cReplace(uint32_t crc_whole, uint64_t len_whole, uint64_t offset, const void* old_bytes,
                       const void* new_bytes, size_t n);

// CRC of the message without its last tail_len bytes, given those bytes.
// The length of what stays does not enter the algebra, so it is not asked
// for.  O(tail_len + log tail_len).
uint32_t Crc32cTruncate(uint32_t crc_whole, const void* tail, size_t tail_len);

}  // namespace sbacc

#endif  // SBACC_CRC32C_H
