// The worker-block pattern, written once for every parallel site (write
// access, open, rebuild, restore).  A block starts with thread_mutex,
// thread_cond and thread_num.  The caller raises the count before it creates
// each thread and takes it back when creation fails, then does that worker's
// job itself; it waits until the count is back at 0.  A worker stores its
// result, lowers the count and signals under the mutex, and touches the block
// no more after that.
#ifndef SBACC_WORKER_H
#define SBACC_WORKER_H

#include <errno.h>
#include <pthread.h>
#include <stddef.h>

#include "sbacc_alloc.h"
#include "sbacc_env.h"
#include "sbacc_trace.h"

namespace sbacc {

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

// Starts fn(arg) on a new thread.  False: no thread runs and the count is
// as before; the caller then does the work itself.
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
  pthread_mutex_lock(&b->thread_mutex);
  *retcode_slot = rc;
  b->thread_num--;
  pthread_cond_signal(&b->thread_cond);
  pthread_mutex_unlock(&b->thread_mutex);
}

// Blocks until every started worker has finished.
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

// Waits for every started worker, then tears the block down.  nullptr is fine.
template <class Block>
void WorkerBlockRelease(Block* b) {
  if (b == nullptr) return;
  WorkerWait(b);
  WorkerDestroy(b);
  SBACC_FREE(b);
}

}  // namespace sbacc

#endif  // SBACC_WORKER_H
