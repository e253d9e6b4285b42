// uoz-agent: the diagnostic agent ("/ZDATA/UDS") and policy agent
// ("policy-agent"). Each query becomes UDS requests to the ECUs over DoIP
// (or CAN ISO-TP where the machine has CAN); the reply carries the ECUs' own
// answers. Runs until SIGINT or SIGTERM.
//
//   uoz-agent --broker localhost:8883 --certs pki/agent [--settings FILE]
//             [--ecu-config ecus.json] [--gateway HOST:PORT] [--trace]
//             [--policy accept|reject|ask] [--debug LEVEL] [--keep-trying]
//
// Exit codes: 0 stopped cleanly; 1 cannot start (certificates, bus,
// settings); 2 invalid command line.
#include <signal.h>
#include <stdio.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "agent_bus.h"
#include "agent_settings.h"
#include "broker_link.h"
#include "command_line.h"
#include "consent.h"
#include "diag_agent.h"
#include "doip.h"
#include "exit_codes.h"
#include "files.h"
#include "identity.h"
#include "lifetime.h"
#include "log_lines.h"
#include "terminal.h"
#include "transport_links.h"
#include "udsoverzelko.h"

namespace {

bool ask_on_terminal(const std::string &campaign) {
    fprintf(stderr, "Consent requested for campaign %s. Accept? [y/N] ", campaign.c_str());
    char answer[16] = "";
    if (fgets(answer, sizeof(answer), stdin) == nullptr)
        return false;
    return answer[0] == 'y' || answer[0] == 'Y';
}

// Says so when the certificate does not carry the addresses the agent
// answers at: queries and consent requests would never reach it.
void warn_about_addresses(const std::string &certs) {
    kt5bus_identity identity{};
    if (!uozbus::load_identity(&identity, certs))
        throw std::runtime_error("cannot load the identity in " + certs +
                                 " (private.pem, cert.pem, ../ca/ca.pem)");
    kt5bus_address *addresses = nullptr;
    int rc = kt5bus_get_identity_data(&identity, &addresses, nullptr, nullptr);
    uozbus::free_identity(&identity);
    if (rc != 0)
        throw std::runtime_error("the certificate in " + certs + " cannot be used (code " +
                                 std::to_string(rc) + ")");
    bool diagnostic = false, policy = false;
    for (kt5bus_address *address = addresses; address != nullptr; address = address->next) {
        std::string name = uozbus::peer_name(address);
        diagnostic = diagnostic || (address->kind == KT5BUS_ADDR_UA && name == "/ZDATA/UDS");
        policy = policy || (address->kind == KT5BUS_ADDR_GROUP && name == "policy-agent");
    }
    kt5bus_free_address(addresses, 1);
    if (!diagnostic)
        fprintf(stderr,
                "uoz-agent: warning: the certificate in %s lacks kt5:ua:/ZDATA/UDS: no "
                "query will reach this agent\n",
                certs.c_str());
    if (!policy)
        fprintf(stderr,
                "uoz-agent: warning: the certificate in %s lacks kt5:group:policy-agent: "
                "no consent request will reach this agent\n",
                certs.c_str());
}

struct Options {
    std::string broker = "localhost:8883";
    uozagent::BrokerTarget broker_target;  // broker, parsed
    bool keep_trying = false;
    std::string certs;
    std::string settings_path;
    std::string ecu_config;
    std::string gateway;
    int doip_port = -1;
    std::string policy = "accept";
    bool trace = false;
    int debug = UOZ_LOG_INFO;
};

uozagent::AgentSettings load_settings(const Options &options) {
    uozagent::AgentSettings settings =
        options.settings_path.empty()
            ? uozagent::AgentSettings{}
            : uozagent::AgentSettings::from_json(uoztools::read_text_file(options.settings_path));
    if (!options.ecu_config.empty())
        settings.learn_ecus(uoztools::read_text_file(options.ecu_config));
    if (!options.gateway.empty()) {
        settings.gateway.enabled = true;
        settings.gateway.all = true;
        uozdoip::split_host_port(options.gateway.c_str(), uozdoip::kDefaultPort,
                                 settings.gateway.host, settings.gateway.port);
    }
    if (options.doip_port >= 0)
        settings.doip_port = static_cast<uint16_t>(options.doip_port);
    settings.trace = options.trace;
    return settings;
}

uozagent::KeyAlgorithms key_algorithms(const uozagent::AgentSettings &settings) {
    uozagent::KeyAlgorithms keys;
    for (const auto &[level, algorithm] : settings.key_algorithms) {
        if (algorithm != "builtin")
            keys.set(level, uozagent::plugin_key_algorithm(algorithm));
    }
    return keys;
}

uozagent::ConsentPolicy consent_policy(const std::string &name) {
    return name == "reject" ? uozagent::ConsentPolicy::kReject
           : name == "ask"  ? uozagent::ConsentPolicy::kAsk
                            : uozagent::ConsentPolicy::kAccept;
}

int run(const Options &options, uozagent::Lifetime &lifetime) {
    uozagent::AgentSettings settings = load_settings(options);
    uozagent::KeyAlgorithms keys = key_algorithms(settings);
    warn_about_addresses(options.certs);
    uozagent::TransportLinks links(settings);
    links.find_gateways();
    uozagent::DiagAgent agent(settings, links, keys);
    uozagent::LinkLog link_log(options.broker);
    uozagent::BusSetup setup;
    setup.identity_dir = options.certs;
    setup.url = "tcp://" + options.broker;
    setup.policy = consent_policy(options.policy);
    setup.ask = ask_on_terminal;
    setup.on_status = [&lifetime, &link_log](int status) {
        lifetime.bus_status(status);
        link_log.status(status);
    };
    uozagent::AgentBus bus(agent, setup);
    if (!uozagent::wait_connected(options.broker_target, options.keep_trying, lifetime))
        return uoztools::kExitCannotStart;
    if (!lifetime.stop_requested()) {
        UOZ_DBGLOG(UOZ_LOG_INFO, "uoz-agent ready on %s", options.broker.c_str());
        sd_notifyf(0, "READY=1\nSTATUS=connected to %s", options.broker.c_str());
    }
    lifetime.wait_for_stop();
    sd_notify(0, "STOPPING=1");
    links.close_all();
    bus.stop();
    UOZ_DBGLOG(UOZ_LOG_INFO, "uoz-agent stopped");
    return uoztools::kExitOk;
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{
        "Diagnostic agent: answers queries with UDS over DoIP or CAN, and consent "
        "requests by policy.\nExit codes: 0 stopped, 1 cannot start, 2 invalid usage"};
    app.set_version_flag("--version", std::string("uoz-agent ") + uoztools::project_version());
    Options options;
    app.add_option("--broker", options.broker, "broker HOST:PORT")
        ->type_name("HOST:PORT")
        ->capture_default_str();
    app.add_option("--certs", options.certs,
                   "identity directory (private.pem, cert.pem; ../ca/ca.pem)")
        ->type_name("DIR")
        ->required();
    app.add_option("--settings", options.settings_path, "agent settings file (docs/agent.md)")
        ->check(CLI::ExistingFile);
    app.add_option("--ecu-config", options.ecu_config,
                   "the library's ECU configuration, for ECU names and target addresses")
        ->check(CLI::ExistingFile);
    app.add_option("--gateway", options.gateway,
                   "reach every CAN and IOC ECU through this DoIP gateway")
        ->type_name("HOST[:PORT]");
    app.add_option("--doip-port", options.doip_port,
                   "TCP port of the DoIP gateways named by \"gw-ip\" (default 13400)")
        ->type_name("PORT")
        ->check(CLI::Range(1, 65535));
    app.add_flag("--keep-trying", options.keep_trying,
                 "when the broker cannot be reached at start, tell why and try again "
                 "instead of exiting with 1 (for services)");
    app.add_flag("--trace", options.trace, "print every UDS request and answer");
    app.add_option("--policy", options.policy, "consent policy")
        ->check(CLI::IsMember({"accept", "reject", "ask"}))
        ->capture_default_str();
    app.add_option("--debug", options.debug, "log level (-1 silent .. 4 most; 2 shows \"ready\")")
        ->type_name("LEVEL")
        ->capture_default_str();
    uoztools::footer_only_at_top(app);
    if (int rc = uoztools::parse_command_line(app, argc, argv, "uoz-agent"); rc >= 0)
        return rc;
    std::string host;
    uint16_t port = 0;
    if (!uozdoip::split_host_port(options.broker.c_str(), 0, host, port) || port == 0 ||
        host.empty()) {
        fprintf(stderr,
                "uoz-agent: --broker must be HOST:PORT with a port from 1 to 65535, not "
                "\"%s\"\n",
                options.broker.c_str());
        return uoztools::kExitInvalidInput;
    }
    options.broker_target = {host, port, options.certs};
    if (!options.gateway.empty() &&
        !uozdoip::split_host_port(options.gateway.c_str(), uozdoip::kDefaultPort, host, port)) {
        fprintf(stderr, "uoz-agent: --gateway must be HOST or HOST:PORT, not \"%s\"\n",
                options.gateway.c_str());
        return uoztools::kExitInvalidInput;
    }
    uoz_dbg_level = options.debug;
    signal(SIGPIPE, SIG_IGN);
    uozagent::Lifetime lifetime;
    // The library's log lines carry colour codes: kept only on a terminal
    // that allows them, never in a file or the journal.
    std::unique_ptr<uoztools::LogLines> plain_log;
    if (!uoztools::colour_allowed(STDOUT_FILENO))
        plain_log = std::make_unique<uoztools::LogLines>(STDOUT_FILENO, STDOUT_FILENO, false);
    try {
        return run(options, lifetime);
    } catch (const std::exception &failure) {
        fprintf(stderr, "uoz-agent: %s\n", failure.what());
        return uoztools::kExitCannotStart;
    }
}
