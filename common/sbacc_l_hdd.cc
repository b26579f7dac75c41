// Raw transfers on one HDD copy of an area: positioned write (flushed),
// positioned read, header initialisation and the fixed-offset accessors.
// Offsets are relative to the area's start (areaaddr); the file position is
// computed in 64 bits so areas beyond 4 GiB work.  These functions never
// open, close or fence a copy: that is the engine's decision.
#define SBACC_MODULE SBACC_MODULE_L
#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <string.h>

#include "sbacc.h"
#include "sbacc_env.h"
#include "sbacc_l.h"
#include "sbacc_trace.h"

namespace {

// The descriptor slot of one copy, or -1 with errno EBADF when the index is
// outside the eight slots or the copy is not open.  The engine never asks for
// such a copy; refusing it as a failed seek keeps a caller bug from reading a
// neighbouring slot or handing -1 to the system.
int CopyFd(const SBACC_FILE_DISCRIPTER* sfd, int hdd) {
  if (sfd == nullptr || hdd < 0 || hdd >= SBACC_HDD_MAX || sfd->fd[hdd] < 0) {
    errno = EBADF;
    return -1;
  }
  return sfd->fd[hdd];
}

// File position of an area-relative offset.  areaaddr comes from the list as
// an unsigned 64-bit number and the offset may be negative (header bytes seen
// from the data side); a sum outside 0..INT64_MAX is refused like an lseek to
// a bad position instead of wrapping.
bool FilePos(const SBACC_FILE_DISCRIPTER* sfd, int offset, int64_t* pos) {
  const uint64_t base = sfd->sfe.areaaddr;
  if (base > static_cast<uint64_t>(INT64_MAX)) {
    errno = EOVERFLOW;
    return false;
  }
  const int64_t sum = static_cast<int64_t>(base) + offset;  // cannot overflow: offset is an int
  if (sum < 0) {
    errno = EINVAL;
    return false;
  }
  *pos = sum;
  return true;
}

// Seeks the copy's descriptor to the transfer position; -1 (errno set) on failure.
int SeekCopy(const SBACC_FILE_DISCRIPTER* sfd, int hdd, int offset, int* fd, int64_t* pos) {
  *fd = CopyFd(sfd, hdd);
  if (*fd < 0) return -1;
  if (!FilePos(sfd, offset, pos)) return -1;
  return sbacc::CurrentEnv()->Seek(*fd, *pos) < 0 ? -1 : 0;
}

// The area name for a trace line, terminated even if the stored name fills
// all 32 bytes.
struct NameBuf {
  char s[SBACC_FILENAME_LEN + 1];
  explicit NameBuf(const char (&name)[SBACC_FILENAME_LEN]) {
    memcpy(s, name, SBACC_FILENAME_LEN);
    s[SBACC_FILENAME_LEN] = '\0';
  }
};

// Area-relative offset of data byte `offset`, or false when 128 + offset does
// not fit the int that the primitives take.
bool DataOffset(int offset, int* out) {
  const int64_t rel = static_cast<int64_t>(SBACC_HEADER_SIZE) + offset;
  if (rel > INT_MAX) return false;
  *out = static_cast<int>(rel);
  return true;
}

}  // namespace

int sbacc_l_hddset(SBACC_FILE_DISCRIPTER* sfd, int hdd, int offset, const void* buf, int len) {
  const SBACC_SLICE slice = {offset, buf, len};
  return sbacc_l_hddset_slices(sfd, hdd, &slice, 1);
}

// Several pieces of one copy go down in one flush: a header update whose
// fields are not adjacent costs no more than one that is.
int sbacc_l_hddset_slices(SBACC_FILE_DISCRIPTER* sfd, int hdd, const SBACC_SLICE* slices, int n) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddset] [ENTER]");
  int fd = -1;
  int len = 0;
  for (int k = 0; k < n; ++k) {
    const int offset = slices[k].offset;
    len = slices[k].len;
    int64_t pos = 0;
    if (SeekCopy(sfd, hdd, offset, &fd, &pos) != 0) {
      const int err = errno;
      SBACC_TRACE(sbacc::kTraceError, "[sbacc_l_hddset] lseek error. errno=%d index=%d, offset=%d", err, hdd,
                  offset);
      SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddset] [LEAVE] %d", SBACC_E_HDDSEEK);
      return SBACC_E_HDDSEEK;
    }

    // A negative length is a caller bug; turned into a size_t it would ask the
    // system for an enormous transfer, so it fails here as a short write.
    ssize_t ret = -1;
    int err = EINVAL;
    if (len >= 0) {
      ret = sbacc::CurrentEnv()->WriteFully(fd, slices[k].buf, static_cast<size_t>(len), pos);
      err = errno;
    }
    if (ret != len) {
      SBACC_TRACE(sbacc::kTraceError, "[sbacc_l_hddset] write error. ret=%d errno=%d len=%d", static_cast<int>(ret),
                  err, len);
      SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddset] [LEAVE] %d", SBACC_E_HDDWRITE);
      return SBACC_E_HDDWRITE;
    }
  }

  // A copy whose flush failed cannot be trusted to hold the data (the kernel
  // may have dropped the dirty pages), and the engine orders its multi-step
  // header updates on every write being durable.  So a failed fsync counts as
  // a failed write, which makes the engine fence the copy.
  const int sync = sbacc::CurrentEnv()->FsyncRetry(fd);
  const int sync_err = errno;
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddset] fsync() fd=%d len=%d", fd, len);
  if (sync != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_l_hddset] fsync error. ret=%d errno=%d len=%d", sync, sync_err, len);
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddset] [LEAVE] %d", SBACC_E_HDDWRITE);
    return SBACC_E_HDDWRITE;
  }
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddset] [LEAVE] %d", 0);
  return 0;
}

int sbacc_l_hddget(SBACC_FILE_DISCRIPTER* sfd, int hdd, int offset, void* buf, int len) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddget] [ENTER]");
  int fd = -1;
  int64_t pos = 0;
  if (SeekCopy(sfd, hdd, offset, &fd, &pos) != 0) {
    const int err = errno;
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_l_hddget] lseek error. errno=%d index=%d, offset=%d", err, hdd,
                offset);
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddget] [LEAVE] %d", SBACC_E_HDDSEEK);
    return SBACC_E_HDDSEEK;
  }

  ssize_t ret = -1;
  int err = EINVAL;  // negative length: refused as a failed read, see sbacc_l_hddset
  if (len >= 0) {
    ret = sbacc::CurrentEnv()->ReadFully(fd, buf, static_cast<size_t>(len), pos);
    err = errno;
  }
  if (ret != len) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_l_hddget] read error. ret=%d errno=%d len=%d", static_cast<int>(ret),
                err, len);
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddget] [LEAVE] %d", SBACC_E_HDDREAD);
    return SBACC_E_HDDREAD;
  }
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddget] [LEAVE] %d", 0);
  return 0;
}

int sbacc_l_hddini_header(SBACC_FILE_DISCRIPTER* sfd, int hdd, int hddblockade) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddini_header] [ENTER]");
  const NameBuf name(sfd->sfe.filename);
  SBACC_TRACE(sbacc::kTraceState, "[sbacc_l_hddini_header] initialize HDD HEADER filename=(%s) HDD[%d]", name.s,
              hdd);

  // Everything but the magic goes down first; only once that is durable does
  // the magic make the header valid, so a crash in between leaves an invalid
  // header rather than a valid magic over stale fields.
  SBACC_HDD_HEADER h;
  memset(&h, 0, sizeof h);
  h.version = SBACC_RECORD_VERSION;
  memcpy(h.filename, sfd->sfe.filename, strnlen(sfd->sfe.filename, sizeof h.filename));
  h.areasize = static_cast<int32_t>(static_cast<uint32_t>(sfd->sfe.areasize));
  h.hddblockade = static_cast<uint32_t>(hddblockade);

  int rc = sbacc_l_hddset_header(sfd, hdd, &h);
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_l_hddini_header] sbacc_l_hddset_header error. retcode=%d", rc);
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddini_header] [LEAVE] %d", rc);
    return rc;
  }
  rc = sbacc_l_hddset_magic(sfd, hdd);
  if (rc != 0) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_l_hddini_header] sbacc_l_hddset_magic error. retcode=%d", rc);
    SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddini_header] [LEAVE] %d", rc);
    return rc;
  }
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddini_header] [LEAVE] %d", 0);
  return 0;
}

// ---- Accessors ------------------------------------------------------------------

int sbacc_l_hddset_header(SBACC_FILE_DISCRIPTER* sfd, int hdd, const SBACC_HDD_HEADER* h) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddset_header] [ENTER]");
  uint8_t raw[SBACC_HEADER_SIZE];
  sbacc_l_encode_header(h, raw);
  const int rc = sbacc_l_hddset(sfd, hdd, kHdrMagic, raw, SBACC_HEADER_SIZE);
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddset_header] [LEAVE] %d", rc);
  return rc;
}

int sbacc_l_hddset_magic(SBACC_FILE_DISCRIPTER* sfd, int hdd) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddset_magic] [ENTER]");
  const int rc = sbacc_l_hddset(sfd, hdd, kHdrMagic, SBACC_HDD_MAGIC, 4);
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddset_magic] [LEAVE] %d", rc);
  return rc;
}

int sbacc_l_hddget_header(SBACC_FILE_DISCRIPTER* sfd, int hdd, SBACC_HDD_HEADER* h) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddget_header] [ENTER]");
  uint8_t raw[SBACC_HEADER_SIZE];
  const int rc = sbacc_l_hddget(sfd, hdd, kHdrMagic, raw, SBACC_HEADER_SIZE);
  if (rc == 0) sbacc_l_decode_header(raw, h);  // on failure the caller's record stays as it was
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddget_header] [LEAVE] %d", rc);
  return rc;
}

int sbacc_l_hddget_filesize(SBACC_FILE_DISCRIPTER* sfd, int hdd, int32_t* filesize) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddget_filesize] [ENTER]");
  uint8_t raw[4];
  const int rc = sbacc_l_hddget(sfd, hdd, kHdrFilesize, raw, sizeof raw);
  if (rc == 0) *filesize = static_cast<int32_t>(sbacc_l_get_le32(raw));
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddget_filesize] [LEAVE] %d", rc);
  return rc;
}

int sbacc_l_hddset_data(SBACC_FILE_DISCRIPTER* sfd, int hdd, int offset, const void* buf, int len) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddset_data] [ENTER]");
  int rel = 0;
  int rc;
  if (!DataOffset(offset, &rel)) {
    // No position past INT_MAX - 128 is addressable through the int offset
    // of the primitive; refuse it as a bad seek rather than wrap to the header.
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_l_hddset_data] lseek error. errno=%d index=%d, offset=%d", EOVERFLOW,
                hdd, offset);
    rc = SBACC_E_HDDSEEK;
  } else {
    rc = sbacc_l_hddset(sfd, hdd, rel, buf, len);
  }
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddset_data] [LEAVE] %d", rc);
  return rc;
}

int sbacc_l_hddget_data(SBACC_FILE_DISCRIPTER* sfd, int hdd, int offset, void* buf, int len) {
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddget_data] [ENTER]");
  int rel = 0;
  int rc;
  if (!DataOffset(offset, &rel)) {
    SBACC_TRACE(sbacc::kTraceError, "[sbacc_l_hddget_data] lseek error. errno=%d index=%d, offset=%d", EOVERFLOW,
                hdd, offset);
    rc = SBACC_E_HDDSEEK;
  } else {
    rc = sbacc_l_hddget(sfd, hdd, rel, buf, len);
  }
  SBACC_TRACE(sbacc::kTraceFlow, "[sbacc_l_hddget_data] [LEAVE] %d", rc);
  return rc;
}
