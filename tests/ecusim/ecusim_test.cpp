// uoz-ecusim as a process, over loopback: its DoIP entity, its ECUs and each
// misbehaviour switch, seen from a tester built on the shared framing library.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <map>
#include <thread>

#include "ecusim_support.h"

namespace uoztest {
namespace {

constexpr uint16_t kEngine = 0x07E0;
constexpr uint16_t kTransmission = 0x07E1;
constexpr uint16_t kTelematics = 0x1001;

using uozdoip::Message;

void expect_ack(Tester &tester, uint16_t from) {
    std::optional<Message> message = tester.receive();
    ASSERT_TRUE(message);
    auto ack = uozdoip::parse_diagnostic_ack(*message);
    ASSERT_TRUE(ack) << uozdoip::payload_type_name(message->payload_type);
    EXPECT_FALSE(ack->negative);
    EXPECT_EQ(ack->source, from);
    EXPECT_EQ(ack->target, 0x0E80);
}

Bytes answer_of(const std::optional<Message> &message) {
    if (!message)
        return {};
    auto diagnostic = uozdoip::parse_diagnostic_message(*message);
    return diagnostic ? diagnostic->data : Bytes{};
}

TEST(EcuSimStart, PrintsWhereItListensAndStopsCleanlyOnSigterm) {
    EcuSim sim;
    EXPECT_EQ(sim.stop(SIGTERM), 0);
    std::string output = sim.output();
    EXPECT_NE(output.find("uoz-ecusim: listening on 127.0.0.1:" + std::to_string(sim.port()) +
                          " (TCP and UDP), gateway 0x1000, ECUs: engine 0x07E0, transmission "
                          "0x07E1, body 0x07E2, gateway 0x0020, telematics 0x1001\n"),
              std::string::npos)
        << output;
    EXPECT_NE(output.find("uoz-ecusim: stopped\n"), std::string::npos);
}

TEST(EcuSimStart, StopsOnSigintWhileAnEcuIsBusy) {
    EcuSim sim({"--slow", "all:60000"});
    Tester tester(sim.port());
    ASSERT_TRUE(tester.activate());
    ASSERT_TRUE(tester.request(kEngine, {0x3E, 0x00}));
    expect_ack(tester, kEngine);
    EXPECT_EQ(sim.stop(SIGINT), 0);
    EXPECT_TRUE(tester.closed_by_peer());
}

struct UsageCase {
    std::string name;
    std::vector<std::string> arguments;
    int code;
    std::string error;
};

// Shown in test names and failures instead of the bytes of the object.
void PrintTo(const UsageCase &c, std::ostream *os) {
    *os << c.name;
}

class EcuSimUsage : public ::testing::TestWithParam<UsageCase> {};

TEST_P(EcuSimUsage, ExitsWithItsCodeAndSaysWhy) {
    RunResult result = run_ecusim(GetParam().arguments);
    EXPECT_EQ(result.code, GetParam().code) << result.errors;
    EXPECT_NE(result.errors.find(GetParam().error), std::string::npos) << result.errors;
}

INSTANTIATE_TEST_SUITE_P(
    Table, EcuSimUsage,
    ::testing::Values(
        UsageCase{"version", {"--version"}, 0, "uoz-ecusim 1.0.0"},
        UsageCase{"help", {"--help"}, 0, "--drop-mid"},
        UsageCase{"unknown_option", {"--bogus"}, 2, "--bogus"},
        UsageCase{"bad_listen",
                  {"--listen", "127.0.0.1:99999"},
                  2,
                  "--listen: \"127.0.0.1:99999\" is not ADDR:PORT"},
        UsageCase{"bad_nack", {"--nack", "0x7E1"}, 2, "--nack: \"0x7E1\" is not TARGET:VALUE"},
        UsageCase{"bad_nack_code", {"--nack", "0x7E1:0x100"}, 2, "\"0x100\" is too large"},
        UsageCase{"bad_slow", {"--slow", "0x7E1:fast"}, 2, "\"fast\" is not a number"},
        UsageCase{"drop_zero", {"--drop-mid", "0"}, 2, "requests are counted from 1"},
        UsageCase{"missing_vehicle",
                  {"--vehicle", "/nonexistent.json"},
                  1,
                  "uoz-ecusim: cannot read /nonexistent.json"},
        UsageCase{"unresolvable_host",
                  {"--listen", "no.such.host.invalid:0"},
                  1,
                  "uoz-ecusim: cannot listen on no.such.host.invalid:0"}),
    [](const auto &info) { return info.param.name; });

TEST(EcuSimStartErrors, BadVehicleFileNamesTheFileAndThePlace) {
    TempFile vehicle(R"({"ecus": [{"name": "e", "targetAddress": "0x7E0", "phy-req-id": "1",
                                  "dtcs": [{"code": "0x017100", "status": "0x09"}]}]})");
    RunResult result = run_ecusim({"--vehicle", vehicle.path()});
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.errors, "uoz-ecusim: " + vehicle.path() +
                                 ": ECU \"e\" DTC 0x017100: status 0x09: testFailed without "
                                 "testFailedThisOperationCycle\n");
}

TEST(EcuSimStartErrors, PortInUseIsACannotStart) {
    EcuSim first;
    RunResult result = run_ecusim({"--listen", "127.0.0.1:" + std::to_string(first.port())});
    EXPECT_EQ(result.code, 1);
    EXPECT_NE(result.errors.find("cannot listen on 127.0.0.1:" + std::to_string(first.port()) +
                                 ": Address already in use"),
              std::string::npos)
        << result.errors;
}

class EcuSimTest : public ::testing::Test {
  protected:
    // The simulator ends cleanly and says nothing on stderr, whatever the test did.
    void TearDown() override {
        if (!sim_)
            return;
        tester_.reset();
        EXPECT_EQ(sim_->stop(SIGTERM), 0);
        EXPECT_EQ(sim_->errors(), "");
    }
    void start(const std::vector<std::string> &arguments = {}) {
        sim_ = std::make_unique<EcuSim>(arguments);
        tester_ = std::make_unique<Tester>(sim_->port());
        ASSERT_TRUE(tester_->connected());
    }
    void activated(const std::vector<std::string> &arguments = {}) {
        start(arguments);
        auto response = tester_->activate();
        ASSERT_TRUE(response);
        ASSERT_EQ(response->code, 0x10);
    }
    std::unique_ptr<EcuSim> sim_;
    std::unique_ptr<Tester> tester_;
};

TEST_F(EcuSimTest, RoutingActivationGivesTheGatewayAddress) {
    start();
    auto response = tester_->activate(0x0E80);
    ASSERT_TRUE(response);
    EXPECT_EQ(response->code, 0x10);
    EXPECT_EQ(response->tester, 0x0E80);
    EXPECT_EQ(response->entity, 0x1000);
}

struct DeniedCase {
    std::string name;
    std::vector<std::string> arguments;
    uint16_t source;
    uint8_t type;
    uint8_t code;
};

// Shown in test names and failures instead of the bytes of the object.
void PrintTo(const DeniedCase &c, std::ostream *os) {
    *os << c.name;
}

class EcuSimRoutingDenied : public EcuSimTest, public ::testing::WithParamInterface<DeniedCase> {};

TEST_P(EcuSimRoutingDenied, AnswersTheCodeAndCloses) {
    start(GetParam().arguments);
    auto response = tester_->activate(GetParam().source, GetParam().type);
    ASSERT_TRUE(response);
    EXPECT_EQ(response->code, GetParam().code);
    EXPECT_TRUE(tester_->closed_by_peer());
}

INSTANTIATE_TEST_SUITE_P(
    Table, EcuSimRoutingDenied,
    ::testing::Values(DeniedCase{"switch", {"--deny-routing", "0x04"}, 0x0E80, 0x00, 0x04},
                      DeniedCase{"tls_required", {"--deny-routing", "0x07"}, 0x0E80, 0x00, 0x07},
                      DeniedCase{"unknown_source", {}, 0x0100, 0x00, 0x00},
                      DeniedCase{"unsupported_type", {}, 0x0E80, 0x42, 0x06}),
    [](const auto &info) { return info.param.name; });

TEST_F(EcuSimTest, ActivatingAgainWithTheSameSourceSucceeds) {
    activated();
    EXPECT_EQ(hex_text(tester_->exchange(kEngine, {0x3E, 0x00})), "7E 00");
    auto again = tester_->activate(0x0E80);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->code, 0x10);
    EXPECT_EQ(hex_text(tester_->exchange(kEngine, {0x3E, 0x00})), "7E 00");
}

TEST_F(EcuSimTest, SecondActivationWithAnotherSourceIsRefused) {
    activated();
    auto response = tester_->activate(0x0E81);
    ASSERT_TRUE(response);
    EXPECT_EQ(response->code, 0x02);
    EXPECT_TRUE(tester_->closed_by_peer());
}

TEST_F(EcuSimTest, SeventeenthTesterIsDeniedWhileSixteenAreActive) {
    activated();  // 0x0E80
    std::vector<std::unique_ptr<Tester>> others;
    for (uint16_t source = 0x0E81; source < 0x0E80 + 16; ++source) {
        others.push_back(std::make_unique<Tester>(sim_->port()));
        auto response = others.back()->activate(source);
        ASSERT_TRUE(response);
        ASSERT_EQ(response->code, 0x10) << source;
    }
    Tester one_too_many(sim_->port());
    auto refused = one_too_many.activate(0x0EFF);
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->code, 0x01);
    EXPECT_TRUE(one_too_many.closed_by_peer());
    others.pop_back();  // a tester leaves: its place is free again, once the entity sees it go
    std::optional<uozdoip::RoutingActivationResponse> accepted;
    for (int attempt = 0; attempt < 50 && !(accepted && accepted->code == 0x10); ++attempt) {
        Tester candidate(sim_->port());
        accepted = candidate.activate(0x0EFE);
        if (!accepted || accepted->code != 0x10)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_TRUE(accepted);
    EXPECT_EQ(accepted->code, 0x10);
}

TEST_F(EcuSimTest, DiagnosticMessageBeforeActivationIsNackedAndClosed) {
    start();
    ASSERT_TRUE(tester_->request(kEngine, {0x3E, 0x00}));
    auto message = tester_->receive();
    ASSERT_TRUE(message);
    auto nack = uozdoip::parse_diagnostic_ack(*message);
    ASSERT_TRUE(nack);
    EXPECT_TRUE(nack->negative);
    EXPECT_EQ(nack->code, 0x02);
    EXPECT_TRUE(tester_->closed_by_peer());
}

TEST_F(EcuSimTest, EcusAnswerBehindTheGateway) {
    activated();
    EXPECT_EQ(hex_text(tester_->exchange(kEngine, hex_bytes("22 F189"))),
              "62 F1 89 45 4E 47 2D 32 2E 34 2E 31");
    EXPECT_EQ(hex_text(tester_->exchange(kTelematics, hex_bytes("22 F189"))),
              "62 F1 89 54 43 4D 2D 37 2E 30 2E 30");
    EXPECT_EQ(hex_text(tester_->exchange(kTransmission, hex_bytes("19 14"))), "7F 19 12");
    EXPECT_EQ(hex_text(tester_->exchange(kEngine, hex_bytes("19 01 08"))), "59 01 FF 01 00 02");
    EXPECT_EQ(hex_text(tester_->exchange(kEngine, hex_bytes("10 03"))), "50 03 00 32 01 F4");
    EXPECT_EQ(hex_text(tester_->exchange(kEngine, hex_bytes("27 02 00 00 00 00"))), "7F 27 24");
}

// A request to the functional address reaches every ECU; each answers from
// its own address, and one that does not support it stays silent.
TEST_F(EcuSimTest, FunctionalRequestIsAnsweredByEveryEcuThatSupportsIt) {
    activated();
    ASSERT_TRUE(tester_->request(0xE400, hex_bytes("19 14")));
    auto ack = tester_->receive();
    ASSERT_TRUE(ack);
    EXPECT_EQ(hex_text(uozdoip::encode_message(*ack)), "02 FD 80 02 00 00 00 05 E4 00 0E 80 00");
    std::map<uint16_t, std::string> answers;
    for (int i = 0; i < 4; ++i) {  // five ECUs; the transmission has no report 0x14
        auto message = tester_->receive();
        ASSERT_TRUE(message);
        auto answer = uozdoip::parse_diagnostic_message(*message);
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->target, 0x0E80);
        answers[answer->source] = hex_text(answer->data);
    }
    EXPECT_EQ(answers, (std::map<uint16_t, std::string>{{0x07E0, "59 14 01 13 00 32"},
                                                        {0x07E2, "59 14"},
                                                        {0x0020, "59 14"},
                                                        {0x1001, "59 14"}}));
    EXPECT_FALSE(tester_->receive(300));  // nothing from 0x07E1
}

TEST_F(EcuSimTest, UnknownTargetIsNackedAndTheConnectionStays) {
    activated();
    ASSERT_TRUE(tester_->request(0x0777, {0x3E, 0x00}));
    auto message = tester_->receive();
    ASSERT_TRUE(message);
    EXPECT_EQ(hex_text(uozdoip::encode_message(*message)),
              "02 FD 80 03 00 00 00 05 07 77 0E 80 03");
    EXPECT_EQ(hex_text(tester_->exchange(kEngine, {0x3E, 0x00})), "7E 00");
}

TEST_F(EcuSimTest, NackSwitchRefusesOneTargetWithItsCode) {
    activated({"--nack", "0x7E1:0x06"});
    ASSERT_TRUE(tester_->request(kTransmission, {0x3E, 0x00}));
    auto nack = uozdoip::parse_diagnostic_ack(*tester_->receive());
    ASSERT_TRUE(nack);
    EXPECT_TRUE(nack->negative);
    EXPECT_EQ(nack->source, kTransmission);
    EXPECT_EQ(nack->code, 0x06);
    EXPECT_EQ(hex_text(tester_->exchange(kEngine, {0x3E, 0x00})), "7E 00");
}

TEST_F(EcuSimTest, BadVersionPairGetsGenericNackAndClose) {
    activated();
    ASSERT_TRUE(tester_->send(hex_bytes("02 FC 80 01 00 00 00 06 0E 80 07 E0 3E 00")));
    auto message = tester_->receive();
    ASSERT_TRUE(message);
    EXPECT_EQ(hex_text(uozdoip::encode_message(*message)), "02 FD 00 00 00 00 00 01 00");
    EXPECT_TRUE(tester_->closed_by_peer());
}

TEST_F(EcuSimTest, OversizedMessageGetsGenericNackAndFramingGoesOn) {
    activated();
    Bytes huge = hex_bytes("02 FD 80 01 00 01 00 01");  // one byte above the 64 KiB cap
    huge.resize(huge.size() + 0x10001, 0x3E);
    ASSERT_TRUE(tester_->send(huge));
    auto message = tester_->receive();
    ASSERT_TRUE(message);
    EXPECT_EQ(hex_text(uozdoip::encode_message(*message)), "02 FD 00 00 00 00 00 01 02");
    EXPECT_EQ(hex_text(tester_->exchange(kEngine, {0x3E, 0x00})), "7E 00");
}

TEST_F(EcuSimTest, UnknownPayloadTypeGetsGenericNack) {
    activated();
    ASSERT_TRUE(tester_->send(hex_bytes("02 FD 12 34 00 00 00 00")));
    auto message = tester_->receive();
    ASSERT_TRUE(message);
    EXPECT_EQ(hex_text(uozdoip::encode_message(*message)), "02 FD 00 00 00 00 00 01 01");
}

TEST_F(EcuSimTest, AnswersInTheTestersProtocolVersion) {
    start();
    ASSERT_TRUE(tester_->send(
        uozdoip::encode(uozdoip::RoutingActivationRequest{0x0E80, 0x00, 0, std::nullopt}, 0x03)));
    auto activation = tester_->receive();
    ASSERT_TRUE(activation);
    EXPECT_EQ(activation->version, 0x03);
    ASSERT_TRUE(tester_->send(
        uozdoip::encode(uozdoip::DiagnosticMessage{0x0E80, kEngine, {0x3E, 0x00}}, 0x03)));
    auto ack = tester_->receive();
    ASSERT_TRUE(ack);
    EXPECT_EQ(ack->version, 0x03);
}

// ---- Misbehaviour switches ----

TEST_F(EcuSimTest, CoalescedAckAndAnswerArriveInOneWrite) {
    activated({"--coalesce"});
    ASSERT_TRUE(tester_->request(kEngine, {0x3E, 0x00}));
    // One write of both: the bytes of the ACK and the answer are in the
    // socket together, so one read returns both.
    pollfd wait_for{tester_->fd(), POLLIN, 0};
    ASSERT_EQ(poll(&wait_for, 1, 3000), 1);
    uint8_t buffer[256];
    ssize_t got = recv(tester_->fd(), buffer, sizeof(buffer), 0);
    EXPECT_EQ(hex_text(Bytes(buffer, buffer + (got > 0 ? got : 0))),
              "02 FD 80 02 00 00 00 05 07 E0 0E 80 00 02 FD 80 01 00 00 00 06 07 E0 0E 80 7E 00");
}

TEST_F(EcuSimTest, SplitWritesStillFrameToTheSameMessages) {
    activated({"--split"});
    EXPECT_EQ(hex_text(tester_->exchange(kEngine, hex_bytes("19 02 01"))),
              "59 02 FF 03 01 00 2F 01 71 00 2B");
    EXPECT_EQ(hex_text(tester_->exchange(kEngine, hex_bytes("3E 00"))), "7E 00");
}

TEST_F(EcuSimTest, NoAckSendsTheAnswerAlone) {
    activated({"--no-ack"});
    ASSERT_TRUE(tester_->request(kEngine, {0x3E, 0x00}));
    EXPECT_EQ(hex_text(answer_of(tester_->receive())), "7E 00");
}

TEST_F(EcuSimTest, AckAfterAnswerSendsTheAnswerFirst) {
    activated({"--ack-after-answer"});
    ASSERT_TRUE(tester_->request(kEngine, {0x3E, 0x00}));
    EXPECT_EQ(hex_text(answer_of(tester_->receive())), "7E 00");
    expect_ack(*tester_, kEngine);
}

TEST_F(EcuSimTest, PendingChainPrecedesEveryAnswer) {
    activated({"--pending", "3", "--pending-interval", "60"});
    int pending = 0;
    EXPECT_EQ(hex_text(tester_->exchange(kEngine, hex_bytes("22 F191"), &pending)),
              "62 F1 91 42 33");
    EXPECT_EQ(pending, 3);
}

TEST_F(EcuSimTest, SlowRoutineAnswersResponsePendingFirst) {
    TempFile vehicle(R"({"ecus": [{"name": "e", "targetAddress": "0x7E0", "phy-req-id": "1",
        "routine-control": {"0xFF01": {"start": "01", "results": "00", "duration-ms": 300}}}]})");
    activated({"--vehicle", vehicle.path()});
    int pending = 0;
    EXPECT_EQ(hex_text(tester_->exchange(kEngine, hex_bytes("31 01 FF 01"), &pending)),
              "71 01 FF 01 01");
    EXPECT_EQ(pending, 1);
    EXPECT_EQ(hex_text(tester_->exchange(kEngine, hex_bytes("31 03 FF 01"))), "71 03 FF 01 00");
}

TEST_F(EcuSimTest, DropMidRequestClosesAfterTheAckAndTheNextConnectionWorks) {
    activated({"--drop-mid", "2"});
    EXPECT_EQ(hex_text(tester_->exchange(kEngine, {0x3E, 0x00})), "7E 00");
    ASSERT_TRUE(tester_->request(kEngine, {0x3E, 0x00}));
    expect_ack(*tester_, kEngine);
    EXPECT_TRUE(tester_->closed_by_peer());

    Tester again(sim_->port());
    auto response = again.activate();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->code, 0x10);
    EXPECT_EQ(hex_text(again.exchange(kEngine, {0x3E, 0x00})), "7E 00");
}

TEST_F(EcuSimTest, DropAfterClosesOnceTheAnswerIsOut) {
    activated({"--drop-after", "1"});
    EXPECT_EQ(hex_text(tester_->exchange(kEngine, {0x3E, 0x00})), "7E 00");
    EXPECT_TRUE(tester_->closed_by_peer());
}

TEST_F(EcuSimTest, CutAnswerStopsHalfwayThroughTheMessageAndCloses) {
    activated({"--cut-answer", "1"});
    ASSERT_TRUE(tester_->request(kEngine, hex_bytes("22 F1 89")));
    expect_ack(*tester_, kEngine);
    EXPECT_TRUE(tester_->closed_by_peer());
    // 24 bytes: header, addresses and 12 UDS bytes (62 F1 89 "ENG-2.4.1"); 12 arrived.
    EXPECT_EQ(tester_->buffered(), 12u);
}

TEST_F(EcuSimTest, BadVersionSwitchAnswersWithAWrongVersionPair) {
    activated({"--bad-version", "2"});
    EXPECT_EQ(hex_text(tester_->exchange(kEngine, {0x3E, 0x00})), "7E 00");
    ASSERT_TRUE(tester_->request(kEngine, {0x3E, 0x00}));
    expect_ack(*tester_, kEngine);
    EXPECT_FALSE(tester_->receive());
    EXPECT_EQ(tester_->framing(), uozdoip::FrameReader::Result::kBadVersion);
}

TEST_F(EcuSimTest, SlowEcuDoesNotHoldUpAnotherOnTheSameConnection) {
    activated({"--slow", "0x7E1:800"});
    ASSERT_TRUE(tester_->request(kTransmission, {0x22, 0xF1, 0x89}));
    expect_ack(*tester_, kTransmission);
    ASSERT_TRUE(tester_->request(kEngine, {0x3E, 0x00}));
    expect_ack(*tester_, kEngine);
    auto first = tester_->receive();
    ASSERT_TRUE(first);
    EXPECT_EQ(uozdoip::parse_diagnostic_message(*first)->source, kEngine);
    auto second = tester_->receive();
    ASSERT_TRUE(second);
    EXPECT_EQ(uozdoip::parse_diagnostic_message(*second)->source, kTransmission);
}

TEST_F(EcuSimTest, AliveCheckOfAnIdleTesterThatAnswersKeepsTheConnection) {
    activated({"--alive-check", "200"});
    auto check = tester_->receive();
    ASSERT_TRUE(check);
    EXPECT_EQ(hex_text(uozdoip::encode_message(*check)), "02 FD 00 07 00 00 00 00");
    ASSERT_TRUE(tester_->send(uozdoip::encode_alive_check_response(0x0E80)));
    EXPECT_EQ(hex_text(tester_->exchange(kEngine, {0x3E, 0x00})), "7E 00");
}

TEST_F(EcuSimTest, AliveCheckOfAnIdleTesterThatIsSilentClosesTheConnection) {
    activated({"--alive-check", "200"});
    EXPECT_TRUE(tester_->closed_by_peer());
}

// A second connection for the same tester address: refused while the first
// answers its alive check, accepted once the first stays silent.
TEST_F(EcuSimTest, SameTesterOnASecondConnectionDependsOnTheFirstBeingAlive) {
    activated();
    std::thread answering([&] {
        auto check = tester_->receive();
        if (check && check->payload_type == uozdoip::payload::kAliveCheckRequest)
            tester_->send(uozdoip::encode_alive_check_response(0x0E80));
    });
    Tester second(sim_->port());
    auto refused = second.activate();
    answering.join();
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->code, 0x03);

    Tester third(sim_->port());
    auto accepted = third.activate();  // the first tester does not answer this time
    ASSERT_TRUE(accepted);
    EXPECT_EQ(accepted->code, 0x10);
    EXPECT_EQ(hex_text(third.exchange(kEngine, {0x3E, 0x00})), "7E 00");
    EXPECT_TRUE(tester_->closed_by_peer());
}

TEST_F(EcuSimTest, TracePrintsRequestAndResponseBytesPerEcu) {
    activated({"--trace"});
    EXPECT_EQ(hex_text(tester_->exchange(kEngine, hex_bytes("19 01 08"))), "59 01 FF 01 00 02");
    EXPECT_EQ(sim_->stop(SIGTERM), 0);
    std::string output = sim_->output();
    EXPECT_NE(output.find(": engine (0x07E0) <- 19 01 08\n"), std::string::npos) << output;
    EXPECT_NE(output.find(": engine (0x07E0) -> 59 01 FF 01 00 02\n"), std::string::npos) << output;
    EXPECT_NE(output.find(": routing activation for tester 0x0E80: success\n"), std::string::npos)
        << output;
}

TEST_F(EcuSimTest, S3ReturnsToTheDefaultSession) {
    activated({"--s3", "500"});
    EXPECT_EQ(hex_text(tester_->exchange(kEngine, hex_bytes("10 03"))), "50 03 00 32 01 F4");
    EXPECT_EQ(hex_text(tester_->exchange(kEngine, hex_bytes("22 F186"))), "62 F1 86 03");
    std::this_thread::sleep_for(std::chrono::milliseconds(900));
    EXPECT_EQ(hex_text(tester_->exchange(kEngine, hex_bytes("22 F186"))), "62 F1 86 01");
}

// ---- Vehicle identification over UDP ----

class EcuSimUdp : public ::testing::Test {
  protected:
    void SetUp() override {
        fd_.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        ASSERT_TRUE(fd_.valid());
    }
    void TearDown() override {
        EXPECT_EQ(sim_.stop(SIGTERM), 0);
        EXPECT_EQ(sim_.errors(), "");
    }
    std::optional<Message> ask(const Bytes &datagram) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(sim_.port());
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        sendto(fd_.get(), datagram.data(), datagram.size(), 0,
               reinterpret_cast<sockaddr *>(&address), sizeof(address));
        pollfd wait_for{fd_.get(), POLLIN, 0};
        if (poll(&wait_for, 1, 1000) != 1)
            return std::nullopt;
        uint8_t buffer[512];
        ssize_t got = recv(fd_.get(), buffer, sizeof(buffer), 0);
        uozdoip::FrameReader reader;
        reader.feed(buffer, got > 0 ? static_cast<size_t>(got) : 0);
        Message message;
        if (reader.next(message) != uozdoip::FrameReader::Result::kMessage)
            return std::nullopt;
        return message;
    }
    EcuSim sim_;
    uozdoip::ScopedFd fd_;
};

TEST_F(EcuSimUdp, AnnouncesTheVehicleToAnIdentificationRequest) {
    auto answer = ask(uozdoip::encode(uozdoip::VehicleIdRequest{}));
    ASSERT_TRUE(answer);
    auto announcement = uozdoip::parse_vehicle_announcement(*answer);
    ASSERT_TRUE(announcement);
    EXPECT_EQ(std::string(announcement->vin.begin(), announcement->vin.end()), "WZL00000000000001");
    EXPECT_EQ(announcement->logical_address, 0x1000);
    EXPECT_EQ(hex_text(Bytes(announcement->eid.begin(), announcement->eid.end())),
              "02 00 00 00 10 00");
}

TEST_F(EcuSimUdp, AnswersByVinOrEidOnlyWhenTheyMatch) {
    std::string vin = "WZL00000000000001";
    EXPECT_TRUE(
        ask(uozdoip::encode(uozdoip::VehicleIdRequest{0x0003, Bytes(vin.begin(), vin.end())})));
    EXPECT_TRUE(ask(uozdoip::encode(uozdoip::VehicleIdRequest{0x0002, hex_bytes("020000001000")})));
    EXPECT_FALSE(
        ask(uozdoip::encode(uozdoip::VehicleIdRequest{0x0002, hex_bytes("020000001001")})));
}

TEST_F(EcuSimUdp, EntityStatusPowerModeAndErrors) {
    auto status = ask(hex_bytes("02 FD 40 01 00 00 00 00"));
    ASSERT_TRUE(status);
    EXPECT_EQ(status->payload_type, 0x4002);
    EXPECT_EQ(status->payload.size(), 7u);
    EXPECT_EQ(status->payload[0], 0x00);
    auto power = ask(hex_bytes("02 FD 40 03 00 00 00 00"));
    ASSERT_TRUE(power);
    EXPECT_EQ(hex_text(power->payload), "01");
    auto bad_length = ask(hex_bytes("02 FD 00 02 00 00 00 01 05"));
    ASSERT_TRUE(bad_length);
    EXPECT_EQ(hex_text(uozdoip::encode_message(*bad_length)), "02 FD 00 00 00 00 00 01 04");
    auto bad_version = ask(hex_bytes("05 FA 00 01 00 00 00 00"));
    ASSERT_TRUE(bad_version);
    EXPECT_EQ(hex_text(bad_version->payload), "00");
}

}  // namespace
}  // namespace uoztest
