// The UDS request rules over any link: P2, response pending with P2*, busy
// retries, the overall deadline, echo checks, resynchronisation after an
// unanswered request, and the suppress-positive-response bit.
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

// A request to an ECU with nothing owed from before.
UdsOutcome ask(FakeLink &link, const Bytes &request, const UdsTiming &timing) {
    EcuState state;
    return uds_request(link, request, timing, state);
}

Bytes bytes_of(const std::string &hex) {
    Bytes bytes;
    EXPECT_TRUE(parse_hex_bytes(hex.c_str(), &bytes)) << hex;
    return bytes;
}

TEST(UdsRequestTest, responsePendingLongerThanP2WaitsWithP2Star) {
    FakeLink link;
    const Millis gap(40);  // three of them exceed P2 (60 ms) in total
    link.on("3101FF00", {{{0x7F, 0x31, 0x78}, gap},
                         {{0x7F, 0x31, 0x78}, gap},
                         {{0x7F, 0x31, 0x78}, gap},
                         {{0x71, 0x01, 0xFF, 0x00}, gap}});
    UdsOutcome outcome = ask(link, {0x31, 0x01, 0xFF, 0x00}, fast_timing());
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
        UdsOutcome outcome = ask(link, {0x31, 0x01, 0xFF, 0x00}, timing);
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
    UdsOutcome outcome = ask(link, {0x11, 0x01}, fast_timing());
    EXPECT_TRUE(outcome.answered);
    EXPECT_EQ(hex_text(outcome.response), "5101");
    EXPECT_EQ(outcome.busy_answers, 2);
    EXPECT_EQ(link.sent().size(), 3u);
}

TEST(UdsRequestTest, busyBeyondTheRetriesIsTheAnswer) {
    FakeLink link;
    link.on("1101", {{{0x7F, 0x11, 0x21}}});
    UdsOutcome outcome = ask(link, {0x11, 0x01}, fast_timing());
    EXPECT_TRUE(outcome.answered);
    EXPECT_EQ(hex_text(outcome.response), "7F1121");
    EXPECT_EQ(link.sent().size(), 3u);  // the request and two retries
}

// Per service, answers that echo something else are discarded and the
// request's own answer after them is the answer.
TEST(UdsRequestTest, anAnswerThatEchoesAnotherRequestIsDiscarded) {
    const struct {
        const char *request;
        std::vector<const char *> stale;
        const char *answer;
    } cases[] = {
        {"190208", {"5901FF0800", "5902FF01234550"}, "5902FF01234509"},  // type, status mask
        {"19040123450A", {"5904ABCDEF080A"}, "59040123450801"},          // the DTC
        {"22F190", {"62F18941", "7F1931"}, "62F19042"},                  // DID; 7F's service
        {"2EF19041", {"6EF189"}, "6EF190"},
        {"3101FF00", {"7101FF01", "7103FF00"}, "7101FF00"},  // routine id, control type
        {"2701", {"670311"}, "670122"},
        {"1003", {"5002", "7E00"}, "5003003201F4"},
        {"1101", {"5103"}, "7F1122"},
    };
    for (const auto &row : cases) {
        FakeLink link;
        std::vector<FakeLink::Answer> answers;
        for (const char *stale : row.stale)
            answers.push_back({bytes_of(stale)});
        answers.push_back({bytes_of(row.answer)});
        link.on(row.request, answers);
        UdsOutcome outcome = ask(link, bytes_of(row.request), fast_timing());
        EXPECT_TRUE(outcome.answered) << row.request << ": " << outcome.error;
        EXPECT_EQ(hex_text(outcome.response), row.answer) << row.request;
        EXPECT_EQ(outcome.stale_answers.size(), row.stale.size()) << row.request;
    }
}

// 19 02 FF's answer comes after its time-out, during 19 02 08, and would
// pass every echo check: a TesterPresent first puts it behind.
TEST(UdsRequestTest, aLateAnswerIsNeverTheNextRequestsAnswer) {
    FakeLink link;
    EcuState state;
    UdsTiming timing = fast_timing();
    link.on("1902FF", {{bytes_of("5902FF01234509"), Millis(200)}});
    EXPECT_FALSE(uds_request(link, bytes_of("1902FF"), timing, state).answered);
    link.on("3E00", {{bytes_of("5902FF01234509")}, {bytes_of("7E00")}});
    link.on("190208", {{bytes_of("5902FF")}});
    UdsOutcome outcome = uds_request(link, bytes_of("190208"), timing, state);
    EXPECT_EQ(hex_text(outcome.response), "5902FF");
    EXPECT_TRUE(outcome.resynchronised);
    EXPECT_EQ(outcome.stale_answers.size(), 1u);
    EXPECT_EQ(link.sent(), (std::vector<std::string>{"1902FF", "3E00", "190208"}));
    // Answered: the next request goes straight to the ECU.
    EXPECT_FALSE(uds_request(link, bytes_of("190208"), timing, state).resynchronised);
}

// An ECU that stays silent costs one P2 per request, not two; the request
// is not sent while the ECU may still owe an answer.
TEST(UdsRequestTest, aSilentEcuFailsTheNextRequestAtItsTesterPresent) {
    FakeLink link;
    EcuState state{true};
    UdsOutcome outcome = uds_request(link, bytes_of("190208"), fast_timing(), state);
    EXPECT_FALSE(outcome.answered);
    EXPECT_EQ(outcome.error, "no answer from the ECU within 60 ms");
    EXPECT_EQ(link.sent(), std::vector<std::string>{"3E00"});
    EXPECT_TRUE(state.answer_may_be_late);
}

// Silence within P2 is the success a suppressed request asks for; a negative
// answer, or a final answer after response pending, is still the answer.
TEST(UdsRequestTest, aSuppressedPositiveAnswerIsSuccessOnSilence) {
    const struct {
        const char *request;
        std::vector<const char *> answers;
        bool answered;
        const char *response;
    } cases[] = {
        {"3E80", {}, true, ""},
        {"1083", {"7F1012"}, true, "7F1012"},
        {"3181FF00", {"7F3178", "7101FF00"}, true, "7101FF00"},
        {"3181FF00", {"7F3178"}, false, ""},
        {"1903FF", {}, false, ""},  // 0x19 has no suppress bit
    };
    for (const auto &row : cases) {
        FakeLink link;
        std::vector<FakeLink::Answer> answers;
        for (const char *answer : row.answers)
            answers.push_back({bytes_of(answer)});
        link.on(row.request, answers);
        UdsOutcome outcome = ask(link, bytes_of(row.request), fast_timing());
        EXPECT_EQ(outcome.answered, row.answered) << row.request << ": " << outcome.error;
        EXPECT_EQ(outcome.suppressed, row.answered && row.answers.empty()) << row.request;
        EXPECT_EQ(hex_text(outcome.response), row.response) << row.request;
    }
}

TEST(UdsRequestTest, aLinkThatCannotSendGivesItsReasonAndNoRetry) {
    FakeLink link;
    link.refuse_sending("routing activation denied");
    UdsOutcome outcome = ask(link, {0x19, 0x02, 0xFF}, fast_timing());
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
