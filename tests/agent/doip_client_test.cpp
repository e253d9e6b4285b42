// The DoIP client against a scripted DoIP entity on loopback: each test sets
// how the entity frames and answers, byte for byte, so that the client's
// rules (routing activation, ACK/NACK, an answer before its ACK, alive check,
// split and coalesced frames, drops) are checked one at a time.
#include "doip_client.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>

namespace uozagent {
namespace {

using namespace uozdoip;

constexpr uint16_t kTester = 0x0E80;
constexpr uint16_t kEntity = 0x0100;
constexpr uint16_t kEcu = 0x07E0;

// A one-connection-at-a-time DoIP entity whose behaviour is a function of
// each received message; it writes whatever byte chunks the function returns.
class ScriptedEntity {
  public:
    using Script = std::function<std::vector<Bytes>(const Message &, int connection)>;

    explicit ScriptedEntity(Script script) : script_(std::move(script)) {
        listener_.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        int one = 1;
        setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
        EXPECT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)),
                  0);
        socklen_t length = sizeof(address);
        getsockname(listener_.get(), reinterpret_cast<sockaddr *>(&address), &length);
        port_ = ntohs(address.sin_port);
        listen(listener_.get(), 4);
        thread_ = std::thread(&ScriptedEntity::serve, this);
    }
    ~ScriptedEntity() {
        stopping_ = true;
        shutdown(listener_.get(), SHUT_RDWR);
        drop();
        thread_.join();
    }
    uint16_t port() const { return port_; }
    int connections() const { return connections_; }
    // Closes the current connection from the entity's side.
    void drop() {
        int fd = current_.load();
        if (fd >= 0)
            shutdown(fd, SHUT_RDWR);
    }
    void send_now(const Bytes &bytes) {
        int fd = current_.load();
        if (fd >= 0)
            write_all(fd, bytes);
    }
    std::vector<Message> received() {
        std::lock_guard<std::mutex> hold(lock_);
        return received_;
    }

  private:
    void serve() {
        while (!stopping_) {
            ScopedFd connection(accept(listener_.get(), nullptr, nullptr));
            if (!connection.valid())
                return;
            int number = ++connections_;
            current_ = connection.get();
            FrameReader reader;
            Message message;
            while (read_into(connection.get(), reader) > 0) {
                while (reader.next(message) == FrameReader::Result::kMessage) {
                    {
                        std::lock_guard<std::mutex> hold(lock_);
                        received_.push_back(message);
                    }
                    for (const Bytes &chunk : script_(message, number)) {
                        if (chunk.empty()) {  // an empty chunk: close the connection
                            shutdown(connection.get(), SHUT_RDWR);
                            break;
                        }
                        write_all(connection.get(), chunk);
                        std::this_thread::sleep_for(std::chrono::milliseconds(5));
                    }
                }
            }
            current_ = -1;
        }
    }

    Script script_;
    ScopedFd listener_;
    uint16_t port_ = 0;
    std::thread thread_;
    std::atomic<bool> stopping_{false};
    std::atomic<int> current_{-1};
    std::atomic<int> connections_{0};
    std::mutex lock_;
    std::vector<Message> received_;
};

Bytes activation_answer(uint8_t code = routing::kSuccess) {
    RoutingActivationResponse response;
    response.tester = kTester;
    response.entity = kEntity;
    response.code = code;
    return encode(response);
}

Bytes ack(uint16_t ecu = kEcu, bool negative = false, uint8_t code = diag::kAck) {
    DiagnosticAck acknowledge;
    acknowledge.negative = negative;
    acknowledge.source = ecu;
    acknowledge.target = kTester;
    acknowledge.code = code;
    return encode(acknowledge);
}

Bytes answer(const Bytes &uds, uint16_t ecu = kEcu) {
    return encode(DiagnosticMessage{ecu, kTester, uds});
}

Bytes join(Bytes first, const Bytes &second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// Activation succeeds; each diagnostic message gets what `diagnostic` says.
ScriptedEntity::Script entity(
    std::function<std::vector<Bytes>(const DiagnosticMessage &, int)> diagnostic) {
    return [diagnostic](const Message &message, int connection) -> std::vector<Bytes> {
        if (message.payload_type == payload::kRoutingActivationRequest)
            return {activation_answer()};
        auto request = parse_diagnostic_message(message);
        if (request)
            return diagnostic(*request, connection);
        return {};
    };
}

class DoipClientTest : public ::testing::Test {
  protected:
    DoipOptions options(const ScriptedEntity &server) {
        DoipOptions options;
        options.host = "127.0.0.1";
        options.port = server.port();
        options.tester_address = kTester;
        options.ack_timeout = Millis(500);
        options.activation_timeout = Millis(500);
        return options;
    }
    UdsTiming timing() {
        UdsTiming timing;
        timing.p2 = Millis(500);
        timing.p2_star = Millis(1000);
        timing.overall = Millis(3000);
        return timing;
    }
};

TEST_F(DoipClientTest, activatesRoutingOnceThenSendsDiagnosticMessages) {
    ScriptedEntity server(entity([](const DiagnosticMessage &request, int) {
        return std::vector<Bytes>{ack(request.target), answer({0x59, 0x02, 0xFF})};
    }));
    auto connection = std::make_shared<DoipConnection>(options(server));
    DoipLink link(connection, kEcu);
    for (int i = 0; i < 3; ++i) {
        UdsOutcome outcome = uds_request(link, {0x19, 0x02, 0xFF}, timing());
        ASSERT_TRUE(outcome.answered) << outcome.error;
        EXPECT_EQ(hex_text(outcome.response), "5902FF");
    }
    EXPECT_EQ(connection->activations(), 1);
    EXPECT_EQ(connection->entity_address(), kEntity);
    std::vector<Message> received = server.received();
    ASSERT_EQ(received.size(), 4u);
    EXPECT_EQ(hex_text(encode_message(received[0])), "02FD0005000000070E800000000000");
    auto activation = parse_routing_activation_request(received[0]);
    ASSERT_TRUE(activation);
    EXPECT_EQ(activation->source, kTester);
    EXPECT_EQ(activation->activation_type, routing::kTypeDefault);
    EXPECT_EQ(hex_text(encode_message(received[1])), "02FD8001000000070E8007E01902FF");
}

TEST_F(DoipClientTest, framesSplitIntoSingleBytesAndAckWithAnswerInOneWrite) {
    ScriptedEntity server(entity([](const DiagnosticMessage &request, int) {
        std::vector<Bytes> chunks;
        if (request.data[0] == 0x22) {  // every byte in a write of its own
            for (uint8_t byte : join(ack(), answer({0x62, 0xF1, 0x90, 'W', 'Z'})))
                chunks.push_back({byte});
        } else {  // acknowledge and answer coalesced
            chunks.push_back(join(ack(), answer({0x59, 0x02, 0xFF})));
        }
        return chunks;
    }));
    auto connection = std::make_shared<DoipConnection>(options(server));
    DoipLink link(connection, kEcu);
    UdsOutcome split = uds_request(link, {0x22, 0xF1, 0x90}, timing());
    ASSERT_TRUE(split.answered) << split.error;
    EXPECT_EQ(hex_text(split.response), "62F190575A");
    UdsOutcome coalesced = uds_request(link, {0x19, 0x02, 0xFF}, timing());
    ASSERT_TRUE(coalesced.answered) << coalesced.error;
    EXPECT_EQ(hex_text(coalesced.response), "5902FF");
}

TEST_F(DoipClientTest, anAnswerBeforeItsAckCountsAsTheAck) {
    ScriptedEntity server(entity([](const DiagnosticMessage &, int) {
        return std::vector<Bytes>{answer({0x51, 0x01})};  // no ACK at all
    }));
    DoipLink link(std::make_shared<DoipConnection>(options(server)), kEcu);
    UdsOutcome outcome = uds_request(link, {0x11, 0x01}, timing());
    ASSERT_TRUE(outcome.answered) << outcome.error;
    EXPECT_EQ(hex_text(outcome.response), "5101");
}

TEST_F(DoipClientTest, noAcknowledgeInItsTimeFailsTheRequest) {
    ScriptedEntity server(
        entity([](const DiagnosticMessage &, int) { return std::vector<Bytes>{}; }));
    DoipOptions silent = options(server);
    silent.ack_timeout = Millis(200);
    DoipLink link(std::make_shared<DoipConnection>(silent), kEcu);
    UdsOutcome outcome = uds_request(link, {0x11, 0x01}, timing());
    EXPECT_FALSE(outcome.answered);
    EXPECT_EQ(outcome.error, "no acknowledge from gateway 127.0.0.1:" +
                                 std::to_string(server.port()) + " for 0x07E0 within 200 ms");
}

TEST_F(DoipClientTest, deniedRoutingActivationFailsAtOnceWithTheCode) {
    ScriptedEntity server([](const Message &, int) {
        return std::vector<Bytes>{activation_answer(routing::kDeniedUnknownSource)};
    });
    DoipLink link(std::make_shared<DoipConnection>(options(server)), kEcu);
    UdsOutcome outcome = uds_request(link, {0x19, 0x02, 0xFF}, timing());
    EXPECT_FALSE(outcome.answered);
    EXPECT_EQ(outcome.error,
              "routing activation denied by gateway 127.0.0.1:" + std::to_string(server.port()) +
                  ": code 0x00 (" + routing_code_name(0x00) + ")");
}

TEST_F(DoipClientTest, aNackForAnUnknownTargetFailsWithItsCode) {
    ScriptedEntity server(entity([](const DiagnosticMessage &request, int) {
        return std::vector<Bytes>{ack(request.target, true, diag::kNackUnknownTarget)};
    }));
    DoipLink link(std::make_shared<DoipConnection>(options(server)), 0x0999);
    UdsOutcome outcome = uds_request(link, {0x19, 0x02, 0xFF}, timing());
    EXPECT_FALSE(outcome.answered);
    EXPECT_EQ(outcome.error, "gateway 127.0.0.1:" + std::to_string(server.port()) +
                                 " refused the request to 0x0999: NACK 0x03 (" +
                                 diag_nack_name(0x03) + ")");
}

TEST_F(DoipClientTest, aliveChecksAreAnsweredWhileIdleAndWhileWaiting) {
    ScriptedEntity server(entity([](const DiagnosticMessage &, int) {
        // Ask for an alive check before the answer: the client must reply.
        return std::vector<Bytes>{ack(), encode_alive_check_request(), answer({0x51, 0x01})};
    }));
    auto connection = std::make_shared<DoipConnection>(options(server));
    DoipLink link(connection, kEcu);
    ASSERT_TRUE(uds_request(link, {0x11, 0x01}, timing()).answered);
    server.send_now(encode_alive_check_request());  // idle now
    auto responses = [&] {
        int count = 0;
        for (const Message &message : server.received()) {
            if (message.payload_type == payload::kAliveCheckResponse) {
                EXPECT_EQ(parse_alive_check_response(message).value_or(0), kTester);
                ++count;
            }
        }
        return count;
    };
    for (int i = 0; i < 400 && responses() < 2; ++i)
        std::this_thread::sleep_for(Millis(5));
    EXPECT_EQ(connection->alive_checks_answered(), 2);
    EXPECT_EQ(responses(), 2);
}

// The first request's connection drops after the ACK: that request fails and
// is not sent again; the next request connects, activates and succeeds.
TEST_F(DoipClientTest, aDropMidRequestFailsItAndTheNextRequestReconnects) {
    ScriptedEntity server(entity([](const DiagnosticMessage &, int connection) {
        if (connection == 1)
            return std::vector<Bytes>{ack(), Bytes{}};
        return std::vector<Bytes>{ack(), answer({0x59, 0x02, 0xFF})};
    }));
    auto connection = std::make_shared<DoipConnection>(options(server));
    DoipLink link(connection, kEcu);
    UdsOutcome first = uds_request(link, {0x19, 0x02, 0xFF}, timing());
    EXPECT_FALSE(first.answered);
    EXPECT_EQ(first.error, "the connection to gateway 127.0.0.1:" + std::to_string(server.port()) +
                               " dropped while waiting for the answer of 0x07E0 (closed by the "
                               "gateway); the request is not sent again");
    UdsOutcome second = uds_request(link, {0x19, 0x02, 0xFF}, timing());
    ASSERT_TRUE(second.answered) << second.error;
    EXPECT_EQ(connection->activations(), 2);
    int diagnostic_messages = 0;
    for (const Message &message : server.received())
        diagnostic_messages += message.payload_type == payload::kDiagnosticMessage;
    EXPECT_EQ(diagnostic_messages, 2);
}

TEST_F(DoipClientTest, aRefusedConnectionFailsAtOnce) {
    uint16_t port;
    {
        ScriptedEntity gone([](const Message &, int) { return std::vector<Bytes>{}; });
        port = gone.port();
    }
    DoipOptions refused;
    refused.host = "127.0.0.1";
    refused.port = port;
    DoipLink link(std::make_shared<DoipConnection>(refused), kEcu);
    UdsOutcome outcome = uds_request(link, {0x19, 0x02, 0xFF}, timing());
    EXPECT_FALSE(outcome.answered);
    EXPECT_EQ(outcome.error, "cannot connect to gateway 127.0.0.1:" + std::to_string(port) +
                                 ": Connection refused");
}

TEST_F(DoipClientTest, aGatewayOffThisMachineIsNotContactedUnlessAllowed) {
    DoipOptions remote;
    remote.host = "192.0.2.1";  // documentation range; never contacted
    DoipLink link(std::make_shared<DoipConnection>(remote), kEcu);
    UdsOutcome outcome = uds_request(link, {0x19, 0x02, 0xFF}, timing());
    EXPECT_FALSE(outcome.answered);
    EXPECT_EQ(outcome.error,
              "gateway 192.0.2.1:13400 is not on this machine, and the agent settings do not "
              "allow remote gateways (\"doip\": {\"allow-remote\": true})");
}

TEST_F(DoipClientTest, ecusBehindOneGatewayShareTheConnectionAndWorkInParallel) {
    ScriptedEntity server(entity([](const DiagnosticMessage &request, int) {
        std::this_thread::sleep_for(Millis(50));
        return std::vector<Bytes>{
            ack(request.target),
            answer({0x59, 0x02, static_cast<uint8_t>(request.target)}, request.target)};
    }));
    auto connection = std::make_shared<DoipConnection>(options(server));
    std::vector<std::thread> ecus;
    std::atomic<int> answered{0};
    for (uint16_t ecu : {0x07E0, 0x07E1, 0x07E2}) {
        ecus.emplace_back([&, ecu] {
            DoipLink link(connection, ecu);
            UdsOutcome outcome = uds_request(link, {0x19, 0x02, 0xFF}, timing());
            answered += outcome.answered && outcome.response[2] == (ecu & 0xFF);
        });
    }
    for (std::thread &ecu : ecus)
        ecu.join();
    EXPECT_EQ(answered, 3);
    EXPECT_EQ(server.connections(), 1);
    EXPECT_EQ(connection->activations(), 1);
}

}  // namespace
}  // namespace uozagent
