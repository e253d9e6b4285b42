// One classic CAN frame written as it is (CAN_RAW), outside ISO-TP: for a
// simulated ECU that misbehaves on purpose (an answer that stops after its
// first frame).
#ifndef UOZ_TOOLS_CAN_RAW_FRAME_H
#define UOZ_TOOLS_CAN_RAW_FRAME_H

#include <stdint.h>

#include <string>
#include <vector>

namespace uozcan {

// Sends up to 8 data bytes on id (above 0x7FF, or extended: a 29-bit id);
// false with *error when the interface is missing or the write fails.
bool send_raw_frame(const std::string &ifname, uint32_t id, bool extended,
                    const std::vector<uint8_t> &data, std::string *error);

}  // namespace uozcan

#endif
