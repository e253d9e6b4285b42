// uozctl end to end: the real broker, uoz-agent asking the ECU simulator
// over DoIP, every command in text and --json, and the exit codes. The
// expected outputs are golden files in golden/.
#include <gtest/gtest.h>

#include <unistd.h>

#include <memory>

#include "broker_fixture.h"
#include "file_text.h"
#include "processes.h"
#include "tool_runner.h"

namespace uoztest {
namespace {

const std::string kExamples = UOZ_EXAMPLES;
const std::string kGolden = UOZ_GOLDEN;

class UozctlTest : public ::testing::Test {
  protected:
    ToolRun uozctl(const std::string &arguments,
                   const std::string &config = kExamples + "/ecus.json") {
        return run(program(config) + " " + arguments);
    }
    std::string program(const std::string &config = kExamples + "/ecus.json") {
        return std::string(UOZCTL_PATH) + " --broker localhost:" + std::to_string(broker_.port()) +
               " --certs " + identity_dir("app") + " --config " + config;
    }
    // Every case of the golden file, in text and in --json; each text run.
    std::vector<ToolRun> expect_cases(const std::string &name) {
        return expect_golden(program(), kGolden + "/" + name,
                             {{"EXAMPLES", kExamples},
                              {"PKI", pki_dir()},
                              {"SIMPORT", std::to_string(simulator_port_)},
                              {"INPUTS", kGolden + "/inputs"}});
    }

    Broker broker_;
    std::unique_ptr<EcuSimulator> ecus_ = std::make_unique<EcuSimulator>(UOZ_ECUSIM_PATH);
    int simulator_port_ = ecus_->port();
    std::unique_ptr<AgentProcess> agent_ = std::make_unique<AgentProcess>(
        UOZ_AGENT_PATH, broker_.port(),
        std::vector<std::string>{"--gateway", ecus_->address(), "--doip-port",
                                 std::to_string(ecus_->port()), "--ecu-config",
                                 kExamples + "/ecus.json"});
};

TEST_F(UozctlTest, everyCommandWithItsTextJsonAndExitCode) {
    expect_cases("uozctl_commands.txt");
    // A J1939 description cannot be read over DoIP: a failure, never a made-up text.
    EXPECT_NE(agent_->output().find("query to 0x07E1 failed: a J1939 version read goes over CAN, "
                                    "and this ECU is reached over DoIP"),
              std::string::npos)
        << agent_->output();
    ToolRun clear = uozctl("dtc clear engine --group P0301");
    EXPECT_EQ(clear.code, 0);
    EXPECT_EQ(clear.out, "clear DTCs: engine: done, response 54\n");
    ToolRun after = uozctl("--json dtc read engine");
    EXPECT_EQ(after.code, 0);
    EXPECT_EQ(after.out.find("P0301"), std::string::npos) << after.out;
    EXPECT_NE(after.out.find("P0171"), std::string::npos) << after.out;
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
    for (const ToolRun &run : expect_cases("uozctl_unreachable.txt"))
        EXPECT_LT(run.seconds, 5.0) << "the agent must not leave the library to its 10 s";
    // The library passes on no reason, but logs the reply that carries it.
    ToolRun debug = uozctl("--debug 2 dtc read engine");
    EXPECT_EQ(debug.code, 4);
    EXPECT_NE(debug.err.find("\"error\":\"engine (0x7E0): cannot connect to gateway 127.0.0.1:"),
              std::string::npos)
        << debug.err;
}

// One ECU the agent cannot ask among several: its line says so, the others
// are shown as usual, and the exit code says that not all went well.
TEST_F(UozctlTest, aReadOfAllEcusShowsWhichFailed) {
    expect_golden(program(kGolden + "/inputs/partial.json"),
                  kGolden + "/uozctl_partial_failure.txt", {});
}

// Two runs with one certificate started together draw the same reply
// identifier (it is seeded with the second): each must still print only its
// own answer, as it does when run alone.
TEST_F(UozctlTest, twoRunsOfOneIdentityEachPrintTheirOwnAnswer) {
    const std::string reads[] = {"dtc read engine --mask 0x08", "dtc read engine --mask 0x40"};
    std::string alone[2], output[2];
    for (int i = 0; i < 2; ++i) {
        ToolRun solo = uozctl(reads[i]);
        ASSERT_EQ(solo.code, 0) << solo.err;
        alone[i] = solo.out + "exit 0\n";
        output[i] = "/tmp/uozctl-pair-" + std::to_string(getpid()) + "-" + std::to_string(i);
    }
    ASSERT_NE(alone[0], alone[1]);
    std::string pair;
    for (int i = 0; i < 2; ++i) {
        pair += "{ " + program() + " " + reads[i] + " >" + output[i] +
                " 2>/dev/null; echo exit $? >>" + output[i] + "; } & ";
    }
    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(run(pair + "wait").code, 0);
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(file_text(output[i]), alone[i]) << "round " << round << ": " << reads[i];
    }
    for (const std::string &path : output)
        unlink(path.c_str());
}

// Without an agent on the bus, uozctl says so at once, naming the agent it
// expected, instead of waiting for a reply that cannot come.
TEST_F(UozctlTest, noAgentOnTheBusIsToldAtOnce) {
    agent_.reset();
    std::string broker = "localhost:" + std::to_string(broker_.port());
    const std::pair<const char *, std::string> cases[] = {
        {"dtc read engine", "no diagnostic agent (kt5:ua:/ZDATA/UDS)"},
        {"consent download C-1", "no policy agent (kt5:group:policy-agent)"},
    };
    for (const auto &[arguments, agent] : cases) {
        ToolRun ctl = uozctl(arguments);
        EXPECT_EQ(ctl.code, 3) << arguments;
        EXPECT_EQ(ctl.err, "uozctl: " + agent + " is connected to " + broker +
                               ": is uoz-agent running and connected to it?\n");
        EXPECT_LT(ctl.seconds, 3.0) << arguments << ": the 10 s reply timeout must not run";
    }
}

}  // namespace
}  // namespace uoztest
