// HDD headers and NV records as the open and the start-up meet them: the
// input supplies both headers of area "a" and its NV record (with switches
// that make the magic and version valid more often), then a read-mode and a
// write-mode open, a read, a write, the close, and the start-up restore or
// the NV initialisation.  Whatever the records say, no call may crash, leak
// a descriptor or a block, or touch area "b" beyond its own copies.
#include <dirent.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "common.h"
#include "sbacc.h"
#include "sbacc_alloc.h"
#include "sbacc_l.h"

namespace {

void Check(bool ok) {
  if (!ok) abort();
}

int OpenFds() {
  int n = 0;
  DIR* d = opendir("/proc/self/fd");
  if (d == nullptr) return -1;
  while (struct dirent* e = readdir(d)) n += e->d_name[0] != '.';
  closedir(d);
  return n;
}

bool Known(int rc) {
  switch (rc) {
    case SBACC_E_UNSUPPORTED: case SBACC_E_NOTALLOWED: case SBACC_E_PARAM: case SBACC_E_NOTINIT:
    case SBACC_E_NOSPACE: case SBACC_E_REPAIR: case SBACC_E_NOCOPY: case SBACC_E_NOMEM:
    case SBACC_E_ALLBLOCKADE: case SBACC_E_HDDREAD: case SBACC_E_HDDWRITE: case SBACC_E_HDDSEEK:
    case SBACC_E_NVREAD: case SBACC_E_NVWRITE:
      return true;
    default:
      return rc >= 0;
  }
}

// The bytes of one record from the input, zero-padded.
std::vector<uint8_t> Take(const uint8_t*& p, const uint8_t* end, size_t n) {
  std::vector<uint8_t> out(n, 0);
  const size_t k = static_cast<size_t>(end - p) < n ? static_cast<size_t>(end - p) : n;
  memcpy(out.data(), p, k);
  p += k;
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace sbacc_fuzz;
  if (size < 2) return 0;
  const uint8_t flags = data[0];
  const uint8_t knobs = data[1];
  const uint8_t* p = data + 2;
  const uint8_t* end = data + size;
  FreshSetup();
  UseThreads((flags & 0xe0) == 0xe0);

  for (int i = 0; i < kCopies; ++i) {
    std::vector<uint8_t> h = Take(p, end, SBACC_HEADER_SIZE);
    if (flags & (1u << i)) {
      memcpy(h.data(), SBACC_HDD_MAGIC, 4);
      sbacc_l_put_le32(h.data() + kHdrVersion, SBACC_RECORD_VERSION);
    }
    PutBytes(HddPath(i), kAreaAddr, h.data(), h.size());
  }
  std::vector<uint8_t> nv = Take(p, end, SBACC_NV_ENTRY_SIZE);
  if (flags & 0x4) {
    memcpy(nv.data(), SBACC_MEM_MAGIC, 4);
    sbacc_l_put_le32(nv.data() + kMemVersion, SBACC_RECORD_VERSION);
  }
  if (flags & 0x8) sbacc_l_put_le32(nv.data() + kMemHddcount, kCopies);
  PutBytes(NvPath(), SBACC_NV_BASE, nv.data(), nv.size());
  // Whatever is left: the area's first data bytes on both copies.
  std::vector<uint8_t> rest(p, end);
  if (rest.size() > kAreaSize - SBACC_HEADER_SIZE) rest.resize(kAreaSize - SBACC_HEADER_SIZE);
  for (int i = 0; i < kCopies && !rest.empty(); ++i) PutBytes(HddPath(i), kAreaAddr + 128, rest.data(), rest.size());
  const std::vector<uint8_t> b_before(16);  // area "b" was never used: its header stays zero unless opened

  const int fds = OpenFds();
  const long blocks = sbacc::AllocLiveBlocks();
  const int offset = (knobs & 0x3f) * 61;
  std::vector<uint8_t> buf(512);

  for (const char* mode : {"r", "w"}) {
    void* fp = nullptr;
    boolean_t clean = B_FALSE;
    const int rc = sbacc_open("a", mode, &fp, &clean);
    Check(Known(rc));
    if (rc != 0) {
      Check(fp == nullptr);
      continue;
    }
    // The size is handed out as the header holds it, whatever it is.
    (void)sbacc_read_size(fp);
    const int n = sbacc_read(buf.data(), static_cast<int>(buf.size()), offset, fp);
    Check(Known(n) && n <= static_cast<int>(buf.size()));
    if (mode[0] == 'w') {
      const int w = sbacc_write(buf.data(), 100, offset, fp);
      Check(Known(w) && (w < 0 || w == 100));
      if (knobs & 0x40) Check(Known(sbacc_write_size(offset, fp)));
    }
    Check(sbacc_close(fp) == 0);
  }
  if (knobs & 0x80) {
    Check(Known(sbacc_nv_init(0)));
  } else if (flags & 0x10) {
    Check(Known(sbacc_hdd_restore(0)));
  }
  ResetLibrary();
  Check(OpenFds() == fds);
  Check(sbacc::AllocLiveBlocks() == blocks);
  return 0;
}
