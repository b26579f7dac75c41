/*
 * libsbacc: mirrored, crash-safe access to the controller's named data areas.
 *
 * Each area named in the area list (/etc/env_frmwkapi/filelist.ini, or the
 * file named by SBACC_FILELIST) is kept as one copy per HDD file (up to
 * eight) plus a 128-byte state record in NV memory.  Writes go to every
 * usable copy at once and are flushed before they count; a copy that fails
 * is fenced off and no longer read.
 *
 * Results: every call but sbacc_repair_flag returns an int: 0 (a byte count
 * or a size for the data calls) on success, one of the negative SBACC_E_*
 * codes on failure.  Every failure also writes a trace line.
 *
 * Start-up: one process calls sbacc_nv_init once per start-up of the
 * controller, before areas are opened.
 *
 * Threads: a handle belongs to one thread at a time; the calls do not lock
 * it.  Different handles, even two on one area, may be used from different
 * threads at once; they are not serialised against each other, so two
 * writers extending one area at once may zero-fill over each other's new
 * bytes.  sbacc_nv_init, sbacc_hdd_restore and sbacc_repair_init set
 * process-wide state without a lock: a process makes one of them at a time.
 *
 * Cancellation: the six area calls disable cancellation of the calling
 * thread while they run and enable it when they return, on every path, even
 * when the caller had disabled it before.  sbacc_nv_init and
 * sbacc_hdd_restore do the same when they repair paired areas.  After any
 * call, cancellation is enabled unless the caller disables it again.
 *
 * Memory: the library allocates and releases everything it uses itself.
 * The caller owns every buffer and string it passes; a handle is the
 * caller's from sbacc_open until sbacc_close releases it.
 *
 * Usable from C and from C++.  Link with the flags of
 * "pkg-config --cflags --libs sbacc", or find_package(sbacc) and the target
 * sbacc::sbacc.
 */
#ifndef SBACC_H
#define SBACC_H

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define SBACC_API __attribute__((visibility("default")))
#else
#define SBACC_API
#endif

/* Opaque handle: what sbacc_open hands out and every later area call takes
 * back.  Valid from a successful sbacc_open until sbacc_close. */
typedef void sbacc_fd;

#ifndef SBACC_HAVE_BOOLEAN_T
#define SBACC_HAVE_BOOLEAN_T
typedef enum { B_FALSE = 0, B_TRUE = 1 } boolean_t;
#endif

/* Return codes.  The values are fixed: they are what callers and traces see.
 * A call that fails because a step inside it failed returns that step's code
 * unchanged. */
#define SBACC_OK                  0
#define SBACC_E_UNSUPPORTED    (-100) /* open mode or controller number not supported */
#define SBACC_E_NOTALLOWED     (-101) /* write through a read-only handle; repair set up twice */
#define SBACC_E_PARAM          (-102) /* NULL pointer, bad mode, size or offset out of range */
#define SBACC_E_LISTFULL       (-103) /* area list parser given both a list and a name */
#define SBACC_E_NOTINIT        (-104) /* NV record or every HDD header not initialised */
#define SBACC_E_NOSPACE        (-105) /* beyond the area's data capacity; restore out of memory */
#define SBACC_E_REPAIR         (-106) /* HDD repair copy failed; repair lock not obtained */
#define SBACC_E_NOCOPY         (-107) /* every HDD copy fenced off */
#define SBACC_E_NOMEM          (-111) /* memory allocation failed */
#define SBACC_E_ALLBLOCKADE    (-121) /* every HDD copy fenced off when opening */
#define SBACC_E_HDDREAD        (-122) /* HDD read failed or came back short */
#define SBACC_E_HDDWRITE       (-123) /* HDD write failed or went short */
#define SBACC_E_HDDSEEK        (-124) /* HDD seek failed */
#define SBACC_E_FILEOPEN       (-151) /* area list or dump file could not be opened */
#define SBACC_E_EMPTYLIST      (-152) /* area list file holds nothing to read */
#define SBACC_E_NVREAD         (-161) /* NV read failed on every attempt */
#define SBACC_E_NVWRITE        (-162) /* NV write failed on every attempt */

/* The HDD list handed to sbacc_repair and sbacc_ma_hddrepair: hddcount
 * entries in use, each the NUL-terminated name of one HDD. */
typedef struct _TAG_SBACC_REPAIR_HDD_ENTRY {
    char special[128];
} SBACC_REPAIR_HDD_ENTRY;

typedef struct _TAG_SBACC_REPAIR_HDD {
    int hddcount;
    SBACC_REPAIR_HDD_ENTRY hdd[8];
} SBACC_REPAIR_HDD;

/* sbacc_open: opens the area named filename, as configured in the area list.
 *
 * mode: "r" reads only and leaves no trace of the open in the headers; "w"
 * reads and writes and records the open in the copies' headers.  Compared
 * whole and case-sensitively: any other string is refused.
 *
 * On success returns 0, stores the handle in *fp and sets *closeflag:
 * B_TRUE when the area was closed cleanly after its last "w" open, B_FALSE
 * when a "w" open was never followed by its close (the writer died: the
 * data may hold a half-done update).  On failure *fp and *closeflag are
 * untouched and nothing is left open.
 *
 * Errors: SBACC_E_PARAM (a NULL argument, a bad mode, an area name not in
 * the list), SBACC_E_NOMEM, SBACC_E_ALLBLOCKADE (every copy fenced off),
 * SBACC_E_NOTINIT (NV record or every header not initialised),
 * SBACC_E_NOCOPY ("w": no copy read holds a valid header while a copy that
 * may hold the data cannot be read; nothing is written), the NV and HDD
 * codes. */
SBACC_API int sbacc_open(const char *filename, const char *mode, void **fp, boolean_t *closeflag);

/* sbacc_close: closes the area and releases the handle, which must not be
 * used again.  A "w" handle stamps the close time and clears the open flag in
 * the headers first.  Returns 0; SBACC_E_PARAM for a NULL handle. */
SBACC_API int sbacc_close(sbacc_fd *fp);

/* sbacc_write: writes wsize bytes from buf at data offset offset, into every
 * usable copy; a gap between the old end and offset is zero-filled and the
 * data size grows to cover the write.
 *
 * Returns wsize.  Errors: SBACC_E_PARAM (NULL buf or handle, wsize <= 0,
 * offset < 0), SBACC_E_NOTALLOWED (handle opened with "r"), SBACC_E_NOSPACE
 * (beyond the area's capacity), SBACC_E_NOCOPY (every copy fenced off), the
 * NV and HDD codes.  The handle stays usable after a failure. */
SBACC_API int sbacc_write(const void *buf, int wsize, int offset, sbacc_fd *fp);

/* sbacc_read: reads up to rsize bytes at data offset offset into buf.
 *
 * Returns the bytes read: fewer than rsize near the end of the data, 0 at or
 * past it.  Errors: SBACC_E_PARAM (NULL buf or handle, rsize <= 0,
 * offset < 0), SBACC_E_NOCOPY, the NV and HDD codes.  Either mode may read. */
SBACC_API int sbacc_read(void *buf, int rsize, int offset, sbacc_fd *fp);

/* sbacc_write_size: sets the data size to fsize: truncates, or zero-fills up
 * to it.  Returns fsize (0 is allowed).  Errors: SBACC_E_PARAM (NULL handle,
 * fsize < 0), SBACC_E_NOTALLOWED ("r" handle), SBACC_E_NOSPACE, the NV and
 * HDD codes. */
SBACC_API int sbacc_write_size(int fsize, sbacc_fd *fp);

/* sbacc_read_size: returns the data size.  Errors: SBACC_E_PARAM (NULL
 * handle), SBACC_E_NOCOPY, the NV and HDD codes. */
SBACC_API int sbacc_read_size(sbacc_fd *fp);

/* sbacc_nv_init: the start-up call, made once per start-up of the controller
 * by one process, before areas are opened.  cntno is this controller's
 * number (0-3), kept for the repair lock.  Runs sbacc_hdd_restore, then
 * rebuilds every area's NV record from its HDD copies.
 *
 * Returns 0, or the code of the first step that failed: the restore's (no NV
 * record rebuilt), or an area's (the areas before it are done, it and the
 * later ones not).  An area left as it is because a copy that may hold its
 * data cannot be read does not stop the others: the call then ends with
 * SBACC_E_NOCOPY. */
SBACC_API int sbacc_nv_init(int cntno);

/* sbacc_hdd_restore: the start-up restore alone, which sbacc_nv_init runs
 * first: for every area, in a thread of its own, picks the copy with the
 * latest data and rebuilds stale copies from it under the repair lock
 * shared between controllers (cntno, 0-3); then brings the seven paired
 * areas (envfw_backup0/1, envfw_sysback, envfw_sysacpt, envfw_verid,
 * envfw_verback, envfw_reboot) back into agreement.
 *
 * Returns 0 (also when an area has no usable copy left), SBACC_E_NOSPACE
 * when out of memory, or the area list's code (SBACC_E_FILEOPEN,
 * SBACC_E_EMPTYLIST). */
SBACC_API int sbacc_hdd_restore(int cntno);

/* sbacc_repair_init: prepares a process for repair work, once: stores cntno
 * (0-3) as this controller's number and clears this controller's repair
 * lock in every area, releasing locks left by a repair cut short.
 *
 * Returns 0 and raises the repair flag; SBACC_E_NOTALLOWED when the flag is
 * already raised (by an earlier success or by sbacc_repair_flag); or the
 * area list's or NV write's code, after which it may be called again. */
SBACC_API int sbacc_repair_init(int cntno);

/* sbacc_repair_flag: the process-wide repair flag.  flag B_TRUE raises it;
 * B_FALSE only asks.  Returns the flag's value afterwards.  Nothing lowers
 * it. */
SBACC_API boolean_t sbacc_repair_flag(boolean_t flag);

/* sbacc_repair, sbacc_ma_hddrepair: entry points for repairing the HDDs in
 * hdd.  They write their trace and return 0 without reading their arguments
 * or doing any work: copies are repaired at start-up (sbacc_nv_init). */
SBACC_API int sbacc_repair(SBACC_REPAIR_HDD *hdd, boolean_t flag);
SBACC_API int sbacc_ma_hddrepair(SBACC_REPAIR_HDD *hdd, boolean_t flag);

/* sbacc_dumpout: appends a snapshot of every area (its NV record, and each
 * copy's header and first data bytes, as hex dumps, headed by the time) to
 * the file path, or writes it to the trace when path is NULL.  Reads only,
 * takes no lock.  Returns 0, or a negative code when nothing could be dumped
 * (SBACC_E_FILEOPEN, the area list's code). */
SBACC_API int sbacc_dumpout(char *path);

/* sbacc_code_name, sbacc_code_text: the name ("SBACC_E_PARAM") and the
 * meaning of a return code, for messages; static strings, never NULL.
 * Header-only, not exported. */
static inline const char *sbacc_code_name(int code)
{
    switch (code) {
    case SBACC_OK: return "SBACC_OK";
    case SBACC_E_UNSUPPORTED: return "SBACC_E_UNSUPPORTED";
    case SBACC_E_NOTALLOWED: return "SBACC_E_NOTALLOWED";
    case SBACC_E_PARAM: return "SBACC_E_PARAM";
    case SBACC_E_LISTFULL: return "SBACC_E_LISTFULL";
    case SBACC_E_NOTINIT: return "SBACC_E_NOTINIT";
    case SBACC_E_NOSPACE: return "SBACC_E_NOSPACE";
    case SBACC_E_REPAIR: return "SBACC_E_REPAIR";
    case SBACC_E_NOCOPY: return "SBACC_E_NOCOPY";
    case SBACC_E_NOMEM: return "SBACC_E_NOMEM";
    case SBACC_E_ALLBLOCKADE: return "SBACC_E_ALLBLOCKADE";
    case SBACC_E_HDDREAD: return "SBACC_E_HDDREAD";
    case SBACC_E_HDDWRITE: return "SBACC_E_HDDWRITE";
    case SBACC_E_HDDSEEK: return "SBACC_E_HDDSEEK";
    case SBACC_E_FILEOPEN: return "SBACC_E_FILEOPEN";
    case SBACC_E_EMPTYLIST: return "SBACC_E_EMPTYLIST";
    case SBACC_E_NVREAD: return "SBACC_E_NVREAD";
    case SBACC_E_NVWRITE: return "SBACC_E_NVWRITE";
    default: return "SBACC_E_UNKNOWN";
    }
}

static inline const char *sbacc_code_text(int code)
{
    switch (code) {
    case SBACC_OK: return "success";
    case SBACC_E_UNSUPPORTED: return "unsupported open mode or controller number";
    case SBACC_E_NOTALLOWED: return "operation not allowed in this state";
    case SBACC_E_PARAM: return "parameter error";
    case SBACC_E_LISTFULL: return "area list full";
    case SBACC_E_NOTINIT: return "not initialised";
    case SBACC_E_NOSPACE: return "no space in the area";
    case SBACC_E_REPAIR: return "repair failed or repair lock not obtained";
    case SBACC_E_NOCOPY: return "no usable HDD copy";
    case SBACC_E_NOMEM: return "out of memory";
    case SBACC_E_ALLBLOCKADE: return "every HDD copy fenced off";
    case SBACC_E_HDDREAD: return "HDD read failed";
    case SBACC_E_HDDWRITE: return "HDD write failed";
    case SBACC_E_HDDSEEK: return "HDD seek failed";
    case SBACC_E_FILEOPEN: return "file could not be opened";
    case SBACC_E_EMPTYLIST: return "area list is empty";
    case SBACC_E_NVREAD: return "NV read failed";
    case SBACC_E_NVWRITE: return "NV write failed";
    default: return "unknown code";
    }
}

#ifdef __cplusplus
}
#endif

#endif /* SBACC_H */
