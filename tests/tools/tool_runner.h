// Running the command-line tools as a person would, and the diagnostic agent
// they talk to.
#ifndef UOZ_TESTS_TOOLS_TOOL_RUNNER_H
#define UOZ_TESTS_TOOLS_TOOL_RUNNER_H

#include <sys/types.h>

#include <string>

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

// The diagnostic agent on the test broker, with the identity "agent",
// started and reaped by this one helper. Waits until the agent is ready.
class AgentProcess {
  public:
    explicit AgentProcess(int broker_port);
    ~AgentProcess();
    AgentProcess(const AgentProcess &) = delete;
    AgentProcess &operator=(const AgentProcess &) = delete;
    bool ready() const;
    void stop();

  private:
    pid_t pid_ = -1;
    std::string log_;
};

}  // namespace uoztest

#endif
