// The sbacc command-line tool: shared pieces of its subcommands.
#ifndef SBACC_TOOL_H
#define SBACC_TOOL_H

#include <stdint.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "sbacc.h"
#include "sbacc_types.h"

namespace sbacc_tool {

// Exit statuses of every subcommand, in rising order of gravity: a command
// that finds several things exits with the gravest.
enum ExitStatus {
  kExitOk = 0,           // healthy: done, nothing wrong
  kExitIncomplete = 1,   // something was skipped or not compared
  kExitDegraded = 2,     // redundancy lost, the data still readable
  kExitUnavailable = 3,  // data unavailable or at risk (no usable copy, copies that differ)
  kExitError = 4,        // bad usage, or a library call failed
};
inline int Graver(int a, int b) { return a > b ? a : b; }
// "healthy", "incomplete", "degraded", "unavailable", "error"
const char* ExitName(int status);
// The exit status as every JSON document carries it: the number, its name and
// whether all is well.
template <class Json>
void PutStatus(Json& out, int status) {
  out["status"] = status;
  out["status_name"] = ExitName(status);
  out["ok"] = status == kExitOk;
}

// The version of every --json document's shape ("version" field).
constexpr int kJsonVersion = 2;

// This controller's number: `given` (an option, -1 when absent), else
// SBACC_CONTROLLER; a command that takes a lock needs one and gets a
// UsageError without it, the others get -1.
int ControllerNumber(int given, bool needed);

// Bad input: reported in one line with the subcommand's usage, exit 2,
// before anything has been written.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A library call failed: reported with the code's name and meaning, exit 2.
class LibError : public std::runtime_error {
 public:
  LibError(const std::string& what, int code);
  int code() const { return code_; }

 private:
  int code_;
};

// "SBACC_E_NOTINIT (-104): not initialised"
std::string CodeString(int code);

// ---- Area list ----------------------------------------------------------------

// The configured areas, read once per run through the library's own parser
// (so SBACC_FILELIST is honoured exactly as the library honours it).
const std::vector<SBACC_FILE_LIST_ENTRY>& Areas();
// Areas named on the command line (all when none), in list order; an unknown
// name is a UsageError.
std::vector<const SBACC_FILE_LIST_ENTRY*> SelectAreas(const std::vector<std::string>& names);
// One area by name, or a UsageError.
const SBACC_FILE_LIST_ENTRY& FindArea(const std::string& name);
int64_t Capacity(const SBACC_FILE_LIST_ENTRY& e);  // data bytes: areasize - 128, at least 0

// ---- Small helpers ------------------------------------------------------------

// Local "YYYY-MM-DD hh:mm:ss +hhmm"; "-" for 0.
std::string LocalTime(int64_t t);
// Whole file ("-" = standard input); a file that cannot be read is a UsageError.
std::vector<uint8_t> ReadInput(const std::string& path);
// Shell-quoted word for export lines.
std::string ShellQuote(const std::string& s);

// Progress on standard error, shown only when it is a terminal.
class Progress {
 public:
  Progress(std::string label, size_t total);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  void Step(const std::string& what);
  // Erases the progress line, before a report line goes out.
  void Clear();

 private:
  std::string label_;
  size_t total_;
  size_t done_ = 0;
  bool on_;
  bool shown_ = false;
};

// Runs fn, a start-up call, while a line on standard error shows, when that
// is a terminal, the elapsed time and the library's progress: areas done of
// all, and the area whose copies are being rebuilt.
int WithTicker(const std::string& label, const std::function<int()>& fn);

// ---- One area's copies, read straight from NV and the files -------------------

enum class CopyState { kHealthy, kFenced, kRepair, kMissing, kBlank, kBadHeader };
const char* StateName(CopyState s);

// A copy's data against its integrity record, as the library judges it.
// kUnknown: a write was in flight or the data could not be read.
enum class Integrity { kNotChecked, kNone, kVerified, kBad, kUnknown };
// "-", "no checksum", "verified", "bad", "unknown"
const char* IntegrityName(Integrity i);

struct CopyProbe {
  int index = 0;
  std::string path;
  bool opened = false;        // the file could be opened
  bool header_read = false;   // its 128 header bytes could be read
  std::string error;          // why not
  uint8_t raw[SBACC_HEADER_SIZE] = {};
  SBACC_HDD_HEADER hdr = {};
  bool header_valid = false;  // "SBFS", version 3
  CopyState state = CopyState::kMissing;
  Integrity integrity = Integrity::kNotChecked;  // set by AreaProbe::CheckIntegrity
  bool usable() const { return state == CopyState::kHealthy; }
};

// Owns an inspection descriptor (open mode 0) and the opened copies; changes
// nothing on the media itself.
class AreaProbe {
 public:
  // open_flags: O_RDONLY for looking, O_RDWR for a repair.
  AreaProbe(const SBACC_FILE_LIST_ENTRY& entry, int open_flags);
  ~AreaProbe();
  AreaProbe(const AreaProbe&) = delete;
  AreaProbe& operator=(const AreaProbe&) = delete;

  // (Re)reads the NV entry and every copy's header.
  void Refresh();
  // Checks every usable copy's data against its integrity record; leaves
  // them kNotChecked when SBACC_CHECKSUM=0 turns the records off.
  void CheckIntegrity();

  SBACC_FILE_DISCRIPTER* sfd() { return sfd_; }
  const SBACC_FILE_LIST_ENTRY& entry() const { return entry_; }
  int nv_rc = 0;               // 0, or the NV read's code
  bool nv_valid = false;
  SBACC_MEM_LIST_ENTRY nv = {};
  std::vector<CopyProbe> copies;
  int usable_count() const;

 private:
  void OpenCopies();
  SBACC_FILE_LIST_ENTRY entry_;
  int open_flags_;
  SBACC_FILE_DISCRIPTER* sfd_ = nullptr;
};

// The copy an open takes as latest among `candidates` (usable copies with a
// valid header, lowest first): the library's own rule, run on duplicates of
// the descriptors because it closes the copies it rejects; those go to
// *rejected (bit per copy) when asked for.
int LatestCopy(AreaProbe& p, const std::vector<int>& candidates, uint32_t* rejected);

// Header field names covering byte range [off, off+len) of a header, for
// reports of what differs.
std::vector<std::string> HeaderFieldsDiffering(const uint8_t* a, const uint8_t* b);

// ---- Other processes on the controller ---------------------------------------

struct FileUser {
  int pid = 0;
  std::string command;
  std::string path;
};
// The NV image, as the platform library is configured.
std::string NvImagePath();
// Every HDD file of the area list, and the NV image.
std::vector<std::string> ControllerFiles();
// Other processes that hold any of these files open (from /proc/*/fd).
std::vector<FileUser> OtherUsers(const std::vector<std::string>& paths);
// "pid 12 (sbacc), pid 40 (envd)"
std::string DescribeUsers(const std::vector<FileUser>& users);
// An area is being written when a usable copy's header says it is open and
// another process holds one of its files or the NV image; a header left open
// by a writer that is gone does not count.  The holders go to *users.
bool BeingWritten(const AreaProbe& p, std::vector<FileUser>* users);

// A missing or unusable NV image, named with the system's reason: an error
// (exit 2) for every subcommand alike.
void CheckNvImage(const char* command);

// ---- Subcommands ----------------------------------------------------------------

int CmdLs(bool check);
// Lines of the area list the library ignores, and areas whose NV record is
// not their list position because of them; empty when the list is clean.
std::vector<std::string> AreaListProblems();
// One line on standard error when the list has problems.
void WarnAreaList();
int CmdStatus(const std::vector<std::string>& areas, bool json, bool problems_only);
int CmdExamine(const std::string& image, const std::vector<int64_t>& offsets, bool json);
struct MonitorOptions {
  bool oneshot = false;
  int interval = 60;      // seconds between passes of the loop
  std::string hook;       // program run per event; empty: SBACC_MONITOR_HOOK
  std::string raise;      // log this one event and stop
  std::string message;    // its text
};
int CmdMonitor(const MonitorOptions& o);
int CmdMetrics(const std::string& textfile_dir);
struct VerifyOptions {
  std::vector<std::string> areas;
  bool repair = false;
  bool force = false;  // verify areas that are being written too
  bool json = false;
  int from = -1;       // with --repair: the copy taken as right
  int controller = -1;
};
int CmdVerify(const VerifyOptions& o);
int CmdCat(const std::string& area);
int CmdPut(const std::string& area, const std::string& file);
int CmdWrite(const std::string& area, int offset, const std::string& file);
int CmdTruncate(const std::string& area, int size);
int CmdHold(const std::string& area, const std::string& file);
// Start-up (sbacc_nv_init, or the restore alone), refused while another
// process holds a file of the controller open unless forced.  accept_loss
// (restore only): the one held area whose unreadable copies are written off.
int CmdStartup(bool nv_init, int controller, bool force, bool json, bool dry_run,
               const std::string& accept_loss = std::string());
int CmdRepairInit(int controller);
int CmdDump(const std::string& file);

struct SimOptions {
  std::string dir;
  int copies = 2;
  int areas = 0;
  int64_t size = 4096;
};
int CmdSimCreate(const SimOptions& o);
int CmdSimPull(const std::string& dir, int copy);
int CmdSimReplace(const std::string& dir, int copy);
int CmdSimReturn(const std::string& dir, int copy);

}  // namespace sbacc_tool

#endif  // SBACC_TOOL_H
