// uozctl: UDS diagnostics from the shell, through libudsoverzelko.
//
// Results go to standard output (text, or JSON with --json, also for
// failures); messages, progress and the library's log lines go to standard
// error. Exit codes are those of every tool of the project (exit_codes.h).
#include <json-c/json.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <sstream>
#include <thread>

#include "bus_probe.h"
#include "config_check.h"
#include "console.h"
#include "document_check.h"
#include "dtc_decode.h"
#include "exit_codes.h"
#include "parse.h"
#include "terminal.h"
#include "udsoverzelko.h"

namespace {

using namespace uoztools;
using uozctl::Json;

// Time the broker probe may take: connection failures are told well within 5 s.
constexpr int kProbeTimeoutMs = 4000;

struct Options {
    std::string broker = "localhost:8883";
    std::string certs;
    std::string config;
    int debug = -1;
    int timeout = UOZ_REPLY_TIMEOUT_SECONDS;
    bool json = false;
};

struct Tool {
    Options options;
    uozctl::Console *console = nullptr;

    FILE *out() const { return console != nullptr ? console->results() : stdout; }

    int fail(int code, const std::string &message) const {
        if (options.json) {
            Json object(json_object_new_object());
            json_object_object_add(object.get(), "error", json_object_new_string(message.c_str()));
            json_object_object_add(object.get(), "exit_code", json_object_new_int(code));
            print_json(object.get());
        }
        fprintf(stderr, "uozctl: %s\n", message.c_str());
        return code;
    }
    void print_json(json_object *object) const {
        fprintf(out(), "%s\n",
                json_object_to_json_string_ext(
                    object, JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE));
        fflush(out());
    }
    std::string no_reply_hint(const char *who) const {
        return std::string("no reply from the ") + who + " within " +
               std::to_string(options.timeout) +
               " s: the broker is up; is uoz-agent running and connected to it?";
    }
};

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

// Runs one blocking library call with the progress indicator. When the
// user's --timeout passes first, the tool ends at once with "no reply": the
// call cannot be cancelled, and the process ending releases what it holds.
int call_with_timeout(const Tool &tool, const char *what, const char *who,
                      std::function<int()> call) {
    WaitIndicator waiting(what);
    std::packaged_task<int()> task(std::move(call));
    std::future<int> result = task.get_future();
    std::thread worker(std::move(task));
    if (result.wait_for(std::chrono::seconds(tool.options.timeout)) == std::future_status::ready) {
        worker.join();
        return result.get();
    }
    worker.detach();
    tool.fail(kExitNoReply, tool.no_reply_hint(who));
    fflush(nullptr);
    _exit(kExitNoReply);
}

struct Session {
    UDSOverZelkoHandle *handle = nullptr;
    uozctl::ConfigReport config;
    ~Session() { UDSOverZelko_Terminate(handle); }
};

// The library reads the configuration without telling the tool what it
// dropped: say it here, before anything is sent.
void warn_about_config(const uozctl::ConfigReport &report) {
    for (const uozctl::EntryReport &entry : report.entries) {
        if (!entry.problem.empty()) {
            fprintf(stderr, "uozctl: warning: configuration entry %zu%s%s: %s%s\n", entry.index,
                    entry.name.empty() ? "" : " ", entry.name.c_str(), entry.problem.c_str(),
                    entry.loaded ? "" : " (dropped)");
        }
    }
}

int start(const Tool &tool, Session *session) {
    const Options &options = tool.options;
    std::string host, error;
    int port = 0;
    if (!parse_host_port(options.broker, "--broker", &host, &port, &error))
        return tool.fail(kExitInvalidInput, error);
    if (options.certs.empty())
        return tool.fail(kExitInvalidInput, "--certs DIR is required for this command");
    session->config = uozctl::check_config(options.config);
    if (!session->config.file_error.empty())
        return tool.fail(kExitCannotStart, session->config.file_error);
    warn_about_config(session->config);
    std::string warning = missing_reply_address(options.certs);
    if (!warning.empty())
        fprintf(stderr, "uozctl: warning: %s\n", warning.c_str());
    ProbeResult probe = probe_broker(host, port, options.certs, kProbeTimeoutMs);
    if (!probe.ok)
        return tool.fail(kExitCannotStart, probe.reason);
    BrokerConfig broker{};
    broker.broker_ip = host.c_str();
    broker.port = port;
    broker.node_address = "uozctl";
    broker.cert_path = options.certs.c_str();
    broker.debug_level = options.debug;
    session->handle = UDSOverZelko_Init(&broker, options.config.c_str());
    if (session->handle == nullptr) {
        return tool.fail(kExitCannotStart, "cannot start the library with --config " +
                                               options.config + " and --certs " + options.certs +
                                               " (run with --debug 2 for details)");
    }
    return kExitOk;
}

std::string hex_text(uint32_t value, int digits) {
    char text[16];
    snprintf(text, sizeof(text), "0x%0*X", digits, value);
    return text;
}

// What uozctl can say of a failure the agent reported when the library
// passes on only that the call failed, not the agent's reason.
const char kAgentFailure[] =
    "the agent reported a failure (see the agent's log; --debug 2 shows its reply)";

// "engine (0x7E0)", or "all ECUs" for -1.
std::string ecu_title(UDSOverZelkoHandle *handle, int32_t address) {
    if (address == -1)
        return "all ECUs";
    const char *name = UDSOverZelkoGetECUNameFromTargetAddress(handle, address);
    return std::string(name != nullptr ? name : "unknown ECU") + " (" +
           hex_text(static_cast<uint32_t>(address), 1) + ")";
}

// The loaded configuration entry of a target address, if any.
const uozctl::EntryReport *loaded_entry(const uozctl::ConfigReport &config, int32_t address) {
    for (const uozctl::EntryReport &entry : config.entries) {
        if (entry.loaded && entry.target_address == address)
            return &entry;
    }
    return nullptr;
}

// "all", an ECU name, or a target address in hexadecimal (0x7E0 or 7E0).
bool resolve_ecu(UDSOverZelkoHandle *handle, const std::string &text, int32_t *address) {
    if (text == "all") {
        *address = -1;
        return true;
    }
    *address = UDSOverZelkoGetTargetAddressFromECUName(handle, text.c_str());
    if (*address != -1)
        return true;
    uint32_t value = 0;
    std::string ignored;
    if (!parse_hex(text, 0x7FFFFFFF, "ECU", &value, &ignored))
        return false;
    *address = static_cast<int32_t>(value);
    return UDSOverZelkoGetECUNameFromTargetAddress(handle, *address) != nullptr;
}

int start_for_ecu(const Tool &tool, const std::string &ecu, Session *session, int32_t *address) {
    if (int rc = start(tool, session))
        return rc;
    if (!resolve_ecu(session->handle, ecu, address)) {
        return tool.fail(kExitInvalidInput,
                         "unknown ECU '" + ecu +
                             "': give a configured name, its target address or 'all' (see "
                             "'uozctl ecus')");
    }
    // The library sends nothing to a CANFD ECU: say so rather than report a
    // failed exchange.
    const uozctl::EntryReport *entry = loaded_entry(session->config, *address);
    if (entry != nullptr && entry->type == "CANFD") {
        return tool.fail(kExitInvalidInput,
                         ecu_title(session->handle, *address) +
                             " is a CANFD ECU, which the library cannot address: nothing was sent");
    }
    return kExitOk;
}

// The ECU an answer came from: its configured name, or the one asked when the
// answer names none (DoIP ECUs are not matched by a CAN request id).
std::string ecu_label(UDSOverZelkoHandle *handle, const DTCBufferEntry *entry, int32_t asked) {
    int32_t address = entry->target_address;
    const char *name = entry->ecu_name;
    if (name == nullptr && address == 0 && asked != -1)
        address = asked;
    if (name == nullptr)
        name = UDSOverZelkoGetECUNameFromTargetAddress(handle, address);
    char text[96];
    snprintf(text, sizeof(text), "%s (0x%X)", name != nullptr ? name : "unknown ECU",
             static_cast<unsigned>(address));
    return text;
}

struct DtcRequest {
    std::string ecu;
    uint32_t report = 0x02;
    uint32_t mask = 0xFF;
    bool by_dtc_or_record = false;
    uint32_t dtc = 0;
    uint32_t record = 0;
};

// The request's exchange; the byte count or a library code.
int read_dtcs(const Tool &tool, UDSOverZelkoHandle *handle, int32_t address,
              const DtcRequest &request, DTCBuffer *buffer) {
    return call_with_timeout(tool, "reading DTCs", "diagnostic agent", [&] {
        return request.by_dtc_or_record ? UDSOverZelko_ReadDTCInfoByDTCAndRecordNumber(
                                              handle, address, request.report, request.dtc,
                                              static_cast<uint8_t>(request.record), buffer)
                                        : UDSOverZelko_ReadDTCInfo(handle, address, request.report,
                                                                   request.mask, buffer);
    });
}

// The exit code of a failed read.
int explain_read_failure(const Tool &tool, const std::string &ecu, int rc, uint32_t report,
                         double waited) {
    if (rc == UOZ_ERR_UNSUPPORTED_SUBFUNCTION) {
        return tool.fail(kExitInvalidInput,
                         "report " + hex_text(report, 2) +
                             " is not supported (supported: " + "0x01-0x06, 0x09-0x16)");
    }
    // The library reports every other failed exchange as -1; a full wait means no reply.
    if (waited >= UOZ_REPLY_TIMEOUT_SECONDS - 0.5)
        return tool.fail(kExitNoReply, tool.no_reply_hint("diagnostic agent"));
    // The library also fails a reply that does not answer the read, but the
    // agent's failure answer is by far the likeliest.
    return tool.fail(kExitFailureReported, ecu + ": the read failed: " + kAgentFailure);
}

// What the answers of a read held.
struct ReadOutcome {
    bool negative = false;            // an ECU answered with a negative response
    std::vector<std::string> failed;  // the ECUs the agent got no answer from
};

// Prints the answers, one block per ECU. The agent answers an ECU it could
// not ask with empty data: a UDS response is never empty, so that entry is
// the ECU's failure, never an empty DTC list.
ReadOutcome print_dtc_answers(const Tool &tool, UDSOverZelkoHandle *handle, int32_t asked,
                              const DTCBuffer &buffer, int total_bytes) {
    ReadOutcome outcome;
    Json results(json_object_new_array());
    for (int32_t i = 0; i < buffer.count; ++i) {
        const DTCBufferEntry *entry = buffer.entries[i];
        if (entry == nullptr)
            continue;
        bool failed = entry->length == 0;
        uozctl::DtcReport decoded = uozctl::decode_dtc_response(entry->data, entry->length);
        std::string label = ecu_label(handle, entry, asked);
        if (failed)
            outcome.failed.push_back(label);
        outcome.negative = outcome.negative || decoded.negative;
        if (!tool.options.json) {
            fprintf(tool.out(), "%s\n", label.c_str());
            if (failed)
                fprintf(tool.out(), "  failed: %s\n", kAgentFailure);
            else
                fputs(uozctl::report_to_text(decoded).c_str(), tool.out());
            continue;
        }
        int32_t address = entry->target_address == 0 && entry->ecu_name == nullptr && asked != -1
                              ? asked
                              : entry->target_address;
        const char *name = entry->ecu_name != nullptr
                               ? entry->ecu_name
                               : UDSOverZelkoGetECUNameFromTargetAddress(handle, address);
        json_object *item = json_object_new_object();
        json_object_object_add(item, "ecu",
                               name != nullptr ? json_object_new_string(name) : nullptr);
        json_object_object_add(item, "target_address", json_object_new_int(address));
        json_object_object_add(item, "length", json_object_new_int(entry->length));
        json_object_object_add(
            item, "bytes",
            json_object_new_string(uozctl::hex_of(entry->data, entry->length).c_str()));
        json_object_object_add(item, "decoded", failed ? nullptr : uozctl::report_to_json(decoded));
        if (failed)
            json_object_object_add(item, "error", json_object_new_string(kAgentFailure));
        json_object_array_add(results.get(), item);
    }
    if (tool.options.json) {
        Json object(json_object_new_object());
        json_object_object_add(object.get(), "total_length", json_object_new_int(total_bytes));
        json_object_object_add(object.get(), "ecus", json_object_get(results.get()));
        if (!outcome.failed.empty() || outcome.negative) {
            json_object_object_add(object.get(), "exit_code",
                                   json_object_new_int(kExitFailureReported));
        }
        tool.print_json(object.get());
    } else if (buffer.count == 0) {
        fprintf(tool.out(), "no ECU answered\n");
    }
    return outcome;
}

int run_dtc_read(const Tool &tool, const DtcRequest &request) {
    Session session;
    int32_t address = 0;
    if (int rc = start_for_ecu(tool, request.ecu, &session, &address))
        return rc;
    DTCBuffer buffer{};
    auto started = std::chrono::steady_clock::now();
    int rc = read_dtcs(tool, session.handle, address, request, &buffer);
    double waited =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    if (rc < 0) {
        UDSOverZelko_FreeDTCBuffer(&buffer);
        return explain_read_failure(tool, ecu_title(session.handle, address), rc, request.report,
                                    waited);
    }
    ReadOutcome outcome = print_dtc_answers(tool, session.handle, address, buffer, rc);
    int buffer_count = buffer.count;
    UDSOverZelko_FreeDTCBuffer(&buffer);
    if (!outcome.failed.empty()) {
        std::string ecus;
        for (const std::string &label : outcome.failed)
            ecus += (ecus.empty() ? "" : ", ") + label;
        fprintf(stderr, "uozctl: the read failed on %zu of %d ECUs: %s\n", outcome.failed.size(),
                buffer_count, ecus.c_str());
    }
    return !outcome.failed.empty() || outcome.negative ? kExitFailureReported : kExitOk;
}

const char *text_member(json_object *object, const char *key) {
    json_object *member = nullptr;
    if (!json_object_object_get_ex(object, key, &member) ||
        !json_object_is_type(member, json_type_string)) {
        return nullptr;
    }
    return json_object_get_string(member);
}

// Every ECU's result of an agent's answer, wherever it is: an object with a
// "response" text, or an ECU's "error" when the agent could not run it there.
void collect_responses(json_object *object, json_object *into) {
    if (json_object_is_type(object, json_type_array)) {
        for (size_t i = 0; i < json_object_array_length(object); ++i)
            collect_responses(json_object_array_get_idx(object, i), into);
        return;
    }
    if (!json_object_is_type(object, json_type_object))
        return;
    if (text_member(object, "response") != nullptr ||
        (text_member(object, "ecu") != nullptr && text_member(object, "error") != nullptr)) {
        json_object_array_add(into, json_object_get(object));
        return;
    }
    json_object_object_foreach(object, key, value) {
        (void)key;
        collect_responses(value, into);
    }
}

// "7F" service NRC: a negative response; its text, or empty.
std::string negative_response_text(const std::string &response) {
    if (response.size() < 6 || strncasecmp(response.c_str(), "7F", 2) != 0)
        return "";
    uint8_t nrc = static_cast<uint8_t>(strtoul(response.substr(4, 2).c_str(), nullptr, 16));
    return "negative response: NRC " + hex_text(nrc, 2) + " " + uozctl::nrc_name(nrc);
}

// One ECU's result of a routine as shown: a negative response, a failure
// with the agent's reason, or done.
struct RoutineResult {
    std::string ecu;
    std::string response;  // hex, empty when the ECU gave none
    std::string negative;  // the negative response's text
    std::string error;     // the agent's reason when it is a failure
};

RoutineResult routine_result(json_object *answer) {
    RoutineResult result;
    const char *ecu = text_member(answer, "ecu");
    const char *response = text_member(answer, "response");
    const char *error = text_member(answer, "error");
    result.ecu = ecu != nullptr ? ecu : "ECU";
    result.response = response != nullptr ? response : "";
    result.negative = negative_response_text(result.response);
    // The agent also names the command a negative response stopped: the
    // response's own text says it better.
    if (result.negative.empty() && error != nullptr)
        result.error = *error != '\0' ? error : "the agent gave no reason";
    return result;
}

// Shows a routine's answer (clear DTCs, remote commands): one line per ECU.
int show_command_response(const Tool &tool, int rc, CommandResponse *response, const char *what) {
    if (rc == UOZ_ERR_TIMEOUT)
        return tool.fail(kExitNoReply, tool.no_reply_hint("diagnostic agent"));
    if (rc == UOZ_ERR_VALIDITY) {
        return tool.fail(kExitInvalidInput,
                         "the command is outside its diagnostic_period (or its times are "
                         "unreadable)");
    }
    if (rc != 0) {
        return tool.fail(kExitFailureReported, std::string(what) + " failed: " + kAgentFailure);
    }
    Json body(json_tokener_parse(response->body_text != nullptr ? response->body_text : ""));
    UDSOverZelko_FreeCommandResponse(response);
    // The agent could not run the query at all.
    if (const char *error = text_member(body.get(), "error"))
        return tool.fail(kExitFailureReported, std::string(what) + " failed: " + error);
    Json answers(json_object_new_array());
    collect_responses(body.get(), answers.get());
    bool negative = false, failed = false;
    Json results(json_object_new_array());
    for (size_t i = 0; i < json_object_array_length(answers.get()); ++i) {
        RoutineResult result = routine_result(json_object_array_get_idx(answers.get(), i));
        negative = negative || !result.negative.empty();
        failed = failed || !result.error.empty();
        if (tool.options.json) {
            json_object *item = json_object_new_object();
            json_object_object_add(item, "ecu", json_object_new_string(result.ecu.c_str()));
            json_object_object_add(item, "response",
                                   json_object_new_string(result.response.c_str()));
            json_object_object_add(item, "negative",
                                   json_object_new_boolean(!result.negative.empty()));
            if (!result.error.empty())
                json_object_object_add(item, "error", json_object_new_string(result.error.c_str()));
            json_object_array_add(results.get(), item);
        } else if (!result.error.empty()) {
            fprintf(tool.out(), "%s: %s: failed: %s\n", what, result.ecu.c_str(),
                    result.error.c_str());
        } else {
            fprintf(tool.out(), "%s: %s: %s\n", what, result.ecu.c_str(),
                    result.negative.empty() ? ("done, response " + result.response).c_str()
                                            : result.negative.c_str());
        }
    }
    if (tool.options.json) {
        Json object(json_object_new_object());
        json_object_object_add(object.get(), "result",
                               json_object_new_string(failed     ? "failed"
                                                      : negative ? "negative response"
                                                                 : "done"));
        json_object_object_add(object.get(), "responses", json_object_get(results.get()));
        if (failed || negative) {
            json_object_object_add(object.get(), "exit_code",
                                   json_object_new_int(kExitFailureReported));
        }
        tool.print_json(object.get());
    } else if (json_object_array_length(answers.get()) == 0) {
        fprintf(tool.out(), "%s: done\n", what);
    }
    return negative || failed ? kExitFailureReported : kExitOk;
}

int run_dtc_clear(const Tool &tool, const std::string &ecu, uint32_t group) {
    Session session;
    int32_t address = 0;
    if (int rc = start_for_ecu(tool, ecu, &session, &address))
        return rc;
    CommandResponse response{};
    int rc = call_with_timeout(tool, "clearing DTCs", "diagnostic agent", [&] {
        return UDSOverZelkoClearDTC(session.handle, address, group, &response);
    });
    return show_command_response(tool, rc, &response, "clear DTCs");
}

int run_version(const Tool &tool, const std::string &ecu) {
    Session session;
    int32_t address = 0;
    if (int rc = start_for_ecu(tool, ecu, &session, &address))
        return rc;
    if (address == -1)
        return tool.fail(kExitInvalidInput, "name one ECU: 'all' has no version");
    // Without a description the library has no query to send.
    const uozctl::EntryReport *entry = loaded_entry(session.config, address);
    if (entry != nullptr && entry->version_source == "-") {
        return tool.fail(kExitInvalidInput,
                         ecu_title(session.handle, address) +
                             " has no \"ecu_version\" description in the configuration: there "
                             "is no version to read");
    }
    char version[1024] = {0};
    int rc = call_with_timeout(tool, "reading the version", "diagnostic agent", [&] {
        return UDSOverZelko_ReadECUVersionInformation(session.handle, address, version,
                                                      sizeof(version) - 1);
    });
    if (rc == UOZ_ERR_TIMEOUT)
        return tool.fail(kExitNoReply, tool.no_reply_hint("diagnostic agent"));
    if (rc != 0) {
        return tool.fail(kExitFailureReported, ecu_title(session.handle, address) +
                                                   ": cannot read the version: " + kAgentFailure);
    }
    const char *name = UDSOverZelkoGetECUNameFromTargetAddress(session.handle, address);
    if (tool.options.json) {
        Json object(json_object_new_object());
        json_object_object_add(object.get(), "ecu", json_object_new_string(name));
        json_object_object_add(object.get(), "target_address", json_object_new_int(address));
        json_object_object_add(object.get(), "version", json_object_new_string(version));
        tool.print_json(object.get());
    } else {
        fprintf(tool.out(), "%s (0x%X): %s\n", name, static_cast<unsigned>(address), version);
    }
    return kExitOk;
}

int run_document(const Tool &tool, const std::string &path) {
    std::ifstream file(path);
    if (!file)
        return tool.fail(kExitInvalidInput, "cannot read " + path + ": " + strerror(errno));
    std::stringstream text;
    text << file.rdbuf();
    std::string document = text.str();
    uozctl::ConfigReport config = uozctl::check_config(tool.options.config);
    if (!config.file_error.empty())
        return tool.fail(kExitCannotStart, config.file_error);
    std::string problem = uozctl::check_document(document, config, time(nullptr));
    if (!problem.empty())
        return tool.fail(kExitInvalidInput, path + ": " + problem);
    Session session;
    if (int rc = start(tool, &session))
        return rc;
    CommandResponse response{};
    int rc = call_with_timeout(tool, "running the remote command", "diagnostic agent", [&] {
        return UDSOverZelko_ExecuteRemoteCommand(session.handle, document.c_str(),
                                                 static_cast<uint32_t>(document.size() + 1),
                                                 &response);
    });
    return show_command_response(tool, rc, &response, "remote command");
}

int run_consent(const Tool &tool, const std::string &kind, const std::string &campaign) {
    Session session;
    if (int rc = start(tool, &session))
        return rc;
    int rc = call_with_timeout(tool, "waiting for the policy agent", "policy agent", [&] {
        return UDSOverZelkoSendExternalConsent(
            session.handle, kind == "download" ? CONSENT_DOWNLOAD : CONSENT_INSTALL,
            campaign.c_str());
    });
    static const char *const kTexts[] = {"",
                                         "accepted",
                                         "rejected",
                                         "invalid handle",
                                         "invalid type",
                                         "no reply",
                                         "answer without a status",
                                         "invalid campaign"};
    if (rc == CONSENT_NO_REPLY)
        return tool.fail(kExitNoReply, tool.no_reply_hint("policy agent"));
    const char *result = rc >= 1 && rc <= 7 ? kTexts[rc] : "unknown result";
    if (tool.options.json) {
        Json object(json_object_new_object());
        json_object_object_add(object.get(), "campaign", json_object_new_string(campaign.c_str()));
        json_object_object_add(object.get(), "consent", json_object_new_string(kind.c_str()));
        json_object_object_add(object.get(), "result", json_object_new_string(result));
        tool.print_json(object.get());
    } else {
        fprintf(tool.out(), "%s consent for campaign %s: %s\n", kind.c_str(), campaign.c_str(),
                result);
    }
    return rc == CONSENT_ACCEPTED ? kExitOk : kExitFailureReported;
}

// The configured ECUs as the library loads them; with check_only, also a
// verdict per entry. Dropped and unreachable entries are named with why.
int run_ecus(const Tool &tool, bool check_only) {
    uozctl::ConfigReport report = uozctl::check_config(tool.options.config);
    if (!report.file_error.empty())
        return tool.fail(kExitCannotStart, report.file_error);
    int code = report.all_usable() ? kExitOk : kExitInvalidInput;
    if (tool.options.json) {
        Json entries(json_object_new_array());
        for (const uozctl::EntryReport &entry : report.entries)
            json_object_array_add(entries.get(), uozctl::entry_to_json(entry));
        Json object(json_object_new_object());
        json_object_object_add(object.get(), "file",
                               json_object_new_string(tool.options.config.c_str()));
        json_object_object_add(object.get(), "entries", json_object_get(entries.get()));
        json_object_object_add(object.get(), "all_usable",
                               json_object_new_boolean(report.all_usable()));
        if (check_only && code != kExitOk)
            json_object_object_add(object.get(), "exit_code", json_object_new_int(code));
        tool.print_json(object.get());
        return check_only ? code : kExitOk;
    }
    FILE *out = tool.out();
    if (!check_only) {
        fprintf(out, "%-14s %-8s %-6s %-8s %s\n", "NAME", "ADDRESS", "TP", "VERSION", "PARAMETERS");
    }
    for (const uozctl::EntryReport &entry : report.entries) {
        std::string address = entry.target_address >= 0
                                  ? hex_text(static_cast<uint32_t>(entry.target_address), 1)
                                  : "-";
        if (check_only) {
            fprintf(out, "entry %zu %s: %s%s%s\n", entry.index,
                    entry.name.empty() ? "(no name)" : entry.name.c_str(),
                    entry.loaded ? "loaded" : "dropped",
                    entry.problem.empty() ? ""
                    : entry.loaded        ? ", but "
                                          : ": ",
                    entry.problem.c_str());
        } else if (entry.loaded) {
            fprintf(out, "%-14s %-8s %-6s %-8s %s\n", entry.name.c_str(), address.c_str(),
                    entry.type.c_str(), entry.version_source.c_str(), entry.parameters.c_str());
        }
    }
    if (check_only) {
        fprintf(out, "%s: %s\n", tool.options.config.c_str(),
                code == kExitOk ? "every entry loads" : "some entries are dropped or unreachable");
    } else {
        warn_about_config(report);
    }
    return check_only ? code : kExitOk;
}

struct Parsed {
    DtcRequest dtc;
    uint32_t group = 0xFFFFFF;
};

// The numbers of dtc read/clear, strictly; 0 or an exit code.
int parse_dtc_numbers(const Tool &tool, CLI::App *read, CLI::App *clear,
                      const std::map<std::string, std::string> &texts, Parsed *parsed) {
    std::string error;
    auto hex = [&](const char *option, uint32_t max, uint32_t *value) {
        return parse_hex(texts.at(option), max, option, value, &error);
    };
    if (read->parsed()) {
        parsed->dtc.by_dtc_or_record = read->count("--dtc") + read->count("--record") > 0;
        bool ok = hex("--report", 0xFF, &parsed->dtc.report) &&
                  hex("--mask", 0xFF, &parsed->dtc.mask) &&
                  (read->count("--dtc") == 0 ||
                   parse_dtc(texts.at("--dtc"), "--dtc", &parsed->dtc.dtc, &error)) &&
                  (read->count("--record") == 0 || hex("--record", 0xFF, &parsed->dtc.record));
        if (!ok)
            return tool.fail(kExitInvalidInput, error);
        uint32_t report = parsed->dtc.report;
        if (!((report >= 0x01 && report <= 0x06) || (report >= 0x09 && report <= 0x16))) {
            return tool.fail(kExitInvalidInput, "--report " + hex_text(report, 2) +
                                                    " is not supported (supported: 0x01-0x06, "
                                                    "0x09-0x16)");
        }
    }
    if (clear->parsed() && !parse_dtc(texts.at("--group"), "--group", &parsed->group, &error))
        return tool.fail(kExitInvalidInput, error);
    return kExitOk;
}

bool wants_json(int argc, char **argv) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--json") == 0)
            return true;
    }
    return false;
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{"UDS diagnostics through libudsoverzelko.\n" + std::string(exit_code_help())};
    app.require_subcommand(1);
    app.fallthrough();
    app.set_version_flag("--version", std::string("uozctl ") + project_version());
    app.footer(
        "ECU is a configured name (engine), a target address in hexadecimal (0x7E0) or 'all'.\n"
        "Numbers are hexadecimal, with or without 0x; DTCs may also be codes (P0301).\n"
        "Each command's options: uozctl COMMAND --help (e.g. uozctl dtc read --help).\n"
        "Exit code 4 also when only some ECUs failed: each ECU's line says how it went.\n\n"
        "Examples:\n"
        "  uozctl --config ecus.json check-config\n"
        "  uozctl --config ecus.json --certs pki/app dtc read engine --mask 0x08\n"
        "  uozctl --config ecus.json --certs pki/app --json dtc read all\n"
        "  uozctl --config ecus.json --certs pki/app dtc clear engine --group P0301");
    Tool tool;
    Options &options = tool.options;
    app.add_option("--broker", options.broker, "broker HOST:PORT")->capture_default_str();
    app.add_option("--certs", options.certs,
                   "identity directory (private.pem, cert.pem; ../ca/ca.pem); needed by every "
                   "command that talks to the bus");
    // Required by every command; checked after parsing so that check-config
    // may take the file as its argument instead.
    app.add_option("--config", options.config, "ECU configuration file (required)");
    app.add_option("--debug", options.debug,
                   "library log level on standard error (-1 none .. 4 most)")
        ->check(CLI::Range(-1, 5));
    app.add_option("--timeout", options.timeout, "seconds to wait for a reply (1-10)")
        ->check(CLI::Range(1, UOZ_REPLY_TIMEOUT_SECONDS))
        ->capture_default_str();
    app.add_flag("--json", options.json, "machine-readable output, also for failures");

    app.add_subcommand("ecus", "list the configured ECUs (dropped entries on standard error)");
    auto *check = app.add_subcommand(
        "check-config", "say per entry what the library loads and what it drops, and why");
    check->add_option("FILE", options.config, "ECU configuration file (instead of --config)");

    auto *dtc = app.add_subcommand("dtc", "read or clear DTCs");
    dtc->require_subcommand(1);
    std::string ecu;
    std::map<std::string, std::string> texts = {{"--report", "0x02"},
                                                {"--mask", "0xFF"},
                                                {"--dtc", ""},
                                                {"--record", ""},
                                                {"--group", "0xFFFFFF"}};
    auto *read = dtc->add_subcommand("read", "ReadDTCInformation (0x19)");
    read->add_option("ECU", ecu, "ECU name, target address (0x7E0) or all")->required();
    read->add_option("--report", texts["--report"], "report subfunction, hex (0x02 or 02)")
        ->capture_default_str();
    auto *mask = read->add_option("--mask", texts["--mask"], "DTC status mask, hex (0x00-0xFF)")
                     ->capture_default_str();
    auto *dtc_option = read->add_option("--dtc", texts["--dtc"],
                                        "DTC: three bytes in hex (0x030100) or a code (P0301)");
    read->add_option("--record", texts["--record"], "record number, hex (0x00-0xFF)");
    mask->excludes(dtc_option);
    auto *clear = dtc->add_subcommand("clear", "ClearDiagnosticInformation (0x14)");
    clear->add_option("ECU", ecu, "ECU name, target address or all")->required();
    clear
        ->add_option("--group", texts["--group"],
                     "group of DTC: three bytes in hex (0xFFFFFF: all) or a code (P0301)")
        ->capture_default_str();

    auto *version = app.add_subcommand("version", "read an ECU's version");
    version->add_option("ECU", ecu, "ECU name or target address")->required();

    std::string document;
    auto *run = app.add_subcommand("run", "check and run a remote command document");
    run->add_option("FILE", document, "remote command document (JSON)")->required();

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
        if (error.get_exit_code() != 0 && wants_json(argc, argv)) {
            tool.options.json = true;
            tool.fail(kExitInvalidInput, error.what());
            return kExitInvalidInput;
        }
        int rc = app.exit(error);
        return rc == 0 ? kExitOk : kExitInvalidInput;
    }
    if (options.config.empty()) {
        return tool.fail(kExitInvalidInput,
                         "--config FILE is required: the ECU configuration file");
    }
    uozctl::Console console;
    tool.console = &console;
    uoz_dbg_level = options.debug;
    Parsed parsed;
    if (int rc = parse_dtc_numbers(tool, read, clear, texts, &parsed))
        return rc;
    parsed.dtc.ecu = ecu;
    if (app.got_subcommand("ecus"))
        return run_ecus(tool, false);
    if (check->parsed())
        return run_ecus(tool, true);
    if (read->parsed())
        return run_dtc_read(tool, parsed.dtc);
    if (clear->parsed())
        return run_dtc_clear(tool, ecu, parsed.group);
    if (version->parsed())
        return run_version(tool, ecu);
    if (run->parsed())
        return run_document(tool, document);
    if (consent->parsed())
        return run_consent(tool, consent_kind, campaign);
    return kExitInvalidInput;
}
