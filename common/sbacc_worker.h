// The worker-block pattern, written once for every parallel site (write
// access, open, rebuild, restore), and the process-wide worker crew that runs
// the blocks' tasks.
//
// A block starts with thread_mutex, thread_cond and thread_num.  The caller
// raises the count before it hands out each task and takes it back when no
// worker can be had, then does that task's job itself; it waits until the
// count is back at 0.  A task stores its result, lowers the count and
// signals under the mutex, and touches the block no more after that.
//
// The crew.  Workers are started on demand, up to a bound, and kept: a worker
// that has finished its task parks on a condition of its own and is handed the
// next task directly; after kCrewIdleSeconds without one it retires, so a
// process that used the library once is left with no threads.  Each worker
// detaches itself once and sets up its trace output when it first runs a task
// of a kind (WorkerThreadSetup), not per task.
//
// No deadlock, by construction: there is no queue.  A task is either given to
// a parked worker, or to a newly started one while the crew is under its
// bound, or refused at once (EAGAIN) -- and a refused task runs in the calling
// thread before the caller hands out its next one.  So every task a caller
// waits for is already running on a thread of its own, and nested callers (the
// restore runs one task per area, each area one task per copy) only ever wait
// for running work, never for a task queued behind their own busy workers.
//
// The bound: a write to 8 copies keeps 7 workers busy (its caller writes the
// last copy itself); kCrewDefaultBound leaves room for four such callers at
// once.  More would only add threads
// competing for the same disks; the restore takes what the crew has and runs
// the rest area by area in its calling thread.
//
// fork: the crew's lock is taken around fork(), and the child starts with an
// empty crew (its workers do not exist there), so it can use the library at
// once.  The library is linked not to be unloaded (-z nodelete): a parked
// worker never outlives the code it runs.
#ifndef SBACC_WORKER_H
#define SBACC_WORKER_H

#include <errno.h>
#include <pthread.h>
#include <stddef.h>
#include <time.h>

#include "sbacc_alloc.h"
#include "sbacc_env.h"
#include "sbacc_trace.h"

namespace sbacc {

// ---- The crew ----------------------------------------------------------------

constexpr int kCrewSlots = 64;          // most workers CrewSetBound allows
constexpr int kCrewDefaultBound = 32;   // 8 copies x 4 concurrent callers
constexpr unsigned kCrewIdleSeconds = 2;  // a parked worker retires after this

struct CrewWorker {
  pthread_cond_t wake;   // set up (Env::CondInit) when the slot's thread starts
  void* (*fn)(void*);    // the task handed to this worker; nullptr while parked
  void* arg;
  CrewWorker* next_parked;
  bool parked;           // on the parked list
  bool retire;           // the crew was made smaller: leave instead of waiting
  bool taken;            // a live thread owns the slot
};

struct Crew {
  pthread_mutex_t mu;  // static: it must work before and after any Env, and in a fork child
  CrewWorker slots[kCrewSlots];
  CrewWorker* parked;  // most recently parked first, so idle ones are the ones to retire
  int live;
  int peak;
  int bound;
  long started;  // threads started so far
};

inline Crew g_crew = {PTHREAD_MUTEX_INITIALIZER, {}, nullptr, 0, 0, kCrewDefaultBound, 0};

// The worker the calling thread is (nullptr on other threads).
inline thread_local CrewWorker* t_crew_self = nullptr;

// Puts the worker on the parked list; the crew's lock is held.
inline void CrewPark(CrewWorker* w) {
  if (w->parked) return;
  w->parked = true;
  w->next_parked = g_crew.parked;
  g_crew.parked = w;
}

// Called by a task just before it reports: the worker is parked before its
// caller can hand out the next task, so that task finds it rather than start
// a thread.  A task given to it now waits only for the rest of the finishing
// task, which reports and returns without blocking.
inline void CrewReporting() {
  CrewWorker* w = t_crew_self;
  if (w == nullptr) return;
  pthread_mutex_lock(&g_crew.mu);
  CrewPark(w);
  pthread_mutex_unlock(&g_crew.mu);
}

inline void* CrewMain(void* arg) {
  auto* w = static_cast<CrewWorker*>(arg);
  Crew& c = g_crew;
  pthread_detach(pthread_self());
  int ignored;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &ignored);  // nobody cancels a worker mid-task
  t_crew_self = w;
  pthread_mutex_lock(&c.mu);
  for (;;) {
    void* (*fn)(void*) = w->fn;
    void* task_arg = w->arg;
    w->fn = nullptr;
    pthread_mutex_unlock(&c.mu);
    fn(task_arg);
    pthread_mutex_lock(&c.mu);
    if (w->fn == nullptr && !w->retire) CrewPark(w);  // else handed a task while finishing this one
    while (w->fn == nullptr && !w->retire) {
      if (WaitUpTo(&w->wake, &c.mu, kCrewIdleSeconds) != 0) break;  // timed out
    }
    if (w->fn == nullptr) break;
  }
  // Timed out with no task: leave the parked list and free the slot.
  for (CrewWorker** p = &c.parked; *p != nullptr; p = &(*p)->next_parked) {
    if (*p == w) {
      *p = w->next_parked;
      break;
    }
  }
  w->parked = false;
  w->retire = false;
  pthread_cond_destroy(&w->wake);
  w->taken = false;
  c.live--;
  pthread_mutex_unlock(&c.mu);
  return nullptr;
}

// Runs fn(arg) on a parked worker or a new one; EAGAIN (or the start's error)
// when the crew is at its bound with every worker busy.
inline int CrewRun(void* (*fn)(void*), void* arg) {
  Crew& c = g_crew;
  pthread_mutex_lock(&c.mu);
  if (CrewWorker* w = c.parked) {
    c.parked = w->next_parked;
    w->parked = false;
    w->fn = fn;
    w->arg = arg;
    // Under the lock: the worker cannot time out and destroy its condition
    // before the signal is made.
    pthread_cond_signal(&w->wake);
    pthread_mutex_unlock(&c.mu);
    return 0;
  }
  CrewWorker* w = nullptr;
  if (c.live < c.bound) {
    for (CrewWorker& s : c.slots) {
      if (!s.taken) {
        w = &s;
        break;
      }
    }
  }
  if (w == nullptr) {
    pthread_mutex_unlock(&c.mu);
    return EAGAIN;
  }
  w->taken = true;
  w->parked = false;
  w->fn = fn;
  w->arg = arg;
  c.live++;
  if (c.live > c.peak) c.peak = c.live;
  pthread_mutex_unlock(&c.mu);

  Env* env = CurrentEnv();
  int rc = env->CondInit(&w->wake);
  if (rc == 0) {
    rc = env->CreateThread(CrewMain, w);
    if (rc != 0) pthread_cond_destroy(&w->wake);
  }
  pthread_mutex_lock(&c.mu);
  if (rc == 0) {
    c.started++;
  } else {
    w->taken = false;
    w->fn = nullptr;
    c.live--;
  }
  pthread_mutex_unlock(&c.mu);
  return rc;
}

inline void CrewForkPrepare() { pthread_mutex_lock(&g_crew.mu); }
inline void CrewForkParent() { pthread_mutex_unlock(&g_crew.mu); }
// Only the forking thread exists in the child: no worker is left.
inline void CrewForkChild() {
  Crew& c = g_crew;
  c.parked = nullptr;
  c.live = 0;
  for (CrewWorker& s : c.slots) {
    s.taken = false;
    s.parked = false;
    s.retire = false;
    s.fn = nullptr;
  }
  pthread_mutex_unlock(&c.mu);
}
inline const int g_crew_atfork = pthread_atfork(CrewForkPrepare, CrewForkParent, CrewForkChild);

// ---- Worker blocks -----------------------------------------------------------

enum class WorkerInitResult { kOk, kMutexFailed, kCondFailed };

// Sets up the mutex and the condition (through the Env, so tests can fail
// them).  On kCondFailed the mutex has been destroyed again.
template <class Block>
WorkerInitResult WorkerInit(Block* b) {
  Env* env = CurrentEnv();
  if (env->MutexInit(&b->thread_mutex) != 0) return WorkerInitResult::kMutexFailed;
  if (env->CondInit(&b->thread_cond) != 0) {
    pthread_mutex_destroy(&b->thread_mutex);
    return WorkerInitResult::kCondFailed;
  }
  b->thread_num = 0;
  return WorkerInitResult::kOk;
}

// Hands fn(arg) to a worker (through the Env, so tests can refuse it).
// False: no worker runs it and the count is as before; the caller then does
// the work itself.
template <class Block>
bool WorkerStart(Block* b, void* (*fn)(void*), void* arg) {
  pthread_mutex_lock(&b->thread_mutex);
  b->thread_num++;
  pthread_mutex_unlock(&b->thread_mutex);
  if (CurrentEnv()->StartThread(fn, arg) == 0) return true;
  pthread_mutex_lock(&b->thread_mutex);
  b->thread_num--;
  pthread_mutex_unlock(&b->thread_mutex);
  return false;
}

// Called by a worker as its last touch of the block.
template <class Block>
void WorkerFinish(Block* b, int* retcode_slot, int rc) {
  CrewReporting();
  pthread_mutex_lock(&b->thread_mutex);
  *retcode_slot = rc;
  b->thread_num--;
  pthread_cond_signal(&b->thread_cond);
  pthread_mutex_unlock(&b->thread_mutex);
}

// Blocks until every handed-out task has finished.
template <class Block>
void WorkerWait(Block* b) {
  pthread_mutex_lock(&b->thread_mutex);
  while (b->thread_num > 0) pthread_cond_wait(&b->thread_cond, &b->thread_mutex);
  pthread_mutex_unlock(&b->thread_mutex);
}

template <class Block>
void WorkerDestroy(Block* b) {
  pthread_cond_destroy(&b->thread_cond);
  pthread_mutex_destroy(&b->thread_mutex);
}

// Allocates a zeroed block of `bytes` (the block and any data behind it) and
// sets up its mutex and condition.  nullptr, with the failed step traced under
// the caller's name `fn`, means the caller's phase runs in the calling thread.
template <class Block>
Block* WorkerBlockCreate(const char* fn, size_t bytes = sizeof(Block)) {
  auto* b = static_cast<Block*>(SBACC_CALLOC(1, bytes));
  if (b == nullptr) {
    SBACC_TRACE(1, "[%s] calloc error. errno=%d", fn, errno);
    return nullptr;
  }
  switch (WorkerInit(b)) {
    case WorkerInitResult::kOk:
      return b;
    case WorkerInitResult::kMutexFailed:
      SBACC_TRACE(1, "[%s] pthread_mutex_init error. errno=%d", fn, errno);
      break;
    case WorkerInitResult::kCondFailed:
      SBACC_TRACE(1, "[%s] pthread_cond_init error. errno=%d", fn, errno);
      break;
  }
  SBACC_FREE(b);
  return nullptr;
}

// Waits for every handed-out task, then tears the block down.  nullptr is fine.
template <class Block>
void WorkerBlockRelease(Block* b) {
  if (b == nullptr) return;
  WorkerWait(b);
  WorkerDestroy(b);
  SBACC_FREE(b);
}

}  // namespace sbacc

#endif  // SBACC_WORKER_H
