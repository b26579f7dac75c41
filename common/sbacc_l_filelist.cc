// The area list: counting, building and looking up the lines of the
// configuration file.  The file is read afresh on every call.
#define SBACC_MODULE SBACC_MODULE_L
#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "sbacc_alloc.h"
#include "sbacc_l.h"
#include "sbacc_tool_iface.h"
#include "sbacc_trace.h"

namespace {

constexpr const char* kDefaultFilelist = "/etc/env_frmwkapi/filelist.ini";
constexpr int kLineBuf = 1024;  // a line of 1022 characters plus its newline fits
constexpr int kNameMax = SBACC_FILENAME_LEN - 1;
constexpr int kPathMax = SBACC_HDDNAME_LEN - 1;

enum class LineRead { kEof, kLine, kTooLong };

// fgets cannot say how many bytes it stored when the line holds NUL bytes, so
// a sentinel in the last byte tells a full buffer (fgets wrote the final NUL
// there) from a short read.  A short read always ends its physical line, at
// the newline or at the end of the file; a full one does only when it ends in
// a newline.  This needs no strlen and so works whatever the line contains.
bool FgetsPiece(FILE* fp, char* buf, bool* line_done) {
  buf[kLineBuf - 1] = 'x';
  if (fgets(buf, kLineBuf, fp) == nullptr) return false;
  *line_done = buf[kLineBuf - 1] != '\0' || buf[kLineBuf - 2] == '\n';
  return true;
}

// Reads one physical line.  An over-long line is consumed up to and including
// its newline and reported as kTooLong.  The caller treats the text as ending
// at its first NUL byte: whatever follows a NUL on that line is not parsed,
// but the line is still consumed whole, so the next line starts where it
// should.
LineRead ReadLine(FILE* fp, char* buf) {
  bool done = false;
  if (!FgetsPiece(fp, buf, &done)) return LineRead::kEof;
  if (done) return LineRead::kLine;
  while (FgetsPiece(fp, buf, &done) && !done) {
  }
  return LineRead::kTooLong;
}

int DigitValue(char c, unsigned base) {
  if (c >= '0' && c <= '9') return c - '0';
  if (base == 16 && c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (base == 16 && c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Digits only: no sign, prefix or blank is accepted, unlike strtoull, and any
// value above 2^64-1 is rejected rather than clamped.
bool ParseU64(const char* s, unsigned base, uint64_t* out) {
  if (s == nullptr || *s == '\0') return false;
  uint64_t v = 0;
  for (; *s != '\0'; ++s) {
    const int d = DigitValue(*s, base);
    if (d < 0) return false;
    if (v > (UINT64_MAX - static_cast<unsigned>(d)) / base) return false;
    v = v * base + static_cast<unsigned>(d);
  }
  *out = v;
  return true;
}

// Copies at most `max` characters and zero-fills the rest of the field, so a
// shorter value never leaves the tail of an earlier one behind.
void CopyCut(char* dst, const char* src, int max) {
  const size_t n = strnlen(src, static_cast<size_t>(max));
  memcpy(dst, src, n);
  memset(dst + n, 0, static_cast<size_t>(max) + 1 - n);
}

// Fields 2 onward of a line whose name is already known to be non-empty.
// Each field is stored as soon as it is valid; SBACC_LINE_ACCEPTED when the
// line is accepted, else the field that made it ignored.
SBACC_LINE_FATE ParseLine(const char* name, char** cursor, SBACC_FILE_LIST_ENTRY* slot) {
  CopyCut(slot->filename, name, kNameMax);
  uint64_t v = 0;
  const char* field = sbacc_l_strsep(cursor, ",");
  if (!ParseU64(field, 16, &v)) return field == nullptr ? SBACC_LINE_FEW_FIELDS : SBACC_LINE_BAD_ADDRESS;
  slot->areaaddr = v;
  field = sbacc_l_strsep(cursor, ",");
  if (!ParseU64(field, 10, &v)) return field == nullptr ? SBACC_LINE_FEW_FIELDS : SBACC_LINE_BAD_SIZE;
  slot->areasize = v;
  int taken = 0, fields = 0;
  while (taken < SBACC_HDD_MAX) {
    const char* p = sbacc_l_strsep(cursor, ",");
    if (p == nullptr) break;
    ++fields;
    if (*p == '\0') continue;
    CopyCut(slot->hddname[taken++], p, kPathMax);
  }
  if (taken == 0) return fields == 0 ? SBACC_LINE_FEW_FIELDS : SBACC_LINE_NO_PATH;
  slot->hddcount = taken;
  return SBACC_LINE_ACCEPTED;
}

// Who is told the fate of each line, and the number of the line read last.
struct LineObserver {
  sbacc_line_fn fn;
  void* arg;
  int line;
};

void Tell(LineObserver* obs, const char* name, SBACC_LINE_FATE fate) {
  if (obs != nullptr) obs->fn(obs->arg, obs->line, name, fate);
}

int Leave(const char* fn, int ret) {
  SBACC_TRACE(sbacc::kTraceFlow, "[%s] [LEAVE] %d", fn, ret);
  return ret;
}

}  // namespace

const char* sbacc_l_filelist_path() {
  const char* p = getenv("SBACC_FILELIST");
  return (p != nullptr && *p != '\0') ? p : kDefaultFilelist;
}

char* sbacc_l_strsep(char** cursor, const char* sep) {
  if (cursor == nullptr || *cursor == nullptr) return nullptr;
  char* field = *cursor;
  char* next = nullptr;
  // An empty separator would match at every position and never advance;
  // it is treated as absent, so the field runs to the end of the string.
  if (sep != nullptr && *sep != '\0') {
    char* hit = strstr(field, sep);
    if (hit != nullptr) {
      *hit = '\0';
      next = hit + strlen(sep);
    }
  }
  char* end = field + strlen(field);
  while (end > field && (end[-1] == ' ' || end[-1] == '\n')) *--end = '\0';
  if (end > field) {
    while (*field == ' ') ++field;  // stops at the last character at the latest
  }
  *cursor = next;
  return field;
}

int sbacc_l_get_filelist_entry_num() {
  const char* path = sbacc_l_filelist_path();
  FILE* fp = fopen(path, "r");
  if (fp == nullptr) {
    const int err = errno;
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_l_get_filelist_entry_num] fopen error. errno=%d path=%s", err, path);
    return -151;
  }
  char buf[kLineBuf];
  int count = 0;
  // Every read counts, over-long pieces included, so the count bounds the
  // number of accepted lines.  It stops at INT_MAX rather than wrapping.
  while (count < INT_MAX && fgets(buf, kLineBuf, fp) != nullptr) ++count;
  fclose(fp);
  const int ret = count > 0 ? count : -152;
  SBACC_TRACE(sbacc::kTraceState, "[sbacc_l_get_filelist_entry_num] filelist_entry_num=%d", ret);
  return ret;
}

namespace {

// The one parse: list mode (list given) and lookup mode (entry given).  obs
// (list mode only) is told every line's fate.
int Parse(SBACC_FILE_LIST* list, const char* filename, SBACC_FILE_LIST_ENTRY* entry, LineObserver* obs) {
  static const char kFn[] = "sbacc_l_get_filelist_2";
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_get_filelist_2] [ENTER]");
  const char* path = sbacc_l_filelist_path();
  FILE* fp = fopen(path, "r");
  if (fp == nullptr) {
    const int err = errno;
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_l_get_filelist_2] fopen error. errno=%d path=%s", err, path);
    return Leave(kFn, -151);
  }
  int capacity = 0;
  if (list != nullptr) {
    capacity = list->filenum;
    list->filenum = 0;
    if (capacity > 0) memset(list->file, 0, static_cast<size_t>(capacity) * sizeof(SBACC_FILE_LIST_ENTRY));
  } else if (entry != nullptr) {
    memset(entry, 0, sizeof *entry);
  } else {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_l_get_filelist_2] parameter error. list=NULL,entry=NULL");
    fclose(fp);
    return Leave(kFn, -102);
  }

  // List mode: the number of accepted lines.  Lookup mode: the number of
  // earlier lines carrying another name, which places the area's NV record.
  int counter = 0;
  int ret = 0;
  char buf[kLineBuf];
  for (;;) {
    // Checked before every read, so a list whose capacity is 0 or less is
    // full from the start and no slot outside the allocation is touched.
    if (list != nullptr && counter >= capacity) {
      if (filename != nullptr) {
        SBACC_TRACE(sbacc::kTraceError, "[sbacc_l_get_filelist_2] parameter error. filename=%s", filename);
        ret = -103;
      }
      break;
    }
    const LineRead r = ReadLine(fp, buf);
    if (r == LineRead::kEof) break;
    if (obs != nullptr) ++obs->line;
    if (r == LineRead::kTooLong || buf[0] == '#') {
      Tell(obs, nullptr, r == LineRead::kTooLong ? SBACC_LINE_TOO_LONG : SBACC_LINE_COMMENT);
      continue;
    }
    char* cursor = buf;
    const char* name = sbacc_l_strsep(&cursor, ",");
    if (*name == '\0') {
      Tell(obs, nullptr, cursor == nullptr ? SBACC_LINE_BLANK : SBACC_LINE_NO_NAME);
      continue;
    }
    SBACC_FILE_LIST_ENTRY* slot = entry;
    if (list != nullptr) {
      slot = &list->file[counter];
    } else if (filename == nullptr || strcmp(name, filename) != 0) {
      // A lookup without a name matches no line and ends with the cleared entry.
      ++counter;
      continue;
    }
    const SBACC_LINE_FATE fate = ParseLine(name, &cursor, slot);
    Tell(obs, name, fate);
    if (fate != SBACC_LINE_ACCEPTED) continue;
    slot->index = counter;
    if (list == nullptr) break;  // the first accepted line of the name wins
    list->filenum = ++counter;
  }
  fclose(fp);
  return Leave(kFn, ret);
}

int GetList(SBACC_FILE_LIST** list, LineObserver* obs) {
  static const char kFn[] = "sbacc_l_get_filelist";
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_get_filelist] [ENTER]");
  // No out pointer: reported like the parser's missing arguments.
  if (list == nullptr) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_l_get_filelist] parameter error. list=NULL");
    return Leave(kFn, -102);
  }
  *list = nullptr;
  const int num = sbacc_l_get_filelist_entry_num();
  if (num < 1) {
    const int err = errno;
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_l_get_filelist] sbacc_l_get_filelist_entry_num error. ret=%d errno=%d",
                num, err);
    return Leave(kFn, num);
  }
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_get_filelist] sbacc_l_get_filelist_entry_num ret=%d", num);
  // The allocator takes an int size: a count whose list would not fit one is
  // refused here as an allocation failure instead of being truncated.
  SBACC_FILE_LIST* p = nullptr;
  const size_t max_entries = (INT_MAX - sizeof(SBACC_FILE_LIST)) / sizeof(SBACC_FILE_LIST_ENTRY);
  if (static_cast<size_t>(num) <= max_entries) {
    p = static_cast<SBACC_FILE_LIST*>(
        SBACC_CALLOC(1, sizeof(SBACC_FILE_LIST) + static_cast<size_t>(num) * sizeof(SBACC_FILE_LIST_ENTRY)));
  } else {
    errno = ENOMEM;
  }
  if (p == nullptr) {
    const int err = errno;
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_l_get_filelist] calloc error. errno=%d", err);
    return Leave(kFn, -111);
  }
  p->filenum = num;  // the capacity, for the parser
  const int ret = Parse(p, nullptr, nullptr, obs);
  if (ret != 0) {
    SBACC_FREE(p);
    return Leave(kFn, ret);
  }
  *list = p;
  return Leave(kFn, 0);
}

}  // namespace

int sbacc_l_get_filelist(SBACC_FILE_LIST** list) { return GetList(list, nullptr); }

int sbacc_l_get_filelist_entry(const char* filename, SBACC_FILE_LIST_ENTRY* entry) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_get_filelist_entry] [ENTER]");
  const int ret = sbacc_l_get_filelist_2(nullptr, filename, entry);
  if (ret != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_l_get_filelist_entry] sbacc_l_get_filelist_2 error. retcode=%d", ret);
  }
  return Leave("sbacc_l_get_filelist_entry", ret);
}

int sbacc_l_get_filelist_2(SBACC_FILE_LIST* list, const char* filename, SBACC_FILE_LIST_ENTRY* entry) {
  return Parse(list, filename, entry, nullptr);
}

int sbacc_l_walk_filelist(sbacc_line_fn fn, void* arg) {
  LineObserver obs{fn, arg, 0};
  SBACC_FILE_LIST* list = nullptr;
  const int ret = GetList(&list, fn != nullptr ? &obs : nullptr);
  if (ret == 0) SBACC_FREE(list);
  return ret;
}
