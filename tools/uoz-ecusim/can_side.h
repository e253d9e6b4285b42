// The simulator on a CAN bus: the vehicle's CAN ECUs (those whose vehicle
// file entry has a "phy-resp-id") on one interface, each on its own ids over
// the kernel's ISO-TP sockets (tools/can). Requests come on the ECU's request
// id and on the functional id ("func-addr", a single frame to every ECU);
// answers go on its response id. The UDS side is the DoIP entity's own
// servers, so an ECU keeps one state (session, security, cleared DTCs)
// whichever way it is asked; the timing switches of the entity (--slow,
// --pending, a routine's 0x78 chain) hold on CAN too.
//
// Each ECU has a thread for its physical requests and one for functional
// ones; its answers go out one at a time, whichever way the request came.
// The vehicle's J1939 ECUs (a "j1939" member) answer on the same interface
// (j1939_ecu.h).
#ifndef UOZ_TOOLS_ECUSIM_CAN_SIDE_H
#define UOZ_TOOLS_ECUSIM_CAN_SIDE_H

#include <stdint.h>

#include <atomic>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "doip_entity.h"
#include "j1939_ecu.h"

namespace uozecusim {

struct CanServing {
    std::optional<uint8_t> padding = 0xCC;  // fills every frame sent to 8 bytes; none: unpadded
    uint8_t block_size = 0;                 // the flow control the ECUs answer with
    uint8_t st_min = 0;
    // Misbehaviour, by ECU (logical address, as --slow names them).
    std::set<uint16_t> no_flow_control;  // segmented requests are never acknowledged
    std::set<uint16_t> stop_mid_answer;  // segmented answers stop after the first frame
};

class CanEcu;

// Everything the simulator serves on one CAN interface.
class CanSide {
  public:
    CanSide(std::string ifname, DoipEntity &entity, CanServing serving);
    ~CanSide();
    CanSide(const CanSide &) = delete;
    CanSide &operator=(const CanSide &) = delete;

    // Opens every ECU's sockets and starts serving; throws std::runtime_error
    // saying why not (no such interface, no ISO-TP in the kernel, no CAN ECU).
    // J1939 ECUs that cannot be served (no J1939 in the kernel) are named
    // in listening_text() instead.
    void start();
    // Safe from a signal handler; the threads end within a fraction of a second.
    void stop() { stopping_ = true; }
    std::string listening_text() const;

  private:
    void start_j1939();

    std::string ifname_;
    DoipEntity &entity_;
    CanServing serving_;
    std::atomic<bool> stopping_{false};
    std::vector<std::unique_ptr<CanEcu>> ecus_;
    std::vector<std::thread> threads_;
    std::unique_ptr<J1939Ecus> j1939_;  // none when the vehicle has no J1939 ECU
    std::string j1939_text_;            // what listening_text() says of them
};

}  // namespace uozecusim

#endif
