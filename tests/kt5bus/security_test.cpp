// Who may connect and what a node can make others believe (CTest label
// "security").
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>

#include "agent_peer.h"
#include "broker_fixture.h"
#include "file_text.h"
#include "pki.h"
#include "raw_client.h"

namespace uoztest {
namespace {

using uozagent::Action;
using uozagent::AgentPeer;

Action to_app(const std::string &text) {
    Action action(text);
    action.kind = KT5BUS_ADDR_UA;
    action.name = "/uoz/app";
    return action;
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
        output[fread(output, 1, sizeof(output) - 1, pipe)] = '\0';
        EXPECT_NE(WEXITSTATUS(pclose(pipe)), 0) << id;
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
    RawClient raw("noaddr", broker.port());
    ASSERT_TRUE(raw.connected());
    raw.publish("kt5/presence/noaddr/forged-1", file_text(identity_dir("peer1") + "/cert.pem"),
                true);
    raw.publish("kt5/presence/noaddr/forged-2", file_text(other_pki_dir() + "/intruder/cert.pem"),
                true);
    EXPECT_FALSE(watcher.wait_for_peer("/test/peer1", 1000));
    // A real presence of the same node is still taken.
    AgentPeer real(identity_dir("peer1"), broker.url());
    EXPECT_TRUE(watcher.wait_for_peer("/test/peer1", 5000));
}

// With the access rules uoz-pki writes by default, a third node of the bus
// (with a genuine certificate) cannot answer in the diagnostic agent's
// place, neither at the application's address nor on its reply route: the
// broker refuses its reply, and the agent's own reply arrives.
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
        ASSERT_TRUE(app.wait_running() && agent.wait_running() && third.wait_running());

        third.send(to_app("{\"body\":{\"data-record\":[\"forged\"]}}"));
        third.send(to_app("{\"body\":{\"consent-status\":\"accepted\"}}"));
        ASSERT_TRUE(third.wait_for_deliveries(2, 5000));
        EXPECT_EQ(third.delivered_ok(), 0u) << "the broker must refuse the third node's reply";
        EXPECT_EQ(third.delivered_failed(), 2u);

        agent.send(to_app("{\"body\":{\"data-record\":[\"genuine\"]}}"));
        ASSERT_TRUE(app.wait_for_messages(1, 5000));
        EXPECT_FALSE(app.wait_for_messages(2, 500));
        std::vector<uozagent::Received> received = app.received();
        ASSERT_EQ(received.size(), 1u);
        EXPECT_EQ(received[0].text, "{\"body\":{\"data-record\":[\"genuine\"]}}");
        EXPECT_EQ(received[0].source_name, "/ZDATA/UDS");

        // The application's query still reaches the agent, naming the route
        // of the connection that sent it.
        Action query("{\"query\":1}");
        query.kind = KT5BUS_ADDR_UA;
        query.name = "/ZDATA/UDS";
        app.send(query);
        ASSERT_TRUE(agent.wait_for_messages(1, 5000));
        std::string route = agent.received()[0].reply_route;
        EXPECT_EQ(route.rfind("kt5/reply/app/app-", 0), 0u) << route;
        Action forged("{\"body\":{\"data-record\":[\"forged\"]}}");
        forged.route = route;
        third.send(forged);
        ASSERT_TRUE(third.wait_for_deliveries(3, 5000));
        EXPECT_EQ(third.delivered_failed(), 3u);
        RawClient raw("peer1", broker.port());
        for (const char *as : {"/peer1", "/agent"})
            EXPECT_EQ(raw.publish(route + as), 0x87) << as;
        Action genuine("{\"body\":{\"data-record\":[\"on its route\"]}}");
        genuine.route = route;
        agent.send(genuine);
        ASSERT_TRUE(app.wait_for_messages(2, 5000));
        EXPECT_EQ(app.received()[1].text, genuine.text);
        EXPECT_EQ(app.received()[1].source_name, "/ZDATA/UDS");
        // The third node cannot reach the application by its group either.
        EXPECT_EQ(third.received().size(), 0u);
    }
    unlink(acl.c_str());
    rmdir(dir);
}

}  // namespace
}  // namespace uoztest
