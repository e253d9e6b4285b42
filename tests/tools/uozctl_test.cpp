// uozctl end to end: the real broker, uoz-agent asking the ECU simulator
// over DoIP, every command in text and --json, and the exit codes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "broker_fixture.h"
#include "processes.h"

extern char **environ;

namespace uoztest {
namespace {

struct Output {
    int code = -1;
    std::string text;
};

class UozctlTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ecus_ = std::make_unique<EcuSimulator>(UOZ_ECUSIM_PATH);
        agent_ = std::make_unique<AgentProcess>(
            UOZ_AGENT_PATH, broker_.port(),
            std::vector<std::string>{"--gateway", ecus_->address(), "--doip-port",
                                     std::to_string(ecus_->port()), "--ecu-config",
                                     std::string(UOZ_EXAMPLES) + "/ecus.json"});
    }
    void stop_agent() { agent_.reset(); }
    Output uozctl(const std::string &arguments) {
        std::string command = std::string(UOZCTL_PATH) +
                              " --broker localhost:" + std::to_string(broker_.port()) +
                              " --certs " + identity_dir("app") + " --config " + UOZ_EXAMPLES +
                              "/ecus.json " + arguments + " 2>&1";
        Output output;
        FILE *pipe = popen(command.c_str(), "r");
        char chunk[4096];
        size_t got;
        while ((got = fread(chunk, 1, sizeof(chunk), pipe)) > 0)
            output.text.append(chunk, got);
        int status = pclose(pipe);
        output.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return output;
    }

    Broker broker_;
    std::unique_ptr<EcuSimulator> ecus_;
    std::unique_ptr<AgentProcess> agent_;
};

TEST_F(UozctlTest, readsDecodesAndClearsDtcs) {
    Output engine = uozctl("dtc read engine");
    EXPECT_EQ(engine.code, 0) << engine.text;
    EXPECT_NE(engine.text.find(
                  "engine (0x7E0)\n  report 0x02: DTCs by status mask\n"
                  "  P0301-00  (0x030100)  status 0x2F [testFailed, testFailedThisOperationCycle, "
                  "pendingDTC, confirmedDTC, testFailedSinceLastClear]\n"),
              std::string::npos)
        << engine.text;
    Output all = uozctl("dtc read all");
    EXPECT_EQ(all.code, 0);
    for (const char *ecu :
         {"engine (0x7E0)", "transmission (0x7E1)", "body (0x7E2)", "gateway (0x20)"}) {
        EXPECT_NE(all.text.find(ecu), std::string::npos) << ecu << all.text;
    }
    EXPECT_EQ(uozctl("dtc clear engine").code, 0);
    Output after = uozctl("--json dtc read engine");
    EXPECT_EQ(after.code, 0);
    EXPECT_NE(after.text.find("\"dtcs\":[\n        ]"), std::string::npos) << after.text;
}

TEST_F(UozctlTest, negativeResponsesAndUnsupportedReportsHaveTheirExitCodes) {
    Output negative = uozctl("dtc read transmission --report 0x14");
    EXPECT_EQ(negative.code, 4) << negative.text;
    EXPECT_NE(negative.text.find("negative response: NRC 0x12 subFunctionNotSupported"),
              std::string::npos);
    EXPECT_EQ(uozctl("dtc read engine --report 0x07").code, 2);
    EXPECT_EQ(uozctl("dtc read nosuchecu").code, 2);
    EXPECT_EQ(uozctl("dtc read engine --mask 1 --dtc 2").code, 2);
}

TEST_F(UozctlTest, versionsRoutinesAndConsent) {
    Output version = uozctl("version body");
    EXPECT_EQ(version.code, 0) << version.text;
    EXPECT_EQ(version.text, "body (0x7E2): BCM-1.9.0\n");
    Output json = uozctl("--json version 0x7E0");
    EXPECT_NE(json.text.find("\"version\":\"software version: ENG-2.4.1, hardware version: B3\""),
              std::string::npos)
        << json.text;
    // A J1939 description cannot be read over DoIP: a failure, not a made-up text.
    EXPECT_EQ(uozctl("version transmission").code, 4);
    EXPECT_NE(agent_->output().find("query to 0x07E1 failed: a J1939 version read needs a J1939 "
                                    "transport, which this agent does not have"),
              std::string::npos)
        << agent_->output();
    Output run = uozctl(std::string("run ") + UOZ_EXAMPLES + "/remote-command.json");
    EXPECT_EQ(run.code, 0) << run.text;
    EXPECT_NE(run.text.find("62F190"), std::string::npos) << run.text;
    Output consent = uozctl("consent install C-9");
    EXPECT_EQ(consent.code, 0);
    EXPECT_EQ(consent.text, "install consent for campaign C-9: accepted\n");
    EXPECT_EQ(uozctl("version adas").code, 4);
}

TEST_F(UozctlTest, listsTheConfiguredEcus) {
    Output ecus = uozctl("ecus");
    EXPECT_EQ(ecus.code, 0);
    EXPECT_NE(ecus.text.find("transmission   0x7E1    CAN"), std::string::npos) << ecus.text;
    EXPECT_NE(ecus.text.find("J1939"), std::string::npos);
    EXPECT_EQ(uozctl("--config /nonexistent ecus").code, 2);
}

// With the simulator gone the agent answers at once with a failure: the
// library sees a failed read (exit 4), not a missing reply (exit 3), and
// never an empty DTC list.
TEST_F(UozctlTest, anUnreachableEcuIsAFailureAtOnce) {
    ecus_.reset();
    Output engine = uozctl("dtc read engine");
    EXPECT_EQ(engine.code, 4) << engine.text;
    EXPECT_EQ(engine.text.find("no DTCs"), std::string::npos) << engine.text;
    Output all = uozctl("dtc read all");
    EXPECT_EQ(all.text.find("no DTCs"), std::string::npos) << all.text;
    EXPECT_EQ(uozctl("version engine").code, 4);
    EXPECT_NE(agent_->output().find("Connection refused"), std::string::npos);
}

TEST_F(UozctlTest, noAgentMeansNoReplyWithAHint) {
    stop_agent();
    Output consent = uozctl("consent download C-1");
    EXPECT_EQ(consent.code, 3);
    EXPECT_NE(consent.text.find("is uoz-agent running and connected to the broker?"),
              std::string::npos);
}

}  // namespace
}  // namespace uoztest
