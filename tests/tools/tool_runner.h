// Running the command-line tools as a person would, and reading what they say.
#ifndef UOZ_TESTS_TOOLS_TOOL_RUNNER_H
#define UOZ_TESTS_TOOLS_TOOL_RUNNER_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "golden.h"

namespace uoztest {

struct ToolRun {
    int code = -1;       // exit code, -1 when killed by a signal
    std::string out;     // standard output
    std::string err;     // standard error
    double seconds = 0;  // wall time
};

// Runs a shell command line; standard output and error apart.
ToolRun run(const std::string &command);

// A run of `program arguments`: its exit code and what it prints ('*' stands
// for any text). With `json` given, `program --json arguments` must give the
// same exit code and one JSON document, without colour and with snake_case
// keys, that holds the `json` pattern and has "exit_code" exactly when the
// code is not 0.
struct Expected {
    std::string arguments;
    int code;
    std::string out = "*";
    std::string err = "*";
    std::optional<std::string> json = std::nullopt;
};

// Checks the run (and its --json form) against expected; gives the text run.
ToolRun expect_run(const std::string &program, const Expected &expected);
// The expectation of a golden case (golden.h): @args, @code, and @out and
// @err (patterns; any text when absent), @json when the --json run is checked.
Expected expected_of(const GoldenCase &test);
// expect_run for every case of the golden file at path; the text runs.
std::vector<ToolRun> expect_golden(const std::string &program, const std::string &path,
                                   const std::map<std::string, std::string> &values);

}  // namespace uoztest

#endif
