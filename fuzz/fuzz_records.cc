// HDD headers and NV records as the open and the start-up meet them: the
// input supplies both headers of area "a" and its NV record (with switches
// that make the magic and version valid more often), then a read-mode and a
// write-mode open, a read, a write, the close, and the start-up restore or
// the NV initialisation.  Whatever the records say, no call may crash, leak
// a descriptor or a block, or return anything but success or a library code.
#include <algorithm>

#include "rig.h"
#include "sbacc_l.h"

using namespace sbacc_fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const uint8_t flags = data[0], knobs = data[1];
  Rig& rig = TheRig();
  rig.Fresh((flags & 0xe0) == 0xe0);
  // Both headers and the NV record, zero-padded, then what is left as the
  // area's first data bytes on both copies.
  constexpr size_t kRecords = kCopies * SBACC_HEADER_SIZE + SBACC_NV_ENTRY_SIZE;
  std::vector<uint8_t> in(data + 2, data + size);
  in.resize(std::clamp(in.size(), kRecords, kRecords + kAreaSize - SBACC_HEADER_SIZE), 0);
  for (int i = 0; i <= kCopies; ++i) {  // flag bit i: a valid magic and version on record i (the NV record last)
    uint8_t* rec = in.data() + i * SBACC_HEADER_SIZE;
    if (flags & (1u << i)) memcpy(rec, i < kCopies ? SBACC_HDD_MAGIC : SBACC_MEM_MAGIC, 4);
    if (flags & (1u << i))
      sbacc_l_put_le32(rec + (i < kCopies ? int{kHdrVersion} : int{kMemVersion}), SBACC_RECORD_VERSION);
  }
  for (int i = 0; i < kCopies; ++i) {
    rig.sim.PutHddBytes(i, kAreaAddr, in.data() + i * SBACC_HEADER_SIZE, SBACC_HEADER_SIZE);
    if (in.size() > kRecords) rig.sim.PutHddBytes(i, kAreaAddr + 128, in.data() + kRecords, in.size() - kRecords);
  }
  uint8_t* nv = in.data() + kCopies * SBACC_HEADER_SIZE;
  if (flags & 0x8) sbacc_l_put_le32(nv + kMemHddcount, kCopies);
  rig.sim.PutNvBytes(SBACC_NV_BASE, nv, SBACC_NV_ENTRY_SIZE);

  const int offset = (knobs & 0x3f) * 61;
  std::vector<uint8_t> buf(512);
  rig.Bound(kAreaAddr, kAreaAddr + kAreaSize);  // the calls below work on "a" alone
  for (const char* mode : {"r", "w"}) {
    void* fp = nullptr;
    boolean_t clean = B_FALSE;
    const int rc = sbacc_open("a", mode, &fp, &clean);
    Check(Known(rc) && (rc == 0) == (fp != nullptr));
    if (rc != 0) continue;
    // The size is handed out as the header holds it, whatever it is.
    (void)sbacc_read_size(fp);
    const int n = sbacc_read(buf.data(), static_cast<int>(buf.size()), offset, fp);
    Check(Known(n) && n <= static_cast<int>(buf.size()));
    const int w = mode[0] == 'w' ? sbacc_write(buf.data(), 100, offset, fp) : 100;  // a whole write or a code
    Check(Known(w) && (w < 0 || w == 100));
    if (mode[0] == 'w' && knobs & 0x40) Check(Known(sbacc_write_size(offset, fp)));
    Check(sbacc_close(fp) == 0);
  }
  // The start-up writes "a" and "b"'s header; "b"'s data is never written.
  rig.Bound(kAreaAddr, kAreaAddr + kAreaSize + SBACC_HEADER_SIZE);
  if (knobs & 0x80 || flags & 0x10) Check(Known(knobs & 0x80 ? sbacc_nv_init(0) : sbacc_hdd_restore(0)));
  rig.Finish();
  return 0;
}
