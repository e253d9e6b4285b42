// The exchange without a broker: reply decoding, routing, matching for every
// service, the consent answer, name look-ups and remote command addresses.
// Sent messages are caught at the bus library's send entry point, and the
// answer, if any, is delivered to the handler before the send returns.
#include <ctype.h>
#include <gtest/gtest.h>
#include <locale.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "UDSOverZelko/config.h"
#include "UDSOverZelko/exchange.h"
#include "UDSOverZelko/remote_command.h"
#include "kt5Utils/kt5_json.h"
#include "log_capture.h"
#include "zelkobus/zelkobus.h"

namespace uoztest {
namespace {

const char kEcus[] = R"({"configs":[
 {"type":"CAN","targetAddress":"0x7E0","name":"engine","can":{"ifname":"can0","func-addr":"0x7DF","phy-req-id":"0x7E0","phy-resp-id":"0x7E8"},"ecu_version":{"uds":[{"did":"0xF189"}]}},
 {"type":"IOC","targetAddress":"0x20","name":"gateway","ioc":{"bus-id":"1","func-addr":"0x7DF","phy-req-id":"0x720","phy-resp-id":"0x728"}},
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

class ExchangeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char path[] = "/tmp/uoz-exchange-XXXXXX";
        int fd = mkstemp(path);
        ASSERT_EQ(write(fd, kEcus, sizeof(kEcus) - 1), static_cast<ssize_t>(sizeof(kEcus) - 1));
        close(fd);
        saved_level_ = uoz_dbg_level;
        uoz_dbg_level = -1;
        g_handle = new_handle();
        ASSERT_EQ(load_ecu_config(g_handle, path), 0);
        g_handle->config_path = strdup(path);
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

struct DecodeCase {
    const char *data;
    int32_t length;
    std::vector<uint8_t> bytes;  // length + 1 bytes, the spare byte included
};

TEST_F(ExchangeTest, dataTextsDecodeAsTheCConversionReadsThemAtEachEvenPosition) {
    const DecodeCase cases[] = {
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
    for (const DecodeCase &c : cases) {
        JsonPtr reply(
            json_tokener_parse((R"({"body":{"uds":{"data-record":[{"phy-req-id":"0x7E0","data":")" +
                                std::string(c.data) + "\"}]}}}")
                                   .c_str()));
        ASSERT_TRUE(reply) << c.data;
        DTCBuffer buffer{};
        EXPECT_EQ(decode_uds_reply(g_handle, reply.get(), &buffer), c.length) << c.data;
        ASSERT_EQ(buffer.count, 1);
        DTCBufferEntry *entry = buffer.entries[0];
        EXPECT_EQ(entry->length, c.length) << c.data;
        std::vector<uint8_t> bytes(entry->data, entry->data + entry->length + 1);
        EXPECT_EQ(bytes, c.bytes) << c.data;
        UDSOverZelko_FreeDTCBuffer(&buffer);
    }
}

TEST_F(ExchangeTest, elementsAreMatchedToEcusByRequestIdAndCounted) {
    JsonPtr reply(json_tokener_parse(R"({"body":{"uds":{"data-record":[
        {"phy-req-id":"0x720","data":"5902"},
        {"phy-req-id":"0x999","data":"590201"}]}}})"));
    DTCBuffer buffer{};
    EXPECT_EQ(decode_uds_reply(g_handle, reply.get(), &buffer), 5);
    ASSERT_EQ(buffer.count, 2);
    EXPECT_EQ(buffer.entries[0]->target_address, 0x20);
    EXPECT_STREQ(buffer.entries[0]->ecu_name, "gateway");
    // No CAN or IOC ECU has that request identifier: the bytes stay, unnamed.
    EXPECT_EQ(buffer.entries[1]->target_address, 0);
    EXPECT_EQ(buffer.entries[1]->ecu_name, nullptr);
    EXPECT_EQ(buffer.entries[1]->length, 3);
    UDSOverZelko_FreeDTCBuffer(&buffer);
}

TEST_F(ExchangeTest, decodingStopsAtAnIncompleteElementOrWithoutRecords) {
    struct Case {
        const char *body;
        int32_t result;
        int32_t count;
        const char *error;
    } cases[] = {
        {R"({"uds":{"data-record":[]}})", 0, 0, ""},
        {R"({"uds":{"data-record":[{"phy-req-id":"0x7E0","data":"AABB"},{"phy-req-id":"0x7E0"},{"data":"01"}]}})",
         2, 3, "immature response recieved!!"},
        {R"({"uds":{"data-record":{}}})", -2, 0, "could not find ''data-record"},
        {R"({"uds":{}})", -2, 0, "could not find ''data-record"},
    };
    for (const Case &c : cases) {
        uoz_set_last_error("");
        JsonPtr reply(json_tokener_parse((std::string(R"({"body":)") + c.body + "}").c_str()));
        DTCBuffer buffer{};
        EXPECT_EQ(decode_uds_reply(g_handle, reply.get(), &buffer), c.result) << c.body;
        EXPECT_EQ(buffer.count, c.count) << c.body;
        EXPECT_STREQ(uoz_last_error, c.error) << c.body;
        if (c.count == 3) {
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

// Runs one service against the stand-in agent; its result.
struct Service {
    const char *name;
    std::function<int()> run;
    int mismatch_result;
};

std::vector<Service> every_service() {
    static DTCBuffer buffer{};
    static char version[64];
    static CommandResponse response{};
    auto release = [] {
        UDSOverZelko_FreeDTCBuffer(&buffer);
        UDSOverZelko_FreeCommandResponse(&response);
    };
    return {
        {"ReadDTCInfo",
         [=] {
             int rc = UDSOverZelko_ReadDTCInfo(g_handle, 0x7E0, 0x02, 0xFF, &buffer);
             release();
             return rc;
         },
         -1},
        {"ReadDTCInfoByDTCAndRecordNumber",
         [=] {
             int rc = UDSOverZelko_ReadDTCInfoByDTCAndRecordNumber(g_handle, 0x7E0, 0x04, 0x123456,
                                                                   0x01, &buffer);
             release();
             return rc;
         },
         -1},
        {"ReadECUVersionInformation",
         [] { return UDSOverZelko_ReadECUVersionInformation(g_handle, 0x7E0, version, 64); }, -2},
        {"ClearDTC",
         [=] {
             int rc = UDSOverZelkoClearDTC(g_handle, 0x7E0, 0xFFFFFF, &response);
             release();
             return rc;
         },
         -1},
        {"ExecuteRemoteCommand",
         [=] {
             const char document[] =
                 R"({"ecu":{"ServerAddress":"7E0"},"commands":[{"type":"predefined","command":"ResetECU"}]})";
             int rc =
                 UDSOverZelko_ExecuteRemoteCommand(g_handle, document, sizeof(document), &response);
             release();
             return rc;
         },
         -1},
    };
}

TEST_F(ExchangeTest, everyServiceRefusesRepliesWithoutOrWithAnotherReplyTo) {
    for (const Service &service : every_service()) {
        g_responder = [](const std::string &) {
            return update(R"("body":{"targetAddress":"0x7E0"})");
        };
        {
            LogCapture capture(0);
            EXPECT_EQ(service.run(), service.mismatch_result) << service.name;
            EXPECT_NE(capture.text().find("could not find 'reply-to'\n"), std::string::npos)
                << service.name;
        }
        std::string sent_id;
        g_responder = [&sent_id](const std::string &sent) {
            sent_id = reply_id_of(sent);
            return update(R"("reply-to":"someone-else","body":{"targetAddress":"0x7E0"})");
        };
        LogCapture capture(0);
        EXPECT_EQ(service.run(), service.mismatch_result) << service.name;
        std::string log = capture.text();
        ASSERT_EQ(sent_id.size(), 24u) << service.name;
        EXPECT_NE(log.find("Wrong reply-id " + sent_id + " someone-else\n"), std::string::npos)
            << service.name << log;
    }
}

TEST_F(ExchangeTest, aMatchingAnswerIsDecodedForTheWaitingService) {
    g_responder = [](const std::string &sent) {
        return update(R"("reply-to":")" + reply_id_of(sent) +
                      R"(","body":{"targetAddress":"0x7E0","version":"1.0.7"})");
    };
    char version[16] = "";
    EXPECT_EQ(UDSOverZelko_ReadECUVersionInformation(g_handle, 0x7E0, version, sizeof(version)), 0);
    EXPECT_STREQ(version, "1.0.7");
    ASSERT_EQ(g_sent.size(), 1u);
    EXPECT_NE(g_sent[0].find(R"("version": { "uds": [ { "did": "0xF189" } ] })"),
              std::string::npos);
}

// ---- consent -----------------------------------------------------------

// Accepted, rejected and missing answers, and the download body, go end to
// end in the services test; here the install body and an undecided answer.
TEST_F(ExchangeTest, installConsentSendsItsBodyAndAPendingAnswerIsARejection) {
    g_responder = [](const std::string &) {
        return std::string(
            R"({"type":"zelko.external-consent","body":{"consent-status":"pending"}})");
    };
    EXPECT_EQ(UDSOverZelkoSendExternalConsent(g_handle, CONSENT_INSTALL, "c-7"), CONSENT_REJECTED);
    ASSERT_EQ(g_sent.size(), 1u);
    EXPECT_EQ(
        g_sent[0],
        R"({ "type": "zelko.external-consent", "body": { "campaign-id": "c-7", "download-consent": "No", "install-consent": "Yes" } })");
    EXPECT_EQ(g_accepted.back()->destination->kind, KT5BUS_ADDR_GROUP);
    EXPECT_STREQ(g_accepted.back()->destination->value.name, "policy-agent");
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
