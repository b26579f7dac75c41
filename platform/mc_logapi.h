/*
 * Trace library interface (stand-in for the controller's libmc_logapi.so.1).
 *
 * Settings are per thread.  One MC_OutTrace call writes one whole line:
 *   YYYY-MM-DD hh:mm:ss.uuuuuu PROC[PID.TID] L<level> <module>:<line> <message>
 * Destination: the thread's MC_SetTraceName file (MC_TRACE_DIR replaces the
 * directory when set); else the process default named by MC_TRACE_FILE
 * ("-" = standard error; unset = nothing).  MC_TRACE_LEVEL (1..5, default 5)
 * drops lines of a higher level.
 */
#ifndef MC_LOGAPI_H
#define MC_LOGAPI_H

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define MC_PRINTF_LIKE(f, a) __attribute__((format(printf, f, a)))
#else
#define MC_PRINTF_LIKE(f, a)
#endif

void MC_OutTrace(const char *module, int line, int level, const char *fmt, ...) MC_PRINTF_LIKE(4, 5);
void MC_SetLogProcName(const char *name);
void MC_SetTraceName(const char *dir, const char *file);
void MC_SetTraceSizeNum(int size, int num);
/* Strips the directory part of a path; the result lives as long as the path. */
char *MC_FilePathDel(char *path);

/*
 * Stand-in only, for tests: every line that passes the level filter is also
 * handed to the capture callback of the process (NULL switches it off), and
 * the environment is read again.
 */
typedef void (*MC_TraceCapture)(void *ctx, int level, const char *module, int line, const char *message);
void MC_TestSetCapture(MC_TraceCapture fn, void *ctx);
void MC_TestReloadEnv(void);

#ifdef __cplusplus
}
#endif

#endif /* MC_LOGAPI_H */
