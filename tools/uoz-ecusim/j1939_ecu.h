// The simulator's J1939 ECUs: every ECU of the vehicle file with a "j1939"
// member answers requests (PGN 0xEA00) on one CAN interface, over the
// kernel's J1939 sockets (tools/can): its software identification (PGN
// 0xFEDA: the field count, then each field ended by '*') and its component
// identification (0xFEEB: make, model, serial number, unit number, each
// ended by '*'). A request for another group, or for one the ECU has no
// fields for, is refused with a negative acknowledgement when it was sent
// to the ECU; a global request for it gets no answer.
#ifndef UOZ_TOOLS_ECUSIM_J1939_ECU_H
#define UOZ_TOOLS_ECUSIM_J1939_ECU_H

#include <stdint.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "vehicle.h"

namespace uozecusim {

// The data of the answer to a request for `pgn`; none when the ECU refuses it.
std::optional<Bytes> j1939_answer(const J1939Identity &ecu, uint32_t pgn);

class J1939Ecus {
  public:
    // Serves the vehicle's J1939 ECUs on ifname until destroyed; nullptr
    // with *error when the interface has no J1939 (or the vehicle no J1939
    // ECU).
    static std::unique_ptr<J1939Ecus> start(const VehicleFile &vehicle, const std::string &ifname,
                                            std::string *error);
    ~J1939Ecus();
    J1939Ecus(const J1939Ecus &) = delete;
    J1939Ecus &operator=(const J1939Ecus &) = delete;

  private:
    J1939Ecus() = default;

    std::atomic<bool> stopping_{false};
    std::vector<std::thread> ecus_;
};

}  // namespace uozecusim

#endif
