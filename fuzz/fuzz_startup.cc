// Crafted records through the area calls and a whole start-up: the input
// makes an area list (up to four areas among the seven paired ones and a
// plain one, anywhere on the two disks, overlapping or not, and now and then a
// line of raw bytes), and both headers and the NV record of every area (with
// switches that make magic and version valid more often).  Every area is then
// opened for reading and for writing, read, written and resized as a process
// finds it, sbacc_nv_init runs, and every area is used again.  Whatever the
// records say, each call succeeds or returns a library code, no call writes
// outside the area it works on (nor the start-up outside every listed area),
// and nothing leaks.
#include <algorithm>
#include <string>

#include "rig.h"
#include "sbacc_l.h"

using namespace sbacc_fuzz;

namespace {

constexpr uint64_t kDisk = 16 * 1024;
const char* const kNames[] = {"envfw_backup0", "envfw_backup1", "envfw_sysback", "envfw_sysacpt",
                              "envfw_verid",   "envfw_verback", "envfw_reboot",  "a"};

// Opens the area for reading and for writing; a handle reads 512 bytes at
// `offset`, the writer also writes 100 and resizes to `offset`.
void Use(const char* name, int offset) {
  std::vector<uint8_t> buf(512);
  for (const char* mode : {"r", "w"}) {
    void* fp = nullptr;
    boolean_t clean = B_FALSE;
    const int rc = sbacc_open(name, mode, &fp, &clean);
    Check(Known(rc) && (rc == 0) == (fp != nullptr));
    if (rc != 0) continue;
    (void)sbacc_read_size(fp);  // handed out as the header holds it, whatever it is
    const int n = sbacc_read(buf.data(), static_cast<int>(buf.size()), offset, fp);
    Check(Known(n) && n <= static_cast<int>(buf.size()));
    const int w = mode[0] == 'w' ? sbacc_write(buf.data(), 100, offset, fp) : 100;  // a whole write or a code
    Check(Known(w) && (w < 0 || w == 100));
    if (mode[0] == 'w') Check(Known(sbacc_write_size(offset, fp)));
    Check(sbacc_close(fp) == 0);
  }
}

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
  struct Area {
    const char* name;
    int offset;
    uint64_t lo, hi;
  };
  std::vector<Area> uses;  // the first area of each name, and an offset to use it at
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
    // Without its commas a raw line is never taken for an area, so the first
    // line of a name stays the one whose range the calls are held to.
    std::string junk(reinterpret_cast<const char*>(p), raw);
    std::replace(junk.begin(), junk.end(), ',', ';');
    list += "\n" + junk + (raw > 0 ? "\n" : "");
    p += raw;
    ranges.emplace_back(addr, addr + asize);
    if (std::none_of(uses.begin(), uses.end(), [&](const Area& u) { return u.name == kNames[form >> 5]; }))
      uses.push_back({kNames[form >> 5], (extra & 0x3f) * 61, addr, addr + asize});
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

  for (int round = 0; round < 2; ++round) {  // as found, then after the start-up
    for (const Area& u : uses) {
      rig.Bound(u.lo, u.hi);
      Use(u.name, u.offset);
    }
    rig.Bound(0, 0);
    if (round == 0) Check(Known(sbacc_nv_init(0)));
  }
  for (int c = 0; c < kCopies; ++c) {
    const sbacc_test::Bytes after = rig.sim.HddBytes(c, 0, kDisk);
    for (uint64_t i = 0; i < kDisk; ++i) {
      bool listed = false;
      for (const auto& [lo, hi] : ranges) listed |= i >= lo && i < hi;
      Check(listed || after[i] == before[static_cast<size_t>(c)][i]);
    }
  }
  rig.Finish();
  return 0;
}
