// sbacc sim: a simulated controller in a directory (HDD images, area list, NV
// image, trace directory), and pulling or replacing one of its disks.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "sbacc_tool_iface.h"
#include "sbacc_types.h"
#include "tool.h"

namespace fs = std::filesystem;

namespace sbacc_tool {

namespace {

// The areas the library itself knows by name come first.
int KnownAreas() {
  int n = 0;
  while (sbacc_known_area(n) != nullptr) ++n;
  return n;
}

// The stand-in NV memory's own default size, so the image reads the same with
// or without SANFWCTL_NV_SIZE in the environment.
constexpr int64_t kNvImageSize = 1 << 20;
constexpr size_t kMaxListLine = 1022;  // longer area list lines are skipped by the parser

struct SimConf {
  int copies = 0;
  int64_t image_size = 0;
};

std::string HddImage(const fs::path& dir, int copy) { return (dir / ("hdd" + std::to_string(copy) + ".img")).string(); }
std::string PulledImage(const fs::path& dir, int copy) {
  return (dir / ("pulled-" + std::to_string(copy) + ".img")).string();
}

void MakeZeroFile(const std::string& path, int64_t size) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) throw UsageError("cannot create '" + path + "': " + strerror(errno));
  // Truncating to 0 first makes every byte read back as zero, even where an
  // old file stood.
  int rc = ::ftruncate(fd, static_cast<off_t>(size));
  int err = errno;
  ::close(fd);
  if (rc != 0) throw UsageError("cannot size '" + path + "': " + strerror(err));
}

void WriteText(const fs::path& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  if (!out.flush()) throw UsageError("cannot write '" + path.string() + "'");
}

SimConf ReadConf(const fs::path& dir) {
  std::ifstream in(dir / "sim.conf");
  if (!in) {
    throw UsageError("'" + dir.string() + "' is not a simulated controller (no sim.conf; see 'sbacc sim create')");
  }
  SimConf c;
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("copies=", 0) == 0) c.copies = std::atoi(line.c_str() + 7);
    if (line.rfind("image_size=", 0) == 0) c.image_size = std::atoll(line.c_str() + 11);
  }
  if (c.copies < 1 || c.copies > SBACC_HDD_MAX || c.image_size <= 0) {
    throw UsageError("'" + (dir / "sim.conf").string() + "' is damaged");
  }
  return c;
}

void CheckCopy(const SimConf& c, int copy) {
  if (copy < 0 || copy >= c.copies) {
    throw UsageError("no copy " + std::to_string(copy) + ": the controller has copies 0 to " +
                     std::to_string(c.copies - 1));
  }
}

fs::path Absolute(const std::string& dir) {
  std::error_code ec;
  fs::path p = fs::absolute(dir, ec);
  if (ec) throw UsageError("bad directory '" + dir + "': " + ec.message());
  return p.lexically_normal();
}

}  // namespace

int CmdSimCreate(const SimOptions& o) {
  const fs::path dir = Absolute(o.dir);
  if (fs::exists(dir / "filelist.ini")) {
    throw UsageError("'" + dir.string() + "' already holds a simulated controller");
  }
  const int known = KnownAreas();
  const int total_areas = known + o.areas;
  const int64_t image_size = static_cast<int64_t>(total_areas) * o.size;

  // The area list: one line per area, laid out one after another in every
  // image, each using every disk.  Checked whole before anything is created.
  std::ostringstream list;
  list << "# area name, address (hex), size including the 128-byte header, HDD image paths\n";
  for (int i = 0; i < total_areas; ++i) {
    std::string name;
    if (i < known) {
      name = sbacc_known_area(i);
    } else {
      char buf[32];
      snprintf(buf, sizeof buf, "area%02d", i - known);
      name = buf;
    }
    char addr[32];
    snprintf(addr, sizeof addr, "%llx", static_cast<unsigned long long>(i * o.size));
    std::string line = name + "," + addr + "," + std::to_string(o.size);
    for (int j = 0; j < o.copies; ++j) {
      const std::string path = HddImage(dir, j);
      if (path.size() >= SBACC_HDDNAME_LEN) {
        throw UsageError("'" + dir.string() + "' is too long: an HDD path may have at most " +
                         std::to_string(SBACC_HDDNAME_LEN - 1) + " characters");
      }
      line += "," + path;
    }
    if (line.size() > kMaxListLine) {
      throw UsageError("'" + dir.string() + "' is too long for " + std::to_string(o.copies) +
                       " paths on one area list line");
    }
    list << line << "\n";
  }

  std::error_code ec;
  fs::create_directories(dir / "log", ec);
  if (ec) throw UsageError("cannot create '" + (dir / "log").string() + "': " + ec.message());
  for (int j = 0; j < o.copies; ++j) MakeZeroFile(HddImage(dir, j), image_size);
  MakeZeroFile((dir / "nv.img").string(), kNvImageSize);
  WriteText(dir / "sim.conf", "# simulated controller made by 'sbacc sim create'\ncopies=" + std::to_string(o.copies) +
                                  "\nimage_size=" + std::to_string(image_size) + "\n");

  std::string exports;
  exports += "export SBACC_FILELIST=" + ShellQuote((dir / "filelist.ini").string()) + "\n";
  exports += "export SANFWCTL_NV_IMAGE=" + ShellQuote((dir / "nv.img").string()) + "\n";
  exports += "export MC_TRACE_FILE=" + ShellQuote((dir / "log" / "sbacc.log").string()) + "\n";
  exports += "export MC_TRACE_DIR=" + ShellQuote((dir / "log").string()) + "\n";
  exports += "export SBACC_CONTROLLER=0\n";
  WriteText(dir / "env.sh", exports);
  WriteText(dir / "filelist.ini", list.str());  // last: its presence marks a finished controller

  // Standard output can be eval'ed as it stands; the help is in comments.
  printf("%s", exports.c_str());
  printf("# Simulated controller in %s: %d disk%s (hdd0.img ...) of %lld bytes, %d areas of %lld bytes.\n",
         dir.c_str(), o.copies, o.copies == 1 ? "" : "s", static_cast<long long>(image_size), total_areas,
         static_cast<long long>(o.size));
  printf("# Use it from a shell:  . %s   (or eval this output)\n", ShellQuote((dir / "env.sh").string()).c_str());
  printf("# then start it up with:  sbacc init\n");
  return kExitOk;
}

// A pulled disk fails every access: the image moves aside and a dangling
// symbolic link takes its name, so every open (read-only or not, the library
// never creates files) fails with ENOENT.
int CmdSimPull(const std::string& d, int copy) {
  const fs::path dir = Absolute(d);
  const SimConf c = ReadConf(dir);
  CheckCopy(c, copy);
  const std::string image = HddImage(dir, copy);
  struct stat st;
  if (lstat(image.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
    throw UsageError("copy " + std::to_string(copy) + " is already pulled");
  }
  const std::string aside = PulledImage(dir, copy);
  if (lstat(aside.c_str(), &st) == 0) {  // never over the image an earlier pull kept
    throw UsageError("the image an earlier pull of copy " + std::to_string(copy) + " kept is still there: " + aside);
  }
  if (rename(image.c_str(), aside.c_str()) != 0) {
    throw UsageError("cannot move '" + image + "' aside: " + strerror(errno));
  }
  const std::string target = ".copy-" + std::to_string(copy) + "-pulled";
  if (symlink(target.c_str(), image.c_str()) != 0) {
    int err = errno;
    rename(aside.c_str(), image.c_str());
    throw UsageError("cannot pull copy " + std::to_string(copy) + ": " + strerror(err));
  }
  printf("copy %d pulled: %s now fails every access (the old image is kept as %s)\n", copy, image.c_str(),
         aside.c_str());
  printf("The library fences it off in each area at that area's next write; 'sbacc status' shows it.\n");
  return kExitOk;
}

int CmdSimReplace(const std::string& d, int copy) {
  const fs::path dir = Absolute(d);
  const SimConf c = ReadConf(dir);
  CheckCopy(c, copy);
  const std::string image = HddImage(dir, copy);
  struct stat st;
  if (lstat(image.c_str(), &st) == 0) {
    // A pulled disk (link) or a present one (hot swap) gives way alike.
    std::error_code ec;
    fs::remove(image, ec);
    if (ec) throw UsageError("cannot remove '" + image + "': " + ec.message());
  }
  MakeZeroFile(image, c.image_size);
  // The image a pull kept stays, as the pull promised: the old disk may hold
  // the only copy of an area.
  printf("copy %d replaced by a new, empty disk: %s (%lld bytes of zeros)\n", copy, image.c_str(),
         static_cast<long long>(c.image_size));
  printf("The next start-up ('sbacc init' or 'sbacc restore') rebuilds it from the other copies.\n");
  return kExitOk;
}

// The pulled disk comes back as it left: its kept image takes its name again.
int CmdSimReturn(const std::string& d, int copy) {
  const fs::path dir = Absolute(d);
  const SimConf c = ReadConf(dir);
  CheckCopy(c, copy);
  const std::string image = HddImage(dir, copy), aside = PulledImage(dir, copy);
  struct stat st;
  if (lstat(image.c_str(), &st) != 0 || !S_ISLNK(st.st_mode) || lstat(aside.c_str(), &st) != 0) {
    throw UsageError("copy " + std::to_string(copy) + " is not pulled (no kept image " + aside + ")");
  }
  if (unlink(image.c_str()) != 0 || rename(aside.c_str(), image.c_str()) != 0) {
    throw UsageError("cannot put copy " + std::to_string(copy) + " back: " + strerror(errno));
  }
  printf("copy %d back in place: %s (the image kept when it was pulled)\n", copy, image.c_str());
  printf("The next start-up ('sbacc init' or 'sbacc restore') takes it into account.\n");
  return kExitOk;
}

}  // namespace sbacc_tool
