// The tracked allocator: plain heap calls, or blocks with a 32-byte record in
// front that says who allocated them, plus a running total and one trace line
// per allocation, reallocation and release.
#define SBACC_MODULE SBACC_MODULE_SBACC
#include "sbacc_alloc.h"

#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "sbacc_trace.h"

namespace {

typedef struct {
  uint32_t mythreadno;  // low 32 bits of the pthread_t
  int tsize;
  int size;
  char filename[16];
  int lineno;
} Mc_debug_header_t;

// The layout is shared with tools that read heap dumps: no gaps, 32 bytes.
static_assert(sizeof(Mc_debug_header_t) == 32, "header must be 32 bytes");
static_assert(offsetof(Mc_debug_header_t, mythreadno) == 0, "mythreadno offset");
static_assert(offsetof(Mc_debug_header_t, tsize) == 4, "tsize offset");
static_assert(offsetof(Mc_debug_header_t, size) == 8, "size offset");
static_assert(offsetof(Mc_debug_header_t, filename) == 12, "filename offset");
static_assert(offsetof(Mc_debug_header_t, lineno) == 28, "lineno offset");

constexpr int kHeaderSize = static_cast<int>(sizeof(Mc_debug_header_t));
// Largest usable size whose block (size + header) still fits an int.
constexpr int kMaxTracked = INT_MAX - kHeaderSize;

volatile int tsize = 0;
pthread_mutex_t memory_mutex = PTHREAD_MUTEX_INITIALIZER;

// Held across fork(), so a child forked while another thread allocates does
// not inherit the lock taken.
void MemoryLock() { pthread_mutex_lock(&memory_mutex); }
void MemoryUnlock() { pthread_mutex_unlock(&memory_mutex); }
const int g_memory_atfork = pthread_atfork(MemoryLock, MemoryUnlock, MemoryUnlock);

std::atomic<long> g_live_blocks{0};
std::atomic<long> g_fail_countdown{0};

// Counts one allocation call against the AllocFailNth hook; true when this
// is the call that has to fail.
bool ForcedFailure() {
  long cur = g_fail_countdown.load(std::memory_order_relaxed);
  while (cur > 0) {
    if (g_fail_countdown.compare_exchange_weak(cur, cur - 1, std::memory_order_relaxed)) {
      if (cur == 1) {
        errno = ENOMEM;  // callers trace errno after a NULL
        return true;
      }
      return false;
    }
  }
  return false;
}

uint32_t ThreadNo() {
  // pthread_t is an unsigned long here; only its low 32 bits are recorded.
  return static_cast<uint32_t>(pthread_self());
}

// The caller's name: 15 characters at most from the fourth character of the
// directory-less path.  A result shorter than three characters would put the
// start past its end, so such a path gives an empty name.
void MakeName(char* out, char* path) {
  memset(out, 0, 16);
  if (path == nullptr) return;
  const char* base = MC_FilePathDel(path);
  if (base == nullptr || strnlen(base, 3) < 3) return;
  base += 3;
  memcpy(out, base, strnlen(base, 15));
}

int AddTotal(int delta) {
  pthread_mutex_lock(&memory_mutex);
  tsize = tsize + delta;
  const int total = tsize;
  pthread_mutex_unlock(&memory_mutex);
  return total;
}

// Tracked allocation of n zeroed usable bytes; n is already known to be in
// range.  The AllocFailNth hook has been consulted by the caller.
void* TrackedAlloc(int n, char* path, int line) {
  const uint32_t self = ThreadNo();
  auto* hdr = static_cast<Mc_debug_header_t*>(calloc(1, static_cast<size_t>(n) + kHeaderSize));
  if (hdr == nullptr) return nullptr;
  hdr->tsize = AddTotal(n);
  hdr->mythreadno = self;
  hdr->size = n;
  MakeName(hdr->filename, path);
  hdr->lineno = line;
  SBACC_TRACE(sbacc::kTraceMilestone,
              "***** CALLOC(ALLOC_SIZE =%d TOTAL_SIZE =%d THREADNO =%u FILE =%s LINE =%d)", hdr->size,
              hdr->tsize, hdr->mythreadno, hdr->filename, hdr->lineno);
  g_live_blocks.fetch_add(1, std::memory_order_relaxed);
  return hdr + 1;
}

void* Calloc(int count, int size, char* path, int line, int track) {
  // The product is taken in 64 bits: a negative or oversized request fails
  // like an exhausted heap instead of wrapping into a short block.
  const long long n = static_cast<long long>(count) * size;
  if (count < 0 || size < 0 || n > kMaxTracked) {
    errno = ENOMEM;
    return nullptr;
  }
  if (track != 0) return TrackedAlloc(static_cast<int>(n), path, line);
  void* p = calloc(static_cast<size_t>(count), static_cast<size_t>(size));
  if (p != nullptr) g_live_blocks.fetch_add(1, std::memory_order_relaxed);
  return p;
}

}  // namespace

extern "C" {

void* sbacc_calloc_debug(int count, int size, char* path, int line, int track) {
  if (ForcedFailure()) return nullptr;
  return Calloc(count, size, path, line, track);
}

void* sbacc_malloc_debug(int size, char* path, int line, int track) {
  if (ForcedFailure()) return nullptr;
  return Calloc(1, size, path, line, track);
}

void* sbacc_realloc_debug(char* ptr, int size, char* path, int line, int track) {
  if (ForcedFailure()) return nullptr;
  if (size < 0 || size > kMaxTracked) {
    errno = ENOMEM;
    return nullptr;
  }
  if (track == 0) {
    void* p = realloc(ptr, static_cast<size_t>(size));
    if (ptr == nullptr && p != nullptr) g_live_blocks.fetch_add(1, std::memory_order_relaxed);
    // glibc releases the block when asked for 0 bytes and answers NULL.
    if (ptr != nullptr && p == nullptr && size == 0) g_live_blocks.fetch_sub(1, std::memory_order_relaxed);
    return p;
  }
  // Tracked realloc of NULL allocates, as realloc does; the new block is
  // zeroed and recorded by a CALLOC line since there is no previous owner.
  if (ptr == nullptr) return TrackedAlloc(size, path, line);

  const uint32_t self = ThreadNo();
  auto* old_hdr = reinterpret_cast<Mc_debug_header_t*>(ptr) - 1;
  auto* hdr = static_cast<Mc_debug_header_t*>(realloc(old_hdr, static_cast<size_t>(size) + kHeaderSize));
  if (hdr == nullptr) return nullptr;  // old block, header and total untouched
  hdr->tsize = AddTotal(size - hdr->size);

  const uint32_t old_thread = hdr->mythreadno;
  const int old_size = hdr->size;
  char old_name[16];
  memcpy(old_name, hdr->filename, sizeof old_name);
  old_name[15] = '\0';  // a scribbled header must not make the trace read past it
  const int old_line = hdr->lineno;

  hdr->mythreadno = self;
  hdr->size = size;
  MakeName(hdr->filename, path);
  hdr->lineno = line;
  SBACC_TRACE(sbacc::kTraceMilestone,
              "***** REALLOC(ALLOC_SIZE =%d  TOTAL_SIZE =%d THREADNO =%u FILE =%s LINE =%d(PRESIZE = %d "
              "THREADNO =%u FILE =%s LINE =%d))",
              hdr->size, hdr->tsize, hdr->mythreadno, hdr->filename, hdr->lineno, old_size, old_thread,
              old_name, old_line);
  return hdr + 1;
}

void sbacc_free_debug(void* ptr, char* path, int line, int track) {
  // NULL is released as free() does it, in both modes: nothing happens, and
  // the tracked path writes no line and leaves the total alone.
  if (ptr == nullptr) return;
  g_live_blocks.fetch_sub(1, std::memory_order_relaxed);
  if (track == 0) {
    free(ptr);
    return;
  }
  const uint32_t self = ThreadNo();
  auto* hdr = static_cast<Mc_debug_header_t*>(ptr) - 1;
  const int total = AddTotal(-hdr->size);
  char name[16];
  MakeName(name, path);
  char owner[16];
  memcpy(owner, hdr->filename, sizeof owner);
  owner[15] = '\0';
  SBACC_TRACE(sbacc::kTraceMilestone,
              "***** FREE(FREE_SIZE =%d TOTAL_SIZE =%d THREADNO =%u FILE =%s LINE =%d (THREADNO =%u FILE =%s "
              "LINE =%d))",
              hdr->size, total, self, name, line, hdr->mythreadno, owner, hdr->lineno);
  // Poison `size` bytes from the header on, so that a stale pointer reads
  // 0xFF instead of plausible data.
  memset(hdr, 0xFF, static_cast<size_t>(hdr->size));
  free(hdr);
}

}  // extern "C"

namespace sbacc {

int AllocTrackSwitch() {
  // Latched once: a block must be released in the mode it was allocated in.
  static const int latched = [] {
    const char* v = getenv("SBACC_ALLOC_TRACK");
    return (v != nullptr && strcmp(v, "1") == 0) ? 1 : 0;
  }();
  return latched;
}

int AllocTrackedTotal() {
  pthread_mutex_lock(&memory_mutex);
  const int total = tsize;
  pthread_mutex_unlock(&memory_mutex);
  return total;
}

long AllocLiveBlocks() { return g_live_blocks.load(std::memory_order_relaxed); }

void AllocLockForTest(bool hold) {
  if (hold) {
    MemoryLock();
  } else {
    MemoryUnlock();
  }
}

long AllocFailNth(long n) { return g_fail_countdown.exchange(n > 0 ? n : 0, std::memory_order_relaxed); }

}  // namespace sbacc
