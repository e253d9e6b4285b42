// uozctl through the real broker and uoz-agent to an ECU on vcan0 that is
// not ours: isotp_ecu.py on the kernel's ISO-TP sockets. candump -L holds
// every frame on the bus, which is checked as ISO-TP, frame by frame.
#include <gtest/gtest.h>
#include <linux/can.h>

#include <fstream>
#include <memory>
#include <thread>

#include "can_agent_test.h"

namespace uoztest {
namespace {

const char kBus[] = "vcan0";
const std::string kEcus = UOZ_CAN_DIR "/ecus.json";
constexpr uint32_t kRequestId = 0x7E0;
constexpr uint32_t kResponseId = 0x7E8;
// An ECU of the configuration that nothing answers for.
constexpr uint32_t kSilentRequestId = 0x7E1;
// An ECU on 29-bit ids below 0x800 (agent-settings.json says so).
constexpr uint32_t kBodyRequestId = 0x7E2 | CAN_EFF_FLAG;
constexpr uint32_t kBodyResponseId = 0x7EA | CAN_EFF_FLAG;
// What the ECU's flow control asks of the agent: one frame at a time, 10 ms apart.
constexpr uint8_t kEcuBlockSize = 1;
constexpr uint8_t kEcuStMin = 10;

// F1A0's answer: 5000 bytes, past the 4095 of a classic first frame.
std::string long_answer() {
    static const char digits[] = "0123456789ABCDEF";
    std::string hex = "62F1A0";
    for (int i = 3; i < 5000; ++i)
        hex += std::string{digits[(i >> 4) & 0x0F], digits[i & 0x0F]};
    return hex;
}

// Requests (hex) and the ECU's answers. F189 is answered after a response
// pending that outlasts the agent's P2 (200 ms in agent-settings.json), F1A2
// with a first frame and nothing after it, F1A4 after P2, F1A6 after 2.5 s
// of response pending.
std::string answers() {
    return R"({
    "1902FF": [{"data": "5902FF0301002F01710008C1010009"}],
    "3E00": [{"data": "7E00"}],
    "22F189": [{"data": "7F2278"}, {"after-ms": 500, "data": "62F189454E472D322E342E312D43414E"}],
    "22F191": [{"data": "62F1914233"}],
    "22F1A0": [{"data": "7F2278"}, {"data": ")" +
           long_answer() + R"("}],
    "22F1A2": [{"frame": "100A62F1A2010203"}],
    "22F1A4": [{"after-ms": 300, "data": "62F1A4AA"}],
    "22F1A6": [{"data": "7F2278"}, {"after-ms": 2500, "data": "62F1A6000102030405060708090A0B0C"}],
    "2EF190575A4C3030303030303030303030303031": [{"data": "6EF190"}]
})";
}

// A remote command document running one routine of ecus.json on one ECU.
std::string routine_file(const std::string &routine, const std::string &ecu) {
    std::string path = "/tmp/uoz-can-" + routine + "-" + ecu + ".json";
    std::ofstream(path) << R"({"commands": [{"type": "predefined", "command": ")" << routine
                        << R"("}], "ecu": {"ServerAddress": ")" << ecu << R"("}})";
    return path;
}

// Every frame the agent sends is a classic CAN frame of 8 bytes, filled
// with 0xCC past its ISO-TP content.
void expect_agent_frame_form(const IsotpFrame &sent) {
    EXPECT_FALSE(sent.frame.fd) << sent.text();
    EXPECT_EQ(sent.frame.data.size(), 8u) << sent.text();
    for (uint8_t byte : sent.padding())
        EXPECT_EQ(byte, 0xCC) << sent.text();
}

class AgentIsotpTest : public CanAgentTest {
  protected:
    AgentIsotpTest() : CanAgentTest(kEcus) {}
    void SetUp() override {
        use_interfaces({kBus});
        if (IsSkipped())
            return;
        start_agent("agent-settings.json");
        bus_ = std::make_unique<CanBusLog>(kBus);
        ecu_ = std::make_unique<IsotpEcu>(kBus, kRequestId, kResponseId, answers(), kEcuBlockSize,
                                          kEcuStMin);
    }
    void TearDown() override {
        CanAgentTest::TearDown();
        if (bus_ != nullptr)
            std::cout << "candump -L " << kBus << ":\n" << bus_->text();
        if (HasFailure() && ecu_ != nullptr)
            std::cout << "isotp_ecu.py:\n" << ecu_->output();
    }
    // The exchange logged since the mark, once it has as many frames as
    // expected (candump may write the last one after uozctl has ended).
    IsotpExchange exchange_since(size_t mark, size_t frames) {
        return wait_for_exchange(
            *bus_, mark, frames,
            {kRequestId, kResponseId, kSilentRequestId, kBodyRequestId, kBodyResponseId});
    }

    std::unique_ptr<CanBusLog> bus_;
    std::unique_ptr<IsotpEcu> ecu_;
};

// Each read, its output, every frame it put on the bus (the ISO-TP content
// of each frame, without padding; none listed: not checked one by one) and
// what the agent logged of it.
TEST_F(AgentIsotpTest, readsAndCommandsCrossTheBusAsIsoTp) {
    IsotpEcu body(kBus, kBodyRequestId, kBodyResponseId, R"({"22F191": [{"data": "62F1914233"}]})");
    const struct {
        std::string arguments;
        int code;
        std::string out;
        std::vector<std::string> frames;
        std::string agent_log;
        int pause_ms;  // before the next row
    } cases[] = {
        // A three-DTC answer in three frames; the agent's flow control
        // carries the block size and st-min of its configuration.
        {"dtc read engine",
         0,
         "engine (0x7E0)\n  report 0x02: DTCs by status mask\n"
         "  P0301-00  (0x030100)  status 0x2F [*]\n"
         "  P0171-00  (0x017100)  status 0x08 [confirmedDTC]\n"
         "  U0101-00  (0xC10100)  status 0x09 [testFailed, confirmedDTC]\n",
         {"7E0 031902FF", "7E8 100F5902FF030100", "7E0 300800", "7E8 212F01710008C101",
          "7E8 220009"},
         "",
         0},
        // An answer after P2 fails its request and, though the link stays
        // open, is never taken as the answer to the next one (F189).
        {"run " + routine_file("ReadLate", "0x7E0"),
         4,
         "*",
         {"7E0 0322F1A4", "7E8 0462F1A4AA"},
         "no answer from the ECU within 200 ms",
         500},
        // After that timeout a TesterPresent first marks the late answer as
        // stale. Response pending, then a multi-frame answer; a single-frame one.
        {"version engine",
         0,
         "engine (0x7E0): software version: ENG-2.4.1-CAN, hardware version: B3\n",
         {"7E0 023E00", "7E8 027E00", "7E0 0322F189", "7E8 037F2278", "7E8 101062F189454E47",
          "7E0 300800", "7E8 212D322E342E312D", "7E8 2243414E", "7E0 0322F191", "7E8 0562F1914233"},
         "",
         0},
        // A 20-byte request: each consecutive frame waits for the ECU's flow control.
        {"run " UOZ_CAN_DIR "/write-vin.json",
         0,
         "remote command: engine: done, response 6EF190\n",
         {"7E0 10142EF190575A4C", "7E8 30010A", "7E0 2130303030303030", "7E8 30010A",
          "7E0 2230303030303031", "7E8 036EF190"},
         "",
         0},
        // The ECU stays silent: the request went out, and the read fails.
        {"dtc read engine --report 0x01 --mask 0x08",
         4,
         "*",
         {"7E0 03190108"},
         "no answer from the ECU within 200 ms",
         0},
        // An answer longer than a classic first frame can announce, whole.
        {"run " + routine_file("ReadLong", "0x7E0"),
         0,
         "remote command: engine: done, response " + long_answer() + "\n",
         {},
         "",
         0},
        // An answer broken off after its first frame.
        {"run " + routine_file("ReadBroken", "0x7E0"),
         4,
         "*",
         {"7E0 0322F1A2", "7E8 100A62F1A2010203", "7E0 300800"},
         "the ECU stopped sending in the middle of its answer (no frame within 1000 ms)",
         0},
        // 29-bit ids chosen in the settings, though the ids would fit in 11 bits.
        {"version body",
         0,
         "body (0x7E2): B3\n",
         {"000007E2 0322F191", "000007EA 0562F1914233"},
         "",
         0},
        // No ECU answers the first frame of a segmented request.
        {"run " + routine_file("WriteVIN", "0x7E1"),
         4,
         "*",
         {"7E1 10142EF190575A4C"},
         "the ECU sent no flow control within 1000 ms",
         0},
    };
    for (const auto &row : cases) {
        size_t mark = bus_->mark();
        size_t log_mark = agent_->output().size();
        ToolRun run = uozctl(row.arguments);
        EXPECT_EQ(run.code, row.code) << row.arguments << "\n" << run.out << run.err;
        EXPECT_TRUE(matches(run.out, row.out)) << row.arguments << "\n" << run.out;
        IsotpExchange exchange = exchange_since(mark, row.frames.size());
        if (!row.frames.empty()) {
            EXPECT_EQ(exchange.frame_texts(), row.frames) << row.arguments;
        }
        for (uint32_t id : {kRequestId, kSilentRequestId, kBodyRequestId}) {
            for (const IsotpFrame &sent : exchange.sent_by(id))
                expect_agent_frame_form(sent);
        }
        EXPECT_NE(agent_->output().find(row.agent_log, log_mark), std::string::npos)
            << row.arguments << "\n"
            << agent_->output().substr(log_mark);
        std::this_thread::sleep_for(std::chrono::milliseconds(row.pause_ms));
    }
}

// Two queries to one ECU at once share its one link in turn: each gets its
// own answer, and each frame of an answer is acknowledged by one flow control.
// Both runs hold one identity: each reply reaches only the run that asked.
TEST_F(AgentIsotpTest, twoQueriesToOneEcuAtOnceGetTheirOwnAnswers) {
    size_t mark = bus_->mark();
    ToolRun slow;
    std::thread first([&] { slow = uozctl("run " + routine_file("ReadSlow", "0x7E0")); });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // while F1A6 is pending
    ToolRun version = uozctl("version engine");
    first.join();
    EXPECT_EQ(slow.out, "remote command: engine: done, response 62F1A6000102030405060708090A0B0C\n")
        << slow.err;
    EXPECT_EQ(version.out,
              "engine (0x7E0): software version: ENG-2.4.1-CAN, hardware version: B3\n")
        << version.err;
    IsotpExchange exchange = exchange_since(mark, 6 + 8);
    bool ecu_spoke = false;
    for (const IsotpFrame &frame : exchange.frames) {
        bool flow_control = frame.frame.id == kRequestId && frame.frame.data[0] >> 4 == 3;
        EXPECT_TRUE(!flow_control || ecu_spoke) << "a second flow control in a row";
        ecu_spoke = frame.frame.id == kResponseId;
    }
}

}  // namespace
}  // namespace uoztest
