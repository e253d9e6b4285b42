#include "tool_runner.h"

#include <fcntl.h>
#include <json-c/json.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "broker_fixture.h"

extern char **environ;

namespace uoztest {

ToolRun run(const std::string &command) {
    char err_path[] = "/tmp/uoz-tool-err-XXXXXX";
    int fd = mkstemp(err_path);
    close(fd);
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
    std::ifstream err(err_path);
    std::stringstream text;
    text << err.rdbuf();
    result.err = text.str();
    unlink(err_path);
    return result;
}

bool is_json(const std::string &text) {
    json_tokener *tokener = json_tokener_new();
    json_object *object =
        json_tokener_parse_ex(tokener, text.c_str(), static_cast<int>(text.size()));
    bool whole =
        object != nullptr && json_tokener_get_error(tokener) == json_tokener_success &&
        text.find_first_not_of(" \t\r\n", json_tokener_get_parse_end(tokener)) == std::string::npos;
    json_object_put(object);
    json_tokener_free(tokener);
    return whole;
}

VehicleAgent::VehicleAgent(int broker_port) {
    ecus_ = std::make_unique<EcuSimulator>(UOZ_ECUSIM_PATH);
    agent_ = std::make_unique<AgentProcess>(
        UOZ_AGENT_PATH, broker_port,
        std::vector<std::string>{"--gateway", ecus_->address(), "--doip-port",
                                 std::to_string(ecus_->port()), "--ecu-config",
                                 std::string(UOZ_EXAMPLES) + "/ecus.json"});
}

VehicleAgent::~VehicleAgent() = default;

void VehicleAgent::stop() {
    agent_.reset();
}

void VehicleAgent::stop_ecus() {
    ecus_.reset();
}

std::string VehicleAgent::agent_output() const {
    return agent_ ? agent_->output() : std::string();
}

}  // namespace uoztest
