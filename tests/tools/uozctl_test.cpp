// uozctl end to end: the real broker, uoz-agent asking the ECU simulator
// over DoIP, every command in text and --json, and the exit codes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <memory>

#include "broker_fixture.h"
#include "processes.h"
#include "tool_runner.h"

namespace uoztest {
namespace {

const std::string kAgentFailure =
    "the agent reported a failure (see the agent's log; --debug 2 shows its reply)";
const std::string kExamples = UOZ_EXAMPLES;

class UozctlTest : public ::testing::Test {
  protected:
    void TearDown() override {
        for (const std::string &path : files_)
            unlink(path.c_str());
    }
    ToolRun uozctl(const std::string &arguments,
                   const std::string &config = kExamples + "/ecus.json") {
        return run(program(config) + " " + arguments);
    }
    std::string file(const std::string &text) {
        files_.push_back("/tmp/uozctl-test-" + std::to_string(getpid()) + "-" +
                         std::to_string(files_.size()) + ".json");
        std::ofstream(files_.back()) << text;
        return files_.back();
    }
    // The command in text and in --json; gives the text run.
    ToolRun check(const Expected &expected) { return expect_run(program(), expected); }
    std::string program(const std::string &config = kExamples + "/ecus.json") {
        return std::string(UOZCTL_PATH) + " --broker localhost:" + std::to_string(broker_.port()) +
               " --certs " + identity_dir("app") + " --config " + config;
    }

    Broker broker_;
    std::unique_ptr<EcuSimulator> ecus_ = std::make_unique<EcuSimulator>(UOZ_ECUSIM_PATH);
    std::unique_ptr<AgentProcess> agent_ = std::make_unique<AgentProcess>(
        UOZ_AGENT_PATH, broker_.port(),
        std::vector<std::string>{"--gateway", ecus_->address(), "--doip-port",
                                 std::to_string(ecus_->port()), "--ecu-config",
                                 kExamples + "/ecus.json"});
    std::vector<std::string> files_;
};

TEST_F(UozctlTest, everyCommandWithItsTextJsonAndExitCode) {
    const std::string refused = file(R"({"commands": [{"type": "predefined", "command": "ReadVIN"}],
                                         "ecu": {"ServerAddress": "0x7E2"}})");
    const std::string unknown = file(R"({"commands": [{"type": "predefined", "command": "ReadVIM"}],
                                         "ecu": {"ServerAddress": "0x7E0"}})");
    const Expected cases[] = {
        {"dtc read engine", 0,
         "engine (0x7E0)\n  report 0x02: DTCs by status mask\n"
         "  P0301-00  (0x030100)  status 0x2F [testFailed, testFailedThisOperationCycle, "
         "pendingDTC, confirmedDTC, testFailedSinceLastClear]\n*",
         "", "\"dtc\":\"P0301-00\""},
        {"dtc read all", 0,
         "engine (0x7E0)\n*transmission (0x7E1)\n*body (0x7E2)\n*gateway (0x20)\n*", "",
         "\"ecu\":\"gateway\""},
        // A DoIP ECU is named by the address asked.
        {"dtc read 0x1001", 0, "telematics (0x1001)\n*", "",
         "\"ecu\":\"telematics\",\n*\"target_address\":4097"},
        {"dtc read transmission --report 0x14", 4,
         "*negative response: NRC 0x12 subFunctionNotSupported\n*", "", "\"negative\":true"},
        {"dtc read engine --report 0x07", 2, "",
         "uozctl: --report 0x07 is not supported (supported: 0x01-0x06, 0x09-0x16)\n", ""},
        {"dtc read nosuchecu", 2, "",
         "uozctl: unknown ECU 'nosuchecu': give a configured name, its target address or 'all' "
         "(see 'uozctl ecus')\n",
         ""},
        {"version body", 0, "body (0x7E2): BCM-1.9.0\n", "", "BCM-1.9.0"},
        {"version 0x7E0", 0, "engine (0x7E0): software version: ENG-2.4.1, hardware version: B3\n",
         "", "\"version\":\"software version: ENG-2.4.1, hardware version: B3\""},
        // A J1939 description cannot be read over DoIP: a failure, never a made-up text.
        {"version transmission", 4, "",
         "uozctl: transmission (0x7E1): cannot read the version: " + kAgentFailure + "\n",
         "\"error\":\"transmission (0x7E1): cannot read the version: " + kAgentFailure + "\""},
        {"version adas", 2, "",
         "uozctl: adas (0x7E5) is a CANFD ECU, which the library cannot address: nothing was "
         "sent\n",
         ""},
        {"run " + kExamples + "/remote-command.json", 0,
         "remote command: engine: done, response 62F190575A4C3030303030303030303030303031\n", "",
         "\"result\":\"done\""},
        {"run " + refused, 4,
         "remote command: body: negative response: NRC 0x31 requestOutOfRange\n", "",
         "\"negative\":true"},
        {"run " + unknown, 2, "",
         "uozctl: " + unknown +
             ": commands[0].command: the configuration has no pre-defined routine 'ReadVIM' (it "
             "has: ResetECU, ReadVIN)\n",
         ""},
        {"consent install C-9", 0, "install consent for campaign C-9: accepted\n", "", ""},
    };
    for (const Expected &expected : cases)
        check(expected);
    ToolRun clear = uozctl("dtc clear engine --group P0301");
    EXPECT_EQ(clear.code, 0);
    EXPECT_EQ(clear.out, "clear DTCs: engine: done, response 54\n");
    ToolRun after = uozctl("--json dtc read engine");
    EXPECT_EQ(after.code, 0);
    EXPECT_EQ(after.out.find("P0301"), std::string::npos) << after.out;
    EXPECT_NE(after.out.find("P0171"), std::string::npos) << after.out;
    EXPECT_NE(agent_->output().find("query to 0x07E1 failed: a J1939 version read needs a J1939 "
                                    "transport, which this agent does not have"),
              std::string::npos)
        << agent_->output();
}

// The commands not in the table above (ecus and check-config: see
// uozctl_cli_test): their --json output too is one document without colour
// and with snake_case keys.
TEST_F(UozctlTest, jsonOutputAlwaysParses) {
    const Expected cases[] = {
        {"dtc read engine --report 0x06 --dtc P0301 --record 1", 0, "*", "", ""},
        {"dtc clear engine", 0, "*", "", ""},
        {"run /nonexistent.json", 2, "", "*", ""},
        {"consent download C-1", 0, "*", "", ""},
        {"--debug 2 dtc read body", 0, "*", "*", ""},
        {"dtc read", 2, "", "*", ""},
    };
    for (const Expected &expected : cases)
        check(expected);
    // The library's log lines go to standard error, without colour.
    ToolRun debug = uozctl("--debug 2 version engine");
    EXPECT_EQ(debug.code, 0);
    EXPECT_EQ(debug.out, "engine (0x7E0): software version: ENG-2.4.1, hardware version: B3\n");
    EXPECT_NE(debug.err.find(" INFO "), std::string::npos) << debug.err;
    EXPECT_EQ(debug.err.find("\x1b["), std::string::npos) << debug.err;
}

// With the simulator gone the agent answers at once with a failure: exit 4
// with the agent's reason where uozctl has it, never a missing reply (exit 3),
// an empty DTC list or "done".
TEST_F(UozctlTest, unreachableEcusAreAFailureAtOnce) {
    ecus_.reset();
    const std::string failed = "  failed: " + kAgentFailure + "\n";
    const std::string refused = "cannot connect to gateway 127.0.0.1:*Connection refused";
    const Expected cases[] = {
        {"dtc read engine", 4, "",
         "uozctl: engine (0x7E0): the read failed: " + kAgentFailure + "\n", ""},
        {"dtc read all", 4,
         "engine (0x7E0)\n" + failed + "transmission (0x7E1)\n" + failed + "body (0x7E2)\n" +
             failed + "gateway (0x20)\n" + failed,
         "uozctl: the read failed on 4 of 4 ECUs: engine (0x7E0), transmission (0x7E1), body "
         "(0x7E2), gateway (0x20)\n",
         ""},
        {"dtc read engine --report 0x06 --dtc P0301 --record 1", 4, "*", "*", ""},
        {"version engine", 4, "",
         "uozctl: engine (0x7E0): cannot read the version: " + kAgentFailure + "\n", ""},
        {"version telematics", 4, "*", "*", ""},
        {"dtc clear engine", 4, "clear DTCs: engine: failed: ClearDTC: " + refused + "\n", "*",
         "\"result\":\"failed\""},
        {"dtc clear all", 4, "*", "*", ""},
        {"run " + kExamples + "/remote-command.json", 4,
         "remote command: engine: failed: ReadDataByIdentifier: " + refused + "*", "*", ""},
    };
    for (const Expected &expected : cases) {
        ToolRun text = check(expected);
        EXPECT_EQ(text.out.find("done"), std::string::npos) << expected.arguments << text.out;
        EXPECT_EQ(text.out.find("no DTCs"), std::string::npos) << expected.arguments << text.out;
        EXPECT_EQ(text.out.find("empty response"), std::string::npos) << text.out;
        EXPECT_LT(text.seconds, 5.0) << "the agent must not leave the library to its 10 s";
    }
    EXPECT_NE(agent_->output().find("Connection refused"), std::string::npos);
    // The library passes on no reason, but logs the reply that carries it.
    ToolRun debug = uozctl("--debug 2 dtc read engine");
    EXPECT_EQ(debug.code, 4);
    EXPECT_NE(debug.err.find("\"error\":\"engine (0x7E0): cannot connect to gateway 127.0.0.1:"),
              std::string::npos)
        << debug.err;
    JsonDocument clear = parse_json(uozctl("--json dtc clear engine").out);
    ASSERT_TRUE(clear);
    EXPECT_EQ(text_at(clear.get(), "responses.#"), "1");
    EXPECT_EQ(text_at(clear.get(), "responses.0.ecu"), "engine");
    EXPECT_TRUE(matches(text_at(clear.get(), "responses.0.error"), "*Connection refused*"));
}

// One ECU the agent cannot ask among several: its line says so, the others
// are shown as usual, and the exit code says that not all went well.
TEST_F(UozctlTest, aReadOfAllEcusShowsWhichFailed) {
    std::string config = file(R"({"configs": [
        {"type": "CAN", "targetAddress": "0x7E0", "name": "engine",
         "can": {"ifname": "can0", "func-addr": "0x7DF", "phy-req-id": "0x7E0",
                 "phy-resp-id": "0x7E8", "st-min": "0x00", "bsize": "0x08"}},
        {"type": "CAN", "targetAddress": "0x7E3", "name": "spare",
         "can": {"ifname": "can0", "func-addr": "0x7DF", "phy-req-id": "0x7E3",
                 "phy-resp-id": "0x7EB", "st-min": "0x00", "bsize": "0x08"}}]})");
    ToolRun all = uozctl("dtc read all", config);
    EXPECT_EQ(all.code, 4) << all.out << all.err;
    EXPECT_TRUE(matches(all.out,
                        "engine (0x7E0)\n  report 0x02: DTCs by status mask\n  P0301-00*"
                        "spare (0x7E3)\n  failed: " +
                            kAgentFailure + "\n*"))
        << all.out;
    EXPECT_EQ(all.err, "uozctl: the read failed on 1 of 2 ECUs: spare (0x7E3)\n");

    JsonDocument document = parse_json(uozctl("--json dtc read all", config).out);
    ASSERT_TRUE(document);
    EXPECT_EQ(text_at(document.get(), "exit_code"), "4");
    EXPECT_EQ(text_at(document.get(), "ecus.#"), "2");
    EXPECT_EQ(text_at(document.get(), "ecus.0.ecu"), "engine");
    EXPECT_EQ(text_at(document.get(), "ecus.0.error"), "(none)");
    EXPECT_EQ(text_at(document.get(), "ecus.1.ecu"), "spare");
    EXPECT_EQ(text_at(document.get(), "ecus.1.error"), kAgentFailure);
    EXPECT_EQ(text_at(document.get(), "ecus.1.decoded"), "(none)");
}

TEST_F(UozctlTest, noAgentMeansNoReplyWithAHint) {
    agent_.reset();
    ToolRun consent = uozctl("--timeout 2 consent download C-1");
    EXPECT_EQ(consent.code, 3);
    EXPECT_EQ(consent.err,
              "uozctl: no reply from the policy agent within 2 s: the broker is up; is uoz-agent "
              "running and connected to it?\n");
    EXPECT_LT(consent.seconds, 5.0) << "--timeout must shorten the wait";
}

}  // namespace
}  // namespace uoztest
