// uoz-ecusim as a process over loopback: its DoIP entity, its ECUs and each
// misbehaviour switch, byte for byte, seen from a tester built on the shared
// DoIP room. The exchanges of the tables are golden files in golden/.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <thread>

#include "broker_fixture.h"
#include "doip.h"
#include "golden.h"
#include "hex_bytes.h"
#include "hex_text.h"
#include "processes.h"
#include "scoped_fd.h"
#include "stream.h"

namespace uoztest {
namespace {

using Bytes = std::vector<uint8_t>;
using uozdoip::Message;
using Activation = std::optional<uozdoip::RoutingActivationResponse>;

constexpr uint16_t kEngine = 0x07E0;
constexpr uint16_t kTransmission = 0x07E1;
const std::string kGolden = UOZ_ECUSIM_GOLDEN;

std::string spaced(const Bytes &bytes) {
    return uozuds::hex_spaced(bytes.data(), bytes.size());
}

std::string without_spaces(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
    return text;
}

std::vector<std::string> words(const std::string &text) {
    std::istringstream stream(text);
    std::vector<std::string> all;
    for (std::string word; stream >> word;)
        all.push_back(word);
    return all;
}

// The simulator with its stderr apart, so that a test can check it stayed empty.
class EcuSim : public EcuSimulator {
  public:
    explicit EcuSim(const std::vector<std::string> &arguments = {})
        : EcuSimulator(UOZ_ECUSIM_PATH, arguments, ChildProcess::Stderr::kOwnFile) {}
};

// A vehicle file that is removed with the object.
class TempFile {
  public:
    explicit TempFile(const std::string &text)
        : path_("/tmp/ecusim-file-" + std::to_string(getpid()) + "-" + std::to_string(++count_)) {
        std::ofstream(path_) << text;
    }
    ~TempFile() { unlink(path_.c_str()); }
    const std::string &path() const { return path_; }

  private:
    static inline int count_ = 0;
    std::string path_;
};

// A DoIP tester on one TCP connection.
class Tester {
  public:
    explicit Tester(int port) {
        fd_.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(fd_.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    }
    bool send(const Bytes &bytes) { return uozdoip::write_all(fd_.get(), bytes); }
    // The next whole message; nullopt on timeout or close.
    std::optional<Message> receive(int timeout_ms = 3000) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        Message message;
        while (reader_.next(message) != uozdoip::FrameReader::Result::kMessage) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd wait_for{fd_.get(), POLLIN, 0};
            if (left.count() <= 0 || poll(&wait_for, 1, static_cast<int>(left.count())) <= 0 ||
                uozdoip::read_into(fd_.get(), reader_) <= 0)
                return std::nullopt;
        }
        return message;
    }
    // Every byte the simulator writes (hex), and "closed" when it closes the
    // connection: read until the expected text is complete, then until 300 ms
    // pass quietly (3 s while the text is incomplete or a close is expected).
    std::string drain(const std::string &expected = "") {
        Bytes got;
        uint8_t buffer[4096];
        pollfd wait_for{fd_.get(), POLLIN, 0};
        bool closes = expected.find("closed") != std::string::npos;
        auto wait_ms = [&] { return closes || got.size() * 2 < expected.size() ? 3000 : 300; };
        while (poll(&wait_for, 1, wait_ms()) == 1) {
            ssize_t size = recv(fd_.get(), buffer, sizeof(buffer), 0);
            if (size <= 0)
                return uozuds::hex_compact(got.data(), got.size()) + "closed";
            got.insert(got.end(), buffer, buffer + size);
            ++reads_;
        }
        return uozuds::hex_compact(got.data(), got.size());
    }
    bool closed_by_peer() { return matches(drain("closed"), "*closed"); }
    Activation activate(uint16_t source = 0x0E80) {
        send(uozdoip::encode(uozdoip::RoutingActivationRequest{source, 0x00, 0, std::nullopt}));
        std::optional<Message> answer = receive();
        return answer ? uozdoip::parse_routing_activation_response(*answer) : std::nullopt;
    }
    bool request(uint16_t target, const Bytes &uds) {
        return send(uozdoip::encode(uozdoip::DiagnosticMessage{0x0E80, target, uds}));
    }
    // The UDS answer of target after its ACK, response-pending answers
    // skipped and counted; empty on NACK, timeout or close.
    std::string exchange(uint16_t target, const std::string &uds, int *pending = nullptr) {
        Bytes sent = hex_bytes(uds);
        const Bytes kPending = {0x7F, sent[0], 0x78};
        request(target, sent);
        for (std::optional<Message> message = receive(); message; message = receive()) {
            if (message->payload_type == uozdoip::payload::kDiagnosticNack)
                break;
            auto answer = uozdoip::parse_diagnostic_message(*message);
            if (!answer || answer->source != target)
                continue;
            if (answer->data != kPending)
                return spaced(answer->data);
            if (pending != nullptr)
                ++*pending;
        }
        return "";
    }
    int reads() const { return reads_; }

  private:
    uoztools::ScopedFd fd_;
    uozdoip::FrameReader reader_;
    int reads_ = 0;
};

// SIGINT stops it cleanly even while an ECU is at work (SIGTERM ends every
// other test).
TEST(EcuSimStart, PrintsWhereItListensAndStopsCleanlyWhileAnEcuIsBusy) {
    EcuSim sim({"--slow", "all:60000"});
    Tester tester(sim.port());
    ASSERT_TRUE(tester.activate());
    ASSERT_TRUE(tester.request(kEngine, {0x3E, 0x00}));
    EXPECT_EQ(tester.drain("02FD80020000000507E00E8000"), "02FD80020000000507E00E8000");
    EXPECT_EQ(sim.stop(SIGINT), 0);
    EXPECT_TRUE(tester.closed_by_peer());
    EXPECT_EQ(sim.output(), "uoz-ecusim: listening on 127.0.0.1:" + std::to_string(sim.port()) +
                                " (TCP and UDP), gateway 0x1000, ECUs: engine 0x07E0, "
                                "transmission 0x07E1, body 0x07E2, gateway 0x0020, telematics "
                                "0x1001\nuoz-ecusim: stopped\n");
}

// uoz-ecusim run to its end: exit code and what it said.
std::pair<int, std::string> run_ecusim(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), UOZ_ECUSIM_PATH);
    ChildProcess ecusim(arguments, ChildProcess::Stderr::kOwnFile);
    int code = ecusim.wait();
    return {code, ecusim.errors() + ecusim.output()};
}

TEST(EcuSimStart, UsageAndStartErrorsExitWithTheirCodeAndSayWhy) {
    for (const GoldenCase &test :
         golden_cases(kGolden + "/start.txt", {{"VERSION", UOZ_VERSION}})) {
        auto [code, said] = run_ecusim(words(test["args"]));
        EXPECT_EQ(code, std::stoi(test["code"])) << test.name << ": " << said;
        EXPECT_NE(said.find(test["says"]), std::string::npos) << test.name << ": " << said;
    }
    TempFile vehicle(R"({"ecus": [{"name": "e", "targetAddress": "0x7E0", "phy-req-id": "1",
                                  "dtcs": [{"code": "0x017100", "status": "0x09"}]}]})");
    EXPECT_EQ(run_ecusim({"--vehicle", vehicle.path()}),
              std::make_pair(1, "uoz-ecusim: " + vehicle.path() +
                                    ": ECU \"e\" DTC 0x017100: status 0x09: testFailed without "
                                    "testFailedThisOperationCycle\n"));
    EcuSim first;
    auto [code, said] = run_ecusim({"--listen", "127.0.0.1:" + std::to_string(first.port())});
    EXPECT_EQ(code, 1);
    EXPECT_NE(said.find("cannot listen on 127.0.0.1:" + std::to_string(first.port()) +
                        ": Address already in use"),
              std::string::npos)
        << said;
}

class EcuSimTest : public ::testing::Test {
  protected:
    void TearDown() override { finish(); }
    // The simulator ends cleanly and says nothing on stderr, whatever the test did.
    void finish() {
        tester_.reset();
        if (sim_) {
            EXPECT_EQ(sim_->stop(SIGTERM), 0);
            EXPECT_EQ(sim_->errors(), "");
        }
        sim_.reset();
    }
    void start(const std::vector<std::string> &arguments = {}, bool activate = true) {
        sim_ = std::make_unique<EcuSim>(arguments);
        tester_ = std::make_unique<Tester>(sim_->port());
        if (activate) {
            Activation response = tester_->activate();
            ASSERT_TRUE(response);
            ASSERT_EQ(response->code, 0x10);
        }
    }
    std::unique_ptr<EcuSim> sim_;
    std::unique_ptr<Tester> tester_;
};

// Each exchange of golden/doip_scenarios.txt, on a simulator of its own;
// where the connection stays up, it then serves a request as usual.
TEST_F(EcuSimTest, WritesTheExactBytesOfEachScenario) {
    for (const GoldenCase &row : golden_cases(kGolden + "/doip_scenarios.txt")) {
        SCOPED_TRACE(row.name);
        int before = std::stoi(row["before"]);
        start(words(row.has("switches") ? row["switches"] : ""), before >= 0);
        for (int i = 0; i < before; ++i)
            EXPECT_EQ(tester_->exchange(kEngine, "3E 00"), "7E 00");
        ASSERT_TRUE(tester_->send(hex_bytes(row["sent"])));
        int reads_before = tester_->reads();
        std::string written = tester_->drain(without_spaces(row["written"]));
        EXPECT_EQ(written, without_spaces(row["written"]));
        if (row.has("reads")) {
            EXPECT_EQ(tester_->reads() - reads_before, std::stoi(row["reads"]));
        }
        if (before >= 0 && written.find("closed") == std::string::npos) {
            EXPECT_EQ(tester_->exchange(kEngine, "3E 00"), "7E 00");
        }
        finish();
    }
}

TEST_F(EcuSimTest, SeventeenthTesterIsDeniedWhileSixteenAreActive) {
    start();  // 0x0E80
    std::vector<std::unique_ptr<Tester>> others;
    for (uint16_t source = 0x0E81; source < 0x0E80 + 16; ++source) {
        others.push_back(std::make_unique<Tester>(sim_->port()));
        Activation response = others.back()->activate(source);
        ASSERT_TRUE(response);
        ASSERT_EQ(response->code, 0x10) << source;
    }
    Tester one_too_many(sim_->port());
    Activation refused = one_too_many.activate(0x0EFF);
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->code, 0x01);
    EXPECT_TRUE(one_too_many.closed_by_peer());
    others.pop_back();  // a tester leaves: its place is free once the entity sees it go
    Activation accepted;
    for (int attempt = 0; attempt < 50 && !(accepted && accepted->code == 0x10); ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(attempt == 0 ? 0 : 20));
        accepted = Tester(sim_->port()).activate(0x0EFE);
    }
    ASSERT_TRUE(accepted);
    EXPECT_EQ(accepted->code, 0x10);
}

// A request to the functional address reaches every ECU; each answers from
// its own address, and one that does not support it stays silent.
TEST_F(EcuSimTest, FunctionalRequestIsAnsweredByEveryEcuThatSupportsIt) {
    start();
    ASSERT_TRUE(tester_->request(0xE400, hex_bytes("19 14")));
    std::optional<Message> ack = tester_->receive();
    ASSERT_TRUE(ack);
    EXPECT_EQ(spaced(uozdoip::encode_message(*ack)), "02 FD 80 02 00 00 00 05 E4 00 0E 80 00");
    std::map<uint16_t, std::string> answers;
    for (int i = 0; i < 4; ++i) {  // five ECUs; the transmission has no report 0x14
        std::optional<Message> message = tester_->receive();
        ASSERT_TRUE(message);
        auto answer = uozdoip::parse_diagnostic_message(*message);
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->target, 0x0E80);
        answers[answer->source] = spaced(answer->data);
    }
    EXPECT_EQ(answers, (std::map<uint16_t, std::string>{{0x07E0, "59 14 01 13 00 32"},
                                                        {0x07E2, "59 14"},
                                                        {0x0020, "59 14"},
                                                        {0x1001, "59 14"}}));
    EXPECT_FALSE(tester_->receive(300));  // nothing from 0x07E1
}

// Generic NACK 0x02 for a message one byte above the 64 KiB cap; framing
// goes on. A slow ECU does not hold up another on the same connection.
TEST_F(EcuSimTest, OversizedMessagesAndSlowEcusHoldUpNothing) {
    start({"--slow", "0x7E1:800"});
    Bytes huge = hex_bytes("02 FD 80 01 00 01 00 01");
    huge.resize(huge.size() + 0x10001, 0x3E);
    ASSERT_TRUE(tester_->send(huge));
    std::optional<Message> message = tester_->receive();
    ASSERT_TRUE(message);
    EXPECT_EQ(spaced(uozdoip::encode_message(*message)), "02 FD 00 00 00 00 00 01 02");
    ASSERT_TRUE(tester_->request(kTransmission, {0x3E, 0x00}));
    EXPECT_EQ(tester_->drain("02FD80020000000507E10E8000"), "02FD80020000000507E10E8000");
    EXPECT_EQ(tester_->exchange(kEngine, "3E 00"), "7E 00");
    std::optional<Message> slow = tester_->receive();
    ASSERT_TRUE(slow);
    EXPECT_EQ(uozdoip::parse_diagnostic_message(*slow)->source, kTransmission);
}

TEST_F(EcuSimTest, SlowRoutineAnswersResponsePendingFirst) {
    TempFile vehicle(R"({"ecus": [{"name": "e", "targetAddress": "0x7E0", "phy-req-id": "1",
        "routine-control": {"0xFF01": {"start": "01", "results": "00", "duration-ms": 300}}}]})");
    start({"--vehicle", vehicle.path()});
    int pending = 0;
    EXPECT_EQ(tester_->exchange(kEngine, "31 01 FF 01", &pending), "71 01 FF 01 01");
    EXPECT_EQ(pending, 1);
    EXPECT_EQ(tester_->exchange(kEngine, "31 03 FF 01"), "71 03 FF 01 00");
}

// An idle tester is asked whether it is alive: one that answers keeps its
// connection, a silent one loses it.
TEST_F(EcuSimTest, AliveCheckOfAnIdleTester) {
    start({"--alive-check", "200"});
    Tester silent(sim_->port());
    ASSERT_TRUE(silent.activate(0x0E81));
    std::optional<Message> check = tester_->receive();
    ASSERT_TRUE(check);
    EXPECT_EQ(spaced(uozdoip::encode_message(*check)), "02 FD 00 07 00 00 00 00");
    ASSERT_TRUE(tester_->send(uozdoip::encode_alive_check_response(0x0E80)));
    EXPECT_EQ(tester_->exchange(kEngine, "3E 00"), "7E 00");
    EXPECT_TRUE(silent.closed_by_peer());
}

// A second connection for the same tester address: refused while the first
// answers its alive check, accepted once the first stays silent.
TEST_F(EcuSimTest, SameTesterOnASecondConnectionDependsOnTheFirstBeingAlive) {
    start();
    std::thread answering([&] {
        std::optional<Message> check = tester_->receive();
        if (check && check->payload_type == uozdoip::payload::kAliveCheckRequest)
            tester_->send(uozdoip::encode_alive_check_response(0x0E80));
    });
    Activation refused = Tester(sim_->port()).activate();
    answering.join();
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->code, 0x03);
    Tester third(sim_->port());
    Activation accepted = third.activate();  // the first tester does not answer this time
    ASSERT_TRUE(accepted);
    EXPECT_EQ(accepted->code, 0x10);
    EXPECT_EQ(third.exchange(kEngine, "3E 00"), "7E 00");
    EXPECT_TRUE(tester_->closed_by_peer());
}

// The session falls back to the default after S3 without requests; the
// trace shows each request and answer per ECU.
TEST_F(EcuSimTest, S3ReturnsToTheDefaultSessionAndTheTraceShowsTheBytes) {
    start({"--s3", "500", "--trace"});
    EXPECT_EQ(tester_->exchange(kEngine, "10 03"), "50 03 00 32 01 F4");
    EXPECT_EQ(tester_->exchange(kEngine, "22 F186"), "62 F1 86 03");
    std::this_thread::sleep_for(std::chrono::milliseconds(900));
    EXPECT_EQ(tester_->exchange(kEngine, "22 F186"), "62 F1 86 01");
    EXPECT_EQ(sim_->stop(SIGTERM), 0);
    std::string output = sim_->output();
    EXPECT_NE(output.find(": engine (0x07E0) <- 22 F1 86\n"), std::string::npos) << output;
    EXPECT_NE(output.find(": engine (0x07E0) -> 62 F1 86 01\n"), std::string::npos) << output;
    EXPECT_NE(output.find(": routing activation for tester 0x0E80: success\n"), std::string::npos)
        << output;
}

// Vehicle identification, entity status and power mode over UDP: each
// datagram of golden/udp.txt and its answer (or silence).
TEST(EcuSimUdp, AnswersIdentificationStatusAndPowerModeRequests) {
    EcuSim sim;
    uoztools::ScopedFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(sim.port()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const std::string vin = "57 5A 4C 30 30 30 30 30 30 30 30 30 30 30 30 30 31";  // WZL...01
    auto ask = [&](const std::string &datagram) {
        Bytes sent = hex_bytes(datagram);
        sendto(fd.get(), sent.data(), sent.size(), 0, reinterpret_cast<sockaddr *>(&address),
               sizeof(address));
        pollfd wait_for{fd.get(), POLLIN, 0};
        uint8_t buffer[512];
        ssize_t got = poll(&wait_for, 1, 1000) == 1 ? recv(fd.get(), buffer, sizeof(buffer), 0) : 0;
        return spaced(Bytes(buffer, buffer + std::max<ssize_t>(got, 0)));
    };
    for (const GoldenCase &test : golden_cases(kGolden + "/udp.txt", {{"VIN", vin}})) {
        std::string answer = ask(test["sent"]);
        EXPECT_TRUE(matches(answer, test["answer"])) << test.name << ": " << answer;
    }
    // The entity status counts an open connection, and no longer one whose
    // tester has left.
    const std::string status = "02 FD 40 01 00 00 00 00";
    auto open_sockets = [&] { return ask(status).substr(30, 2); };
    auto tester = std::make_unique<Tester>(sim.port());
    ASSERT_TRUE(tester->activate());
    EXPECT_EQ(open_sockets(), "01");
    tester.reset();
    for (int i = 0; i < 100 && open_sockets() != "00"; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(open_sockets(), "00");
    EXPECT_EQ(sim.stop(SIGTERM), 0);
    EXPECT_EQ(sim.errors(), "");
}

// openssl s_client, a TLS peer of its own, checks the TLS port's certificate
// against the CA and speaks DoIP version 0x03 over it: routing activation,
// then a wrong version pair, which the entity answers with generic NACK 0x00
// before it closes. With another CA, the handshake fails on verification.
TEST(EcuSimTls, AnOpensslClientVerifiesTheCertificateAndActivatesRouting) {
    EcuSim sim({"--tls", pki_dir() + "/doip/doip-entity", "--tls-port", "0"});
    ASSERT_NE(sim.tls_port(), 0) << sim.output();
    const std::string sent =
        "\\003\\374\\000\\005\\000\\000\\000\\007\\016\\200"
        "\\000\\000\\000\\000\\000\\003\\000\\000\\000\\000\\000\\000\\000";
    auto s_client = [&](const std::string &ca) {
        ChildProcess client(
            {"/bin/sh", "-c",
             "printf '" + sent + "' | openssl s_client -quiet -verify_return_error -CAfile " + ca +
                 " -verify_ip 127.0.0.1 -connect 127.0.0.1:" + std::to_string(sim.tls_port()) +
                 " 2>/dev/null | od -An -tx1 -v | tr -d ' \\n'; echo"});
        client.wait();
        return client.output();
    };
    EXPECT_EQ(s_client(pki_dir() + "/ca/ca.pem"),
              "03fc0006000000090e8010001000000000"
              "03fc00000000000100\n");
    EXPECT_EQ(s_client(other_pki_dir() + "/ca/ca.pem"), "\n");
    EXPECT_EQ(sim.stop(SIGTERM), 0);
}

}  // namespace
}  // namespace uoztest
