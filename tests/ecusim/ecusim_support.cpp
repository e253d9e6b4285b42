#include "ecusim_support.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>

#include "hex_text.h"

namespace uoztest {

namespace {

std::string temp_path(const std::string &stem) {
    static int counter = 0;
    const char *dir = getenv("TMPDIR");
    return std::string(dir != nullptr ? dir : "/tmp") + "/" + stem + "-" +
           std::to_string(getpid()) + "-" + std::to_string(++counter);
}

}  // namespace

std::string hex_text(const Bytes &bytes) {
    return uozuds::hex_spaced(bytes.data(), bytes.size());
}

RunResult run_ecusim(const std::vector<std::string> &arguments) {
    std::vector<std::string> argv = {UOZ_ECUSIM_PATH};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    ChildProcess ecusim(argv, ChildProcess::Stderr::kOwnFile);
    RunResult result;
    result.code = ecusim.wait();
    result.errors = ecusim.errors() + ecusim.output();
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
