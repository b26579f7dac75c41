// The public area calls driven by arbitrary sequences of arguments, checked
// against a model of the areas: in one thread and without faults every call
// must return exactly what the model says and every read the model's bytes.
#include <algorithm>
#include <map>
#include <string>

#include "rig.h"

using namespace sbacc_fuzz;

constexpr int kCapacity = static_cast<int>(kAreaSize) - 128, kMost = kCapacity + 64;

struct Handle {
  void* fp = nullptr;
  std::string area;
  bool write = false;
};

static void Close(Handle& k) {
  if (k.fp != nullptr) Check(sbacc_close(k.fp) == 0);
  k = Handle{};
}

// What a write or resize on K that would end at END must return: the first
// failing check's code, else OK.
static int Want(const Handle& k, bool bad_args, int64_t end, int ok) {
  return bad_args ? SBACC_E_PARAM : !k.write ? SBACC_E_NOTALLOWED : end > kCapacity ? SBACC_E_NOSPACE : ok;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // One input length in 32 runs the workers on threads (a hand-off costs more
  // than a whole input without them under the sanitizers); a byte would not
  // do, since zeros abound in the corpus.
  const bool threads = size % 32 == 31;
  TheRig().Fresh(threads);
  std::map<std::string, std::vector<uint8_t>> model;  // areas opened "w" at least once
  Handle h[4];
  const uint8_t* p = data;
  const uint8_t* const end = data + size;
  auto u8 = [&]() -> uint8_t { return p < end ? *p++ : 0; };  // past the end every byte reads as zero
  auto Int = [&] {  // mostly small values around the area's capacity, sometimes anything
    if (u8() < 200) return (u8() << 8 | u8()) % kMost;
    int v = 0;
    for (int i = 0; i < 4; ++i) v = static_cast<int>(static_cast<unsigned>(v) << 8 | u8());
    return v;
  };
  static const char* const kNames[] = {"a", "b", "nosuch", "", "a "};   // the first two exist
  static const char* const kModes[] = {"r", "w", "W", "rw", "", "r+"};  // the first two are valid
  std::vector<uint8_t> buf(kMost);

  for (int steps = 0; p < end && steps < (threads ? 8 : 48); ++steps) {
    const uint8_t op = u8();
    Handle& k = h[(op >> 4) % 4];
    // A call on a handle writes its own area only; opens and the start-up
    // may write either.
    const uint64_t at = kAreaAddr + (k.area == "b" ? kAreaSize : 0);
    const bool on_handle = op % 8 >= 1 && op % 8 <= 5 && k.fp != nullptr;
    TheRig().Bound(on_handle ? at : kAreaAddr, on_handle ? at + kAreaSize : kAreaAddr + 2 * kAreaSize);
    switch (op % 8) {  // 6: a pause
      case 0:          // open into slot k (closing what it held)
      case 1: {        // or just close it
        Close(k);
        if (op % 8 == 1) break;
        const int name = u8() % 5, mode = u8() % 6;
        void* fp = nullptr;
        boolean_t clean = B_FALSE;
        const int rc = sbacc_open(kNames[name], kModes[mode], &fp, &clean);
        // A read-mode open of an area never initialised creates nothing.
        const bool fresh = model.count(kNames[name]) == 0;
        Check(rc == (name > 1 || mode > 1 ? SBACC_E_PARAM : mode == 0 && fresh ? SBACC_E_NOTINIT : 0));
        Check((fp != nullptr) == (rc == 0));
        if (rc == 0) k = Handle{fp, kNames[name], mode == 1};
        if (rc == 0) model[kNames[name]];  // a write-mode open makes the area exist, empty
        break;
      }
      case 2: {  // write
        const int n = Int(), off = Int();
        for (int i = 0; i < n && i < kMost; ++i) buf[static_cast<size_t>(i)] = u8();
        if (k.fp == nullptr || n > kMost) break;
        const int rc = sbacc_write(buf.data(), n, off, k.fp);
        Check(rc == Want(k, n <= 0 || off < 0, int64_t{off} + n, n));
        std::vector<uint8_t>& m = model[k.area];
        if (rc > 0) m.resize(std::max(m.size(), static_cast<size_t>(off + n)), 0);
        if (rc > 0) std::copy_n(buf.begin(), n, m.begin() + off);
        break;
      }
      case 3: {  // read and compare
        const int n = Int(), off = Int();
        if (k.fp == nullptr || n > kMost) break;
        const int rc = sbacc_read(buf.data(), n, off, k.fp);
        const std::vector<uint8_t>& m = model[k.area];
        Check(rc == (n <= 0 || off < 0 ? SBACC_E_PARAM : std::clamp(static_cast<int>(m.size()) - off, 0, n)));
        Check(rc <= 0 || std::equal(m.begin() + off, m.begin() + off + rc, buf.begin()));
        break;
      }
      case 4: {  // resize
        const int n = Int();
        if (k.fp == nullptr) break;
        const int rc = sbacc_write_size(n, k.fp);
        Check(rc == Want(k, n < 0, n, n));
        if (rc >= 0) model[k.area].resize(static_cast<size_t>(n), 0);
        break;
      }
      case 5:
        if (k.fp != nullptr) Check(sbacc_read_size(k.fp) == static_cast<int>(model[k.area].size()));
        break;
      case 7:  // the start-up, rarely, with every handle closed
        if ((u8() & 0x7) != 0) break;
        for (Handle& x : h) Close(x);
        Check(sbacc_nv_init(0) == 0);
        // Every area is initialised now; the open and close of the start-up
        // leave the data as it was.
        for (const char* name : {"a", "b"}) model[name];
        break;
    }
  }
  TheRig().Bound(kAreaAddr, kAreaAddr + 2 * kAreaSize);
  for (Handle& x : h) Close(x);
  TheRig().Finish();
  return 0;
}
