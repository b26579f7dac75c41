// sbacc __doc: the man page, the README's command table and the completion
// words, all walked out of the CLI definitions in main.cc, so an option added
// there shows up everywhere without another edit.
#include "doc.h"

#include <stdint.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "tool.h"

#ifndef SBACC_VERSION
#define SBACC_VERSION "unknown"
#endif

namespace sbacc_tool {

namespace {

struct Entry {
  const char* name;
  const char* text;
};

// The same for every command; a command that finds several things exits
// with the highest.
const Entry kExitStatus[] = {
    {"0", "healthy: done, nothing found wrong"},
    {"1", "incomplete: something was skipped or not compared (verify: an area being written, a copy left out, "
          "a single usable copy; status: an area the last scrub skipped)"},
    {"2", "degraded: redundancy lost, the data readable (a copy fenced off, missing or blank, an area left open "
          "by a writer that died, a write that did not finish, a copy that fails its integrity record while "
          "another does not; put and write: the write fenced a copy off; init and restore: they leave such an "
          "area behind)"},
    {"3", "unavailable: data unavailable or at risk (no usable copy, NV not initialised or unreadable, copies "
          "that differ or fail their integrity records, found now or by the last scrub; init and restore: an "
          "area re-created empty)"},
    {"4", "bad usage or a library error: the code is shown with its name and meaning (with --json also as a JSON "
          "error object on standard output)"},
};

// Name, what it is, and the short form for --help (empty: not listed there).
struct EnvEntry {
  const char* name;
  const char* text;
  const char* brief;
};

const EnvEntry kEnvironment[] = {
    {"SBACC_FILELIST", "The area list (default /etc/env_frmwkapi/filelist.ini).", "area list"},
    {"SBACC_CONTROLLER",
     "This controller's number (0-3) when --controller is not given; init, restore, repair-init and "
     "verify --repair take a repair lock and refuse to run without one.",
     "controller number"},
    {"SANFWCTL_NV_IMAGE", "NV memory image of the stand-in platform library (default /var/tmp/sanfwctl-nv.img).",
     "NV memory image"},
    {"SANFWCTL_NV_SIZE", "Size of a new NV memory image of the stand-in (default 1 MiB).", ""},
    {"SANFWCTL_MASTER", "The master controller's number the stand-in reports (default 0).", ""},
    {"SANFWCTL_FAIL_READ, SANFWCTL_FAIL_WRITE, SANFWCTL_FAIL_STATUS",
     "Stand-in fault injection, S:N: this process's calls S+1 to S+N of that kind fail (N = -1: all after S).", ""},
    {"MC_TRACE_FILE", "Library trace file; '-' is standard error, unset is nowhere.", "library trace"},
    {"MC_TRACE_DIR", "Directory of the per-thread trace files.", ""},
    {"MC_TRACE_LEVEL", "Trace level 1-5.", ""},
    {"SBACC_MEMSET_MAXRETRY", "NV write retries, 1-999 (default 5).", ""},
    {"SBACC_MEMGET_MAXRETRY", "NV read retries, 1-999 (default 5).", ""},
    {"SBACC_REPAIR_MAXRETRY", "Repair copy retries, 1-999 (default 3).", ""},
    {"SBACC_REPAIRLOCK_WAIT",
     "Seconds to wait for an area's repair lock before giving up, 1-86400 (default 600).", ""},
    {"SBACC_REPAIRLOCK_STALE",
     "Seconds the master watches another controller's repair lock byte with a heartbeat that does not move before "
     "it clears it, 1-3600 (default 60).",
     ""},
    {"SBACC_FENCE_MERGE", "1 (default): a handle only adds copies to the fenced set in NV; 0: writes its own view.", ""},
    {"SBACC_CHECKSUM", "1 (default): the per-copy integrity records are written and checked; 0: turns both off.", ""},
    {"SBACC_RESTORE_RESYNC", "1 (default): the start-up resyncs copies a cut write may have left differing; 0: off.",
     ""},
    {"SBACC_ALLOC_TRACK", "1: the library's allocator tracks every block (a header, a running total, a trace line).",
     ""},
    {"SBACC_STATE_DIR",
     "Where verify keeps the scrub record and monitor its last state, one file each per area list and NV image "
     "(default /var/lib/sbacc, used only when it exists).",
     "state directory"},
    {"SBACC_MONITOR_HOOK", "Program monitor runs for every event, when --hook is not given.", ""},
    {"SBACC_JOURNAL_SOCKET", "The journal's socket monitor sends events to (default /run/systemd/journal/socket; "
     "syslog when there is none).", ""},
};

const Entry kFiles[] = {
    {"/etc/env_frmwkapi/filelist.ini", "The area list: name,address(hex),size(decimal),hdd-path[,hdd-path...]."},
    {"/var/lib/sbacc/scrub-KEY.json", "The scrub record: per area, the last verify's time and result."},
    {"/var/lib/sbacc/monitor-KEY.json", "The conditions monitor saw last."},
    {"sbacc-scrub.timer", "Runs sbacc verify monthly through sbacc-scrub.service; a failed scrub raises the "
     "scrub-failed event (sbacc-scrub-failed.service)."},
    {"sbacc-monitor.service", "Runs sbacc monitor, a pass a minute."},
    {"sbacc-metrics.timer", "Writes the metrics for the node exporter's textfile collector every minute."},
};

const char* const kJson[] = {
    "Every --json document is one object with \"version\" (2), \"status\" (the exit status as a number), "
    "\"status_name\" and \"ok\"; counts, sizes, masks and times are numbers, times in seconds since the epoch.",
    "status: \"areas\" (per area: index, name, address, size, capacity, verdict, status, usable, flags [text, "
    "problem, status], nv {readable, valid, hddcount, hddblockade, latesthdd, hddrepair, repairlock [4]}, copies "
    "[copy, path, state, error, integrity (verified, none, bad, unknown; null when not checked), header {valid, "
    "filesize, hddblockade, openflag, opencnt, opentime, closetime, write {flag, offset, size}}]), \"disks\", "
    "\"action\", \"summary\", \"last_scrub\".",
    "verify: \"areas\" (name, result, status, report, differences, failing, winner, reason, rewritten) and "
    "\"summary\"; init and restore: \"controller\", \"call\", \"error\", \"areas\" (index, name, verdict, events, "
    "rebuilt, fenced, data_lost) and \"summary\"; examine: \"image\" and \"headers\".",
    "On failure: {\"version\", \"status\": 4, \"ok\": false, \"error\": {\"message\", \"usage\", "
    "\"code\": {code, name, text}}}.",
};

const Entry kExamples[] = {
    {"sbacc status -x", "Only what is wrong, with the one thing to do first; one line when all is well."},
    {"sbacc status --json | jq '.areas[] | select(.status > 0) | .name'", "The areas with a problem."},
    {"sbacc restore -c 1", "The start-up restore as controller 1; exit 0 only when every area is left healthy."},
    {"sbacc restore --accept-loss area00",
     "Disk gone for good: write off its copy of the held area00, after listing what is lost."},
    {"sbacc verify envfw_backup0", "Scrub one area; the record keeps the other areas' last results."},
    {"sbacc monitor --oneshot --hook /usr/local/sbin/page-oncall", "One pass of the monitor, run from a timer."},
    {"sbacc metrics --textfile /var/lib/prometheus/node-exporter", "Metrics for the node exporter."},
    {"sbacc examine /dev/sdb --offset 4096", "The header at byte 4096 of a disk taken out of a controller."},
};

bool Visible(const CLI::App* a) { return !a->get_group().empty(); }

std::vector<const CLI::App*> Commands(const CLI::App& app) {
  std::vector<const CLI::App*> out;
  for (const CLI::App* a : app.get_subcommands([](const CLI::App* a) { return Visible(a); })) out.push_back(a);
  return out;
}

std::vector<const CLI::Option*> Options(const CLI::App& app, bool positional) {
  std::vector<const CLI::Option*> out;
  for (const CLI::Option* o : app.get_options()) {
    if (o->get_positional() == positional && !o->get_group().empty()) out.push_back(o);
  }
  return out;
}

std::string FullName(const CLI::App* a) {
  std::string name;
  for (; a != nullptr; a = a->get_parent()) name = a->get_name() + (name.empty() ? "" : " ") + name;
  return name;
}

// "INT" from "INT:INT in [0 - 3]"; empty for a flag.
std::string ValueName(const CLI::Option* o) {
  if (o->get_items_expected_max() == 0) return "";
  std::string t = o->get_type_name();
  return t.substr(0, t.find(':'));
}

std::string Names(const CLI::Option* o) {
  std::string out;
  for (const std::string& s : o->get_snames()) out += (out.empty() ? "-" : ", -") + s;
  for (const std::string& l : o->get_lnames()) out += (out.empty() ? "--" : ", --") + l;
  return out;
}

std::string Positional(const CLI::Option* o) {
  std::string p = o->get_name();
  if (o->get_items_expected_max() > 1) p += "...";
  return o->get_required() ? p : "[" + p + "]";
}

// "sbacc verify [--repair] [--controller INT] [AREA...]"
std::string Synopsis(const CLI::App* a) {
  std::string s = FullName(a);
  for (const CLI::Option* o : Options(*a, false)) {
    if (o == a->get_help_ptr()) continue;
    std::string n = o->get_lnames().empty() ? "-" + o->get_snames().front() : "--" + o->get_lnames().front();
    const std::string v = ValueName(o);
    const std::string word = n + (v.empty() ? "" : " " + v);
    s += " " + (o->get_required() ? word : "[" + word + "]");
  }
  if (!Commands(*a).empty()) s += " COMMAND";
  for (const CLI::Option* o : Options(*a, true)) s += " " + Positional(o);
  return s;
}

// Every command that does something, depth first.
void Leaves(const CLI::App* a, std::vector<const CLI::App*>* out) {
  for (const CLI::App* c : Commands(*a)) {
    if (Commands(*c).empty()) out->push_back(c);
    Leaves(c, out);
  }
}

// Roff text: backslashes escaped, hyphens kept literal, no line taken for a
// request.
std::string Roff(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\\') {
      out += "\\e";
    } else if (c == '-') {
      out += "\\-";
    } else {
      out += c;
    }
    if (c == '\n') out += "\\&";
  }
  return "\\&" + out;
}

void PrintManPage(const CLI::App& app) {
  printf(".TH SBACC 1 \"\" \"sbacc %s\" \"User Commands\"\n", SBACC_VERSION);
  printf(".SH NAME\nsbacc \\- look at and drive the mirrored data areas of a controller\n");
  printf(".SH SYNOPSIS\n.B sbacc\n.I COMMAND\n.RI [ OPTIONS ]\n.RI [ ARGUMENTS ]\n");
  printf(".br\n.B sbacc\n.BR \\-\\-help \" | \" \\-\\-version\n");
  printf(".SH DESCRIPTION\n%s\nEvery command has\n.BR \\-\\-help .\n", Roff(app.get_description()).c_str());
  printf(".SH COMMANDS\n");
  std::vector<const CLI::App*> leaves;
  Leaves(&app, &leaves);
  for (const CLI::App* c : leaves) {
    printf(".SS \"%s\"\n%s\n", Roff(Synopsis(c)).c_str(), Roff(c->get_description()).c_str());
    for (const CLI::Option* o : Options(*c, true)) {
      printf(".TP\n.I %s\n%s\n", Roff(o->get_name()).c_str(), Roff(o->get_description()).c_str());
    }
    for (const CLI::Option* o : Options(*c, false)) {
      if (o == c->get_help_ptr()) continue;
      const std::string v = ValueName(o);
      std::string text = o->get_description();
      if (!o->get_default_str().empty()) text += " (default " + o->get_default_str() + ")";
      printf(".TP\n\\fB%s\\fR%s\n%s\n", Roff(Names(o)).c_str(), v.empty() ? "" : (" \\fI" + Roff(v) + "\\fR").c_str(),
             Roff(text).c_str());
    }
    // A subcommand without a footer of its own shows the top-level one.
    if (!c->get_footer().empty() && c->get_footer() != app.get_footer()) {
      printf(".PP\n%s\n", Roff(c->get_footer()).c_str());
    }
  }
  printf(".SH \"EXIT STATUS\"\n");
  for (const Entry& e : kExitStatus) printf(".TP\n.B %s\n%s\n", e.name, Roff(e.text).c_str());
  printf(".SH ENVIRONMENT\n");
  for (const EnvEntry& e : kEnvironment) printf(".TP\n.B %s\n%s\n", e.name, Roff(e.text).c_str());
  printf(".SH FILES\n");
  for (const Entry& e : kFiles) printf(".TP\n.I %s\n%s\n", Roff(e.name).c_str(), Roff(e.text).c_str());
  printf(".SH \"JSON OUTPUT\"\n");
  for (const char* p : kJson) printf(".PP\n%s\n", Roff(p).c_str());
  printf(".SH EXAMPLES\n");
  for (const Entry& e : kExamples) printf(".TP\n.B %s\n%s\n", Roff(e.name).c_str(), Roff(e.text).c_str());
  printf(".SH \"SEE ALSO\"\n.BR sbacc (3)\n");
}

std::string Cell(std::string text) {
  for (size_t i = 0; (i = text.find('|', i)) != std::string::npos; i += 2) text.replace(i, 1, "\\|");
  return text;
}

void PrintMarkdown(const CLI::App& app) {
  printf("| command | what |\n|---|---|\n");
  std::vector<const CLI::App*> leaves;
  Leaves(&app, &leaves);
  for (const CLI::App* c : leaves) {
    printf("| `%s` | %s |\n", Cell(Synopsis(c)).c_str(), Cell(c->get_description()).c_str());
  }
}

// The words that may follow `words` on a command line: subcommands and
// options, and for the next argument what its kind allows: area names where
// an AREA goes, nothing where a file, a number or an option's value goes (the
// shell then offers file names).
void PrintCompletion(const CLI::App& app, const std::vector<std::string>& words) {
  const CLI::App* at = &app;
  size_t given = 0;          // positional arguments already there
  bool value_next = false;   // the last word is an option that takes a value
  for (const std::string& w : words) {
    const CLI::App* sub = nullptr;
    for (const CLI::App* c : Commands(*at)) sub = c->get_name() == w ? c : sub;
    if (sub != nullptr && given == 0 && !value_next) {
      at = sub;
      continue;
    }
    if (value_next) {
      value_next = false;
    } else if (w.size() > 1 && w[0] == '-') {
      const CLI::Option* o = at->get_option_no_throw(w.substr(0, w.find('=')));
      value_next = o != nullptr && o->get_items_expected_max() > 0 && w.find('=') == std::string::npos;
    } else {
      ++given;
    }
  }
  if (value_next) return;
  for (const CLI::App* c : Commands(*at)) printf("%s\n", c->get_name().c_str());
  for (const CLI::Option* o : Options(*at, false)) {
    for (const std::string& l : o->get_lnames()) printf("--%s\n", l.c_str());
  }
  const CLI::Option* next = nullptr;
  size_t seen = 0;
  for (const CLI::Option* o : Options(*at, true)) {
    const size_t takes = o->get_items_expected_max() > 1 ? SIZE_MAX : 1;
    if (given < seen + takes) {
      next = o;
      break;
    }
    seen += takes;
  }
  if (next == nullptr || next->get_name() != "AREA") return;
  try {
    for (const SBACC_FILE_LIST_ENTRY& e : Areas()) printf("%s\n", e.filename);
  } catch (const std::exception&) {
    // No area list here: complete the rest.
  }
}

}  // namespace

std::string HelpFooter() {
  std::string out = "Exit status:";
  for (const Entry& e : kExitStatus) {
    std::string t = e.text;
    out += std::string(" ") + e.name + " " + t.substr(0, t.find(':')) + (&e == std::end(kExitStatus) - 1 ? "." : ",");
  }
  out += "\nEnvironment:";
  const char* sep = " ";
  for (const EnvEntry& e : kEnvironment) {
    if (e.brief[0] == '\0') continue;
    out += std::string(sep) + e.name + " (" + e.brief + ")";
    sep = ", ";
  }
  out +=
      ";\nthe library's retry and trace variables apply unchanged (man sbacc).\n"
      "Live controller: status, ls, cat, dump, examine, monitor and metrics only read; put, write and truncate\n"
      "write through the library\n"
      "like any writer; verify skips areas being written; init and restore refuse while another process holds\n"
      "the controller's files open; repair-init clears this controller's repair locks, so run it only when no\n"
      "repair of this controller is under way.\n"
      "A simulated controller to try things on: sbacc sim create DIR --help";
  return out;
}

CLI::App* AddDocCommand(CLI::App& app) {
  CLI::App* doc = app.add_subcommand("__doc", "Print the man page, the README table or completion words.");
  doc->group("");
  doc->prefix_command();
  return doc;
}

int CmdDoc(const CLI::App& app, const CLI::App& doc) {
  const std::vector<std::string> args = doc.remaining();
  const std::string what = args.empty() ? "" : args.front();
  if (what == "man") {
    PrintManPage(app);
  } else if (what == "markdown") {
    PrintMarkdown(app);
  } else if (what == "complete") {
    PrintCompletion(app, std::vector<std::string>(args.begin() + 1, args.end()));
  } else {
    throw UsageError("expected man, markdown or complete");
  }
  return kExitOk;
}

}  // namespace sbacc_tool
