// What the sbacc tool reads of the library's own knowledge, so the tool keeps
// no second copy of it.  Internal: not exported from the shared library.
#ifndef SBACC_TOOL_IFACE_H
#define SBACC_TOOL_IFACE_H

// The latest-copy rule (sbacc_ma_classify, SBACC_COPY_VERDICT): the tool
// judges copies by the very function the open and the restore use; and a
// copy's data against its integrity record (sbacc_ma_checksums,
// sbacc_ma_check_copy) by the check the reads make.
#include "sbacc_ma.h"

#include <stdint.h>

// The areas the start-up's data repair knows by name, in its own order;
// nullptr past the last.
const char* sbacc_known_area(int i);

// The start-up restore (sbacc_hdd_restore) with the loss of AREA's
// unreadable copies accepted: an area held because a copy that may hold its
// data cannot be read is repaired from the best copy read that holds a valid
// header, or re-created empty when none does.  Every other area is restored
// as always; an area held for its integrity record stays held.  The
// restore's result, or SBACC_E_PARAM for a name not in the area list.
int sbacc_accept_loss(const char* area, int cntno);

// ---- The area list, line by line -------------------------------------------------

// What the area-list parser made of one line of the file.  Only an accepted
// line is in the list.  The ignored lines from SBACC_LINE_FEW_FIELDS on carry
// a name, and still count for the NV record of every later line, as the
// lookup counts them.
enum SBACC_LINE_FATE {
  SBACC_LINE_ACCEPTED,
  SBACC_LINE_COMMENT,      // begins with '#'
  SBACC_LINE_BLANK,        // nothing but blanks
  SBACC_LINE_TOO_LONG,     // over 1022 characters
  SBACC_LINE_NO_NAME,      // nothing before the first comma
  SBACC_LINE_FEW_FIELDS,   // no address, size or HDD path field
  SBACC_LINE_BAD_ADDRESS,  // not hexadecimal digits, or over 64 bits
  SBACC_LINE_BAD_SIZE,     // not decimal digits, or over 64 bits
  SBACC_LINE_NO_PATH,      // every HDD path field empty
};
typedef void (*sbacc_line_fn)(void* arg, int line, const char* name, SBACC_LINE_FATE fate);

// Parses the area list as sbacc_l_get_filelist does, by the same code, and
// tells fn the fate of every line in file order: its number from 1 and the
// name it carries (nullptr when none; valid for the call only).  0, or that
// call's error code (nothing told then).
int sbacc_l_walk_filelist(sbacc_line_fn fn, void* arg);

// ---- Progress of the start-up ----------------------------------------------------

// Called as the start-up restore (sbacc_hdd_restore, sbacc_nv_init) goes:
// `done` of `total` areas have finished their HDD repair; `area` (nullptr at
// the start) is the area that just finished (`copies` 0) or is about to
// rebuild the copies in the mask `copies`.  Calls may come from worker
// threads but never overlap, and must not call back into the library.
typedef void (*sbacc_progress_fn)(void* arg, int done, int total, const char* area, uint32_t copies);
// One hook per process; nullptr (the default) for none.
void sbacc_set_progress_hook(sbacc_progress_fn fn, void* arg);

#endif  // SBACC_TOOL_IFACE_H
