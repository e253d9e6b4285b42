// uoz-agent: the diagnostic agent ("/ZDATA/UDS") and policy agent
// ("policy-agent"). Each query becomes UDS requests to the ECUs over DoIP
// (or CAN ISO-TP where the machine has CAN); the reply carries the ECUs' own
// answers. Runs until SIGINT or SIGTERM.
//
//   uoz-agent --broker localhost:8883 --certs pki/agent [--settings FILE]
//             [--ecu-config ecus.json] [--gateway HOST:PORT] [--trace]
//             [--policy accept|reject|ask] [--debug LEVEL]
//
// Exit codes: 0 stopped cleanly; 1 cannot start (certificates, bus,
// settings); 2 invalid command line.
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <systemd/sd-daemon.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "agent_bus.h"
#include "agent_settings.h"
#include "consent.h"
#include "diag_agent.h"
#include "doip.h"
#include "exit_codes.h"
#include "files.h"
#include "identity.h"
#include "terminal.h"
#include "transport_links.h"
#include "udsoverzelko.h"

namespace {

// Time without a connection to the broker after which the agent says so.
constexpr std::chrono::seconds kQuietStart{10};

// What the main thread waits for: the bus client's connection, and SIGINT or
// SIGTERM. The signals are blocked in every thread and taken by a waiter of
// their own, so that a stop wakes the main thread at once.
class Lifetime {
  public:
    // Before any other thread starts: they inherit the blocked signals.
    Lifetime() {
        sigemptyset(&signals_);
        sigaddset(&signals_, SIGINT);
        sigaddset(&signals_, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
        waiter_ = std::thread([this] {
            int taken = 0;
            sigwait(&signals_, &taken);
            set([this] { stop_ = true; });
        });
    }
    ~Lifetime() {
        if (!stop_requested())
            pthread_kill(waiter_.native_handle(), SIGTERM);
        waiter_.join();
    }
    // For the bus client's status reports.
    void bus_status(int status) {
        if (status == KT5BUS_STATUS_RUNNING)
            set([this] { running_ = true; });
    }
    // True once the client runs; false when a stop came first or `limit` passed.
    bool wait_running(std::chrono::seconds limit) {
        std::unique_lock<std::mutex> hold(lock_);
        changed_.wait_for(hold, limit, [this] { return running_ || stop_; });
        return running_ && !stop_;
    }
    void wait_running_or_stop() {
        std::unique_lock<std::mutex> hold(lock_);
        changed_.wait(hold, [this] { return running_ || stop_; });
    }
    bool stop_requested() {
        std::lock_guard<std::mutex> hold(lock_);
        return stop_;
    }
    void wait_for_stop() {
        std::unique_lock<std::mutex> hold(lock_);
        changed_.wait(hold, [this] { return stop_; });
    }

  private:
    template <typename Change>
    void set(Change change) {
        {
            std::lock_guard<std::mutex> hold(lock_);
            change();
        }
        changed_.notify_all();
    }

    sigset_t signals_;
    std::mutex lock_;
    std::condition_variable changed_;
    bool running_ = false;
    bool stop_ = false;
    std::thread waiter_;
};

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

int run(const Options &options, Lifetime &lifetime) {
    uozagent::AgentSettings settings = load_settings(options);
    uozagent::KeyAlgorithms keys = key_algorithms(settings);
    warn_about_addresses(options.certs);
    uozagent::TransportLinks links(settings);
    uozagent::DiagAgent agent(settings, links, keys);
    uozagent::BusSetup setup;
    setup.identity_dir = options.certs;
    setup.url = "tcp://" + options.broker;
    setup.policy = consent_policy(options.policy);
    setup.ask = ask_on_terminal;
    setup.on_status = [&lifetime](int status) { lifetime.bus_status(status); };
    uozagent::AgentBus bus(agent, setup);
    if (!lifetime.wait_running(kQuietStart) && !lifetime.stop_requested()) {
        fprintf(stderr, "uoz-agent: not connected to %s yet; still trying\n",
                options.broker.c_str());
        lifetime.wait_running_or_stop();
    }
    if (!lifetime.stop_requested())
    {
        UOZ_DBGLOG(UOZ_LOG_INFO, "uoz-agent ready on %s", options.broker.c_str());
        sd_notify(0, "READY=1");  // a service manager waiting on NOTIFY_SOCKET goes on
    }
    lifetime.wait_for_stop();
    links.close_all();
    bus.stop();
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
    app.add_flag("--trace", options.trace, "print every UDS request and answer");
    app.add_option("--policy", options.policy, "consent policy")
        ->check(CLI::IsMember({"accept", "reject", "ask"}))
        ->capture_default_str();
    app.add_option("--debug", options.debug, "log level (-1 silent .. 4 most; 2 shows \"ready\")")
        ->type_name("LEVEL")
        ->capture_default_str();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? uoztools::kExitOk : uoztools::kExitInvalidInput;
    }
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
    if (!options.gateway.empty() &&
        !uozdoip::split_host_port(options.gateway.c_str(), uozdoip::kDefaultPort, host, port)) {
        fprintf(stderr, "uoz-agent: --gateway must be HOST or HOST:PORT, not \"%s\"\n",
                options.gateway.c_str());
        return uoztools::kExitInvalidInput;
    }
    uoz_dbg_level = options.debug;
    signal(SIGPIPE, SIG_IGN);
    Lifetime lifetime;
    try {
        return run(options, lifetime);
    } catch (const std::exception &failure) {
        fprintf(stderr, "uoz-agent: %s\n", failure.what());
        return uoztools::kExitCannotStart;
    }
}
