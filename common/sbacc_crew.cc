// The worker crew: parked workers, on-demand starts under a bound, idle
// retirement, and the crew's state across fork().
#define SBACC_MODULE SBACC_MODULE_SBACC
#include "sbacc_crew.h"

#include <pthread.h>

#include "sbacc_env.h"
#include "sbacc_trace.h"

namespace sbacc {
namespace {

struct Worker {
  pthread_cond_t wake;  // set up (Env::CondInit) when the slot's thread starts
  void (*fn)(void*);    // the task handed to this worker; nullptr while parked
  void* arg;
  Worker* next_parked;
  bool parked;  // on the parked list
  bool retire;  // the crew was made smaller: leave instead of waiting
  bool taken;   // a live thread owns the slot
};

struct Crew {
  pthread_mutex_t mu;  // static: it must work before and after any Env, and in a fork child
  Worker slots[kCrewSlots];
  Worker* parked;  // most recently parked first, so idle ones are the ones to retire
  int live;
  int peak;
  int bound;
  long started;
};

Crew g_crew = {PTHREAD_MUTEX_INITIALIZER, {}, nullptr, 0, 0, kCrewDefaultBound, 0};

// The worker the calling thread is (nullptr on other threads).
thread_local Worker* t_self = nullptr;

void Park(Worker* w) {
  if (w->parked) return;
  w->parked = true;
  w->next_parked = g_crew.parked;
  g_crew.parked = w;
}

void Unpark(Worker* w) {
  for (Worker** p = &g_crew.parked; *p != nullptr; p = &(*p)->next_parked) {
    if (*p == w) {
      *p = w->next_parked;
      break;
    }
  }
  w->parked = false;
}

void* Main(void* arg) {
  auto* w = static_cast<Worker*>(arg);
  Crew& c = g_crew;
  pthread_detach(pthread_self());
  int ignored;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &ignored);  // nobody cancels a worker mid-task
  t_self = w;
  pthread_mutex_lock(&c.mu);
  for (;;) {
    void (*fn)(void*) = w->fn;
    void* task_arg = w->arg;
    w->fn = nullptr;
    pthread_mutex_unlock(&c.mu);
    fn(task_arg);  // parks the worker itself just before it reports (CrewTaskEnding)
    pthread_mutex_lock(&c.mu);
    if (w->fn == nullptr && !w->retire) Park(w);
    while (w->fn == nullptr && !w->retire) {
      if (WaitUpTo(&w->wake, &c.mu, kCrewIdleSeconds) != 0) break;  // timed out
    }
    if (w->fn == nullptr) break;
  }
  // Retired or idle too long: off the parked list, and the slot is free.
  Unpark(w);
  w->retire = false;
  pthread_cond_destroy(&w->wake);
  w->taken = false;
  c.live--;
  pthread_mutex_unlock(&c.mu);
  return nullptr;
}

void ForkPrepare() { pthread_mutex_lock(&g_crew.mu); }
void ForkParent() { pthread_mutex_unlock(&g_crew.mu); }
// Only the forking thread exists in the child: no worker is left.
void ForkChild() {
  Crew& c = g_crew;
  c.parked = nullptr;
  c.live = 0;
  for (Worker& s : c.slots) s = Worker{};
  pthread_mutex_unlock(&c.mu);
}

// Registered when the crew is first used rather than at load: a process that
// never runs a parallel task needs no handler.
pthread_once_t g_fork_once = PTHREAD_ONCE_INIT;
void RegisterFork() { (void)pthread_atfork(ForkPrepare, ForkParent, ForkChild); }

// A free slot for a new worker, taken under the lock; nullptr at the bound.
Worker* TakeSlot(void (*fn)(void*), void* arg) {
  Crew& c = g_crew;
  if (c.live >= c.bound) return nullptr;
  for (Worker& s : c.slots) {
    if (s.taken) continue;
    s.taken = true;
    s.parked = false;
    s.fn = fn;
    s.arg = arg;
    if (++c.live > c.peak) c.peak = c.live;
    return &s;
  }
  return nullptr;
}

}  // namespace

bool CrewRun(void (*fn)(void*), void* arg) {
  pthread_once(&g_fork_once, RegisterFork);
  Crew& c = g_crew;
  pthread_mutex_lock(&c.mu);
  if (Worker* w = c.parked) {
    c.parked = w->next_parked;
    w->parked = false;
    w->fn = fn;
    w->arg = arg;
    // Under the lock: the worker cannot time out and destroy its condition
    // before the signal is made.
    pthread_cond_signal(&w->wake);
    pthread_mutex_unlock(&c.mu);
    return true;
  }
  Worker* w = TakeSlot(fn, arg);
  pthread_mutex_unlock(&c.mu);
  if (w == nullptr) return false;

  Env* env = CurrentEnv();
  int rc = env->CondInit(&w->wake);
  if (rc == 0) {
    rc = env->CreateThread(Main, w);
    if (rc != 0) pthread_cond_destroy(&w->wake);
  }
  pthread_mutex_lock(&c.mu);
  if (rc == 0) {
    c.started++;
  } else {
    SBACC_TRACE(kTraceState, "[sbacc_crew] no worker started. error=%d", rc);
    *w = Worker{};
    c.live--;
  }
  pthread_mutex_unlock(&c.mu);
  return rc == 0;
}

void CrewTaskEnding() {
  Worker* w = t_self;
  if (w == nullptr) return;
  pthread_mutex_lock(&g_crew.mu);
  Park(w);
  pthread_mutex_unlock(&g_crew.mu);
}

void CrewLockForTest(bool hold) {
  pthread_once(&g_fork_once, RegisterFork);
  if (hold) {
    pthread_mutex_lock(&g_crew.mu);
  } else {
    pthread_mutex_unlock(&g_crew.mu);
  }
}

CrewCounts CrewCountsNow() {
  pthread_mutex_lock(&g_crew.mu);
  const CrewCounts n{g_crew.live, g_crew.peak, g_crew.started};
  pthread_mutex_unlock(&g_crew.mu);
  return n;
}

void CrewSetBound(int n) {
  Crew& c = g_crew;
  pthread_mutex_lock(&c.mu);
  c.bound = n < 0 ? 0 : n > kCrewSlots ? kCrewSlots : n;
  // Parked workers above the bound leave now; busy ones stay counted until
  // they have left, so no new one starts in their place before.
  int keep = c.live;
  while (c.parked != nullptr && keep > c.bound) {
    Worker* w = c.parked;
    c.parked = w->next_parked;
    w->parked = false;
    w->retire = true;
    pthread_cond_signal(&w->wake);
    --keep;
  }
  c.peak = 0;
  pthread_mutex_unlock(&c.mu);
}

}  // namespace sbacc
