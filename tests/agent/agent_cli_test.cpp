// uoz-agent as a command-line tool: exit codes, messages, start-up warnings,
// the ready line and a prompt stop.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "broker_fixture.h"
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

TEST(AgentCliTest, versionAndUsage) {
    AgentRun version = run_agent({"--version"});
    EXPECT_EQ(version.code, 0);
    EXPECT_EQ(version.output, "uoz-agent " UOZ_VERSION "\n");
    AgentRun no_certs = run_agent({"--broker", "localhost:1883"});
    EXPECT_EQ(no_certs.code, 2);
    EXPECT_NE(no_certs.output.find("--certs is required"), std::string::npos) << no_certs.output;
    AgentRun unknown = run_agent({"--certs", "x", "--frobnicate"});
    EXPECT_EQ(unknown.code, 2);
}

TEST(AgentCliTest, aBrokerWithoutAPortIsSaidSoBeforeStarting) {
    for (const char *broker : {"localhost", "localhost:0", "localhost:70000", ":8883"}) {
        AgentRun run = run_agent({"--certs", "/nonexistent", "--broker", broker});
        EXPECT_EQ(run.code, 2) << broker;
        EXPECT_EQ(run.output, std::string("uoz-agent: --broker must be HOST:PORT with a port from "
                                          "1 to 65535, not \"") +
                                  broker + "\"\n");
    }
}

TEST(AgentCliTest, missingCertificatesAndBadSettingsStopTheStartWithExitOne) {
    AgentRun certs = run_agent({"--certs", "/nonexistent"});
    EXPECT_EQ(certs.code, 1);
    EXPECT_EQ(certs.output,
              "uoz-agent: cannot load the identity in /nonexistent (private.pem, "
              "cert.pem, ../ca/ca.pem)\n");
    std::string settings = "/tmp/uoz-agent-settings-" + std::to_string(getpid()) + ".json";
    std::ofstream(settings) << R"({"uds": {"deadline-ms": 12000}})";
    AgentRun bad = run_agent({"--certs", "/nonexistent", "--settings", settings});
    unlink(settings.c_str());
    EXPECT_EQ(bad.code, 1);
    EXPECT_EQ(bad.output,
              "uoz-agent: \"uds.deadline-ms\" must stay below 9000 (the library waits 10 s)\n");
}

// No broker at all: SIGTERM still stops it at once, with exit code 0.
TEST(AgentCliTest, sigtermStopsItPromptlyWhileTheBrokerIsDown) {
    int port = free_loopback_port();
    ChildProcess agent({UOZ_AGENT_PATH, "--certs", identity_dir("agent"), "--broker",
                        "localhost:" + std::to_string(port)});
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_TRUE(agent.running()) << agent.output();
    auto asked = std::chrono::steady_clock::now();
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(2));
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

}  // namespace
}  // namespace uoztest
