// Who may connect and what a node can make others believe (CTest label
// "security").
#include <gtest/gtest.h>
#include <mosquitto.h>
#include <stdio.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "agent_peer.h"
#include "broker_fixture.h"

namespace uoztest {
namespace {

using uozagent::AgentPeer;

std::string read_text(const std::string &path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

TEST(SecurityTest, clientsOfAnotherCaAndExpiredCertificatesAreRefused) {
    Broker broker;
    AgentPeer intruder(other_pki_dir() + "/intruder", broker.url());
    AgentPeer expired(identity_dir("expired"), broker.url());
    EXPECT_TRUE(intruder.wait_for_status(KT5BUS_STATUS_CONNECTION_FAILED, 5000));
    EXPECT_TRUE(expired.wait_for_status(KT5BUS_STATUS_CONNECTION_FAILED, 5000));
    EXPECT_FALSE(intruder.wait_running(300));
    EXPECT_FALSE(expired.wait_running(300));
}

TEST(SecurityTest, nodeIdsOutsideTheNamingRuleAreRefusedByThePkiTool) {
    for (const char *id : {"a/b", "a+b", "a#b", "a b", ""}) {
        std::string command = std::string(UOZ_PKI_PATH) + " node --dir " + pki_dir() + " --id '" + id + "' 2>&1";
        FILE *pipe = popen(command.c_str(), "r");
        char output[512] = "";
        size_t got = fread(output, 1, sizeof(output) - 1, pipe);
        output[got] = '\0';
        int status = pclose(pipe);
        EXPECT_NE(WEXITSTATUS(status), 0) << id;
        if (id[0] != '\0') {
            EXPECT_NE(std::string(output).find("use only letters, digits, '.', '_' and '-'"), std::string::npos)
                << output;
        }
    }
}

// Publishes a presence record under its own CN holding someone else's
// certificate: receivers must not take it for that node.
TEST(SecurityTest, forgedPresenceRecordsAreIgnored) {
    Broker broker;
    AgentPeer watcher(identity_dir("peer2"), broker.url());
    ASSERT_TRUE(watcher.wait_running());
    mosquitto_lib_init();
    mosquitto *raw = mosquitto_new(nullptr, true, nullptr);
    mosquitto_int_option(raw, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    std::string dir = identity_dir("noaddr");
    mosquitto_tls_set(raw, (pki_dir() + "/ca/ca.pem").c_str(), nullptr, (dir + "/cert.pem").c_str(),
                      (dir + "/private.pem").c_str(), nullptr);
    ASSERT_EQ(mosquitto_connect(raw, "localhost", broker.port(), 30), MOSQ_ERR_SUCCESS);
    mosquitto_loop_start(raw);
    std::string stolen = read_text(identity_dir("peer1") + "/cert.pem");
    std::string foreign = read_text(other_pki_dir() + "/intruder/cert.pem");
    mosquitto_publish(raw, nullptr, "kt5/presence/noaddr/forged-1", static_cast<int>(stolen.size()),
                      stolen.data(), 1, true);
    mosquitto_publish(raw, nullptr, "kt5/presence/noaddr/forged-2", static_cast<int>(foreign.size()),
                      foreign.data(), 1, true);
    EXPECT_FALSE(watcher.wait_for_peer("/test/peer1", 1000));
    // A real presence of the same node is still taken.
    AgentPeer real(identity_dir("peer1"), broker.url());
    EXPECT_TRUE(watcher.wait_for_peer("/test/peer1", 5000));
    mosquitto_disconnect(raw);
    mosquitto_loop_stop(raw, false);
    mosquitto_destroy(raw);
    mosquitto_lib_cleanup();
}

}  // namespace
}  // namespace uoztest
