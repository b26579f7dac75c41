// The process-wide crew of worker threads that runs the library's parallel
// tasks.  Workers are started on demand through the Env, up to a bound, and
// kept: a worker that has finished its task parks and is handed the next one
// directly; after kCrewIdleSeconds without one it retires, so a process that
// used the library once is left with no threads.
//
// No deadlock, by construction: there is no queue.  A task is given to a
// parked worker, or to a newly started one while the crew is under its bound,
// or refused at once -- and a refused task runs in the calling thread.  So
// every task a caller waits for is already running on a thread of its own,
// and nested callers (the restore runs one task per area, each area one task
// per copy) only ever wait for running work.
//
// The bound: a write to 8 copies keeps 7 workers busy (its caller writes the
// last copy itself); kCrewDefaultBound leaves room for four such callers.
//
// fork: the crew's lock is held around fork(), and the child starts with an
// empty crew (its workers do not exist there).  The library is linked not to
// be unloaded (-z nodelete): a parked worker never outlives the code it runs.
#ifndef SBACC_CREW_H
#define SBACC_CREW_H

namespace sbacc {

constexpr int kCrewSlots = 64;            // most workers CrewSetBound allows
constexpr int kCrewDefaultBound = 32;     // 8 copies x 4 concurrent callers
constexpr unsigned kCrewIdleSeconds = 2;  // a parked worker retires after this

// Runs fn(arg) on a parked worker or a new one: true.  False when the crew is
// at its bound with every worker busy, or no thread could be started; the
// caller then runs the task itself.
bool CrewRun(void (*fn)(void*), void* arg);

// Called by a task on a worker just before it reports its result: the
// worker is parked before its caller can hand out the next task, so that
// task finds it rather than start a thread.  A task given to it now waits
// only for the rest of the finishing one, which returns without blocking.
// A no-op in any other thread.
void CrewTaskEnding();

// Threads alive, the most alive at once, and threads started since the
// process began.
struct CrewCounts {
  int live;
  int peak;
  long started;
};
CrewCounts CrewCountsNow();

// The most workers alive at once, 0 .. kCrewSlots (0 runs every task in its
// caller); parked workers above it leave, and the peak starts again at 0.
void CrewSetBound(int n);
// Tests: takes (true) or releases (false) the crew's lock.
void CrewLockForTest(bool hold);

}  // namespace sbacc

#endif  // SBACC_CREW_H
