// uoz-agent as a command-line tool: exit codes, messages, start-up warnings,
// the ready line, readiness told to a service manager and a prompt stop.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <thread>

#include "broker_fixture.h"
#include "golden.h"
#include "processes.h"

namespace uoztest {
namespace {

struct AgentRun {
    int code = -1;
    std::string output;
};

AgentRun run_agent(const std::vector<std::string> &arguments) {
    std::vector<std::string> argv = {UOZ_AGENT_PATH};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    ChildProcess agent(argv);
    for (int i = 0; i < 500 && agent.running(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    AgentRun run;
    run.code = agent.stop();
    run.output = agent.output();
    return run;
}

TEST(AgentCliTest, usageAndStartErrorsExitWithTheirCodeAndSayWhy) {
    Broker broker;
    for (const GoldenCase &test :
         golden_cases(UOZ_AGENT_GOLDEN "/agent_cli.txt",
                      {{"VERSION", UOZ_VERSION},
                       {"INPUTS", UOZ_AGENT_GOLDEN "/inputs"},
                       {"PKI", pki_dir()},
                       {"OTHER_PKI", other_pki_dir()},
                       {"PORT", std::to_string(broker.port())},
                       {"CLOSED", std::to_string(free_loopback_port())}})) {
        std::istringstream words(test["args"]);
        std::vector<std::string> arguments;
        for (std::string word; words >> word;)
            arguments.push_back(word);
        AgentRun run = run_agent(arguments);
        EXPECT_EQ(run.code, std::stoi(test["code"])) << test.name << ": " << run.output;
        EXPECT_TRUE(matches(run.output, test.has("says") ? test["says"] : "*")) << run.output;
    }
}

// No broker at all, as a service keeps trying: SIGTERM still stops it at
// once, with exit code 0.
TEST(AgentCliTest, sigtermStopsItPromptlyWhileTheBrokerIsDown) {
    int port = free_loopback_port();
    ChildProcess agent({UOZ_AGENT_PATH, "--certs", identity_dir("agent"), "--broker",
                        "localhost:" + std::to_string(port), "--keep-trying"});
    ASSERT_TRUE(agent.wait_blocking(SIGTERM, 10000)) << agent.output();
    ASSERT_TRUE(agent.wait_for_output("; trying again\n", 10000)) << agent.output();
    auto asked = std::chrono::steady_clock::now();
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(2));
    EXPECT_TRUE(matches(agent.output(), "uoz-agent: cannot connect to the broker at localhost:" +
                                            std::to_string(port) +
                                            ": Connection refused; trying again\n*"
                                            "uoz-agent: SIGTERM received, stopping\n*"
                                            "uoz-agent stopped\n"))
        << agent.output();
}

// Plain lines in a file: when the broker goes and comes back, the agent
// says so, with how long it was gone.
TEST(AgentCliTest, tellsWhenTheBrokerLinkDropsAndReturns) {
    Broker broker;
    std::string url = "localhost:" + std::to_string(broker.port());
    ChildProcess agent({UOZ_AGENT_PATH, "--certs", identity_dir("agent"), "--broker", url});
    ASSERT_TRUE(agent.wait_for_output("uoz-agent ready on " + url, 5000)) << agent.output();
    broker.stop();
    EXPECT_TRUE(
        agent.wait_for_output("uoz-agent: lost the broker at " + url + "; reconnecting", 5000))
        << agent.output();
    broker.start();
    EXPECT_TRUE(agent.wait_for_output(
        "uoz-agent: connected to the broker at " + url + " again after ", 10000))
        << agent.output();
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_EQ(agent.output().find('\x1b'), std::string::npos) << agent.output();
}

TEST(AgentCliTest, readyIsLoggedAtInfoAndACertificateWithoutTheAddressesIsWarned) {
    Broker broker;
    std::string url = "localhost:" + std::to_string(broker.port());
    ChildProcess quiet(
        {UOZ_AGENT_PATH, "--certs", identity_dir("agent"), "--broker", url, "--debug", "1"});
    ChildProcess agent({UOZ_AGENT_PATH, "--certs", identity_dir("agent"), "--broker", url});
    EXPECT_TRUE(agent.wait_for_output("uoz-agent ready on " + url, 5000)) << agent.output();
    EXPECT_NE(agent.output().find("INFO"), std::string::npos) << agent.output();
    EXPECT_EQ(agent.output().find("warning"), std::string::npos) << agent.output();
    EXPECT_EQ(quiet.output().find("uoz-agent ready"), std::string::npos) << quiet.output();
    ChildProcess app({UOZ_AGENT_PATH, "--certs", identity_dir("app"), "--broker", url});
    EXPECT_TRUE(app.wait_for_output("uoz-agent ready", 5000)) << app.output();
    EXPECT_NE(app.output().find("lacks kt5:ua:/ZDATA/UDS: no query will reach this agent"),
              std::string::npos)
        << app.output();
    EXPECT_NE(app.output().find("lacks kt5:group:policy-agent: no consent request will reach "
                                "this agent"),
              std::string::npos)
        << app.output();
    EXPECT_EQ(agent.stop(), 0);
}

// The datagram socket a service manager names in NOTIFY_SOCKET: programs
// started from now until the next one is made send their notices here.
class NotifySocket {
  public:
    NotifySocket()
        : path_("/tmp/uoz-notify-" + std::to_string(getpid()) + "-" + std::to_string(++count_)) {
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        snprintf(address.sun_path, sizeof(address.sun_path), "%s", path_.c_str());
        unlink(path_.c_str());
        if (bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0)
            ADD_FAILURE() << "cannot bind " << path_;
        setenv("NOTIFY_SOCKET", path_.c_str(), 1);
    }
    ~NotifySocket() {
        unsetenv("NOTIFY_SOCKET");
        close(fd_);
        unlink(path_.c_str());
    }
    // The next datagram, or "" when none came within timeout_ms.
    std::string receive(int timeout_ms) {
        pollfd ready{fd_, POLLIN, 0};
        if (poll(&ready, 1, timeout_ms) != 1)
            return "";
        char text[256];
        ssize_t length = recv(fd_, text, sizeof(text), 0);
        return length > 0 ? std::string(text, static_cast<size_t>(length)) : "";
    }

  private:
    static inline int count_ = 0;
    std::string path_;
    int fd_ = -1;
};

std::vector<std::string> silent_agent(int broker_port) {
    return {UOZ_AGENT_PATH,
            "--certs",
            identity_dir("agent"),
            "--debug",
            "-1",
            "--broker",
            "localhost:" + std::to_string(broker_port)};
}

// Under systemd (Type=notify) "systemctl start" returns once the agent says
// READY=1: only after it is connected, whatever its log level.
TEST(AgentCliTest, tellsTheServiceManagerItIsReadyOnlyOnceConnected) {
    Broker broker;
    NotifySocket down_notify;
    std::vector<std::string> keeps_trying = silent_agent(free_loopback_port());
    keeps_trying.push_back("--keep-trying");
    ChildProcess waiting(keeps_trying);
    NotifySocket up_notify;
    ChildProcess agent(silent_agent(broker.port()));
    EXPECT_EQ(up_notify.receive(5000),
              "READY=1\nSTATUS=connected to localhost:" + std::to_string(broker.port()))
        << agent.output();
    EXPECT_TRUE(matches(down_notify.receive(5000),
                        "STATUS=cannot connect to the broker at *: Connection refused; trying "
                        "again"))
        << waiting.output();
    EXPECT_EQ(down_notify.receive(300), "") << waiting.output();
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_EQ(waiting.stop(), 0);
}

}  // namespace
}  // namespace uoztest
