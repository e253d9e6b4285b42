#include "tool_runner.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <json-c/json.h>

#include <chrono>

#include "file_text.h"

namespace uoztest {

namespace {

// The "exit_code" of exactly one JSON document (nothing else around it): ""
// when it has none, "(not one JSON document)" when the text is not one.
std::string json_exit_code(const std::string &text) {
    json_tokener *tokener = json_tokener_new();
    json_object *object =
        json_tokener_parse_ex(tokener, text.c_str(), static_cast<int>(text.size()));
    bool whole =
        object && json_tokener_get_error(tokener) == json_tokener_success &&
        text.find_first_not_of(" \t\r\n", json_tokener_get_parse_end(tokener)) == std::string::npos;
    json_tokener_free(tokener);
    json_object *code = nullptr;
    std::string found = !whole ? "(not one JSON document)"
                        : json_object_object_get_ex(object, "exit_code", &code)
                            ? json_object_get_string(code)
                            : "";
    json_object_put(object);
    return found;
}

}  // namespace

ToolRun run(const std::string &command) {
    char err_path[] = "/tmp/uoz-tool-err-XXXXXX";
    close(mkstemp(err_path));
    ToolRun result;
    auto started = std::chrono::steady_clock::now();
    FILE *pipe = popen((command + " 2>" + err_path).c_str(), "r");
    char chunk[4096];
    size_t got;
    while (pipe != nullptr && (got = fread(chunk, 1, sizeof(chunk), pipe)) > 0)
        result.out.append(chunk, got);
    int status = pipe != nullptr ? pclose(pipe) : -1;
    result.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    result.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.err = file_text(err_path);
    unlink(err_path);
    return result;
}

ToolRun expect_run(const std::string &program, const Expected &expected) {
    SCOPED_TRACE(expected.arguments);
    ToolRun text = run(program + " " + expected.arguments);
    EXPECT_EQ(text.code, expected.code) << text.out << text.err;
    EXPECT_TRUE(matches(text.out, expected.out)) << text.out;
    EXPECT_TRUE(matches(text.err, expected.err)) << text.err;
    if (!expected.json)
        return text;
    ToolRun json = run(program + " --json " + expected.arguments);
    EXPECT_EQ(json.code, expected.code);
    std::string exit_code = json_exit_code(json.out);
    EXPECT_EQ(exit_code, expected.code == 0 ? "" : std::to_string(expected.code)) << json.out;
    EXPECT_TRUE(matches(json.out, "*" + *expected.json + "*")) << json.out;
    EXPECT_EQ(json.out.find("\x1b["), std::string::npos) << json.out;
    for (const char *camel : {"targetAddress", "exitCode", "phyReqId"})
        EXPECT_EQ(json.out.find(camel), std::string::npos) << json.out;
    return text;
}

Expected expected_of(const GoldenCase &test) {
    Expected expected{test["args"], std::stoi(test["code"])};
    expected.out = test.has("out") ? test["out"] : "*";
    expected.err = test.has("err") ? test["err"] : "*";
    if (test.has("json"))
        expected.json = test["json"];
    return expected;
}

std::vector<ToolRun> expect_golden(const std::string &program, const std::string &path,
                                   const std::map<std::string, std::string> &values) {
    std::vector<ToolRun> runs;
    for (const GoldenCase &test : golden_cases(path, values)) {
        SCOPED_TRACE(test.name);
        runs.push_back(expect_run(program, expected_of(test)));
    }
    return runs;
}

}  // namespace uoztest
