#include "ecusim_process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

extern char **environ;

namespace uoztest {

namespace {

std::string temp_path(const std::string &stem) {
    static int counter = 0;
    const char *dir = getenv("TMPDIR");
    return std::string(dir != nullptr ? dir : "/tmp") + "/" + stem + "-" +
           std::to_string(getpid()) + "-" + std::to_string(++counter);
}

std::string slurp(const std::string &path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

std::vector<char *> argv_of(std::vector<std::string> &arguments) {
    std::vector<char *> argv;
    for (std::string &argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    return argv;
}

pid_t spawn(std::vector<std::string> arguments, const std::string &out, const std::string &err) {
    arguments.insert(arguments.begin(), UOZ_ECUSIM_PATH);
    std::vector<char *> argv = argv_of(arguments);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    if (posix_spawn(&pid, UOZ_ECUSIM_PATH, &actions, nullptr, argv.data(), environ) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

int exit_code(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

Bytes hex_bytes(const std::string &hex) {
    Bytes out;
    std::string digits;
    for (char c : hex) {
        if (c != ' ')
            digits += c;
    }
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return out;
}

std::string hex_text(const Bytes &bytes) {
    std::string text;
    char pair[4];
    for (size_t i = 0; i < bytes.size(); ++i) {
        snprintf(pair, sizeof(pair), i == 0 ? "%02X" : " %02X", bytes[i]);
        text += pair;
    }
    return text;
}

EcuSim::EcuSim(const std::vector<std::string> &arguments) {
    output_path_ = temp_path("ecusim-out");
    errors_path_ = temp_path("ecusim-err");
    std::vector<std::string> all = {"--listen", "127.0.0.1:0"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    pid_ = spawn(all, output_path_, errors_path_);
    if (pid_ <= 0)
        return;
    // The "listening on" line says the simulator is ready, and on which port.
    for (int i = 0; i < 500 && port_ == 0; ++i) {
        std::string text = slurp(output_path_);
        size_t at = text.find("listening on 127.0.0.1:");
        if (at != std::string::npos && text.find('\n', at) != std::string::npos) {
            port_ =
                static_cast<uint16_t>(atoi(text.c_str() + at + strlen("listening on 127.0.0.1:")));
            break;
        }
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

EcuSim::~EcuSim() {
    stop(SIGTERM);
    unlink(output_path_.c_str());
    unlink(errors_path_.c_str());
}

int EcuSim::stop(int signal_number) {
    if (pid_ <= 0)
        return exit_code_;  // never kill(-1): that signals every process
    kill(pid_, signal_number);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    exit_code_ = exit_code(status);
    return exit_code_;
}

std::string EcuSim::output() {
    return slurp(output_path_);
}

std::string EcuSim::errors() {
    return slurp(errors_path_);
}

RunResult run_ecusim(const std::vector<std::string> &arguments) {
    std::string out = temp_path("ecusim-run-out");
    std::string err = temp_path("ecusim-run-err");
    RunResult result;
    pid_t pid = spawn(arguments, out, err);
    if (pid > 0) {
        int status = 0;
        waitpid(pid, &status, 0);
        result.code = exit_code(status);
    }
    result.errors = slurp(err) + slurp(out);
    unlink(out.c_str());
    unlink(err.c_str());
    return result;
}

TempFile::TempFile(const std::string &text) : path_(temp_path("ecusim-file")) {
    std::ofstream(path_) << text;
}

TempFile::~TempFile() {
    unlink(path_.c_str());
}

Tester::Tester(uint16_t port) {
    fd_.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd_.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0)
        fd_.reset();
}

bool Tester::send(const Bytes &bytes) {
    return uozdoip::write_all(fd_.get(), bytes);
}

std::optional<uozdoip::Message> Tester::receive(int timeout_ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    uozdoip::Message message;
    for (;;) {
        if (reader_.next(message) == uozdoip::FrameReader::Result::kMessage)
            return message;
        int left = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                        deadline - std::chrono::steady_clock::now())
                                        .count());
        pollfd wait_for{fd_.get(), POLLIN, 0};
        if (left <= 0 || poll(&wait_for, 1, left) <= 0)
            return std::nullopt;
        if (uozdoip::read_into(fd_.get(), reader_) <= 0)
            return std::nullopt;
        ++reads_;
    }
}

uozdoip::FrameReader::Result Tester::framing() {
    uozdoip::Message message;
    return reader_.next(message);
}

bool Tester::closed_by_peer(int timeout_ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        int left = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                        deadline - std::chrono::steady_clock::now())
                                        .count());
        pollfd wait_for{fd_.get(), POLLIN, 0};
        if (left <= 0 || poll(&wait_for, 1, left) <= 0)
            return false;
        long got = uozdoip::read_into(fd_.get(), reader_);
        if (got <= 0)
            return true;
    }
}

std::optional<uozdoip::RoutingActivationResponse> Tester::activate(uint16_t source, uint8_t type) {
    if (!send(uozdoip::encode(uozdoip::RoutingActivationRequest{source, type, 0, std::nullopt})))
        return std::nullopt;
    std::optional<uozdoip::Message> answer = receive();
    if (!answer)
        return std::nullopt;
    return uozdoip::parse_routing_activation_response(*answer);
}

bool Tester::request(uint16_t target, const Bytes &uds, uint16_t source) {
    return send(uozdoip::encode(uozdoip::DiagnosticMessage{source, target, uds}));
}

Bytes Tester::exchange(uint16_t target, const Bytes &uds, int *pending) {
    if (!request(target, uds))
        return {};
    for (;;) {
        std::optional<uozdoip::Message> message = receive();
        if (!message || message->payload_type == uozdoip::payload::kDiagnosticNack)
            return {};
        std::optional<uozdoip::DiagnosticMessage> answer =
            uozdoip::parse_diagnostic_message(*message);
        if (!answer || answer->source != target)
            continue;
        const Bytes &data = answer->data;
        if (data.size() == 3 && data[0] == 0x7F && data[1] == uds[0] && data[2] == 0x78) {
            if (pending != nullptr)
                ++*pending;
            continue;
        }
        return data;
    }
}

}  // namespace uoztest
