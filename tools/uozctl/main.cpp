// uozctl: UDS diagnostics from the shell, through libudsoverzelko.
//
// Exit codes: 0 success; 1 the library could not start (configuration,
// certificates); 2 refused or invalid input; 3 no reply within 10 s;
// 4 failure reported by the agent or the ECU (negative response, rejected
// consent, unusable reply).
#include <json-c/json.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

#include "dtc_decode.h"
#include "udsoverzelko.h"

namespace {

enum ExitCode { kOk = 0, kStartFailed = 1, kInvalid = 2, kNoReply = 3, kAgentFailure = 4 };

const char kNoReplyHint[] =
    "no reply from the diagnostic agent within 10 s: is uoz-agent running and connected to the "
    "broker?";

struct Options {
    std::string broker = "localhost:8883";
    std::string certs;
    std::string config;
    int debug = -1;
    bool json = false;
};

struct JsonFree {
    void operator()(json_object *object) const { json_object_put(object); }
};
using Json = std::unique_ptr<json_object, JsonFree>;

void print_json(json_object *object) {
    printf("%s\n", json_object_to_json_string_ext(
                       object, JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE));
}

int fail(const Options &options, int code, const std::string &message) {
    if (options.json) {
        Json object(json_object_new_object());
        json_object_object_add(object.get(), "error", json_object_new_string(message.c_str()));
        json_object_object_add(object.get(), "exit_code", json_object_new_int(code));
        print_json(object.get());
    }
    fprintf(stderr, "uozctl: %s\n", message.c_str());
    return code;
}

// Shows the time spent waiting on a terminal; silent when stderr is piped.
class WaitIndicator {
  public:
    explicit WaitIndicator(const char *what) : what_(what) {
        if (!isatty(STDERR_FILENO))
            return;
        thread_ = std::thread([this] {
            static const char kSpin[] = "|/-\\";
            auto start = std::chrono::steady_clock::now();
            for (int tick = 0; !done_; ++tick) {
                double seconds =
                    std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
                fprintf(stderr, "\r%c %s... %.1f s ", kSpin[tick % 4], what_, seconds);
                fflush(stderr);
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
            fprintf(stderr, "\r\033[K");
            fflush(stderr);
        });
    }
    ~WaitIndicator() {
        done_ = true;
        if (thread_.joinable())
            thread_.join();
    }

  private:
    const char *what_;
    std::atomic<bool> done_{false};
    std::thread thread_;
};

struct Session {
    UDSOverZelkoHandle *handle = nullptr;
    ~Session() { UDSOverZelko_Terminate(handle); }
};

int start(const Options &options, Session *session) {
    size_t colon = options.broker.rfind(':');
    if (colon == std::string::npos)
        return fail(options, kInvalid, "--broker must be HOST:PORT");
    std::string host = options.broker.substr(0, colon);
    int port = atoi(options.broker.c_str() + colon + 1);
    if (port <= 0 || port > 65535)
        return fail(options, kInvalid, "--broker has no valid port");
    if (options.certs.empty())
        return fail(options, kInvalid, "--certs DIR is required");
    BrokerConfig broker{};
    broker.broker_ip = host.c_str();
    broker.port = port;
    broker.node_address = "uozctl";
    broker.cert_path = options.certs.c_str();
    broker.debug_level = options.debug;
    session->handle = UDSOverZelko_Init(&broker, options.config.c_str());
    if (session->handle == nullptr) {
        return fail(options, kStartFailed,
                    "cannot start the library: check --config " + options.config + " and --certs " +
                        options.certs + " (run with --debug 2 for details)");
    }
    return kOk;
}

// "all", a target address (0x7E0, 2016) or an ECU name.
bool resolve_ecu(UDSOverZelkoHandle *handle, const std::string &text, int32_t *address) {
    if (text == "all") {
        *address = -1;
        return true;
    }
    char *end = nullptr;
    long value = strtol(text.c_str(), &end, 0);
    if (!text.empty() && *end == '\0') {
        *address = static_cast<int32_t>(value);
        return true;
    }
    *address = UDSOverZelkoGetTargetAddressFromECUName(handle, text.c_str());
    return *address != -1;
}

// Starts the library and resolves the ECU argument; 0 or an exit code.
int start_for_ecu(const Options &options, const std::string &ecu, Session *session,
                  int32_t *address) {
    if (int rc = start(options, session))
        return rc;
    if (!resolve_ecu(session->handle, ecu, address)) {
        return fail(options, kInvalid, "unknown ECU '" + ecu + "': see 'uozctl ecus'");
    }
    return kOk;
}

std::string ecu_label(UDSOverZelkoHandle *handle, const DTCBufferEntry *entry) {
    char text[96];
    const char *name = entry->ecu_name != nullptr
                           ? entry->ecu_name
                           : UDSOverZelkoGetECUNameFromTargetAddress(handle, entry->target_address);
    snprintf(text, sizeof(text), "%s (0x%X)", name != nullptr ? name : "unknown ECU",
             entry->target_address);
    return text;
}

int run_dtc_read(const Options &options, const std::string &ecu, uint32_t report, uint32_t mask,
                 int64_t dtc, int record) {
    Session session;
    int32_t address = 0;
    if (int rc = start_for_ecu(options, ecu, &session, &address))
        return rc;
    DTCBuffer buffer{};
    int rc;
    auto started = std::chrono::steady_clock::now();
    {
        WaitIndicator waiting("reading DTCs");
        rc = dtc >= 0 || record >= 0
                 ? UDSOverZelko_ReadDTCInfoByDTCAndRecordNumber(
                       session.handle, address, report, static_cast<uint32_t>(dtc < 0 ? 0 : dtc),
                       static_cast<uint8_t>(record < 0 ? 0 : record), &buffer)
                 : UDSOverZelko_ReadDTCInfo(session.handle, address, report, mask, &buffer);
    }
    double waited =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    if (rc == UOZ_ERR_UNSUPPORTED_SUBFUNCTION) {
        return fail(options, kInvalid, "report 0x" + std::to_string(report) + " is not supported");
    }
    if (rc < 0) {
        UDSOverZelko_FreeDTCBuffer(&buffer);
        // The library reports every failed exchange as -1; a full wait means no reply.
        if (waited >= UOZ_REPLY_TIMEOUT_SECONDS - 0.5)
            return fail(options, kNoReply, kNoReplyHint);
        return fail(options, kAgentFailure,
                    "the read failed: unknown ECU, or a reply that does not answer it (--debug 2 "
                    "shows why)");
    }
    bool negative = false;
    Json results(json_object_new_array());
    for (int32_t i = 0; i < buffer.count; ++i) {
        const DTCBufferEntry *entry = buffer.entries[i];
        if (entry == nullptr)
            continue;
        uozctl::DtcReport decoded = uozctl::decode_dtc_response(entry->data, entry->length);
        negative = negative || decoded.negative;
        if (options.json) {
            json_object *item = json_object_new_object();
            json_object_object_add(item, "ecu",
                                   json_object_new_string(entry->ecu_name ? entry->ecu_name : ""));
            json_object_object_add(item, "target_address",
                                   json_object_new_int(entry->target_address));
            json_object_object_add(
                item, "bytes",
                json_object_new_string(uozctl::hex_of(entry->data, entry->length).c_str()));
            json_object_object_add(item, "decoded", uozctl::report_to_json(decoded));
            json_object_array_add(results.get(), item);
        } else {
            printf("%s\n%s", ecu_label(session.handle, entry).c_str(),
                   uozctl::report_to_text(decoded).c_str());
        }
    }
    if (options.json) {
        Json object(json_object_new_object());
        json_object_object_add(object.get(), "bytes", json_object_new_int(rc));
        json_object_object_add(object.get(), "ecus", json_object_get(results.get()));
        print_json(object.get());
    } else if (buffer.count == 0) {
        printf("no ECU answered\n");
    }
    UDSOverZelko_FreeDTCBuffer(&buffer);
    return negative ? kAgentFailure : kOk;
}

int show_command_response(const Options &options, int rc, CommandResponse *response,
                          const char *what) {
    if (rc == UOZ_ERR_TIMEOUT)
        return fail(options, kNoReply, kNoReplyHint);
    if (rc == UOZ_ERR_VALIDITY) {
        return fail(options, kInvalid,
                    "the command is outside its diagnostic_period (or its times are unreadable)");
    }
    if (rc != 0)
        return fail(options, kAgentFailure, std::string(what) + " failed (--debug 2 shows why)");
    if (options.json) {
        Json body(json_tokener_parse(response->body_text));
        print_json(body.get());
    } else {
        Json body(json_tokener_parse(response->body_text));
        printf("%s: done\n%s\n", what,
               json_object_to_json_string_ext(
                   body.get(), JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE));
    }
    UDSOverZelko_FreeCommandResponse(response);
    return kOk;
}

int run_dtc_clear(const Options &options, const std::string &ecu, uint32_t group) {
    Session session;
    int32_t address = 0;
    if (int rc = start_for_ecu(options, ecu, &session, &address))
        return rc;
    CommandResponse response{};
    int rc;
    {
        WaitIndicator waiting("clearing DTCs");
        rc = UDSOverZelkoClearDTC(session.handle, address, group, &response);
    }
    if (rc == UOZ_ERR_GENERAL && response.body_text == nullptr && address != -1 &&
        UDSOverZelkoGetECUNameFromTargetAddress(session.handle, address) == nullptr) {
        return fail(options, kInvalid, "no ECU is configured at that address: see 'uozctl ecus'");
    }
    return show_command_response(options, rc, &response, "clear DTCs");
}

int run_version(const Options &options, const std::string &ecu) {
    Session session;
    if (int rc = start(options, &session))
        return rc;
    int32_t address = 0;
    if (!resolve_ecu(session.handle, ecu, &address) || address == -1) {
        return fail(options, kInvalid, "name one ECU ('" + ecu + "' is none): see 'uozctl ecus'");
    }
    char version[1024] = {0};
    int rc;
    {
        WaitIndicator waiting("reading the version");
        rc = UDSOverZelko_ReadECUVersionInformation(session.handle, address, version,
                                                    sizeof(version) - 1);
    }
    if (rc == UOZ_ERR_TIMEOUT)
        return fail(options, kNoReply, kNoReplyHint);
    if (rc != 0) {
        return fail(options, rc == UOZ_ERR_EXCHANGE ? kAgentFailure : kInvalid,
                    "cannot read the version: the ECU needs an \"ecu_version\" description and the "
                    "reply a \"version\" text (--debug 2 shows why)");
    }
    if (options.json) {
        Json object(json_object_new_object());
        json_object_object_add(object.get(), "target_address", json_object_new_int(address));
        json_object_object_add(object.get(), "version", json_object_new_string(version));
        print_json(object.get());
    } else {
        printf("%s (0x%X): %s\n", UDSOverZelkoGetECUNameFromTargetAddress(session.handle, address),
               address, version);
    }
    return kOk;
}

int run_document(const Options &options, const std::string &path) {
    std::ifstream file(path);
    if (!file)
        return fail(options, kInvalid, "cannot read " + path);
    std::stringstream text;
    text << file.rdbuf();
    std::string document = text.str();
    Session session;
    if (int rc = start(options, &session))
        return rc;
    CommandResponse response{};
    int rc;
    {
        WaitIndicator waiting("running the remote command");
        rc = UDSOverZelko_ExecuteRemoteCommand(session.handle, document.c_str(),
                                               static_cast<uint32_t>(document.size() + 1),
                                               &response);
    }
    if (rc == UOZ_ERR_GENERAL && response.body_text == nullptr) {
        Json parsed(json_tokener_parse(document.c_str()));
        if (!parsed)
            return fail(options, kInvalid, path + " is not a JSON document");
    }
    return show_command_response(options, rc, &response, "remote command");
}

int run_consent(const Options &options, const std::string &kind, const std::string &campaign) {
    Session session;
    if (int rc = start(options, &session))
        return rc;
    int rc;
    {
        WaitIndicator waiting("waiting for the policy agent");
        rc = UDSOverZelkoSendExternalConsent(
            session.handle, kind == "download" ? CONSENT_DOWNLOAD : CONSENT_INSTALL,
            campaign.c_str());
    }
    static const char *const kTexts[] = {"",
                                         "accepted",
                                         "rejected",
                                         "invalid handle",
                                         "invalid type",
                                         "no reply",
                                         "answer without a status",
                                         "invalid campaign"};
    if (rc == CONSENT_NO_REPLY) {
        return fail(
            options, kNoReply,
            "no reply from the policy agent within 10 s: is uoz-agent running and connected "
            "to the broker?");
    }
    if (options.json) {
        Json object(json_object_new_object());
        json_object_object_add(object.get(), "campaign", json_object_new_string(campaign.c_str()));
        json_object_object_add(object.get(), "consent", json_object_new_string(kind.c_str()));
        json_object_object_add(object.get(), "result",
                               json_object_new_string(rc >= 1 && rc <= 7 ? kTexts[rc] : "?"));
        print_json(object.get());
    } else {
        printf("%s consent for campaign %s: %s\n", kind.c_str(), campaign.c_str(),
               rc >= 1 && rc <= 7 ? kTexts[rc] : "?");
    }
    return rc == CONSENT_ACCEPTED ? kOk : kAgentFailure;
}

// The table of configured ECUs, read from the configuration file itself.
int run_ecus(const Options &options) {
    Json config(json_object_from_file(options.config.c_str()));
    json_object *configs = nullptr;
    if (!config || !json_object_object_get_ex(config.get(), "configs", &configs) ||
        !json_object_is_type(configs, json_type_array)) {
        return fail(options, kInvalid,
                    options.config + " is not an ECU configuration (no \"configs\" array)");
    }
    if (options.json) {
        print_json(configs);
        return kOk;
    }
    printf("%-14s %-8s %-6s %-50s %s\n", "NAME", "ADDRESS", "TP", "PARAMETERS", "VERSION");
    for (size_t i = 0; i < json_object_array_length(configs); ++i) {
        json_object *entry = json_object_array_get_idx(configs, i);
        auto text = [](json_object *object, const char *key) {
            json_object *value = nullptr;
            return json_object_object_get_ex(object, key, &value) &&
                           json_object_is_type(value, json_type_string)
                       ? std::string(json_object_get_string(value))
                       : std::string("-");
        };
        std::string type = text(entry, "type");
        std::string parameters;
        json_object *block = nullptr;
        std::string key = type == "DOIP" ? "doip" : type == "IOC" ? "ioc" : "can";
        if (type != "CANFD" && json_object_object_get_ex(entry, key.c_str(), &block)) {
            json_object_object_foreach(block, name, value) {
                parameters += (parameters.empty() ? "" : " ") + std::string(name) + "=" +
                              json_object_get_string(value);
            }
        }
        json_object *version = nullptr;
        std::string source = "-";
        if (json_object_object_get_ex(entry, "ecu_version", &version)) {
            source = json_object_object_get_ex(version, "j1939", nullptr) ? "J1939"
                     : json_object_object_get_ex(version, "uds", nullptr) ? "UDS"
                                                                          : "?";
        }
        printf("%-14s %-8s %-6s %-50s %s\n", text(entry, "name").c_str(),
               text(entry, "targetAddress").c_str(), type.c_str(), parameters.c_str(),
               source.c_str());
    }
    return kOk;
}

uint32_t parse_number(const std::string &text) {
    return static_cast<uint32_t>(strtoul(text.c_str(), nullptr, 0));
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{
        "UDS diagnostics through libudsoverzelko.\n"
        "Exit codes: 0 ok, 1 cannot start, 2 invalid input, 3 no reply, 4 failure reported"};
    app.require_subcommand(1);
    Options options;
    app.add_option("--broker", options.broker, "broker HOST:PORT")->capture_default_str();
    app.add_option("--certs", options.certs,
                   "identity directory (private.pem, cert.pem; ../ca/ca.pem)");
    app.add_option("--config", options.config, "ECU configuration file")->required();
    app.add_option("--debug", options.debug, "library log level on stdout (-1 none .. 4 most)");
    app.add_flag("--json", options.json, "machine-readable output");

    app.add_subcommand("ecus", "list the configured ECUs");

    auto *dtc = app.add_subcommand("dtc", "read or clear DTCs");
    dtc->require_subcommand(1);
    std::string ecu, report_text = "0x02", mask_text = "0xFF", dtc_text, record_text,
                     group_text = "0xFFFFFF";
    auto *read = dtc->add_subcommand("read", "ReadDTCInformation (0x19)");
    read->add_option("ECU", ecu, "ECU name, target address (0x7E0) or all")->required();
    read->add_option("--report", report_text, "report subfunction")->capture_default_str();
    auto *mask = read->add_option("--mask", mask_text, "DTC status mask")->capture_default_str();
    auto *dtc_option = read->add_option("--dtc", dtc_text, "DTC number (three bytes)");
    auto *record_option = read->add_option("--record", record_text, "record number");
    mask->excludes(dtc_option);
    auto *clear = dtc->add_subcommand("clear", "ClearDiagnosticInformation (0x14)");
    clear->add_option("ECU", ecu, "ECU name, target address or all")->required();
    clear->add_option("--group", group_text, "group of DTC")->capture_default_str();

    auto *version = app.add_subcommand("version", "read an ECU's version");
    version->add_option("ECU", ecu, "ECU name or target address")->required();

    std::string document;
    auto *run = app.add_subcommand("run", "run a remote command document");
    run->add_option("FILE", document, "remote command document (JSON)")
        ->required()
        ->check(CLI::ExistingFile);

    std::string consent_kind, campaign;
    auto *consent =
        app.add_subcommand("consent", "give download or install consent for a campaign");
    consent->add_option("KIND", consent_kind, "download or install")
        ->required()
        ->check(CLI::IsMember({"download", "install"}));
    consent->add_option("CAMPAIGN", campaign, "campaign id")->required();

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        int rc = app.exit(error);
        return rc == 0 ? kOk : kInvalid;
    }
    if (options.debug < 0)
        uoz_dbg_level = -1;
    if (app.got_subcommand("ecus"))
        return run_ecus(options);
    if (read->parsed()) {
        return run_dtc_read(
            options, ecu, parse_number(report_text), parse_number(mask_text),
            dtc_option->count() ? static_cast<int64_t>(parse_number(dtc_text)) : -1,
            record_option->count() ? static_cast<int>(parse_number(record_text)) : -1);
    }
    if (clear->parsed())
        return run_dtc_clear(options, ecu, parse_number(group_text));
    if (version->parsed())
        return run_version(options, ecu);
    if (run->parsed())
        return run_document(options, document);
    if (consent->parsed())
        return run_consent(options, consent_kind, campaign);
    return kInvalid;
}
