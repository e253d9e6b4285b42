// The diagnostic services end to end: library -> broker -> test agent -> back.
#include <gtest/gtest.h>
#include <string.h>

#include <atomic>
#include <thread>

#include "UDSOverZelko/records.h"
#include "library_fixture.h"

namespace uoztest {
namespace {

using uozagent::Action;
using uozagent::Received;

// Answers every query with the given body.
uozagent::Responder answer_with(const std::string &body) {
    return [body](const Received &query) {
        return std::vector<Action>{{reply_for(query.text, body)}};
    };
}

const char kEngineBlock[] =
    "\"can\": { \"ifname\": \"can0\", \"func-addr\": \"0x7DF\", \"phy-req-id\": \"0x7E0\", "
    "\"phy-resp-id\": \"0x7E8\", \"st-min\": \"0x00\", \"bsize\": \"0x00\" }";

class ServicesTest : public LibraryTest {};

TEST_F(ServicesTest, readDtcByStatusMaskSendsMaskNamesAndDecodesTheRecord) {
    agent_->set_responder(answer_with(
        R"({"targetAddress":"0x07E0","uds":{"data-record":[{"phy-req-id":"0x7E0","data":"5902FF0301000912AB3C2F"}]}})"));
    start_library(kTestConfig);
    DTCBuffer buffer{};
    int rc = UDSOverZelko_ReadDTCInfo(handle_, 0x7E0, 0x02, 0x09, &buffer);

    EXPECT_EQ(
        mask_reply_id(query_number(1)),
        std::string("{ \"type\": \"zelko.skyharbor-query\", \"reply-id\": \"<id>\", "
                    "\"body\": { \"mode\": \"CAN\", \"targetAddress\": \"0x07E0\", ") +
            kEngineBlock +
            ", \"uds\": { \"SID\": \"0x19\", \"subfunction\": \"UDS_REPORT_DTC_BY_STATUS_MASK\", "
            "\"data-record\": { \"type\": \"STATUS_MASK\", \"record\": [ "
            "\"UDS_STATUS_MASK_TEST_FAILED\", \"UDS_STATUS_MASK_CONFIRMED_DTC\" ] } } } }");
    EXPECT_EQ(reply_id_of(query_number(1)).size(), 24u);
    ASSERT_EQ(rc, 11);
    ASSERT_EQ(buffer.count, 1);
    const DTCBufferEntry *entry = buffer.entries[0];
    EXPECT_EQ(entry->length, 11);
    EXPECT_EQ(entry->target_address, 0x7E0);
    EXPECT_STREQ(entry->ecu_name, "engine");
    const uint8_t expected[] = {0x59, 0x02, 0xFF, 0x03, 0x01, 0x00,
                                0x09, 0x12, 0xAB, 0x3C, 0x2F, 0};
    EXPECT_EQ(memcmp(entry->data, expected, sizeof(expected)), 0);
    UDSOverZelko_FreeDTCBuffer(&buffer);
    EXPECT_EQ(buffer.entries, nullptr);
}

TEST_F(ServicesTest, readDtcByDtcAndRecordSendsTheNumbersAsOneText) {
    agent_->set_responder(answer_with(
        R"({"targetAddress":"0x7E0","uds":{"data-record":[{"phy-req-id":"0x7E0","data":"ABC"}]}})"));
    start_library(kTestConfig);
    DTCBuffer buffer{};
    int rc =
        UDSOverZelko_ReadDTCInfoByDTCAndRecordNumber(handle_, 0x7E0, 0x04, 0x12AB3C, 0x05, &buffer);
    EXPECT_NE(query_number(1).find("\"data-record\": { \"type\": \"DTC_AND_RECORD\", \"record\": "
                                   "\"12AB3C05\" }"),
              std::string::npos)
        << query_number(1);
    // "ABC": one byte 0xAB, and the odd digit in the spare byte.
    ASSERT_EQ(rc, 1);
    EXPECT_EQ(buffer.entries[0]->length, 1);
    EXPECT_EQ(buffer.entries[0]->data[0], 0xAB);
    EXPECT_EQ(buffer.entries[0]->data[1], 0x0C);
    UDSOverZelko_FreeDTCBuffer(&buffer);
}

TEST_F(ServicesTest, elementWithoutDataEndsTheDecodingWithAnImmatureResponse) {
    agent_->set_responder(answer_with(
        R"({"targetAddress":"-1","uds":{"data-record":[{"phy-req-id":"0x720","data":"0A1b"},{"phy-req-id":"0x7E0"},{"phy-req-id":"0x7E1","data":"00"}]}})"));
    start_library(kTestConfig);
    DTCBuffer buffer{};
    int rc = UDSOverZelko_ReadDTCInfo(handle_, -1, 0x0A, 0, &buffer);
    // The decoding itself is pinned at unit level (exchange_test).
    EXPECT_EQ(rc, 2);
    EXPECT_EQ(last_error(), "immature response recieved!!");
    ASSERT_EQ(buffer.count, 3);
    EXPECT_STREQ(buffer.entries[0]->ecu_name, "gateway");
    // The broadcast query names every CAN and IOC ECU, in configuration order.
    std::string query = query_number(1);
    EXPECT_NE(
        query.find(
            "\"mode\": \"IOC\", \"targetAddress\": \"-1\", \"ioc\": [ { \"ifname\": \"can0\""),
        std::string::npos)
        << query;
    UDSOverZelko_FreeDTCBuffer(&buffer);
}

TEST_F(ServicesTest, unsupportedSubfunctionsSendNothing) {
    start_library(kTestConfig);
    DTCBuffer buffer{};
    for (uint32_t subfunction : {0x00u, 0x07u, 0x08u, 0x17u, 0x18u, 0x19u, 0x42u}) {
        EXPECT_EQ(UDSOverZelko_ReadDTCInfo(handle_, 0x7E0, subfunction, 0xFF, &buffer), -3);
    }
    EXPECT_EQ(UDSOverZelko_ReadDTCInfo(handle_, 0x7E0, 0x02, 0xFF, nullptr), -1);
    EXPECT_EQ(last_error(), "DTCBuffer is NULL");
    EXPECT_EQ(UDSOverZelko_ReadDTCInfo(handle_, 291, 0x02, 0xFF, &buffer), -1);
    EXPECT_EQ(UDSOverZelko_ReadDTCInfo(handle_, 0x7E5, 0x02, 0xFF, &buffer), -1);
    EXPECT_EQ(UDSOverZelko_ReadDTCInfo(nullptr, 0x7E0, 0x02, 0xFF, &buffer), -1);
    EXPECT_EQ(last_error(), "Invalid UDS Handler");
    EXPECT_FALSE(agent_->wait_for_messages(1, 200));
}

TEST_F(ServicesTest, j1939VersionOfACanEcuIsSentWithItsInterfaceTwice) {
    agent_->set_responder(
        answer_with(R"({"targetAddress":"0x7E1","version":"GBX-4.2.0-rc1-build-7781"})"));
    start_library(kTestConfig);
    char version[9] = {0};
    EXPECT_EQ(UDSOverZelko_ReadECUVersionInformation(handle_, 0x7E1, version, 8), 0);
    EXPECT_STREQ(version, "GBX-4.2.");
    char second[64] = {0};
    EXPECT_EQ(UDSOverZelko_ReadECUVersionInformation(handle_, 0x7E1, second, sizeof(second) - 1),
              0);
    EXPECT_STREQ(second, "GBX-4.2.0-rc1-build-7781");
    const std::string sent = "\"version\": { \"pgn\": \"0xFEDA\", \"ifname\": \"can1\" } } }";
    EXPECT_NE(query_number(1).find(sent), std::string::npos) << query_number(1);
    EXPECT_NE(query_number(2).find(sent), std::string::npos) << query_number(2);
}

TEST_F(ServicesTest, versionReadRefusesBadBuffersAndEcusWithoutDescription) {
    start_library(kTestConfig);
    char version[16] = "untouched";
    EXPECT_EQ(UDSOverZelko_ReadECUVersionInformation(handle_, 0x7E0, nullptr, 0), -1);
    EXPECT_EQ(last_error(), "versionBufferSize is zero");
    EXPECT_EQ(UDSOverZelko_ReadECUVersionInformation(handle_, 0x7E0, nullptr, 16), -1);
    EXPECT_EQ(last_error(), "versionBuffer is NULL");
    EXPECT_EQ(UDSOverZelko_ReadECUVersionInformation(handle_, 0x20, version, 16), -2);
    EXPECT_EQ(UDSOverZelko_ReadECUVersionInformation(handle_, 0x999, version, 16), -2);
    EXPECT_EQ(last_error(), "Could not get tp blob");
    EXPECT_STREQ(version, "untouched");
    EXPECT_FALSE(agent_->wait_for_messages(1, 200));
}

TEST_F(ServicesTest, clearDtcSendsTheRoutineAndReturnsTheWholeBody) {
    agent_->set_responder(answer_with(R"({"targetAddress":"0x7E0","result":"cleared"})"));
    start_library(kTestConfig);
    CommandResponse response{};
    EXPECT_EQ(UDSOverZelkoClearDTC(handle_, 0x7E0, 0xFFFFFF, &response), 0);
    EXPECT_EQ(mask_reply_id(query_number(1)),
              std::string("{ \"type\": \"zelko.skyharbor-query\", \"reply-id\": \"<id>\", "
                          "\"body\": { \"mode\": \"CAN\", \"targetAddress\": \"0x0007E0\", ") +
                  kEngineBlock +
                  ", \"routine\": { \"name\": \"ClearDTC_Routine\", \"commands\": [ { \"command\": "
                  "\"ClearDTC\", \"service\": \"0x14\", \"subfn\": \"\", \"data\": \"0xFFFFFF\" } "
                  "] } } }");
    EXPECT_STREQ(response.body_text, R"({ "targetAddress": "0x7E0", "result": "cleared" })");
    EXPECT_EQ(response.status, 0);
    UDSOverZelko_FreeCommandResponse(&response);
    EXPECT_EQ(UDSOverZelkoClearDTC(handle_, 0x999, 0xFFFFFF, &response), -1);
    EXPECT_EQ(last_error(), "Could not get Transport Information");
    EXPECT_EQ(UDSOverZelkoClearDTC(handle_, 0x7E0, 0xFFFFFF, nullptr), -1);
    EXPECT_EQ(UDSOverZelkoClearDTC(nullptr, 0x7E0, 0xFFFFFF, &response), -1);
    EXPECT_EQ(last_error(), "Invalid UDS Handler");
}

TEST_F(ServicesTest, predefinedCommandSendsTheConfiguredRoutineUnchanged) {
    agent_->set_responder(answer_with(R"({"targetAddress":"7e0","status":"done"})"));
    start_library(kTestConfig);
    const char document[] =
        R"({"commands":[{"type":"predefined","command":"ResetECU"}],"ecu":{"ServerAddress":"7e0"}})";
    CommandResponse response{};
    EXPECT_EQ(UDSOverZelko_ExecuteRemoteCommand(handle_, document, sizeof(document), &response), 0);
    EXPECT_NE(query_number(1).find("\"targetAddress\": \"7e0\", \"can\": { \"ifname\": \"can0\""),
              std::string::npos);
    EXPECT_NE(query_number(1).find("\"routine\": { \"name\": \"ResetECU\", \"commands\": [ { "
                                   "\"command\": \"HardReset\", \"service\": \"0x11\", \"subfn\": "
                                   "\"0x01\" } ] } } }"),
              std::string::npos)
        << query_number(1);
    EXPECT_STREQ(response.body_text, R"({ "targetAddress": "7e0", "status": "done" })");
    UDSOverZelko_FreeCommandResponse(&response);
}

TEST_F(ServicesTest, customCommandsCarryEveryCommandAndTheSecurityAccess) {
    agent_->set_responder(answer_with(R"({"targetAddress":"0x20"})"));
    start_library(kTestConfig);
    const char document[] =
        R"({"commands":[{"type":"predefined","command":"ReadVIN"},{"type":"raw","service":"0x31"}],)"
        R"("security_access":{"level":"0x01"},"ecu":{"ServerAddress":"0x20"}})";
    CommandResponse response{};
    EXPECT_EQ(UDSOverZelko_ExecuteRemoteCommand(handle_, document, sizeof(document), &response), 0);
    EXPECT_NE(query_number(1).find(
                  "\"routine\": { \"name\": \"custom_commands\", \"commands\": [ { \"type\": "
                  "\"predefined\", \"command\": \"ReadVIN\" }, { \"type\": \"raw\", \"service\": "
                  "\"0x31\" } ], \"security_access\": { \"level\": \"0x01\" } } } }"),
              std::string::npos)
        << query_number(1);
    UDSOverZelko_FreeCommandResponse(&response);
}

TEST_F(ServicesTest, remoteCommandsOutsideTheirPeriodOrMalformedSendNothing) {
    start_library(kTestConfig);
    CommandResponse response{};
    struct Case {
        const char *document;
        int result;
        const char *error;
    } cases[] = {
        {R"({"diagnostic_period":{"start_time":"2000-01-01T00:00:00Z","end_time":"2001-01-01T00:00:00Z"},"commands":[],"ecu":{"ServerAddress":"7E0"}})",
         -10, nullptr},
        {R"({"diagnostic_period":{"start_time":"2000-01-01T00:00:00Z"},"commands":[],"ecu":{"ServerAddress":"7E0"}})",
         -1, "Error"},
        {R"({"diagnostic_period":{"start_time":"2025-03-01 06:00:00","end_time":"2100-01-01T00:00:00Z"},"commands":[]})",
         -10, nullptr},
        {"not json", -1, "Could not convert JSON Object"},
        {R"({"commands":{},"ecu":{"ServerAddress":"7E0"}})", -1,
         "Could not find 'commands' property in JSON"},
        {R"({"commands":[]})", -1, "No TA found"},
        {R"({"commands":[],"ecu":{"ServerAddress":"999"}})", -1,
         "Could not get Transport Information"},
        {R"({"commands":[],"ecu":{"ServerAddress":"7E5"}})", -1,
         "Could not get Transport Information"},
    };
    for (const Case &c : cases) {
        uoz_set_last_error("");
        EXPECT_EQ(
            UDSOverZelko_ExecuteRemoteCommand(handle_, c.document, strlen(c.document), &response),
            c.result)
            << c.document;
        if (c.error != nullptr) {
            EXPECT_EQ(last_error(), c.error) << c.document;
        }
    }
    EXPECT_EQ(UDSOverZelko_ExecuteRemoteCommand(handle_, "{}", 0, &response), -1);
    EXPECT_EQ(last_error(), "Invalid size received");
    EXPECT_EQ(UDSOverZelko_ExecuteRemoteCommand(handle_, nullptr, 2, &response), -1);
    EXPECT_EQ(last_error(), "Invalid buffer received");
    EXPECT_EQ(UDSOverZelko_ExecuteRemoteCommand_Async(handle_, "{}", 2, &response), -9);
    EXPECT_EQ(response.body_text, nullptr);
    EXPECT_FALSE(agent_->wait_for_messages(1, 200));
}

TEST_F(ServicesTest, consentAnswersMapToResults) {
    start_library(kTestConfig);
    struct Case {
        const char *answer;
        int result;
    } cases[] = {
        {R"({"type":"zelko.external-consent","body":{"consent-status":"Accepted"}})", 1},
        {R"({"type":"zelko.external-consent","body":{"consent-status":"ACCEPTED"}})", 1},
        {R"({"type":"zelko.external-consent","body":{"consent-status":"rejected"}})", 2},
        {R"({"type":"zelko.external-consent","body":{"consent-status":""}})", 2},
        {R"({"type":"zelko.external-consent","body":{"consent-status":true}})", 6},
        {R"({"type":"zelko.external-consent"})", 6},
    };
    for (const Case &c : cases) {
        std::string answer = c.answer;
        agent_->set_responder([answer](const Received &) { return std::vector<Action>{{answer}}; });
        EXPECT_EQ(UDSOverZelkoSendExternalConsent(handle_, CONSENT_DOWNLOAD, "C-1"), c.result)
            << c.answer;
    }
    EXPECT_EQ(
        query_number(1),
        R"({ "type": "zelko.external-consent", "body": { "campaign-id": "C-1", "download-consent": "Yes", "install-consent": "No" } })");
    EXPECT_EQ(agent_->received()[0].source_name, "/uoz/app");
    EXPECT_EQ(UDSOverZelkoSendExternalConsent(handle_, 2, "C-1"), 4);
    EXPECT_EQ(UDSOverZelkoSendExternalConsent(handle_, CONSENT_INSTALL, nullptr), 7);
    EXPECT_EQ(UDSOverZelkoSendExternalConsent(nullptr, CONSENT_INSTALL, "C-1"), 3);
}

TEST_F(ServicesTest, sixteenEcusFromSixteenThreadsEachGetTheirOwnAnswers) {
    std::string config = R"({"configs":[)";
    for (int i = 0; i < 16; ++i) {
        char entry[256];
        snprintf(
            entry, sizeof(entry),
            R"(%s{"type":"CAN","targetAddress":"0x%X","name":"ecu%d","can":{"ifname":"can0","func-addr":"0x7DF","phy-req-id":"0x%X","phy-resp-id":"0x%X"}})",
            i == 0 ? "" : ",", 0x700 + i, i, 0x700 + i, 0x708 + i);
        config += entry;
    }
    config += "]}";
    // Each answer carries its ECU's address as its data, so a mix-up shows.
    agent_->set_responder([](const Received &query) {
        std::string text = query.text;
        if (text.find("external-consent") != std::string::npos) {
            return std::vector<Action>{
                {R"({"type":"zelko.external-consent","body":{"consent-status":"accepted"}})", 5}};
        }
        size_t at = text.find("\"targetAddress\": \"0x");
        std::string address = text.substr(at + 20, 4);
        return std::vector<Action>{
            {reply_for(text, "{\"targetAddress\":\"0x" + address +
                                 "\",\"uds\":{\"data-record\":[{\"phy-req-id\":\"0x" +
                                 address.substr(1) + "\",\"data\":\"" + address + "\"}]}}")}};
    });
    start_library(config);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 16; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 20; ++round) {
                DTCBuffer buffer{};
                int rc = UDSOverZelko_ReadDTCInfo(handle_, 0x700 + t, 0x02, 0xFF, &buffer);
                bool own = rc == 2 && buffer.count == 1 && buffer.entries[0]->data[0] == 0x07 &&
                           buffer.entries[0]->data[1] == t &&
                           buffer.entries[0]->target_address == 0x700 + t;
                if (!own)
                    failures++;
                UDSOverZelko_FreeDTCBuffer(&buffer);
            }
        });
    }
    threads.emplace_back([&] {
        if (UDSOverZelkoSendExternalConsent(handle_, CONSENT_INSTALL, "C-2") != 1)
            failures++;
    });
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(failures.load(), 0);
}

}  // namespace
}  // namespace uoztest
