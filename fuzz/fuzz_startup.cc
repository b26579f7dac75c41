// A whole start-up on crafted records: the input makes an area list (up to
// four areas among the seven paired ones and a plain one, anywhere on the
// two disks, overlapping or not, and now and then a line of raw bytes), both
// headers and the NV record of every area (with switches that make magic and
// version valid more often), and a few data bytes.  Then sbacc_nv_init runs.
// No byte outside every listed area may change, and afterwards every area
// opens for reading and writing or is refused with a library code.
#include <string>

#include "rig.h"
#include "sbacc_l.h"

using namespace sbacc_fuzz;

namespace {

constexpr uint64_t kDisk = 16 * 1024;
const char* const kNames[] = {"envfw_backup0", "envfw_backup1", "envfw_sysback", "envfw_sysacpt",
                              "envfw_verid",   "envfw_verback", "envfw_reboot",  "a"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Rig& rig = TheRig();
  rig.Fresh(size % 16 == 15);
  const uint8_t* p = data;
  const uint8_t* const end = data + size;
  auto u8 = [&]() -> uint8_t { return p < end ? *p++ : 0; };
  // A pattern on both disks, so that a stray write shows.
  for (int c = 0; c < kCopies; ++c) {
    for (uint64_t at = 0; at < kDisk; at += 512) rig.sim.PutHddBytes(c, at, sbacc_test::Pattern(512, c).data(), 512);
  }
  std::string list;
  std::vector<std::pair<uint64_t, uint64_t>> ranges;  // [addr, addr + size) of every listed area
  const int areas = 1 + u8() % 4;
  for (int a = 0; a < areas; ++a) {
    // Copies, switches for the records' magic and version, and position;
    // then size and name; then the length of a raw line to follow, if any.
    const uint8_t shape = u8(), copies = 1 + (shape >> 7), form = u8(), extra = u8();
    const uint64_t addr = (shape & 0xf) * 1024ull, asize = 128 + (form % 32) * 128ull;
    char line[160];
    snprintf(line, sizeof line, "%s,%llx,%llu", kNames[form >> 5], static_cast<unsigned long long>(addr),
             static_cast<unsigned long long>(asize));
    list += line;
    for (int c = 0; c < copies; ++c) list += "," + rig.sim.HddPath(c);
    const size_t raw = std::min<size_t>(static_cast<size_t>(end - p), extra & 0x80 ? extra % 48 : 0);
    list += "\n" + std::string(reinterpret_cast<const char*>(p), raw) + (raw > 0 ? "\n" : "");
    p += raw;
    ranges.emplace_back(addr, addr + asize);
    for (int r = 0; r <= copies; ++r) {  // the headers, then the NV record
      uint8_t rec[128];
      for (uint8_t& b : rec) b = u8();
      const bool hdd = r < copies;
      if (shape & (0x40 >> r)) memcpy(rec, hdd ? SBACC_HDD_MAGIC : SBACC_MEM_MAGIC, 4);
      if (shape & (0x40 >> r)) sbacc_l_put_le32(rec + (hdd ? int{kHdrVersion} : int{kMemVersion}), SBACC_RECORD_VERSION);
      hdd ? rig.sim.PutHddBytes(r, addr, rec, 128) : rig.sim.PutNvBytes(SBACC_NV_BASE + 128ull * a, rec, 128);
    }
  }
  rig.sim.SetFilelistText(list);
  std::vector<sbacc_test::Bytes> before;
  for (int c = 0; c < kCopies; ++c) before.push_back(rig.sim.HddBytes(c, 0, kDisk));

  Check(Known(sbacc_nv_init(0)));
  for (int c = 0; c < kCopies; ++c) {
    const sbacc_test::Bytes after = rig.sim.HddBytes(c, 0, kDisk);
    for (uint64_t i = 0; i < kDisk; ++i) {
      bool listed = false;
      for (const auto& [lo, hi] : ranges) listed |= i >= lo && i < hi;
      Check(listed || after[i] == before[static_cast<size_t>(c)][i]);
    }
  }
  for (const char* name : kNames) {
    for (const char* mode : {"r", "w"}) {
      void* fp = nullptr;
      boolean_t clean = B_FALSE;
      const int rc = sbacc_open(name, mode, &fp, &clean);
      Check(Known(rc) && (rc == 0) == (fp != nullptr));
      if (rc == 0) Check(sbacc_close(fp) == 0);
    }
  }
  rig.Finish();
  return 0;
}
