// Queries in, replies out, over scripted ECU links: the reply shapes the
// library decodes, failures that read as failures, parallel ECUs, routines
// that stop at the first negative answer, and security access. Each test's
// query and exact reply are in golden/diag_agent.txt under its name.
#include "diag_agent.h"

#include <gtest/gtest.h>

#include "fake_link.h"
#include "golden.h"

namespace uozagent {
namespace {

class DiagAgentTest : public ::testing::Test {
  protected:
    DiagAgentTest() {
        settings_.timing.p2 = Millis(300);
        settings_.timing.overall = Millis(2000);
    }
    // The agent's reply to this test's query, checked against the golden one.
    std::string answer() {
        static const std::vector<uoztest::GoldenCase> kCases =
            uoztest::golden_cases(UOZ_AGENT_GOLDEN "/diag_agent.txt");
        std::string name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
        auto test = std::find_if(kCases.begin(), kCases.end(),
                                 [&](const uoztest::GoldenCase &c) { return c.name == name; });
        if (test == kCases.end())
            throw std::runtime_error("no golden case " + name);
        DiagAgent agent(settings_, links_, keys_);
        std::string reply = agent.answer_query(
            R"({"type":"zelko.skyharbor-query","reply-id":"abcdefghijklmnopqrstuvwx","body":)" +
            (*test)["query"] + "}");
        EXPECT_EQ(reply, (*test)["reply"]);
        return reply;
    }
    AgentSettings settings_;
    FakeLinks links_;
    KeyAlgorithms keys_;
};

TEST_F(DiagAgentTest, aDtcReadAnswersWithTheEcusOwnBytes) {
    links_.add("0x1001")->on("190208", {{{0x59, 0x02, 0xFF, 0xD0, 0x01, 0x00, 0x08}}});
    answer();
}

TEST_F(DiagAgentTest, anUnreachableSingleEcuIsAFailureNotAnEmptyList) {
    links_.add("0x1001")->refuse_sending(
        "cannot connect to gateway 127.0.0.1:13400: Connection refused");
    answer();
}

// Each ECU takes 200 ms to answer: asked in parallel, all three are at work
// at the same time, and the reply keeps their order.
TEST_F(DiagAgentTest, aQueryForAllEcusAsksThemInParallelAndKeepsTheirOrder) {
    const Millis slow(200);
    links_.add("0x7E0")->on("190208", {{{0x59, 0x02, 0xFF, 0x03, 0x01, 0x00, 0x2F}, slow}});
    links_.add("0x7E1")->on("190208", {{{0x7F, 0x19, 0x12}, slow}});
    links_.add("0x7E2")->on("190208", {{{0x59, 0x02, 0xFF}, slow}});
    answer();
    EXPECT_EQ(FakeLink::most_waiting(), 3);
}

TEST_F(DiagAgentTest, amongSeveralEcusOneThatIsSilentGetsEmptyDataAndTheReason) {
    links_.add("0x7E0")->on("190208", {{{0x59, 0x02, 0xFF}}});
    links_.add("0x7E1");  // never answers; 0x7E2 has no link
    answer();
}

TEST_F(DiagAgentTest, aRefusedVersionDidIsAFailureWithoutAVersion) {
    links_.add("0x1001")->on("22F189", {{{0x7F, 0x22, 0x31}}});
    answer();
}

// The VIN's size is known, so both DIDs go in one request; an ECU that
// refuses several at once is asked for each.
TEST_F(DiagAgentTest, severalDidsAreReadInOneRequestOrOneEachWhenRefused) {
    Bytes vin = {0x62, 0xF1, 0x90, 'W', 'Z', 'L'};
    vin.insert(vin.end(), 13, '0');
    vin.push_back('1');
    Bytes both = vin;
    both.insert(both.end(), {0xF1, 0x89, 'E', 'N', 'G'});
    auto together = links_.add("0x1001");
    together->on("22F190F189", {{both}});
    answer();
    EXPECT_EQ(together->sent(), std::vector<std::string>{"22F190F189"});
    auto each = links_.add("0x1001");
    each->on("22F190F189", {{{0x7F, 0x22, 0x13}}});
    each->on("22F190", {{vin}});
    each->on("22F189", {{{0x62, 0xF1, 0x89, 'E', 'N', 'G'}}});
    answer();
    EXPECT_EQ(each->sent(), (std::vector<std::string>{"22F190F189", "22F190", "22F189"}));
}

TEST_F(DiagAgentTest, aRoutineRunsItsCommandsInOrderAndStopsAtTheFirstNegativeAnswer) {
    auto ecu = links_.add("0x1001");
    ecu->on("1003", {{{0x50, 0x03, 0x00, 0x32, 0x01, 0xF4}}});
    ecu->on("3101FF00", {{{0x7F, 0x31, 0x33}}});
    answer();
    EXPECT_EQ(ecu->sent(), (std::vector<std::string>{"1003", "3101FF00"}));
}

// The ECU announces a P2* of 2 s in its session answer: the next request's
// response-pending wait grows to it although the agent's own P2* is 300 ms.
TEST_F(DiagAgentTest, theTimingAnnouncedByTheEcuIsUsedForTheRestOfTheRoutine) {
    settings_.timing.p2_star = Millis(300);
    settings_.timing.overall = Millis(3000);
    auto ecu = links_.add("0x1001");
    ecu->on("1003", {{{0x50, 0x03, 0x00, 0x32, 0x00, 0xC8}}});  // P2 50 ms, P2* 2000 ms
    ecu->on("3101FF01", {{{0x7F, 0x31, 0x78}}, {{0x71, 0x01, 0xFF, 0x01}, Millis(600)}});
    answer();
}

// The target address is echoed as the query wrote it.
TEST_F(DiagAgentTest, clearDtcSendsTheGroupOfDtc) {
    links_.add("0x1001")->on("14FFFFFF", {{{0x54}}});
    answer();
}

TEST_F(DiagAgentTest, aPluggedInAlgorithmIsUsedForItsLevel) {
    keys_.set(0x03, [](uint8_t, const Bytes &seed, Bytes *key, std::string *) {
        *key = {static_cast<uint8_t>(seed[0] ^ 0xFF)};
        return true;
    });
    auto ecu = links_.add("0x1001");
    ecu->on("2703", {{{0x67, 0x03, 0x0F}}});
    ecu->on("2704F0", {{{0x7F, 0x27, 0x35}}});
    answer();
    EXPECT_EQ(ecu->sent(), (std::vector<std::string>{"2703", "2704F0"}));
}

TEST_F(DiagAgentTest, theBuiltInAlgorithmRefusesASeedOfAnotherLength) {
    links_.add("0x1001")->on("2701", {{{0x67, 0x01, 0x12, 0x34}}});
    answer();
}

TEST_F(DiagAgentTest, aQueryWithoutARoutineIsAnsweredWithTheReason) {
    links_.add("0x1001");
    answer();
}

TEST_F(DiagAgentTest, aQueryWithoutATransportIsAnsweredWithTheReason) {
    answer();
    DiagAgent agent(settings_, links_, keys_);
    EXPECT_EQ(agent.answer_query(R"({"type":"zelko.external-consent","body":{}})"), "");
    EXPECT_EQ(agent.answer_query("not json"), "");
}

}  // namespace
}  // namespace uozagent
