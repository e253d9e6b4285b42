// The library under test, started against a real broker, beside a test agent
// that plays "/ZDATA/UDS" and "policy-agent".
#ifndef UOZ_TESTS_LIBRARY_FIXTURE_H
#define UOZ_TESTS_LIBRARY_FIXTURE_H

#include <gtest/gtest.h>
#include <json-c/json.h>

#include <memory>
#include <string>

#include "agent_peer.h"
#include "broker_fixture.h"
#include "udsoverzelko.h"

namespace uoztest {

// engine 0x7E0 CAN (phy-req-id 0x7E0, a UDS version description) and gateway
// 0x20 IOC (phy-req-id 0x720).
extern const char kTestConfig[];

// Writes text to a new temporary file; returns its path.
std::string write_temp_file(const std::string &text);
// Query text with its "reply-id" value replaced by "<id>".
std::string mask_reply_id(const std::string &query);
std::string reply_id_of(const std::string &query);
// A "zelko.skyharbor-query-update" answering query, with the given body text.
std::string reply_for(const std::string &query, const std::string &body);

class LibraryTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
    // Starts the library with the given configuration text and waits until
    // the agent sees it on the bus.
    UDSOverZelkoHandle *start_library(const std::string &config = kTestConfig);
    // The broker settings of the test PKI's "app" identity.
    BrokerConfig broker_config(const char *certs);
    // Waits for the n-th message the agent receives and returns its text.
    std::string query_number(size_t n);

    Broker broker_;
    std::unique_ptr<uozagent::AgentPeer> agent_;
    std::string config_path_;
    std::string certs_ = identity_dir("app");
    UDSOverZelkoHandle *handle_ = nullptr;
};

}  // namespace uoztest

#endif
