// The library under test, started against a real broker, beside a test agent
// that plays "/ZDATA/UDS" and "policy-agent".
#ifndef UOZ_TESTS_LIBRARY_FIXTURE_H
#define UOZ_TESTS_LIBRARY_FIXTURE_H

#include <gtest/gtest.h>
#include <json-c/json.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <regex>
#include <string>

#include "../core/core_support.h"
#include "agent_peer.h"
#include "broker_fixture.h"
#include "udsoverzelko.h"

namespace uoztest {

// engine 0x7E0 CAN (phy-req-id 0x7E0, a UDS version description) and gateway
// 0x20 IOC (phy-req-id 0x720).
inline const std::string kTestConfigPath = std::string(UOZ_GOLDEN_DIR) + "/library_ecus.json";

inline std::string reply_id_of(const std::string &query) {
    std::smatch match;
    if (!std::regex_search(query, match, std::regex("\"reply-id\": \"([^\"]*)\"")))
        return "";
    return match[1];
}

// A "zelko.skyharbor-query-update" answering query, with the given body text.
inline std::string reply_for(const std::string &query, const std::string &body) {
    return "{\"type\":\"zelko.skyharbor-query-update\",\"reply-to\":\"" + reply_id_of(query) +
           "\",\"body\":" + body + "}";
}

class LibraryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        agent_ = std::make_unique<uozagent::AgentPeer>(identity_dir("agent"), broker_.url());
        ASSERT_TRUE(agent_->wait_running()) << "the test agent did not connect";
    }
    void TearDown() override {
        UDSOverZelko_Terminate(handle_);
        handle_ = nullptr;
        agent_.reset();
        if (!config_path_.empty())
            unlink(config_path_.c_str());
    }
    // The broker settings of the test PKI's "app" identity.
    BrokerConfig broker_config(const char *certs) {
        BrokerConfig broker{};
        broker.broker_ip = "localhost";
        broker.port = broker_.port();
        broker.node_address = "app";
        broker.cert_path = certs;
        broker.debug_level = uoz_dbg_level;
        return broker;
    }
    // Starts the library with the given configuration text (or the test
    // configuration) and waits until the agent sees it on the bus.
    void start_library(const std::string &config = "") {
        config_path_ = config.empty() ? "" : temp_file(config);
        BrokerConfig broker = broker_config(certs_.c_str());
        handle_ = UDSOverZelko_Init(
            &broker, config.empty() ? kTestConfigPath.c_str() : config_path_.c_str());
        EXPECT_NE(handle_, nullptr);
        EXPECT_TRUE(agent_->wait_for_peer("/uoz/app")) << "the library did not appear on the bus";
    }
    // Waits for the n-th message the agent receives and returns its text.
    std::string query_number(size_t n) {
        return agent_->wait_for_messages(n, 5000) ? agent_->received()[n - 1].text : "";
    }

    Broker broker_;
    std::unique_ptr<uozagent::AgentPeer> agent_;
    std::string config_path_;
    std::string certs_ = identity_dir("app");
    UDSOverZelkoHandle *handle_ = nullptr;
};

}  // namespace uoztest

#endif
