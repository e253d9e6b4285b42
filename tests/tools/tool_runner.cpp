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

AgentProcess::AgentProcess(int broker_port) {
    std::string certs = identity_dir("agent");
    std::string broker = "localhost:" + std::to_string(broker_port);
    log_ = "/tmp/uoz-agent-" + std::to_string(getpid()) + ".log";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    const char *argv[] = {UOZ_AGENT_PATH, "--certs", certs.c_str(), "--broker",
                          broker.c_str(), "--debug", "0",           nullptr};
    if (posix_spawn(&pid_, UOZ_AGENT_PATH, &actions, nullptr, const_cast<char **>(argv), environ) !=
        0) {
        pid_ = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    for (int i = 0; i < 500 && pid_ > 0 && !ready(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

AgentProcess::~AgentProcess() {
    stop();
    unlink(log_.c_str());
}

bool AgentProcess::ready() const {
    std::ifstream log(log_);
    std::string line;
    while (std::getline(log, line)) {
        if (line.find("uoz-agent ready") != std::string::npos)
            return true;
    }
    return false;
}

void AgentProcess::stop() {
    if (pid_ <= 0)
        return;  // never kill(-1): that signals every process
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

}  // namespace uoztest
