// The UDS request rules over any link: P2, response pending with P2*, busy
// retries and the overall deadline.
#include "ecu_link.h"

#include <gtest/gtest.h>

#include "fake_link.h"

namespace uozagent {
namespace {

UdsTiming fast_timing() {
    UdsTiming timing;
    timing.p2 = Millis(60);
    timing.p2_star = Millis(400);
    timing.overall = Millis(2000);
    timing.busy_retries = 2;
    timing.busy_delay = Millis(5);
    return timing;
}

TEST(UdsRequestTest, responsePendingLongerThanP2WaitsWithP2Star) {
    FakeLink link;
    const Millis gap(40);  // three of them exceed P2 (60 ms) in total
    link.on("3101FF00", {{{0x7F, 0x31, 0x78}, gap},
                         {{0x7F, 0x31, 0x78}, gap},
                         {{0x7F, 0x31, 0x78}, gap},
                         {{0x71, 0x01, 0xFF, 0x00}, gap}});
    UdsOutcome outcome = uds_request(link, {0x31, 0x01, 0xFF, 0x00}, fast_timing());
    EXPECT_TRUE(outcome.answered) << outcome.error;
    EXPECT_EQ(hex_text(outcome.response), "7101FF00");
    EXPECT_EQ(outcome.pending_answers, 3);
}

// No answer, a pending answer without the final one, and an endless pending
// chain that the overall deadline ends.
TEST(UdsRequestTest, aMissingAnswerFailsWithTheReason) {
    const std::tuple<std::vector<FakeLink::Answer>, int, std::string> cases[] = {
        {{}, 2000, "no answer from the ECU within 60 ms"},
        {{{{0x7F, 0x31, 0x78}}},
         2000,
         "the ECU said it would answer (response pending) but did not in time"},
        {std::vector<FakeLink::Answer>(40, {{0x7F, 0x31, 0x78}, Millis(20)}), 150,
         "the ECU said it would answer (response pending) but did not in time (overall limit "
         "150 ms reached)"}};
    for (const auto &[answers, overall, error] : cases) {
        FakeLink link;
        link.on("3101FF00", answers);
        UdsTiming timing = fast_timing();
        timing.overall = Millis(overall);
        UdsOutcome outcome = uds_request(link, {0x31, 0x01, 0xFF, 0x00}, timing);
        EXPECT_FALSE(outcome.answered);
        EXPECT_EQ(outcome.error, error);
        EXPECT_LT(outcome.pending_answers, 40);
    }
}

TEST(UdsRequestTest, busyIsRetriedAFewTimesThenAnswered) {
    FakeLink link;
    link.on("1101", {{{0x7F, 0x11, 0x21}}});
    link.on("1101", {{{0x7F, 0x11, 0x21}}});
    link.on("1101", {{{0x51, 0x01}}});
    UdsOutcome outcome = uds_request(link, {0x11, 0x01}, fast_timing());
    EXPECT_TRUE(outcome.answered);
    EXPECT_EQ(hex_text(outcome.response), "5101");
    EXPECT_EQ(outcome.busy_answers, 2);
    EXPECT_EQ(link.sent().size(), 3u);
}

TEST(UdsRequestTest, busyBeyondTheRetriesIsTheAnswer) {
    FakeLink link;
    link.on("1101", {{{0x7F, 0x11, 0x21}}});
    UdsOutcome outcome = uds_request(link, {0x11, 0x01}, fast_timing());
    EXPECT_TRUE(outcome.answered);
    EXPECT_EQ(hex_text(outcome.response), "7F1121");
    EXPECT_EQ(link.sent().size(), 3u);  // the request and two retries
}

TEST(UdsRequestTest, anAnswerToAnotherServiceIsNotThisOnesAnswer) {
    FakeLink link;
    link.on("22F190", {{{0x59, 0x02, 0xFF}}, {{0x7F, 0x19, 0x31}}, {{0x62, 0xF1, 0x90, 0x41}}});
    UdsOutcome outcome = uds_request(link, {0x22, 0xF1, 0x90}, fast_timing());
    EXPECT_TRUE(outcome.answered);
    EXPECT_EQ(hex_text(outcome.response), "62F19041");
}

TEST(UdsRequestTest, aLinkThatCannotSendGivesItsReasonAndNoRetry) {
    FakeLink link;
    link.refuse_sending("routing activation denied");
    UdsOutcome outcome = uds_request(link, {0x19, 0x02, 0xFF}, fast_timing());
    EXPECT_FALSE(outcome.answered);
    EXPECT_EQ(outcome.error, "routing activation denied");
    EXPECT_EQ(link.sent().size(), 1u);
}

TEST(TimingForEcuTest, theEcusTimingOnlyLengthensTheWaitsAndStaysUnderTheDeadline) {
    UdsTiming configured = fast_timing();  // P2 60 ms, P2* 400 ms, overall 2000 ms
    UdsTiming longer = timing_for_ecu(configured, Millis(150), Millis(1000));
    EXPECT_EQ(longer.p2, Millis(250));
    EXPECT_EQ(longer.p2_star, Millis(1100));
    UdsTiming shorter = timing_for_ecu(configured, Millis(10), Millis(100));
    EXPECT_EQ(shorter.p2, Millis(110));
    EXPECT_EQ(shorter.p2_star, Millis(400));
    UdsTiming capped = timing_for_ecu(configured, Millis(50), Millis(655350));
    EXPECT_EQ(capped.p2_star, Millis(2000));
}

}  // namespace
}  // namespace uozagent
