// The exchange without a broker: reply decoding, routing, matching for every
// service, consent answers, argument checks, query bodies, name look-ups and
// remote command addresses. Sent messages are caught at the bus library's
// send entry point, and the answer, if any, is delivered to the handler
// before the send returns.
#include <ctype.h>
#include <gtest/gtest.h>
#include <locale.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "UDSOverZelko/exchange.h"
#include "UDSOverZelko/query.h"
#include "UDSOverZelko/remote_command.h"
#include "core_support.h"
#include "kt5Utils/kt5_json.h"
#include "zelkobus/zelkobus.h"

namespace uoztest {
namespace {

const char kEcus[] = R"({"configs":[
 {"type":"CAN","targetAddress":"0x7E0","name":"engine","can":{"ifname":"can0","func-addr":"0x7DF","phy-req-id":"0x7E0","phy-resp-id":"0x7E8","bsize":"0x08"},"ecu_version":{"uds":[{"did":"0xF189"}]}},
 {"type":"DOIP","targetAddress":"0x1001","name":"telematics","doip":{"sa":"0x0E80","ta":"0x1001","gw-ip":"10.0.0.1"},"ecu_version":{"j1939":{"pgn":"0xFEDA"}}},
 {"type":"IOC","targetAddress":"0x20","name":"gateway","ioc":{"bus-id":"1","func-addr":"0x7DF","phy-req-id":"0x720","phy-resp-id":"0x728"}},
 {"type":"CANFD","targetAddress":"0x7E5","name":"adas"},
 {"type":"CAN","targetAddress":"0x7E1","name":"gearbox","can":{"ifname":"can1","func-addr":"0x7DF","phy-req-id":"0x7E1","phy-resp-id":"0x7E9"},"ecu_version":{"j1939":{"pgn":"0xFEDA"}}},
 {"type":"CAN","targetAddress":"0x12345","name":"F","can":{"ifname":"can0","func-addr":"1","phy-req-id":"2","phy-resp-id":"3"}},
 {"type":"CAN","targetAddress":"0x123456","name":"G","can":{"ifname":"can0","func-addr":"1","phy-req-id":"2","phy-resp-id":"3"}},
 {"type":"CAN","targetAddress":"FFFFFFFF","name":"everyone","can":{"ifname":"can0","func-addr":"1","phy-req-id":"2","phy-resp-id":"3"}}
],
"pre-defined-routines":[{"name":"ResetECU","commands":[{"service":"0x11","subfn":"0x01"}]}]})";

// What the stand-in agent answers to one sent text: a reply text, or "" for none.
using Responder = std::function<std::string(const std::string &sent)>;

Responder g_responder;
UDSOverZelkoHandle *g_handle = nullptr;
std::vector<std::string> g_sent;
std::vector<kt5bus_message *> g_accepted;

// The send entry point of the bus library: keeps the message (the wrapper
// reads it after the send) and delivers the answer at once.
int fake_send(kt5bus_client *, kt5bus_message *message, void *) {
    std::string text(static_cast<const char *>(message->data));
    g_sent.push_back(text);
    g_accepted.push_back(message);
    std::string answer = g_responder ? g_responder(text) : "";
    if (!answer.empty())
        on_bus_message(answer.c_str(), answer.size() + 1, nullptr, g_handle);
    return 0;
}

std::string reply_id_of(const std::string &sent) {
    JsonPtr parsed(json_tokener_parse(sent.c_str()));
    const char *id = nullptr;
    kt5_json_get(parsed.get(), json_type_string, &id, "reply-id", nullptr);
    return id != nullptr ? id : "";
}

std::string update(const std::string &members) {
    return R"({"type":"zelko.skyharbor-query-update",)" + members + "}";
}

std::string consent(const std::string &body) {
    return R"({"type":"zelko.external-consent")" + body + "}";
}

class ExchangeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        saved_level_ = uoz_dbg_level;
        uoz_dbg_level = 0;  // error lines are logged, as applications see them
        std::string path = temp_file(kEcus);
        g_handle = new_handle();
        ASSERT_EQ(load_ecu_config(g_handle, path.c_str()), 0);
        g_handle->config_path = strdup(path.c_str());
        g_handle->bus = static_cast<BusConnection *>(calloc(1, sizeof(BusConnection)));
        zebus_ops.chain_address = kt5bus_chain_address;
        zebus_ops.free_address = kt5bus_free_address;
        zebus_ops.send_message = fake_send;
    }
    void TearDown() override {
        for (kt5bus_message *message : g_accepted) {
            free(message->data);
            kt5bus_free_address(message->destination, 1);
            free(message);
        }
        g_accepted.clear();
        g_sent.clear();
        g_responder = nullptr;
        unlink(g_handle->config_path);
        free(g_handle->bus);
        g_handle->bus = nullptr;
        release_handle(g_handle);
        g_handle = nullptr;
        uoz_dbg_level = saved_level_;
    }
    int saved_level_ = 0;
};

// ---- decoding ----------------------------------------------------------

JsonPtr reply_with_records(const std::string &records) {
    return JsonPtr(
        json_tokener_parse((R"({"body":{"uds":{"data-record":)" + records + "}}}").c_str()));
}

TEST_F(ExchangeTest, dataTextsDecodeAsTheCConversionReadsThemAtEachEvenPosition) {
    struct Case {
        const char *data;
        int32_t length;
        std::vector<uint8_t> bytes;  // length + 1 bytes, the spare byte included
    } cases[] = {
        {"0A1b", 2, {0x0A, 0x1B, 0x00}},
        {"ABC", 1, {0xAB, 0x0C}},
        {"", 0, {0x00}},
        {"zz", 1, {0x00, 0x00}},
        {"5", 0, {0x05}},
        // At k = 2 the conversion skips the blank and reads "1B"; at k = 4 "B".
        {"0A 1B", 2, {0x0A, 0x1B, 0x0B}},
        {"A g", 1, {0x0A, 0x00}},
        {"-1", 1, {0xFF, 0x00}},
        {"0x1F", 2, {0x00, 0x1F, 0x00}},
        {" \t7", 1, {0x07, 0x07}},
    };
    for (const auto &c : cases) {
        JsonPtr reply =
            reply_with_records(R"([{"phy-req-id":"0x7E0","data":")" + std::string(c.data) + "\"}]");
        ASSERT_TRUE(reply) << c.data;
        DTCBuffer buffer{};
        EXPECT_EQ(decode_uds_reply(g_handle, reply.get(), &buffer), c.length) << c.data;
        ASSERT_EQ(buffer.count, 1);
        DTCBufferEntry *entry = buffer.entries[0];
        EXPECT_EQ(entry->length, c.length) << c.data;
        EXPECT_EQ(std::vector<uint8_t>(entry->data, entry->data + entry->length + 1), c.bytes)
            << c.data;
        UDSOverZelko_FreeDTCBuffer(&buffer);
    }
}

TEST_F(ExchangeTest, elementsAreNamedByRequestIdAndDecodingStopsAtAnIncompleteOne) {
    struct Case {
        const char *records;
        int32_t result;
        int32_t count;
        const char *error;
    } cases[] = {
        {R"([{"phy-req-id":"0x720","data":"5902"},{"phy-req-id":"0x999","data":"590201"}])", 5, 2,
         ""},
        {"[]", 0, 0, ""},
        {R"([{"phy-req-id":"0x7E0","data":"AABB"},{"phy-req-id":"0x7E0"},{"data":"01"}])", 2, 3,
         "immature response recieved!!"},
        {"{}", -2, 0, "could not find ''data-record"},
    };
    for (const Case &c : cases) {
        uoz_set_last_error("");
        JsonPtr reply = reply_with_records(c.records);
        DTCBuffer buffer{};
        EXPECT_EQ(decode_uds_reply(g_handle, reply.get(), &buffer), c.result) << c.records;
        EXPECT_EQ(buffer.count, c.count) << c.records;
        EXPECT_STREQ(uoz_last_error, c.error) << c.records;
        if (c.count == 2) {
            EXPECT_EQ(buffer.entries[0]->target_address, 0x20);
            EXPECT_STREQ(buffer.entries[0]->ecu_name, "gateway");
            // No CAN or IOC ECU has that request identifier: the bytes stay, unnamed.
            EXPECT_EQ(buffer.entries[1]->target_address, 0);
            EXPECT_EQ(buffer.entries[1]->ecu_name, nullptr);
            EXPECT_EQ(buffer.entries[1]->length, 3);
        } else if (c.count == 3) {
            EXPECT_EQ(buffer.entries[1]->data, nullptr);
            EXPECT_EQ(buffer.entries[1]->length, 0);
            EXPECT_EQ(buffer.entries[2], nullptr);
        }
        UDSOverZelko_FreeDTCBuffer(&buffer);
    }
}

// ---- routing -----------------------------------------------------------

TEST_F(ExchangeTest, repliesReachTheRecordTheirTargetAddressNames) {
    struct Case {
        const char *target;
        const ReplyWait *slot;  // nullptr: dropped
    } cases[] = {
        {"0x7E0", &find_ecu(g_handle, 0x7E0)->reply_wait},
        {"7e0", &find_ecu(g_handle, 0x7E0)->reply_wait},
        {"-1", &g_handle->broadcast_ecu->reply_wait},
        // strtol saturates: 0xFFFFFFFF is 2147483647, which no record has.
        {"0xFFFFFFFF", nullptr},
        {"0x123", nullptr},
    };
    for (const Case &c : cases) {
        std::string text = update(R"("body":{"targetAddress":")" + std::string(c.target) + "\"}");
        on_bus_message(text.c_str(), text.size() + 1, nullptr, g_handle);
        std::vector<ReplyWait *> slots = {&g_handle->broadcast_ecu->reply_wait};
        for (EcuConfig *ecu = g_handle->ecus; ecu != nullptr; ecu = ecu->next)
            slots.push_back(&ecu->reply_wait);
        for (ReplyWait *slot : slots) {
            EXPECT_EQ(slot->reply != nullptr, slot == c.slot) << c.target;
            reply_wait_discard(slot);
        }
    }
}

// ---- matching, for every service ----------------------------------------

struct Service {
    const char *sent;  // a part of the query that the service sends
    int mismatch_result;
    std::function<int(DTCBuffer *, CommandResponse *)> run;
};

const char kResetDocument[] =
    R"({"ecu":{"ServerAddress":"7E0"},"commands":[{"type":"predefined","command":"ResetECU"}]})";

const Service kServices[] = {
    {R"("subfunction": "UDS_REPORT_DTC_BY_STATUS_MASK")", -1,
     [](DTCBuffer *buffer, CommandResponse *) {
         return UDSOverZelko_ReadDTCInfo(g_handle, 0x7E0, 0x02, 0xFF, buffer);
     }},
    {R"("data-record": { "type": "DTC_AND_RECORD", "record": "12AB3C05" })", -1,
     [](DTCBuffer *buffer, CommandResponse *) {
         return UDSOverZelko_ReadDTCInfoByDTCAndRecordNumber(g_handle, 0x7E0, 0x04, 0x12AB3C, 0x05,
                                                             buffer);
     }},
    {R"("version": { "uds": [ { "did": "0xF189" } ] })", -2,
     [](DTCBuffer *, CommandResponse *) {
         char version[64];
         return UDSOverZelko_ReadECUVersionInformation(g_handle, 0x7E0, version, 64);
     }},
    {R"("name": "ClearDTC_Routine")", -1,
     [](DTCBuffer *, CommandResponse *response) {
         return UDSOverZelkoClearDTC(g_handle, 0x7E0, 0xFFFFFF, response);
     }},
    {R"("name": "ResetECU")", -1,
     [](DTCBuffer *, CommandResponse *response) {
         return UDSOverZelko_ExecuteRemoteCommand(g_handle, kResetDocument, sizeof(kResetDocument),
                                                  response);
     }},
};

int run(const Service &service) {
    DTCBuffer buffer{};
    CommandResponse response{};
    int rc = service.run(&buffer, &response);
    UDSOverZelko_FreeDTCBuffer(&buffer);
    UDSOverZelko_FreeCommandResponse(&response);
    return rc;
}

TEST_F(ExchangeTest, everyServiceRefusesRepliesWithoutOrWithAnotherReplyTo) {
    for (const Service &service : kServices) {
        g_responder = [](const std::string &) {
            return update(R"("body":{"targetAddress":"0x7E0"})");
        };
        {
            LogCapture capture(0);
            EXPECT_EQ(run(service), service.mismatch_result) << service.sent;
            EXPECT_NE(capture.text().find("could not find 'reply-to'\n"), std::string::npos)
                << service.sent;
            EXPECT_NE(g_sent.back().find(service.sent), std::string::npos) << g_sent.back();
        }
        std::string sent_id;
        g_responder = [&sent_id](const std::string &sent) {
            sent_id = reply_id_of(sent);
            return update(R"("reply-to":"someone-else","body":{"targetAddress":"0x7E0"})");
        };
        LogCapture capture(0);
        EXPECT_EQ(run(service), service.mismatch_result) << service.sent;
        std::string log = capture.text();
        ASSERT_EQ(sent_id.size(), 24u) << service.sent;
        EXPECT_NE(log.find("Wrong reply-id " + sent_id + " someone-else\n"), std::string::npos)
            << service.sent << log;
    }
}

TEST_F(ExchangeTest, aMatchingVersionAnswerIsCutToTheBuffer) {
    g_responder = [](const std::string &sent) {
        return update(R"("reply-to":")" + reply_id_of(sent) +
                      R"(","body":{"targetAddress":"0x7E0","version":"GBX-4.2.0-rc1-build-7781"})");
    };
    char version[9] = "";
    EXPECT_EQ(UDSOverZelko_ReadECUVersionInformation(g_handle, 0x7E0, version, 8), 0);
    EXPECT_STREQ(version, "GBX-4.2.");
    char whole[64] = "";
    EXPECT_EQ(UDSOverZelko_ReadECUVersionInformation(g_handle, 0x7E0, whole, 63), 0);
    EXPECT_STREQ(whole, "GBX-4.2.0-rc1-build-7781");
}

TEST_F(ExchangeTest, routinesSendTheirQueriesAndReturnTheAnswersWholeBody) {
    // The answer names the target address the query gave, so that it is routed back.
    g_responder = [](const std::string &sent) {
        std::smatch target;
        std::regex_search(sent, target, std::regex(R"("targetAddress": ("[^"]*"))"));
        return update(R"("reply-to":")" + reply_id_of(sent) + R"(","body":{"targetAddress":)" +
                      target[1].str() + "}");
    };
    const char kEngine[] =
        R"("mode": "CAN", "targetAddress": "%s", "can": { "ifname": "can0", "func-addr": "0x7DF", "phy-req-id": "0x7E0", "phy-resp-id": "0x7E8", "st-min": "0x00", "bsize": "0x08" })";
    const char kGateway[] =
        R"("mode": "IOC", "targetAddress": "%s", "ioc": { "bus-id": "1", "func-addr": "0x7DF", "phy-req-id": "0x720", "phy-resp-id": "0x728" })";
    const char reset[] =
        R"({"commands":[{"type":"predefined","command":"ResetECU"}],"ecu":{"ServerAddress":"7e0"}})";
    const char custom[] =
        R"({"commands":[{"type":"predefined","command":"ResetECU"},{"type":"raw","service":"0x31"}],)"
        R"("security_access":{"level":"0x01"},"ecu":{"ServerAddress":"0x20"}})";
    CommandResponse response{};
    struct Case {
        std::function<int()> call;
        const char *target;
        const char *block;
        const char *routine;
    } cases[] = {
        {[&] { return UDSOverZelkoClearDTC(g_handle, 0x7E0, 0xFFFFFF, &response); }, "0x0007E0",
         kEngine,
         R"({ "name": "ClearDTC_Routine", "commands": [ { "command": "ClearDTC", "service": "0x14", "subfn": "", "data": "0xFFFFFF" } ] })"},
        {[&] {
             return UDSOverZelko_ExecuteRemoteCommand(g_handle, reset, sizeof(reset), &response);
         },
         "7e0", kEngine,
         R"({ "name": "ResetECU", "commands": [ { "service": "0x11", "subfn": "0x01" } ] })"},
        {[&] {
             return UDSOverZelko_ExecuteRemoteCommand(g_handle, custom, sizeof(custom), &response);
         },
         "0x20", kGateway,
         R"({ "name": "custom_commands", "commands": [ { "type": "predefined", "command": "ResetECU" }, { "type": "raw", "service": "0x31" } ], "security_access": { "level": "0x01" } })"},
    };
    for (const Case &c : cases) {
        g_sent.clear();
        EXPECT_EQ(c.call(), 0) << c.routine;
        EXPECT_EQ(response.status, 0);
        EXPECT_EQ(response.body_text, std::string(R"({ "targetAddress": ")") + c.target + "\" }");
        UDSOverZelko_FreeCommandResponse(&response);
        ASSERT_EQ(g_sent.size(), 1u);
        char body[512];
        snprintf(body, sizeof(body), c.block, c.target);
        EXPECT_EQ(g_sent[0], R"({ "type": "zelko.skyharbor-query", "reply-id": ")" +
                                 reply_id_of(g_sent[0]) + R"(", "body": { )" + body +
                                 R"(, "routine": )" + c.routine + " } }");
    }
}

// ---- consent -----------------------------------------------------------

TEST_F(ExchangeTest, consentAnswersMapToResultsAndInstallSendsItsBody) {
    struct Case {
        const char *answer;
        int result;
    } cases[] = {
        {R"(,"body":{"consent-status":"Accepted"})", 1},
        {R"(,"body":{"consent-status":"ACCEPTED"})", 1},
        {R"(,"body":{"consent-status":"rejected"})", 2},
        {R"(,"body":{"consent-status":"pending"})", 2},
        {R"(,"body":{"consent-status":""})", 2},
        {R"(,"body":{"consent-status":true})", 6},
        {"", 6},
    };
    for (const Case &c : cases) {
        std::string answer = consent(c.answer);
        g_responder = [answer](const std::string &) { return answer; };
        EXPECT_EQ(UDSOverZelkoSendExternalConsent(g_handle, CONSENT_INSTALL, "c-7"), c.result)
            << c.answer;
    }
    EXPECT_EQ(
        g_sent.at(0),
        R"({ "type": "zelko.external-consent", "body": { "campaign-id": "c-7", "download-consent": "No", "install-consent": "Yes" } })");
    EXPECT_EQ(UDSOverZelkoSendExternalConsent(g_handle, CONSENT_DOWNLOAD, "C-1"), 6);
    EXPECT_EQ(
        g_sent.back(),
        R"({ "type": "zelko.external-consent", "body": { "campaign-id": "C-1", "download-consent": "Yes", "install-consent": "No" } })");
    EXPECT_EQ(g_accepted.back()->destination->kind, KT5BUS_ADDR_GROUP);
    EXPECT_STREQ(g_accepted.back()->destination->value.name, "policy-agent");
}

// ---- argument checks ------------------------------------------------------

TEST_F(ExchangeTest, callsRefusedBeforeSendingGiveTheirCodesAndTexts) {
    DTCBuffer buffer{};
    CommandResponse response{};
    char version[16] = "untouched";
    for (uint32_t subfunction : {0x00u, 0x07u, 0x08u, 0x17u, 0x18u, 0x19u, 0x42u})
        EXPECT_EQ(UDSOverZelko_ReadDTCInfo(g_handle, 0x7E0, subfunction, 0xFF, &buffer), -3);
    struct Case {
        std::function<int()> call;
        int result;
        const char *error;  // nullptr: not looked at
    } cases[] = {
        {[&] { return UDSOverZelko_ReadDTCInfo(g_handle, 0x7E0, 2, 0xFF, nullptr); }, -1,
         "DTCBuffer is NULL"},
        {[&] { return UDSOverZelko_ReadDTCInfo(g_handle, 291, 2, 0xFF, &buffer); }, -1, nullptr},
        {[&] { return UDSOverZelko_ReadDTCInfo(g_handle, 0x7E5, 2, 0xFF, &buffer); }, -1, nullptr},
        {[&] { return UDSOverZelko_ReadDTCInfo(nullptr, 0x7E0, 2, 0xFF, &buffer); }, -1,
         "Invalid UDS Handler"},
        {[&] { return UDSOverZelko_ReadECUVersionInformation(g_handle, 0x7E0, nullptr, 0); }, -1,
         "versionBufferSize is zero"},
        {[&] { return UDSOverZelko_ReadECUVersionInformation(g_handle, 0x7E0, nullptr, 16); }, -1,
         "versionBuffer is NULL"},
        {[&] { return UDSOverZelko_ReadECUVersionInformation(g_handle, 0x20, version, 16); }, -2,
         nullptr},
        {[&] { return UDSOverZelko_ReadECUVersionInformation(g_handle, 0x999, version, 16); }, -2,
         "Could not get tp blob"},
        {[&] { return UDSOverZelkoClearDTC(g_handle, 0x999, 0xFFFFFF, &response); }, -1,
         "Could not get Transport Information"},
        {[&] { return UDSOverZelkoClearDTC(g_handle, 0x7E0, 0xFFFFFF, nullptr); }, -1, nullptr},
        {[&] { return UDSOverZelkoClearDTC(nullptr, 0x7E0, 0xFFFFFF, &response); }, -1,
         "Invalid UDS Handler"},
        {[&] { return UDSOverZelko_ExecuteRemoteCommand(g_handle, "{}", 0, &response); }, -1,
         "Invalid size received"},
        {[&] { return UDSOverZelko_ExecuteRemoteCommand(g_handle, nullptr, 2, &response); }, -1,
         "Invalid buffer received"},
        {[&] { return UDSOverZelko_ExecuteRemoteCommand(g_handle, "{}", 2, nullptr); }, -1,
         "Invalid response record"},
        {[&] { return UDSOverZelko_ExecuteRemoteCommand_Async(g_handle, "{}", 2, &response); }, -9,
         nullptr},
        {[&] { return UDSOverZelkoSendExternalConsent(g_handle, 2, "C-1"); }, 4, nullptr},
        {[&] { return UDSOverZelkoSendExternalConsent(g_handle, 1, nullptr); }, 7, nullptr},
        {[&] { return UDSOverZelkoSendExternalConsent(nullptr, 1, "C-1"); }, 3, nullptr},
    };
    for (const Case &c : cases) {
        uoz_set_last_error("");
        EXPECT_EQ(c.call(), c.result) << &c - cases;
        if (c.error != nullptr) {
            EXPECT_STREQ(uoz_last_error, c.error) << &c - cases;
        }
    }
    struct Document {
        const char *text;
        int result;
        const char *error;
    } documents[] = {
        {R"({"diagnostic_period":{"start_time":"2000-01-01T00:00:00Z","end_time":"2001-01-01T00:00:00Z"},"commands":[],"ecu":{"ServerAddress":"7E0"}})",
         -10, ""},
        {R"({"diagnostic_period":{"start_time":"2025-03-01 06:00:00","end_time":"2100-01-01T00:00:00Z"},"commands":[]})",
         -10, ""},
        // A period without its end fails before the clock is read.
        {R"({"diagnostic_period":{"start_time":"2000-01-01T00:00:00Z"},"commands":[]})", -1,
         "Error"},
        {R"({"diagnostic_period":{"end_time":"2100-01-01T00:00:00Z"},"commands":[]})", -1, "Error"},
        {R"({"diagnostic_period":{"start_time":5,"end_time":"2100-01-01T00:00:00Z"},"commands":[]})",
         -1, "Error"},
        {"not json", -1, "Could not convert JSON Object"},
        {R"({"commands":{},"ecu":{"ServerAddress":"7E0"}})", -1,
         "Could not find 'commands' property in JSON"},
        {R"({"commands":[]})", -1, "No TA found"},
        {R"({"commands":[],"ecu":{"ServerAddress":"999"}})", -1,
         "Could not get Transport Information"},
        {R"({"commands":[],"ecu":{"ServerAddress":"7E5"}})", -1,
         "Could not get Transport Information"},
    };
    for (const Document &d : documents) {
        uoz_set_last_error("");
        LogCapture capture(0);
        EXPECT_EQ(UDSOverZelko_ExecuteRemoteCommand(g_handle, d.text, strlen(d.text), &response),
                  d.result)
            << d.text;
        EXPECT_STREQ(uoz_last_error, d.error) << d.text;
        if (d.result == -1) {
            EXPECT_EQ(capture.text().find("Command validity"), std::string::npos) << d.text;
        }
    }
    EXPECT_STREQ(version, "untouched");
    EXPECT_EQ(response.body_text, nullptr);
    EXPECT_TRUE(g_sent.empty());
}

TEST(MessageHandlerTest, readsNoFurtherThanTheLengthAndReportsEmptyInput) {
    LogCapture quiet(-1);
    UDSOverZelkoHandle *handle = new_handle();
    EXPECT_EQ(on_bus_message(nullptr, 5, nullptr, handle), 0);
    EXPECT_STREQ(uoz_last_error, "msg is NULL");
    EXPECT_EQ(on_bus_message("{}", 0, nullptr, handle), 0);
    EXPECT_STREQ(uoz_last_error, "len is 0");
    // An exact-size heap copy without a terminator: ASan flags any over-read.
    const char text[] = R"({"type":"zelko.external-consent","body":{}})";
    char *exact = static_cast<char *>(malloc(sizeof(text) - 1));
    memcpy(exact, text, sizeof(text) - 1);
    EXPECT_EQ(on_bus_message(exact, sizeof(text) - 1, nullptr, handle), 0);
    free(exact);
    ReplyWait *slot = &handle->consent_wait;
    ASSERT_NE(slot->reply, nullptr);
    EXPECT_STREQ(slot->reply, R"({ "type": "zelko.external-consent", "body": { } })");
    // The parsed message travels with its text, and is taken out with it.
    ASSERT_NE(slot->parsed, nullptr);
    EXPECT_TRUE(json_object_object_get_ex(slot->parsed, "body", nullptr));
    TextPtr taken_text;
    JsonPtr taken_json;
    ASSERT_TRUE(reply_slot_take(slot, &taken_text, &taken_json));
    EXPECT_EQ(slot->reply, nullptr);
    EXPECT_EQ(slot->parsed, nullptr);
    EXPECT_STREQ(json_object_to_json_string(taken_json.get()), taken_text.get());
    EXPECT_FALSE(reply_slot_take(slot, &taken_text, &taken_json));
    release_handle(handle);
}

// ---- query bodies --------------------------------------------------------

const char kCanA[] =
    R"("can": { "ifname": "can0", "func-addr": "0x7DF", "phy-req-id": "0x7E0", "phy-resp-id": "0x7E8", "st-min": "0x00", "bsize": "0x08" })";

// The body of a query to address, or "NULL".
std::string body(int32_t address, QueryKind kind, EcuConfig **record = nullptr) {
    JsonPtr uds(json_tokener_parse(R"({"SID":"0x19"})"));
    EcuConfig *addressed = nullptr;
    JsonPtr built(build_query_body(g_handle, address, kind, uds.get(), &addressed));
    if (record != nullptr)
        *record = addressed;
    return built ? json_object_to_json_string(built.get()) : "NULL";
}

TEST_F(ExchangeTest, queryBodiesCarryModeAddressTransportBlockAndUdsOrVersion) {
    struct Case {
        int32_t address;
        QueryKind kind;
        std::string body;  // the whole body, or (starting with a blank) a part of it
    } cases[] = {
        {0x7E0, QUERY_UDS_DATA,
         std::string(R"({ "mode": "CAN", "targetAddress": "0x07E0", )") + kCanA +
             R"(, "uds": { "SID": "0x19" } })"},
        {0x20, QUERY_UDS_DATA,
         R"({ "mode": "IOC", "targetAddress": "0x0020", "ioc": { "bus-id": "1", "func-addr": "0x7DF", "phy-req-id": "0x720", "phy-resp-id": "0x728" }, "uds": { "SID": "0x19" } })"},
        {0x1001, QUERY_UDS_DATA,
         R"({ "mode": "DOIP", "targetAddress": "0x1001", "doip": { "sa": "0x0E80", "ta": "0x1001", "gw-ip": "10.0.0.1" }, "uds": { "SID": "0x19" } })"},
        {-1, QUERY_UDS_DATA,
         R"({ "mode": "IOC", "targetAddress": "-1", "ioc": [ { "ifname": "can0", "func-addr": "0x7DF", "phy-req-id": "0x7E0", "phy-resp-id": "0x7E8", "st-min": "0x00", "bsize": "0x08" }, { "bus-id": "1", "func-addr": "0x7DF", "phy-req-id": "0x720", "phy-resp-id": "0x728" }, { "ifname": "can1", "func-addr": "0x7DF", "phy-req-id": "0x7E1", "phy-resp-id": "0x7E9", "st-min": "0x00", "bsize": "0x00" }, { "ifname": "can0", "func-addr": "1", "phy-req-id": "2", "phy-resp-id": "3", "st-min": "0x00", "bsize": "0x00" }, { "ifname": "can0", "func-addr": "1", "phy-req-id": "2", "phy-resp-id": "3", "st-min": "0x00", "bsize": "0x00" }, { "ifname": "can0", "func-addr": "1", "phy-req-id": "2", "phy-resp-id": "3", "st-min": "0x00", "bsize": "0x00" } ], "uds": { "SID": "0x19" } })"},
        // Long addresses are written in full up to five digits.
        {0x12345, QUERY_UDS_DATA, R"( "targetAddress": "0x12345", )"},
        {0x123456, QUERY_UDS_DATA, R"( "targetAddress": "0x12345", )"},
        {0x7E0, QUERY_VERSION,
         std::string(R"({ "mode": "CAN", "targetAddress": "0x07E0", )") + kCanA +
             R"(, "version": { "uds": [ { "did": "0xF189" } ] } })"},
        // A CAN ECU sends its j1939 object with its interface, the same each time.
        {0x7E1, QUERY_VERSION, R"( "version": { "pgn": "0xFEDA", "ifname": "can1" } })"},
        {0x7E1, QUERY_VERSION, R"( "version": { "pgn": "0xFEDA", "ifname": "can1" } })"},
        // Any other transport sends the whole description.
        {0x1001, QUERY_VERSION, R"( "version": { "j1939": { "pgn": "0xFEDA" } } })"},
        {0x20, QUERY_VERSION, "NULL"},
        {-1, QUERY_VERSION, "NULL"},
    };
    for (const Case &c : cases) {
        std::string text = body(c.address, c.kind);
        if (c.body[0] == ' ') {
            EXPECT_NE(text.find(c.body), std::string::npos) << text;
        } else {
            EXPECT_EQ(text, c.body) << c.address;
        }
    }
    EcuConfig *record = nullptr;
    body(0x7E0, QUERY_UDS_DATA, &record);
    EXPECT_STREQ(record->name, "engine");
    UDSOverZelkoHandle *only_doip = load_config(
        R"({"configs":[{"type":"DOIP","targetAddress":"1","name":"B","doip":{"sa":"1","ta":"2","gw-ip":"3"}}]})");
    std::swap(g_handle, only_doip);
    EXPECT_EQ(body(-1, QUERY_UDS_DATA),
              R"({ "mode": "CAN", "targetAddress": "-1", "can": [ ], "uds": { "SID": "0x19" } })");
    std::swap(g_handle, only_doip);
    release_handle(only_doip);
}

TEST_F(ExchangeTest, queryBodiesOfUnknownAddressesCanfdAndBelowMinusOneFail) {
    struct Case {
        int32_t address;
        const char *log;
    } cases[] = {{291, "Could not find tragetAddress=291\n"}, {0x7E5, ""}, {-2, ""}};
    for (const Case &c : cases) {
        LogCapture capture(0);
        EXPECT_EQ(body(c.address, QUERY_UDS_DATA), "NULL");
        std::string log = capture.text();
        EXPECT_STREQ(uoz_last_error, "Could not get tp blob");
        EXPECT_NE(log.find(c.log), std::string::npos) << log;
        EXPECT_NE(log.find("Could not get tp blob\n"), std::string::npos) << log;
    }
}

TEST_F(ExchangeTest, queryEnvelopeAndTransportModeNames) {
    JsonPtr envelope(wrap_query("abc", json_object_new_object()));
    EXPECT_STREQ(json_object_to_json_string(envelope.get()),
                 R"({ "type": "zelko.skyharbor-query", "reply-id": "abc", "body": { } })");
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

// ---- name look-ups -----------------------------------------------------

// Compiles a Turkish locale into a private directory: there the C library's
// case folding pairs 'I' with the dotless i, not with 'i'.
std::string turkish_locale_dir() {
    char dir[] = "/tmp/uoz-locale-XXXXXX";
    if (mkdtemp(dir) == nullptr)
        return "";
    std::string command =
        "localedef -i tr_TR -f UTF-8 " + std::string(dir) + "/tr_TR.UTF-8 >/dev/null 2>&1";
    return system(command.c_str()) == 0 ? dir : "";
}

TEST_F(ExchangeTest, nameLookUpFoldsOnlyAsciiWhateverTheLocale) {
    std::string dir = turkish_locale_dir();
    if (dir.empty())
        GTEST_SKIP() << "localedef could not build tr_TR.UTF-8";
    setenv("LOCPATH", dir.c_str(), 1);
    std::string saved = setlocale(LC_ALL, nullptr);
    ASSERT_NE(setlocale(LC_ALL, "tr_TR.UTF-8"), nullptr);
    // The locale's own folding does not pair these letters (strcasecmp
    // follows it, except where a sanitizer replaces strcasecmp).
    EXPECT_NE(tolower('I'), 'i');
    int found = UDSOverZelkoGetTargetAddressFromECUName(g_handle, "ENGINE");
    int gateway = UDSOverZelkoGetTargetAddressFromECUName(g_handle, "GaTeWaY");
    setlocale(LC_ALL, saved.c_str());
    unsetenv("LOCPATH");
    system(("rm -rf " + dir).c_str());
    EXPECT_EQ(found, 0x7E0);
    EXPECT_EQ(gateway, 0x20);
}

TEST_F(ExchangeTest, addressLookUpOfMinusOneFindsOnlyAnEntryConfiguredSo) {
    EXPECT_STREQ(UDSOverZelkoGetECUNameFromTargetAddress(g_handle, -1), "everyone");
    EXPECT_STREQ(UDSOverZelkoGetECUNameFromTargetAddress(g_handle, 0x20), "gateway");
    EXPECT_EQ(UDSOverZelkoGetECUNameFromTargetAddress(g_handle, 0x21), nullptr);
    EXPECT_EQ(UDSOverZelkoGetTargetAddressFromECUName(g_handle, "engin"), -1);
    EXPECT_EQ(UDSOverZelkoGetTargetAddressFromECUName(g_handle, "engines"), -1);
    EXPECT_EQ(UDSOverZelkoGetTargetAddressFromECUName(g_handle, nullptr), -1);
    EXPECT_EQ(UDSOverZelkoGetTargetAddressFromECUName(nullptr, "engine"), -1);
    EXPECT_EQ(UDSOverZelkoGetECUNameFromTargetAddress(nullptr, 0x20), nullptr);
}

// ---- remote command addresses ------------------------------------------

TEST_F(ExchangeTest, serverAddressIsTheLowThirtyTwoBitsOfStrtoul) {
    struct Case {
        const char *text;
        int32_t address;  // the record whose slot receives the reply
    } cases[] = {
        {"7E0", 0x7E0},   {"0x7e0", 0x7E0}, {"7E0 engine", 0x7E0},      {"1000007E0", 0x7E0},
        {"FFFFFFFF", -1}, {"-1", -1},       {"FFFFFFFF00000020", 0x20},
    };
    for (const Case &c : cases) {
        std::string document = R"({"ecu":{"ServerAddress":")" + std::string(c.text) +
                               R"("},"commands":[{"type":"raw","service":"0x11"}]})";
        Request request;
        ASSERT_EQ(build_remote_command_request(g_handle, document.c_str(), &request), 0) << c.text;
        const ReplyWait *expected = c.address == -1 ? &g_handle->broadcast_ecu->reply_wait
                                                    : &find_ecu(g_handle, c.address)->reply_wait;
        EXPECT_EQ(request.wait, expected) << c.text;
        const char *sent_address = nullptr;
        kt5_json_get(request.message.get(), json_type_string, &sent_address, "body",
                     "targetAddress", nullptr);
        EXPECT_STREQ(sent_address, c.text);
    }
}

}  // namespace
}  // namespace uoztest
