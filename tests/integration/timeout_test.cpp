// Requests that wait out their 10 s: each case runs as its own process, in
// parallel with the others (CTest label "timeout").
#include <gtest/gtest.h>
#include <string.h>

#include <chrono>
#include <thread>

#include "UDSOverZelko/records.h"
#include "library_fixture.h"

namespace uoztest {
namespace {

using uozagent::Action;
using uozagent::Received;

class TimeoutTest : public LibraryTest {};

TEST_F(TimeoutTest, noReplyEndsTheWaitAfterTenSecondsWithTheBufferUntouched) {
    start_library(kTestConfig);
    char version[8] = "keep";
    uoz_set_last_error("before");
    testing::internal::CaptureStdout();
    uoz_dbg_level = 0;
    auto begin = std::chrono::steady_clock::now();
    int rc = UDSOverZelko_ReadECUVersionInformation(handle_, 0x7E0, version, sizeof(version));
    auto waited = std::chrono::steady_clock::now() - begin;
    std::string log = testing::internal::GetCapturedStdout();
    EXPECT_EQ(rc, -5);
    EXPECT_GE(waited, std::chrono::seconds(10));
    EXPECT_LT(waited, std::chrono::seconds(12));
    EXPECT_STREQ(version, "keep");
    EXPECT_EQ(last_error(), "before");
    EXPECT_NE(log.find(" response not received\n"), std::string::npos) << log;
}

TEST_F(TimeoutTest, lateReplyIsNeverTakenByTheNextExchange) {
    int calls = 0;
    agent_->set_responder([&calls](const Received &query) {
        int delay = ++calls == 1 ? 10500 : 0;
        return std::vector<Action>{Action(
            reply_for(query.text, calls == 1 ? R"({"targetAddress":"0x7E0","version":"stale"})"
                                             : R"({"targetAddress":"0x7E0","version":"fresh"})"),
            delay)};
    });
    start_library(kTestConfig);
    char version[16] = {0};
    EXPECT_EQ(UDSOverZelko_ReadECUVersionInformation(handle_, 0x7E0, version, 15), -5);
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));  // the stale reply lands
    EXPECT_EQ(UDSOverZelko_ReadECUVersionInformation(handle_, 0x7E0, version, 15), 0);
    EXPECT_STREQ(version, "fresh");
}

TEST_F(TimeoutTest, clearDtcOfAllEcusAnsweredWithTheLongAddressIsNeverMatched) {
    agent_->set_responder([](const Received &query) {
        return std::vector<Action>{
            Action(reply_for(query.text, R"({"targetAddress":"0xFFFFFFFF"})"))};
    });
    start_library(kTestConfig);
    CommandResponse response{};
    EXPECT_EQ(UDSOverZelkoClearDTC(handle_, -1, 0xFFFFFF, &response), -5);
    EXPECT_EQ(response.body_text, nullptr);
    EXPECT_NE(query_number(1).find("\"targetAddress\": \"0xFFFFFFFF\", \"ioc\": ["),
              std::string::npos);
}

TEST_F(TimeoutTest, consentWithoutAnswerAndAStaleAnswerDiscarded) {
    int calls = 0;
    agent_->set_responder([&calls](const Received &) {
        ++calls;
        if (calls == 1)
            return std::vector<Action>{};
        if (calls == 2) {
            return std::vector<Action>{
                Action(R"({"type":"zelko.external-consent","body":{"consent-status":"rejected"}})",
                       10500)};
        }
        return std::vector<Action>{
            Action(R"({"type":"zelko.external-consent","body":{"consent-status":"accepted"}})")};
    });
    start_library(kTestConfig);
    EXPECT_EQ(UDSOverZelkoSendExternalConsent(handle_, CONSENT_DOWNLOAD, "C-1"), 5);
    EXPECT_EQ(UDSOverZelkoSendExternalConsent(handle_, CONSENT_DOWNLOAD, "C-2"), 5);
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));  // the late "rejected" lands
    EXPECT_EQ(UDSOverZelkoSendExternalConsent(handle_, CONSENT_INSTALL, "C-3"), 1);
}

TEST_F(TimeoutTest, remoteCommandWithoutReplyAndReplyToAnUnknownAddress) {
    agent_->set_responder([](const Received &query) {
        return std::vector<Action>{Action(reply_for(query.text, R"({"targetAddress":"0x999"})"))};
    });
    start_library(kTestConfig);
    const char document[] = R"({"commands":[{"type":"raw"}],"ecu":{"ServerAddress":"0x7E0"}})";
    CommandResponse response{};
    EXPECT_EQ(UDSOverZelko_ExecuteRemoteCommand(handle_, document, sizeof(document), &response),
              -5);
}

}  // namespace
}  // namespace uoztest
