// Task groups on the worker crew.
#define SBACC_MODULE SBACC_MODULE_SBACC
#include "sbacc_worker.h"

#include <errno.h>

#include "sbacc_crew.h"
#include "sbacc_env.h"

namespace sbacc {

TaskGroup::TaskGroup(const char* who, WorkerLog log) : log_(log) {
  Env* env = CurrentEnv();
  if (env->MutexInit(&mu_) != 0) {
    SBACC_TRACE(kTraceError, "[%s] pthread_mutex_init error. errno=%d", who, errno);
    return;
  }
  if (env->CondInit(&done_) != 0) {
    SBACC_TRACE(kTraceError, "[%s] pthread_cond_init error. errno=%d", who, errno);
    pthread_mutex_destroy(&mu_);
    return;
  }
  sync_ = true;
}

TaskGroup::~TaskGroup() {
  Wait();
  if (!sync_) return;
  pthread_cond_destroy(&done_);
  pthread_mutex_destroy(&mu_);
}

void TaskGroup::Run(Fn fn, void* arg, int* slot, bool here) {
  if (used_ == kTasks) {
    Wait();
    used_ = 0;
  }
  Task* t = &tasks_[used_++];
  *t = Task{this, fn, arg, slot};
  if (sync_) {
    pthread_mutex_lock(&mu_);
    running_++;
    pthread_mutex_unlock(&mu_);
  } else {
    running_++;
  }
  CurrentEnv()->Reschedule();
  if (sync_ && !here && CrewRun(OnWorker, t)) return;
  Finish(t, fn(arg));
}

void TaskGroup::OnWorker(void* task) {
  auto* t = static_cast<Task*>(task);
  WorkerThreadSetup(t->group->log_);
  const int rc = t->fn(t->arg);
  CrewTaskEnding();
  t->group->Finish(t, rc);  // the last touch of the group: the caller may return now
}

void TaskGroup::Finish(Task* t, int rc) {
  CurrentEnv()->Reschedule();
  if (!sync_) {
    *t->slot = rc;
    running_--;
    return;
  }
  pthread_mutex_lock(&mu_);
  *t->slot = rc;
  running_--;
  pthread_cond_signal(&done_);
  pthread_mutex_unlock(&mu_);
}

void TaskGroup::Wait() {
  if (!sync_) return;  // every task ran in the caller
  pthread_mutex_lock(&mu_);
  while (running_ > 0) pthread_cond_wait(&done_, &mu_);
  pthread_mutex_unlock(&mu_);
}

}  // namespace sbacc
