// Trace conventions shared by every source file.  A file defines SBACC_MODULE
// (its module's trace path: "../common/sbacc", "../common/sbacc_l" or
// "../common/sbacc_ma") before including this header.
#ifndef SBACC_TRACE_H
#define SBACC_TRACE_H

#include <stdint.h>

#include "mc_logapi.h"

#ifndef SBACC_MODULE
#error "define SBACC_MODULE before including sbacc_trace.h"
#endif

#define SBACC_MODULE_SBACC "../common/sbacc"
#define SBACC_MODULE_L "../common/sbacc_l"
#define SBACC_MODULE_MA "../common/sbacc_ma"

// One trace line.  The format is always a literal; data goes in the arguments.
#define SBACC_TRACE(level, ...) MC_OutTrace(SBACC_MODULE, __LINE__, (level), __VA_ARGS__)

// Pointer arguments are shown as "NULL" or "!NULL".
#define SBACC_PTRSTR(p) ((p) == nullptr ? "NULL" : "!NULL")
// String arguments that may be NULL.
#define SBACC_STRSTR(s) ((s) == nullptr ? "NULL" : (s))

namespace sbacc {

enum TraceLevel { kTraceError = 1, kTraceMilestone = 3, kTraceState = 4, kTraceFlow = 5 };

// Which per-thread trace file a library thread writes to.
enum class WorkerLog { kRestore1, kRestore2 };

// First thing every worker task does: direct the worker's trace to the log
// file of the task's kind (a no-op when the worker is set up for it already).
void WorkerThreadSetup(WorkerLog log);

// The parameter block of a failing exported call, around the argument lines
// that the caller writes itself:  "[fn] fn (" ... "[fn] )" "[fn] {"
// "[fn]   retcode: rc" "[fn] }".
void TraceParamOpen(const char* module, int line, const char* fn);
void TraceParamClose(const char* module, int line, const char* fn, int rc);
// The form without a parameter list ("[fn]   --").
void TraceParamBlockNoArgs(const char* module, int line, const char* fn, int rc);

// ctime text of t without its newline, so a trace call stays one line.
void TimeText(int64_t t, char out[32]);

}  // namespace sbacc

#define SBACC_TRACE_PARAM_OPEN(fn) ::sbacc::TraceParamOpen(SBACC_MODULE, __LINE__, (fn))
#define SBACC_TRACE_PARAM_CLOSE(fn, rc) ::sbacc::TraceParamClose(SBACC_MODULE, __LINE__, (fn), (rc))
#define SBACC_TRACE_PARAM_NOARGS(fn, rc) ::sbacc::TraceParamBlockNoArgs(SBACC_MODULE, __LINE__, (fn), (rc))

#endif  // SBACC_TRACE_H
