#include "processes.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>

#include "broker_fixture.h"
#include "file_text.h"

extern char **environ;

namespace uoztest {

int free_loopback_port() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), size) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size) != 0) {
        close(fd);
        throw std::runtime_error("no free port");
    }
    close(fd);
    return ntohs(address.sin_port);
}

namespace {

std::string new_log_file() {
    char path[] = "/tmp/uoz-child-XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0)
        throw std::runtime_error("mkstemp failed");
    close(fd);
    return path;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string> &argv, Stderr stderr_to)
    : log_(new_log_file()) {
    if (stderr_to == Stderr::kOwnFile)
        errors_log_ = new_log_file();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, log_.c_str(), O_WRONLY | O_TRUNC, 0644);
    if (errors_log_.empty())
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
    else
        posix_spawn_file_actions_addopen(&actions, 2, errors_log_.c_str(), O_WRONLY | O_TRUNC,
                                         0644);
    std::vector<char *> args;
    for (const std::string &arg : argv)
        args.push_back(const_cast<char *>(arg.c_str()));
    args.push_back(nullptr);
    int rc = posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        pid_ = -1;
        unlink(log_.c_str());
        if (!errors_log_.empty())
            unlink(errors_log_.c_str());
        throw std::runtime_error("cannot start " + argv[0]);
    }
}

ChildProcess::~ChildProcess() {
    stop();
    unlink(log_.c_str());
    if (!errors_log_.empty())
        unlink(errors_log_.c_str());
}

std::string ChildProcess::output() const {
    return file_text(log_);
}

std::string ChildProcess::errors() const {
    return errors_log_.empty() ? std::string() : file_text(errors_log_);
}

bool ChildProcess::running() {
    if (pid_ <= 0)
        return false;
    if (waitpid(pid_, &status_, WNOHANG) == pid_) {
        pid_ = -1;
        return false;
    }
    return true;
}

bool ChildProcess::wait_blocking(int signal_number, int timeout_ms) {
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    unsigned long long wanted = 1ULL << (signal_number - 1);
    while (running() && std::chrono::steady_clock::now() < until) {
        std::string status = file_text("/proc/" + std::to_string(pid_) + "/status");
        size_t line = status.find("SigBlk:");
        if (line != std::string::npos &&
            (std::strtoull(status.c_str() + line + 7, nullptr, 16) & wanted) != 0)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

bool ChildProcess::wait_for_output(const std::string &text, int timeout_ms) {
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (std::chrono::steady_clock::now() < until) {
        if (output().find(text) != std::string::npos)
            return true;
        if (!running())
            return output().find(text) != std::string::npos;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

int ChildProcess::stop(int signal_number) {
    if (pid_ > 0)  // never kill(-1): that signals every process
        ::kill(pid_, signal_number);
    return wait();
}

int ChildProcess::wait() {
    if (pid_ > 0) {
        waitpid(pid_, &status_, 0);
        pid_ = -1;
    }
    if (WIFEXITED(status_))
        return WEXITSTATUS(status_);
    return WIFSIGNALED(status_) ? 128 + WTERMSIG(status_) : -1;
}

namespace {

const char kListeningOn[] = "listening on 127.0.0.1:";

std::vector<std::string> simulator_argv(const std::string &path,
                                        const std::vector<std::string> &arguments) {
    std::vector<std::string> argv = {path, "--listen", "127.0.0.1:0"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return argv;
}

// The port of a whole "listening on" line in the output; 0 before there is one.
int listening_port(const std::string &output) {
    size_t at = output.find(kListeningOn);
    if (at == std::string::npos || output.find('\n', at) == std::string::npos)
        return 0;
    return atoi(output.c_str() + at + strlen(kListeningOn));
}

std::vector<std::string> agent_argv(const std::string &path, int broker_port,
                                    const std::vector<std::string> &arguments) {
    std::vector<std::string> argv = {path,
                                     "--certs",
                                     identity_dir("agent"),
                                     "--broker",
                                     "localhost:" + std::to_string(broker_port),
                                     "--debug",
                                     "2"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return argv;
}

}  // namespace

EcuSimulator::EcuSimulator(const std::string &path, const std::vector<std::string> &arguments,
                           ChildProcess::Stderr stderr_to)
    : process_(simulator_argv(path, arguments), stderr_to) {
    // The line may be read while it is still being written: wait for all of it.
    for (int tries = 0; tries < 500 && port_ == 0; ++tries) {
        port_ = listening_port(process_.output());
        if (port_ == 0 && !process_.running())
            break;
        if (port_ == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (port_ == 0)
        throw std::runtime_error("uoz-ecusim did not start: " + process_.output() +
                                 process_.errors());
}

int EcuSimulator::tls_port() const {
    const char tls_on[] = ", TLS on port ";
    std::string output = process_.output();
    size_t at = output.find(tls_on);
    return at == std::string::npos ? 0 : atoi(output.c_str() + at + strlen(tls_on));
}

AgentProcess::AgentProcess(const std::string &path, int broker_port,
                           const std::vector<std::string> &arguments)
    : process_(agent_argv(path, broker_port, arguments)) {
    if (!process_.wait_for_output("uoz-agent ready", 5000))
        throw std::runtime_error("uoz-agent did not start: " + process_.output());
}

}  // namespace uoztest
