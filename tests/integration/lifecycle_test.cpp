// Start and stop of the library, and input that must never crash it.
#include <dirent.h>
#include <gtest/gtest.h>
#include <string.h>

#include <chrono>
#include <thread>

#include "../core/log_capture.h"
#include "UDSOverZelko/exchange.h"
#include "UDSOverZelko/records.h"
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

class LifecycleTest : public LibraryTest {
  protected:
    BrokerConfig config(const std::string &certs) {
        certs_ = certs;
        BrokerConfig broker{};
        broker.broker_ip = "localhost";
        broker.port = broker_.port();
        broker.node_address = "app";
        broker.cert_path = certs_.c_str();
        broker.debug_level = 0;
        return broker;
    }
    std::string certs_;
};

TEST_F(LifecycleTest, initChecksItsArgumentsInOrder) {
    std::string path = write_temp_file(kTestConfig);
    uoz_dbg_level = 3;
    {
        LogCapture capture(3);
        EXPECT_EQ(UDSOverZelko_Init(nullptr, path.c_str()), nullptr);
        EXPECT_NE(capture.text().find("Invalid uds config or broker configuration provided\n"),
                  std::string::npos);
    }
    BrokerConfig broker = config(identity_dir("app"));
    struct Case {
        const char **field;
        const char *error;
    } cases[] = {{&broker.broker_ip, "Invlid broker IP"},
                 {&broker.cert_path, "Invlaid Certpath"},
                 {&broker.node_address, "Invlaid node Address"}};
    for (const Case &c : cases) {
        BrokerConfig copy = broker;
        *reinterpret_cast<const char **>(
            reinterpret_cast<char *>(&copy) +
            (reinterpret_cast<char *>(c.field) - reinterpret_cast<char *>(&broker))) = nullptr;
        copy.debug_level = 1;
        EXPECT_EQ(UDSOverZelko_Init(&copy, path.c_str()), nullptr);
        EXPECT_EQ(last_error(), c.error);
        EXPECT_EQ(uoz_dbg_level, 1);
    }
    {
        LogCapture capture(0);
        EXPECT_EQ(UDSOverZelko_Init(&broker, "/nonexistent.json"), nullptr);
        std::string log = capture.text();
        EXPECT_NE(log.find("Config failure\n"), std::string::npos);
        EXPECT_NE(log.find("Could not parse configuration\n"), std::string::npos);
    }
    BrokerConfig no_identity = config("/nonexistent/certs");
    EXPECT_EQ(UDSOverZelko_Init(&no_identity, path.c_str()), nullptr);
    unlink(path.c_str());
}

TEST_F(LifecycleTest, hundredStartsAndStopsLeaveNoThreadBehind) {
    std::string path = write_temp_file(kTestConfig);
    BrokerConfig broker = config(identity_dir("app"));
    broker.debug_level = -1;
    int before = thread_count();
    for (int i = 0; i < 100; ++i) {
        UDSOverZelkoHandle *handle = UDSOverZelko_Init(&broker, path.c_str());
        ASSERT_NE(handle, nullptr);
        EXPECT_EQ(UDSOverZelko_Terminate(handle), 0);
    }
    EXPECT_EQ(thread_count(), before);
    EXPECT_EQ(UDSOverZelko_Terminate(nullptr), 0);
    unlink(path.c_str());
}

TEST_F(LifecycleTest, terminateAfterOtherThreadsReturnsPromptlyEvenWithTheBrokerGone) {
    agent_->set_responder([](const Received &query) {
        return std::vector<Action>{
            Action(reply_for(query.text, R"({"targetAddress":"0x20","uds":{"data-record":[]}})"))};
    });
    start_library(kTestConfig);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([this] {
            DTCBuffer buffer{};
            EXPECT_EQ(UDSOverZelko_ReadDTCInfo(handle_, 0x20, 0x02, 0xFF, &buffer), 0);
            UDSOverZelko_FreeDTCBuffer(&buffer);
        });
        threads.back().join();
    }
    broker_.kill();
    auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(UDSOverZelko_Terminate(handle_), 0);
    handle_ = nullptr;
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
}

TEST_F(LifecycleTest, hostileRepliesAreDroppedAndTheRightAnswerStillArrives) {
    std::string huge(16 * 1024 * 1024, 'A');
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
    start_library(kTestConfig);
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

TEST(MessageHandlerTest, readsNoFurtherThanTheLengthAndReportsEmptyInput) {
    uoz_dbg_level = -1;
    UDSOverZelkoHandle *handle = new_handle();
    EXPECT_EQ(on_bus_message(nullptr, 5, nullptr, handle), 0);
    EXPECT_STREQ(uoz_last_error, "msg is NULL");
    EXPECT_EQ(on_bus_message("{}", 0, nullptr, handle), 0);
    EXPECT_STREQ(uoz_last_error, "len is 0");
    // An exact-size heap copy without a terminator: ASan flags any over-read.
    const char text[] = R"({"type":"zelko.external-consent","body":{}})";
    char *exact = static_cast<char *>(malloc(sizeof(text) - 1));
    memcpy(exact, text, sizeof(text) - 1);
    EXPECT_EQ(on_bus_message(exact, sizeof(text) - 1, nullptr, handle), 0);
    ASSERT_NE(handle->consent_wait.reply, nullptr);
    EXPECT_STREQ(handle->consent_wait.reply,
                 R"({ "type": "zelko.external-consent", "body": { } })");
    // The parsed message travels with its text, and is taken out with it.
    ASSERT_NE(handle->consent_wait.parsed, nullptr);
    EXPECT_TRUE(json_object_object_get_ex(handle->consent_wait.parsed, "body", nullptr));
    TextPtr taken_text;
    JsonPtr taken_json;
    ASSERT_TRUE(reply_slot_take(&handle->consent_wait, &taken_text, &taken_json));
    EXPECT_EQ(handle->consent_wait.reply, nullptr);
    EXPECT_EQ(handle->consent_wait.parsed, nullptr);
    EXPECT_STREQ(json_object_to_json_string(taken_json.get()), taken_text.get());
    EXPECT_FALSE(reply_slot_take(&handle->consent_wait, &taken_text, &taken_json));
    free(exact);
    release_handle(handle);
}

}  // namespace
}  // namespace uoztest
