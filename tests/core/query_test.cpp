// The exact text of query bodies for every transport, broadcast and version
// queries, and the reply identifiers.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "UDSOverZelko/config.h"
#include "UDSOverZelko/query.h"
#include "kt5Utils/kt5_json.h"
#include "log_capture.h"

namespace uoztest {
namespace {

const char kEcus[] = R"({"configs":[
 {"type":"CAN","targetAddress":"0x7E0","name":"A","can":{"ifname":"can0","func-addr":"0x7DF","phy-req-id":"0x7E0","phy-resp-id":"0x7E8","bsize":"0x08"},"ecu_version":{"uds":[{"did":"0xF189"}]}},
 {"type":"DOIP","targetAddress":"0x1001","name":"B","doip":{"sa":"0x0E80","ta":"0x1001","gw-ip":"10.0.0.1"},"ecu_version":{"j1939":{"pgn":"0xFEDA"}}},
 {"type":"IOC","targetAddress":"0x20","name":"C","ioc":{"bus-id":"1","func-addr":"0x7DF","phy-req-id":"0x720","phy-resp-id":"0x728"}},
 {"type":"CANFD","targetAddress":"0x7E5","name":"D"},
 {"type":"CAN","targetAddress":"0x7E1","name":"E","can":{"ifname":"can1","func-addr":"0x7DF","phy-req-id":"0x7E1","phy-resp-id":"0x7E9"},"ecu_version":{"j1939":{"pgn":"0xFEDA"}}},
 {"type":"CAN","targetAddress":"0x12345","name":"F","can":{"ifname":"can0","func-addr":"1","phy-req-id":"2","phy-resp-id":"3"}},
 {"type":"CAN","targetAddress":"0x123456","name":"G","can":{"ifname":"can0","func-addr":"1","phy-req-id":"2","phy-resp-id":"3"}}
]})";

class QueryTest : public ::testing::Test {
  protected:
    void SetUp() override { handle_ = load(kEcus); }
    void TearDown() override { release_handle(handle_); }

    static UDSOverZelkoHandle *load(const char *text) {
        char path[] = "/tmp/uoz-query-XXXXXX";
        int fd = mkstemp(path);
        EXPECT_EQ(write(fd, text, strlen(text)), static_cast<ssize_t>(strlen(text)));
        close(fd);
        UDSOverZelkoHandle *handle = new_handle();
        int saved = uoz_dbg_level;
        uoz_dbg_level = -1;
        EXPECT_EQ(load_ecu_config(handle, path), 0);
        uoz_dbg_level = saved;
        unlink(path);
        return handle;
    }

    std::string body(int32_t address, QueryKind kind, EcuConfig **record = nullptr) {
        JsonPtr uds(json_tokener_parse(R"({"SID":"0x19"})"));
        EcuConfig *addressed = nullptr;
        JsonPtr built(build_query_body(handle_, address, kind, uds.get(), &addressed));
        if (record != nullptr)
            *record = addressed;
        return built ? json_object_to_json_string(built.get()) : "NULL";
    }

    UDSOverZelkoHandle *handle_ = nullptr;
};

TEST_F(QueryTest, canBodyHasModeAddressBlockAndUds) {
    EcuConfig *record = nullptr;
    EXPECT_EQ(
        body(0x7E0, QUERY_UDS_DATA, &record),
        R"({ "mode": "CAN", "targetAddress": "0x07E0", "can": { "ifname": "can0", "func-addr": "0x7DF", "phy-req-id": "0x7E0", "phy-resp-id": "0x7E8", "st-min": "0x00", "bsize": "0x08" }, "uds": { "SID": "0x19" } })");
    EXPECT_STREQ(record->name, "A");
}

TEST_F(QueryTest, iocAndDoipBodiesCarryTheirBlocks) {
    EXPECT_EQ(
        body(0x20, QUERY_UDS_DATA),
        R"({ "mode": "IOC", "targetAddress": "0x0020", "ioc": { "bus-id": "1", "func-addr": "0x7DF", "phy-req-id": "0x720", "phy-resp-id": "0x728" }, "uds": { "SID": "0x19" } })");
    EXPECT_EQ(
        body(0x1001, QUERY_UDS_DATA),
        R"({ "mode": "DOIP", "targetAddress": "0x1001", "doip": { "sa": "0x0E80", "ta": "0x1001", "gw-ip": "10.0.0.1" }, "uds": { "SID": "0x19" } })");
}

TEST_F(QueryTest, broadcastListsCanAndIocBlocksInOrder) {
    EXPECT_EQ(
        body(-1, QUERY_UDS_DATA),
        R"({ "mode": "IOC", "targetAddress": "-1", "ioc": [ { "ifname": "can0", "func-addr": "0x7DF", "phy-req-id": "0x7E0", "phy-resp-id": "0x7E8", "st-min": "0x00", "bsize": "0x08" }, { "bus-id": "1", "func-addr": "0x7DF", "phy-req-id": "0x720", "phy-resp-id": "0x728" }, { "ifname": "can1", "func-addr": "0x7DF", "phy-req-id": "0x7E1", "phy-resp-id": "0x7E9", "st-min": "0x00", "bsize": "0x00" }, { "ifname": "can0", "func-addr": "1", "phy-req-id": "2", "phy-resp-id": "3", "st-min": "0x00", "bsize": "0x00" }, { "ifname": "can0", "func-addr": "1", "phy-req-id": "2", "phy-resp-id": "3", "st-min": "0x00", "bsize": "0x00" } ], "uds": { "SID": "0x19" } })");
    UDSOverZelkoHandle *only_doip = load(
        R"({"configs":[{"type":"DOIP","targetAddress":"1","name":"B","doip":{"sa":"1","ta":"2","gw-ip":"3"}}]})");
    std::swap(handle_, only_doip);
    EXPECT_EQ(body(-1, QUERY_UDS_DATA),
              R"({ "mode": "CAN", "targetAddress": "-1", "can": [ ], "uds": { "SID": "0x19" } })");
    std::swap(handle_, only_doip);
    release_handle(only_doip);
}

TEST_F(QueryTest, longAddressesAreWrittenInFullUpToFiveDigits) {
    EXPECT_NE(body(0x12345, QUERY_UDS_DATA).find(R"("targetAddress": "0x12345")"),
              std::string::npos);
    EXPECT_NE(body(0x123456, QUERY_UDS_DATA).find(R"("targetAddress": "0x12345",)"),
              std::string::npos);
}

TEST_F(QueryTest, unknownAddressCanfdAndBelowMinusOneFail) {
    struct Case {
        int32_t address;
        const char *log;
    } cases[] = {{291, "Could not find tragetAddress=291\n"}, {0x7E5, nullptr}, {-2, nullptr}};
    for (const Case &c : cases) {
        LogCapture capture(0);
        EXPECT_EQ(body(c.address, QUERY_UDS_DATA), "NULL");
        std::string log = capture.text();
        EXPECT_EQ(std::string(uoz_last_error), "Could not get tp blob");
        if (c.log != nullptr) {
            EXPECT_NE(log.find(c.log), std::string::npos) << log;
        }
        EXPECT_NE(log.find("Could not get tp blob\n"), std::string::npos) << log;
    }
}

TEST_F(QueryTest, versionQueriesSendTheDescription) {
    EXPECT_EQ(
        body(0x7E0, QUERY_VERSION),
        R"({ "mode": "CAN", "targetAddress": "0x07E0", "can": { "ifname": "can0", "func-addr": "0x7DF", "phy-req-id": "0x7E0", "phy-resp-id": "0x7E8", "st-min": "0x00", "bsize": "0x08" }, "version": { "uds": [ { "did": "0xF189" } ] } })");
    // A CAN ECU sends its j1939 object with its interface, the same each time.
    for (int i = 0; i < 2; ++i) {
        std::string text = body(0x7E1, QUERY_VERSION);
        EXPECT_NE(text.find(R"("version": { "pgn": "0xFEDA", "ifname": "can1" } })"),
                  std::string::npos)
            << text;
    }
    // Any other transport sends the whole description.
    EXPECT_NE(body(0x1001, QUERY_VERSION).find(R"("version": { "j1939": { "pgn": "0xFEDA" } } })"),
              std::string::npos);
    EXPECT_EQ(body(0x20, QUERY_VERSION), "NULL");
    EXPECT_EQ(body(-1, QUERY_VERSION), "NULL");
}

TEST_F(QueryTest, envelopeWrapsTheBodyAfterTypeAndId) {
    JsonPtr envelope(wrap_query("abc", json_object_new_object()));
    EXPECT_STREQ(json_object_to_json_string(envelope.get()),
                 R"({ "type": "zelko.skyharbor-query", "reply-id": "abc", "body": { } })");
}

TEST_F(QueryTest, transportModeNamesAndKeys) {
    struct Case {
        int type;
        const char *mode;
        const char *key;
    } cases[] = {{0, "CAN", "can"}, {1, "CANFD", "canfd"}, {2, "DOIP", "doip"}, {3, "IOC", "ioc"}};
    for (const Case &c : cases) {
        const char *key = nullptr;
        JsonPtr mode(transport_mode_name(static_cast<TransportType>(c.type), &key));
        EXPECT_STREQ(json_object_get_string(mode.get()), c.mode);
        EXPECT_STREQ(key, c.key);
    }
    const char *key = "keep";
    EXPECT_EQ(transport_mode_name(static_cast<TransportType>(4), &key), nullptr);
    EXPECT_STREQ(key, "keep");
}

// Each character is rand() % 69 after srand() of the calendar second; a
// check whose second turned while it ran is run again.
TEST(ReplyIdTest, isWhatSrandOfTheSecondAndRandGiveAndRepeatsWithinIt) {
    for (;;) {
        time_t now = time(nullptr);
        TextPtr first(generate_reply_id(REPLY_ID_LENGTH));
        TextPtr second(generate_reply_id(REPLY_ID_LENGTH));
        TextPtr shorter(generate_reply_id(5));
        srand(static_cast<unsigned>(now));
        std::string expected;
        for (int i = 0; i < REPLY_ID_LENGTH; ++i)
            expected += REPLY_ID_ALPHABET[rand() % (sizeof(REPLY_ID_ALPHABET) - 1)];
        if (time(nullptr) != now)
            continue;
        EXPECT_EQ(first.get(), expected);
        EXPECT_EQ(second.get(), expected);
        EXPECT_EQ(shorter.get(), expected.substr(0, 5));
        break;
    }
    EXPECT_EQ(generate_reply_id(-1), nullptr);
}

}  // namespace
}  // namespace uoztest
