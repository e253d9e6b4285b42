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

// "[stamp] LABEL file:line text" becomes "LABEL file: text".
std::vector<std::string> log_lines(const std::string &output) {
    std::string plain = std::regex_replace(output, std::regex("\x1b\\[[0-9;]*m"), "");
    static const std::regex line_form(R"(^\[[^\]]+\] +(\w+) +([\w.]+):[0-9]+ (.*)$)");
    std::vector<std::string> lines;
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

void write_file(const std::string &path, const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
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
    void TearDown() override {
        std::string command = "rm -rf '" + root_ + "'";
        ASSERT_EQ(0, system(command.c_str()));
    }
    void write_identity(bool key = true, bool ca = true, bool cert = true) {
        if (key)
            write_file(root_ + "/app/private.pem", "KEY");
        if (ca)
            write_file(root_ + "/ca/ca.pem", "CA");
        if (cert)
            write_file(root_ + "/app/cert.pem", "CERT");
    }
    BusConnection *start(std::string *output = nullptr) {
        testing::internal::CaptureStdout();
        BusConnection *connection =
            zebus_init("app", root_.c_str(), "tcp://broker:1", &user_data_, record_message, 0);
        std::string text = testing::internal::GetCapturedStdout();
        if (output)
            *output = text;
        return connection;
    }
    static int record_message(const char *data, size_t length, const kt5bus_address *source,
                              void *user_data) {
        auto *self = static_cast<std::vector<std::string> *>(user_data);
        char *from = zebus_address_to_text(source);
        self->push_back(std::string(data, length - 1) + "|" + (from ? from : "-"));
        free(from);
        return 0;
    }
    std::string root_;
    std::vector<std::string> user_data_;
};

TEST_F(ZelkobusTest, NullCertDirCallsNoBusOperation) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(nullptr, zebus_init("app", nullptr, "tcp://broker:1", nullptr, nullptr, 0));
    auto lines = log_lines(testing::internal::GetCapturedStdout());
    EXPECT_EQ((std::vector<std::string>{"ERR cert_dir is NULL",
                                        "ERR Failed to init kt5bus client err=-1."}),
              lines);
    EXPECT_TRUE(fakebus::calls().empty());
    EXPECT_STREQ("cert_dir is NULL", zebus_last_error);
}

TEST_F(ZelkobusTest, MissingPrivateKeyStopsBeforeOtherFiles) {
    // Dangling links: opening either would log another "unable to open path".
    ASSERT_EQ(0, symlink("/nonexistent", (root_ + "/ca/ca.pem").c_str()));
    ASSERT_EQ(0, symlink("/nonexistent", (root_ + "/app/cert.pem").c_str()));
    std::string output;
    EXPECT_EQ(nullptr, start(&output));
    std::string dir = root_ + "/app";
    EXPECT_EQ((std::vector<std::string>{"ERR unable to open path",
                                        "ERR identity->x509.private_key is NULL",
                                        "ERR Failed to load identity certificate from " + dir,
                                        "ERR Failed to init kt5bus client err=-1."}),
              log_lines(output));
    EXPECT_EQ((std::vector<std::string>{"init_ll(debug)", "stop_client()", "fini_ll()"}),
              fakebus::calls());
}

TEST_F(ZelkobusTest, MissingCaLeavesCertificateUnread) {
    // A dangling cert.pem: opening it would log another "unable to open path".
    write_identity(true, false, false);
    ASSERT_EQ(0, symlink("/nonexistent", (root_ + "/app/cert.pem").c_str()));
    std::string output;
    EXPECT_EQ(nullptr, start(&output));
    auto lines = log_lines(output);
    ASSERT_EQ(4u, lines.size());
    EXPECT_EQ("ERR unable to open path", lines[0]);
    EXPECT_EQ("ERR identity->x509.trust[0] is NULL", lines[1]);
    EXPECT_EQ("ERR Failed to load identity certificate from " + root_ + "/app", lines[2]);
}

TEST_F(ZelkobusTest, ReadFileLengthIsSizePlusOne) {
    const struct {
        std::string content;
    } cases[] = {{""}, {"A"}, {std::string(1024, 'x')}, {std::string(3000, 'y')}};
    for (const auto &c : cases) {
        std::string path = root_ + "/file.pem";
        write_file(path, c.content);
        kt5bus_buffer *buffer = zebus_read_file(path.c_str());
        ASSERT_NE(nullptr, buffer);
        EXPECT_EQ(c.content.size() + 1, buffer->length);
        EXPECT_EQ(KT5BUS_ENCODING_PEM, buffer->encoding);
        EXPECT_EQ(0, memcmp(buffer->data, c.content.data(), c.content.size()));
        EXPECT_EQ('\0', static_cast<char *>(buffer->data)[c.content.size()]);
        free(buffer->data);
        free(buffer);
    }
}

TEST_F(ZelkobusTest, IdentityDirectoryWithAndWithoutSubdirectory) {
    write_identity();
    fakebus::set_identity_addresses({{KT5BUS_ADDR_UA, "/uoz/app"}, {KT5BUS_ADDR_GROUP, "g1"}});
    std::string output;
    BusConnection *connection = start(&output);
    ASSERT_NE(nullptr, connection);
    EXPECT_STREQ("/uoz/app", connection->node_name);
    EXPECT_STREQ("g1", connection->group_name);
    auto lines = log_lines(output);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ("INFO node=/uoz/app, cert_dir=" + root_, lines.back());
    zebus_stop(connection);

    fakebus::reset();
    std::string app = root_ + "/app";
    testing::internal::CaptureStdout();
    connection = zebus_init(nullptr, app.c_str(), "tcp://broker:1", nullptr, nullptr, 0);
    testing::internal::GetCapturedStdout();
    ASSERT_NE(nullptr, connection);
    EXPECT_EQ("get_identity_data(KEY)", fakebus::calls().at(1));
    zebus_stop(connection);
}

TEST_F(ZelkobusTest, RefusedClientStartReportsItsCode) {
    write_identity();
    fakebus::set_result("init_client", KT5BUS_ERR_URL);
    std::string output;
    EXPECT_EQ(nullptr, start(&output));
    auto lines = log_lines(output);
    ASSERT_GE(lines.size(), 1u);
    EXPECT_EQ("ERR Failed to init kt5bus client err=-4.", lines.back());
    auto calls = fakebus::calls();
    ASSERT_GE(calls.size(), 3u);
    EXPECT_EQ("init_client(tcp://broker:1)", calls[calls.size() - 3]);
    EXPECT_EQ("stop_client()", calls[calls.size() - 2]);
    EXPECT_EQ("fini_ll()", calls.back());
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
    fakebus::set_next_id(0x1a);
    char *text = strdup("{\"a\":1}");
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, zebus_send_message_to(connection_, text, KT5BUS_ADDR_UA, "/ZDATA/UDS"));
    auto lines = log_lines(testing::internal::GetCapturedStdout());
    memset(text, 'X', strlen(text));
    free(text);
    EXPECT_EQ((std::vector<std::string>{"INFO zebus_send_message status=0, "
                                        "target=/ZDATA/UDS, id=0001a, msg={\"a\":1}"}),
              lines);
    ASSERT_EQ(1u, fakebus::pending_count());
    EXPECT_EQ("{\"a\":1}", fakebus::pending_text(0));
    EXPECT_EQ(strlen("{\"a\":1}") + 1, fakebus::pending_length(0));
    EXPECT_EQ("application/json", fakebus::pending_content_type(0));
    EXPECT_EQ("2:/ZDATA/UDS", fakebus::pending_destination(0));
}

TEST_F(StartedTest, RefusedSendReleasesEverything) {
    fakebus::set_result("send_message", KT5BUS_ERR_FULL);
    testing::internal::CaptureStdout();
    EXPECT_EQ(KT5BUS_ERR_FULL, zebus_send_message_to(connection_, "{}", KT5BUS_ADDR_GROUP, "g"));
    auto lines = log_lines(testing::internal::GetCapturedStdout());
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ("INFO zebus_send_message status=-6, target=g, id=00000, msg={}", lines[0]);
    EXPECT_EQ(0u, fakebus::pending_count());  // leaks would show under ASan
}

TEST_F(StartedTest, SendToGroupsNeedsEveryName) {
    const char *empty[] = {nullptr};
    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, zebus_send_message(connection_, "{}", empty));
    auto lines = log_lines(testing::internal::GetCapturedStdout());
    EXPECT_EQ((std::vector<std::string>{"ERR Error while adding type handler"}), lines);

    fakebus::refuse_name("bad");
    const char *names[] = {"good", "bad", nullptr};
    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, zebus_send_message(connection_, "{}", names));
    lines = log_lines(testing::internal::GetCapturedStdout());
    EXPECT_EQ((std::vector<std::string>{"ERR Failed to get address for bad",
                                        "ERR Error while adding type handler"}),
              lines);
    EXPECT_EQ(0u, fakebus::pending_count());

    const char *two[] = {"g1", "g2", nullptr};
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, zebus_send_message(connection_, "{}", two));
    testing::internal::GetCapturedStdout();
    EXPECT_EQ("3:g1,3:g2", fakebus::pending_destination(0));
}

TEST_F(StartedTest, FailedDeliveriesLoggedFourTimesUntilAck) {
    for (int i = 0; i < 7; ++i) {
        testing::internal::CaptureStdout();
        zebus_send_message_to(connection_, "{}", KT5BUS_ADDR_UA, "u");
        testing::internal::GetCapturedStdout();
    }
    testing::internal::CaptureStdout();
    for (int i = 0; i < 5; ++i)
        fakebus::deliver_oldest(0);
    fakebus::deliver_oldest(1);
    fakebus::deliver_oldest(0);
    auto lines = log_lines(testing::internal::GetCapturedStdout());
    EXPECT_EQ((std::vector<std::string>{"WARN BUS ERR 00001 {}", "WARN BUS ERR 00002 {}",
                                        "WARN BUS ERR 00003 {}", "WARN BUS ERR 00004 {}",
                                        "D2BG BUS ACK 00006 {}", "WARN BUS ERR 00007 {}"}),
              lines);
}

kt5bus_address *chain(std::initializer_list<std::pair<int, const char *>> entries) {
    kt5bus_address *list = nullptr;
    for (const auto &entry : entries) {
        if (entry.first == KT5BUS_ADDR_SPECIAL)
            kt5bus_chain_address(&list, entry.first, atoi(entry.second));
        else
            kt5bus_chain_address(&list, entry.first, entry.second, 1);
    }
    return list;
}

TEST_F(StartedTest, PresenceBits) {
    kt5bus_address *dm = chain({{KT5BUS_ADDR_SPECIAL, "0"}});
    kt5bus_address *ua = chain({{KT5BUS_ADDR_UA, "/x"}});
    testing::internal::CaptureStdout();
    fakebus::inject_presence(ua, nullptr);
    fakebus::inject_presence(dm, nullptr);
    fakebus::inject_presence(nullptr, dm);
    auto lines = log_lines(testing::internal::GetCapturedStdout());
    EXPECT_EQ(
        (std::vector<std::string>{"INFO Connected: <UA: /x> ", "INFO Zelko Bus state: 0x02",
                                  "INFO Connected: <DM-CLIENT>", "INFO Zelko Bus state: 0x06",
                                  "INFO Disconnected: <DM-CLIENT>", "INFO Zelko Bus state: 0x02"}),
        lines);
    kt5bus_free_address(dm, 1);
    kt5bus_free_address(ua, 1);
}

TEST_F(StartedTest, StatusTexts) {
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
    for (const auto &c : cases) {
        testing::internal::CaptureStdout();
        fakebus::inject_status(c.status);
        EXPECT_EQ(std::vector<std::string>{c.line},
                  log_lines(testing::internal::GetCapturedStdout()));
    }
    EXPECT_EQ(1, connection_->running.load());  // status 6 does not end the client
}

TEST_F(StartedTest, MessagesReachTheCallback) {
    kt5bus_address *from = chain({{KT5BUS_ADDR_UA, "/ZDATA/UDS"}});
    fakebus::inject_message("{\"r\":1}", 8, from);
    EXPECT_EQ((std::vector<std::string>{"{\"r\":1}|<UA: /ZDATA/UDS> "}), user_data_);
    kt5bus_free_address(from, 1);
}

TEST_F(StartedTest, StopWaitsForTheStoppedCallback) {
    fakebus::set_call_stopped(false);
    std::atomic<bool> done{false};
    std::thread stopper([&] {
        zebus_stop(connection_);
        done = true;
    });
    usleep(100000);
    EXPECT_FALSE(done.load());
    fakebus::inject_stopped();
    stopper.join();
    EXPECT_TRUE(done.load());
    connection_ = nullptr;
    auto calls = fakebus::calls();
    EXPECT_EQ("stop_client()", calls[calls.size() - 2]);
    EXPECT_EQ("fini_ll()", calls.back());
}

TEST(ZelkobusCallbacks, MessageBeforeOwnerIsIgnored) {
    kt5bus_client client{};
    kt5bus_message message{};
    message.data = const_cast<char *>("{}");
    message.length = 3;
    testing::internal::CaptureStdout();
    zebus_on_message(&client, &message);
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
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
