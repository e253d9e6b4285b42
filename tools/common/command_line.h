// The command line of every program, on CLI11: usage errors told as
// "<tool>: <what is wrong> (see <tool> [command] --help)" with exit code 2,
// instead of CLI11's own texts ("A subcommand is required", "At Most 1
// required but received 2"), which name neither the tool nor what was typed;
// and the notes of the top-level help kept out of each command's help.
#ifndef UOZ_TOOLS_COMMAND_LINE_H
#define UOZ_TOOLS_COMMAND_LINE_H

#include <CLI/CLI.hpp>
#include <string>

namespace uoztools {

// The clear text of a usage error, without the tool's prefix.
std::string usage_error_text(const CLI::App &app, const CLI::ParseError &error,
                             const std::string &tool);

// Clears the footer every command inherited from the top-level help. Call it
// after the last command was added.
void footer_only_at_top(CLI::App &app);

// Parses the command line: -1 when the program goes on; otherwise the exit
// code to end with, after the help or version was printed (0) or the usage
// error was told on standard error (2).
int parse_command_line(CLI::App &app, int argc, char **argv, const std::string &tool);

}  // namespace uoztools

#endif
