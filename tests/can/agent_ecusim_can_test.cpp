// uozctl through the real broker and uoz-agent to `uoz-ecusim --can` on
// vcan0 and vcan1: the built-in vehicle's CAN ECUs, with their flow control
// (block size 2, st-min 5 ms) and misbehaviour switches. candump -L holds
// the frames of vcan0, checked as ISO-TP.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <memory>
#include <thread>

#include "can_agent_test.h"

namespace uoztest {
namespace {

const std::string kEcus = UOZ_CAN_DIR "/ecusim-ecus.json";
// engine, transmission, body and ghost (no ECU has its ids) on vcan0.
const std::vector<uint32_t> kIds = {0x7DF, 0x7E0, 0x7E8, 0x7E1, 0x7E9, 0x7E2, 0x7EA, 0x7E3, 0x7EB};
// `version engine`: F189 in three frames (the agent's flow control as
// configured, bsize 8), F191 in one.
const std::vector<std::string> kVersionFrames = {"7E0 0322F189", "7E8 100C62F189454E47",
                                                 "7E0 300800",   "7E8 212D322E342E31",
                                                 "7E0 0322F191", "7E8 0562F1914233"};

class AgentEcusimCanTest : public CanAgentTest {
  protected:
    AgentEcusimCanTest() : CanAgentTest(kEcus) {}
    void SetUp() override {
        use_interfaces({"vcan0", "vcan1"});
        if (!IsSkipped())
            bus_ = std::make_unique<CanBusLog>("vcan0");
    }
    void TearDown() override {
        CanAgentTest::TearDown();
        if (HasFailure() && agent_ != nullptr)
            std::cout << "candump -L vcan0:\n"
                      << bus_->text() << "uoz-ecusim:\n"
                      << (simulator_ ? simulator_->output() : "");
    }
    // The simulator on both buses with these switches besides the fixed ones.
    void start_simulator(std::vector<std::string> switches) {
        simulator_.reset();
        std::vector<std::string> argv = {
            UOZ_ECUSIM_PATH,    "--listen", "127.0.0.1:0",  "--announce-to", "none",
            "--trace",          "--can",    "vcan0",        "--can",         "vcan1",
            "--can-block-size", "0x02",     "--can-st-min", "0x05"};
        argv.insert(argv.end(), switches.begin(), switches.end());
        simulator_ = std::make_unique<ChildProcess>(argv);
        ASSERT_TRUE(simulator_->wait_for_output("serving CAN ISO-TP on vcan1", 60000))
            << simulator_->output();
    }
    IsotpExchange exchange_since(size_t mark, size_t frames) {
        return wait_for_exchange(*bus_, mark, frames, kIds);
    }
    // Every frame on vcan0 from the mark is 8 bytes filled with 0xCC, or
    // (unpadded) as long as its ISO-TP content.
    void expect_frame_form(size_t mark, bool padded) {
        for (const IsotpFrame &frame : exchange_since(mark, 0).frames) {
            EXPECT_EQ(frame.frame.data.size(), padded ? 8 : frame.content) << frame.text();
            for (uint8_t byte : frame.padding())
                EXPECT_EQ(byte, 0xCC) << frame.text();
        }
    }

    std::unique_ptr<CanBusLog> bus_;
    std::unique_ptr<ChildProcess> simulator_;
};

// Each operation of the library, its output and the frames on the bus
// (ISO-TP content without padding; none listed: not checked one by one).
TEST_F(AgentEcusimCanTest, operationsCrossTheBusWithTheEcusFlowControl) {
    start_simulator({});
    start_agent("ecusim-settings.json", "3");
    const struct {
        std::string arguments;
        std::string out;
        std::vector<std::string> frames;
    } cases[] = {
        {"dtc read engine",
         "engine (0x7E0)\n  report 0x02: DTCs by status mask\n*",
         {"7E0 031902FF", "7E8 100F5902FF030100", "7E0 300800", "7E8 212F0171002B0113",
          "7E8 220050"}},
        {"version engine", "engine (0x7E0): software version: ENG-2.4.1, hardware version: B3\n",
         kVersionFrames},
        // The simulator's J1939 ECU at 0x03 on the same bus (no ISO-TP frames).
        {"version transmission", "transmission (0x7E1): TCU-8HP-5.0.3, BOOT-1.2\n", {}},
        // A 21-byte request: the ECU's flow control asks for 2 frames, 5 ms apart.
        {"run " UOZ_CAN_DIR "/read-many.json",
         "remote command: engine: done, response 62F189*\n",
         {"7E0 101522F189F191F1", "7E8 300205", "7E0 2190F40CF405F189", "7E0 22F191F190F40CF4",
          "7E8 300205", "7E0 2305"}},
        // Response pending while the routine runs, then its result.
        {"run " UOZ_CAN_DIR "/self-test.json",
         "remote command: engine: done, response 7101FF0101\n",
         {"7E0 043101FF01", "7E8 037F3178", "7E8 057101FF0101"}},
        {"dtc clear engine", "*", {"7E0 0414FFFFFF", "7E8 0154"}},
    };
    for (const auto &row : cases) {
        size_t mark = bus_->mark();
        ToolRun run = uozctl(row.arguments);
        EXPECT_EQ(run.code, 0) << row.arguments << "\n" << run.out << run.err;
        EXPECT_TRUE(matches(run.out, row.out)) << row.arguments << "\n" << run.out;
        std::vector<std::string> frames = exchange_since(mark, row.frames.size()).frame_texts();
        frames.resize(std::min(frames.size(), row.frames.size()));  // a long answer's tail aside
        EXPECT_EQ(frames, row.frames) << row.arguments;
        expect_frame_form(mark, true);
    }
}

TEST_F(AgentEcusimCanTest, framesAreUnpaddedWhenPaddingIsOff) {
    start_simulator({"--can-padding", "none"});
    start_agent("ecusim-unpadded.json", "3");
    size_t mark = bus_->mark();
    ToolRun run = uozctl("version engine");
    EXPECT_EQ(run.code, 0) << run.out << run.err;
    EXPECT_EQ(exchange_since(mark, kVersionFrames.size()).frame_texts(), kVersionFrames);
    expect_frame_form(mark, false);
}

// A read for all ECUs: one single frame on each bus's functional id, each
// ECU's answer on its own id; the ECU that nobody simulates has its own error.
TEST_F(AgentEcusimCanTest, aReadForAllIsOneFunctionalRequestPerBus) {
    start_simulator({});
    start_agent("ecusim-settings.json", "3");
    size_t mark = bus_->mark();
    ToolRun run = uozctl("dtc read all");
    EXPECT_EQ(run.code, 4) << run.out << run.err;  // ghost's read failed
    EXPECT_TRUE(matches(run.out,
                        "*engine (0x7E0)*transmission (0x7E1)*body (0x7E2)*"
                        "ghost (0x7E3)*no answer from the ECU within 300 ms*"
                        "gateway (0x20)*"))
        << run.out;
    IsotpExchange exchange = exchange_since(mark, 1 + 3 + 1 + 3);
    std::vector<std::string> requests;
    for (uint32_t id : {0x7DF, 0x7E0, 0x7E1, 0x7E2, 0x7E3}) {
        for (const IsotpFrame &frame : exchange.sent_by(id)) {
            if (frame.frame.data[0] >> 4 != 3)  // flow control aside
                requests.push_back(frame.text());
        }
    }
    EXPECT_EQ(requests, std::vector<std::string>{"7DF 031902FF"});
    EXPECT_EQ(exchange.messages.size(), 4u) << ::testing::PrintToString(exchange.messages);
    for (const char *answer : {"7E8 5902FF", "7E9 5902FF", "7EA 5902FF"}) {
        bool found = false;
        for (const std::string &message : exchange.messages)
            found = found || message.rfind(answer, 0) == 0;
        EXPECT_TRUE(found) << answer;
    }
    expect_frame_form(mark, true);
}

// Misbehaving ECUs: each read fails with the reason the agent gives.
TEST_F(AgentEcusimCanTest, misbehavingEcusFailWithTheirReason) {
    start_agent("ecusim-settings.json", "3");
    const struct {
        std::vector<std::string> switches;
        std::string arguments;
        std::string reason;
    } cases[] = {
        {{"--stop-mid-answer", "0x7E0"},
         "version engine",
         "the ECU stopped sending in the middle of its answer"},
        {{"--no-flow-control", "0x7E0"},
         "run " UOZ_CAN_DIR "/read-many.json",
         "the ECU sent no flow control within 1000 ms"},
    };
    for (const auto &row : cases) {
        start_simulator(row.switches);
        size_t log_mark = agent_->output().size();
        ToolRun run = uozctl(row.arguments);
        EXPECT_EQ(run.code, 4) << row.arguments << "\n" << run.out << run.err;
        EXPECT_NE(agent_->output().find(row.reason, log_mark), std::string::npos)
            << row.arguments << "\n"
            << agent_->output().substr(log_mark);
    }
    // The ECU without flow control still takes single-frame requests.
    ToolRun version = uozctl("version engine");
    EXPECT_EQ(version.code, 0) << version.out << version.err;
}

// An answer that comes after its request failed is dropped, never taken as
// the answer to the next request, which lists only DTCs of its own mask.
TEST_F(AgentEcusimCanTest, aLateAnswerIsNeverTheNextRequests) {
    start_simulator({"--slow", "0x7E0:800"});
    start_agent("ecusim-settings.json", "3");
    ToolRun first = uozctl("dtc read engine");
    EXPECT_EQ(first.code, 4) << first.out << first.err;
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));  // the late answer is in
    ToolRun second = uozctl("dtc read engine --mask 0x08");
    EXPECT_EQ(second.out.find("0x011300"), std::string::npos) << second.out;
    EXPECT_NE(agent_->output().find("dropped 1 late answer(s) before a new request"),
              std::string::npos)
        << agent_->output();
}

// A version read waits while a routine holds the ECU with response pending:
// each gets its own answer, and each answer frame one flow control.
TEST_F(AgentEcusimCanTest, twoQueriesToOneEcuAtOnceGetTheirOwnAnswers) {
    start_simulator({});
    start_agent("ecusim-settings.json", "3");
    size_t mark = bus_->mark();
    ToolRun routine;
    std::thread first([&] { routine = uozctl("run " UOZ_CAN_DIR "/self-test.json"); });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ToolRun version = uozctl("version engine");
    first.join();
    EXPECT_EQ(routine.out, "remote command: engine: done, response 7101FF0101\n") << routine.err;
    EXPECT_EQ(version.out, "engine (0x7E0): software version: ENG-2.4.1, hardware version: B3\n")
        << version.err;
    int flow_controls = 0;
    for (const IsotpFrame &frame : exchange_since(mark, 3 + 5).sent_by(0x7E0))
        flow_controls += frame.frame.data[0] >> 4 == 3 ? 1 : 0;
    EXPECT_EQ(flow_controls, 1);
}

// An interface that is down: the read says so, and the other bus still works.
TEST_F(AgentEcusimCanTest, anInterfaceThatIsDownIsNamed) {
    start_simulator({});
    start_agent("ecusim-settings.json", "3");
    ASSERT_EQ(system("ip link set vcan1 down"), 0);
    ToolRun down = uozctl("version gateway");
    ToolRun engine = uozctl("version engine");
    ASSERT_EQ(system("ip link set vcan1 up"), 0);
    EXPECT_EQ(down.code, 4) << down.out << down.err;
    EXPECT_TRUE(matches(down.out + down.err, "*CAN interface vcan1 is down*"))
        << down.out << down.err;
    EXPECT_EQ(engine.code, 0) << engine.out << engine.err;
}

}  // namespace
}  // namespace uoztest
