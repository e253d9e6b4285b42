// The stage of a CAN test: its own broker, uoz-agent on it with the test's
// ECU configuration and settings, and uozctl against both. A test whose
// interfaces this machine lacks is skipped with the reason.
#ifndef UOZ_TESTS_CAN_CAN_AGENT_TEST_H
#define UOZ_TESTS_CAN_CAN_AGENT_TEST_H

#include <gtest/gtest.h>

#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "broker_fixture.h"
#include "can_support.h"
#include "processes.h"
#include "tool_runner.h"

namespace uoztest {

class CanAgentTest : public ::testing::Test {
  protected:
    explicit CanAgentTest(std::string ecus) : ecus_(std::move(ecus)) {}

    // Starts the broker, or skips the test when an interface is missing
    // (the caller then checks IsSkipped()).
    void use_interfaces(const std::vector<std::string> &ifnames) {
        for (const std::string &ifname : ifnames) {
            std::string missing = can_missing(ifname);
            if (!missing.empty())
                GTEST_SKIP() << "no CAN here: " << missing
                             << " (make test-can runs these tests in a VM with CAN)";
        }
        broker_ = std::make_unique<Broker>();
    }
    // The agent with the settings file of tests/can, ready. Started here
    // rather than as an AgentProcess: in a VM on a busy machine it can take
    // longer than that class waits.
    void start_agent(const std::string &settings, const std::string &debug = "2") {
        agent_ = std::make_unique<ChildProcess>(std::vector<std::string>{
            UOZ_AGENT_PATH, "--certs", identity_dir("agent"), "--broker",
            "localhost:" + std::to_string(broker_->port()), "--debug", debug, "--trace",
            "--ecu-config", ecus_, "--settings", UOZ_CAN_DIR "/" + settings});
        ASSERT_TRUE(agent_->wait_for_output("uoz-agent ready", 60000)) << agent_->output();
    }
    ToolRun uozctl(const std::string &arguments, const std::string &identity = "app") {
        return run(std::string(UOZCTL_PATH) +
                   " --broker localhost:" + std::to_string(broker_->port()) + " --certs " +
                   identity_dir(identity) + " --config " + ecus_ + " " + arguments);
    }
    // What the agent said, when the test failed.
    void TearDown() override {
        if (HasFailure() && agent_ != nullptr)
            std::cout << "uoz-agent:\n" << agent_->output();
    }

    const std::string ecus_;
    std::unique_ptr<Broker> broker_;
    std::unique_ptr<ChildProcess> agent_;
};

}  // namespace uoztest

#endif
