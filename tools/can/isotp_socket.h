// The kernel's CAN sockets (tools/can), for every program that talks to ECUs
// on a CAN bus: today the diagnostic agent's ISO-TP links; the ECU
// simulator's CAN side is meant to use the same class.
//
// An IsotpSocket is one kernel ISO-TP socket (CAN_ISOTP) bound to an
// interface and an id pair: the kernel segments, reassembles and runs flow
// control; a send or receive here is one whole UDS message. The options hold
// everything the kernel lets a socket set: the flow control this end
// answers with (block size, st-min), option flags with padding bytes
// (CAN_ISOTP_OPTS) and the link layer for CAN FD (CAN_ISOTP_LL_OPTS). Left at
// their defaults, only the flow control is set and every other choice is the
// kernel's.
//
// Still missing here, for the work that builds on this room: the choice of
// padding per ECU (ISO 15765-2 allows either; many ECUs want 8-byte frames),
// CAN FD ECUs (the link-layer options exist, no caller sets them yet),
// functional addressing (a single frame on "func-addr" answered on each
// ECU's own id), J1939 sockets (CAN_J1939), and messages longer than 4095
// bytes.
//
//   uozcan::IsotpOptions options;
//   options.ifname = "vcan0";
//   options.tx_id = 0x7E0;
//   options.rx_id = 0x7E8;
//   std::string error;
//   std::unique_ptr<uozcan::IsotpSocket> ecu = uozcan::IsotpSocket::open(options, &error);
#ifndef UOZ_TOOLS_CAN_ISOTP_SOCKET_H
#define UOZ_TOOLS_CAN_ISOTP_SOCKET_H

#include <stdint.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "scoped_fd.h"

namespace uozcan {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<uint8_t>;

// The largest message a receive takes (a classic ISO-TP message).
constexpr size_t kLargestMessage = 4095;

// CAN_ISOTP_LL_OPTS: the frames the socket sends and accepts.
struct LinkLayer {
    uint8_t mtu = 16;      // 16: CAN 2.0 frames, 72: CAN FD frames
    uint8_t tx_dl = 8;     // bytes per frame sent: 8, 12, 16, 20, 24, 32, 48 or 64
    uint8_t tx_flags = 0;  // CAN FD frame flags (CANFD_BRS: faster data phase)
};

struct IsotpOptions {
    std::string ifname;  // "can0", "vcan0"
    uint32_t tx_id = 0;  // the request id; above 0x7FF a 29-bit id
    uint32_t rx_id = 0;  // the response id; above 0x7FF a 29-bit id
    // The flow control this end sends while it receives a segmented message.
    uint8_t block_size = 0;
    uint8_t st_min = 0;
    // CAN_ISOTP_OPTS, set only when flags is not 0: CAN_ISOTP_TX_PADDING,
    // CAN_ISOTP_RX_PADDING, ... and the padding bytes they use.
    uint32_t flags = 0;
    uint8_t tx_padding = 0;
    uint8_t rx_padding = 0;
    std::optional<LinkLayer> link_layer;  // set only when given
};

class IsotpSocket {
  public:
    enum class Receive { kMessage, kTimedOut, kFailed };

    // The socket bound to the options' interface and ids; nullptr with
    // *error when the machine has no such interface or no ISO-TP ("no CAN
    // interface can0 on this machine"), or an option is refused.
    static std::unique_ptr<IsotpSocket> open(const IsotpOptions &options, std::string *error);

    // Sends one message; the kernel sends all of it, with flow control, or
    // fails. Waits until the deadline at most for the socket to take it.
    bool send(const Bytes &message, Clock::time_point deadline, std::string *error);
    // The next whole message received before `until`.
    Receive receive(Clock::time_point until, Bytes *message, std::string *error);

    const std::string &ifname() const { return ifname_; }

  private:
    IsotpSocket(uoztools::ScopedFd fd, std::string ifname)
        : fd_(std::move(fd)), ifname_(std::move(ifname)) {}

    uoztools::ScopedFd fd_;
    std::string ifname_;
};

}  // namespace uozcan

#endif
