// uozctl end to end: the real broker, uoz-agent asking the ECU simulator
// over DoIP, every command in text and --json, and the exit codes.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>

#include "broker_fixture.h"
#include "tool_runner.h"

namespace uoztest {
namespace {

class UozctlTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(agent_.ready()); }
    ToolRun uozctl(const std::string &arguments) {
        return run(std::string(UOZCTL_PATH) +
                   " --broker localhost:" + std::to_string(broker_.port()) + " --certs " +
                   identity_dir("app") + " --config " + UOZ_EXAMPLES + "/ecus.json " + arguments);
    }
    std::string document(const std::string &text) {
        std::string path = "/tmp/uozctl-doc-" + std::to_string(getpid()) + ".json";
        std::ofstream(path) << text;
        documents_.push_back(path);
        return path;
    }
    void TearDown() override {
        for (const std::string &path : documents_)
            unlink(path.c_str());
    }

    Broker broker_;
    VehicleAgent agent_{broker_.port()};
    std::vector<std::string> documents_;
};

TEST_F(UozctlTest, readsDecodesAndClearsDtcs) {
    ToolRun engine = uozctl("dtc read engine");
    EXPECT_EQ(engine.code, 0) << engine.err;
    EXPECT_NE(engine.out.find(
                  "engine (0x7E0)\n  report 0x02: DTCs by status mask\n"
                  "  P0301-00  (0x030100)  status 0x2F [testFailed, testFailedThisOperationCycle, "
                  "pendingDTC, confirmedDTC, testFailedSinceLastClear]\n"),
              std::string::npos)
        << engine.out;
    EXPECT_EQ(engine.err, "");
    ToolRun all = uozctl("dtc read all");
    EXPECT_EQ(all.code, 0);
    for (const char *ecu :
         {"engine (0x7E0)", "transmission (0x7E1)", "body (0x7E2)", "gateway (0x20)"}) {
        EXPECT_NE(all.out.find(ecu), std::string::npos) << ecu << all.out;
    }
    ToolRun clear = uozctl("dtc clear engine --group P0301");
    EXPECT_EQ(clear.code, 0);
    EXPECT_EQ(clear.out, "clear DTCs: engine: done, response 54\n");
    ToolRun after = uozctl("--json dtc read engine");
    EXPECT_EQ(after.code, 0);
    EXPECT_TRUE(is_json(after.out)) << after.out;
    EXPECT_EQ(after.out.find("P0301"), std::string::npos) << after.out;
    EXPECT_NE(after.out.find("P0171"), std::string::npos) << after.out;
}

TEST_F(UozctlTest, aDoipEcuIsNamedByTheAddressAsked) {
    ToolRun telematics = uozctl("dtc read telematics");
    EXPECT_EQ(telematics.code, 0) << telematics.err;
    EXPECT_EQ(telematics.out.rfind("telematics (0x1001)\n", 0), 0u) << telematics.out;
    ToolRun json = uozctl("dtc read 0x1001 --json");
    EXPECT_NE(json.out.find("\"ecu\":\"telematics\""), std::string::npos) << json.out;
    EXPECT_NE(json.out.find("\"target_address\":4097"), std::string::npos) << json.out;
}

TEST_F(UozctlTest, negativeResponsesAndUnsupportedReportsHaveTheirExitCodes) {
    ToolRun negative = uozctl("dtc read transmission --report 0x14");
    EXPECT_EQ(negative.code, 4) << negative.out;
    EXPECT_NE(negative.out.find("negative response: NRC 0x12 subFunctionNotSupported"),
              std::string::npos);
    ToolRun unsupported = uozctl("dtc read engine --report 0x07");
    EXPECT_EQ(unsupported.code, 2);
    EXPECT_EQ(unsupported.err,
              "uozctl: --report 0x07 is not supported (supported: 0x01-0x06, 0x09-0x16)\n");
    EXPECT_EQ(uozctl("dtc read nosuchecu").code, 2);
    EXPECT_EQ(uozctl("dtc read engine --mask 1 --dtc 2").code, 2);
}

TEST_F(UozctlTest, versionsRoutinesAndConsent) {
    ToolRun version = uozctl("version body");
    EXPECT_EQ(version.code, 0) << version.err;
    EXPECT_EQ(version.out, "body (0x7E2): BCM-1.9.0\n");
    ToolRun json = uozctl("--json version 0x7E0");
    EXPECT_NE(json.out.find("\"version\":\"software version: ENG-2.4.1, hardware version: B3\""),
              std::string::npos)
        << json.out;
    // A J1939 description cannot be read over DoIP: a failure, not a made-up text.
    EXPECT_EQ(uozctl("version transmission").code, 4);
    EXPECT_NE(agent_.agent_output().find("query to 0x07E1 failed: a J1939 version read needs a "
                                         "J1939 transport, which this agent does not have"),
              std::string::npos)
        << agent_.agent_output();
    ToolRun routine = uozctl(std::string("run ") + UOZ_EXAMPLES + "/remote-command.json");
    EXPECT_EQ(routine.code, 0) << routine.err;
    EXPECT_EQ(routine.out,
              "remote command: engine: done, response 62F190575A4C3030303030303030303030303031\n");
    ToolRun consent = uozctl("consent install C-9");
    EXPECT_EQ(consent.code, 0);
    EXPECT_EQ(consent.out, "install consent for campaign C-9: accepted\n");
    EXPECT_EQ(uozctl("version adas").code, 4);
}

TEST_F(UozctlTest, aRoutineTheEcuRefusesIsANegativeResponse) {
    std::string path = document(
        R"({"commands": [{"type": "predefined", "command": "ReadVIN"}], "ecu": {"ServerAddress": "0x7E2"}})");
    ToolRun refused = uozctl("run " + path);
    EXPECT_EQ(refused.code, 4) << refused.out << refused.err;
    EXPECT_EQ(refused.out, "remote command: body: negative response: NRC 0x31 requestOutOfRange\n");
    ToolRun json = uozctl("--json run " + path);
    EXPECT_EQ(json.code, 4);
    EXPECT_TRUE(is_json(json.out)) << json.out;
    EXPECT_NE(json.out.find("\"negative\":true"), std::string::npos) << json.out;
}

// With the simulator gone the agent answers at once with a failure: the
// library sees a failed read (exit 4), not a missing reply (exit 3), and
// never an empty DTC list.
TEST_F(UozctlTest, anUnreachableEcuIsAFailureAtOnce) {
    agent_.stop_ecus();
    ToolRun engine = uozctl("dtc read engine");
    EXPECT_EQ(engine.code, 4) << engine.out << engine.err;
    EXPECT_EQ(engine.out.find("no DTCs"), std::string::npos) << engine.out;
    ToolRun all = uozctl("dtc read all");
    EXPECT_EQ(all.out.find("no DTCs"), std::string::npos) << all.out;
    EXPECT_EQ(uozctl("version engine").code, 4);
    EXPECT_NE(agent_.agent_output().find("Connection refused"), std::string::npos);
}

TEST_F(UozctlTest, anUnknownRoutineIsRefusedBeforeSending) {
    std::string path = document(
        R"({"commands": [{"type": "predefined", "command": "ReadVIM"}], "ecu": {"ServerAddress": "0x7E0"}})");
    ToolRun refused = uozctl("run " + path);
    EXPECT_EQ(refused.code, 2);
    EXPECT_EQ(refused.out, "");
    EXPECT_EQ(refused.err, "uozctl: " + path +
                               ": commands[0].command: the configuration has no pre-defined "
                               "routine 'ReadVIM' (it has: ResetECU, ReadVIN)\n");
}

// Every command's --json output is one JSON document, on success and on
// failure, with snake_case keys only.
TEST_F(UozctlTest, jsonOutputAlwaysParses) {
    const char *commands[] = {
        "dtc read engine",
        "dtc read all",
        "dtc read engine --report 0x06 --dtc P0301 --record 1",
        "dtc read transmission --report 0x14",
        "dtc read engine --mask 0xZZ",
        "dtc read nosuchecu",
        "dtc clear engine",
        "dtc clear engine --group xyz",
        "version engine",
        "version adas",
        "run /nonexistent.json",
        "consent download C-1",
        "ecus",
        "check-config",
        "--debug 2 dtc read body",
        "dtc read",
    };
    for (const char *command : commands) {
        ToolRun result = uozctl(std::string("--json ") + command);
        EXPECT_TRUE(is_json(result.out)) << command << "\n" << result.out;
        EXPECT_EQ(result.out.find("\x1b["), std::string::npos) << command;
        for (const char *camel : {"targetAddress", "exitCode", "phyReqId"})
            EXPECT_EQ(result.out.find(camel), std::string::npos) << command << result.out;
    }
}

TEST_F(UozctlTest, theLibrarysLogLinesGoToStandardErrorWithoutColour) {
    ToolRun result = uozctl("--debug 2 version engine");
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.out, "engine (0x7E0): software version: ENG-2.4.1, hardware version: B3\n");
    EXPECT_NE(result.err.find(" INFO "), std::string::npos) << result.err;
    EXPECT_EQ(result.err.find("\x1b["), std::string::npos) << result.err;
}

TEST_F(UozctlTest, listsTheConfiguredEcus) {
    ToolRun ecus = uozctl("ecus");
    EXPECT_EQ(ecus.code, 0);
    EXPECT_NE(ecus.out.find("transmission   0x7E1    CAN    J1939"), std::string::npos) << ecus.out;
}

TEST_F(UozctlTest, noAgentMeansNoReplyWithAHint) {
    agent_.stop();
    ToolRun consent = uozctl("--timeout 2 consent download C-1");
    EXPECT_EQ(consent.code, 3);
    EXPECT_EQ(consent.err,
              "uozctl: no reply from the policy agent within 2 s: the broker is up; is uoz-agent "
              "running and connected to it?\n");
    EXPECT_LT(consent.seconds, 5.0) << "--timeout must shorten the wait";
}

}  // namespace
}  // namespace uoztest
