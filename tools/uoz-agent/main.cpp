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
#include <signal.h>
#include <stdio.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <thread>

#include "agent_bus.h"
#include "agent_settings.h"
#include "consent.h"
#include "diag_agent.h"
#include "doip.h"
#include "exit_codes.h"
#include "files.h"
#include "transport_links.h"
#include "udsoverzelko.h"

namespace {

constexpr int kQueryWorkers = 8;

std::atomic<bool> g_stop{false};

void request_stop(int) {
    g_stop = true;
}

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
    if (!uozagent::load_identity(&identity, certs))
        throw std::runtime_error("cannot load the identity in " + certs +
                                 " (private.pem, cert.pem, ../ca/ca.pem)");
    kt5bus_address *addresses = nullptr;
    int rc = kt5bus_get_identity_data(&identity, &addresses, nullptr, nullptr);
    uozagent::free_identity(&identity);
    if (rc != 0)
        throw std::runtime_error("the certificate in " + certs + " cannot be used (code " +
                                 std::to_string(rc) + ")");
    bool diagnostic = false, policy = false;
    for (kt5bus_address *address = addresses; address != nullptr; address = address->next) {
        std::string name = address->kind == KT5BUS_ADDR_SPECIAL ? "" : address->value.name;
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

// Queries take up to the UDS deadline each: they run on workers, so that
// the bus thread stays free and ECUs of different queries work in parallel.
// Each worker sends its reply itself.
class QueryWorkers {
  public:
    using Reply = std::function<void(const uozagent::Received &query, const std::string &reply)>;

    QueryWorkers(uozagent::DiagAgent &agent, Reply reply)
        : agent_(agent), reply_(std::move(reply)) {
        for (int i = 0; i < kQueryWorkers; ++i)
            workers_.emplace_back(&QueryWorkers::work, this);
    }
    ~QueryWorkers() { stop(); }
    void add(const uozagent::Received &message) {
        std::lock_guard<std::mutex> hold(lock_);
        if (stopping_)
            return;
        queue_.push_back(message);
        changed_.notify_one();
    }
    void stop() {
        {
            std::lock_guard<std::mutex> hold(lock_);
            stopping_ = true;
        }
        changed_.notify_all();
        for (std::thread &worker : workers_) {
            if (worker.joinable())
                worker.join();
        }
    }

  private:
    void work() {
        for (;;) {
            uozagent::Received message;
            {
                std::unique_lock<std::mutex> hold(lock_);
                changed_.wait(hold, [&] { return stopping_ || !queue_.empty(); });
                if (stopping_)
                    return;
                message = std::move(queue_.front());
                queue_.pop_front();
            }
            std::string reply = agent_.answer_query(message.text);
            UOZ_DBGLOG(UOZ_LOG_DBG, "answer: %s", reply.c_str());
            reply_(message, reply);
        }
    }

    uozagent::DiagAgent &agent_;
    Reply reply_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::deque<uozagent::Received> queue_;
    bool stopping_ = false;
    std::vector<std::thread> workers_;
};

bool is_query(const std::string &text) {
    return text.find("\"zelko.skyharbor-query\"") != std::string::npos;
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

int run(const Options &options) {
    uozagent::AgentSettings settings = load_settings(options);
    uozagent::KeyAlgorithms keys = key_algorithms(settings);
    warn_about_addresses(options.certs);
    uozagent::ConsentPolicy policy = options.policy == "reject" ? uozagent::ConsentPolicy::kReject
                                     : options.policy == "ask"  ? uozagent::ConsentPolicy::kAsk
                                                                : uozagent::ConsentPolicy::kAccept;
    uozagent::TransportLinks links(settings);
    uozagent::DiagAgent agent(settings, links, keys);
    std::atomic<uozagent::AgentBus *> bus{nullptr};
    auto reply = [&](const uozagent::Received &to, const std::string &text) {
        if (uozagent::AgentBus *sender = bus.load())
            sender->send(text, to.source_kind, to.source_name);
    };
    QueryWorkers workers(agent, reply);
    uozagent::AgentBus peer(
        options.certs, "tcp://" + options.broker,
        [&](uozagent::AgentBus &self, const uozagent::Received &message) {
            bus = &self;  // a message may come before the constructor has returned
            UOZ_DBGLOG(UOZ_LOG_INFO, "%s %s", message.source_name.c_str(), message.text.c_str());
            if (is_query(message.text)) {
                workers.add(message);
                return;
            }
            std::string answer = uozagent::answer_consent(message.text, policy, ask_on_terminal);
            if (answer.empty()) {
                UOZ_DBGLOG(UOZ_LOG_WARN, "not a query or consent request: ignored");
                return;
            }
            reply(message, answer);
        });
    bus = &peer;
    auto started = std::chrono::steady_clock::now();
    bool said_waiting = false;
    while (!g_stop && !peer.wait_running(100)) {
        if (!said_waiting &&
            std::chrono::steady_clock::now() - started > std::chrono::seconds(10)) {
            fprintf(stderr, "uoz-agent: not connected to %s yet; still trying\n",
                    options.broker.c_str());
            said_waiting = true;
        }
    }
    if (!g_stop) {
        UOZ_DBGLOG(UOZ_LOG_INFO, "uoz-agent ready on %s", options.broker.c_str());
        sd_notify(0, "READY=1");  // a service manager waiting on NOTIFY_SOCKET goes on
    }
    while (!g_stop)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    links.close_all();
    workers.stop();
    peer.stop();
    bus = nullptr;
    return uoztools::kExitOk;
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{
        "Diagnostic agent: answers queries with UDS over DoIP or CAN, and consent "
        "requests by policy.\nExit codes: 0 stopped, 1 cannot start, 2 invalid usage"};
    app.set_version_flag("--version", "uoz-agent " UOZ_VERSION);
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
    signal(SIGINT, request_stop);
    signal(SIGTERM, request_stop);
    signal(SIGPIPE, SIG_IGN);
    try {
        return run(options);
    } catch (const std::exception &error) {
        fprintf(stderr, "uoz-agent: %s\n", error.what());
        return uoztools::kExitCannotStart;
    }
}
