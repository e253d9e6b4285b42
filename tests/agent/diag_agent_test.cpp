// Queries in, replies out, over scripted ECU links: the reply shapes the
// library decodes, failures that read as failures, parallel ECUs, routines
// that stop at the first negative answer, and security access.
#include "diag_agent.h"

#include <gtest/gtest.h>

#include "fake_link.h"
#include "kt5Utils/kt5_json.h"

namespace uozagent {
namespace {

std::string query(const std::string &body) {
    return R"({"type":"zelko.skyharbor-query","reply-id":"abcdefghijklmnopqrstuvwx","body":)" +
           body + "}";
}

const std::string kDoipBlock = R"("doip":{"sa":"0x0E80","ta":"0x1001","gw-ip":"127.0.0.1"})";
const std::string kReadDtcs =
    R"("uds":{"SID":"0x19","subfunction":"UDS_REPORT_DTC_BY_STATUS_MASK","data-record":{"type":"STATUS_MASK","record":["UDS_STATUS_MASK_CONFIRMED_DTC"]}})";
const std::string kAllBlocks = R"("can":[
    {"ifname":"can0","func-addr":"0x7DF","phy-req-id":"0x7E0","phy-resp-id":"0x7E8","st-min":"0x00","bsize":"0x00"},
    {"ifname":"can0","func-addr":"0x7DF","phy-req-id":"0x7E1","phy-resp-id":"0x7E9","st-min":"0x00","bsize":"0x00"},
    {"ifname":"can0","func-addr":"0x7DF","phy-req-id":"0x7E2","phy-resp-id":"0x7EA","st-min":"0x00","bsize":"0x00"}])";

class DiagAgentTest : public ::testing::Test {
  protected:
    DiagAgentTest() {
        settings_.timing.p2 = Millis(300);
        settings_.timing.overall = Millis(2000);
    }
    std::string ask(const std::string &body) {
        DiagAgent agent(settings_, links_, keys_);
        return agent.answer_query(query(body));
    }
    // A query to the DoIP ECU 0x1001; `rest` starts with a comma.
    std::string ask_doip(const std::string &rest) {
        return ask(R"({"mode":"DOIP","targetAddress":"0x1001",)" + kDoipBlock + rest);
    }
    AgentSettings settings_;
    FakeLinks links_;
    KeyAlgorithms keys_;
};

TEST_F(DiagAgentTest, aDtcReadAnswersWithTheEcusOwnBytes) {
    auto ecu = links_.add("0x1001");
    ecu->on("190208", {{{0x59, 0x02, 0xFF, 0xD0, 0x01, 0x00, 0x08}}});
    std::string reply = ask_doip("," + kReadDtcs + "}");
    EXPECT_EQ(reply,
              R"({"type":"zelko.skyharbor-query-update","reply-to":"abcdefghijklmnopqrstuvwx",)"
              R"("body":{"targetAddress":"0x1001","uds":{"data-record":[{"phy-req-id":"0x1001",)"
              R"("data":"5902FFD0010008"}]}}})");
}

TEST_F(DiagAgentTest, anUnreachableSingleEcuIsAFailureNotAnEmptyList) {
    auto ecu = links_.add("0x1001");
    ecu->refuse_sending("cannot connect to gateway 127.0.0.1:13400: Connection refused");
    std::string reply = ask_doip("," + kReadDtcs + "}");
    EXPECT_EQ(reply,
              R"({"type":"zelko.skyharbor-query-update","reply-to":"abcdefghijklmnopqrstuvwx",)"
              R"("body":{"targetAddress":"0x1001","error":"0x1001: cannot connect to gateway )"
              R"(127.0.0.1:13400: Connection refused"}})");
}

// Each ECU takes 200 ms to answer: asked in parallel, all three are at work
// at the same time.
TEST_F(DiagAgentTest, aQueryForAllEcusAsksThemInParallelAndKeepsTheirOrder) {
    const Millis slow(200);
    links_.add("0x7E0")->on("190208", {{{0x59, 0x02, 0xFF, 0x03, 0x01, 0x00, 0x2F}, slow}});
    links_.add("0x7E1")->on("190208", {{{0x7F, 0x19, 0x12}, slow}});
    links_.add("0x7E2")->on("190208", {{{0x59, 0x02, 0xFF}, slow}});
    std::string reply =
        ask(R"({"mode":"CAN","targetAddress":"-1",)" + kAllBlocks + "," + kReadDtcs + "}");
    EXPECT_EQ(FakeLink::most_waiting(), 3);
    EXPECT_NE(reply.find(R"("body":{"targetAddress":"-1","uds":{"data-record":[)"
                         R"({"phy-req-id":"0x7E0","data":"5902FF0301002F"},)"
                         R"({"phy-req-id":"0x7E1","data":"7F1912"},)"
                         R"({"phy-req-id":"0x7E2","data":"5902FF"}]}})"),
              std::string::npos)
        << reply;
}

TEST_F(DiagAgentTest, amongSeveralEcusOneThatIsSilentGetsEmptyDataAndTheReason) {
    links_.add("0x7E0")->on("190208", {{{0x59, 0x02, 0xFF}}});
    links_.add("0x7E1");  // never answers
    std::string reply =
        ask(R"({"mode":"CAN","targetAddress":"-1",)" + kAllBlocks + "," + kReadDtcs + "}");
    EXPECT_NE(reply.find(R"({"phy-req-id":"0x7E0","data":"5902FF"},)"
                         R"({"phy-req-id":"0x7E1","data":"","error":"no answer from the ECU )"
                         R"(within 300 ms"},{"phy-req-id":"0x7E2","data":"","error":"no link to )"
                         R"(0x7E2"})"),
              std::string::npos)
        << reply;
}

TEST_F(DiagAgentTest, aRefusedVersionDidIsAFailureWithoutAVersion) {
    links_.add("0x1001")->on("22F189", {{{0x7F, 0x22, 0x31}}});
    std::string reply = ask_doip(R"(,"version":{"uds":[{"did":"0xF189"}]}})");
    EXPECT_EQ(reply.find("\"version\""), std::string::npos) << reply;
    EXPECT_NE(reply.find(R"("error":"0x1001: the ECU refused DID 0xF189: negative response )"
                         R"(7F2231")"),
              std::string::npos)
        << reply;
}

TEST_F(DiagAgentTest, aRoutineRunsItsCommandsInOrderAndStopsAtTheFirstNegativeAnswer) {
    auto ecu = links_.add("0x1001");
    ecu->on("1003", {{{0x50, 0x03, 0x00, 0x32, 0x01, 0xF4}}});
    ecu->on("3101FF00", {{{0x7F, 0x31, 0x33}}});
    std::string reply =
        ask_doip(R"(,"routine":{"name":"custom_commands","commands":[)"
                 R"({"command":"Extended","service":"0x10","subfn":"0x03","data":""},)"
                 R"({"command":"Erase","service":"0x31","subfn":"0x01","data":"0xFF00"},)"
                 R"({"command":"Reset","service":"0x11","subfn":"0x01","data":""}]}})");
    EXPECT_EQ(ecu->sent(), (std::vector<std::string>{"1003", "3101FF00"}));
    EXPECT_NE(reply.find(R"("routine":{"name":"custom_commands","results":[{"ecu":"0x1001",)"
                         R"("response":"7F3133","commands":[)"
                         R"({"command":"Extended","request":"1003","response":"5003003201F4"},)"
                         R"({"command":"Erase","request":"3101FF00","response":"7F3133"}],)"
                         R"("error":"Erase: negative response 7F3133"}]})"),
              std::string::npos)
        << reply;
}

// The ECU announces a P2* of 2 s in its session answer: the next request's
// response-pending wait grows to it although the agent's own P2* is 300 ms.
TEST_F(DiagAgentTest, theTimingAnnouncedByTheEcuIsUsedForTheRestOfTheRoutine) {
    settings_.timing.p2_star = Millis(300);
    settings_.timing.overall = Millis(3000);
    auto ecu = links_.add("0x1001");
    ecu->on("1003", {{{0x50, 0x03, 0x00, 0x32, 0x00, 0xC8}}});  // P2 50 ms, P2* 2000 ms
    ecu->on("3101FF01", {{{0x7F, 0x31, 0x78}}, {{0x71, 0x01, 0xFF, 0x01}, Millis(600)}});
    std::string reply =
        ask_doip(R"(,"routine":{"name":"custom_commands","commands":[)"
                 R"({"command":"Extended","service":"0x10","subfn":"0x03"},)"
                 R"({"command":"SelfTest","service":"0x31","subfn":"0x01","data":"0xFF01"}]}})");
    EXPECT_NE(reply.find(R"("response":"7101FF01")"), std::string::npos) << reply;
    EXPECT_EQ(reply.find("\"error\""), std::string::npos) << reply;
}

// The target address is echoed as the query wrote it.
TEST_F(DiagAgentTest, clearDtcSendsTheGroupOfDtc) {
    links_.add("0x1001")->on("14FFFFFF", {{{0x54}}});
    std::string reply =
        ask(R"({"mode":"DOIP","targetAddress":"0x001001",)" + kDoipBlock +
            R"(,"routine":{"name":"ClearDTC_Routine","commands":[)"
            R"({"command":"ClearDTC","service":"0x14","subfn":"","data":"0xFFFFFF"}]}})");
    EXPECT_NE(reply.find(R"("body":{"targetAddress":"0x001001","routine":{"name":)"
                         R"("ClearDTC_Routine","results":[{"ecu":"0x1001","response":"54")"),
              std::string::npos)
        << reply;
}

TEST_F(DiagAgentTest, aPluggedInAlgorithmIsUsedForItsLevel) {
    keys_.set(0x03, [](uint8_t, const Bytes &seed, Bytes *key, std::string *) {
        *key = {static_cast<uint8_t>(seed[0] ^ 0xFF)};
        return true;
    });
    auto ecu = links_.add("0x1001");
    ecu->on("2703", {{{0x67, 0x03, 0x0F}}});
    ecu->on("2704F0", {{{0x7F, 0x27, 0x35}}});
    std::string reply = ask_doip(R"(,"routine":{"name":"custom_commands","commands":[)"
                                 R"({"command":"Unlock","service":"0x27","subfn":"0x03"},)"
                                 R"({"command":"ReadVIN","service":"0x22","data":"0xF190"}]}})");
    EXPECT_EQ(ecu->sent(), (std::vector<std::string>{"2703", "2704F0"}));
    EXPECT_NE(reply.find(R"("error":"Unlock: negative response 7F2735")"), std::string::npos)
        << reply;
}

TEST_F(DiagAgentTest, theBuiltInAlgorithmRefusesASeedOfAnotherLength) {
    auto ecu = links_.add("0x1001");
    ecu->on("2701", {{{0x67, 0x01, 0x12, 0x34}}});
    std::string reply = ask_doip(R"(,"routine":{"name":"custom_commands","commands":[)"
                                 R"({"command":"Unlock","service":"0x27","subfn":"0x01"}]}})");
    EXPECT_NE(reply.find(R"("error":"the built-in key algorithm takes a 4-byte seed, the ECU sent )"
                         R"x(2 (configure a key algorithm plug-in for level 1)")x"),
              std::string::npos)
        << reply;
}

TEST_F(DiagAgentTest, queriesWithoutSomethingToDoAreAnsweredWithTheReason) {
    links_.add("0x1001");
    EXPECT_NE(
        ask_doip(R"(,"routine":null})").find(R"("error":"the query names no routine to run")"),
        std::string::npos);
    EXPECT_NE(
        ask(R"({"mode":"CAN","targetAddress":"-1","can":[],)" + kReadDtcs + "}")
            .find(
                R"x("error":"the query addresses no ECU the agent can reach (no transport block)")x"),
        std::string::npos);
    DiagAgent agent(settings_, links_, keys_);
    EXPECT_EQ(agent.answer_query(R"({"type":"zelko.external-consent","body":{}})"), "");
    EXPECT_EQ(agent.answer_query("not json"), "");
}

}  // namespace
}  // namespace uozagent
