// Progress of the start-up restore, for a caller that shows it (the tool on a
// terminal).  Without a hook a report costs one atomic load and takes no lock.
#include <pthread.h>

#include <atomic>

#include "sbacc_core.h"
#include "sbacc_tool_iface.h"

namespace {

// Areas finish on worker threads: the count and the calls are serialised.
// Constant-initialised, and held across fork as the library's other locks
// are, so a child never inherits it taken.  Registered with the first hook:
// before that nothing takes it.
pthread_mutex_t g_mu = PTHREAD_MUTEX_INITIALIZER;
sbacc_progress_fn g_fn = nullptr;  // g_fn to g_total under g_mu
void* g_arg = nullptr;
int g_done = 0;
int g_total = 0;
std::atomic<bool> g_on{false};  // a hook is set

void Lock() { pthread_mutex_lock(&g_mu); }
void Unlock() { pthread_mutex_unlock(&g_mu); }
pthread_once_t g_fork_once = PTHREAD_ONCE_INIT;
void RegisterFork() { (void)pthread_atfork(Lock, Unlock, Unlock); }

// total >= 0 starts a new count; `finished` areas are added before the call.
void Report(int total, int finished, const char* area, uint32_t copies) {
  if (!g_on.load(std::memory_order_acquire)) return;
  Lock();
  if (total >= 0) {
    g_total = total;
    g_done = 0;
  }
  g_done += finished;
  if (g_fn != nullptr) g_fn(g_arg, g_done, g_total, area, copies);
  Unlock();
}

}  // namespace

void sbacc_set_progress_hook(sbacc_progress_fn fn, void* arg) {
  pthread_once(&g_fork_once, RegisterFork);
  Lock();
  g_fn = fn;
  g_arg = arg;
  g_on.store(fn != nullptr, std::memory_order_release);
  Unlock();
}

void sbacc_progress_begin(int total) { Report(total, 0, nullptr, 0); }
void sbacc_progress_rebuilding(const char* area, uint32_t copies) { Report(-1, 0, area, copies); }
void sbacc_progress_area_done(const char* area) { Report(-1, 1, area, 0); }
