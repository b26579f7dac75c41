// Shared helpers of the tool: error reporting, the area list, times, input
// files, progress on a terminal.
#include <errno.h>
#include <stdlib.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <bit>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

#include "sbacc_core.h"
#include "sbacc_l.h"
#include "sbacc_tool_iface.h"
#include "tool.h"

namespace sbacc_tool {

LibError::LibError(const std::string& what, int code)
    : std::runtime_error(what + ": " + CodeString(code)), code_(code) {}

const char* ExitName(int status) {
  switch (status) {
    case kExitOk: return "healthy";
    case kExitIncomplete: return "incomplete";
    case kExitDegraded: return "degraded";
    case kExitUnavailable: return "unavailable";
    default: return "error";
  }
}

int ControllerNumber(int given, bool needed) {
  if (given >= 0) return given;
  const char* env = getenv("SBACC_CONTROLLER");
  if (env != nullptr && *env != '\0') {
    char* end = nullptr;
    const long v = strtol(env, &end, 10);
    if (*end != '\0' || v < 0 || v > 3) {
      throw UsageError(std::string("SBACC_CONTROLLER='") + env + "' is not a controller number (0-3)");
    }
    return static_cast<int>(v);
  }
  // A wrong guess takes another controller's byte of the repair lock.
  if (needed) throw UsageError("which controller is this? give --controller or set SBACC_CONTROLLER (0-3)");
  return -1;
}

std::string CodeString(int code) {
  return std::string(sbacc_code_name(code)) + " (" + std::to_string(code) + "): " +
         sbacc_code_text(code);
}

// ---- Area list ------------------------------------------------------------------

const std::vector<SBACC_FILE_LIST_ENTRY>& Areas() {
  static std::vector<SBACC_FILE_LIST_ENTRY> areas;
  static bool loaded = false;
  if (!loaded) {
    // The library keeps the list it loads for the life of the process, and
    // its own walks (dump, start-up) then use the same one.
    if (p_sbacc_file_list == nullptr) {
      int rc = sbacc_l_get_filelist(&p_sbacc_file_list);
      if (rc != 0) {
        throw LibError(std::string("cannot load the area list ") + sbacc_l_filelist_path() +
                           " (set SBACC_FILELIST, or see 'sbacc sim create --help')",
                       rc);
      }
    }
    areas.assign(p_sbacc_file_list->file, p_sbacc_file_list->file + p_sbacc_file_list->filenum);
    loaded = true;
  }
  return areas;
}

const SBACC_FILE_LIST_ENTRY& FindArea(const std::string& name) {
  for (const SBACC_FILE_LIST_ENTRY& e : Areas()) {
    if (name == e.filename) return e;
  }
  throw UsageError("unknown area '" + name + "' (see 'sbacc ls')");
}

std::vector<const SBACC_FILE_LIST_ENTRY*> SelectAreas(const std::vector<std::string>& names) {
  std::vector<const SBACC_FILE_LIST_ENTRY*> out;
  if (names.empty()) {
    for (const SBACC_FILE_LIST_ENTRY& e : Areas()) out.push_back(&e);
    return out;
  }
  for (const std::string& n : names) FindArea(n);  // all checked before any is shown
  for (const SBACC_FILE_LIST_ENTRY& e : Areas()) {
    for (const std::string& n : names) {
      if (n == e.filename) {
        out.push_back(&e);
        break;
      }
    }
  }
  return out;
}

int64_t Capacity(const SBACC_FILE_LIST_ENTRY& e) {
  return e.areasize > SBACC_HEADER_SIZE ? static_cast<int64_t>(e.areasize - SBACC_HEADER_SIZE) : 0;
}

// ---- Small helpers -------------------------------------------------------------

std::string LocalTime(int64_t t) {
  if (t == 0) return "-";
  time_t tt = static_cast<time_t>(t);
  struct tm tmv;
  char buf[48];
  if (localtime_r(&tt, &tmv) == nullptr || strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S %z", &tmv) == 0) {
    return std::to_string(t);
  }
  return buf;
}

std::vector<uint8_t> ReadInput(const std::string& path) {
  const bool use_stdin = path.empty() || path == "-";
  int fd = use_stdin ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw UsageError("cannot read '" + path + "': " + strerror(errno));
  std::vector<uint8_t> data;
  uint8_t chunk[65536];
  for (;;) {
    ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      int e = errno;
      if (!use_stdin) ::close(fd);
      throw UsageError("cannot read '" + (use_stdin ? std::string("standard input") : path) +
                       "': " + strerror(e));
    }
    if (n == 0) break;
    data.insert(data.end(), chunk, chunk + n);
  }
  if (!use_stdin) ::close(fd);
  return data;
}

std::string ShellQuote(const std::string& s) {
  std::string out = "'";
  for (char c : s) {
    if (c == '\'') {
      out += "'\\''";
    } else {
      out += c;
    }
  }
  return out + "'";
}

// ---- Progress ---------------------------------------------------------------------

Progress::Progress(std::string label, size_t total)
    : label_(std::move(label)), total_(total), on_(isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() { Clear(); }

void Progress::Clear() {
  if (!shown_) return;
  fputs("\r\033[K", stderr);
  fflush(stderr);
  shown_ = false;
}

void Progress::Step(const std::string& what) {
  ++done_;
  if (!on_) return;
  fprintf(stderr, "\r%s %zu/%zu %s\033[K", label_.c_str(), done_, total_, what.c_str());
  fflush(stderr);
  shown_ = true;
}

namespace {

// What the library last told of the start-up, for the ticker line.
struct StartupProgress {
  std::mutex mu;
  std::condition_variable cv;
  bool over = false;
  int done = 0, total = 0;
  std::vector<std::pair<std::string, uint32_t>> rebuilding;  // areas and copies, the latest last
};

// Called by the library, maybe on its worker threads: it only notes and wakes
// the ticker, which does the printing.
void OnProgress(void* arg, int done, int total, const char* area, uint32_t copies) {
  auto* p = static_cast<StartupProgress*>(arg);
  {
    std::lock_guard<std::mutex> lock(p->mu);
    p->done = done;
    p->total = total;
    if (copies != 0) {
      p->rebuilding.emplace_back(area, copies);
    } else if (area != nullptr) {
      std::erase_if(p->rebuilding, [&](const auto& r) { return r.first == area; });
    }
  }
  p->cv.notify_one();
}

// ", 3 of 8 areas, rebuilding copies 1, 2 of NAME"; empty before the first report.
std::string ProgressText(const StartupProgress& p) {
  if (p.total == 0) return "";
  std::string out = ", " + std::to_string(p.done) + " of " + std::to_string(p.total) + " areas";
  if (p.rebuilding.empty()) return out;
  const auto& [area, copies] = p.rebuilding.back();
  std::string list;
  for (int j = 0; j < 32; ++j) {
    if ((copies >> j) & 1u) list += (list.empty() ? "" : ", ") + std::to_string(j);
  }
  return out + ", rebuilding " + (std::has_single_bit(copies) ? "copy " : "copies ") + list + " of " + area;
}

}  // namespace

int WithTicker(const std::string& label, const std::function<int()>& fn) {
  if (isatty(STDERR_FILENO) != 1) return fn();
  StartupProgress p;
  const auto start = std::chrono::steady_clock::now();
  std::thread ticker([&] {
    std::unique_lock<std::mutex> lock(p.mu);
    // Redrawn on every report and every 250 ms, so the time moves on too.
    for (;;) {
      p.cv.wait_for(lock, std::chrono::milliseconds(250));
      if (p.over) break;
      const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      fprintf(stderr, "\r%s ... %.1f s%s\033[K", label.c_str(), secs, ProgressText(p).c_str());
      fflush(stderr);
    }
  });
  sbacc_set_progress_hook(OnProgress, &p);
  const int rc = fn();
  sbacc_set_progress_hook(nullptr, nullptr);
  {
    std::lock_guard<std::mutex> lock(p.mu);
    p.over = true;
  }
  p.cv.notify_one();
  ticker.join();
  fputs("\r\033[K", stderr);
  fflush(stderr);
  return rc;
}

void CheckNvImage(const char* command) {
  // The stand-in creates a missing image on first use: a look must not.
  const std::string path = NvImagePath();
  int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    const int err = errno;
    throw std::runtime_error(std::string("cannot use the NV memory image ") + path + ": " + strerror(err) +
                             " (set SANFWCTL_NV_IMAGE; 'sbacc " + command + "' needs an existing image)");
  }
  ::close(fd);
}

}  // namespace sbacc_tool
