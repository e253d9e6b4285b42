// Our agent against an ECU built on scapy's DoIP and UDS classes
// (scapy_ecu.py): each request parsed and each answer built by the
// independent side, which logs the DoIP bytes it received. The queries are
// golden/agent_queries.txt.
#include <gtest/gtest.h>

#include "diag_agent.h"
#include "golden.h"
#include "processes.h"
#include "transport_links.h"

namespace uozagent {
namespace {

// The scapy ECU on a free port, with an agent of our own aimed at it.
struct ScapyEcu {
    explicit ScapyEcu(const std::vector<std::string> &switches = {})
        : port(uoztest::free_loopback_port()), process(command(port, switches)) {
        ready = process.wait_for_output("listening on", 20000);
        settings.doip_port = static_cast<uint16_t>(port);
        settings.timing.p2 = Millis(2000);
    }
    static std::vector<std::string> command(int port, const std::vector<std::string> &switches) {
        std::vector<std::string> argv = {"/usr/bin/python3", UOZ_INTEROP_DIR "/scapy_ecu.py",
                                         "--port", std::to_string(port)};
        argv.insert(argv.end(), switches.begin(), switches.end());
        return argv;
    }
    std::string ask(DiagAgent &agent, const std::string &ecu, const std::string &request) {
        return agent.answer_query(
            R"({"type":"zelko.skyharbor-query","reply-id":"scapyscapyscapyscapy0001","body":)"
            R"({"mode":"DOIP","targetAddress":")" +
            ecu + R"(","doip":{"sa":"0x0E80","ta":")" + ecu + R"(","gw-ip":"127.0.0.1"},)" +
            request + "}}");
    }
    bool logged(const std::string &line) const {
        return process.output().find(line) != std::string::npos;
    }

    int port;
    uoztest::ChildProcess process;
    bool ready = false;
    AgentSettings settings;
};

TEST(ScapyEcuTest, exchangesTheExactBytes) {
    ScapyEcu ecu;
    ASSERT_TRUE(ecu.ready) << ecu.process.output();
    TransportLinks links(ecu.settings);
    DiagAgent agent(ecu.settings, links, KeyAlgorithms());
    for (const uoztest::GoldenCase &row :
         uoztest::golden_cases(UOZ_INTEROP_DIR "/golden/agent_queries.txt")) {
        std::string reply = ecu.ask(agent, row["ecu"], row["request"]);
        EXPECT_NE(reply.find(row["reply"]), std::string::npos) << row.name << ": " << reply;
        EXPECT_TRUE(ecu.logged(row["log"])) << row.name;
    }
    EXPECT_TRUE(ecu.logged("scapy-ecu: 02FD0005000000070E800000000000: routing activation"))
        << ecu.process.output();
}

// An entity that takes only protocol version 0x03 refuses the default 0x02
// with generic NACK 0x00: the agent tries 0x03 once, then reads the DTCs.
TEST(ScapyEcuTest, anEntityOfVersion3OnlyIsReadAfterOneRetry) {
    ScapyEcu ecu({"--version", "3"});
    ASSERT_TRUE(ecu.ready) << ecu.process.output();
    TransportLinks links(ecu.settings);
    DiagAgent agent(ecu.settings, links, KeyAlgorithms());
    const uoztest::GoldenCase dtcs =
        uoztest::golden_cases(UOZ_INTEROP_DIR "/golden/agent_queries.txt").front();
    std::string reply = ecu.ask(agent, dtcs["ecu"], dtcs["request"]);
    EXPECT_NE(reply.find(dtcs["reply"]), std::string::npos) << reply;
    for (const char *line : {"02FD0005000000070E800000000000: generic NACK 0x00",
                             "03FC0005000000070E800000000000: routing activation",
                             "03FC8001000000070E8007E019020C: 19020C -> 5902FF"})
        EXPECT_TRUE(ecu.logged(line)) << line << "\n" << ecu.process.output();
    EXPECT_EQ(
        links.connection({"127.0.0.1", static_cast<uint16_t>(ecu.port), 0x0E80, 0, {}})->version(),
        0x03);
}

}  // namespace
}  // namespace uozagent
