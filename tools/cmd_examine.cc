// sbacc examine: the area headers on one HDD image, read with the library's
// own header decoder, for a disk taken out of a controller (no area list, no
// NV).
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "sbacc_l.h"
#include "tool.h"

namespace sbacc_tool {

namespace {

struct Found {
  int64_t offset;
  SBACC_HDD_HEADER hdr;
  bool valid;
};

// Headers wherever the magic stands, read in chunks that overlap by a
// header's length so none is cut in two.
std::vector<int64_t> FindMagic(int fd) {
  constexpr size_t kChunk = 1 << 20;
  std::vector<uint8_t> buf(kChunk + SBACC_HEADER_SIZE);
  std::vector<int64_t> out;
  int64_t base = 0;
  size_t kept = 0;
  for (;;) {
    const ssize_t n = pread(fd, buf.data() + kept, kChunk, base + static_cast<int64_t>(kept));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw std::runtime_error(std::string("read: ") + strerror(errno));
    const size_t have = kept + static_cast<size_t>(n);
    for (size_t i = 0; i + 4 <= have; ++i) {
      if (memcmp(buf.data() + i, SBACC_HDD_MAGIC, 4) == 0) {
        const int64_t at = base + static_cast<int64_t>(i);
        if (out.empty() || out.back() != at) out.push_back(at);
      }
    }
    if (n == 0) break;
    kept = std::min<size_t>(have, 3);  // a magic cut at the chunk's end
    memmove(buf.data(), buf.data() + have - kept, kept);
    base += static_cast<int64_t>(have - kept);
  }
  return out;
}

std::string Name(const SBACC_HDD_HEADER& h) {
  return std::string(h.filename, strnlen(h.filename, sizeof h.filename));
}

}  // namespace

int CmdExamine(const std::string& image, const std::vector<int64_t>& offsets, bool json) {
  const int fd = open(image.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw UsageError("cannot open '" + image + "': " + strerror(errno));
  std::vector<Found> found;
  int status = kExitOk;
  try {
    for (int64_t off : offsets.empty() ? FindMagic(fd) : offsets) {
      uint8_t raw[SBACC_HEADER_SIZE];
      if (off < 0 || pread(fd, raw, sizeof raw, off) != static_cast<ssize_t>(sizeof raw)) {
        fprintf(stderr, "sbacc: examine: no whole header at offset %lld of %s\n", static_cast<long long>(off),
                image.c_str());
        status = kExitIncomplete;
        continue;
      }
      Found f{off, {}, false};
      sbacc_l_decode_header(raw, &f.hdr);
      f.valid = sbacc_l_header_valid(&f.hdr);
      // Found by magic but not a header the library accepts: data that holds the word.
      if (!offsets.empty() || f.valid) found.push_back(f);
      if (!f.valid && !offsets.empty()) status = Graver(status, kExitUnavailable);
    }
  } catch (...) {
    close(fd);
    throw;
  }
  close(fd);
  nlohmann::json out = {{"version", kJsonVersion}, {"image", image}, {"headers", nlohmann::json::array()}};
  for (const Found& f : found) {
    const SBACC_HDD_HEADER& h = f.hdr;
    out["headers"].push_back({{"offset", f.offset}, {"valid", f.valid}, {"name", Name(h)}, {"areasize", h.areasize},
                              {"filesize", h.filesize}, {"hddblockade", h.hddblockade}, {"openflag", h.openflag},
                              {"opencnt", h.opencnt}, {"opentime", h.opentime}, {"closetime", h.closetime},
                              {"write", {{"flag", h.writeflag}, {"offset", h.write_offset}, {"size", h.write_size}}}});
    if (json) continue;
    printf("0x%08llx  %-31s %s  size %d of %d  blockade 0x%x  open %s  cnt %d  closed %s%s\n",
           static_cast<unsigned long long>(f.offset), Name(h).c_str(), f.valid ? "ok " : "bad", h.filesize,
           h.areasize, h.hddblockade, h.openflag != 0 ? "yes" : "no", h.opencnt, LocalTime(h.closetime).c_str(),
           h.writeflag != 0 ? "  write pending" : "");
  }
  PutStatus(out, status);
  if (json) {
    printf("%s\n", out.dump(2).c_str());
  } else {
    printf("examine: %zu header%s in %s\n", found.size(), found.size() == 1 ? "" : "s", image.c_str());
  }
  return status;
}

}  // namespace sbacc_tool
