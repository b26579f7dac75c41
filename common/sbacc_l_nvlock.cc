// In-process serialisation of an area's NV record.  Two handles on one area
// (and a repair's steps) read, change and write the record's mask words;
// holding the record's lock over each such sequence keeps one update from
// undoing another.  Records share a fixed set of locks by index.
#define SBACC_MODULE SBACC_MODULE_L
#include <pthread.h>

#include "sbacc_env.h"
#include "sbacc_l.h"
#include "sbacc_trace.h"

namespace {

constexpr int kStripes = 16;  // all are held across fork: few enough for ThreadSanitizer to track
struct Stripe {
  pthread_mutex_t mu = PTHREAD_MUTEX_INITIALIZER;  // constant-initialised: usable before any constructor runs
};
Stripe g_stripes[kStripes];
// The data locks: a write of an area's data and integrity record from one
// handle is not interleaved with another handle's.  Taken before a record
// lock, never after one.
Stripe g_data[kStripes];

// Every record stripe is held across fork(), taken in index order as anyone
// else takes at most one: a child never inherits a record lock taken by
// another thread.
void LockAll() {
  for (Stripe& s : g_stripes) pthread_mutex_lock(&s.mu);
}
void UnlockAll() {
  for (int i = kStripes - 1; i >= 0; --i) pthread_mutex_unlock(&g_stripes[i].mu);
}
// A data lock is held over a whole write, crew rounds included, so fork()
// cannot wait for it (the crew's own fork handling may hold what the write
// waits for).  The child, where no other thread runs on, gets them afresh;
// the forking thread itself never forks inside a write.
void ResetData() {
  for (Stripe& s : g_data) pthread_mutex_init(&s.mu, nullptr);
}
pthread_once_t g_fork_once = PTHREAD_ONCE_INIT;
void RegisterFork() {
  (void)pthread_atfork(LockAll, UnlockAll, UnlockAll);
  (void)pthread_atfork(nullptr, nullptr, ResetData);
}

pthread_mutex_t* StripeOf(const SBACC_FILE_DISCRIPTER* sfd, Stripe* set) {
  return &set[static_cast<unsigned>(sfd->sfe.index) % kStripes].mu;
}

}  // namespace

namespace sbacc {

NvRecordLock::NvRecordLock(const SBACC_FILE_DISCRIPTER* sfd, bool data)
    : mu_(StripeOf(sfd, data ? g_data : g_stripes)) {
  pthread_once(&g_fork_once, RegisterFork);
  CurrentEnv()->Reschedule();
  pthread_mutex_lock(mu_);
}

NvRecordLock::~NvRecordLock() { pthread_mutex_unlock(mu_); }

void NvRecordLocksForTest(bool hold) {
  pthread_once(&g_fork_once, RegisterFork);
  if (hold) {
    LockAll();
  } else {
    UnlockAll();
  }
}

}  // namespace sbacc
