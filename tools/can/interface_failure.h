// What a failed call on a CAN socket means for the user, for every kernel
// CAN socket of this room (ISO-TP, J1939): the interface is down or gone,
// or the call failed with the system's reason.
#ifndef UOZ_TOOLS_CAN_INTERFACE_FAILURE_H
#define UOZ_TOOLS_CAN_INTERFACE_FAILURE_H

#include <string>

namespace uozcan {

// "CAN interface vcan0 is down"; "ISO-TP send on vcan0 failed: <strerror>".
std::string interface_failure(const std::string &what, const std::string &ifname, int error);

}  // namespace uozcan

#endif
