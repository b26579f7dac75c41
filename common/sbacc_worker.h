// The one way the library runs work in parallel: a group of tasks, each on a
// crew worker or, when none can be had, in the calling thread.
//
// Every parallel site (the write round, the open of an area's copies, the
// rebuild of stale copies, the start-up's one task per area) uses it, and the
// rules are the same everywhere:
// - A task owns its inputs: its argument record, the descriptors and buffers
//   named there, and its result slot.  It shares nothing mutable with its
//   siblings.  While a group runs, the caller opens, closes and fences
//   nothing that a task of the group uses.
// - A task's result reaches its slot by one path (Finish), whichever thread
//   ran it, and the caller reads the slots only after Wait.
// - A failure a task finds is acted on by the caller after the group has
//   finished, never by the task on a sibling's copy.
#ifndef SBACC_WORKER_H
#define SBACC_WORKER_H

#include <pthread.h>

#include "sbacc_trace.h"

namespace sbacc {

class TaskGroup {
 public:
  using Fn = int (*)(void* arg);
  static constexpr int kTasks = 64;  // tasks in flight; the 65th waits for the first 64

  // `who` names the caller in the trace of a failed set-up (the group then
  // runs every task in the calling thread); `log` is the trace file a worker
  // writes to while it runs a task of this group.
  TaskGroup(const char* who, WorkerLog log);
  ~TaskGroup();  // waits for every task
  TaskGroup(const TaskGroup&) = delete;
  TaskGroup& operator=(const TaskGroup&) = delete;

  // Runs fn(arg): on a worker when one can be had and `here` is false, else
  // in the calling thread before Run returns.  *slot receives the result
  // when the task ends; arg and slot belong to the task until Wait returns.
  void Run(Fn fn, void* arg, int* slot, bool here = false);
  // Until every task handed out so far has reported.
  void Wait();

 private:
  struct Task {
    TaskGroup* group;
    Fn fn;
    void* arg;
    int* slot;
  };
  static void OnWorker(void* task);
  void Finish(Task* t, int rc);

  pthread_mutex_t mu_;
  pthread_cond_t done_;
  bool sync_ = false;  // mu_ and done_ set up; without them nothing leaves the caller
  int running_ = 0;    // handed out and not yet reported
  int used_ = 0;       // entries of tasks_ in use since the last full wait
  WorkerLog log_;
  Task tasks_[kTasks];
};

}  // namespace sbacc

#endif  // SBACC_WORKER_H
