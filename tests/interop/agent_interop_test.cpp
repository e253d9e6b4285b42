// Our agent against an ECU built on scapy's DoIP and UDS classes
// (scapy_ecu.py): each request parsed and each answer built by the
// independent side, which logs the DoIP bytes it received.
#include <gtest/gtest.h>

#include "diag_agent.h"
#include "processes.h"
#include "transport_links.h"

namespace uozagent {
namespace {

struct InteropCase {
    const char *name;
    const char *ecu;
    const char *request;
    const char *reply;  // a part of the agent's reply
    const char *log;    // a line of the ECU's log
};

const InteropCase kCases[] = {
    {"read_dtc_information", "0x07E0",
     R"("uds":{"SID":"0x19","subfunction":"UDS_REPORT_DTC_BY_STATUS_MASK","data-record":)"
     R"({"type":"STATUS_MASK","record":["UDS_STATUS_MASK_PENDING_DTC","UDS_STATUS_MASK_CONFIRMED_DTC"]}})",
     R"("data-record":[{"phy-req-id":"0x07E0","data":"5902FF0301002F01710008C1000024"}])",
     "02FD8001000000070E8007E019020C: 19020C -> 5902FF0301002F01710008C1000024"},
    {"read_data_by_identifier", "0x07E0", R"("version":{"uds":[{"did":"0xF189"}]})",
     R"("version":"SCAPY-ECU 1.0")",
     "02FD8001000000070E8007E022F189: 22F189 -> 62F18953434150592D45435520312E30"},
    {"routine_start_and_unknown_routine", "0x07E0",
     R"("routine":{"name":"custom_commands","commands":[)"
     R"({"command":"Start","service":"0x31","subfn":"0x01","data":"0xFF00"},)"
     R"({"command":"Other","service":"0x31","subfn":"0x01","data":"0x0202"}]})",
     R"("commands":[{"command":"Start","request":"3101FF00","response":"7101FF0000"},)"
     R"({"command":"Other","request":"31010202","response":"7F3131"}],)"
     R"("error":"Other: negative response 7F3131")",
     ": 31010202 -> 7F3131"},
    {"unknown_target", "0x07E1", R"("version":{"uds":[{"did":"0xF189"}]})",
     "refused the request to 0x07E1: NACK 0x03", "02FD8001000000070E8007E122F189: NACK 0x03"},
};

class ScapyEcuTest : public ::testing::TestWithParam<InteropCase> {};

TEST_P(ScapyEcuTest, exchangesTheExactBytes) {
    int port = uoztest::free_loopback_port();
    uoztest::ChildProcess ecu(
        {"/usr/bin/python3", UOZ_INTEROP_DIR "/scapy_ecu.py", "--port", std::to_string(port)});
    ASSERT_TRUE(ecu.wait_for_output("listening on", 20000)) << ecu.output();
    AgentSettings settings;
    settings.doip_port = static_cast<uint16_t>(port);
    settings.timing.p2 = Millis(2000);
    TransportLinks links(settings);
    DiagAgent agent(settings, links, KeyAlgorithms());
    const InteropCase &row = GetParam();
    std::string reply = agent.answer_query(
        R"({"type":"zelko.skyharbor-query","reply-id":"scapyscapyscapyscapy0001","body":)"
        R"({"mode":"DOIP","targetAddress":")" +
        std::string(row.ecu) + R"(","doip":{"sa":"0x0E80","ta":")" + row.ecu +
        R"(","gw-ip":"127.0.0.1"},)" + row.request + "}}");
    EXPECT_NE(reply.find(row.reply), std::string::npos) << reply;
    EXPECT_NE(ecu.output().find("scapy-ecu: 02FD0005000000070E800000000000: routing activation"),
              std::string::npos)
        << ecu.output();
    EXPECT_NE(ecu.output().find(row.log), std::string::npos) << ecu.output();
}

INSTANTIATE_TEST_SUITE_P(Table, ScapyEcuTest, ::testing::ValuesIn(kCases),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
}  // namespace uozagent
