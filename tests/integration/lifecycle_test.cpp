// Start and stop of the library, and replies that must never crash it.
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "library_fixture.h"

namespace uoztest {
namespace {

using uozagent::Action;
using uozagent::Received;

int thread_count() {
    int count = 0;
    DIR *tasks = opendir("/proc/self/task");
    while (dirent *entry = readdir(tasks))
        count += entry->d_name[0] != '.';
    closedir(tasks);
    return count;
}

class LifecycleTest : public LibraryTest {};

TEST_F(LifecycleTest, initChecksItsArgumentsInOrder) {
    const std::string &path = kTestConfigPath;
    {
        LogCapture capture(3);
        EXPECT_EQ(UDSOverZelko_Init(nullptr, path.c_str()), nullptr);
        EXPECT_NE(capture.text().find("Invalid uds config or broker configuration provided\n"),
                  std::string::npos);
    }
    uoz_dbg_level = 3;
    struct Case {
        const char *BrokerConfig::*field;
        const char *error;
    } cases[] = {{&BrokerConfig::broker_ip, "Invlid broker IP"},
                 {&BrokerConfig::cert_path, "Invlaid Certpath"},
                 {&BrokerConfig::node_address, "Invlaid node Address"}};
    for (const Case &c : cases) {
        BrokerConfig broker = broker_config(certs_.c_str());
        broker.*c.field = nullptr;
        broker.debug_level = 1;
        EXPECT_EQ(UDSOverZelko_Init(&broker, path.c_str()), nullptr);
        EXPECT_STREQ(uoz_last_error, c.error);
        EXPECT_EQ(uoz_dbg_level, 1);
    }
    BrokerConfig broker = broker_config(certs_.c_str());
    broker.debug_level = 0;
    {
        LogCapture capture(0);
        EXPECT_EQ(UDSOverZelko_Init(&broker, "/nonexistent.json"), nullptr);
        std::string log = capture.text();
        EXPECT_NE(log.find("Config failure\n"), std::string::npos);
        EXPECT_NE(log.find("Could not parse configuration\n"), std::string::npos);
    }
    broker.cert_path = "/nonexistent/certs";
    EXPECT_EQ(UDSOverZelko_Init(&broker, path.c_str()), nullptr);
}

TEST_F(LifecycleTest, hundredStartsAndStopsLeaveNoThreadBehind) {
    const std::string &path = kTestConfigPath;
    uoz_dbg_level = -1;
    BrokerConfig broker = broker_config(certs_.c_str());
    int before = thread_count();
    for (int i = 0; i < 100; ++i) {
        UDSOverZelkoHandle *handle = UDSOverZelko_Init(&broker, path.c_str());
        ASSERT_NE(handle, nullptr);
        EXPECT_EQ(UDSOverZelko_Terminate(handle), 0);
    }
    EXPECT_EQ(thread_count(), before);
    EXPECT_EQ(UDSOverZelko_Terminate(nullptr), 0);
}

TEST_F(LifecycleTest, terminateAfterOtherThreadsReturnsPromptlyEvenWithTheBrokerGone) {
    agent_->set_responder([](const Received &query) {
        return std::vector<Action>{
            Action(reply_for(query.text, R"({"targetAddress":"0x20","uds":{"data-record":[]}})"))};
    });
    start_library();
    for (int i = 0; i < 4; ++i) {
        std::thread([this] {
            DTCBuffer buffer{};
            EXPECT_EQ(UDSOverZelko_ReadDTCInfo(handle_, 0x20, 0x02, 0xFF, &buffer), 0);
            UDSOverZelko_FreeDTCBuffer(&buffer);
        }).join();
    }
    broker_.kill();
    auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(UDSOverZelko_Terminate(handle_), 0);
    handle_ = nullptr;
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
}

TEST_F(LifecycleTest, hostileRepliesAreDroppedAndTheRightAnswerStillArrives) {
    // Large enough to cost the parser real work, small enough that a
    // sanitizer build on a busy machine parses it well within the 10 s wait.
    std::string huge(1024 * 1024, 'A');
    agent_->set_responder([&huge](const Received &) {
        Action unterminated(
            R"({"type":"zelko.skyharbor-query-update","body":{"targetAddress":"0x20"}})");
        unterminated.include_terminator = false;
        return std::vector<Action>{
            Action("not json at all"),
            Action(R"({"no":"type"})"),
            Action(R"({"type":"zelko.skyharbor-query-update","body":{}})"),
            Action(R"({"type":"zelko.skyharbor-query","body":{"targetAddress":"0x20"}})"),
            Action(
                R"({"type":"zelko.skyharbor-query-update","body":{"targetAddress":"0x123"},"pad":")" +
                huge + "\"}"),
            Action(std::string(200, '[')),
            unterminated,
        };
    });
    start_library();
    DTCBuffer buffer{};
    // Of all these, only the unterminated reply reaches the ECU's slot; it is
    // read up to its length and fails the match for want of "reply-to".
    {
        LogCapture capture(0);
        EXPECT_EQ(UDSOverZelko_ReadDTCInfo(handle_, 0x20, 0x02, 0xFF, &buffer), -1);
        EXPECT_NE(capture.text().find("could not find 'reply-to'\n"), std::string::npos);
    }
    UDSOverZelko_FreeDTCBuffer(&buffer);
    ASSERT_TRUE(agent_->wait_for_deliveries(7, 10000));
    agent_->set_responder([](const Received &query) {
        return std::vector<Action>{Action(reply_for(
            query.text,
            R"({"targetAddress":"0x20","uds":{"data-record":[{"phy-req-id":"0x720","data":"5902FF"}]}})"))};
    });
    EXPECT_EQ(UDSOverZelko_ReadDTCInfo(handle_, 0x20, 0x02, 0xFF, &buffer), 3);
    UDSOverZelko_FreeDTCBuffer(&buffer);
}

}  // namespace
}  // namespace uoztest
