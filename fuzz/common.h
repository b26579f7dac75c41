// Shared set-up of the fuzz targets: a private directory with small HDD
// images, an area list and an NV image, the environment pointed at them, and
// an Env that never sleeps (NV retries and lock back-offs would otherwise
// cost 100 ms each).
#ifndef SBACC_FUZZ_COMMON_H
#define SBACC_FUZZ_COMMON_H

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace sbacc_fuzz {

constexpr int kCopies = 2;
constexpr uint64_t kHddBytes = 16 * 1024;
constexpr uint64_t kAreaAddr = 0x400;
constexpr uint64_t kAreaSize = 4096;

// Creates the directory once per process; later calls return it.
const std::string& Dir();
std::string HddPath(int i);
std::string NvPath();
std::string ListPath();

// Writes a whole file (created if missing).
void WriteFile(const std::string& path, const void* data, size_t len);
// Rewrites bytes at a position of an existing file.
void PutBytes(const std::string& path, uint64_t pos, const void* data, size_t len);

// Zeroed HDD and NV images and an area list with two areas of two copies
// ("a" at kAreaAddr, "b" right behind it); library and stand-in state reset.
void FreshSetup();

// Forgets the library's process state (area list, controller number).
void ResetLibrary();

// With threads off every worker's job runs in the calling thread, as when
// thread creation fails: far faster under the sanitizers, and the same
// results.  On by default.
void UseThreads(bool on);

}  // namespace sbacc_fuzz

#endif  // SBACC_FUZZ_COMMON_H
