// Our agent against an ECU built on scapy's DoIP and UDS classes
// (scapy_ecu.py): ReadDTCInformation, ReadDataByIdentifier and a routine,
// each request parsed and each answer built by the independent side.
#include <gtest/gtest.h>

#include "diag_agent.h"
#include "processes.h"
#include "transport_links.h"

namespace uozagent {
namespace {

class ScapyEcuTest : public ::testing::Test {
  protected:
    void SetUp() override {
        port_ = uoztest::free_loopback_port();
        ecu_ = std::make_unique<uoztest::ChildProcess>(std::vector<std::string>{
            "/usr/bin/python3", UOZ_INTEROP_DIR "/scapy_ecu.py", "--port", std::to_string(port_)});
        ASSERT_TRUE(ecu_->wait_for_output("listening on", 20000)) << ecu_->output();
        settings_.doip_port = static_cast<uint16_t>(port_);
        settings_.timing.p2 = Millis(2000);
        links_ = std::make_unique<TransportLinks>(settings_);
        agent_ = std::make_unique<DiagAgent>(settings_, *links_, KeyAlgorithms());
    }
    std::string ask(const std::string &ecu, const std::string &request) {
        return agent_->answer_query(
            R"({"type":"zelko.skyharbor-query","reply-id":"scapyscapyscapyscapy0001","body":)"
            R"({"mode":"DOIP","targetAddress":")" +
            ecu + R"(","doip":{"sa":"0x0E80","ta":")" + ecu + R"(","gw-ip":"127.0.0.1"},)" +
            request + "}}");
    }

    int port_ = 0;
    std::unique_ptr<uoztest::ChildProcess> ecu_;
    AgentSettings settings_;
    std::unique_ptr<TransportLinks> links_;
    std::unique_ptr<DiagAgent> agent_;
};

TEST_F(ScapyEcuTest, readDtcInformationByStatusMask) {
    std::string reply = ask(
        "0x07E0",
        R"("uds":{"SID":"0x19","subfunction":"UDS_REPORT_DTC_BY_STATUS_MASK","data-record":)"
        R"({"type":"STATUS_MASK","record":["UDS_STATUS_MASK_PENDING_DTC","UDS_STATUS_MASK_CONFIRMED_DTC"]}})");
    EXPECT_NE(
        reply.find(
            R"("data-record":[{"phy-req-id":"0x07E0","data":"5902FF0301002F01710008C1000024"}])"),
        std::string::npos)
        << reply;
    EXPECT_NE(ecu_->output().find("scapy-ecu: 19020C -> 5902FF0301002F01710008C1000024"),
              std::string::npos)
        << ecu_->output();
}

TEST_F(ScapyEcuTest, readDataByIdentifierForTheVersion) {
    std::string reply = ask("0x07E0", R"("version":{"uds":[{"did":"0xF189"}]})");
    EXPECT_NE(reply.find(R"("version":"SCAPY-ECU 1.0")"), std::string::npos) << reply;
    EXPECT_NE(ecu_->output().find("scapy-ecu: 22F189 -> 62F18953434150592D45435520312E30"),
              std::string::npos)
        << ecu_->output();
}

TEST_F(ScapyEcuTest, aRoutineStartAndAnUnknownRoutine) {
    std::string reply =
        ask("0x07E0", R"("routine":{"name":"custom_commands","commands":[)"
                      R"({"command":"Start","service":"0x31","subfn":"0x01","data":"0xFF00"},)"
                      R"({"command":"Other","service":"0x31","subfn":"0x01","data":"0x0202"}]})");
    EXPECT_NE(reply.find(R"("commands":[{"command":"Start","request":"3101FF00","response":)"
                         R"("7101FF0000"},{"command":"Other","request":"31010202","response":)"
                         R"("7F3131"}],"error":"Other: negative response 7F3131")"),
              std::string::npos)
        << reply;
}

TEST_F(ScapyEcuTest, anUnknownTargetIsRefusedWithNack) {
    std::string reply = ask("0x07E1", R"("version":{"uds":[{"did":"0xF189"}]})");
    EXPECT_NE(reply.find("refused the request to 0x07E1: NACK 0x03"), std::string::npos) << reply;
}

}  // namespace
}  // namespace uozagent
