// Trace helpers shared by every module: worker thread set-up and the
// parameter block of failing exported calls.
#define SBACC_MODULE SBACC_MODULE_SBACC
#include "sbacc_trace.h"

#include <pthread.h>
#include <string.h>
#include <time.h>

namespace sbacc {

void WorkerThreadSetup(WorkerLog log) {
  // A crew worker runs many tasks: it sets up its trace output when it first
  // runs a task of a kind, not for every task.
  thread_local int t_log = -1;
  if (t_log == static_cast<int>(log)) return;
  t_log = static_cast<int>(log);
  const bool first = (log == WorkerLog::kRestore1);
  MC_SetLogProcName(first ? "env_restore1" : "env_restore2");
  MC_SetTraceName("/opt/env_frmwk/log/", first ? "env_restore1.log" : "env_restore2.log");
  MC_SetTraceSizeNum(1000, 10);
}

void TraceParamOpen(const char* module, int line, const char* fn) {
  MC_OutTrace(module, line, kTraceError, "[%s] %s (", fn, fn);
}

void TraceParamClose(const char* module, int line, const char* fn, int rc) {
  MC_OutTrace(module, line, kTraceError, "[%s] )", fn);
  MC_OutTrace(module, line, kTraceError, "[%s] {", fn);
  MC_OutTrace(module, line, kTraceError, "[%s]   retcode: %d", fn, rc);
  MC_OutTrace(module, line, kTraceError, "[%s] }", fn);
}

void TraceParamBlockNoArgs(const char* module, int line, const char* fn, int rc) {
  TraceParamOpen(module, line, fn);
  MC_OutTrace(module, line, kTraceError, "[%s]   --", fn);
  TraceParamClose(module, line, fn, rc);
}

void TimeText(int64_t t, char out[32]) {
  const time_t tt = static_cast<time_t>(t);
  if (ctime_r(&tt, out) == nullptr) {
    strcpy(out, "?");
    return;
  }
  const size_t n = strlen(out);
  if (n > 0 && out[n - 1] == '\n') out[n - 1] = '\0';
}

}  // namespace sbacc
