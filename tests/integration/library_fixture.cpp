#include "library_fixture.h"

#include <stdlib.h>
#include <unistd.h>

#include <regex>

namespace uoztest {

const char kTestConfig[] = R"({"configs": [
    {"type": "CAN", "targetAddress": "0x7E0", "name": "engine",
     "can": {"ifname": "can0", "func-addr": "0x7DF", "phy-req-id": "0x7E0", "phy-resp-id": "0x7E8"},
     "ecu_version": {"uds": [{"did": "0xF189"}]}},
    {"type": "IOC", "targetAddress": "0x20", "name": "gateway",
     "ioc": {"bus-id": "2", "func-addr": "0x7DF", "phy-req-id": "0x720", "phy-resp-id": "0x728"}}
]})";

std::string write_temp_file(const std::string &text) {
    char path[] = "/tmp/uoz-test-XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0)
        return "";
    ssize_t written = write(fd, text.data(), text.size());
    close(fd);
    return written == static_cast<ssize_t>(text.size()) ? path : "";
}

std::string mask_reply_id(const std::string &query) {
    return std::regex_replace(query, std::regex("\"reply-id\": \"[^\"]*\""),
                              "\"reply-id\": \"<id>\"");
}

std::string reply_id_of(const std::string &query) {
    std::smatch match;
    if (!std::regex_search(query, match, std::regex("\"reply-id\": \"([^\"]*)\"")))
        return "";
    return match[1];
}

std::string reply_for(const std::string &query, const std::string &body) {
    return "{\"type\":\"zelko.skyharbor-query-update\",\"reply-to\":\"" + reply_id_of(query) +
           "\",\"body\":" + body + "}";
}

void LibraryTest::SetUp() {
    agent_ = std::make_unique<uozagent::AgentPeer>(identity_dir("agent"), broker_.url());
    ASSERT_TRUE(agent_->wait_running()) << "the test agent did not connect";
}

void LibraryTest::TearDown() {
    UDSOverZelko_Terminate(handle_);
    handle_ = nullptr;
    agent_.reset();
    if (!config_path_.empty())
        unlink(config_path_.c_str());
}

BrokerConfig LibraryTest::broker_config(const char *certs) {
    BrokerConfig broker{};
    broker.broker_ip = "localhost";
    broker.port = broker_.port();
    broker.node_address = "app";
    broker.cert_path = certs;
    broker.debug_level = uoz_dbg_level;
    return broker;
}

UDSOverZelkoHandle *LibraryTest::start_library(const std::string &config) {
    config_path_ = write_temp_file(config);
    BrokerConfig broker = broker_config(certs_.c_str());
    handle_ = UDSOverZelko_Init(&broker, config_path_.c_str());
    EXPECT_NE(handle_, nullptr);
    EXPECT_TRUE(agent_->wait_for_peer("/uoz/app")) << "the library did not appear on the bus";
    return handle_;
}

std::string LibraryTest::query_number(size_t n) {
    if (!agent_->wait_for_messages(n, 5000))
        return "";
    return agent_->received()[n - 1].text;
}

}  // namespace uoztest
