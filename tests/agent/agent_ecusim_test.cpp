// The agent (its DoIP client and query handling, in this process) against
// the ECU simulator (a process of its own on loopback), with the simulator's
// misbehaviour switches. Expected DTC answers come from the simulator's own
// response builder for the same vehicle file, so every byte is compared.
#include <gtest/gtest.h>

#include "UDSOverZelko/read_dtc.h"
#include "diag_agent.h"
#include "file_text.h"
#include "isotp_link.h"
#include "kt5Utils/kt5_json.h"
#include "processes.h"
#include "read_dtc.h"
#include "transport_links.h"
#include "udsoverzelko.h"

namespace uozagent {
namespace {

const char kEngine[] = "0x7E0";

std::string can_block(const char *request_id, const char *response_id) {
    return std::string(R"({"ifname":"can0","func-addr":"0x7DF","phy-req-id":")") + request_id +
           R"(","phy-resp-id":")" + response_id + R"(","st-min":"0x00","bsize":"0x08"})";
}

class AgentEcusimTest : public ::testing::Test {
  protected:
    // Starts the simulator with the switches and an agent routing every CAN
    // and IOC ECU through it.
    void start(const std::vector<std::string> &switches = {}) {
        simulator_ = std::make_unique<uoztest::EcuSimulator>(UOZ_ECUSIM_PATH, switches);
        settings_.learn_ecus(uoztest::file_text(UOZ_EXAMPLES "/ecus.json"));
        settings_.gateway.enabled = true;
        settings_.gateway.all = true;
        settings_.gateway.host = "127.0.0.1";
        settings_.gateway.port = static_cast<uint16_t>(simulator_->port());
        settings_.doip_port = static_cast<uint16_t>(simulator_->port());
        links_ = std::make_unique<TransportLinks>(settings_);
        agent_ = std::make_unique<DiagAgent>(settings_, *links_, KeyAlgorithms());
    }
    std::string ask(const std::string &target, const std::string &blocks,
                    const std::string &request) {
        return agent_->answer_query(
            R"({"type":"zelko.skyharbor-query","reply-id":"ecusimecusimecusimecusim","body":)"
            R"({"mode":"CAN","targetAddress":")" +
            target + R"(",)" + blocks + "," + request + "}}");
    }
    std::string ask_engine(const std::string &request) {
        return ask(kEngine, R"("can":)" + can_block("0x7E0", "0x7E8"), request);
    }
    std::string read_engine(uint32_t report, uint32_t mask = 0xFF, uint32_t dtc = 0,
                            uint8_t record = 0) {
        JsonPtr uds(build_read_dtc_body(report, mask, dtc, record));
        return ask_engine(std::string(R"("uds":)") + json_object_to_json_string(uds.get()));
    }
    std::shared_ptr<DoipConnection> connection() {
        return links_->connection({"127.0.0.1", static_cast<uint16_t>(simulator_->port()),
                                   settings_.gateway.tester_address, 0});
    }

    AgentSettings settings_;
    std::unique_ptr<uoztest::EcuSimulator> simulator_;
    std::unique_ptr<TransportLinks> links_;
    std::unique_ptr<DiagAgent> agent_;
};

std::string data_of(const std::string &reply) {
    JsonPtr parsed(json_tokener_parse(reply.c_str()));
    json_object *records =
        kt5_json_borrow(parsed.get(), json_type_array, "body", "uds", "data-record", nullptr);
    if (records == nullptr || json_object_array_length(records) == 0)
        return "no data in " + reply;
    json_object *data = nullptr;
    json_object_object_get_ex(json_object_array_get_idx(records, 0), "data", &data);
    return json_object_get_string(data);
}

struct ReportCase {
    uint32_t report, mask, dtc;
    uint8_t record;
};

class EveryReportTest : public AgentEcusimTest, public ::testing::WithParamInterface<ReportCase> {};

TEST_P(EveryReportTest, isAnsweredWithTheSimulatorsExactBytes) {
    start();
    const ReportCase &row = GetParam();
    std::string error;
    JsonPtr uds(build_read_dtc_body(row.report, row.mask, row.dtc, row.record));
    Bytes request = read_dtc_request(uds.get(), &error);
    ASSERT_FALSE(request.empty()) << error;
    uozecusim::VehicleFile vehicle =
        uozecusim::parse_vehicle(uoztest::file_text(UOZ_EXAMPLES "/vehicle.json"));
    const uozecusim::SimulatedEcu *engine = nullptr;
    for (const uozecusim::SimulatedEcu &ecu : vehicle.ecus)
        engine = ecu.name == "engine" ? &ecu : engine;
    ASSERT_NE(engine, nullptr);
    std::string expected =
        hex_text(uozecusim::read_dtc_response(*engine, request.data(), request.size()));
    EXPECT_EQ(data_of(read_engine(row.report, row.mask, row.dtc, row.record)), expected);
    EXPECT_EQ(expected.substr(0, 2), "59");
}

INSTANTIATE_TEST_SUITE_P(
    Engine, EveryReportTest,
    ::testing::Values(ReportCase{0x01, 0x08, 0, 0}, ReportCase{0x02, 0xFF, 0, 0},
                      ReportCase{0x03, 0, 0, 0}, ReportCase{0x04, 0, 0x030100, 0x01},
                      ReportCase{0x05, 0, 0, 0x01}, ReportCase{0x06, 0, 0x030100, 0xFF},
                      ReportCase{0x09, 0, 0x030100, 0}, ReportCase{0x0A, 0, 0, 0},
                      ReportCase{0x0B, 0, 0, 0}, ReportCase{0x0C, 0, 0, 0},
                      ReportCase{0x0D, 0, 0, 0}, ReportCase{0x0E, 0, 0, 0},
                      ReportCase{0x0F, 0xFF, 0, 0}, ReportCase{0x10, 0, 0x030100, 0xFF},
                      ReportCase{0x11, 0xFF, 0, 0}, ReportCase{0x12, 0xFF, 0, 0},
                      ReportCase{0x13, 0xFF, 0, 0}, ReportCase{0x14, 0, 0, 0},
                      ReportCase{0x15, 0, 0, 0}, ReportCase{0x16, 0, 0, 0x01}));

TEST_F(AgentEcusimTest, anUnsupportedReportIsTheEcusNegativeResponse) {
    start();
    JsonPtr uds(build_read_dtc_body(0x14, 0, 0, 0));
    std::string reply = ask("0x7E1", R"("can":)" + can_block("0x7E1", "0x7E9"),
                            std::string(R"("uds":)") + json_object_to_json_string(uds.get()));
    EXPECT_EQ(data_of(reply), "7F1912");
}

TEST_F(AgentEcusimTest, theVersionIsReadByDid) {
    start();
    std::string reply = ask_engine(
        R"("version":{"uds":[{"did":"0xF189","name":"software version"},{"did":"0xF191","name":"hardware version"}]})");
    EXPECT_NE(reply.find(R"("version":"software version: ENG-2.4.1, hardware version: B3")"),
              std::string::npos)
        << reply;
}

TEST_F(AgentEcusimTest, clearDtcEmptiesTheEcusMemory) {
    start();
    std::string reply = ask_engine(
        R"("routine":{"name":"ClearDTC_Routine","commands":[{"command":"ClearDTC","service":"0x14","subfn":"","data":"0xFFFFFF"}]})");
    EXPECT_NE(reply.find(R"("results":[{"ecu":"engine","response":"54")"), std::string::npos)
        << reply;
    EXPECT_EQ(data_of(read_engine(0x02)), "5902FF");
}

TEST_F(AgentEcusimTest, aPredefinedRoutineRunsAsConfigured) {
    start();
    std::string reply = ask_engine(
        R"("routine":{"name":"ReadVIN","commands":[{"command":"ReadDataByIdentifier","service":"0x22","subfn":"","data":"0xF190"}]})");
    EXPECT_NE(reply.find(R"("response":"62F190575A4C3030303030303030303030303031")"),
              std::string::npos)
        << reply;
}

// Learning idle speed needs level 1: refused without security access, run
// after the seed and key exchange with the built-in algorithm.
TEST_F(AgentEcusimTest, securityAccessUnlocksAProtectedRoutine) {
    start();
    const std::string learn =
        R"({"command":"LearnIdle","service":"0x31","subfn":"0x01","data":"0xFF02"})";
    std::string locked = ask_engine(
        R"("routine":{"name":"custom_commands","commands":[{"command":"Extended","service":"0x10","subfn":"0x03"},)" +
        learn + "]}");
    EXPECT_NE(locked.find(R"("error":"LearnIdle: negative response 7F3133")"), std::string::npos)
        << locked;
    std::string unlocked = ask_engine(R"("routine":{"name":"custom_commands","commands":[)" +
                                      learn + R"(],"security_access":{"level":"0x01"}})");
    EXPECT_EQ(unlocked.find("\"error\""), std::string::npos) << unlocked;
    EXPECT_NE(unlocked.find(R"("command":"SecurityAccess","request":"2701")"), std::string::npos)
        << unlocked;
    EXPECT_NE(unlocked.find(R"("command":"LearnIdle","request":"3101FF02","response":"7101FF02)"),
              std::string::npos)
        << unlocked;
}

TEST_F(AgentEcusimTest, aQueryForAllEcusGetsEveryAnswerInOneReply) {
    start({"--slow", "all:300", "--trace"});
    JsonPtr uds(build_read_dtc_body(0x02, 0xFF, 0, 0));
    std::string reply = ask(
        "-1",
        R"("ioc":[)" + can_block("0x7E0", "0x7E8") + "," + can_block("0x7E1", "0x7E9") + "," +
            can_block("0x7E2", "0x7EA") +
            R"(,{"bus-id":"1","func-addr":"0x7DF","phy-req-id":"0x720","phy-resp-id":"0x728"}])",
        std::string(R"("uds":)") + json_object_to_json_string(uds.get()));
    for (const char *ecu : {"0x7E0", "0x7E1", "0x7E2", "0x720"}) {
        EXPECT_NE(reply.find(std::string(R"({"phy-req-id":")") + ecu + R"(","data":"5902FF)"),
                  std::string::npos)
            << ecu << " in " << reply;
    }
    EXPECT_NE(reply.find(R"("targetAddress":"-1")"), std::string::npos);
    EXPECT_EQ(connection()->activations(), 1);  // one connection for all four
}

TEST_F(AgentEcusimTest, splitAndCoalescedFramesAreRead) {
    for (const char *framing : {"--split", "--coalesce", "--ack-after-answer", "--no-ack"}) {
        start({framing});
        EXPECT_EQ(data_of(read_engine(0x01, 0x08)), "5901FF010002") << framing;
    }
}

TEST_F(AgentEcusimTest, aResponsePendingChainLongerThanP2IsWaitedFor) {
    settings_.timing.p2 = Millis(150);
    start({"--pending", "4", "--pending-interval", "100"});  // 500 ms in all
    EXPECT_EQ(data_of(read_engine(0x01, 0x08)), "5901FF010002");
}

TEST_F(AgentEcusimTest, aDropMidRequestFailsItAndTheNextRequestSucceeds) {
    start({"--drop-mid", "1"});
    std::string first = read_engine(0x02);
    EXPECT_NE(first.find("dropped while waiting for the answer of 0x07E0"), std::string::npos)
        << first;
    EXPECT_EQ(data_of(read_engine(0x01, 0x08)).substr(0, 6), "5901FF");
    EXPECT_EQ(connection()->activations(), 2);
}

// Half an answer then a closed connection, or a header with a wrong version
// pair: the request fails with the reason and the next one gets through on a
// new connection.
TEST_F(AgentEcusimTest, aCutAnswerOrAWrongVersionFailsOnlyThatRequest) {
    const struct {
        const char *name;
        const char *reason;
    } cases[] = {{"--cut-answer", "(closed by the gateway)"},
                 {"--bad-version", "(the gateway sent a header with a wrong protocol version)"}};
    for (const auto &row : cases) {
        start({row.name, "1"});
        std::string first = read_engine(0x02);
        EXPECT_NE(
            first.find(std::string("dropped while waiting for the answer of 0x07E0 ") + row.reason),
            std::string::npos)
            << row.name << ": " << first;
        EXPECT_EQ(data_of(read_engine(0x01, 0x08)), "5901FF010002") << row.name;
        EXPECT_EQ(connection()->activations(), 2) << row.name;
    }
}

TEST_F(AgentEcusimTest, deniedRoutingActivationIsAFailureWithItsCode) {
    start({"--deny-routing", "0x00"});
    std::string reply = read_engine(0x02);
    EXPECT_NE(reply.find(R"("error":"engine (0x7E0): routing activation denied by gateway )"
                         "127.0.0.1:" +
                         std::to_string(simulator_->port()) + ": code 0x00"),
              std::string::npos)
        << reply;
}

TEST_F(AgentEcusimTest, anUnknownTargetAddressIsNacked) {
    start();
    std::string reply = ask("0x0999", R"("doip":{"sa":"0x0E80","ta":"0x0999","gw-ip":"127.0.0.1"})",
                            R"("version":{"uds":[{"did":"0xF189"}]})");
    EXPECT_NE(reply.find("refused the request to 0x0999: NACK 0x03"), std::string::npos) << reply;
}

TEST_F(AgentEcusimTest, aliveChecksAreAnsweredWhileIdle) {
    start({"--alive-check", "200"});
    EXPECT_EQ(data_of(read_engine(0x01, 0x08)).substr(0, 6), "5901FF");
    for (int i = 0; i < 300 && connection()->alive_checks_answered() < 2; ++i)
        std::this_thread::sleep_for(Millis(10));
    EXPECT_GE(connection()->alive_checks_answered(), 2);
    EXPECT_EQ(data_of(read_engine(0x01, 0x08)).substr(0, 6), "5901FF");
    EXPECT_EQ(connection()->activations(), 1);  // the connection stayed up
}

// A silent ECU, and a gateway that is not there at all, are answered with a
// failure well within the library's 10 s (the agent's P2 here is 1 s).
TEST_F(AgentEcusimTest, anUnreachableEcuIsAnsweredWithinThreeSeconds) {
    start({"--slow", "0x7E0:6000"});
    auto started = Clock::now();
    std::string silent = read_engine(0x02);
    EXPECT_LT(Clock::now() - started, std::chrono::seconds(3));
    EXPECT_NE(silent.find(R"("error":"engine (0x7E0): no answer from the ECU within 1000 ms")"),
              std::string::npos)
        << silent;
    EXPECT_EQ(silent.find("data-record"), std::string::npos);
    int port = simulator_->port();
    simulator_.reset();
    started = Clock::now();
    std::string refused = read_engine(0x02);
    EXPECT_LT(Clock::now() - started, std::chrono::seconds(3));
    EXPECT_NE(refused.find("cannot connect to gateway 127.0.0.1:" + std::to_string(port) +
                           ": Connection refused"),
              std::string::npos)
        << refused;
}

TEST_F(AgentEcusimTest, anEcuOnCanIsAClearFailureWhereTheMachineHasNoCan) {
    start();
    settings_.gateway.enabled = false;
    TransportLinks links(settings_);
    DiagAgent direct(settings_, links, KeyAlgorithms());
    std::string error;
    CanAddress can0{"can0", 0x7E0, 0x7E8, 0, 8};
    if (IsotpLink::open(can0, &error))
        GTEST_SKIP() << "this machine has can0; the failure case does not apply";
    std::string reply = direct.answer_query(
        R"({"type":"zelko.skyharbor-query","reply-id":"x","body":{"mode":"CAN","targetAddress":"0x07E0","can":)" +
        can_block("0x7E0", "0x7E8") + R"(,"version":{"uds":[{"did":"0xF189"}]}}})");
    EXPECT_NE(reply.find(R"("error":"engine (0x7E0): no CAN interface can0 on this machine)"),
              std::string::npos)
        << reply;
}

TEST(IsotpTest, aMissingCanInterfaceIsLoggedOncePerInterface) {
    std::string error;
    CanAddress can0{"can0", 0x7E0, 0x7E8, 0, 8};
    if (IsotpLink::open(can0, &error))
        GTEST_SKIP() << "this machine has can0";
    EcuTarget target;
    target.label = "0x7E0";
    target.transport = Transport::kCan;
    target.can = can0;
    TransportLinks links{AgentSettings{}};
    int level = uoz_dbg_level;
    uoz_dbg_level = UOZ_LOG_WARN;
    testing::internal::CaptureStdout();
    for (int i = 0; i < 3; ++i) {
        error.clear();
        EXPECT_EQ(links.link_for(target, &error), nullptr);
        EXPECT_EQ(error.rfind("no CAN interface can0 on this machine", 0), 0u) << error;
    }
    target.can.ifname = "can1";
    links.link_for(target, &error);
    std::string log = testing::internal::GetCapturedStdout();
    uoz_dbg_level = level;
    size_t first = log.find("no CAN interface can0 on this machine");
    EXPECT_NE(first, std::string::npos) << log;
    EXPECT_EQ(log.find("no CAN interface can0", first + 1), std::string::npos) << log;
    EXPECT_NE(log.find("no CAN interface can1 on this machine"), std::string::npos) << log;
}

TEST(IsotpTest, readsAnEcuOverCanWhereTheKernelHasIt) {
    std::string error;
    CanAddress vcan{"vcan0", 0x7E0, 0x7E8, 0, 8};
    std::unique_ptr<IsotpLink> link = IsotpLink::open(vcan, &error);
    if (!link)
        GTEST_SKIP() << "no CAN ISO-TP here: " << error;
    // With vcan0 and can-isotp, a request goes out; nothing answers on a
    // bare vcan, so the wait ends without an answer.
    UdsTiming timing;
    timing.p2 = Millis(100);
    UdsOutcome outcome = uds_request(*link, {0x22, 0xF1, 0x89}, timing);
    EXPECT_FALSE(outcome.answered);
    EXPECT_EQ(outcome.error, "no answer from the ECU within 100 ms");
}

}  // namespace
}  // namespace uozagent
