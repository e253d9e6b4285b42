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

TEST(ScapyEcuTest, exchangesTheExactBytes) {
    int port = uoztest::free_loopback_port();
    uoztest::ChildProcess ecu(
        {"/usr/bin/python3", UOZ_INTEROP_DIR "/scapy_ecu.py", "--port", std::to_string(port)});
    ASSERT_TRUE(ecu.wait_for_output("listening on", 20000)) << ecu.output();
    AgentSettings settings;
    settings.doip_port = static_cast<uint16_t>(port);
    settings.timing.p2 = Millis(2000);
    TransportLinks links(settings);
    DiagAgent agent(settings, links, KeyAlgorithms());
    for (const uoztest::GoldenCase &row :
         uoztest::golden_cases(UOZ_INTEROP_DIR "/golden/agent_queries.txt")) {
        std::string reply = agent.answer_query(
            R"({"type":"zelko.skyharbor-query","reply-id":"scapyscapyscapyscapy0001","body":)"
            R"({"mode":"DOIP","targetAddress":")" +
            row["ecu"] + R"(","doip":{"sa":"0x0E80","ta":")" + row["ecu"] +
            R"(","gw-ip":"127.0.0.1"},)" + row["request"] + "}}");
        EXPECT_NE(reply.find(row["reply"]), std::string::npos) << row.name << ": " << reply;
        EXPECT_NE(ecu.output().find(row["log"]), std::string::npos) << row.name;
    }
    EXPECT_NE(ecu.output().find("scapy-ecu: 02FD0005000000070E800000000000: routing activation"),
              std::string::npos)
        << ecu.output();
}

}  // namespace
}  // namespace uozagent
