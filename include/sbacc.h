/*
 * libsbacc: mirrored, crash-safe access to the controller's named data areas.
 *
 * Each configured area is kept as one copy per HDD file (up to eight) plus a
 * 128-byte state record in NV memory.  Writes go to every usable copy at once
 * and are flushed before they count; a copy that fails is fenced off.
 *
 * Usable from C and from C++.  Every call but sbacc_repair_flag returns an int:
 * 0 (or a byte count / size for the data calls) on success, one of the negative
 * SBACC_E_* codes below on failure.
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

/* Opaque handle: what sbacc_open hands out and every later call takes back. */
typedef void sbacc_fd;

#ifndef SBACC_HAVE_BOOLEAN_T
#define SBACC_HAVE_BOOLEAN_T
typedef enum { B_FALSE = 0, B_TRUE = 1 } boolean_t;
#endif

/* Return codes.  The values are fixed: they are what callers and traces see. */
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

/* The HDD list handed to sbacc_repair and sbacc_ma_hddrepair. */
typedef struct _TAG_SBACC_REPAIR_HDD_ENTRY {
    char special[128];
} SBACC_REPAIR_HDD_ENTRY;

typedef struct _TAG_SBACC_REPAIR_HDD {
    int hddcount;
    SBACC_REPAIR_HDD_ENTRY hdd[8];
} SBACC_REPAIR_HDD;

/* Area files. */
SBACC_API int sbacc_open(const char *filename, const char *mode, void **fp, boolean_t *closeflag);
SBACC_API int sbacc_close(sbacc_fd *fp);
SBACC_API int sbacc_write(const void *buf, int wsize, int offset, sbacc_fd *fp);
SBACC_API int sbacc_read(void *buf, int rsize, int offset, sbacc_fd *fp);
SBACC_API int sbacc_write_size(int fsize, sbacc_fd *fp);
SBACC_API int sbacc_read_size(sbacc_fd *fp);

/* Start-up. */
SBACC_API int sbacc_nv_init(int cntno);
SBACC_API int sbacc_hdd_restore(int cntno);

/* Repair. */
SBACC_API int sbacc_repair_init(int cntno);
SBACC_API boolean_t sbacc_repair_flag(boolean_t flag);
SBACC_API int sbacc_repair(SBACC_REPAIR_HDD *hdd, boolean_t flag);
SBACC_API int sbacc_ma_hddrepair(SBACC_REPAIR_HDD *hdd, boolean_t flag);

/* Diagnostics. */
SBACC_API int sbacc_dumpout(char *path);

/* Name and meaning of a return code, for messages (header-only, not exported). */
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
