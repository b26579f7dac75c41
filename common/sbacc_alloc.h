// The tracked allocator.  Every block of the library comes from SBACC_CALLOC
// and goes back through SBACC_FREE.
//
// The tracking switch that the macros pass is latched once per process from
// the environment variable SBACC_ALLOC_TRACK ("1" = tracked; unset or anything
// else = untracked, straight to the heap).  Latching once keeps every block
// released in the mode it was allocated in.
#ifndef SBACC_ALLOC_H
#define SBACC_ALLOC_H

#include <stddef.h>

extern "C" {
void* sbacc_calloc_debug(int count, int size, char* path, int line, int track);
void* sbacc_malloc_debug(int size, char* path, int line, int track);
void* sbacc_realloc_debug(char* ptr, int size, char* path, int line, int track);
void sbacc_free_debug(void* ptr, char* path, int line, int track);
}

namespace sbacc {

// The switch the macros pass (0 or 1), fixed at the first call.
int AllocTrackSwitch();
// Bytes held in live tracked blocks (the process-wide total).
int AllocTrackedTotal();
// Live blocks handed out by the macros in either mode (a leak check for tests).
long AllocLiveBlocks();
// Tests: the n-th allocation from now (1 = the next one) fails; 0 disarms.
// Returns the countdown it replaces: above 0 while an armed failure has not
// come yet, so a test learns whether a run reached it.
long AllocFailNth(long n);
// Tests: takes (true) or releases (false) the allocator's lock.
void AllocLockForTest(bool hold);

}  // namespace sbacc

#define SBACC_CALLOC(count, size) \
  sbacc_calloc_debug(static_cast<int>(count), static_cast<int>(size), const_cast<char*>(SBACC_MODULE), __LINE__, ::sbacc::AllocTrackSwitch())
#define SBACC_FREE(ptr) \
  sbacc_free_debug((ptr), const_cast<char*>(SBACC_MODULE), __LINE__, ::sbacc::AllocTrackSwitch())

#endif  // SBACC_ALLOC_H
