// The tool's documentation, taken from its own command definitions so that
// --help, the man page, the README table and the shell completion cannot
// disagree.
#ifndef SBACC_TOOL_DOC_H
#define SBACC_TOOL_DOC_H

#include <string>

#include <CLI/CLI.hpp>

namespace sbacc_tool {

// Exit statuses and environment, as the top-level --help shows them.
std::string HelpFooter();

// Adds the hidden "__doc" subcommand: "__doc man" prints sbacc(1),
// "__doc markdown" the README's command table, "__doc complete WORD..." the
// words that may follow WORD... on a command line (for bash completion).
CLI::App* AddDocCommand(CLI::App& app);
int CmdDoc(const CLI::App& app, const CLI::App& doc);

}  // namespace sbacc_tool

#endif  // SBACC_TOOL_DOC_H
