// uozctl through the real broker and uoz-agent to ECUs that are not ours, on
// the links beside classic ISO-TP: CAN FD (isotp_ecu.py --fd on vcanfd0),
// extended addressing (isotp_ecu.py on vcan1) and J1939 version reads
// (j1939_ecu.py, the kernel's J1939 sockets, on vcan1). candump -L holds the
// frames.
#include <gtest/gtest.h>
#include <linux/can.h>

#include <memory>
#include <thread>

#include "can_agent_test.h"

namespace uoztest {
namespace {

const std::string kEcus = UOZ_CAN_DIR "/fd-j1939-ecus.json";
constexpr uint32_t kFdRequestId = 0x7E4;
constexpr uint32_t kFdResponseId = 0x7EC;
// The agent's J1939 request (priority 6, PGN 0xEA00) to source address 0x00
// from its own 0xF9.
constexpr uint32_t kJ1939RequestId = 0x18EA00F9 | CAN_EFF_FLAG;

// A report 0x02 answer of 20 DTCs (83 bytes): more than one CAN FD frame.
std::string twenty_dtcs() {
    static const char digits[] = "0123456789ABCDEF";
    std::string hex = "5902FF";
    for (int i = 0; i < 20; ++i)
        hex += std::string("0301") + digits[i >> 4] + digits[i & 0x0F] + "2F";
    return hex;
}

// A J1939 ECU of its own process, ready when constructed.
class J1939Ecu {
  public:
    J1939Ecu(const std::string &address, const std::string &answers_json)
        : process_(
              {"/usr/bin/python3", UOZ_CAN_DIR "/j1939_ecu.py", "vcan1", address, answers_json}) {
        if (!process_.wait_for_output("ready\n", 60000))
            throw std::runtime_error("j1939_ecu.py did not start: " + process_.output());
    }

  private:
    ChildProcess process_;
};

class AgentFdJ1939Test : public CanAgentTest {
  protected:
    AgentFdJ1939Test() : CanAgentTest(kEcus) {}
    void SetUp() override {
        use_interfaces({"vcan1", "vcanfd0"});
        if (!IsSkipped())
            start_agent("fd-j1939-settings.json");
    }
    // The frames logged since the mark, once there are as many as expected.
    static std::vector<CanFrame> frames_since(const CanBusLog &bus, size_t mark, size_t frames) {
        std::vector<CanFrame> logged;
        for (int waited = 0; waited <= 2000 && logged.size() < frames; waited += 10) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            logged = bus.frames_since(mark);
        }
        return logged;
    }
};

// The CAN FD ECU has no transport block in the library's configuration: the
// agent's settings give it, and a query for all ECUs reaches it. Every frame
// of the agent is a CAN FD frame with bit-rate switch, filled with 0xCC.
TEST_F(AgentFdJ1939Test, aCanFdEcuOfTheSettingsAnswersAQueryForAllEcus) {
    CanBusLog bus("vcanfd0");
    IsotpEcu adas("vcanfd0", kFdRequestId, kFdResponseId,
                  R"({"1902FF": [{"data": ")" + twenty_dtcs() + R"("}]})", 0, 0, {"--fd"});
    size_t mark = bus.mark();
    ToolRun read = uozctl("dtc read all");
    EXPECT_NE(read.out.find("P0301-00  (0x030100)  status 0x2F"), std::string::npos) << read.out;
    EXPECT_NE(read.out.find("P0301-13  (0x030113)  status 0x2F"), std::string::npos) << read.out;
    IsotpExchange exchange = read_isotp(frames_since(bus, mark, 4), {kFdRequestId, kFdResponseId});
    EXPECT_EQ(exchange.messages, (std::vector<std::string>{"7E4 1902FF", "7EC " + twenty_dtcs()}));
    std::vector<IsotpFrame> sent = exchange.sent_by(kFdRequestId);
    ASSERT_EQ(sent.size(), 2u);  // the request and one flow control
    EXPECT_EQ(sent[1].text(), "7E4 300000");
    for (const IsotpFrame &frame : sent) {
        EXPECT_TRUE(frame.frame.fd && (frame.frame.fd_flags & CANFD_BRS) != 0)
            << frame.text() << "\n"
            << bus.text();
        EXPECT_EQ(frame.padding(), std::vector<uint8_t>(8 - frame.content, 0xCC)) << frame.text();
    }
    std::vector<IsotpFrame> answer = exchange.sent_by(kFdResponseId);
    ASSERT_FALSE(answer.empty());
    EXPECT_EQ(answer[0].frame.data.size(), 64u);
}

// Version reads over J1939: a request for the PGN to the ECU's source
// address, the answer by RTS/CTS or BAM, a refusal, no answer; and a UDS
// read with extended addressing on the same bus.
TEST_F(AgentFdJ1939Test, j1939VersionsAndExtendedAddressing) {
    CanBusLog bus("vcan1");
    J1939Ecu truck("0x00", R"({"FEDA": {"data": "02454E472D312E322E332A424F4F542D302E392A"}})");
    J1939Ecu cab("0x17",
                 R"({"FEEB": {"data": "41434D452A58312A3132333435362A55372A", "global": true}})");
    J1939Ecu trailer("0x21", "{}");
    IsotpEcu gearbox("vcan1", 0x6F1, 0x618, R"({"22F191": [{"data": "62F1914233"}]})", 0, 0,
                     {"--extended-addressing", "0x18", "0xF1"});
    const struct {
        std::string arguments;
        int code;
        std::string out;  // "*" in it matches any text
        std::string err;
    } cases[] = {
        {"version truck", 0, "truck (0x7E0): ENG-1.2.3, BOOT-0.9\n", ""},
        {"version cab", 0,
         "cab (0x7E3): make: ACME, model: X1, serial number: 123456, unit number: U7\n", ""},
        {"version trailer", 4, "",
         "*the ECU does not give PGN 0xFEDA (negative acknowledgement)\n"},
        {"version lamp", 4, "", "*no answer to the request for PGN 0xFEDA within 1000 ms\n"},
        {"version gearbox", 0, "gearbox (0x7E7): B3\n", ""},
    };
    for (const auto &row : cases) {
        ToolRun run = uozctl(row.arguments);
        EXPECT_EQ(run.code, row.code) << row.arguments << "\n" << run.out << run.err;
        EXPECT_EQ(run.out, row.out) << row.arguments;
        EXPECT_TRUE(matches(run.err, row.err)) << row.arguments << "\n" << run.err;
    }
    EXPECT_NE(agent_->output().find("trace truck (0x7E0): J1939 request 0xFEDA -> 0xFEDA "
                                    "02454E472D312E322E332A424F4F542D302E392A\n"),
              std::string::npos);
    std::vector<CanFrame> frames = frames_since(bus, 0, 1);
    std::vector<std::vector<uint8_t>> truck_requests, gearbox_requests;
    for (const CanFrame &frame : frames) {
        if (frame.id == kJ1939RequestId)
            truck_requests.push_back(frame.data);
        if (frame.id == 0x6F1)
            gearbox_requests.push_back(frame.data);
    }
    EXPECT_EQ(truck_requests, (std::vector<std::vector<uint8_t>>{{0xDA, 0xFE, 0x00}}));
    // The target address byte before the ISO-TP single frame, then padding.
    EXPECT_EQ(
        gearbox_requests,
        (std::vector<std::vector<uint8_t>>{{0x18, 0x03, 0x22, 0xF1, 0x91, 0xCC, 0xCC, 0xCC}}));
}

}  // namespace
}  // namespace uoztest
