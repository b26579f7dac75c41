// Mirror engine: descriptors, the parallel access to all copies of an area
// with fencing, open and latest-copy choice, the data operations, the repair
// lock and the repair of stale copies.
#ifndef SBACC_MA_H
#define SBACC_MA_H

#include <stdint.h>

#include "sbacc_types.h"

// ---- Descriptor and tunables ------------------------------------------------
extern const SBACC_ENV_LIST_ENTRY sbacc_env_list[];
int sbacc_ma_alloc_sfd(const char* filename, int openmode, SBACC_FILE_DISCRIPTER** sfd);
void sbacc_ma_free_sfd(SBACC_FILE_DISCRIPTER* sfd);
// Copies of the area that have a descriptor slot: hddcount clamped to 0..8.
int sbacc_ma_copies(const SBACC_FILE_DISCRIPTER* sfd);
// Closes copy `hdd` if it is open and marks it not open.
void sbacc_ma_close_hdd(SBACC_FILE_DISCRIPTER* sfd, int hdd);
// Bytes of data the configured area holds behind its header (0 when the
// area leaves no room); the bound of every copy, rebuild and resync.
int sbacc_ma_data_capacity(const SBACC_FILE_DISCRIPTER* sfd);

// ---- Parallel HDD access and blockade -----------------------------------------
enum { SBACC_ACCESS_GET = 0, SBACC_ACCESS_SET = 1 };
int sbacc_ma_hdd_access(SBACC_FILE_DISCRIPTER* sfd, int direction, int offset, void* buf, int len);
// Writes every slice to every copy in use, one flush per copy.
int sbacc_ma_hdd_set_slices(SBACC_FILE_DISCRIPTER* sfd, const SBACC_SLICE* slices, int n);
int sbacc_ma_set_hddblockade(SBACC_FILE_DISCRIPTER* sfd, SBACC_MEM_LIST_ENTRY* entry);
int sbacc_ma_memset_hddblockade(SBACC_FILE_DISCRIPTER* sfd, SBACC_MEM_LIST_ENTRY* entry);

// Named accesses (get: first healthy copy; set: every copy in use).
int sbacc_ma_hddget_header(SBACC_FILE_DISCRIPTER* sfd, SBACC_HDD_HEADER* h);
int sbacc_ma_hddget_filesize(SBACC_FILE_DISCRIPTER* sfd, int* filesize);
int sbacc_ma_hddget_hddblockade(SBACC_FILE_DISCRIPTER* sfd, uint32_t* mask);
int sbacc_ma_hddget_data(SBACC_FILE_DISCRIPTER* sfd, int offset, void* buf, int len);
int sbacc_ma_hddset_openinfo(SBACC_FILE_DISCRIPTER* sfd, const SBACC_HDD_HEADER* h);
int sbacc_ma_hddset_writeinfo(SBACC_FILE_DISCRIPTER* sfd, const SBACC_HDD_HEADER* h);
int sbacc_ma_hddset_filesize(SBACC_FILE_DISCRIPTER* sfd, int filesize);
// The size and, when r is not null, the integrity record in one flush.
int sbacc_ma_hddset_filesize_record(SBACC_FILE_DISCRIPTER* sfd, int filesize, const SBACC_INTEGRITY* r);
int sbacc_ma_hddset_record(SBACC_FILE_DISCRIPTER* sfd, const SBACC_INTEGRITY* r);
int sbacc_ma_hddset_hddblockade(SBACC_FILE_DISCRIPTER* sfd, uint32_t mask);
int sbacc_ma_hddset_data(SBACC_FILE_DISCRIPTER* sfd, int offset, const void* buf, int len);
int sbacc_ma_hddset_closetime(SBACC_FILE_DISCRIPTER* sfd, int64_t closetime);
int sbacc_ma_hddset_openflag(SBACC_FILE_DISCRIPTER* sfd, uint8_t openflag);

// ---- Open and HDD selection ----------------------------------------------------
int sbacc_ma_open(SBACC_FILE_DISCRIPTER* sfd, boolean_t* closeflag, boolean_t nvinit);
// Opens copies at once: copy i of `wanted` gets its descriptor in sfd->fd[i]
// (-1 when it cannot be opened; every other slot is left alone).  `who`
// names the caller in trace lines.
void sbacc_ma_open_copies(SBACC_FILE_DISCRIPTER* sfd, uint32_t wanted, int flags, const char* who);

// ---- The latest-copy rule ------------------------------------------------------
// What an area's copies hold, by their headers.
typedef struct {
  int src;           // the copy holding the latest data; -1: no copy read has a valid header
  uint32_t stale;    // copies read that must be rebuilt from src (older views, invalid headers)
  uint32_t invalid;  // copies read whose header is not valid
  int hold;          // SBACC_HOLD_*: nonzero = the headers read cannot justify a choice; leave the area as it is
} SBACC_COPY_VERDICT;
// Why the area is to be left as it is.
enum {
  SBACC_HOLD_NONE = 0,
  SBACC_HOLD_UNSEEN = 1,         // no copy read has a valid header, a copy that may hold the data is unseen
  SBACC_HOLD_FENCED_SOURCE = 2,  // the only candidate NV fences off, a copy NV does not fence is unseen
  SBACC_HOLD_UNVERIFIED = 3,     // the latest copy fails its integrity record and no copy that proves its data holds the same
  SBACC_HOLD_NEWER_STALE = 4,    // a copy the rule finds stale counts more writes than the source
};
// What the caller knows beyond the headers it read.
typedef struct {
  uint32_t unseen;    // configured copies whose header could not be read now (missing, open or read failed, not
                      // opened because NV fences them)
  uint32_t nvfenced;  // copies the area's NV record fences off
  int existed;        // NV held a valid record of the area before this start-up or open touched it
  uint32_t bad;       // copies whose data fails their integrity record
} SBACC_COPY_EVIDENCE;
// Whose trace lines the rule writes as it decides (none for the tool).
typedef enum { SBACC_CLASSIFY_SILENT, SBACC_CLASSIFY_OPEN, SBACC_CLASSIFY_RESTORE } SBACC_CLASSIFY_TRACE;
// hdr[i] is looked at for the copies of `read` (bit i: copy i's header was
// read); `ev` is what else is known (nullptr: nothing, and never a hold);
// `name` is the area's, for trace lines.  The open, the restore and the tool
// all decide by this one function.
void sbacc_ma_classify(const SBACC_HDD_HEADER* hdr, int count, uint32_t read, const SBACC_COPY_EVIDENCE* ev,
                       SBACC_CLASSIFY_TRACE style, const char* name, SBACC_COPY_VERDICT* v);
// Chooses the latest copy among the open ones (closing the stale ones) into
// *hdd; leaves *hdd and every copy alone when none has a valid header.
// SBACC_E_NOCOPY when the evidence cannot justify a choice (nothing closed).
int sbacc_ma_detect_hdd(SBACC_FILE_DISCRIPTER* sfd, SBACC_HDD_HEADER* headers, const SBACC_COPY_EVIDENCE* ev,
                        int* hdd);

// ---- Integrity records ------------------------------------------------------
// Data offsets below are from data byte 0; hdd < 0 reads through the engine
// (the copy reads return, fencing one that fails).
// True unless SBACC_CHECKSUM=0: records are written and checked.
bool sbacc_ma_checksums(const SBACC_FILE_DISCRIPTER* sfd);
// *out = crc extended by data bytes [from, to) of copy hdd.
int sbacc_ma_crc_data(SBACC_FILE_DISCRIPTER* sfd, int hdd, uint32_t crc, int64_t from, int64_t to, uint32_t* out);
// A fresh record of the data [0, len) as the engine reads it, bound to h's open count.
int sbacc_ma_integrity_start(SBACC_FILE_DISCRIPTER* sfd, const SBACC_HDD_HEADER* h, int len, SBACC_INTEGRITY* r);
// r after data bytes [offset, offset + n) become `data` (old bytes read through the engine).
int sbacc_ma_integrity_write(SBACC_FILE_DISCRIPTER* sfd, SBACC_INTEGRITY* r, int offset, const void* data, int n);
// r after the data is cut or extended with zeros to `size` bytes.
int sbacc_ma_integrity_resize(SBACC_FILE_DISCRIPTER* sfd, SBACC_INTEGRITY* r, int size);
// Copy hdd against the record in its header h: SBACC_VERIFY_NONE when no
// record applies, _OK, _BAD, or a negative code when the data cannot be read.
enum { SBACC_VERIFY_NONE = 0, SBACC_VERIFY_OK = 1, SBACC_VERIFY_BAD = 2, SBACC_VERIFY_BUSY = 3 };
int sbacc_ma_verify_copy(SBACC_FILE_DISCRIPTER* sfd, int hdd, const SBACC_HDD_HEADER* h);
// Start-up, under the repair lock: when some open copy keeps no record and
// every open copy holds the same data byte for byte (sizes and all), each
// gets a record of that data; copies that differ are left as they are.
int sbacc_ma_adopt_copies(SBACC_FILE_DISCRIPTER* sfd);
// Copy hdd against its header as read now (into *h): a failure stands only
// when no write was in flight and the record and size did not change while
// the data was read; otherwise SBACC_VERIFY_BUSY, no verdict.
int sbacc_ma_check_copy(SBACC_FILE_DISCRIPTER* sfd, int hdd, SBACC_HDD_HEADER* h);

// ---- Read, write, size and close ------------------------------------------------
int sbacc_ma_write(const void* buf, int size, int offset, SBACC_FILE_DISCRIPTER* sfd);
int sbacc_ma_read(void* buf, int size, int offset, SBACC_FILE_DISCRIPTER* sfd);
int sbacc_ma_write_size(int size, SBACC_FILE_DISCRIPTER* sfd);
int sbacc_ma_read_size(int* size, SBACC_FILE_DISCRIPTER* sfd);
int sbacc_ma_close(SBACC_FILE_DISCRIPTER* sfd);

// ---- Repair lock ---------------------------------------------------------------
// Beyond the base design: any number of contenders, a bounded wait, stale
// bytes told from live holders by a heartbeat (sbacc_ma_lock.cc).  Taking a
// lock this process holds already only counts; the last release lowers it.
int sbacc_ma_enter_repairlock(SBACC_FILE_DISCRIPTER* sfd);
int sbacc_ma_leave_repairlock(SBACC_FILE_DISCRIPTER* sfd);
// Called before every durable step of a repair: 0 while this controller
// still holds the area's lock (and then its heartbeat moves on), or when it
// holds none there; SBACC_E_REPAIR once its byte was found cleared, and from
// then on, so the repair stops and leaves the rest to the next start-up; or
// the NV read's code.
int sbacc_ma_repairlock_check(SBACC_FILE_DISCRIPTER* sfd);
// Forgets the locks this process counts as held (its bytes stay as they are).
void sbacc_ma_repairlock_forget();
int sbacc_ma_mem_check_blockade(SBACC_FILE_DISCRIPTER* sfd, int hdd);
// Tests: takes (true) or releases (false) the process's record of the locks it holds.
void sbacc_ma_repairlock_state_for_test(bool hold);

// ---- HDD repair copy -------------------------------------------------------------
int sbacc_ma_hddrepair_copy(SBACC_FILE_DISCRIPTER* sfd, int src, int dst);
int sbacc_ma_memset_hddrepair(SBACC_FILE_DISCRIPTER* sfd, int hdd, boolean_t flag);
// The copy in three steps, so that the rebuilds of several copies can run
// their transfers at once: begin and end change the NV record and the
// headers of every copy in use, and run in the caller one copy after
// another; the transfer touches only src's and dst's descriptors (read-only
// in the descriptor) and may run on a worker.  end takes the transfer's
// result, clears the mark whatever happened, and returns the copy's result.
int sbacc_ma_hddrepair_begin(SBACC_FILE_DISCRIPTER* sfd, int src, int dst);
int sbacc_ma_hddrepair_transfer(SBACC_FILE_DISCRIPTER* sfd, int src, int dst);
int sbacc_ma_hddrepair_end(SBACC_FILE_DISCRIPTER* sfd, int src, int dst, int rc);

// ---- Restore-time repair of one area ------------------------------------------------
int sbacc_ma_repair_for_restore(int index);
// The same, where accept_loss takes the copies that cannot be read as lost:
// an area held only because of them is repaired from what can be read
// (re-created empty when no copy read holds a valid header).  Only an
// engineer's explicit request for the area may set it.
int sbacc_ma_repair_for_restore_ex(int index, bool accept_loss);
// Makes the usable (open) copies of an area agree where a cut write may have
// left them differing; a copy that fails is closed.  Off when the
// SBACC_RESTORE_RESYNC tunable is 0.  Returns 0.
int sbacc_ma_resync_copies(SBACC_FILE_DISCRIPTER* sfd);
// Clears the under-repair marks that a start-up cut short left in the area's
// NV record; to be called with the repair lock held, before any write.  Off
// with the resync.  Returns 0.
int sbacc_ma_clear_leftover_marks(SBACC_FILE_DISCRIPTER* sfd);

#endif  // SBACC_MA_H
