// uoz-agent: the reference diagnostic agent ("/ZDATA/UDS") and policy agent
// ("policy-agent"), answering from a simulated vehicle until interrupted.
//
//   uoz-agent --broker localhost:8883 --certs pki/agent [--vehicle FILE]
//             [--policy accept|reject|ask] [--debug LEVEL]
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <fstream>
#include <sstream>
#include <thread>

#include "agent_peer.h"
#include "udsoverzelko.h"
#include "vehicle.h"
#include "vehicle_default.h"

namespace {

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

std::string read_file(const std::string &path) {
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error("cannot read " + path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{"Reference diagnostic agent and policy agent over a simulated vehicle"};
    std::string broker = "localhost:8883";
    std::string certs;
    std::string vehicle_path;
    std::string policy_name;
    int debug = UOZ_LOG_INFO;
    app.add_option("--broker", broker, "broker HOST:PORT");
    app.add_option("--certs", certs, "identity directory (private.pem, cert.pem; ../ca/ca.pem)")
        ->required();
    app.add_option("--vehicle", vehicle_path, "simulated vehicle file (default: built-in)");
    app.add_option("--policy", policy_name, "consent policy")
        ->check(CLI::IsMember({"accept", "reject", "ask"}));
    app.add_option("--debug", debug, "log level (-1 silent .. 4 most)");
    CLI11_PARSE(app, argc, argv);
    uoz_dbg_level = debug;

    try {
        uozagent::Vehicle vehicle = uozagent::Vehicle::from_json(
            vehicle_path.empty() ? std::string(kDefaultVehicle) : read_file(vehicle_path));
        uozagent::ConsentPolicy policy = vehicle.default_policy();
        if (policy_name == "accept")
            policy = uozagent::ConsentPolicy::kAccept;
        if (policy_name == "reject")
            policy = uozagent::ConsentPolicy::kReject;
        if (policy_name == "ask")
            policy = uozagent::ConsentPolicy::kAsk;

        uozagent::AgentPeer agent(certs, "tcp://" + broker);
        agent.set_responder([&](const uozagent::Received &message) {
            UOZ_DBGLOG(UOZ_LOG_INFO, "%s %s", message.source_name.c_str(), message.text.c_str());
            std::string reply = vehicle.answer_query(message.text);
            if (reply.empty())
                reply = vehicle.answer_consent(message.text, policy, ask_on_terminal);
            if (reply.empty()) {
                UOZ_DBGLOG(UOZ_LOG_WARN, "not a query or consent request: ignored");
                return std::vector<uozagent::Action>{};
            }
            UOZ_DBGLOG(UOZ_LOG_DBG, "answer: %s", reply.c_str());
            return std::vector<uozagent::Action>{uozagent::Action(reply)};
        });
        signal(SIGINT, request_stop);
        signal(SIGTERM, request_stop);
        if (!agent.wait_running(10000)) {
            fprintf(stderr, "uoz-agent: not connected to %s yet; still trying\n", broker.c_str());
        }
        UOZ_DBGLOG(UOZ_LOG_ERR, "uoz-agent ready on %s", broker.c_str());
        while (!g_stop)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    } catch (const std::exception &error) {
        fprintf(stderr, "uoz-agent: %s\n", error.what());
        return 1;
    }
    return 0;
}
