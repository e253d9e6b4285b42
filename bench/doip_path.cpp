#include "doip_path.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

#include "broker_fixture.h"

namespace uozbench {

namespace {

// Not the agent's tester address: one tester address, one connection.
constexpr uint16_t kTester = 0x0E81;
constexpr uint16_t kEngine = 0x07E0;

const char kEngineConfig[] =
    R"({"configs":[{"type":"CAN","targetAddress":"0x7E0","name":"engine",)"
    R"("can":{"ifname":"can0","func-addr":"0x7DF","phy-req-id":"0x7E0","phy-resp-id":"0x7E8"}}]})";

}  // namespace

BareDoip::BareDoip(int port) {
    fd_.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int one = 1;
    setsockopt(fd_.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    if (connect(fd_.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0)
        throw std::runtime_error("cannot connect to the simulator");
    uozdoip::RoutingActivationRequest activation;
    activation.source = kTester;
    uozdoip::Message answer;
    if (!uozdoip::write_all(fd_.get(), uozdoip::encode(activation)) ||
        !read_message(uozdoip::payload::kRoutingActivationResponse, &answer)) {
        throw std::runtime_error("no routing activation at the simulator");
    }
    request_ = uozdoip::encode(uozdoip::DiagnosticMessage{kTester, kEngine, {0x19, 0x02, 0xFF}});
}

bool BareDoip::read_message(uint16_t type, uozdoip::Message *message) {
    for (;;) {
        while (reader_.next(*message) == uozdoip::FrameReader::Result::kMessage) {
            if (message->payload_type == type)
                return true;
        }
        if (uozdoip::read_into(fd_.get(), reader_) <= 0)
            return false;
    }
}

bool BareDoip::round_trip() {
    uozdoip::Message answer;
    return uozdoip::write_all(fd_.get(), request_) &&
           read_message(uozdoip::payload::kDiagnosticMessage, &answer);
}

DoipPath::DoipPath(int broker_port) : simulator_(UOZ_ECUSIM_PATH) {
    char path[] = "/tmp/uoz-bench-engine-XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0 || write(fd, kEngineConfig, sizeof(kEngineConfig) - 1) < 0)
        throw std::runtime_error("cannot write the engine configuration");
    close(fd);
    config_path_ = path;
    agent_ = std::make_unique<uoztest::ChildProcess>(
        std::vector<std::string>{UOZ_AGENT_PATH, "--certs", uoztest::identity_dir("agent"),
                                 "--broker", "localhost:" + std::to_string(broker_port),
                                 "--gateway", simulator_.address(), "--debug", "1"});
}

DoipPath::~DoipPath() {
    agent_.reset();
    unlink(config_path_.c_str());
}

}  // namespace uozbench
