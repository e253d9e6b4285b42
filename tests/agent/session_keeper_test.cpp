// What the agent learns of an ECU's session from the answers, and the
// session keeper over scripted links: TesterPresent while a session is kept,
// a routine that reuses it, and the ends of keeping.
#include "session_keeper.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "diag_agent.h"
#include "fake_link.h"

namespace uozagent {
namespace {

Bytes bytes_of(const std::string &hex) {
    Bytes bytes;
    EXPECT_TRUE(parse_hex_bytes(hex.c_str(), &bytes)) << hex;
    return bytes;
}

TEST(NoteSessionTest, answersTellTheSessionAndTheSecurityLevel) {
    const struct {
        uint8_t session, level;        // before
        const char *request, *answer;  // "": suppressed
        uint8_t session_after, level_after;
    } cases[] = {
        {0x01, 0, "1003", "5003003201F4", 0x03, 0},
        {0x03, 0x01, "1083", "", 0x03, 0},  // a new session locks, also suppressed
        {0x03, 0x01, "1001", "5001003201F4", 0x01, 0},
        {0x03, 0x01, "1101", "5101", 0x01, 0},
        {0x03, 0, "27041122", "6704", 0x03, 0x03},
        {0x03, 0, "2701", "670100000000", 0x03, 0x01},  // zero seed: unlocked already
        {0x03, 0, "2701", "670111223344", 0x03, 0},
        {0x03, 0x01, "3101FF02", "7F3133", 0x03, 0},
        {0x03, 0x01, "3101FF02", "7F317F", 0x01, 0},
        {0x03, 0x01, "3E80", "7F3E7E", 0x01, 0},
        {0x03, 0x01, "3101FF02", "7F3131", 0x03, 0x01},
        {0x03, 0x01, "19020F", "5902FF", 0x03, 0x01},
    };
    for (const auto &row : cases) {
        EcuState state;
        state.session = row.session;
        state.unlocked_level = row.level;
        UdsOutcome outcome;
        outcome.answered = true;
        outcome.suppressed = *row.answer == '\0';
        outcome.response = outcome.suppressed ? Bytes{} : bytes_of(row.answer);
        note_session(state, bytes_of(row.request), outcome);
        EXPECT_EQ(state.session, row.session_after) << row.request << " -> " << row.answer;
        EXPECT_EQ(state.unlocked_level, row.level_after) << row.request << " -> " << row.answer;
    }
}

class SessionKeeperTest : public ::testing::Test {
  protected:
    SessionKeeperTest() {
        settings_.timing.p2 = Millis(50);
        settings_.sessions.keep = Millis(700);
        settings_.sessions.interval = Millis(100);
        engine_ = links_.add("0x7E0");
        engine_->on("1003", {{bytes_of("5003003201F4")}});
        engine_->on("2701", {{bytes_of("670111223344")}});
        engine_->on("2702976CE25B", {{bytes_of("6702")}});  // the built-in key of that seed
        engine_->on("3101FF02", {{bytes_of("7101FF02")}});
    }
    std::string run_routine(DiagAgent &agent) {
        return agent.answer_query(
            R"({"type":"zelko.skyharbor-query","reply-id":"abcdefghijklmnopqrstuvwx","body":)"
            R"({"mode":"CAN","targetAddress":"0x7E0","can":{"ifname":"can0","phy-req-id":"0x7E0",)"
            R"("phy-resp-id":"0x7E8","st-min":"0","bsize":"0"},"routine":{"name":"custom_commands","commands":[)"
            R"({"command":"Learn","service":"0x31","subfn":"0x01","data":"0xFF02"}],)"
            R"("security_access":{"level":"0x01"}}}})");
    }
    // The requests sent since `from`, as one text.
    std::string sent_since(size_t from) {
        std::vector<std::string> sent = engine_->sent();
        std::string text;
        for (size_t i = from; i < sent.size(); ++i)
            text += sent[i] + " ";
        return text;
    }
    int tester_presents() {
        std::vector<std::string> sent = engine_->sent();
        return static_cast<int>(std::count(sent.begin(), sent.end(), "3E80"));
    }

    AgentSettings settings_;
    FakeLinks links_;
    std::shared_ptr<FakeLink> engine_;
};

// The routine takes 400 ms after the first time (a response pending first):
// the TesterPresents due meanwhile wait, or the fake link would lose its answer.
TEST_F(SessionKeeperTest, aKeptSessionIsReusedAndKeptOnlyForItsTime) {
    engine_->on("3101FF02", {{bytes_of("7F3178")}, {bytes_of("7101FF02"), Millis(400)}});
    DiagAgent agent(settings_, links_, KeyAlgorithms());
    std::string first = run_routine(agent);
    EXPECT_EQ(sent_since(0), "1003 2701 2702976CE25B 3101FF02 ") << first;
    std::this_thread::sleep_for(Millis(350));
    EXPECT_GE(tester_presents(), 2);
    size_t before = engine_->sent().size();
    std::string reply = run_routine(agent);
    EXPECT_EQ(sent_since(before), "3101FF02 ") << reply;
    EXPECT_EQ(reply.find("\"error\""), std::string::npos) << reply;
    std::this_thread::sleep_for(Millis(1000));  // beyond the keeping time
    int after_keeping = tester_presents();
    std::this_thread::sleep_for(Millis(300));
    EXPECT_EQ(tester_presents(), after_keeping);
    before = engine_->sent().size();
    run_routine(agent);
    EXPECT_EQ(sent_since(before), "1003 2701 2702976CE25B 3101FF02 ");
}

// The ECU lost the session (another tester reset it): the refused command is
// sent again once the session is open and unlocked; a default session ends
// keeping at once.
TEST_F(SessionKeeperTest, aLostSessionIsOpenedAgainAndTheDefaultSessionEndsKeeping) {
    engine_->on("3101FF02", {{bytes_of("7F3133")}});  // the second time; then unlocked again
    engine_->on("3101FF02", {{bytes_of("7101FF02")}});
    DiagAgent agent(settings_, links_, KeyAlgorithms());
    run_routine(agent);
    size_t before = engine_->sent().size();
    std::string reply = run_routine(agent);
    EXPECT_EQ(sent_since(before), "3101FF02 1003 2701 2702976CE25B 3101FF02 ") << reply;
    EXPECT_EQ(reply.find("\"error\""), std::string::npos) << reply;
    engine_->on("1001", {{bytes_of("5001003201F4")}});
    agent.answer_query(
        R"({"type":"zelko.skyharbor-query","reply-id":"abcdefghijklmnopqrstuvwx","body":)"
        R"({"mode":"CAN","targetAddress":"0x7E0","can":{"ifname":"can0","phy-req-id":"0x7E0",)"
        R"("phy-resp-id":"0x7E8","st-min":"0","bsize":"0"},"routine":{"name":"custom_commands","commands":[)"
        R"({"command":"Default","service":"0x10","subfn":"0x01"}]}}})");
    int at_default = tester_presents();
    std::this_thread::sleep_for(Millis(300));
    EXPECT_EQ(tester_presents(), at_default);
}

}  // namespace
}  // namespace uozagent
