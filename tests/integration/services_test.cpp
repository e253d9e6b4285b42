// The diagnostic services end to end: library -> broker -> test agent -> back.
#include <gtest/gtest.h>
#include <string.h>

#include <atomic>
#include <thread>

#include "golden.h"
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

class ServicesTest : public LibraryTest {};

TEST_F(ServicesTest, readDtcByStatusMaskSendsMaskNamesAndDecodesTheRecord) {
    agent_->set_responder(answer_with(
        R"({"targetAddress":"0x07E0","uds":{"data-record":[{"phy-req-id":"0x7E0","data":"5902FF0301000912AB3C2F"}]}})"));
    start_library();
    DTCBuffer buffer{};
    int rc = UDSOverZelko_ReadDTCInfo(handle_, 0x7E0, 0x02, 0x09, &buffer);
    std::string query = query_number(1);
    EXPECT_EQ(reply_id_of(query).size(), 24u);
    EXPECT_EQ(without_reply_id(query), Golden(UOZ_GOLDEN_DIR "/queries.golden")["library dtc by status mask"]);
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
        std::string address = text.substr(text.find("\"targetAddress\": \"0x") + 20, 4);
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
                failures += own ? 0 : 1;
                UDSOverZelko_FreeDTCBuffer(&buffer);
            }
        });
    }
    threads.emplace_back([&] {
        failures += UDSOverZelkoSendExternalConsent(handle_, CONSENT_INSTALL, "C-2") == 1 ? 0 : 1;
    });
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(failures.load(), 0);
}

}  // namespace
}  // namespace uoztest
