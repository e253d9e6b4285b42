// Requests that wait out their 10 s: each case runs as its own process, in
// parallel with the others (CTest label "timeout").
#include <gtest/gtest.h>

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
    start_library();
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
    EXPECT_STREQ(uoz_last_error, "before");
    EXPECT_NE(log.find(" response not received\n"), std::string::npos) << log;
}

// The first version read and the second consent are answered after the wait
// has ended: the next exchange of each kind must not take that stale answer.
TEST_F(TimeoutTest, lateAnswersAreNeverTakenByTheNextExchange) {
    int versions = 0;
    int consents = 0;
    agent_->set_responder([&versions, &consents](const Received &query) {
        if (query.text.find("external-consent") != std::string::npos) {
            const char *status = ++consents == 2 ? "rejected" : "accepted";
            if (consents == 1)
                return std::vector<Action>{};
            return std::vector<Action>{Action(
                std::string(R"({"type":"zelko.external-consent","body":{"consent-status":")") +
                    status + "\"}}",
                consents == 2 ? 10500 : 0)};
        }
        const char *version = ++versions == 1 ? "stale" : "fresh";
        return std::vector<Action>{Action(
            reply_for(query.text,
                      std::string(R"({"targetAddress":"0x7E0","version":")") + version + "\"}"),
            versions == 1 ? 10500 : 0)};
    });
    start_library();
    std::thread version_reads([this] {
        char version[16] = {0};
        EXPECT_EQ(UDSOverZelko_ReadECUVersionInformation(handle_, 0x7E0, version, 15), -5);
        std::this_thread::sleep_for(std::chrono::milliseconds(1000));  // the stale reply lands
        EXPECT_EQ(UDSOverZelko_ReadECUVersionInformation(handle_, 0x7E0, version, 15), 0);
        EXPECT_STREQ(version, "fresh");
    });
    EXPECT_EQ(UDSOverZelkoSendExternalConsent(handle_, CONSENT_DOWNLOAD, "C-1"), 5);
    EXPECT_EQ(UDSOverZelkoSendExternalConsent(handle_, CONSENT_DOWNLOAD, "C-2"), 5);
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));  // the late "rejected" lands
    EXPECT_EQ(UDSOverZelkoSendExternalConsent(handle_, CONSENT_INSTALL, "C-3"), 1);
    version_reads.join();
}

// A reply to all ECUs carrying the address the query was written with (which
// strtol reads as 0x7FFFFFFF), and one to an address nobody has, are never
// matched.
TEST_F(TimeoutTest, repliesToAddressesNoRecordHasAreNeverMatched) {
    agent_->set_responder([](const Received &query) {
        bool all = query.text.find("\"targetAddress\": \"0xFFFFFFFF\"") != std::string::npos;
        return std::vector<Action>{
            Action(reply_for(query.text, all ? R"({"targetAddress":"0xFFFFFFFF"})"
                                             : R"({"targetAddress":"0x999"})"))};
    });
    start_library();
    std::thread remote([this] {
        const char document[] = R"({"commands":[{"type":"raw"}],"ecu":{"ServerAddress":"0x7E0"}})";
        CommandResponse response{};
        EXPECT_EQ(UDSOverZelko_ExecuteRemoteCommand(handle_, document, sizeof(document), &response),
                  -5);
    });
    CommandResponse response{};
    EXPECT_EQ(UDSOverZelkoClearDTC(handle_, -1, 0xFFFFFF, &response), -5);
    EXPECT_EQ(response.body_text, nullptr);
    remote.join();
    bool clear_sent = false;
    for (const Received &query : agent_->received())
        clear_sent |=
            query.text.find("\"targetAddress\": \"0xFFFFFFFF\", \"ioc\": [") != std::string::npos;
    EXPECT_TRUE(clear_sent);
}

}  // namespace
}  // namespace uoztest
