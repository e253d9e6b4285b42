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
#include "pki.h"

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
        std::string command =
            std::string(UOZ_PKI_PATH) + " node --dir " + pki_dir() + " --id '" + id + "' 2>&1";
        FILE *pipe = popen(command.c_str(), "r");
        char output[512] = "";
        size_t got = fread(output, 1, sizeof(output) - 1, pipe);
        output[got] = '\0';
        int status = pclose(pipe);
        EXPECT_NE(WEXITSTATUS(status), 0) << id;
        if (id[0] != '\0') {
            EXPECT_NE(std::string(output).find("use only letters, digits, '.', '_' and '-'"),
                      std::string::npos)
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
    mosquitto_publish(raw, nullptr, "kt5/presence/noaddr/forged-2",
                      static_cast<int>(foreign.size()), foreign.data(), 1, true);
    EXPECT_FALSE(watcher.wait_for_peer("/test/peer1", 1000));
    // A real presence of the same node is still taken.
    AgentPeer real(identity_dir("peer1"), broker.url());
    EXPECT_TRUE(watcher.wait_for_peer("/test/peer1", 5000));
    mosquitto_disconnect(raw);
    mosquitto_loop_stop(raw, false);
    mosquitto_destroy(raw);
    mosquitto_lib_cleanup();
}

// With the access rules uoz-pki writes by default, a third node of the bus
// (with a genuine certificate) cannot answer in the diagnostic agent's
// place: the broker refuses its reply, and the agent's own reply arrives.
TEST(SecurityTest, aThirdNodesForgedReplyIsRefusedByTheBroker) {
    char dir[] = "/tmp/uoz-acl-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::string acl = std::string(dir) + "/acl";
    uozpki::write_text(acl,
                       uozpki::acl_text(uozpki::read_nodes(pki_dir(), {"agent", "app", "peer1"})));
    {
        Broker broker(acl);
        AgentPeer app(identity_dir("app"), broker.url());
        AgentPeer agent(identity_dir("agent"), broker.url());
        AgentPeer third(identity_dir("peer1"), broker.url());
        ASSERT_TRUE(app.wait_running());
        ASSERT_TRUE(agent.wait_running());
        ASSERT_TRUE(third.wait_running());

        uozagent::Action forged("{\"body\":{\"data-record\":[\"forged\"]}}");
        forged.kind = KT5BUS_ADDR_UA;
        forged.name = "/uoz/app";
        third.send(forged);
        uozagent::Action forged_consent("{\"body\":{\"consent-status\":\"accepted\"}}");
        forged_consent.kind = KT5BUS_ADDR_UA;
        forged_consent.name = "/uoz/app";
        third.send(forged_consent);
        ASSERT_TRUE(third.wait_for_deliveries(2, 5000));
        EXPECT_EQ(third.delivered_ok(), 0u) << "the broker must refuse the third node's reply";
        EXPECT_EQ(third.delivered_failed(), 2u);

        uozagent::Action genuine("{\"body\":{\"data-record\":[\"genuine\"]}}");
        genuine.kind = KT5BUS_ADDR_UA;
        genuine.name = "/uoz/app";
        agent.send(genuine);
        ASSERT_TRUE(app.wait_for_messages(1, 5000));
        EXPECT_FALSE(app.wait_for_messages(2, 500));
        std::vector<uozagent::Received> received = app.received();
        ASSERT_EQ(received.size(), 1u);
        EXPECT_EQ(received[0].text, genuine.text);
        EXPECT_EQ(received[0].source_name, "/ZDATA/UDS");

        // The application's query still reaches the agent.
        uozagent::Action query("{\"query\":1}");
        query.kind = KT5BUS_ADDR_UA;
        query.name = "/ZDATA/UDS";
        app.send(query);
        EXPECT_TRUE(agent.wait_for_messages(1, 5000));
        // The third node cannot reach the application by its group either.
        EXPECT_EQ(third.received().size(), 0u);
    }
    unlink(acl.c_str());
    rmdir(dir);
}

}  // namespace
}  // namespace uoztest
