// What an ISO-TP flow control may ask of a sender: the block size is any
// byte (0: no further flow control), the separation time (st-min) 0x00-0x7F
// milliseconds or 0xF1-0xF9 hundreds of microseconds; the other values are
// reserved, and a sender would read them as 127 ms. The agent, uozctl
// check-config and the simulator refuse them alike.
#ifndef UOZ_TOOLS_CAN_FLOW_CONTROL_H
#define UOZ_TOOLS_CAN_FLOW_CONTROL_H

#include <stdint.h>
#include <stdio.h>

#include <string>

namespace uozcan {

constexpr uint32_t kLargestBlockSize = 0xFF;

// "" for a valid st-min, else why not: "(0x80) is reserved: use ...".
inline std::string st_min_problem(uint32_t st_min) {
    if (st_min <= 0x7F || (st_min >= 0xF1 && st_min <= 0xF9))
        return "";
    char text[16];
    snprintf(text, sizeof(text), "0x%02X", st_min);
    return std::string("(") + text + ") is " + (st_min > 0xFF ? "not a byte" : "reserved") +
           ": use 0x00-0x7F (ms) or 0xF1-0xF9 (100-900 us)";
}

}  // namespace uozcan

#endif
