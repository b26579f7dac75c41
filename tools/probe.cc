// Reading one area's NV entry and the headers of its copies without the open
// protocol: nothing is fenced, stamped or initialised by looking.
#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include "sbacc_env.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"
#include "tool.h"

namespace sbacc_tool {

const char* StateName(CopyState s) {
  switch (s) {
    case CopyState::kHealthy: return "healthy";
    case CopyState::kFenced: return "fenced off";
    case CopyState::kRepair: return "under repair";
    case CopyState::kMissing: return "missing";
  }
  return "?";
}

AreaProbe::AreaProbe(const SBACC_FILE_LIST_ENTRY& entry, int open_flags)
    : entry_(entry), open_flags_(open_flags) {
  int rc = sbacc_ma_alloc_sfd(entry.filename, SBACC_OPENMODE_INSPECT, &sfd_);
  if (rc != 0 || sfd_ == nullptr) throw LibError(std::string(entry.filename) + ": descriptor", rc);
  Refresh();
}

AreaProbe::~AreaProbe() {
  for (int j = 0; j < SBACC_HDD_MAX; ++j) {
    if (sfd_->fd[j] >= 0) sbacc::CurrentEnv()->Close(sfd_->fd[j]);
    sfd_->fd[j] = -1;
  }
  sbacc_ma_free_sfd(sfd_);
}

int AreaProbe::usable_count() const {
  int n = 0;
  for (const CopyProbe& c : copies) n += c.usable();
  return n;
}

void AreaProbe::OpenCopies() {
  const int n = sfd_->sfe.hddcount < SBACC_HDD_MAX ? sfd_->sfe.hddcount : SBACC_HDD_MAX;
  copies.assign(static_cast<size_t>(n > 0 ? n : 0), CopyProbe{});
  for (int j = 0; j < n; ++j) {
    CopyProbe& c = copies[static_cast<size_t>(j)];
    c.index = j;
    c.path = sfd_->sfe.hddname[j];
    if (sfd_->fd[j] < 0) sfd_->fd[j] = sbacc::CurrentEnv()->Open(c.path.c_str(), open_flags_);
    if (sfd_->fd[j] < 0) {
      c.error = std::string("open: ") + strerror(errno);
      sfd_->fd[j] = -1;
    } else {
      c.opened = true;
    }
  }
}

void AreaProbe::Refresh() {
  // The lookup's index places the NV record, exactly as for the library.
  uint8_t raw[SBACC_NV_ENTRY_SIZE] = {};
  nv_rc = sbacc_l_memget(sfd_, 0, raw, SBACC_NV_ENTRY_SIZE);
  sbacc_l_decode_entry(raw, &nv);
  nv_valid = (nv_rc == 0) && sbacc_l_entry_valid(&nv);

  OpenCopies();
  for (CopyProbe& c : copies) {
    const int j = c.index;
    c.header_read = false;
    c.header_valid = false;
    if (c.opened) {
      int rc = sbacc_l_hddget(sfd_, j, 0, c.raw, SBACC_HEADER_SIZE);
      if (rc == 0) {
        c.header_read = true;
        sbacc_l_decode_header(c.raw, &c.hdr);
        c.header_valid = sbacc_l_header_valid(&c.hdr);
      } else {
        c.error = "header: " + CodeString(rc);
      }
    }
    // The NV masks say what the library will do with the copy; only an
    // initialised entry says anything.
    const unsigned bit = 1u << j;
    if (nv_valid && (nv.hddrepair & bit) != 0) {
      c.state = CopyState::kRepair;
    } else if (nv_valid && (nv.hddblockade & bit) != 0) {
      c.state = CopyState::kFenced;
    } else if (!c.header_read) {
      c.state = CopyState::kMissing;
    } else {
      c.state = CopyState::kHealthy;
    }
  }
}

namespace {

struct Field {
  int off;
  int len;
  const char* name;
};

constexpr Field kHeaderFields[] = {
    {kHdrMagic, 4, "magic"},           {kHdrVersion, 4, "version"},
    {kHdrFilename, 32, "filename"},    {kHdrAreasize, 4, "areasize"},
    {kHdrFilesize, 4, "filesize"},     {kHdrHddblockade, 4, "hddblockade"},
    {kHdrRfu1, 7, "rfu1"},             {kHdrOpenflag, 1, "openflag"},
    {kHdrOpencnt, 4, "opencnt"},       {kHdrOpentime, 8, "opentime"},
    {kHdrClosetime, 8, "closetime"},   {kHdrWriteflag, 1, "writeflag"},
    {kHdrRfu4, 3, "rfu4"},             {kHdrWriteOffset, 4, "write_offset"},
    {kHdrWriteSize, 4, "write_size"},  {kHdrRfu5, 36, "rfu5"},
};

}  // namespace

std::vector<std::string> HeaderFieldsDiffering(const uint8_t* a, const uint8_t* b) {
  std::vector<std::string> out;
  for (const Field& f : kHeaderFields) {
    if (memcmp(a + f.off, b + f.off, static_cast<size_t>(f.len)) != 0) out.push_back(f.name);
  }
  return out;
}

}  // namespace sbacc_tool
