// Running the command-line tools as a person would, and the diagnostic agent
// they talk to.
#ifndef UOZ_TESTS_TOOLS_TOOL_RUNNER_H
#define UOZ_TESTS_TOOLS_TOOL_RUNNER_H

#include <sys/types.h>

#include <memory>
#include <string>

#include "processes.h"

namespace uoztest {

struct ToolRun {
    int code = -1;       // exit code, -1 when killed by a signal
    std::string out;     // standard output
    std::string err;     // standard error
    double seconds = 0;  // wall time
};

// Runs a shell command line; standard output and error apart.
ToolRun run(const std::string &command);

// True when text is exactly one JSON document (nothing else around it).
bool is_json(const std::string &text);

// The diagnostic agent on the test broker, with the identity "agent", asking
// the ECU simulator over DoIP for the ECUs of examples/ecus.json: the one
// place that starts them. Waits until both are ready.
class VehicleAgent {
  public:
    explicit VehicleAgent(int broker_port);
    ~VehicleAgent();
    VehicleAgent(const VehicleAgent &) = delete;
    VehicleAgent &operator=(const VehicleAgent &) = delete;
    bool ready() const { return agent_ != nullptr; }
    // Stops the agent: queries then go unanswered.
    void stop();
    // Stops the simulator: the agent then finds its ECUs unreachable.
    void stop_ecus();
    std::string agent_output() const;

  private:
    std::unique_ptr<EcuSimulator> ecus_;
    std::unique_ptr<AgentProcess> agent_;
};

}  // namespace uoztest

#endif
