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

// The simulator's arguments for a transport.
std::vector<std::string> simulator_arguments(DoipTransport transport) {
    if (transport == DoipTransport::kPlain)
        return {};
    return {"--tls", uoztest::pki_dir() + "/doip/doip-entity", "--tls-port", "0", "--require-tls"};
}

// A temporary file holding `text`; its path.
std::string temporary_file(const char *pattern, const std::string &text) {
    std::string path = pattern;
    int fd = mkstemp(path.data());
    bool written =
        fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (fd >= 0)
        close(fd);
    if (!written)
        throw std::runtime_error("cannot write " + path);
    return path;
}

}  // namespace

BareDoip::BareDoip(int port, DoipTransport transport) {
    uoztools::ScopedFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int one = 1;
    setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    if (connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0)
        throw std::runtime_error("cannot connect to the simulator");
    if (transport == DoipTransport::kPlain) {
        stream_ = uozdoip::plain_stream(std::move(fd));
    } else {
        std::string error;
        auto context =
            uozdoip::TlsContext::for_tester({uoztest::pki_dir() + "/ca/ca.pem", "", ""}, &error);
        if (!context)
            throw std::runtime_error(error);
        auto tls = std::make_unique<uozdoip::TlsStream>(context, std::move(fd));
        if (!tls->connect("127.0.0.1", "the simulator",
                          uozdoip::TlsClock::now() + std::chrono::seconds(5), &error))
            throw std::runtime_error(error);
        stream_ = std::move(tls);
    }
    uozdoip::RoutingActivationRequest activation;
    activation.source = kTester;
    uint8_t version =
        transport == DoipTransport::kTls ? uozdoip::kVersion2019 : uozdoip::kVersion2012;
    uozdoip::Message answer;
    if (!stream_->write_all(uozdoip::encode(activation, version)) ||
        !read_message(uozdoip::payload::kRoutingActivationResponse, &answer)) {
        throw std::runtime_error("no routing activation at the simulator");
    }
    request_ =
        uozdoip::encode(uozdoip::DiagnosticMessage{kTester, kEngine, {0x19, 0x02, 0xFF}}, version);
}

bool BareDoip::read_message(uint16_t type, uozdoip::Message *message) {
    for (;;) {
        while (reader_.next(*message) == uozdoip::FrameReader::Result::kMessage) {
            if (message->payload_type == type)
                return true;
        }
        if (uozdoip::read_into(*stream_, reader_) <= 0)
            return false;
    }
}

bool BareDoip::round_trip() {
    uozdoip::Message answer;
    return stream_->write_all(request_) &&
           read_message(uozdoip::payload::kDiagnosticMessage, &answer);
}

DoipPath::DoipPath(int broker_port, DoipTransport transport)
    : simulator_(UOZ_ECUSIM_PATH, simulator_arguments(transport)),
      port_(transport == DoipTransport::kTls ? simulator_.tls_port() : simulator_.port()) {
    config_path_ = temporary_file("/tmp/uoz-bench-engine-XXXXXX", kEngineConfig);
    std::string settings = "{}";
    if (transport == DoipTransport::kTls) {
        settings = R"({"doip":{"version":"0x03","tls":{"use":"always","ca":")" +
                   uoztest::pki_dir() + R"(/ca/ca.pem","port":)" + std::to_string(port_) + "}}}";
    }
    settings_path_ = temporary_file("/tmp/uoz-bench-settings-XXXXXX", settings);
    agent_ = std::make_unique<uoztest::ChildProcess>(std::vector<std::string>{
        UOZ_AGENT_PATH, "--certs", uoztest::identity_dir("agent"), "--broker",
        "localhost:" + std::to_string(broker_port), "--gateway", simulator_.address(), "--settings",
        settings_path_, "--debug", "1"});
}

DoipPath::~DoipPath() {
    agent_.reset();
    unlink(config_path_.c_str());
    unlink(settings_path_.c_str());
}

}  // namespace uozbench
