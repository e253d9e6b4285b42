// The simulator's J1939 ECUs (tools/uoz-ecusim/j1939_ecu.h) on vcan1, asked
// by a tester that is not ours: j1939_request.py on the kernel's J1939 sockets.
#include <gtest/gtest.h>
#include <linux/can.h>

#include <thread>

#include "can_support.h"
#include "j1939_ecu.h"
#include "tool_runner.h"

namespace uoztest {
namespace {

const char kVehicle[] = R"({"ecus": [
  {"name": "truck", "targetAddress": "0x7E0", "phy-req-id": "0x7E0",
   "j1939": {"source-address": "0x03", "software-identification": ["TCM-5.0.1", "BOOT-1.2"],
             "component-identification": ["ACME", "T-500", "SN0042", "U1"]}},
  {"name": "cab", "targetAddress": "0x7E3", "phy-req-id": "0x7E3",
   "j1939": {"source-address": "0x17", "component-identification": ["ACME", "C-1"]}}]})";

TEST(EcusimJ1939Test, identificationIsAnsweredAndOtherGroupsRefused) {
    std::string missing = can_missing("vcan1");
    if (!missing.empty())
        GTEST_SKIP() << "no CAN here: " << missing;
    std::string error;
    auto ecus = uozecusim::J1939Ecus::start(uozecusim::parse_vehicle(kVehicle), "vcan1", &error);
    ASSERT_NE(ecus, nullptr) << error;
    CanBusLog bus("vcan1");
    const std::string tester = "/usr/bin/python3 " UOZ_CAN_DIR "/j1939_request.py vcan1 F9 ";
    // Sent to the ECU: answers to the tester (RTS/CTS), a refusal for a group it lacks.
    ToolRun asked = run(tester + "03 FEDA FEEB FEEC");
    EXPECT_EQ(asked.out,
              "FEDA answer 0254434D2D352E302E312A424F4F542D312E322A\n"
              "FEEB answer 41434D452A542D3530302A534E303034322A55312A\n"
              "FEEC refused 01\n")
        << asked.err;
    // A global request: the one ECU with software identification answers
    // to all, the other says nothing.
    ToolRun global = run(tester + "FF FEDA");
    EXPECT_EQ(global.out, "FEDA answer 0254434D2D352E302E312A424F4F542D312E322A\n") << global.err;
    size_t requests = 0, refusals = 0;
    for (int waited = 0; waited <= 2000 && requests == 0; waited += 10) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));  // candump writes
        requests = refusals = 0;
        for (const CanFrame &frame : bus.frames_since(0)) {
            requests += frame.id == (0x18EA03F9u | CAN_EFF_FLAG) &&
                        frame.data == std::vector<uint8_t>{0xDA, 0xFE, 0x00};
            refusals += (frame.id & CAN_EFF_MASK) == 0x18E8FF17;
        }
    }
    EXPECT_EQ(requests, 1u);
    EXPECT_EQ(refusals, 0u);  // cab, asked globally, refuses nothing
}

}  // namespace
}  // namespace uoztest
