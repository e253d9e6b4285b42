// uozctl end to end: the real broker, uoz-agent asking the ECU simulator
// over DoIP, every command in text and --json, and the exit codes.
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <memory>

#include "broker_fixture.h"
#include "tool_runner.h"

namespace uoztest {
namespace {

class UozctlTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(agent_.ready()); }
    ToolRun uozctl(const std::string &arguments) {
        return uozctl_with_config(std::string(UOZ_EXAMPLES) + "/ecus.json", arguments);
    }
    ToolRun uozctl_with_config(const std::string &config, const std::string &arguments) {
        return run(std::string(UOZCTL_PATH) +
                   " --broker localhost:" + std::to_string(broker_.port()) + " --certs " +
                   identity_dir("app") + " --config " + config + " " + arguments);
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
    ToolRun adas = uozctl("version adas");
    EXPECT_EQ(adas.code, 2);
    EXPECT_EQ(adas.err,
              "uozctl: adas (0x7E5) is a CANFD ECU, which the library cannot address: nothing was "
              "sent\n");
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

struct JsonFree {
    void operator()(json_object *object) const { json_object_put(object); }
};
using JsonDocument = std::unique_ptr<json_object, JsonFree>;

const char kAgentFailure[] =
    "the agent reported a failure (see the agent's log; --debug 2 shows its reply)";

// An --json document, parsed; null when it is not JSON.
JsonDocument parsed(const std::string &text) {
    return JsonDocument(json_tokener_parse(text.c_str()));
}

std::string text_at(json_object *object, const char *key) {
    json_object *member = nullptr;
    if (!json_object_object_get_ex(object, key, &member) || member == nullptr)
        return "(none)";
    return json_object_get_string(member);
}

// With the simulator gone the agent answers at once with a failure: the
// library sees a failed read (exit 4), not a missing reply (exit 3), and
// never an empty DTC list.
TEST_F(UozctlTest, anUnreachableEcuIsAFailureAtOnce) {
    agent_.stop_ecus();
    ToolRun engine = uozctl("dtc read engine");
    EXPECT_EQ(engine.code, 4) << engine.out << engine.err;
    EXPECT_EQ(engine.out, "");
    EXPECT_EQ(engine.err,
              "uozctl: engine (0x7E0): the read failed: " + std::string(kAgentFailure) + "\n");
    EXPECT_LT(engine.seconds, 5.0) << "the agent must not leave the library to its 10 s";
    ToolRun all = uozctl("dtc read all");
    EXPECT_EQ(all.code, 4) << all.out << all.err;
    std::string failed = std::string("  failed: ") + kAgentFailure + "\n";
    EXPECT_EQ(all.out, "engine (0x7E0)\n" + failed + "transmission (0x7E1)\n" + failed +
                           "body (0x7E2)\n" + failed + "gateway (0x20)\n" + failed);
    EXPECT_EQ(all.err,
              "uozctl: the read failed on 4 of 4 ECUs: engine (0x7E0), transmission (0x7E1), "
              "body (0x7E2), gateway (0x20)\n");
    EXPECT_EQ(all.out.find("empty response"), std::string::npos) << all.out;
    ToolRun version = uozctl("version engine");
    EXPECT_EQ(version.code, 4);
    EXPECT_EQ(version.err, "uozctl: engine (0x7E0): cannot read the version: " +
                               std::string(kAgentFailure) + "\n");
    EXPECT_NE(agent_.agent_output().find("Connection refused"), std::string::npos);
    // The library passes on no reason, but logs the reply that carries it.
    ToolRun debug = uozctl("--debug 2 dtc read engine");
    EXPECT_EQ(debug.code, 4);
    EXPECT_NE(debug.err.find("\"error\":\"engine (0x7E0): cannot connect to gateway 127.0.0.1:"),
              std::string::npos)
        << debug.err;
}

// A routine the agent could not run is a failure with the agent's reason,
// never "done".
TEST_F(UozctlTest, aRoutineOnAnUnreachableEcuFailsWithTheAgentsReason) {
    agent_.stop_ecus();
    ToolRun clear = uozctl("dtc clear engine");
    EXPECT_EQ(clear.code, 4) << clear.out << clear.err;
    EXPECT_EQ(clear.out.rfind(
                  "clear DTCs: engine: failed: ClearDTC: cannot connect to gateway 127.0.0.1:", 0),
              0u)
        << clear.out;
    EXPECT_NE(clear.out.find(": Connection refused\n"), std::string::npos) << clear.out;
    EXPECT_EQ(clear.out.find("done"), std::string::npos) << clear.out;
    ToolRun routine = uozctl(std::string("run ") + UOZ_EXAMPLES + "/remote-command.json");
    EXPECT_EQ(routine.code, 4) << routine.out << routine.err;
    EXPECT_EQ(routine.out.rfind("remote command: engine: failed: ReadDataByIdentifier: cannot "
                                "connect to gateway 127.0.0.1:",
                                0),
              0u)
        << routine.out;
    EXPECT_NE(routine.out.find("Connection refused"), std::string::npos) << routine.out;
    ToolRun json = uozctl("--json dtc clear engine");
    EXPECT_EQ(json.code, 4);
    JsonDocument document = parsed(json.out);
    ASSERT_TRUE(document) << json.out;
    EXPECT_EQ(text_at(document.get(), "result"), "failed");
    EXPECT_EQ(text_at(document.get(), "exit_code"), "4");
    json_object *responses = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(document.get(), "responses", &responses));
    ASSERT_EQ(json_object_array_length(responses), 1u) << json.out;
    json_object *engine = json_object_array_get_idx(responses, 0);
    EXPECT_EQ(text_at(engine, "ecu"), "engine");
    EXPECT_NE(text_at(engine, "error").find("Connection refused"), std::string::npos) << json.out;
}

// Every command that asks an ECU, with the ECUs unreachable: exit 4 and, with
// --json, one document that says so.
TEST_F(UozctlTest, everyCommandFailsInJsonWhenTheEcusAreUnreachable) {
    agent_.stop_ecus();
    const std::string commands[] = {
        "dtc read engine",
        "dtc read all",
        "dtc read engine --report 0x06 --dtc P0301 --record 1",
        "dtc clear engine",
        "dtc clear all",
        "version engine",
        "version telematics",
        std::string("run ") + UOZ_EXAMPLES + "/remote-command.json",
    };
    for (const std::string &command : commands) {
        ToolRun text = uozctl(command);
        EXPECT_EQ(text.code, 4) << command << "\n" << text.out << text.err;
        EXPECT_EQ(text.out.find("done"), std::string::npos) << command << "\n" << text.out;
        EXPECT_EQ(text.out.find("no DTCs"), std::string::npos) << command << "\n" << text.out;
        ToolRun json = uozctl("--json " + command);
        EXPECT_EQ(json.code, 4) << command;
        JsonDocument document = parsed(json.out);
        ASSERT_TRUE(document) << command << "\n" << json.out;
        EXPECT_EQ(text_at(document.get(), "exit_code"), "4") << command << "\n" << json.out;
    }
}

// One ECU the agent cannot ask among several: its line says so, the others
// are shown as usual, and the exit code says that not all went well.
TEST_F(UozctlTest, aReadOfAllEcusShowsWhichFailed) {
    std::string config = document(R"({"configs": [
        {"type": "CAN", "targetAddress": "0x7E0", "name": "engine",
         "can": {"ifname": "can0", "func-addr": "0x7DF", "phy-req-id": "0x7E0",
                 "phy-resp-id": "0x7E8", "st-min": "0x00", "bsize": "0x08"}},
        {"type": "CAN", "targetAddress": "0x7E3", "name": "spare",
         "can": {"ifname": "can0", "func-addr": "0x7DF", "phy-req-id": "0x7E3",
                 "phy-resp-id": "0x7EB", "st-min": "0x00", "bsize": "0x08"}}]})");
    ToolRun all = uozctl_with_config(config, "dtc read all");
    EXPECT_EQ(all.code, 4) << all.out << all.err;
    EXPECT_EQ(all.out.rfind("engine (0x7E0)\n  report 0x02: DTCs by status mask\n  P0301-00", 0),
              0u)
        << all.out;
    EXPECT_NE(all.out.find("spare (0x7E3)\n  failed: " + std::string(kAgentFailure) + "\n"),
              std::string::npos)
        << all.out;
    EXPECT_EQ(all.err, "uozctl: the read failed on 1 of 2 ECUs: spare (0x7E3)\n");

    ToolRun json = uozctl_with_config(config, "--json dtc read all");
    EXPECT_EQ(json.code, 4);
    JsonDocument document = parsed(json.out);
    ASSERT_TRUE(document) << json.out;
    EXPECT_EQ(text_at(document.get(), "exit_code"), "4");
    json_object *ecus = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(document.get(), "ecus", &ecus));
    ASSERT_EQ(json_object_array_length(ecus), 2u) << json.out;
    json_object *engine = json_object_array_get_idx(ecus, 0);
    json_object *spare = json_object_array_get_idx(ecus, 1);
    EXPECT_EQ(text_at(engine, "ecu"), "engine");
    EXPECT_EQ(text_at(engine, "error"), "(none)");
    EXPECT_EQ(text_at(spare, "ecu"), "spare");
    EXPECT_EQ(text_at(spare, "error"), kAgentFailure);
    EXPECT_EQ(text_at(spare, "decoded"), "(none)");
}

// A J1939 version description cannot be read over DoIP: a failure in text
// and in --json, never a made-up version.
TEST_F(UozctlTest, aJ1939VersionIsAFailure) {
    ToolRun version = uozctl("version transmission");
    EXPECT_EQ(version.code, 4);
    EXPECT_EQ(version.out, "");
    EXPECT_EQ(version.err, "uozctl: transmission (0x7E1): cannot read the version: " +
                               std::string(kAgentFailure) + "\n");
    ToolRun json = uozctl("--json version transmission");
    EXPECT_EQ(json.code, 4);
    JsonDocument document = parsed(json.out);
    ASSERT_TRUE(document) << json.out;
    EXPECT_EQ(text_at(document.get(), "exit_code"), "4");
    EXPECT_EQ(text_at(document.get(), "error"),
              "transmission (0x7E1): cannot read the version: " + std::string(kAgentFailure));
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
