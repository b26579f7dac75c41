// Reading one area's NV entry and the headers of its copies without the open
// protocol: nothing is fenced, stamped or initialised by looking.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <utility>

#include "sanfwctl.h"
#include "sbacc_env.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"
#include "sbacc_tool_iface.h"
#include "tool.h"

namespace sbacc_tool {

const char* StateName(CopyState s) {
  switch (s) {
    case CopyState::kHealthy: return "healthy";
    case CopyState::kFenced: return "fenced off";
    case CopyState::kRepair: return "under repair";
    case CopyState::kMissing: return "missing";
    case CopyState::kBlank: return "blank";
    case CopyState::kBadHeader: return "bad header";
  }
  return "?";
}

const char* IntegrityName(Integrity i) {
  switch (i) {
    case Integrity::kNotChecked: return "-";
    case Integrity::kNone: return "no checksum";
    case Integrity::kVerified: return "verified";
    case Integrity::kBad: return "bad";
    case Integrity::kUnknown: return "unknown";
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
    if (sfd_->fd[j] < 0) sfd_->fd[j] = sbacc::CurrentEnv()->OpenRetry(c.path.c_str(), open_flags_);
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
    } else if (!c.header_valid) {
      // All zeros: never initialised, as a new disk comes; anything else is damage.
      const bool blank = std::all_of(c.raw, c.raw + SBACC_HEADER_SIZE, [](uint8_t b) { return b == 0; });
      c.state = blank ? CopyState::kBlank : CopyState::kBadHeader;
    } else {
      c.state = CopyState::kHealthy;
    }
  }
}

void AreaProbe::CheckIntegrity() {
  if (!sbacc_ma_checksums(sfd_)) return;
  for (CopyProbe& c : copies) {
    if (!c.usable()) continue;
    SBACC_HDD_HEADER now;
    switch (sbacc_ma_check_copy(sfd_, c.index, &now)) {
      case SBACC_VERIFY_NONE: c.integrity = Integrity::kNone; break;
      case SBACC_VERIFY_OK: c.integrity = Integrity::kVerified; break;
      case SBACC_VERIFY_BAD: c.integrity = Integrity::kBad; break;
      default: c.integrity = Integrity::kUnknown; break;
    }
  }
}

int LatestCopy(AreaProbe& p, const std::vector<int>& candidates, uint32_t* rejected) {
  SBACC_HDD_HEADER headers[SBACC_HDD_MAX] = {};
  uint32_t read = 0;
  for (int j : candidates) {
    headers[j] = p.copies[static_cast<size_t>(j)].hdr;
    read |= 1u << j;
  }
  SBACC_COPY_VERDICT v;
  // Only the reference of a comparison: nothing is written from it, so no
  // evidence beyond the headers is needed.
  sbacc_ma_classify(headers, SBACC_HDD_MAX, read, nullptr, SBACC_CLASSIFY_SILENT, "", &v);
  if (rejected != nullptr) *rejected = v.stale & read;
  return v.src >= 0 ? v.src : candidates.front();
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
    {kHdrWriteSize, 4, "write_size"},  {kHdrRfu5, 36, "integrity"},
};

}  // namespace

std::vector<std::string> HeaderFieldsDiffering(const uint8_t* a, const uint8_t* b) {
  std::vector<std::string> out;
  for (const Field& f : kHeaderFields) {
    if (memcmp(a + f.off, b + f.off, static_cast<size_t>(f.len)) != 0) out.push_back(f.name);
  }
  return out;
}

// ---- Other processes on the controller ------------------------------------------

std::string NvImagePath() { return sanfwctl_nv_image(); }

std::vector<std::string> ControllerFiles() {
  std::set<std::string> paths;
  for (const SBACC_FILE_LIST_ENTRY& e : Areas()) {
    for (int j = 0; j < e.hddcount && j < SBACC_HDD_MAX; ++j) {
      if (e.hddname[j][0] != '\0') paths.insert(e.hddname[j]);
    }
  }
  paths.insert(NvImagePath());
  return {paths.begin(), paths.end()};
}

// Files are matched by device and inode, so another name for the same file
// (a relative path, a link) is still caught.  Processes of other users whose
// descriptors cannot be read are not seen; the tool runs as the controller's
// own user, like the writers it guards against.
std::vector<FileUser> OtherUsers(const std::vector<std::string>& paths) {
  std::set<std::pair<dev_t, ino_t>> wanted;
  std::vector<std::pair<std::pair<dev_t, ino_t>, std::string>> names;
  for (const std::string& p : paths) {
    struct stat st;
    if (stat(p.c_str(), &st) == 0) {
      wanted.insert({st.st_dev, st.st_ino});
      names.push_back({{st.st_dev, st.st_ino}, p});
    }
  }
  std::vector<FileUser> out;
  DIR* proc = opendir("/proc");
  if (proc == nullptr || wanted.empty()) {
    if (proc != nullptr) closedir(proc);
    return out;
  }
  const pid_t self = getpid();
  while (struct dirent* d = readdir(proc)) {
    char* end = nullptr;
    const long pid = strtol(d->d_name, &end, 10);
    if (end == d->d_name || *end != '\0' || pid == self) continue;
    const std::string fd_dir = std::string("/proc/") + d->d_name + "/fd";
    DIR* fds = opendir(fd_dir.c_str());
    if (fds == nullptr) continue;
    std::set<std::string> seen;
    while (struct dirent* f = readdir(fds)) {
      if (f->d_name[0] == '.') continue;
      struct stat st;
      if (stat((fd_dir + "/" + f->d_name).c_str(), &st) != 0) continue;
      for (const auto& [key, name] : names) {
        if (key.first == st.st_dev && key.second == st.st_ino && seen.insert(name).second) {
          std::string comm;
          std::getline(std::ifstream(std::string("/proc/") + d->d_name + "/comm"), comm);
          out.push_back({static_cast<int>(pid), comm, name});
        }
      }
    }
    closedir(fds);
  }
  closedir(proc);
  return out;
}

std::string DescribeUsers(const std::vector<FileUser>& users) {
  std::string out;
  std::set<int> pids;
  for (const FileUser& u : users) {
    if (!pids.insert(u.pid).second) continue;
    if (pids.size() > 3) {
      out += ", ...";
      break;
    }
    out += (out.empty() ? "" : ", ") + std::string("pid ") + std::to_string(u.pid) + " (" + u.command + ")";
  }
  return out;
}

bool BeingWritten(const AreaProbe& p, std::vector<FileUser>* users) {
  bool open = false;
  std::vector<std::string> paths;
  for (const CopyProbe& c : p.copies) {
    open = open || (c.usable() && c.hdr.openflag != 0);
    paths.push_back(c.path);
  }
  if (!open) return false;
  paths.push_back(NvImagePath());
  std::vector<FileUser> u = OtherUsers(paths);
  if (users != nullptr) *users = u;
  return !u.empty();
}

}  // namespace sbacc_tool
