// Diagnostic dump: every area's NV record, the header of each HDD copy and
// the first data bytes, as hex, into a text file or into the trace.  It reads
// the media directly, takes no lock and changes nothing.
#define SBACC_MODULE SBACC_MODULE_SBACC
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "sbacc_core.h"
#include "sbacc_env.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"
#include "sbacc_trace.h"

namespace {

constexpr int kBytesPerLine = 16;
constexpr int kLineLen = 63;        // characters of one dump line
constexpr int kGroupCol[4] = {10, 19, 28, 37};
constexpr int kCharCol = 47;
constexpr int kMaxDataDump = 32;    // data bytes shown per copy
constexpr int kWorkBufSize = 512;

// One output line: to the file, or to the trace at level 4.  `text` carries
// no newline; the file gets one.
void DumpLine(FILE* fp, const char* text) {
  if (fp != nullptr) {
    fprintf(fp, "%s\n", text);
  } else {
    SBACC_TRACE(sbacc::kTraceState, "%s", text);
  }
}

}  // namespace

void sbacc_dump(FILE* fp, char* buf, int len) {
  if (len <= 0 || buf == nullptr) return;
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(buf);
  for (int off = 0; off < len; off += kBytesPerLine) {
    const int n = (len - off < kBytesPerLine) ? len - off : kBytesPerLine;
    char line[kLineLen + 1];
    memset(line, ' ', sizeof line);
    line[kLineLen] = '\0';

    char text[16];
    snprintf(text, sizeof text, "%08x: ", static_cast<unsigned>(off));
    memcpy(line, text, 10);

    for (int g = 0; g < 4 && g * 4 < n; ++g) {
      const int present = (n - g * 4 < 4) ? n - g * 4 : 4;
      // Network order puts the first byte in memory into the leftmost digits
      // whatever the host's byte order.
      uint32_t word = 0;
      memcpy(&word, bytes + off + g * 4, static_cast<size_t>(present));
      snprintf(text, sizeof text, "%08x", static_cast<unsigned>(htonl(word)));
      memcpy(line + kGroupCol[g], text, static_cast<size_t>(present * 2));
    }

    for (int k = 0; k < n; ++k) {
      const unsigned char c = bytes[off + k];
      line[kCharCol + k] = (c >= 0x20 && c <= 0x7e) ? static_cast<char>(c) : '.';
    }
    DumpLine(fp, line);
  }
}

namespace {

// One copy of one area: header, then (datasize > 0) the first data bytes.
void DumpHdd(FILE* fp, SBACC_FILE_DISCRIPTER* sfd, const SBACC_FILE_LIST_ENTRY& ent, int j,
             int datasize) {
  int fd = sbacc::CurrentEnv()->OpenRetry(ent.hddname[j], O_RDWR);
  if (fd < 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_dumpout] open error. errno=%d filename=%s", errno,
                ent.hddname[j]);
    return;
  }
  sfd->fd[j] = fd;

  char work[kWorkBufSize];
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_dumpout] sbacc_l_hddget_header[%d]", j);
  int ret = sbacc_l_hddget(sfd, j, 0, work, SBACC_HEADER_SIZE);
  if (ret != 0) {
    SBACC_TRACE(sbacc::kTraceError,
                "[sbacc_dumpout] sbacc_l_hddget_header[%d] error. retcode=%d filename=%s", j, ret,
                ent.filename);
  } else {
    char line[64];
    if (fp != nullptr) {
      fprintf(fp, "===== HDD[%d/%d] =====\n", j, ent.hddcount);
    } else {
      snprintf(line, sizeof line, "===== HDD[%d/%d] =====", j, ent.hddcount);
      DumpLine(nullptr, line);
    }
    sbacc_dump(fp, work, SBACC_HEADER_SIZE);

    if (datasize > 0) {
      SBACC_TRACE(sbacc::kTraceFlow,
                  "[sbacc_dumpout] sbacc_l_hddget(data)[%d]. retcode=%d filename=%s datasize=%d", j,
                  ret, ent.filename, datasize);
      memset(work, 0, sizeof work);
      ret = sbacc_l_hddget(sfd, j, SBACC_HEADER_SIZE, work, datasize);
      if (ret != 0) {
        SBACC_TRACE(sbacc::kTraceError,
                    "[sbacc_dumpout] sbacc_l_hddget(data)[%d] error. retcode=%d filename=%s "
                    "datasize=%d",
                    j, ret, ent.filename, datasize);
      } else {
        DumpLine(fp, "[data]");
        sbacc_dump(fp, work, datasize);
      }
    }
  }

  sbacc::CurrentEnv()->Close(fd);
  sfd->fd[j] = -1;
}

void DumpArea(FILE* fp, int i) {
  // A copy of the entry: the list stays loaded, but nothing here needs to
  // reach back into it while the descriptor is in use.
  const SBACC_FILE_LIST_ENTRY ent = p_sbacc_file_list->file[i];
  const int filenum = p_sbacc_file_list->filenum;

  SBACC_FILE_DISCRIPTER* sfd = nullptr;
  int ret = sbacc_ma_alloc_sfd(ent.filename, SBACC_OPENMODE_INSPECT, &sfd);
  if (ret != 0 || sfd == nullptr) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_dumpout] sbacc_ma_alloc_sfd error. ret=%d errno=%d",
                ret, errno);
    return;
  }

  char line[128];
  if (fp != nullptr) {
    fprintf(fp, "***** NV MEMORY [%d/%d] *****\n", i, filenum);
  } else {
    snprintf(line, sizeof line, "***** NV MEMORY [%d/%d] *****", i, filenum);
    DumpLine(nullptr, line);
  }

  char nv[SBACC_NV_ENTRY_SIZE];
  ret = sbacc_l_memget(sfd, 0, nv, SBACC_NV_ENTRY_SIZE);
  if (ret != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_dumpout] sbacc_memget_entry error. ret=%d errno=%d",
                ret, errno);
  } else {
    sbacc_dump(fp, nv, SBACC_NV_ENTRY_SIZE);
  }

  // The low 32 bits of areasize, signed, less the header; an area of 128
  // bytes or less (or one whose size wraps negative) shows no data.
  int32_t datasize = static_cast<int32_t>(static_cast<uint32_t>(ent.areasize) -
                                          static_cast<uint32_t>(SBACC_HEADER_SIZE));
  if (datasize > kMaxDataDump) datasize = kMaxDataDump;

  if (fp != nullptr) {
    fprintf(fp, "***** HDD HEADER file=(%s) *****\n", ent.filename);
  } else {
    snprintf(line, sizeof line, "***** HDD HEADER file=(%s) *****", ent.filename);
    DumpLine(nullptr, line);
  }

  // The descriptor's slots bound the walk, whatever the list claims.
  const int hddcount = ent.hddcount < SBACC_HDD_MAX ? ent.hddcount : SBACC_HDD_MAX;
  for (int j = 0; j < hddcount; ++j) DumpHdd(fp, sfd, ent, j, datasize);

  sbacc_ma_free_sfd(sfd);
}

}  // namespace

int sbacc_dumpout(char* path) {
  SBACC_TRACE(sbacc::kTraceState, "[sbacc_dumpout] [ENTER] %s", "sbacc_dumpout");

  FILE* fp = nullptr;
  int ret = 0;
  if (path != nullptr) {
    fp = fopen(path, "a");
    if (fp == nullptr) {
      SBACC_TRACE(sbacc::kTraceError, "[sbacc_dumpout] fopen error. errno=%d path=%s", errno, path);
      ret = SBACC_E_FILEOPEN;
    }
  }

  if (ret == 0) {
    // Reentrant forms: the dump may run beside other threads of the caller.
    char when[64] = "";
    time_t now = time(nullptr);
    struct tm tmv;
    if (localtime_r(&now, &tmv) == nullptr || asctime_r(&tmv, when) == nullptr) {
      snprintf(when, sizeof when, "%s", "?\n");
    }
    if (fp != nullptr) {
      fprintf(fp, ">>>>> OUTPUT TIME: %s \n", when);
    } else {
      SBACC_TRACE(sbacc::kTraceState, ">>>>> OUTPUT TIME: %s \n", when);
    }

    if (p_sbacc_file_list == nullptr) {
      ret = sbacc_l_get_filelist(&p_sbacc_file_list);
      if (ret != 0) {
        SBACC_TRACE(sbacc::kTraceError,
                    "[sbacc_dumpout] sbacc_l_get_filelist error. ret=%d errno=%d", ret, errno);
      }
    }
  }

  if (ret == 0) {
    for (int i = 0; i < p_sbacc_file_list->filenum; ++i) DumpArea(fp, i);
  }

  if (fp != nullptr) fclose(fp);

  if (ret != 0) {
    // Trace mode has no path to show; "NULL" says so, as the parameter
    // blocks of the other exported calls do for a NULL pointer.
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_dumpout] %s (%s) retcode: %d", "sbacc_dumpout",
                SBACC_STRSTR(path), ret);
  }
  SBACC_TRACE(sbacc::kTraceState, "[sbacc_dumpout] [LEAVE] %d", ret);
  return ret;
}
