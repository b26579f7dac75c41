// sbacc: look at and drive the mirrored data areas of a controller.
//
// Exit status: 0 done; 1 ran and found something wrong (status: a copy not
// usable or NV not initialised; verify: copies that differ); 2 bad usage or
// a library call failed.  Library codes are shown with their name and
// meaning.  The library's environment (SBACC_FILELIST, SANFWCTL_NV_IMAGE,
// MC_TRACE_FILE, MC_TRACE_DIR, the retry tunables) applies unchanged.
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <CLI/CLI.hpp>

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

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Look at and drive the mirrored data areas of a controller.", "sbacc"};
  app.footer(HelpFooter());
  app.require_subcommand(1);
  app.set_version_flag("--version", "sbacc 1.1.0");

  std::vector<std::string> areas;
  std::string area, file;
  bool json = false;
  int offset = 0, size = 0, controller = 0, copy = 0;
  SimOptions sim_opts;
  VerifyOptions vopts;

  CLI::App* ls = app.add_subcommand("ls", "List the configured areas: address, size, capacity and copies.");
  bool check = false;
  ls->add_flag("--check", check,
               "Also report every area list line the library ignores and every area whose NV record it shifts "
               "(exit status 1 when any)");

  CLI::App* status = app.add_subcommand(
      "status", "Show NV entries and each copy's state and header (changes nothing).");
  status->add_option("AREA", areas, "Areas to show (default: all)");
  status->add_flag("--json", json, "Machine-readable output (stable shape)");
  bool problems = false;
  status->add_flag("-x,--problems", problems, "Show only areas and disks that are not healthy");
  status->footer(
      "Ends with a summary per disk (HDD file), one 'action:' line and a one-line count.  Reads only; safe on a\n"
      "live controller (an area being written may show copies mid-update).\n"
      "Exit status 1 when any copy is not usable, an NV entry is not initialised, or an area was left open.");

  CLI::App* cat = app.add_subcommand("cat", "Write an area's data to standard output.");
  cat->add_option("AREA", area, "Area name")->required();

  CLI::App* put = app.add_subcommand("put", "Replace an area's data with a file (or standard input).");
  put->add_option("AREA", area, "Area name")->required();
  put->add_option("FILE", file, "Input file; '-' or none: standard input");

  CLI::App* write = app.add_subcommand("write", "Write a file (or standard input) into an area at an offset.");
  write->add_option("AREA", area, "Area name")->required();
  write->add_option("OFFSET", offset, "Data offset in bytes")->required()->check(kByteCount);
  write->add_option("FILE", file, "Input file; '-' or none: standard input");

  CLI::App* truncate = app.add_subcommand("truncate", "Set an area's data size (zero-filled when it grows).");
  truncate->add_option("AREA", area, "Area name")->required();
  truncate->add_option("SIZE", size, "New size in bytes")->required()->check(kByteCount);

  constexpr const char* kStartupFooter =
      "Prints per area what the start-up did: clean, stale copies rebuilt, copies fenced off, data of the\n"
      "paired areas repaired (and from where), or re-created empty because no copy held a valid header.\n"
      "Live controller: refused while another process holds an HDD file or the NV image open, because the\n"
      "start-up rewrites headers and data under running writers; --force overrides.\n"
      "Exit status 1 when an area lost its data or has no usable copy; 2 when refused or the call failed.";
  bool force = false;
  CLI::App* init = app.add_subcommand("init", "Start-up: restore every area, then rebuild every NV entry.");
  init->add_option("--controller,-c", controller, "This controller's number (0-3)")->check(CLI::Range(0, 3));
  init->add_flag("--force", force, "Run even while other processes hold the controller's files open");
  init->add_flag("--json", json, "Machine-readable output");
  init->footer(kStartupFooter);

  CLI::App* restore = app.add_subcommand("restore", "Start-up restore only: rebuild stale copies, repair the paired areas.");
  restore->add_option("--controller,-c", controller, "This controller's number (0-3)")->check(CLI::Range(0, 3));
  restore->add_flag("--force", force, "Run even while other processes hold the controller's files open");
  restore->add_flag("--json", json, "Machine-readable output");
  restore->footer(kStartupFooter);

  CLI::App* repair_init = app.add_subcommand("repair-init", "Clear this controller's repair lock in every area.");
  repair_init->add_option("--controller,-c", controller, "This controller's number (0-3)")
      ->required()
      ->check(CLI::Range(0, 3));

  CLI::App* dump = app.add_subcommand("dump", "Write the diagnostic hex dump of NV entries and HDD headers.");
  dump->add_option("FILE", file, "Append the dump to this file; none or '-': standard output");

  CLI::App* verify = app.add_subcommand(
      "verify", "Compare the usable copies of each area byte for byte (data and whole header).");
  verify->add_option("AREA", vopts.areas, "Areas to verify (default: all)");
  verify->add_flag("--repair", vopts.repair,
                   "Rewrite differing copies from the copy the headers or a majority show to be right, under the "
                   "area's repair lock; refuse when nothing shows it");
  CLI::Option* from = verify->add_option("--from", vopts.from, "With --repair and one AREA: take this copy as right")
                          ->check(CLI::Range(0, SBACC_HDD_MAX - 1));
  from->needs("--repair");
  verify->add_flag("--force", vopts.force, "Verify (and repair) areas that another process is writing too");
  verify->add_flag("--json", vopts.json, "Machine-readable output");
  verify->add_option("--controller,-c", vopts.controller, "Controller number for the repair lock (0-3)")
      ->check(CLI::Range(0, 3));
  verify->footer(
      "Copies that differ are read twice before they count as a mismatch.  --repair takes a copy as right only\n"
      "when the headers show it (blockade words, close time, or for an area whose writer died the write-intent\n"
      "record and the size) or when a strict majority of three or more copies agree; otherwise it shows where\n"
      "the copies differ and rewrites nothing until --from names the copy.\n"
      "Live controller: areas another process is writing are skipped (--force to go on); the rest are read\n"
      "while in use, and a repair holds each area's repair lock while it rewrites.\n"
      "Exit status 1 when copies differ (with --repair: when any still differs).");

  // Opens an area for writing and waits to be killed: a writer that died
  // with the area open, for demonstrations and tests.  Not in the help.
  CLI::App* hold = app.add_subcommand("hold", "Open an area for writing and wait, never closing it.");
  hold->group("");
  hold->add_option("AREA", area, "Area name")->required();
  hold->add_option("FILE", file, "Data to write at offset 0 first");

  CLI::App* sim = app.add_subcommand("sim", "A simulated controller in a directory, to try things on.");
  sim->require_subcommand(1);
  CLI::App* sim_create = sim->add_subcommand(
      "create", "Create HDD images, an area list (the seven known areas and N more), an NV image and log/.");
  sim_create->add_option("DIR", sim_opts.dir, "Directory (created if missing)")->required();
  sim_create->add_option("--copies,-k", sim_opts.copies, "HDD copies of every area (1-8)")->capture_default_str()->check(CLI::Range(1, 8));
  sim_create->add_option("--areas,-n", sim_opts.areas, "Areas beyond the seven known ones")->capture_default_str()
      ->check(CLI::Range(0, 1000));
  sim_create->add_option("--size", sim_opts.size, "Bytes per area, header included")->capture_default_str()
      ->check(CLI::Range(static_cast<int64_t>(256), static_cast<int64_t>(64) << 20));
  sim_create->footer("Prints export lines for the environment (also saved in DIR/env.sh).");
  CLI::App* sim_pull = sim->add_subcommand("pull", "Pull a disk: every access to copy COPY fails from now on.");
  sim_pull->add_option("DIR", file, "Simulated controller directory")->required();
  sim_pull->add_option("COPY", copy, "Copy (disk) number")->required()->check(kByteCount);
  CLI::App* sim_replace = sim->add_subcommand("replace", "Put a new, empty disk in copy COPY's place.");
  sim_replace->add_option("DIR", file, "Simulated controller directory")->required();
  sim_replace->add_option("COPY", copy, "Copy (disk) number")->required()->check(kByteCount);

  CLI::App* doc = AddDocCommand(app);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    int depth = 0;
    CLI::App* where = Innermost(&app, &depth);
    // A word where a subcommand belongs that names none.
    if (!where->get_subcommands({}).empty() && argc > depth + 1 && argv[depth + 1][0] != '-') {
      return Fail(where, std::string("unknown command '") + argv[depth + 1] + "'", true);
    }
    return Fail(where, e.what(), true);
  }

  CLI::App* where = Innermost(&app);
  try {
    if (*ls) return CmdLs(check);
    if (*status) return CmdStatus(areas, json, problems);
    if (*cat) return CmdCat(area);
    if (*put) return CmdPut(area, file);
    if (*write) return CmdWrite(area, offset, file);
    if (*truncate) return CmdTruncate(area, size);
    if (*init) return CmdStartup(true, controller, force, json);
    if (*restore) return CmdStartup(false, controller, force, json);
    if (*repair_init) return CmdRepairInit(controller);
    if (*dump) return CmdDump(file);
    if (*verify) return CmdVerify(vopts);
    if (*hold) return CmdHold(area, file);
    if (*sim_create) return CmdSimCreate(sim_opts);
    if (*sim_pull) return CmdSimPull(file, copy);
    if (*sim_replace) return CmdSimReplace(file, copy);
    if (*doc) return CmdDoc(app, *doc);
  } catch (const UsageError& e) {
    return Fail(where, e.what(), true);
  } catch (const LibError& e) {
    return Fail(where, e.what(), false);
  } catch (const std::exception& e) {
    return Fail(where, e.what(), false);
  }
  return Fail(where, "nothing to do", true);
}
