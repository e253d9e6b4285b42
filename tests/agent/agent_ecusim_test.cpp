// The agent (its DoIP client and query handling, in this process) against
// the ECU simulator (a process of its own on loopback), with the simulator's
// misbehaviour switches. Expected DTC answers come from the simulator's own
// response builder for the same vehicle file, so every byte is compared.
#include <gtest/gtest.h>

#include "UDSOverZelko/read_dtc.h"
#include "broker_fixture.h"
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
        if (simulator_->tls_port() != 0)
            settings_.doip.tls.port = static_cast<uint16_t>(simulator_->tls_port());
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
        return links_->connection({"127.0.0.1", port_, settings_.gateway.tester_address, 0, {}});
    }
    std::string gateway() const { return "gateway 127.0.0.1:" + std::to_string(port_); }
    std::string tls_gateway() const {
        return "gateway 127.0.0.1:" + std::to_string(settings_.doip.tls.port);
    }

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

// Four slow ECUs behind one gateway, and the DoIP ECU of the ECU
// configuration that the settings add: one connection, each answer from its
// own ECU.
TEST_F(AgentEcusimTest, aQueryForAllEcusGetsEveryAnswerInOneReply) {
    settings_.all_ecus_doip = DoipEcuSource::kEcuConfig;
    start({"--slow", "all:300"});
    std::string reply = ask(
        "-1",
        R"("ioc":[)" + can_block("0x7E0", "0x7E8") + "," + can_block("0x7E1", "0x7E9") + "," +
            can_block("0x7E2", "0x7EA") +
            R"(,{"bus-id":"1","func-addr":"0x7DF","phy-req-id":"0x720","phy-resp-id":"0x728"}])",
        uds_of(0x02, 0xFF, 0, 0));
    const char *ecus[] = {"engine", "transmission", "body", "gateway", "telematics"};
    for (size_t i = 0; i < 5; ++i)
        EXPECT_EQ(data_of(reply, i), simulated_answer(ecus[i], 0x02)) << ecus[i];
    EXPECT_TRUE(holds(reply, R"("targetAddress":"-1")"));
    EXPECT_TRUE(holds(reply, R"({"phy-req-id":"0x720","data":"5902FF)")) << reply;
    EXPECT_TRUE(holds(reply, R"({"phy-req-id":"0x1001","data":"5902FF)")) << reply;
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

// "Confirmation required" (0x11) is not a denial: the final answer is waited
// for within the processing time.
TEST_F(AgentEcusimTest, routingActivationWaitsForTheFinalAnswerAfterAConfirmation) {
    const struct {
        const char *confirmed_after;
        Millis processing_time;
        std::string error;
    } cases[] = {
        {"300", Millis(3000), ""},
        {"3000", Millis(300),
         " needed a confirmation (code 0x11), and no final answer came within "
         "300 ms"},
    };
    for (const auto &row : cases) {
        settings_.processing_time = row.processing_time;
        start({"--confirm-routing", row.confirmed_after});
        std::string reply = read_engine(0x01, 0x08);
        if (row.error.empty())
            EXPECT_EQ(data_of(reply), "5901FF010002") << reply;
        else
            EXPECT_TRUE(holds(reply, "routing activation at " + gateway() + row.error)) << reply;
    }
}

// A message above the gateway's size limit gets a generic NACK: the request
// fails at once with its code, not after the acknowledge time.
TEST_F(AgentEcusimTest, aGenericNackFailsTheRequestWithItsCode) {
    settings_.ack_timeout = Millis(8000);
    start();
    std::shared_ptr<DoipConnection> link = connection();
    std::string error;
    const Clock::time_point deadline = Clock::now() + Millis(8000);
    ASSERT_TRUE(link->send(0x07E0, Bytes(70000, 0x22), deadline, &error)) << error;
    Bytes answer;
    bool timed_out = false;
    EXPECT_FALSE(link->receive(0x07E0, deadline, &answer, &error, &timed_out));
    EXPECT_EQ(error, gateway() + " refused the request to 0x07E0: generic NACK 0x02 (" +
                         uozdoip::generic_nack_name(0x02) + ")");
    EXPECT_EQ(data_of(read_engine(0x01, 0x08)), "5901FF010002");  // the connection stays up
}

// A gateway that requires TLS denies plain routing activation with 0x07: the
// agent moves to its TLS port where the settings allow it, and checks the
// gateway's certificate; a failed check says which.
TEST_F(AgentEcusimTest, aGatewayThatRequiresTlsIsReadOverTlsWithItsCertificateChecked) {
    const std::string pki = uoztest::pki_dir(), ca = pki + "/ca/ca.pem";
    const std::string foreign_ca = uoztest::other_pki_dir() + "/ca/ca.pem";
    const std::string failed = "TLS verification of the certificate of {GATEWAY} failed: ";
    const struct {
        std::string entity, ca, error;
    } cases[] = {
        {pki + "/doip/doip-entity", ca, ""},
        {pki + "/doip/doip-entity", foreign_ca,
         failed +
             "unable to get local issuer certificate (the certificate is not from the CA "
             "in " +
             foreign_ca + ")"},
        {pki + "/doip/elsewhere", ca,
         failed + "IP address mismatch (the certificate does not name 127.0.0.1)"},
        {pki + "/doip/expired", ca, failed + "certificate has expired"},
    };
    for (const auto &row : cases) {
        settings_.doip.tls.use = TlsUse::kWhenRequired;
        settings_.doip.tls.files.ca = row.ca;
        start({"--tls", row.entity, "--tls-port", "0", "--require-tls"});
        std::string reply = read_engine(0x01, 0x08);
        if (row.error.empty()) {
            EXPECT_EQ(data_of(reply), "5901FF010002") << reply;
            EXPECT_TRUE(connection()->over_tls());
            EXPECT_EQ(connection()->version(), uozdoip::kVersion2019);
            continue;
        }
        std::string error = row.error;
        error.replace(error.find("{GATEWAY}"), 9, tls_gateway());
        for (size_t slash = error.find('/'); slash != std::string::npos;
             slash = error.find('/', slash + 2))
            error.insert(slash, "\\");  // as JSON writes it
        EXPECT_TRUE(holds(reply, R"("error":"engine (0x7E0): )" + error + "\"")) << reply;
    }
    settings_.doip.tls = DoipTls{};
    start({"--tls", pki + "/doip/doip-entity", "--tls-port", "0", "--require-tls"});
    std::string plain_only = read_engine(0x01, 0x08);
    EXPECT_TRUE(holds(plain_only, "denied by " + gateway() + ": code 0x07 (" +
                                      uozdoip::routing_code_name(0x07) +
                                      "); the agent settings allow no TLS"))
        << plain_only;
}

// A gateway that asks for the tester's certificate takes central security
// activation (0xE0) with one from its CA, and denies it (0x04) without.
TEST_F(AgentEcusimTest, centralSecurityActivationNeedsTheTestersCertificate) {
    const std::string pki = uoztest::pki_dir();
    for (bool with_certificate : {true, false}) {
        settings_.doip.activation_type = uozdoip::routing::kTypeCentralSecurity;
        settings_.doip.tls.use = TlsUse::kAlways;
        settings_.doip.tls.files = {pki + "/ca/ca.pem",
                                    with_certificate ? pki + "/agent/cert.pem" : "",
                                    with_certificate ? pki + "/agent/private.pem" : ""};
        start({"--tls", pki + "/doip/doip-entity", "--tls-port", "0", "--tls-ca",
               pki + "/ca/ca.pem", "--trace"});
        std::string reply = read_engine(0x01, 0x08);
        if (with_certificate) {
            EXPECT_EQ(data_of(reply), "5901FF010002") << reply;
            EXPECT_TRUE(holds(simulator_->output(), "tester certificate checked"));
        } else {
            EXPECT_TRUE(holds(reply, "denied by " + tls_gateway() + ": code 0x04 (" +
                                         uozdoip::routing_code_name(0x04) + ")"))
                << reply;
        }
    }
}

// A gateway whose power mode is not ready gets no diagnostics when the
// settings ask for the check; without the check they go ahead.
TEST_F(AgentEcusimTest, powerModeNotReadyRefusesDiagnosticsWhenChecked) {
    settings_.power_mode.enabled = true;
    start({"--power-mode", "not-ready"});
    std::string refused = read_engine(0x02);
    EXPECT_TRUE(holds(refused, R"("error":"engine (0x7E0): )" + gateway() +
                                   " reports power mode not ready: no diagnostics sent\""))
        << refused;
    EXPECT_EQ(connection()->activations(), 0);
    settings_.power_mode.enabled = false;
    start({"--power-mode", "not-ready"});
    EXPECT_EQ(data_of(read_engine(0x02)), simulated_answer("engine", 0x02));
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

// The first read times out (P2 1 s, the ECU answers after 1.5 s); the
// second, sent at once, must never be given the first one's late answer.
TEST_F(AgentEcusimTest, aLateAnswerIsNeverGivenToTheNextRequest) {
    start({"--slow", "0x7E0:1500", "--trace"});
    std::string first = read_engine(0x02, 0xFF);
    EXPECT_TRUE(holds(first, "no answer from the ECU within 1000 ms")) << first;
    std::string second = read_engine(0x02, 0x08);
    const std::string own = simulated_answer("engine", 0x02, 0x08);
    ASSERT_NE(own, simulated_answer("engine", 0x02, 0xFF));
    if (!holds(second, R"("error":"engine (0x7E0): no answer from the ECU within 1000 ms")")) {
        EXPECT_EQ(data_of(second), own) << second;
    }
}

// A routine whose commands ask for no positive answer succeeds on silence.
TEST_F(AgentEcusimTest, suppressedPositiveAnswersAreSuccess) {
    start();
    std::string reply = ask_engine(R"("routine":{"name":"custom_commands","commands":[)"
                                   R"({"command":"Extended","service":"0x10","subfn":"0x83"},)"
                                   R"({"command":"KeepAlive","service":"0x3E","subfn":"0x80"}]})");
    EXPECT_FALSE(holds(reply, "\"error\"")) << reply;
    EXPECT_TRUE(holds(reply, R"({"command":"KeepAlive","request":"3E80","response":""})")) << reply;
}

// The ECU ends its session 2 s after the last request (S3); the agent keeps
// it with a TesterPresent every 500 ms, so a routine 2.5 s later needs
// neither the session nor the seed and key again.
TEST_F(AgentEcusimTest, aKeptSessionServesTheNextQueryWithoutOpeningItAgain) {
    settings_.sessions.keep = Millis(10000);
    settings_.sessions.interval = Millis(500);
    // A silent TesterPresent holds the ECU for P2: a short one keeps them
    // 0.5 s apart, well within S3 on a busy machine too.
    settings_.timing.p2 = Millis(200);
    start({"--s3", "2000", "--trace"});
    const std::string learn =
        R"("routine":{"name":"custom_commands","commands":[{"command":"LearnIdle",)"
        R"("service":"0x31","subfn":"0x01","data":"0xFF02"}],"security_access":{"level":"0x01"}})";
    std::string first = ask_engine(learn);
    EXPECT_TRUE(holds(first, R"("command":"DiagnosticSessionControl","request":"1003")")) << first;
    std::this_thread::sleep_for(Millis(2500));
    std::string second = ask_engine(learn);
    EXPECT_FALSE(holds(second, "\"error\"")) << second;
    EXPECT_TRUE(holds(second, R"("commands":[{"command":"LearnIdle","request":"3101FF02",)"
                              R"("response":"7101FF02)"))
        << second;
    EXPECT_TRUE(holds(simulator_->output(), "engine (0x07E0) <- 3E 80"));
}

// An idle connection: the gateway closes it after 400 ms (the agent sees
// that at once and the next query connects again), the agent keeps it open
// with a keep-alive every 150 ms, or closes it itself after 200 ms.
TEST_F(AgentEcusimTest, anIdleConnectionIsKeptOrClosedAndNeverFoundDead) {
    const struct {
        Millis keep_alive, close_after;
        const char *gateway_idle;
        int activations;
        const char *trace;
    } cases[] = {
        {Millis(0), Millis(240000), "400", 2, "idle for too long: closing"},
        {Millis(150), Millis(0), "400", 1, "functional (0xE400) <- 3E 80"},
        {Millis(0), Millis(200), "300000", 2, "connection closed by the tester"},
    };
    for (const auto &row : cases) {
        settings_.doip.idle.keep_alive = row.keep_alive;
        settings_.doip.idle.close_after = row.close_after;
        start({"--idle-close", row.gateway_idle, "--trace"});
        EXPECT_EQ(data_of(read_engine(0x01, 0x08)), "5901FF010002");
        for (int i = 0; i < 100 && connection()->connected(); ++i)
            std::this_thread::sleep_for(Millis(10));
        // Closed: seen at once. Kept: still open after 1 s, beyond the gateway's 400 ms.
        EXPECT_EQ(connection()->connected(), row.activations == 1) << row.trace;
        EXPECT_EQ(data_of(read_engine(0x01, 0x08)), "5901FF010002") << row.trace;
        EXPECT_EQ(connection()->activations(), row.activations) << row.trace;
        EXPECT_TRUE(holds(simulator_->output(), row.trace)) << simulator_->output();
    }
}

// The routing gateway named by VIN or EID instead of an address: found by
// vehicle identification among two entities of one vehicle (both answer its
// VIN, one its EID), or a clear reason.
TEST_F(AgentEcusimTest, theGatewayIsFoundByVinOrEid) {
    const struct {
        GatewayIdentity identity;
        const char *found_at;  // "": either; nullptr: none answers
    } cases[] = {
        {{"WZL00000000000001", ""}, ""},
        {{"", "020000001100"}, "127.0.0.2"},
        {{"WZL00000000000099", ""}, nullptr},
    };
    for (const auto &row : cases) {
        settings_.discovery.wait = Millis(300);
        start({"--entity", "127.0.0.2:0,0x1100"});
        const std::string output = simulator_->output();
        const size_t second = output.find("listening on 127.0.0.2:");
        ASSERT_NE(second, std::string::npos) << output;
        const std::string other_port = std::to_string(atoi(output.c_str() + second + 23));
        settings_.discovery.to = {"127.0.0.1:" + std::to_string(port_), "127.0.0.2:" + other_port};
        settings_.gateway.identity = row.identity;
        settings_.gateway.host = row.identity.text();
        links_ = std::make_unique<TransportLinks>(settings_);
        agent_ = std::make_unique<DiagAgent>(settings_, *links_, KeyAlgorithms());
        std::string reply = read_engine(0x01, 0x08);
        if (row.found_at == nullptr) {
            EXPECT_TRUE(holds(reply, R"("error":"engine (0x7E0): no DoIP entity with VIN )"
                                     R"(WZL00000000000099 answered within 300 ms on 127.0.0.1:)" +
                                         std::to_string(port_) + ", 127.0.0.2:" + other_port))
                << reply;
            continue;
        }
        EXPECT_EQ(data_of(reply), "5901FF010002") << reply;
        const int here = links_->connection({"127.0.0.1", port_, 0x0E80, 0, {}})->activations();
        const int there =
            links_
                ->connection(
                    {"127.0.0.2", static_cast<uint16_t>(std::stoi(other_port)), 0x0E80, 0, {}})
                ->activations();
        EXPECT_EQ(here + there, 1);
        if (*row.found_at != '\0') {
            EXPECT_EQ(there, 1) << row.found_at;
            // Its connection lost, the entity is looked for again.
            simulator_.reset();
            std::this_thread::sleep_for(Millis(400));
            std::string lost = read_engine(0x01, 0x08);
            EXPECT_TRUE(holds(lost, "no DoIP entity with EID 020000001100 answered within 300 ms"))
                << lost;
        }
    }
}

TEST(DoipClientTest, aGatewayOffThisMachineIsNotContactedUnlessAllowed) {
    DoipOptions remote;
    remote.host = "192.0.2.1";  // documentation range; never contacted
    DoipLink link(std::make_shared<DoipConnection>(remote), 0x07E0);
    EcuState state;
    UdsOutcome outcome = uds_request(link, {0x19, 0x02, 0xFF}, UdsTiming{}, state);
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
