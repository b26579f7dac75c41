// sbacc: look at and drive the mirrored data areas of a controller.
//
// Exit status, the same for every command (tool.h, sbacc(1)): 0 healthy,
// 1 incomplete, 2 degraded, 3 data unavailable or at risk, 4 bad usage or a
// library error.  Library codes are shown with their name and
// meaning.  The library's environment (SBACC_FILELIST, SANFWCTL_NV_IMAGE,
// MC_TRACE_FILE, MC_TRACE_DIR, the retry tunables) applies unchanged.
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <CLI/CLI.hpp>

#include <nlohmann/json.hpp>

#include "doc.h"
#include "tool.h"

namespace {

using namespace sbacc_tool;

// The innermost subcommand that the parser got to, and how deep it is.
CLI::App* Innermost(CLI::App* app, int* depth = nullptr) {
  int d = 0;
  for (;;) {
    auto subs = app->get_subcommands();
    if (subs.empty()) break;
    app = subs.front();
    ++d;
  }
  if (depth != nullptr) *depth = d;
  return app;
}

// Byte counts and offsets: whole decimal numbers that fit an int, with a
// message that names what is wrong with the text.
const CLI::Validator kByteCount(
    [](std::string& text) -> std::string {
      errno = 0;
      char* end = nullptr;
      const long long v = strtoll(text.c_str(), &end, 10);
      if (text.empty() || end == nullptr || *end != '\0') return "'" + text + "' is not a number";
      if (v < 0) return "'" + text + "' is negative";
      if (errno == ERANGE || v > INT_MAX) return "'" + text + "' is too large (at most " + std::to_string(INT_MAX) + ")";
      return std::string();
    },
    "BYTES");

std::string CommandName(CLI::App* app) {
  std::string name;
  for (CLI::App* a = app; a != nullptr; a = a->get_parent()) name = a->get_name() + (name.empty() ? "" : " ") + name;
  return name;
}

int Fail(CLI::App* app, const std::string& message, bool usage) {
  // One line with the reason, and where the usage is: a page of help on
  // every typo buries the reason.
  fprintf(stderr, "%s: %s\n", CommandName(app).c_str(), message.c_str());
  if (usage) fprintf(stderr, "Try '%s --help' for more information.\n", CommandName(app).c_str());
  return kExitError;
}

// Everything the command line sets, and the commands it can name.
struct Cli {
  CLI::App app{"Look at and drive the mirrored data areas of a controller.", "sbacc"};
  std::vector<std::string> areas;
  std::string area, file;
  bool json = false, check = false, problems = false, force = false, dry_run = false;
  int offset = 0, size = 0, controller = -1, copy = 0;
  std::vector<int64_t> offsets;
  SimOptions sim;
  VerifyOptions verify;
  MonitorOptions monitor;
  std::string textfile, accept_loss;
  CLI::App *ls, *status, *cat, *put, *write, *truncate, *init, *restore, *repair_init, *dump, *verify_cmd, *hold,
      *examine, *monitor_cmd, *metrics, *sim_create, *sim_pull, *sim_replace, *sim_return, *doc;
};

constexpr const char* kControllerHelp = "This controller's number (0-3; default: SBACC_CONTROLLER)";

void AddLookCommands(Cli& c) {
  c.ls = c.app.add_subcommand("ls", "List the configured areas: address, size, capacity and copies.");
  c.ls->add_flag("--check", c.check,
                 "Also report every area list line the library ignores and every area whose NV record it shifts "
                 "(exit status 3 when any)");
  c.status = c.app.add_subcommand("status", "Show NV entries and each copy's state and header (changes nothing).");
  c.status->add_option("AREA", c.areas, "Areas to show (default: all)");
  c.status->add_flag("--json", c.json, "Machine-readable output (stable shape, see JSON OUTPUT in sbacc(1))");
  c.status->add_flag("-x,--problems", c.problems,
                     "Show only the problem lines (one line when all is well)");
  c.status->footer(
      "Ends with a summary per disk (HDD file), one 'action:' line and a one-line count.  Reads only; safe on a\n"
      "live controller (an area being written may show copies mid-update).  A mismatch the last scrub found, or\n"
      "an area it skipped, counts as a problem until a verify of that area finds it clean.  Every usable copy's\n"
      "data is read and checked against its integrity record (verified, no checksum, bad; not with\n"
      "SBACC_CHECKSUM=0): a copy that fails it is a problem (exit 2, 3 when no copy is left that does not).");
  c.examine = c.app.add_subcommand("examine", "Read the area headers on one HDD image, without the area list or NV.");
  c.examine->add_option("IMAGE", c.file, "HDD image file")->required();
  c.examine->add_option("--offset", c.offsets, "Read a header at this byte offset (default: find them by magic)")
      ->type_name("BYTES");
  c.examine->add_flag("--json", c.json, "Machine-readable output");
  c.dump = c.app.add_subcommand("dump", "Write the diagnostic hex dump of NV entries and HDD headers.");
  c.dump->add_option("FILE", c.file, "Append the dump to this file; none or '-': standard output");
}

void AddDataCommands(Cli& c) {
  c.cat = c.app.add_subcommand("cat", "Write an area's data to standard output.");
  c.cat->add_option("AREA", c.area, "Area name")->required();
  c.put = c.app.add_subcommand("put", "Replace an area's data with a file (or standard input).");
  c.put->add_option("AREA", c.area, "Area name")->required();
  c.put->add_option("FILE", c.file, "Input file; '-' or none: standard input");
  c.write = c.app.add_subcommand("write", "Write a file (or standard input) into an area at an offset.");
  c.write->add_option("AREA", c.area, "Area name")->required();
  c.write->add_option("OFFSET", c.offset, "Data offset in bytes")->required()->check(kByteCount);
  c.write->add_option("FILE", c.file, "Input file; '-' or none: standard input");
  c.truncate = c.app.add_subcommand("truncate", "Set an area's data size (zero-filled when it grows).");
  c.truncate->add_option("AREA", c.area, "Area name")->required();
  c.truncate->add_option("SIZE", c.size, "New size in bytes")->required()->check(kByteCount);
  c.hold = c.app.add_subcommand("hold", "Open an area for writing and wait until killed, never closing it.");
  c.hold->add_option("AREA", c.area, "Area name")->required();
  c.hold->add_option("FILE", c.file, "Data to write at offset 0 first");
  c.hold->footer(
      "A writer that dies with its area open, for trying the start-up's repair (see scripts/demo.sh): kill it\n"
      "with SIGKILL.  Prints one line when the area is open.  Never on a controller in service.");
}

void AddServiceCommands(Cli& c) {
  constexpr const char* kStartupFooter =
      "Prints per area what the start-up did: clean, stale copies rebuilt, copies fenced off, data of the\n"
      "paired areas repaired (and from where), or re-created empty because no copy held a valid header.\n"
      "Live controller: refused while another process holds an HDD file or the NV image open, because the\n"
      "start-up rewrites headers and data under running writers; --force overrides.\n"
      "On a terminal, standard error shows its progress on one line (areas done, copies being rebuilt).\n"
      "Exit status: what it leaves behind (2 an area with fewer usable copies, 3 an area without data).";
  for (CLI::App** cmd : {&c.init, &c.restore}) {
    const bool nv = cmd == &c.init;
    *cmd = c.app.add_subcommand(nv ? "init" : "restore",
                                nv ? "Start-up: restore every area, then rebuild every NV entry."
                                   : "Start-up restore only: rebuild stale copies, repair the paired areas.");
    (*cmd)->add_option("--controller,-c", c.controller, kControllerHelp)->check(CLI::Range(0, 3));
    (*cmd)->add_flag("--force", c.force, "Run even while other processes hold the controller's files open");
    (*cmd)->add_flag("--dry-run", c.dry_run, "Say per area what the start-up would do, by the library's own rule; write nothing");
    (*cmd)->add_flag("--json", c.json, "Machine-readable output");
    (*cmd)->footer(kStartupFooter);
  }
  c.restore
      ->add_option("--accept-loss", c.accept_loss,
                   "Write off the unreadable copies of this one held area: take its best stale copy with a valid "
                   "header, or re-create it empty when none has one (says first what is lost)")
      ->type_name("AREA");
  c.repair_init = c.app.add_subcommand("repair-init", "Clear this controller's repair lock in every area.");
  c.repair_init->add_option("--controller,-c", c.controller, kControllerHelp)->check(CLI::Range(0, 3));

  c.verify_cmd = c.app.add_subcommand("verify", "Compare the usable copies of each area byte for byte (data and whole header).");
  VerifyOptions& v = c.verify;
  c.verify_cmd->add_option("AREA", v.areas, "Areas to verify (default: all)");
  c.verify_cmd->add_flag("--repair", v.repair,
                         "Rewrite differing copies from the copy the integrity records, the headers or a majority "
                         "show to be right, under the area's repair lock; refuse when nothing shows it");
  c.verify_cmd->add_option("--from", v.from, "With --repair and one AREA: take this copy as right")
      ->check(CLI::Range(0, SBACC_HDD_MAX - 1))
      ->needs("--repair");
  c.verify_cmd->add_flag("--force", v.force, "Verify (and repair) areas that another process is writing too");
  c.verify_cmd->add_flag("--json", v.json, "Machine-readable output");
  c.verify_cmd->add_option("--controller,-c", v.controller, kControllerHelp)->check(CLI::Range(0, 3));
  c.verify_cmd->footer(
      "Copies that differ are read twice before they count as a mismatch; each copy is checked against its\n"
      "integrity record, and one that fails it is named and counts as a mismatch too.  --repair takes the\n"
      "copies that pass their records as right when they hold the same data, and rewrites only the others;\n"
      "copies that all pass yet differ, or none that passes, make it refuse.  Where no copy has a record that\n"
      "applies (written before records, or SBACC_CHECKSUM=0) it takes a copy as right only when the headers\n"
      "show it (blockade words, close time, or for an area whose writer died the write-intent record and the\n"
      "size) or when a strict majority of three or more copies agree.  Otherwise it shows where the copies\n"
      "differ and rewrites nothing until --from names the copy; not even --from rewrites a copy that passes\n"
      "its record from one that does not.\n"
      "Live controller: areas another process is writing are skipped (--force to go on); the rest are read\n"
      "while in use, and a repair holds each area's repair lock while it rewrites.\n"
      "Each area's result goes into the scrub record; the areas not verified keep theirs.");
}

void AddWatchCommands(Cli& c) {
  c.monitor_cmd = c.app.add_subcommand("monitor", "Log an event for every change of the controller's state.");
  MonitorOptions& m = c.monitor;
  c.monitor_cmd->add_flag("--oneshot", m.oneshot, "One pass, then exit with the status's exit status (for a timer)");
  c.monitor_cmd->add_option("--interval", m.interval, "Seconds between passes")
      ->capture_default_str()
      ->check(CLI::Range(1, 86400))
      ->type_name("SECONDS");
  c.monitor_cmd->add_option("--hook", m.hook, "Program run for every event (default: SBACC_MONITOR_HOOK)")
      ->type_name("PROGRAM");
  c.monitor_cmd->add_option("--raise", m.raise, "Log this one event (as scrub-failed) and run the hook, then exit")
      ->type_name("EVENT");
  c.monitor_cmd->add_option("--message", m.message, "With --raise: the event's text")->type_name("TEXT");
  c.monitor_cmd->footer(
      "Events: copy-fenced, copy-unusable, area-unavailable, left-open, scrub-mismatch, scrub-incomplete, and\n"
      "when one ends, rebuild-finished (a copy usable again) or the kind with -cleared.  Each goes to the journal\n"
      "(native protocol, fields SBACC_EVENT, SBACC_AREA, SBACC_COPY, SBACC_DISK, SBACC_STATUS) or, without a\n"
      "journal, to syslog; the hook gets the same fields in its environment and the event as JSON on standard\n"
      "input.  The last state seen is kept in the state directory, so a restart reports only what changed.");
  c.metrics = c.app.add_subcommand("metrics", "Write node-exporter textfile metrics of every area and disk.");
  c.metrics->add_option("--textfile", c.textfile,
                        "Directory to write sbacc.prom into, atomically (default: standard output)")
      ->type_name("DIR");
}

void AddSimCommands(Cli& c) {
  CLI::App* sim = c.app.add_subcommand("sim", "A simulated controller in a directory, to try things on.");
  sim->require_subcommand(1);
  c.sim_create = sim->add_subcommand(
      "create", "Create HDD images, an area list (the seven known areas and N more), an NV image and log/.");
  c.sim_create->add_option("DIR", c.sim.dir, "Directory (created if missing)")->required();
  c.sim_create->add_option("--copies,-k", c.sim.copies, "HDD copies of every area (1-8)")
      ->capture_default_str()
      ->check(CLI::Range(1, 8));
  c.sim_create->add_option("--areas,-n", c.sim.areas, "Areas beyond the seven known ones")
      ->capture_default_str()
      ->check(CLI::Range(0, 1000));
  c.sim_create->add_option("--size", c.sim.size, "Bytes per area, header included")
      ->capture_default_str()
      ->check(CLI::Range(static_cast<int64_t>(256), static_cast<int64_t>(64) << 20));
  c.sim_create->footer("Prints export lines for the environment (also saved in DIR/env.sh).");
  c.sim_pull = sim->add_subcommand("pull", "Pull a disk: every access to copy COPY fails from now on.");
  c.sim_pull->add_option("DIR", c.file, "Simulated controller directory")->required();
  c.sim_pull->add_option("COPY", c.copy, "Copy (disk) number")->required()->check(kByteCount);
  c.sim_replace = sim->add_subcommand("replace", "Put a new, empty disk in copy COPY's place.");
  c.sim_replace->add_option("DIR", c.file, "Simulated controller directory")->required();
  c.sim_replace->add_option("COPY", c.copy, "Copy (disk) number")->required()->check(kByteCount);
  c.sim_return = sim->add_subcommand("return", "Put a pulled disk back, with the image 'sim pull' kept.");
  c.sim_return->add_option("DIR", c.file, "Simulated controller directory")->required();
  c.sim_return->add_option("COPY", c.copy, "Copy (disk) number")->required()->check(kByteCount);
}

int Dispatch(Cli& c) {
  if (*c.ls) return CmdLs(c.check);
  if (*c.status) return CmdStatus(c.areas, c.json, c.problems);
  if (*c.examine) return CmdExamine(c.file, c.offsets, c.json);
  if (*c.cat) return CmdCat(c.area);
  if (*c.put) return CmdPut(c.area, c.file);
  if (*c.write) return CmdWrite(c.area, c.offset, c.file);
  if (*c.truncate) return CmdTruncate(c.area, c.size);
  if (*c.init) return CmdStartup(true, c.controller, c.force, c.json, c.dry_run);
  if (*c.restore) return CmdStartup(false, c.controller, c.force, c.json, c.dry_run, c.accept_loss);
  if (*c.repair_init) return CmdRepairInit(c.controller);
  if (*c.dump) return CmdDump(c.file);
  if (*c.verify_cmd) return CmdVerify(c.verify);
  if (*c.hold) return CmdHold(c.area, c.file);
  if (*c.monitor_cmd) return CmdMonitor(c.monitor);
  if (*c.metrics) return CmdMetrics(c.textfile);
  if (*c.sim_create) return CmdSimCreate(c.sim);
  if (*c.sim_pull) return CmdSimPull(c.file, c.copy);
  if (*c.sim_replace) return CmdSimReplace(c.file, c.copy);
  if (*c.sim_return) return CmdSimReturn(c.file, c.copy);
  if (*c.doc) return CmdDoc(c.app, *c.doc);
  throw UsageError("nothing to do");
}

// A failure: one line on standard error, and with --json a JSON error object
// on standard output, so a script reading it always gets a document.
int Failure(CLI::App* where, const std::string& message, bool usage, int code) {
  const CLI::Option* json = where->get_option_no_throw("--json");
  if (json != nullptr && json->count() > 0) {
    nlohmann::json err = {{"version", kJsonVersion},
                          {"status", kExitError},
                          {"status_name", ExitName(kExitError)},
                          {"ok", false},
                          {"error", {{"message", message}, {"usage", usage}}}};
    if (code != 0) err["error"]["code"] = {{"code", code}, {"name", sbacc_code_name(code)}, {"text", sbacc_code_text(code)}};
    printf("%s\n", err.dump(2).c_str());
  }
  return Fail(where, message, usage);
}

}  // namespace

int main(int argc, char** argv) {
  Cli c;
  c.app.footer(HelpFooter());
  c.app.require_subcommand(1);
  c.app.set_version_flag("--version", std::string("sbacc ") + SBACC_VERSION);
  AddLookCommands(c);
  AddDataCommands(c);
  AddServiceCommands(c);
  AddWatchCommands(c);
  AddSimCommands(c);
  c.doc = AddDocCommand(c.app);

  try {
    c.app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return c.app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return c.app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return c.app.exit(e);
  } catch (const CLI::ParseError& e) {
    int depth = 0;
    CLI::App* where = Innermost(&c.app, &depth);
    // A word where a subcommand belongs that names none.
    if (!where->get_subcommands({}).empty() && argc > depth + 1 && argv[depth + 1][0] != '-') {
      return Fail(where, std::string("unknown command '") + argv[depth + 1] + "'", true);
    }
    return Failure(where, e.what(), true, 0);
  }

  CLI::App* where = Innermost(&c.app);
  try {
    return Dispatch(c);
  } catch (const UsageError& e) {
    return Failure(where, e.what(), true, 0);
  } catch (const LibError& e) {
    return Failure(where, e.what(), false, e.code());
  } catch (const std::exception& e) {
    return Failure(where, e.what(), false, 0);
  }
}
