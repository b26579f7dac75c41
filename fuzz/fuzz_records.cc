// HDD headers and NV records as the open and the start-up meet them: the
// input supplies both headers of area "a" and its NV record (with switches
// that make the magic and version valid more often), then a read-mode and a
// write-mode open, a read, a write, the close, and the start-up restore or
// the NV initialisation.  Whatever the records say, no call may crash, leak
// a descriptor or a block, or return anything but success or a library code.
#include <string.h>

#include <vector>

#include "rig.h"
#include "sbacc_alloc.h"
#include "sbacc_l.h"

namespace {

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
  Rig& rig = TheRig();
  rig.Fresh((flags & 0xe0) == 0xe0);

  for (int i = 0; i < kCopies; ++i) {
    std::vector<uint8_t> h = Take(p, end, SBACC_HEADER_SIZE);
    if (flags & (1u << i)) {
      memcpy(h.data(), SBACC_HDD_MAGIC, 4);
      sbacc_l_put_le32(h.data() + kHdrVersion, SBACC_RECORD_VERSION);
    }
    rig.sim.PutHddBytes(i, kAreaAddr, h.data(), h.size());
  }
  std::vector<uint8_t> nv = Take(p, end, SBACC_NV_ENTRY_SIZE);
  if (flags & 0x4) {
    memcpy(nv.data(), SBACC_MEM_MAGIC, 4);
    sbacc_l_put_le32(nv.data() + kMemVersion, SBACC_RECORD_VERSION);
  }
  if (flags & 0x8) sbacc_l_put_le32(nv.data() + kMemHddcount, kCopies);
  rig.sim.PutNvBytes(SBACC_NV_BASE, nv.data(), nv.size());
  // Whatever is left: the area's first data bytes on both copies.
  std::vector<uint8_t> rest(p, end);
  if (rest.size() > kAreaSize - SBACC_HEADER_SIZE) rest.resize(kAreaSize - SBACC_HEADER_SIZE);
  for (int i = 0; i < kCopies && !rest.empty(); ++i) rig.sim.PutHddBytes(i, kAreaAddr + 128, rest.data(), rest.size());

  const int fds = sbacc_test::OpenFdCount();
  const long blocks = sbacc::AllocLiveBlocks();
  const int offset = (knobs & 0x3f) * 61;
  std::vector<uint8_t> buf(512);

  rig.Bound(kAreaAddr, kAreaAddr + kAreaSize);  // the calls below work on "a" alone
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
  // The start-up writes "a" and "b"'s header; "b"'s data is never written.
  rig.Bound(kAreaAddr, kAreaAddr + kAreaSize + SBACC_HEADER_SIZE);
  if (knobs & 0x80) {
    Check(Known(sbacc_nv_init(0)));
  } else if (flags & 0x10) {
    Check(Known(sbacc_hdd_restore(0)));
  }
  rig.Finish();
  Check(sbacc_test::OpenFdCount() == fds);
  Check(sbacc::AllocLiveBlocks() == blocks);
  return 0;
}
