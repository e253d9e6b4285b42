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

std::string can_block(const char *request_id, const char *response_id) {
    return std::string(R"({"ifname":"can0","func-addr":"0x7DF","phy-req-id":")") + request_id +
           R"(","phy-resp-id":")" + response_id + R"(","st-min":"0x00","bsize":"0x08"})";
}

std::string uds_of(uint32_t report, uint32_t mask, uint32_t dtc, uint8_t record) {
    JsonPtr uds(build_read_dtc_body(report, mask, dtc, record));
    return std::string(R"("uds":)") + json_object_to_json_string(uds.get());
}

// What the simulator's builder answers to the agent's request for the report.
std::string simulated_answer(const char *ecu, uint32_t report, uint32_t mask = 0xFF,
                             uint32_t dtc = 0, uint8_t record = 0) {
    static const uozecusim::VehicleFile vehicle =
        uozecusim::parse_vehicle(uoztest::file_text(UOZ_EXAMPLES "/vehicle.json"));
    JsonPtr uds(build_read_dtc_body(report, mask, dtc, record));
    std::string error;
    Bytes request = read_dtc_request(uds.get(), &error);
    EXPECT_FALSE(request.empty()) << error;
    for (const uozecusim::SimulatedEcu &simulated : vehicle.ecus) {
        if (simulated.name == ecu)
            return hex_text(
                uozecusim::read_dtc_response(simulated, request.data(), request.size()));
    }
    return "no ECU " + std::string(ecu);
}

std::string data_of(const std::string &reply, size_t index = 0) {
    JsonPtr parsed(json_tokener_parse(reply.c_str()));
    json_object *records =
        kt5_json_borrow(parsed.get(), json_type_array, "body", "uds", "data-record", nullptr);
    json_object *data = nullptr;
    if (records == nullptr ||
        !json_object_object_get_ex(json_object_array_get_idx(records, index), "data", &data))
        return "no data in " + reply;
    return json_object_get_string(data);
}

bool holds(const std::string &reply, const std::string &part) {
    return reply.find(part) != std::string::npos;
}

class AgentEcusimTest : public ::testing::Test {
  protected:
    // Starts the simulator with the switches and an agent routing every CAN
    // and IOC ECU through it.
    void start(const std::vector<std::string> &switches = {}) {
        simulator_ = std::make_unique<uoztest::EcuSimulator>(UOZ_ECUSIM_PATH, switches);
        port_ = static_cast<uint16_t>(simulator_->port());
        settings_.learn_ecus(uoztest::file_text(UOZ_EXAMPLES "/ecus.json"));
        settings_.gateway.enabled = true;
        settings_.gateway.all = true;
        settings_.gateway.host = "127.0.0.1";
        settings_.gateway.port = port_;
        settings_.doip_port = port_;
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
        return ask("0x7E0", R"("can":)" + can_block("0x7E0", "0x7E8"), request);
    }
    std::string read_engine(uint32_t report, uint32_t mask = 0xFF, uint32_t dtc = 0,
                            uint8_t record = 0) {
        return ask_engine(uds_of(report, mask, dtc, record));
    }
    std::shared_ptr<DoipConnection> connection() {
        return links_->connection({"127.0.0.1", port_, settings_.gateway.tester_address, 0});
    }
    std::string gateway() const { return "gateway 127.0.0.1:" + std::to_string(port_); }

    AgentSettings settings_;
    uint16_t port_ = 0;
    std::unique_ptr<uoztest::EcuSimulator> simulator_;
    std::unique_ptr<TransportLinks> links_;
    std::unique_ptr<DiagAgent> agent_;
};

TEST_F(AgentEcusimTest, everyReportIsAnsweredWithTheSimulatorsExactBytes) {
    start();
    const struct {
        uint32_t report, mask, dtc;
        uint8_t record;
    } reports[] = {{0x01, 0x08, 0, 0},        {0x02, 0xFF, 0, 0},        {0x03, 0, 0, 0},
                   {0x04, 0, 0x030100, 0x01}, {0x05, 0, 0, 0x01},        {0x06, 0, 0x030100, 0xFF},
                   {0x09, 0, 0x030100, 0},    {0x0A, 0, 0, 0},           {0x0B, 0, 0, 0},
                   {0x0C, 0, 0, 0},           {0x0D, 0, 0, 0},           {0x0E, 0, 0, 0},
                   {0x0F, 0xFF, 0, 0},        {0x10, 0, 0x030100, 0xFF}, {0x11, 0xFF, 0, 0},
                   {0x12, 0xFF, 0, 0},        {0x13, 0xFF, 0, 0},        {0x14, 0, 0, 0},
                   {0x15, 0, 0, 0},           {0x16, 0, 0, 0x01}};
    for (const auto &row : reports) {
        std::string expected =
            simulated_answer("engine", row.report, row.mask, row.dtc, row.record);
        EXPECT_EQ(expected.substr(0, 2), "59") << row.report;
        EXPECT_EQ(data_of(read_engine(row.report, row.mask, row.dtc, row.record)), expected);
    }
    std::string unsupported =
        ask("0x7E1", R"("can":)" + can_block("0x7E1", "0x7E9"), uds_of(0x14, 0, 0, 0));
    EXPECT_EQ(data_of(unsupported), "7F1912");
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
    EXPECT_TRUE(holds(locked, R"("error":"LearnIdle: negative response 7F3133")")) << locked;
    std::string unlocked = ask_engine(R"("routine":{"name":"custom_commands","commands":[)" +
                                      learn + R"(],"security_access":{"level":"0x01"}})");
    EXPECT_FALSE(holds(unlocked, "\"error\"")) << unlocked;
    EXPECT_TRUE(holds(unlocked, R"("command":"SecurityAccess","request":"2701")")) << unlocked;
    EXPECT_TRUE(
        holds(unlocked, R"("command":"LearnIdle","request":"3101FF02","response":"7101FF02)"))
        << unlocked;
}

// Four slow ECUs behind one gateway: one connection, each answer from its own ECU.
TEST_F(AgentEcusimTest, aQueryForAllEcusGetsEveryAnswerInOneReply) {
    start({"--slow", "all:300"});
    std::string reply = ask(
        "-1",
        R"("ioc":[)" + can_block("0x7E0", "0x7E8") + "," + can_block("0x7E1", "0x7E9") + "," +
            can_block("0x7E2", "0x7EA") +
            R"(,{"bus-id":"1","func-addr":"0x7DF","phy-req-id":"0x720","phy-resp-id":"0x728"}])",
        uds_of(0x02, 0xFF, 0, 0));
    const char *ecus[] = {"engine", "transmission", "body", "gateway"};
    for (size_t i = 0; i < 4; ++i)
        EXPECT_EQ(data_of(reply, i), simulated_answer(ecus[i], 0x02)) << ecus[i];
    EXPECT_TRUE(holds(reply, R"("targetAddress":"-1")"));
    EXPECT_TRUE(holds(reply, R"({"phy-req-id":"0x720","data":"5902FF)")) << reply;
    EXPECT_EQ(connection()->activations(), 1);
    EXPECT_EQ(connection()->entity_address(), 0x1000);
}

TEST_F(AgentEcusimTest, splitCoalescedAndUnacknowledgedAnswersAreRead) {
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

// The connection drops, or the answer is cut or has a wrong version pair:
// that request fails with the reason, is not sent again, and the next one
// gets through on a new connection.
TEST_F(AgentEcusimTest, aBrokenAnswerFailsOnlyThatRequest) {
    const struct {
        const char *name;
        const char *reason;
    } cases[] = {{"--drop-mid", "closed by the gateway"},
                 {"--cut-answer", "closed by the gateway"},
                 {"--bad-version", "the gateway sent a header with a wrong protocol version"}};
    for (const auto &row : cases) {
        start({row.name, "1"});
        std::string first = read_engine(0x02);
        EXPECT_TRUE(holds(first, R"("error":"engine (0x7E0): the connection to )" + gateway() +
                                     " dropped while waiting for the answer of 0x07E0 (" +
                                     row.reason + "); the request is not sent again\""))
            << row.name << ": " << first;
        EXPECT_EQ(data_of(read_engine(0x01, 0x08)), "5901FF010002") << row.name;
        EXPECT_EQ(connection()->activations(), 2) << row.name;
    }
}

TEST_F(AgentEcusimTest, deniedRoutingAndANackAreFailuresWithTheirCodes) {
    start({"--deny-routing", "0x00"});
    std::string denied = read_engine(0x02);
    EXPECT_TRUE(holds(denied, R"("error":"engine (0x7E0): routing activation denied by )" +
                                  gateway() + ": code 0x00 (" + uozdoip::routing_code_name(0x00) +
                                  ")\""))
        << denied;
    start();
    std::string nacked =
        ask("0x0999", R"("doip":{"sa":"0x0E80","ta":"0x0999","gw-ip":"127.0.0.1"})",
            R"("version":{"uds":[{"did":"0xF189"}]})");
    EXPECT_TRUE(holds(nacked, gateway() + " refused the request to 0x0999: NACK 0x03 (" +
                                  uozdoip::diag_nack_name(0x03) + ")"))
        << nacked;
}

// The simulator asks for an alive check after 200 ms without traffic: while
// the agent waits for a slow answer, and while it is idle.
TEST_F(AgentEcusimTest, aliveChecksAreAnsweredWhileWaitingAndWhileIdle) {
    start({"--alive-check", "200", "--slow", "0x7E0:500", "--trace"});
    EXPECT_EQ(data_of(read_engine(0x01, 0x08)), "5901FF010002");
    int while_waiting = connection()->alive_checks_answered();
    EXPECT_GE(while_waiting, 1);
    for (int i = 0; i < 300 && connection()->alive_checks_answered() <= while_waiting; ++i)
        std::this_thread::sleep_for(Millis(10));
    EXPECT_GT(connection()->alive_checks_answered(), while_waiting);
    EXPECT_EQ(data_of(read_engine(0x01, 0x08)), "5901FF010002");
    EXPECT_EQ(connection()->activations(), 1);  // the connection stayed up
    EXPECT_TRUE(holds(simulator_->output(), "alive check response from 0x0E80"));
}

TEST_F(AgentEcusimTest, noAcknowledgeInItsTimeFailsTheRequest) {
    settings_.ack_timeout = Millis(200);
    start({"--no-ack", "--slow", "0x7E0:1500"});
    std::string reply = read_engine(0x02);
    EXPECT_TRUE(holds(reply, R"("error":"engine (0x7E0): no acknowledge from )" + gateway() +
                                 " for 0x07E0 within 200 ms\""))
        << reply;
}

// A silent ECU, and a gateway that is not there at all, are answered with a
// failure well within the library's 10 s (the agent's P2 here is 1 s).
TEST_F(AgentEcusimTest, anUnreachableEcuIsAnsweredWithinThreeSeconds) {
    start({"--slow", "0x7E0:6000"});
    auto started = Clock::now();
    std::string silent = read_engine(0x02);
    EXPECT_LT(Clock::now() - started, std::chrono::seconds(3));
    EXPECT_TRUE(holds(silent, R"("error":"engine (0x7E0): no answer from the ECU within 1000 ms")"))
        << silent;
    EXPECT_FALSE(holds(silent, "data-record"));
    simulator_.reset();
    started = Clock::now();
    std::string refused = read_engine(0x02);
    EXPECT_LT(Clock::now() - started, std::chrono::seconds(3));
    EXPECT_TRUE(holds(refused, "cannot connect to " + gateway() + ": Connection refused"))
        << refused;
}

TEST(DoipClientTest, aGatewayOffThisMachineIsNotContactedUnlessAllowed) {
    DoipOptions remote;
    remote.host = "192.0.2.1";  // documentation range; never contacted
    DoipLink link(std::make_shared<DoipConnection>(remote), 0x07E0);
    UdsOutcome outcome = uds_request(link, {0x19, 0x02, 0xFF}, UdsTiming{});
    EXPECT_FALSE(outcome.answered);
    EXPECT_EQ(outcome.error,
              "gateway 192.0.2.1:13400 is not on this machine, and the agent settings do not "
              "allow remote gateways (\"doip\": {\"allow-remote\": true})");
}

// Where the machine has no CAN: each query for a CAN ECU fails at once with
// the reason, and the missing interface is logged once.
TEST_F(AgentEcusimTest, anEcuOnCanIsAClearFailureWhereTheMachineHasNoCan) {
    std::string error;
    if (IsotpLink::open({"can0", 0x7E0, 0x7E8, 0, 8}, AgentSettings(), &error))
        GTEST_SKIP() << "this machine has can0; the failure case does not apply";
    start();
    settings_.gateway.enabled = false;
    agent_ = std::make_unique<DiagAgent>(settings_, *links_, KeyAlgorithms());
    int level = uoz_dbg_level;
    uoz_dbg_level = UOZ_LOG_WARN;
    testing::internal::CaptureStdout();
    for (const char *ifname : {"can0", "can0", "can1"}) {
        std::string block = can_block("0x7E0", "0x7E8");
        block.replace(block.find("can0"), 4, ifname);
        std::string reply =
            ask("0x7E0", R"("can":)" + block, R"("version":{"uds":[{"did":"0xF189"}]})");
        EXPECT_TRUE(holds(reply, std::string(R"("error":"engine (0x7E0): no CAN interface )") +
                                     ifname + " on this machine"))
            << reply;
    }
    std::string log = testing::internal::GetCapturedStdout();
    uoz_dbg_level = level;
    auto count = [&log](const std::string &text) {
        size_t found = 0;
        for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
            ++found;
        return found;
    };
    // One warning per interface, and one per failed query.
    EXPECT_EQ(count("no CAN interface can0 on this machine"), 3u) << log;
    EXPECT_EQ(count("no CAN interface can1 on this machine"), 2u) << log;
}

}  // namespace
}  // namespace uozagent
