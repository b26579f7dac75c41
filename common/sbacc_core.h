// Process-wide state and the top layer's internal calls.
#ifndef SBACC_CORE_H
#define SBACC_CORE_H

#include <stdint.h>
#include <stdio.h>

#include "sbacc_types.h"

// Process-wide variables.  Set by the start-up and repair entry points; a
// process runs one such call at a time, so they carry no lock.
extern int sbacc_cntno;
extern SBACC_FILE_LIST* p_sbacc_file_list;
extern SBACC_DATA_REPAIR* p_sbacc_data_repair;
extern boolean_t sbacc_repair_thread_flag;

// Tests: forget the loaded area list, the controller number and the repair flag.
void sbacc_reset_process_state();

// Start-up restore internals.
enum { SBACC_RW_READ = 0, SBACC_RW_WRITE = 1, SBACC_RW_SIZE = 2 };
int sbacc_hdd_rw(int mode, char* filename, void** buf, int* size);
// Its progress, for the hook of sbacc_set_progress_hook (none by default):
// the HDD repair of `total` areas begins, one begins to rebuild the copies in
// the mask `copies`, one has finished.
void sbacc_progress_begin(int total);
void sbacc_progress_rebuilding(const char* area, uint32_t copies);
void sbacc_progress_area_done(const char* area);

// Diagnostic hex dump to a file, or to the trace when fp is NULL.
void sbacc_dump(FILE* fp, char* buf, int len);

#endif  // SBACC_CORE_H
