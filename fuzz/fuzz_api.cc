// The public area calls driven by arbitrary sequences of arguments, checked
// against a model of the areas: in one thread and without faults every call
// must return exactly what the model says and every read the model's bytes.
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "common.h"
#include "sbacc.h"
#include "sbacc_alloc.h"

namespace {

void Check(bool ok) {
  if (!ok) abort();
}

constexpr int kCapacity = static_cast<int>(sbacc_fuzz::kAreaSize) - 128;
constexpr int kHandles = 4;

struct Reader {
  const uint8_t* p;
  const uint8_t* end;
  bool more() const { return p < end; }
  uint8_t u8() { return p < end ? *p++ : 0; }
  // Mostly small values around the area's capacity, sometimes anything.
  int Int() {
    const uint8_t sel = u8();
    if (sel < 200) return (u8() << 8 | u8()) % (kCapacity + 64);
    int v = 0;
    for (int i = 0; i < 4; ++i) v = static_cast<int>(static_cast<unsigned>(v) << 8 | u8());
    return v;
  }
};

struct Handle {
  void* fp = nullptr;
  std::string area;
  bool write = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace sbacc_fuzz;
  FreshSetup();
  // One input in 32 runs the workers on threads (a thread costs more than a
  // whole input without them under the sanitizers).
  const bool threads = size > 0 && data[size - 1] % 32 == 0;
  UseThreads(threads);
  const int max_steps = threads ? 8 : 48;
  const long blocks = sbacc::AllocLiveBlocks();
  std::map<std::string, std::vector<uint8_t>> model;  // areas opened "w" at least once
  Handle h[kHandles];
  Reader in{data, data + size};
  static const char* const kNames[] = {"a", "b", "nosuch", "", "a "};
  static const char* const kModes[] = {"r", "w", "W", "rw", "", "r+"};
  std::vector<uint8_t> buf(kCapacity + 64);
  int steps = 0;

  while (in.more() && steps++ < max_steps) {
    const uint8_t op = in.u8();
    Handle& k = h[(op >> 4) % kHandles];
    switch (op % 8) {
      case 0: {  // open into slot k (closing what it held)
        if (k.fp != nullptr) Check(sbacc_close(k.fp) == 0);
        k = Handle{};
        const char* name = kNames[in.u8() % 5];
        const char* mode = kModes[in.u8() % 6];
        void* fp = nullptr;
        boolean_t clean = B_FALSE;
        const int rc = sbacc_open(name, mode, &fp, &clean);
        const bool known = strcmp(name, "a") == 0 || strcmp(name, "b") == 0;
        const bool good_mode = strcmp(mode, "r") == 0 || strcmp(mode, "w") == 0;
        if (!good_mode || !known) {
          Check(rc == SBACC_E_PARAM && fp == nullptr);
        } else if (mode[0] == 'r' && model.count(name) == 0) {
          Check(rc == SBACC_E_NOTINIT);  // never initialised: a read never creates anything
        } else {
          Check(rc == 0 && fp != nullptr);
          k.fp = fp;
          k.area = name;
          k.write = mode[0] == 'w';
          model[name];  // a write-mode open makes the area exist, empty
        }
        break;
      }
      case 1:
        if (k.fp != nullptr) Check(sbacc_close(k.fp) == 0);
        k = Handle{};
        break;
      case 2: {  // write
        const int n = in.Int(), off = in.Int();
        for (int i = 0; i < n && i < static_cast<int>(buf.size()); ++i) buf[static_cast<size_t>(i)] = in.u8();
        if (k.fp == nullptr || n > static_cast<int>(buf.size())) break;
        const int rc = sbacc_write(buf.data(), n, off, k.fp);
        std::vector<uint8_t>& m = model[k.area];
        if (n <= 0 || off < 0) {
          Check(rc == SBACC_E_PARAM);
        } else if (!k.write) {
          Check(rc == SBACC_E_NOTALLOWED);
        } else if (static_cast<int64_t>(off) + n > kCapacity) {
          Check(rc == SBACC_E_NOSPACE);
        } else {
          Check(rc == n);
          if (m.size() < static_cast<size_t>(off) + n) m.resize(static_cast<size_t>(off) + n, 0);
          memcpy(m.data() + off, buf.data(), static_cast<size_t>(n));
        }
        break;
      }
      case 3: {  // read and compare
        const int n = in.Int(), off = in.Int();
        if (k.fp == nullptr || n > static_cast<int>(buf.size())) break;
        const int rc = sbacc_read(buf.data(), n, off, k.fp);
        const std::vector<uint8_t>& m = model[k.area];
        if (n <= 0 || off < 0) {
          Check(rc == SBACC_E_PARAM);
        } else if (static_cast<size_t>(off) >= m.size()) {
          Check(rc == 0);
        } else {
          const int want = static_cast<int>(std::min<size_t>(static_cast<size_t>(n), m.size() - off));
          Check(rc == want && memcmp(buf.data(), m.data() + off, static_cast<size_t>(want)) == 0);
        }
        break;
      }
      case 4: {  // resize
        const int n = in.Int();
        if (k.fp == nullptr) break;
        const int rc = sbacc_write_size(n, k.fp);
        if (n < 0) {
          Check(rc == SBACC_E_PARAM);
        } else if (!k.write) {
          Check(rc == SBACC_E_NOTALLOWED);
        } else if (n > kCapacity) {
          Check(rc == SBACC_E_NOSPACE);
        } else {
          Check(rc == n);
          std::vector<uint8_t>& m = model[k.area];
          m.resize(static_cast<size_t>(n), 0);
        }
        break;
      }
      case 5:
        if (k.fp != nullptr) Check(sbacc_read_size(k.fp) == static_cast<int>(model[k.area].size()));
        break;
      case 6: {  // NULL arguments are refused before anything happens
        void* fp = nullptr;
        boolean_t clean;
        Check(sbacc_open(nullptr, "w", &fp, &clean) == SBACC_E_PARAM);
        Check(sbacc_open("a", "w", nullptr, &clean) == SBACC_E_PARAM);
        Check(sbacc_close(nullptr) == SBACC_E_PARAM);
        Check(sbacc_write(nullptr, 1, 0, k.fp) == SBACC_E_PARAM);
        Check(sbacc_read(buf.data(), 1, 0, nullptr) == SBACC_E_PARAM);
        Check(sbacc_read_size(nullptr) == SBACC_E_PARAM);
        break;
      }
      case 7:  // the start-up, rarely, with every handle closed
        if ((in.u8() & 0x7) != 0) break;
        for (Handle& x : h) {
          if (x.fp != nullptr) Check(sbacc_close(x.fp) == 0);
          x = Handle{};
        }
        Check(sbacc_nv_init(0) == 0);
        // Every area is initialised now; the open and close of the start-up
        // leave the data as it was.
        model["a"];
        model["b"];
        break;
    }
  }
  for (Handle& x : h) {
    if (x.fp != nullptr) Check(sbacc_close(x.fp) == 0);
  }
  ResetLibrary();
  Check(sbacc::AllocLiveBlocks() == blocks);
  return 0;
}
