// The ECU configuration file (accepted and dropped entries, their messages,
// unusable files) and the reply identifiers.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <set>
#include <string>

#include "UDSOverZelko/query.h"
#include "core_support.h"
#include "golden.h"
#include "kt5Utils/kt5_json.h"

namespace uoztest {
namespace {

int count(const UDSOverZelkoHandle *handle) {
    int n = 0;
    for (EcuConfig *record = handle->ecus; record != nullptr; record = record->next)
        ++n;
    return n;
}

const char kCan[] =
    R"("can":{"ifname":"can0","func-addr":"0x7DF","phy-req-id":"0x7E0","phy-resp-id":"0x7E8"})";

TEST(ConfigTest, unusableFilesFailTheLoad) {
    std::string log;
    EXPECT_EQ(load_config("not json", &log), nullptr);
    EXPECT_TRUE(std::regex_search(log, std::regex(R"(ERR  \S+ Config failure\n)"))) << log;
    for (const char *text : {R"({"other":[]})", R"({"configs":{}})", R"({"configs":"x"})"})
        EXPECT_EQ(load_config(text), nullptr) << text;
    UDSOverZelkoHandle *handle = new_handle();
    EXPECT_EQ(load_ecu_config(handle, "/nonexistent/ecus.json"), -1);
    release_handle(handle);
}

// Each entry of dropped_entries.golden is dropped from the configuration
// with its message logged.
TEST(ConfigTest, droppedEntriesLeaveTheirMessages) {
    Golden drops(UOZ_GOLDEN_DIR "/dropped_entries.golden");
    for (const auto &[entry, quoted] : drops.entries()) {
        JsonPtr message(json_tokener_parse(quoted.c_str()));
        std::string log;
        UDSOverZelkoHandle *handle = load_config(R"({"configs":[)" + entry + "]}", &log);
        ASSERT_NE(handle, nullptr) << entry;
        EXPECT_EQ(count(handle), 0) << entry;
        EXPECT_NE(log.find(std::string(" ") + json_object_get_string(message.get()) + "\n"),
                  std::string::npos)
            << entry << log;
        release_handle(handle);
    }
}

TEST(ConfigTest, entriesKeepFileOrderTextsAndDefaultsAndNullElementsAreDropped) {
    std::string text =
        std::string(
            R"({"configs":[null,{"type":"CAN","targetAddress":" 7e0 engine","name":"engine",)") +
        kCan + R"(},{"type":"CANFD","targetAddress":"FFFFFFFF","name":"adas"},)" +
        R"({"type":"CAN","targetAddress":"0x7E0","name":"second",)" + kCan +
        R"(},{"type":"CAN","targetAddress":"0x7E1","name":"ENGINE",)" + kCan + "},null," +
        R"({"type":"IOC","targetAddress":"0x20","name":"gw","ioc":{"bus-id":"1","func-addr":"2","phy-req-id":"3","phy-resp-id":"4"},"ecu_version":{"uds":[],"j1939":{}}},)" +
        R"({"type":"DOIP","targetAddress":"-0x1","name":"tcu","doip":{"sa":"1","ta":"2","gw-ip":"3"},"ecu_version":{"j1939":{"pgn":"1"},"extra":true}},7]})";
    std::string log;
    UDSOverZelkoHandle *handle = load_config(text, &log);
    ASSERT_NE(handle, nullptr);
    // Each null element and the number are dropped with the same message.
    std::regex drop("Could not parse 'type'\n");
    EXPECT_EQ(
        std::distance(std::sregex_iterator(log.begin(), log.end(), drop), std::sregex_iterator()),
        3)
        << log;
    ASSERT_EQ(count(handle), 5);
    EcuConfig *engine = handle->ecus;
    EXPECT_EQ(engine->target_address, 0x7E0);
    EXPECT_STREQ(engine->phy_req_id, "0x7E0");
    EXPECT_STREQ(engine->st_min, "0x00");
    EXPECT_STREQ(engine->bsize, "0x00");
    EXPECT_EQ(engine->ecu_version, nullptr);
    EcuConfig *adas = engine->next;
    EXPECT_EQ(adas->type, TRANSPORT_CANFD);
    EXPECT_EQ(adas->target_address, -1);
    EXPECT_EQ(adas->ifname, nullptr);
    EXPECT_STREQ(adas->next->name, "second");
    EcuConfig *tcu = adas->next->next->next;
    EXPECT_EQ(tcu->target_address, -1);
    EXPECT_STREQ(json_object_to_json_string(tcu->ecu_version),
                 R"({ "j1939": { "pgn": "1" }, "extra": true })");
    // The earlier of two entries wins both look-ups.
    EXPECT_STREQ(UDSOverZelkoGetECUNameFromTargetAddress(handle, 0x7E0), "engine");
    EXPECT_EQ(UDSOverZelkoGetTargetAddressFromECUName(handle, "Engine"), 0x7E0);
    // The dropped IOC entry passed its transport block: the broadcast record is IOC.
    EXPECT_EQ(handle->broadcast_ecu->type, TRANSPORT_IOC);
    EXPECT_EQ(handle->broadcast_ecu->target_address, -1);
    release_handle(handle);
    handle = load_config(R"({"configs":[]})");
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle->ecus, nullptr);
    EXPECT_EQ(handle->broadcast_ecu->type, TRANSPORT_CAN);
    // No entry reads as -1 here, so the broadcast address names nothing.
    EXPECT_EQ(UDSOverZelkoGetECUNameFromTargetAddress(handle, -1), nullptr);
    release_handle(handle);
}

TEST(ConfigTest, targetAddressesReadAsThirtyTwoBitHexadecimal) {
    struct Case {
        const char *text;
        int32_t address;
    } cases[] = {{"0x7E0", 0x7E0}, {"7e0", 0x7E0},    {"7E0 engine", 0x7E0}, {"  +0X10", 0x10},
                 {"zz", 0},        {"", 0},           {"FFFFFFFF", -1},      {"-1", -1},
                 {"-7E0", -0x7E0}, {"123456789", -1}, {"1FFFFFFFF", -1}};
    for (const Case &c : cases)
        EXPECT_EQ(parse_target_address(c.text), c.address) << c.text;
}

TEST(ConfigTest, printOutShowsAddressesTransportsAndVersion) {
    std::string text =
        std::string(R"({"configs":[{"type":"CAN","targetAddress":"0x7E0","name":"e",)") + kCan +
        R"(,"ecu_version":{"uds":[]}},{"type":"DOIP","targetAddress":"12345678","name":"t","doip":{"sa":"1","ta":"2","gw-ip":"10.0.0.1"}}]})";
    UDSOverZelkoHandle *handle = load_config(text);
    ASSERT_NE(handle, nullptr);
    LogCapture capture(2);
    print_ecu_config(handle);
    std::string log = capture.text();
    const char *expected[] = {"Target Address: 0x07E0\n",
                              "ECU Version Information: { \"uds\": [ ] }\n",
                              "TP Info:\n",
                              "CAN Interface Name can0:\n",
                              "Request ID:0x7E0\n",
                              "Response ID:0x7E8\n",
                              "Block Size:0x00\n",
                              "Sepeartion :0x00\n",
                              "Target Address: 0x12345678\n",
                              "ECU Version Information: null\n",
                              "GW IP Address: 10.0.0.1\n",
                              "SA: 1\n",
                              "TA: 2\n"};
    size_t at = 0;
    for (const char *line : expected) {
        at = log.find(line, at);
        ASSERT_NE(at, std::string::npos) << line << log;
    }
    release_handle(handle);
}

// What an application sees of reply identifiers: characters of the alphabet,
// every one of them in a long enough identifier, the same identifier within
// one calendar second, and its own rand() sequence left where srand() of the
// second and one draw per character leave it. A check whose second turned
// while it ran is run again.
TEST(ReplyIdTest, isDrawnFromTheSecondsSeedWithOneRandPerCharacter) {
    const std::string alphabet = REPLY_ID_ALPHABET;
    for (;;) {
        time_t now = time(nullptr);
        srand(static_cast<unsigned>(now));
        for (int i = 0; i < REPLY_ID_LENGTH; ++i)
            rand();
        int next_draw = rand();
        TextPtr first(generate_reply_id(REPLY_ID_LENGTH));
        int drawn_after = rand();
        TextPtr second(generate_reply_id(REPLY_ID_LENGTH));
        TextPtr prefix(generate_reply_id(5));
        TextPtr long_id(generate_reply_id(4000));
        if (time(nullptr) != now)
            continue;
        EXPECT_EQ(drawn_after, next_draw);
        ASSERT_EQ(strlen(first.get()), static_cast<size_t>(REPLY_ID_LENGTH));
        EXPECT_STREQ(first.get(), second.get());
        EXPECT_EQ(std::string(first.get(), 5), prefix.get());
        std::set<char> used(long_id.get(), long_id.get() + 4000);
        EXPECT_EQ(used, std::set<char>(alphabet.begin(), alphabet.end()));
        break;
    }
    EXPECT_EQ(generate_reply_id(-1), nullptr);
}

}  // namespace
}  // namespace uoztest
