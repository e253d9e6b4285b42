// The exchange without a broker: reply decoding, routing, matching for every
// service, consent answers, argument checks, query bodies, name look-ups and
// remote command addresses. Sent messages are caught at the bus library's
// send entry point, and the answer, if any, is delivered to the handler
// before the send returns. Exact queries are golden texts (golden/).
#include <ctype.h>
#include <gtest/gtest.h>
#include <locale.h>
#include <stdlib.h>
#include <string.h>

#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "UDSOverZelko/exchange.h"
#include "UDSOverZelko/remote_command.h"
#include "core_support.h"
#include "golden.h"
#include "kt5Utils/kt5_json.h"
#include "zelkobus/zelkobus.h"

namespace uoztest {
namespace {

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

size_t occurrences(const std::string &text, const std::string &part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

std::string update(const std::string &members) {
    return R"({"type":"zelko.skyharbor-query-update",)" + members + "}";
}

// An answer to the address a query was sent for: the members before "body"
// (e.g. "reply-to"), then the body's members after its "targetAddress".
std::string answer_to(const std::string &sent, const std::string &members,
                      const std::string &body_members = "") {
    std::smatch target;
    std::regex_search(sent, target, std::regex(R"("targetAddress": ("[^"]*"))"));
    return update(members + R"("body":{"targetAddress":)" + target[1].str() + body_members + "}");
}

// Answers every query as its agent would, with the body's members.
Responder answer_with(const std::string &body_members) {
    return [body_members](const std::string &sent) {
        return answer_to(sent, R"("reply-to":")" + reply_id_of(sent) + R"(",)", body_members);
    };
}

// engine 0x7E0 CAN, telematics 0x1001 DOIP, gateway 0x20 IOC, adas 0x7E5
// CANFD, gearbox 0x7E1 CAN with a j1939 version, three CAN records sharing
// "phy-req-id" 2 (F 0x12345, G 0x123456, everyone FFFFFFFF) and the
// pre-defined routine ResetECU.
const std::string kEcus = std::string(UOZ_GOLDEN_DIR) + "/ecus.json";

class ExchangeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        saved_level_ = uoz_dbg_level;
        uoz_dbg_level = 0;  // error lines are logged, as applications see them
        g_handle = new_handle();
        ASSERT_EQ(load_ecu_config(g_handle, kEcus.c_str()), 0);
        g_handle->config_path = strdup(kEcus.c_str());
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
        free(g_handle->bus);
        g_handle->bus = nullptr;
        release_handle(g_handle);
        g_handle = nullptr;
        uoz_dbg_level = saved_level_;
    }
    int saved_level_ = 0;
    Golden queries_{UOZ_GOLDEN_DIR "/queries.golden"};
};

// ---- decoding ----------------------------------------------------------

// A decoded buffer as "result [last error]|entry|...", each entry its address,
// name and every byte of data, the spare byte after the length in [].
std::string describe(int32_t result, const DTCBuffer &buffer) {
    std::string text = std::to_string(result);
    if (uoz_last_error[0] != '\0')
        text = text + " " + uoz_last_error;
    for (int32_t i = 0; i < buffer.count; ++i) {
        const DTCBufferEntry *entry = buffer.entries[i];
        if (entry == nullptr) {
            text += "|NULL";
            continue;
        }
        char head[64];
        snprintf(head, sizeof(head), "|0x%X %s", static_cast<unsigned>(entry->target_address),
                 entry->ecu_name != nullptr ? entry->ecu_name : "-");
        text += head;
        for (int32_t k = 0; entry->data != nullptr && k <= entry->length; ++k) {
            snprintf(head, sizeof(head), k < entry->length ? " %02X" : " [%02X]", entry->data[k]);
            text += head;
        }
    }
    return text;
}

// Every "data-record" array of decode.golden decodes as its line says: the C
// conversion's reading of the hexadecimal texts, the naming by request
// identifier and the stop at an incomplete element.
TEST_F(ExchangeTest, dataRecordsDecodeAsTheirGoldenDescriptions) {
    Golden decodings(UOZ_GOLDEN_DIR "/decode.golden");
    for (const auto &[records, expected] : decodings.entries()) {
        uoz_set_last_error("");
        JsonPtr reply(
            json_tokener_parse((R"({"body":{"uds":{"data-record":)" + records + "}}}").c_str()));
        ASSERT_TRUE(reply) << records;
        DTCBuffer buffer{};
        int32_t result = decode_uds_reply(g_handle, reply.get(), &buffer);
        EXPECT_EQ(describe(result, buffer), expected) << records;
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

// ---- what every service sends, and how it matches the answer -------------

const char kResetDocument[] =
    R"({"commands":[{"type":"predefined","command":"ResetECU"}],"ecu":{"ServerAddress":"7e0"}})";
const char kCustomDocument[] =
    R"({"commands":[{"type":"predefined","command":"ResetECU"},{"type":"raw","service":"0x31"}],)"
    R"("security_access":{"level":"0x01"},"ecu":{"ServerAddress":"0x20"}})";
// A pre-defined name that no routine has chooses none: JSON null goes out.
const char kUnknownRoutineDocument[] =
    R"({"commands":[{"type":"predefined","command":"Nothing"}],"ecu":{"ServerAddress":"7E0"}})";

// A service, named by the label of its query in queries.golden, with the
// result of an answer that does not match. Reads log the answer at INFO,
// routines at DBG only.
struct Service {
    const char *query;
    int mismatch_result;
    std::function<int(DTCBuffer *, CommandResponse *)> run;
    bool answer_logged_at_info = false;
};

int remote_command(const char *document, CommandResponse *response) {
    return UDSOverZelko_ExecuteRemoteCommand(g_handle, document, strlen(document), response);
}

const Service kServices[] = {
    {"dtc by status mask", -1,
     [](DTCBuffer *buffer, CommandResponse *) {
         return UDSOverZelko_ReadDTCInfo(g_handle, 0x7E0, 0x02, 0xFF, buffer);
     },
     true},
    {"dtc by number and record", -1,
     [](DTCBuffer *buffer, CommandResponse *) {
         return UDSOverZelko_ReadDTCInfoByDTCAndRecordNumber(g_handle, 0x7E0, 0x04, 0x12AB3C, 0x05,
                                                             buffer);
     },
     true},
    {"version", -2,
     [](DTCBuffer *, CommandResponse *) {
         char version[64];
         return UDSOverZelko_ReadECUVersionInformation(g_handle, 0x7E0, version, 64);
     },
     true},
    {"clear dtc", -1,
     [](DTCBuffer *, CommandResponse *response) {
         return UDSOverZelkoClearDTC(g_handle, 0x7E0, 0x000100, response);
     }},
    {"reset routine", -1,
     [](DTCBuffer *, CommandResponse *response) {
         return remote_command(kResetDocument, response);
     }},
    {"custom routine", -1,
     [](DTCBuffer *, CommandResponse *response) {
         return remote_command(kCustomDocument, response);
     }},
    {"no routine", -1,
     [](DTCBuffer *, CommandResponse *response) {
         return remote_command(kUnknownRoutineDocument, response);
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

TEST_F(ExchangeTest, everyServiceSendsItsQueryAndRefusesAnswersOfOtherQueries) {
    for (const Service &service : kServices) {
        g_responder = [](const std::string &sent) { return answer_to(sent, ""); };
        {
            LogCapture capture(UOZ_LOG_INFO);
            EXPECT_EQ(run(service), service.mismatch_result) << service.query;
            std::string log = capture.text();
            EXPECT_NE(log.find("could not find 'reply-to'\n"), std::string::npos) << service.query;
            // Logged once by the handler, and once more by a read.
            EXPECT_EQ(occurrences(log, answer_to(g_sent.at(0), "")),
                      service.answer_logged_at_info ? 2u : 1u)
                << service.query << log;
            ASSERT_EQ(g_sent.size(), 1u) << service.query;
            EXPECT_EQ(without_reply_id(g_sent[0]), queries_[service.query]);
            g_sent.clear();
        }
        std::string sent_id;
        g_responder = [&sent_id](const std::string &sent) {
            sent_id = reply_id_of(sent);
            return answer_to(sent, R"("reply-to":"someone-else",)");
        };
        LogCapture capture(0);
        EXPECT_EQ(run(service), service.mismatch_result) << service.query;
        std::string log = capture.text();
        ASSERT_EQ(sent_id.size(), 24u) << service.query;
        EXPECT_NE(log.find("Wrong reply-id " + sent_id + " someone-else\n"), std::string::npos)
            << service.query << log;
        g_sent.clear();
    }
}

TEST_F(ExchangeTest, aMatchingVersionAnswerIsCutToTheBuffer) {
    g_responder = answer_with(R"(,"version":"GBX-4.2.0-rc1-build-7781")");
    char version[9] = "";
    EXPECT_EQ(UDSOverZelko_ReadECUVersionInformation(g_handle, 0x7E0, version, 8), 0);
    EXPECT_STREQ(version, "GBX-4.2.");
    char whole[64] = "";
    EXPECT_EQ(UDSOverZelko_ReadECUVersionInformation(g_handle, 0x7E0, whole, 63), 0);
    EXPECT_STREQ(whole, "GBX-4.2.0-rc1-build-7781");
}

TEST_F(ExchangeTest, routinesReturnTheMatchingAnswersWholeBody) {
    g_responder = answer_with(R"(,"result":[1,"two"])");
    for (const Service &service : kServices) {
        if (service.mismatch_result != -1 || strstr(service.query, "dtc by") != nullptr)
            continue;
        DTCBuffer unused{};
        CommandResponse response{};
        EXPECT_EQ(service.run(&unused, &response), 0) << service.query;
        EXPECT_EQ(response.status, 0);
        JsonPtr answer(
            json_tokener_parse(answer_to(g_sent.back(), "", R"(,"result":[1,"two"])").c_str()));
        EXPECT_STREQ(response.body_text,
                     json_object_to_json_string(json_object_object_get(answer.get(), "body")));
        UDSOverZelko_FreeCommandResponse(&response);
    }
}

// ---- consent -----------------------------------------------------------

TEST_F(ExchangeTest, consentAnswersMapToResultsAndTheRequestGoesToThePolicyAgent) {
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
        std::string answer = R"({"type":"zelko.external-consent")" + std::string(c.answer) + "}";
        g_responder = [answer](const std::string &) { return answer; };
        EXPECT_EQ(UDSOverZelkoSendExternalConsent(g_handle, CONSENT_INSTALL, "c-7"), c.result)
            << c.answer;
    }
    EXPECT_EQ(g_sent.at(0), queries_["install consent"]);
    EXPECT_EQ(UDSOverZelkoSendExternalConsent(g_handle, CONSENT_DOWNLOAD, "C-1"), 6);
    EXPECT_EQ(g_sent.back(), queries_["download consent"]);
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
    {
        LogCapture capture(UOZ_LOG_INFO);  // no request is built without a result buffer
        EXPECT_EQ(UDSOverZelko_ReadDTCInfo(g_handle, 0x7E0, 2, 0xFF, nullptr), -1);
        EXPECT_STREQ(uoz_last_error, "DTCBuffer is NULL");
        EXPECT_EQ(capture.text().find("Bit at position"), std::string::npos);
    }
    struct Case {
        std::function<int()> call;
        int result;
        const char *error;  // nullptr: not looked at
    } cases[] = {
        {[&] { return UDSOverZelko_ReadDTCInfo(g_handle, 291, 2, 0xFF, &buffer); }, -1,
         "getting dtc failed"},
        {[&] { return UDSOverZelko_ReadDTCInfo(g_handle, 0x7E5, 2, 0xFF, &buffer); }, -1, nullptr},
        {[&] { return UDSOverZelko_ReadDTCInfo(nullptr, 0x7E0, 2, 0xFF, &buffer); }, -1,
         "Invalid UDS Handler"},
        {[&] { return UDSOverZelko_ReadECUVersionInformation(g_handle, 0x7E0, nullptr, 0); }, -1,
         "versionBufferSize is zero"},
        {[&] { return UDSOverZelko_ReadECUVersionInformation(g_handle, 0x7E0, nullptr, 16); }, -1,
         "versionBuffer is NULL"},
        {[&] { return UDSOverZelko_ReadECUVersionInformation(g_handle, 0x20, version, 16); }, -2,
         "No version information configured for this ECU"},
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
    // Remote command documents refused before sending, with the result and
    // the last error each leaves; none of the -1 ones has its period checked.
    Golden documents(UOZ_GOLDEN_DIR "/refused_documents.golden");
    for (const auto &[document, expected] : documents.entries()) {
        uoz_set_last_error("");
        LogCapture capture(0);
        int rc = remote_command(document.c_str(), &response);
        std::string error = uoz_last_error;
        EXPECT_EQ(std::to_string(rc) + (error.empty() ? "" : " " + error), expected) << document;
        if (rc == -1) {
            EXPECT_EQ(capture.text().find("Command validity"), std::string::npos) << document;
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
    // Read to its length, parsed and written again as the consent's answer.
    EXPECT_STREQ(handle->consent_wait.reply,
                 R"({ "type": "zelko.external-consent", "body": { } })");
    release_handle(handle);
}

// ---- query bodies --------------------------------------------------------

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
    Golden bodies(UOZ_GOLDEN_DIR "/bodies.golden");
    struct Case {
        int32_t address;
        QueryKind kind;
        const char *label;  // of the body in bodies.golden
    } cases[] = {
        {0x7E0, QUERY_UDS_DATA, "can"},
        {0x20, QUERY_UDS_DATA, "ioc"},
        {0x1001, QUERY_UDS_DATA, "doip"},
        {-1, QUERY_UDS_DATA, "all"},
        {0x12345, QUERY_UDS_DATA, "five digits"},
        {0x123456, QUERY_UDS_DATA, "six digits"},
        {0x7E0, QUERY_VERSION, "can version"},
        // The first j1939 query replaces the description; the second sends it again.
        {0x7E1, QUERY_VERSION, "j1939 version"},
        {0x7E1, QUERY_VERSION, "j1939 version"},
        {0x1001, QUERY_VERSION, "doip version"},
        {0x20, QUERY_VERSION, "none"},
        {-1, QUERY_VERSION, "none"},
    };
    for (const Case &c : cases)
        EXPECT_EQ(body(c.address, c.kind), bodies[c.label]) << c.label;
    EcuConfig *record = nullptr;
    body(0x7E0, QUERY_UDS_DATA, &record);
    EXPECT_STREQ(record->name, "engine");
    UDSOverZelkoHandle *only_doip = load_config(
        R"({"configs":[{"type":"DOIP","targetAddress":"1","name":"B","doip":{"sa":"1","ta":"2","gw-ip":"3"}}]})");
    std::swap(g_handle, only_doip);
    EXPECT_EQ(body(-1, QUERY_UDS_DATA), bodies["all without can or ioc"]);
    std::swap(g_handle, only_doip);
    release_handle(only_doip);
    JsonPtr envelope(wrap_query("abc", json_object_new_object()));
    EXPECT_EQ(json_object_to_json_string(envelope.get()), bodies["envelope"]);
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
