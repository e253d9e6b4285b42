// Programs a test starts and stops: the ECU simulator and the agent, each in
// a process of its own with its output in a file the test can read.
//
//   uoztest::EcuSimulator ecus(UOZ_ECUSIM_PATH, {"--trace"});
//   uoztest::AgentProcess agent(UOZ_AGENT_PATH, broker, {"--gateway", ecus.address()});
//   ... uozctl or the library against broker ...; ecus.output() ...
#ifndef UOZ_TESTS_PROCESSES_H
#define UOZ_TESTS_PROCESSES_H

#include <signal.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace uoztest {

class ChildProcess {
  public:
    // Where stderr goes: into the output file with stdout, or into a file of
    // its own (for tests that check the program said nothing there).
    enum class Stderr { kWithOutput, kOwnFile };

    // Starts argv[0] with the arguments, stdout (and stderr) into a file.
    explicit ChildProcess(const std::vector<std::string> &argv,
                          Stderr stderr_to = Stderr::kWithOutput);
    ~ChildProcess();
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    // True once the output holds the text; false after timeout_ms or when the
    // process has ended.
    bool wait_for_output(const std::string &text, int timeout_ms);
    std::string output() const;
    // What it wrote on stderr when that has a file of its own; "" otherwise.
    std::string errors() const;
    // The signal and wait: the exit code, or 128 + the signal that ended it;
    // once ended, the same code again.
    int stop(int signal_number = SIGTERM);
    // Waits for the process to end by itself; its code as stop() says it.
    int wait();
    bool running();
    // True once the process blocks the signal (it then takes it in its own
    // time instead of dying of it); false after timeout_ms or when it ended.
    bool wait_blocking(int signal_number, int timeout_ms);

  private:
    pid_t pid_ = -1;
    int status_ = -1;
    std::string log_;
    std::string errors_log_;
};

// uoz-ecusim on 127.0.0.1 and a port of the system's choosing, started and
// ready ("listening on"); it throws when the simulator does not start.
class EcuSimulator {
  public:
    EcuSimulator(const std::string &path, const std::vector<std::string> &arguments = {},
                 ChildProcess::Stderr stderr_to = ChildProcess::Stderr::kWithOutput);
    int port() const { return port_; }
    // The TLS port of the "listening on" line (--tls); 0 without one.
    int tls_port() const;
    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
    std::string output() const { return process_.output(); }
    std::string errors() const { return process_.errors(); }
    int stop(int signal_number = SIGTERM) { return process_.stop(signal_number); }

  private:
    ChildProcess process_;
    int port_ = 0;
};

// uoz-agent connected to a broker with the test PKI's "agent" identity,
// started and ready ("uoz-agent ready").
class AgentProcess {
  public:
    AgentProcess(const std::string &path, int broker_port,
                 const std::vector<std::string> &arguments = {});
    std::string output() const { return process_.output(); }

  private:
    ChildProcess process_;
};

// A free TCP port on 127.0.0.1 (free when asked; tests use it at once).
int free_loopback_port();

}  // namespace uoztest

#endif
