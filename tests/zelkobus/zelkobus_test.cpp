// The bus wrapper on the fake bus library: message sequences, identity files,
// sending and ownership, and what the callbacks log and change.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <regex>

#include "../core/log_capture.h"
#include "fake_kt5bus.h"
#include "zelkobus/zelkobus.h"

namespace uoztest {
namespace {

// Log lines without time stamps, file names and line numbers.
std::vector<std::string> messages(const std::string &log) {
    std::vector<std::string> lines;
    std::regex line(R"(\[T\] \S+ +\S+:\d+ (.*))");
    std::istringstream stream(log);
    std::string text;
    while (std::getline(stream, text)) {
        std::smatch match;
        if (std::regex_match(text, match, line))
            lines.push_back(match[1]);
    }
    return lines;
}

// <root>/node/{private.pem,cert.pem} and <root>/ca/ca.pem, any of them left out.
class IdentityDir {
  public:
    explicit IdentityDir(bool key = true, bool cert = true, bool ca = true) {
        char dir[] = "/tmp/uoz-identity-XXXXXX";
        root_ = mkdtemp(dir);
        mkdir((root_ + "/node").c_str(), 0755);
        mkdir((root_ + "/ca").c_str(), 0755);
        if (key)
            write(node() + "/private.pem", "KEY");
        if (cert)
            write(node() + "/cert.pem", "CERT");
        if (ca)
            write(root_ + "/ca/ca.pem", "CA");
    }
    ~IdentityDir() { system(("rm -rf " + root_).c_str()); }
    std::string node() const { return root_ + "/node"; }
    std::string root() const { return root_; }
    static void write(const std::string &path, const std::string &text) {
        std::ofstream(path) << text;
    }

  private:
    std::string root_;
};

kt5bus_address address(int kind, const char *name) {
    kt5bus_address result{};
    result.kind = kind;
    result.value.name = const_cast<char *>(name);
    return result;
}

kt5bus_address special(int code) {
    kt5bus_address result{};
    result.kind = KT5BUS_ADDR_SPECIAL;
    result.value.special = code;
    return result;
}

int count_messages(const char *, size_t, const kt5bus_address *, void *user_data) {
    ++*static_cast<int *>(user_data);
    return 0;
}

class ZelkobusTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fakebus::Settings settings;
        settings.identity_addresses = {address(KT5BUS_ADDR_GROUP, "grp"),
                                       address(KT5BUS_ADDR_UA, "/uoz/app"), special(0),
                                       address(KT5BUS_ADDR_UA, "/second")};
        fakebus::reset(settings);
    }

    BusConnection *start(const IdentityDir &identity, void *user_data = nullptr) {
        return zebus_init(nullptr, identity.node().c_str(), "tcp://localhost:1", user_data,
                          count_messages, 0);
    }
};

TEST_F(ZelkobusTest, nullCertDirFailsBeforeAnyBusCall) {
    LogCapture capture(4);
    EXPECT_EQ(zebus_init(nullptr, nullptr, "tcp://x:1", nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(
        messages(capture.text()),
        (std::vector<std::string>{"cert_dir is NULL", "Failed to init kt5bus client err=-1."}));
    EXPECT_TRUE(fakebus::calls().empty());
    EXPECT_STREQ(zebus_last_error, "cert_dir is NULL");
}

TEST_F(ZelkobusTest, missingPrivateKeyStopsTheLoadAndTheStart) {
    IdentityDir identity(false, true, true);
    LogCapture capture(4);
    EXPECT_EQ(start(identity), nullptr);
    EXPECT_EQ(
        messages(capture.text()),
        (std::vector<std::string>{"unable to open path", "identity->x509.private_key is NULL",
                                  "Failed to load identity certificate from " + identity.node(),
                                  "Failed to init kt5bus client err=-1."}));
    EXPECT_EQ(fakebus::calls(), (std::vector<std::string>{"init_ll", "stop_client", "fini_ll"}));
}

TEST_F(ZelkobusTest, missingCaIsReportedAsTrust) {
    IdentityDir identity(true, true, false);
    LogCapture capture(0);
    EXPECT_EQ(start(identity), nullptr);
    std::vector<std::string> lines = messages(capture.text());
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[1], "identity->x509.trust[0] is NULL");
}

TEST_F(ZelkobusTest, identityComesFromTheSubDirectoryAndItsSiblingCa) {
    IdentityDir identity;
    LogCapture capture(2);
    BusConnection *connection =
        zebus_init("node", identity.root().c_str(), "tcp://localhost:1", nullptr, nullptr, 0);
    ASSERT_NE(connection, nullptr);
    // <root>/node/../ca/ca.pem is <root>/ca/ca.pem, which exists; <root>/../ca would not.
    EXPECT_STREQ(connection->node_name, "/uoz/app");
    EXPECT_STREQ(connection->group_name, "grp");
    EXPECT_EQ(connection->client.identity.x509.private_key->length, 4u);
    EXPECT_EQ(connection->running.load(), 1);
    EXPECT_EQ(fakebus::client(), &connection->client);
    zebus_stop(connection);
    std::vector<std::string> lines = messages(capture.text());
    EXPECT_NE(std::find(lines.begin(), lines.end(), "node=/uoz/app, cert_dir=" + identity.root()),
              lines.end());
}

TEST_F(ZelkobusTest, refusedStartReportsTheBusCodeTwice) {
    IdentityDir identity;
    fakebus::Settings settings;
    settings.init_client_result = -7;
    fakebus::reset(settings);
    LogCapture capture(0);
    EXPECT_EQ(start(identity), nullptr);
    EXPECT_EQ(messages(capture.text()),
              (std::vector<std::string>{"Failed to init kt5bus client err=-7.",
                                        "Failed to init kt5bus client err=-7."}));
}

TEST_F(ZelkobusTest, emptyPemLoadsAsOneZeroByte) {
    IdentityDir identity;
    IdentityDir::write(identity.node() + "/empty.pem", "");
    kt5bus_buffer *buffer = zebus_read_file((identity.node() + "/empty.pem").c_str());
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->length, 1u);
    EXPECT_EQ(static_cast<char *>(buffer->data)[0], '\0');
    EXPECT_EQ(buffer->encoding, KT5BUS_ENCODING_PEM);
    free(buffer->data);
    free(buffer);
}

TEST_F(ZelkobusTest, sendHandsOverACopyWithContentTypeAndTerminator) {
    IdentityDir identity;
    BusConnection *connection = start(identity);
    ASSERT_NE(connection, nullptr);
    char *text = strdup("{\"a\":1}");
    LogCapture capture(2);
    EXPECT_EQ(zebus_send_message_to(connection, text, KT5BUS_ADDR_UA, "/ZDATA/UDS"), 0);
    free(text);  // the caller's text is never taken over
    auto accepted = fakebus::accepted();
    ASSERT_EQ(accepted.size(), 1u);
    EXPECT_STREQ(accepted[0]->content_type, "application/json");
    EXPECT_EQ(accepted[0]->length, 8u);
    EXPECT_STREQ(static_cast<char *>(accepted[0]->data), "{\"a\":1}");
    EXPECT_STREQ(accepted[0]->destination->value.name, "/ZDATA/UDS");
    EXPECT_EQ(messages(capture.text()),
              (std::vector<std::string>{
                  "zebus_send_message status=0, target=/ZDATA/UDS, id=00100, msg={\"a\":1}"}));
    fakebus::report_delivery(accepted[0], 1);  // released by the wrapper (ASan checks)
    zebus_stop(connection);
}

TEST_F(ZelkobusTest, refusedSendLogsThenReleasesEverything) {
    IdentityDir identity;
    BusConnection *connection = start(identity);
    fakebus::Settings settings;
    settings.send_result = 9;
    fakebus::reset(settings);
    LogCapture capture(2);
    EXPECT_EQ(zebus_send_message_to(connection, "{}", KT5BUS_ADDR_UA, "/ZDATA/UDS"), 9);
    EXPECT_EQ(messages(capture.text()),
              (std::vector<std::string>{
                  "zebus_send_message status=9, target=/ZDATA/UDS, id=00000, msg={}",
                  "Failed to send message over Zelko Bus"}));
    EXPECT_EQ(zebus_send_message_to(nullptr, "{}", KT5BUS_ADDR_UA, "x"), -1);
    EXPECT_STREQ(zebus_last_error, "Zelko Bus connection is NULL");
    EXPECT_EQ(zebus_send_message_to(connection, nullptr, KT5BUS_ADDR_UA, "x"), -1);
    EXPECT_STREQ(zebus_last_error, "message is NULL");
    fakebus::reset();
    zebus_stop(connection);
}

TEST_F(ZelkobusTest, groupListsNeedEveryName) {
    IdentityDir identity;
    BusConnection *connection = start(identity);
    const char *const empty[] = {nullptr};
    LogCapture capture(0);
    EXPECT_EQ(zebus_send_message(connection, "{}", empty), -1);
    fakebus::Settings settings;
    settings.chain_result = 5;
    settings.chain_fail_on_call = 2;
    fakebus::reset(settings);
    const char *const groups[] = {"policy-agent", "second", "third", nullptr};
    EXPECT_EQ(zebus_send_message(connection, "{}", groups), -1);
    EXPECT_EQ(messages(capture.text()),
              (std::vector<std::string>{"Error while adding type handler",
                                        "Failed to get address for second",
                                        "Error while adding type handler"}));
    EXPECT_EQ(fakebus::calls(),
              (std::vector<std::string>{"chain_address", "chain_address", "free_address"}));
    fakebus::reset();
    zebus_stop(connection);
}

TEST_F(ZelkobusTest, failedDeliveriesLogFourInARowUntilAnAcknowledgement) {
    IdentityDir identity;
    BusConnection *connection = start(identity);
    LogCapture capture(4);
    for (int i = 0; i < 7; ++i)
        zebus_send_message_to(connection, "{}", KT5BUS_ADDR_UA, "a");
    auto accepted = fakebus::accepted();
    for (int i = 0; i < 5; ++i)
        fakebus::report_delivery(accepted[i], 0);
    EXPECT_EQ(connection->failed_deliveries, 5);
    fakebus::report_delivery(accepted[5], 1);
    EXPECT_EQ(connection->failed_deliveries, 0);
    fakebus::report_delivery(accepted[6], 0);
    std::string log = capture.text();
    std::vector<std::string> reports;
    for (const std::string &line : messages(log)) {
        if (line.rfind("BUS", 0) == 0)
            reports.push_back(line);
    }
    EXPECT_EQ(reports, (std::vector<std::string>{"BUS ERR 00100 {}", "BUS ERR 00101 {}",
                                                 "BUS ERR 00102 {}", "BUS ERR 00103 {}",
                                                 "BUS ACK 00105 {}", "BUS ERR 00106 {}"}));
    zebus_stop(connection);
}

TEST_F(ZelkobusTest, presenceOfTheDmClientSetsAndClearsItsBit) {
    IdentityDir identity;
    BusConnection *connection = start(identity);
    kt5bus_address dm = special(0);
    kt5bus_address agent = address(KT5BUS_ADDR_UA, "/ZDATA/UDS");
    LogCapture capture(2);
    fakebus::on_bus_thread([&] { zebus_on_presence(&connection->client, &dm, nullptr); });
    EXPECT_EQ(connection->state, 0x06u);
    fakebus::on_bus_thread([&] { zebus_on_presence(&connection->client, nullptr, &dm); });
    EXPECT_EQ(connection->state, 0x02u);
    fakebus::on_bus_thread([&] { zebus_on_presence(&connection->client, &agent, nullptr); });
    EXPECT_EQ(messages(capture.text()),
              (std::vector<std::string>{"Connected: <DM-CLIENT>", "Zelko Bus state: 0x06",
                                        "Disconnected: <DM-CLIENT>", "Zelko Bus state: 0x02",
                                        "Connected: <UA: /ZDATA/UDS> ", "Zelko Bus state: 0x02"}));
    zebus_stop(connection);
}

TEST_F(ZelkobusTest, statusCodesHaveTheirTexts) {
    LogCapture capture(2);
    for (int status : {0, 1, 2, 3, 4, 5, 6, 7, 12})
        zebus_on_status(nullptr, status);
    EXPECT_EQ(messages(capture.text()),
              (std::vector<std::string>{
                  "Zelko Bus connection: running", "Zelko Bus error: resolution failed",
                  "Zelko Bus error: connection failed", "Zelko Bus error: registration failed",
                  "Zelko Bus error: connection broke", "Zelko Bus error: connection aborted",
                  "Zelko Bus error: client stopped", "Zelko Bus connection: start",
                  "Zelko Bus error: condition=12"}));
}

TEST_F(ZelkobusTest, addressesHaveTheirTextForms) {
    struct Case {
        kt5bus_address address;
        const char *text;
    } cases[] = {{address(KT5BUS_ADDR_UA, "/ZDATA/UDS"), "<UA: /ZDATA/UDS> "},
                 {address(KT5BUS_ADDR_GROUP, "policy-agent"), "<GRP: policy-agent>"},
                 {special(0), "<DM-CLIENT>"},
                 {special(5), "<UNKNOWN SPECIAL 5>"},
                 {address(9, "x"), "<UNKNOWN TYPE 9>"}};
    for (const Case &c : cases) {
        char *text = zebus_address_to_text(&c.address);
        EXPECT_STREQ(text, c.text);
        free(text);
    }
}

TEST_F(ZelkobusTest, messagesReachTheHandlerOnlyOnceStarted) {
    IdentityDir identity;
    int received = 0;
    BusConnection *connection = start(identity, &received);
    kt5bus_message message{};
    message.data = const_cast<char *>("");
    message.length = 0;
    void *owner = connection->client.owner;
    connection->client.owner = nullptr;
    zebus_on_message(&connection->client, &message);
    EXPECT_EQ(received, 0);
    connection->client.owner = owner;
    zebus_on_message(&connection->client, &message);
    EXPECT_EQ(received, 1);
    LogCapture capture(0);
    zebus_on_message(nullptr, &message);
    zebus_on_message(&connection->client, nullptr);
    EXPECT_EQ(messages(capture.text()),
              (std::vector<std::string>{"client is NULL", "msg is NULL"}));
    zebus_stop(connection);
}

TEST_F(ZelkobusTest, stopWaitsForTheStoppedCallback) {
    IdentityDir identity;
    fakebus::Settings settings;
    settings.stopped_delay_ms = 80;
    fakebus::reset(settings);
    BusConnection *connection = start(identity);
    auto begin = std::chrono::steady_clock::now();
    zebus_stop(connection);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(80));
    EXPECT_EQ(fakebus::calls().back(), "fini_ll");
    zebus_stop(nullptr);
}

}  // namespace
}  // namespace uoztest
