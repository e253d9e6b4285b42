// The bus wrapper over the fake bus library: exact log texts, call order,
// ownership of message records and the callbacks' threading.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "fake_kt5bus.h"
#include "logging/uoz_log.h"
#include "zelkobus/zelkobus.h"

namespace {

using Lines = std::vector<std::string>;

// "[stamp] LABEL file:line text" becomes "LABEL text".
Lines log_lines(const std::string &output) {
    std::string plain = std::regex_replace(output, std::regex("\x1b\\[[0-9;]*m"), "");
    static const std::regex line_form(R"(^\[[^\]]+\] +(\w+) +([\w.]+):[0-9]+ (.*)$)");
    Lines lines;
    std::istringstream stream(plain);
    std::string line;
    std::smatch match;
    while (std::getline(stream, line)) {
        if (std::regex_match(line, match, line_form))
            lines.push_back(match[1].str() + " " + match[3].str());
        else if (!line.empty())
            lines.push_back("? " + line);
    }
    return lines;
}

// The log lines that the action writes.
template <typename F>
Lines logged(F action) {
    testing::internal::CaptureStdout();
    action();
    return log_lines(testing::internal::GetCapturedStdout());
}

void write_file(const std::string &path, const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
}

const Lines &calls() {
    return fakebus::state().calls;
}

class ZelkobusTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fakebus::reset();
        uoz_dbg_level = UOZ_LOG_D2BG;
        char pattern[] = "/tmp/zelkobus-test-XXXXXX";
        root_ = mkdtemp(pattern);
        mkdir((root_ + "/ca").c_str(), 0700);
        mkdir((root_ + "/app").c_str(), 0700);
    }
    void TearDown() override { ASSERT_EQ(0, system(("rm -rf '" + root_ + "'").c_str())); }
    void write_identity() {
        write_file(root_ + "/app/private.pem", "KEY");
        write_file(root_ + "/ca/ca.pem", "CA");
        write_file(root_ + "/app/cert.pem", "CERT");
    }
    BusConnection *start(Lines *lines = nullptr) {
        BusConnection *connection = nullptr;
        Lines written = logged([&] {
            connection =
                zebus_init("app", root_.c_str(), "tcp://broker:1", &received_, record_message, 0);
        });
        if (lines != nullptr)
            *lines = written;
        return connection;
    }
    static int record_message(const char *data, size_t length, const kt5bus_address *source,
                              void *user_data) {
        char *from = zebus_address_to_text(source);
        static_cast<Lines *>(user_data)->push_back(std::string(data, length - 1) + "|" +
                                                   (from ? from : "-"));
        free(from);
        return 0;
    }
    std::string root_;
    Lines received_;
};

TEST_F(ZelkobusTest, NullCertDirCallsNoBusOperation) {
    EXPECT_EQ(logged([] {
                  EXPECT_EQ(nullptr,
                            zebus_init("app", nullptr, "tcp://broker:1", nullptr, nullptr, 0));
              }),
              (Lines{"ERR cert_dir is NULL", "ERR Failed to init kt5bus client err=-1."}));
    EXPECT_TRUE(calls().empty());
    EXPECT_STREQ("cert_dir is NULL", zebus_last_error);
}

// The bus library's calls show among the log lines (echo_calls), so that the
// order of messages and stop sequence is pinned.
TEST_F(ZelkobusTest, MissingKeyOrCaStopsBeforeTheFilesAfterIt) {
    // Dangling links: opening either would log another "unable to open path".
    ASSERT_EQ(0, symlink("/nonexistent", (root_ + "/ca/ca.pem").c_str()));
    ASSERT_EQ(0, symlink("/nonexistent", (root_ + "/app/cert.pem").c_str()));
    for (const char *missing : {"private_key", "trust[0]"}) {
        fakebus::reset();
        fakebus::state().echo_calls = true;
        Lines lines;
        EXPECT_EQ(nullptr, start(&lines));
        EXPECT_EQ(lines, (Lines{"DBG init_ll(debug)", "ERR unable to open path",
                                std::string("ERR identity->x509.") + missing + " is NULL",
                                "ERR Failed to load identity certificate from " + root_ + "/app",
                                "DBG stop_client()", "DBG fini_ll()",
                                "ERR Failed to init kt5bus client err=-1."}));
        write_file(root_ + "/app/private.pem", "KEY");
    }
}

TEST_F(ZelkobusTest, ReadFileLengthIsSizePlusOne) {
    for (const std::string &content :
         {std::string(), std::string("A"), std::string(1024, 'x'), std::string(3000, 'y')}) {
        std::string path = root_ + "/file.pem";
        write_file(path, content);
        kt5bus_buffer *buffer = zebus_read_file(path.c_str());
        ASSERT_NE(nullptr, buffer);
        EXPECT_EQ(content.size() + 1, buffer->length);
        EXPECT_EQ(KT5BUS_ENCODING_PEM, buffer->encoding);
        EXPECT_EQ(0, memcmp(buffer->data, content.data(), content.size()));
        EXPECT_EQ('\0', static_cast<char *>(buffer->data)[content.size()]);
        free(buffer->data);
        free(buffer);
    }
}

TEST_F(ZelkobusTest, IdentityDirectoryWithAndWithoutSubdirectory) {
    write_identity();
    fakebus::state().identity_addresses = {{KT5BUS_ADDR_UA, "/uoz/app"}, {KT5BUS_ADDR_GROUP, "g1"}};
    Lines lines;
    BusConnection *connection = start(&lines);
    ASSERT_NE(nullptr, connection);
    EXPECT_STREQ("/uoz/app", connection->node_name);
    EXPECT_STREQ("g1", connection->group_name);
    EXPECT_EQ("INFO node=/uoz/app, cert_dir=" + root_, lines.back());
    zebus_stop(connection);

    fakebus::reset();
    std::string app = root_ + "/app";
    logged(
        [&] { connection = zebus_init(nullptr, app.c_str(), "tcp://b:1", nullptr, nullptr, 0); });
    ASSERT_NE(nullptr, connection);
    EXPECT_EQ("get_identity_data(KEY)", calls().at(1));
    zebus_stop(connection);
}

TEST_F(ZelkobusTest, RefusedClientStartIsReportedBeforeTheStopSequenceAndAfterIt) {
    write_identity();
    fakebus::state().init_result = KT5BUS_ERR_URL;
    fakebus::state().echo_calls = true;
    Lines lines;
    EXPECT_EQ(nullptr, start(&lines));
    ASSERT_GE(lines.size(), 5u);
    EXPECT_EQ(
        Lines(lines.end() - 5, lines.end()),
        (Lines{"DBG init_client(tcp://broker:1)", "ERR Failed to init kt5bus client err=-4.",
               "DBG stop_client()", "DBG fini_ll()", "ERR Failed to init kt5bus client err=-4."}));
    EXPECT_STREQ("Failed to init kt5bus client err=-4.", zebus_last_error);
}

class StartedTest : public ZelkobusTest {
  protected:
    void SetUp() override {
        ZelkobusTest::SetUp();
        write_identity();
        connection_ = start();
        ASSERT_NE(nullptr, connection_);
    }
    void TearDown() override {
        if (connection_)
            zebus_stop(connection_);
        ZelkobusTest::TearDown();
    }
    BusConnection *connection_ = nullptr;
};

TEST_F(StartedTest, SendCopiesTextAndLogsIt) {
    fakebus::state().next_id = 0x1a;
    char *text = strdup("{\"a\":1}");
    EXPECT_EQ(logged([&] {
                  EXPECT_EQ(0,
                            zebus_send_message_to(connection_, text, KT5BUS_ADDR_UA, "/ZDATA/UDS"));
              }),
              (Lines{"INFO zebus_send_message status=0, target=/ZDATA/UDS, id=0001a, "
                     "msg={\"a\":1}"}));
    memset(text, 'X', strlen(text));
    free(text);
    ASSERT_EQ(1u, fakebus::state().pending.size());
    kt5bus_message *sent = fakebus::state().pending[0];
    EXPECT_STREQ("{\"a\":1}", static_cast<const char *>(sent->data));
    EXPECT_EQ(strlen("{\"a\":1}") + 1, sent->length);
    EXPECT_STREQ("application/json", sent->content_type);
    EXPECT_EQ("2:/ZDATA/UDS", fakebus::destination(sent));
}

TEST_F(StartedTest, RefusedSendsReleaseEverythingAndGroupsNeedEveryName) {
    fakebus::state().send_result = KT5BUS_ERR_FULL;
    EXPECT_EQ(logged([&] {
                  EXPECT_EQ(KT5BUS_ERR_FULL,
                            zebus_send_message_to(connection_, "{}", KT5BUS_ADDR_GROUP, "g"));
              }).at(0),
              "INFO zebus_send_message status=-6, target=g, id=00000, msg={}");
    EXPECT_STREQ("Failed to send message over Zelko Bus\n", zebus_last_error);
    fakebus::state().send_result = 0;
    const char *empty[] = {nullptr};
    EXPECT_EQ(logged([&] { EXPECT_EQ(-1, zebus_send_message(connection_, "{}", empty)); }),
              (Lines{"ERR Error while adding type handler"}));
    fakebus::state().refused_name = "bad";
    const char *names[] = {"good", "bad", nullptr};
    EXPECT_EQ(logged([&] { EXPECT_EQ(-1, zebus_send_message(connection_, "{}", names)); }),
              (Lines{"ERR Failed to get address for bad", "ERR Error while adding type handler"}));
    EXPECT_EQ(0u, fakebus::state().pending.size());  // leaks would show under ASan
    const char *two[] = {"g1", "g2", nullptr};
    logged([&] { EXPECT_EQ(0, zebus_send_message(connection_, "{}", two)); });
    EXPECT_EQ("3:g1,3:g2", fakebus::destination(fakebus::state().pending.at(0)));
}

// A delivery reported while the send is still under way releases the record
// only after the send's log line has read it (a use after free otherwise).
TEST_F(StartedTest, DeliveryDuringTheSendWaitsForItsLogLine) {
    fakebus::state().deliver_during_send = true;
    EXPECT_EQ(logged([&] {
                  EXPECT_EQ(0, zebus_send_message_to(connection_, "{}", KT5BUS_ADDR_UA, "u"));
                  fakebus::state().delivery.join();
              }),
              (Lines{"D2BG BUS ACK 00001 {}",
                     "INFO zebus_send_message status=0, target=u, id=00001, msg={}"}));
}

TEST_F(StartedTest, FailedDeliveriesLoggedFourTimesUntilAck) {
    logged([&] {
        for (int i = 0; i < 7; ++i)
            zebus_send_message_to(connection_, "{}", KT5BUS_ADDR_UA, "u");
    });
    kt5bus_client *client = fakebus::state().client;
    EXPECT_EQ(
        logged([&] {
            for (int ok : {0, 0, 0, 0, 0, 1, 0}) {
                kt5bus_message *message = fakebus::state().pending.front();
                fakebus::state().pending.pop_front();
                fakebus::on_bus_thread([&] { client->on_delivered(client, message, nullptr, ok); });
            }
        }),
        (Lines{"WARN BUS ERR 00001 {}", "WARN BUS ERR 00002 {}", "WARN BUS ERR 00003 {}",
               "WARN BUS ERR 00004 {}", "D2BG BUS ACK 00006 {}", "WARN BUS ERR 00007 {}"}));
}

TEST_F(StartedTest, PresenceStatusAndMessagesReachTheirHandlers) {
    char name[] = "/x";
    kt5bus_address ua{};
    ua.kind = KT5BUS_ADDR_UA;
    ua.value.name = name;
    kt5bus_address dm{};
    dm.kind = KT5BUS_ADDR_SPECIAL;
    dm.value.special = KT5BUS_SPECIAL_DM_CLIENT;
    kt5bus_client *client = fakebus::state().client;
    EXPECT_EQ(logged([&] {
                  fakebus::on_bus_thread([&] {
                      client->on_presence(client, &ua, nullptr);
                      client->on_presence(client, &dm, nullptr);
                      client->on_presence(client, nullptr, &dm);
                  });
              }),
              (Lines{"INFO Connected: <UA: /x> ", "INFO Zelko Bus state: 0x02",
                     "INFO Connected: <DM-CLIENT>", "INFO Zelko Bus state: 0x06",
                     "INFO Disconnected: <DM-CLIENT>", "INFO Zelko Bus state: 0x02"}));
    kt5bus_message message{};
    message.data = const_cast<char *>("{\"r\":1}");
    message.length = 8;
    message.source = &ua;
    fakebus::on_bus_thread([&] { client->on_message(client, &message); });
    EXPECT_EQ((Lines{"{\"r\":1}|<UA: /x> "}), received_);
    const struct {
        int status;
        const char *line;
    } cases[] = {
        {0, "INFO Zelko Bus connection: running"},
        {1, "ERR Zelko Bus error: resolution failed"},
        {2, "ERR Zelko Bus error: connection failed"},
        {3, "ERR Zelko Bus error: registration failed"},
        {4, "ERR Zelko Bus error: connection broke"},
        {5, "ERR Zelko Bus error: connection aborted"},
        {6, "ERR Zelko Bus error: client stopped"},
        {7, "INFO Zelko Bus connection: start"},
        {12, "ERR Zelko Bus error: condition=12"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(Lines{c.line}, logged([&] {
                      fakebus::on_bus_thread([&] { client->on_status(client, c.status); });
                  }));
    EXPECT_EQ(1, connection_->running.load());  // status 6 does not end the client
}

TEST_F(StartedTest, StopWaitsForTheStoppedCallback) {
    fakebus::state().call_stopped = false;
    std::atomic<bool> done{false};
    std::thread stopper([&] {
        zebus_stop(connection_);
        done = true;
    });
    usleep(100000);
    EXPECT_FALSE(done.load());
    kt5bus_client *client = fakebus::state().client;
    fakebus::on_bus_thread([&] { client->on_stopped(client); });
    stopper.join();
    EXPECT_TRUE(done.load());
    connection_ = nullptr;
    EXPECT_EQ(Lines(calls().end() - 2, calls().end()), (Lines{"stop_client()", "fini_ll()"}));
}

TEST(ZelkobusCallbacks, MessageBeforeOwnerIsIgnored) {
    kt5bus_client client{};
    kt5bus_message message{};
    message.data = const_cast<char *>("{}");
    message.length = 3;
    EXPECT_TRUE(logged([&] { zebus_on_message(&client, &message); }).empty());
}

TEST(ZelkobusAddressText, Forms) {
    kt5bus_address address{};
    char name[] = "n";
    const struct {
        int kind;
        int special;
        const char *text;
    } cases[] = {{KT5BUS_ADDR_UA, 0, "<UA: n> "},
                 {KT5BUS_ADDR_GROUP, 0, "<GRP: n>"},
                 {KT5BUS_ADDR_SPECIAL, 0, "<DM-CLIENT>"},
                 {KT5BUS_ADDR_SPECIAL, 5, "<UNKNOWN SPECIAL 5>"},
                 {9, 0, "<UNKNOWN TYPE 9>"}};
    for (const auto &c : cases) {
        address.kind = c.kind;
        if (c.kind == KT5BUS_ADDR_SPECIAL)
            address.value.special = c.special;
        else
            address.value.name = name;
        char *text = zebus_address_to_text(&address);
        ASSERT_NE(nullptr, text);
        EXPECT_STREQ(c.text, text);
        free(text);
    }
    EXPECT_EQ(nullptr, zebus_address_to_text(nullptr));
}

}  // namespace
