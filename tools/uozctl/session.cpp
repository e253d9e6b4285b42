#include "session.h"

#include "bus_probe.h"
#include "exit_codes.h"
#include "hex_text.h"
#include "identity.h"
#include "parse.h"
#include "presence.h"

namespace uozctl {

namespace {

// Time the broker probe may take: connection failures are told well within 5 s.
constexpr int kProbeTimeoutMs = 4000;

}  // namespace

int Session::start(Server server) {
    const Options &options = context_.options;
    const Output &output = context_.output;
    std::string host, error;
    int port = 0;
    if (!uoztools::parse_host_port(options.broker, "--broker", &host, &port, &error))
        return output.fail(uoztools::kExitInvalidInput, error);
    if (options.certs.empty())
        return output.fail(uoztools::kExitInvalidInput, "--certs DIR is required for this command");
    config_ = check_config(options.config);
    if (!config_.file_error.empty())
        return output.fail(uoztools::kExitCannotStart, config_.file_error);
    output.config_warnings(config_);
    // An agent's identity would take the queries of others as its own.
    uozbus::IdentityFacts identity = uozbus::identity_facts(options.certs);
    if (!identity.serving_address.empty()) {
        return output.fail(uoztools::kExitCannotStart,
                           "the certificate " + uozbus::identity_files(options.certs).certificate +
                               " holds an agent's address (" + identity.serving_address +
                               "): uozctl needs an application's identity (make one with "
                               "'uoz-pki node --id NAME')");
    }
    if (!identity.reply_address_warning.empty())
        output.warn(identity.reply_address_warning);
    if (!identity.problem.empty())
        return output.fail(uoztools::kExitCannotStart, identity.problem);
    server_ = server;
    broker_host_ = host;
    broker_port_ = port;
    BrokerConfig broker{};
    broker.broker_ip = host.c_str();
    broker.port = port;
    broker.node_address = "uozctl";
    broker.cert_path = options.certs.c_str();
    broker.debug_level = output.library_level(options.debug);
    handle_ = UDSOverZelko_Init(&broker, options.config.c_str());
    if (handle_ == nullptr) {
        uozbus::ProbeResult probe =
            uozbus::probe_broker(host, port, options.certs, kProbeTimeoutMs);
        if (!probe.ok)
            return output.fail(uoztools::kExitCannotStart, probe.reason);
        return output.fail(uoztools::kExitCannotStart, "cannot start the library with --config " +
                                                           options.config + " and --certs " +
                                                           options.certs +
                                                           " (run with --debug 2 for details)");
    }
    return uoztools::kExitOk;
}

int Session::explain_silence() const {
    const Options &options = context_.options;
    uozbus::ProbeResult probe =
        uozbus::probe_broker(broker_host_, broker_port_, options.certs, kProbeTimeoutMs, true);
    if (!probe.ok)
        return context_.output.fail(uoztools::kExitCannotStart, probe.reason);
    const char *expected =
        server_ == Server::kPolicyAgent ? uozbus::kPolicyAgentUri : uozbus::kDiagnosticAgentUri;
    if (probe.presence_known && probe.present.count(expected) == 0) {
        return context_.output.fail(uoztools::kExitNoReply,
                                    std::string("no ") + server_title() + " (" + expected +
                                        ") is connected to " + options.broker +
                                        ": is uoz-agent running and connected to it?");
    }
    return uoztools::kExitOk;
}

const char *Session::server_title() const {
    return server_ == Server::kPolicyAgent ? "policy agent" : "diagnostic agent";
}

int Session::start_for_ecu(const std::string &ecu, int32_t *address) {
    if (int rc = start())
        return rc;
    const Output &output = context_.output;
    if (!resolve_ecu(ecu, address)) {
        return output.fail(uoztools::kExitInvalidInput,
                           "unknown ECU '" + ecu +
                               "': give a configured name, its target address or 'all' (see "
                               "'uozctl ecus')");
    }
    // The library sends nothing to a CANFD ECU: say so rather than report a
    // failed exchange.
    const EntryReport *entry = loaded_entry(*address);
    if (entry != nullptr && entry->type == "CANFD") {
        return output.fail(
            uoztools::kExitInvalidInput,
            ecu_title(*address) +
                " is a CANFD ECU, which the library cannot address: nothing was sent");
    }
    return uoztools::kExitOk;
}

bool Session::resolve_ecu(const std::string &text, int32_t *address) const {
    if (text == "all") {
        *address = -1;
        return true;
    }
    *address = UDSOverZelkoGetTargetAddressFromECUName(handle_, text.c_str());
    if (*address != -1)
        return true;
    uint32_t value = 0;
    std::string ignored;
    if (!uoztools::parse_hex(text, 0x7FFFFFFF, "ECU", &value, &ignored))
        return false;
    *address = static_cast<int32_t>(value);
    return UDSOverZelkoGetECUNameFromTargetAddress(handle_, *address) != nullptr;
}

const EntryReport *Session::loaded_entry(int32_t address) const {
    for (const EntryReport &entry : config_.entries) {
        if (entry.loaded && entry.target_address == address)
            return &entry;
    }
    return nullptr;
}

std::string Session::ecu_title(int32_t address) const {
    if (address == -1)
        return "all ECUs";
    const char *name = UDSOverZelkoGetECUNameFromTargetAddress(handle_, address);
    return std::string(name != nullptr ? name : "unknown ECU") + " (" +
           uozuds::hex_number(static_cast<uint32_t>(address), 1) + ")";
}

}  // namespace uozctl
