// Our bus library against a real broker: addressing, delivery reports,
// presence, the ACL, another CA, and reconnection.
#include <gtest/gtest.h>
#include <mosquitto.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "agent_peer.h"
#include "broker_fixture.h"

extern char **environ;

namespace uoztest {
namespace {

using uozagent::Action;
using uozagent::AgentPeer;

std::unique_ptr<AgentPeer> peer(const std::string &node, const Broker &broker,
                                const std::string &pki = pki_dir()) {
    auto result = std::make_unique<AgentPeer>(pki + "/" + node, broker.url());
    return result;
}

Action to(int kind, const std::string &name, const std::string &text) {
    Action action(text);
    action.kind = kind;
    action.name = name;
    return action;
}

TEST(BusAddressTest, chainRefusesEmptyAndWildcardNames) {
    kt5bus_address *chain = nullptr;
    for (const char *name : {"", "a+b", "a#", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(kt5bus_chain_address(&chain, KT5BUS_ADDR_UA, name, 1), KT5BUS_ERR_INVALID);
    }
    EXPECT_EQ(kt5bus_chain_address(&chain, 42, "x", 1), KT5BUS_ERR_INVALID);
    EXPECT_EQ(chain, nullptr);
    EXPECT_EQ(kt5bus_chain_address(&chain, KT5BUS_ADDR_GROUP, "g1", 1), 0);
    EXPECT_EQ(kt5bus_chain_address(&chain, KT5BUS_ADDR_SPECIAL, KT5BUS_SPECIAL_DM_CLIENT), 0);
    ASSERT_NE(chain, nullptr);
    EXPECT_STREQ(chain->value.name, "g1");
    EXPECT_EQ(chain->next->kind, KT5BUS_ADDR_SPECIAL);
    kt5bus_free_address(chain, 1);
    kt5bus_free_address(nullptr, 1);
}

TEST(BusAddressTest, identityDataListsCertificateAddressesInOrder) {
    kt5bus_identity identity;
    ASSERT_EQ(load_identity(&identity, identity_dir("peer1")), 0);
    kt5bus_address *chain = nullptr;
    ASSERT_EQ(kt5bus_get_identity_data(&identity, &chain, nullptr, nullptr), 0);
    std::vector<std::string> names;
    for (kt5bus_address *a = chain; a != nullptr; a = a->next) {
        names.push_back(std::to_string(a->kind) + ":" + a->value.name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"2:/test/peer1", "3:grp-a", "3:grp-b"}));
    kt5bus_free_address(chain, 1);
    free_identity(&identity);
    ASSERT_EQ(load_identity(&identity, identity_dir("dmc")), 0);
    ASSERT_EQ(kt5bus_get_identity_data(&identity, &chain, nullptr, nullptr), 0);
    ASSERT_NE(chain, nullptr);
    EXPECT_EQ(chain->kind, KT5BUS_ADDR_SPECIAL);
    EXPECT_EQ(chain->value.special, KT5BUS_SPECIAL_DM_CLIENT);
    kt5bus_free_address(chain, 1);
    free_identity(&identity);
}

TEST(BusTest, messagesReachAgentsGroupsAndTheDmClientWithTheirSource) {
    Broker broker;
    auto one = peer("peer1", broker), two = peer("peer2", broker), dmc = peer("dmc", broker);
    ASSERT_TRUE(one->wait_running() && two->wait_running() && dmc->wait_running());
    ASSERT_TRUE(one->wait_for_peer("/test/peer2") && one->wait_for_peer("<DM-CLIENT>"));
    ASSERT_TRUE(two->wait_for_peer("/test/peer1") && dmc->wait_for_peer("/test/peer1"));
    one->send(to(KT5BUS_ADDR_UA, "/test/peer2", "to the agent"));
    one->send(to(KT5BUS_ADDR_GROUP, "grp-a", "to the group"));
    one->send(to(KT5BUS_ADDR_SPECIAL, "", "to the dm client"));
    ASSERT_TRUE(two->wait_for_messages(2, 5000));
    ASSERT_TRUE(dmc->wait_for_messages(1, 5000));
    auto received = two->received();
    EXPECT_EQ(received[0].text, "to the agent");
    EXPECT_EQ(received[0].length, strlen("to the agent") + 1);
    EXPECT_EQ(received[0].source_kind, KT5BUS_ADDR_UA);
    EXPECT_EQ(received[0].source_name, "/test/peer1");
    EXPECT_EQ(received[1].text, "to the group");
    EXPECT_EQ(dmc->received()[0].text, "to the dm client");
}

// A delivery report means the broker accepted the message. That a message to
// an absent peer is reported not delivered rests on the broker answering
// PUBACK reason 0x10 (no matching subscribers), which MQTT 5 makes optional:
// this case needs a broker that sends it, as mosquitto does.
TEST(BusTest, deliveryIsReportedOnceAndNoSubscriberRefinesItWhereTheBrokerSaysSo) {
    Broker broker;
    auto one = peer("peer1", broker), two = peer("peer2", broker);
    ASSERT_TRUE(one->wait_running() && two->wait_running());
    one->send(to(KT5BUS_ADDR_UA, "/test/peer2", "subscribed"));
    ASSERT_TRUE(one->wait_for_deliveries(1, 5000));
    one->send(to(KT5BUS_ADDR_UA, "/nobody", "not subscribed"));
    ASSERT_TRUE(one->wait_for_deliveries(2, 5000));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(one->delivered_ok(), 1u);
    EXPECT_EQ(one->delivered_failed(), 1u);
}

// A clean stop withdraws the presence record itself and disconnects without
// asking for the Will, so the peer learns of it from the withdrawal alone;
// the Will covers the killed process.
TEST(BusTest, presenceReportsCleanStopAndAKilledProcess) {
    Broker broker;
    auto one = peer("peer1", broker);
    ASSERT_TRUE(one->wait_running());
    {
        auto two = peer("peer2", broker);
        ASSERT_TRUE(one->wait_for_peer("/test/peer2"));
    }
    EXPECT_TRUE(one->wait_for_peer_gone("/test/peer2", 5000));

    // A separate process holding the dm client's identity, killed outright.
    std::string certs = identity_dir("dmc");
    std::string url = "localhost:" + std::to_string(broker.port());
    const char *argv[] = {UOZ_AGENT_PATH, "--certs", certs.c_str(), "--broker",
                          url.c_str(),    "--debug", "-1",          nullptr};
    pid_t child = 0;
    ASSERT_EQ(
        posix_spawn(&child, UOZ_AGENT_PATH, nullptr, nullptr, const_cast<char **>(argv), environ),
        0);
    EXPECT_TRUE(one->wait_for_peer("<DM-CLIENT>"));
    ASSERT_GT(child, 0);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_TRUE(one->wait_for_peer_gone("<DM-CLIENT>", 5000));
}

// A bare MQTT client with a node's certificate, to try what our library never does.
class RawClient {
  public:
    RawClient(const std::string &node, int port) {
        mosquitto_lib_init();
        client_ = mosquitto_new(nullptr, true, this);
        mosquitto_int_option(client_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
        std::string dir = identity_dir(node);
        mosquitto_tls_set(client_, (pki_dir() + "/ca/ca.pem").c_str(), nullptr,
                          (dir + "/cert.pem").c_str(), (dir + "/private.pem").c_str(), nullptr);
        mosquitto_subscribe_v5_callback_set(
            client_, [](mosquitto *, void *self, int, int count, const int *granted,
                        const mosquitto_property *) {
                if (count > 0)
                    static_cast<RawClient *>(self)->granted_ = granted[0];
            });
        mosquitto_message_v5_callback_set(
            client_,
            [](mosquitto *, void *self, const mosquitto_message *, const mosquitto_property *) {
                static_cast<RawClient *>(self)->received_++;
            });
        mosquitto_publish_v5_callback_set(
            client_, [](mosquitto *, void *self, int, int reason, const mosquitto_property *) {
                static_cast<RawClient *>(self)->published_ = reason;
            });
        connected_ = mosquitto_connect(client_, "localhost", port, 30) == MOSQ_ERR_SUCCESS &&
                     mosquitto_loop_start(client_) == MOSQ_ERR_SUCCESS;
    }
    ~RawClient() {
        mosquitto_disconnect(client_);
        mosquitto_loop_stop(client_, false);
        mosquitto_destroy(client_);
        mosquitto_lib_cleanup();
    }
    int subscribe(const char *topic) {
        mosquitto_subscribe_v5(client_, nullptr, topic, 1, 0, nullptr);
        return wait(granted_);
    }
    int publish(const char *topic) {
        mosquitto_publish_v5(client_, nullptr, topic, 4, "spam", 1, false, nullptr);
        return wait(published_);
    }
    bool connected() const { return connected_; }
    int received() const { return received_.load(); }

  private:
    static int wait(std::atomic<int> &value) {
        for (int i = 0; i < 300 && value.load() < 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        int result = value.load();
        value = -1;
        return result;
    }
    mosquitto *client_ = nullptr;
    bool connected_ = false;
    std::atomic<int> granted_{-1};
    std::atomic<int> published_{-1};
    std::atomic<int> received_{0};
};

// The broker grants any subscription but delivers only what the ACL lets a
// node read, and refuses publishes under another node's CN.
TEST(BusTest, aclStopsEavesdroppingAndSpoofing) {
    Broker broker;
    auto one = peer("peer1", broker), two = peer("peer2", broker);
    ASSERT_TRUE(one->wait_running() && two->wait_running());
    RawClient raw("noaddr", broker.port());
    ASSERT_TRUE(raw.connected());
    raw.subscribe("kt5/msg/+/ua/test/peer2");
    EXPECT_GE(raw.publish("kt5/msg/peer1/ua/test/peer2"), 0x80) << "sent under another CN";
    EXPECT_FALSE(two->wait_for_messages(1, 300));
    one->send(to(KT5BUS_ADDR_UA, "/test/peer2", "private"));
    ASSERT_TRUE(two->wait_for_messages(1, 5000));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(raw.received(), 0) << "another node's messages reached the eavesdropper";
}

TEST(BusTest, clientReconnectsAfterTheBrokerRestarts) {
    Broker broker;
    auto one = peer("peer1", broker), two = peer("peer2", broker);
    ASSERT_TRUE(one->wait_running() && two->wait_running());
    broker.kill();
    ASSERT_TRUE(one->wait_for_status(KT5BUS_STATUS_CONNECTION_BROKE, 5000));
    broker.start();
    ASSERT_TRUE(one->wait_running(10000) && two->wait_running(10000));
    ASSERT_TRUE(one->wait_for_peer("/test/peer2"));
    one->send(to(KT5BUS_ADDR_UA, "/test/peer2", "after the restart"));
    ASSERT_TRUE(two->wait_for_messages(1, 5000));
    EXPECT_EQ(two->received()[0].text, "after the restart");
}

TEST(BusTest, clientKeepsTryingUntilTheBrokerComesUp) {
    Broker broker;
    broker.stop();
    auto one = peer("peer1", broker);
    EXPECT_TRUE(one->wait_for_status(KT5BUS_STATUS_CONNECTION_FAILED, 5000));
    broker.start();
    EXPECT_TRUE(one->wait_running(10000));
}

TEST(BusTest, stopReportsEveryPendingMessagePromptly) {
    Broker broker;
    broker.stop();
    auto one = peer("peer1", broker);
    for (int i = 0; i < 5; ++i)
        one->send(to(KT5BUS_ADDR_UA, "/test/peer2", "never sent"));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(one->delivered_ok() + one->delivered_failed(), 0u);
    auto begin = std::chrono::steady_clock::now();
    one->stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
    EXPECT_EQ(one->delivered_failed(), 5u);
    EXPECT_EQ(one->delivered_ok(), 0u);
}

}  // namespace
}  // namespace uoztest
