// The kernel's CAN sockets (tools/can), for every program that talks to ECUs
// on a CAN bus: the diagnostic agent's ISO-TP links and the ECU simulator's
// CAN side.
//
// An IsotpSocket is one kernel ISO-TP socket (CAN_ISOTP) bound to an
// interface and an id pair: the kernel segments, reassembles and runs flow
// control; a send or receive here is one whole UDS message. A send returns
// once the last frame is on the bus (CAN_ISOTP_WAIT_TX_DONE), so that an
// answer's deadline can run from the end of the request. The options hold
// the flow control this end answers with (block size, st-min), the padding
// of frames (on by default: every frame sent, flow control included, is 8
// bytes filled with 0xCC) and the link layer for CAN FD (CAN_ISOTP_LL_OPTS).
//
// Timers are the kernel's (Linux 6.1): a sender waits 1000 ms for each flow
// control (N_Bs), a receiver 1000 ms for each consecutive frame (N_Cr); their
// failures come back as texts that say which ("the ECU sent no flow control
// within 1000 ms"). A message is taken whole whatever its length (the kernel
// takes up to about 64 KiB with the 32-bit first-frame length); longer ones
// the kernel refuses with an overflow flow control.
//
// With extended addressing every frame starts with an address byte before
// its ISO-TP content: the ECU's target address in frames sent, the address
// the ECU answers to in frames received. J1939 sockets are in j1939_socket.h.
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

// The kernel's wait for each flow control (N_Bs) and consecutive frame (N_Cr).
constexpr int kKernelFrameTimeoutMs = 1000;
// The longest message a classic CAN single frame carries (normal addressing).
constexpr size_t kSingleFrameMax = 7;

// CAN_ISOTP_LL_OPTS: the frames the socket sends and accepts.
struct LinkLayer {
    uint8_t mtu = 16;      // 16: CAN 2.0 frames, 72: CAN FD frames
    uint8_t tx_dl = 8;     // bytes per frame sent: 8, 12, 16, 20, 24, 32, 48 or 64
    uint8_t tx_flags = 0;  // CAN FD frame flags (CANFD_BRS: faster data phase)
};

struct IsotpOptions {
    std::string ifname;         // "can0", "vcan0"
    uint32_t tx_id = 0;         // the request id; above 0x7FF a 29-bit id
    uint32_t rx_id = 0;         // the response id; above 0x7FF a 29-bit id
    bool extended_ids = false;  // both ids 29-bit, whatever their values
    // The flow control this end sends while it receives a segmented message.
    uint8_t block_size = 0;
    uint8_t st_min = 0;
    // The byte that fills every frame sent (flow control included) to 8
    // bytes; none: frames as short as their content.
    std::optional<uint8_t> padding = 0xCC;
    // Answers only in frames filled to 8 bytes; shorter frames are dropped.
    bool require_padding = false;
    std::optional<LinkLayer> link_layer;  // set only when given
    // Extended addressing (CAN_ISOTP_EXTEND_ADDR): the byte before the
    // content of each frame sent, and of each frame taken (the same when
    // unset); none: normal addressing.
    std::optional<uint8_t> target_address;
    std::optional<uint8_t> answer_address;
    // Receives only, never sends (no flow control either): an ECU that
    // leaves a segmented request unanswered, or a second reader of an id.
    bool listen_only = false;
    // Sends single frames to every ECU on tx_id (functional addressing) and
    // receives nothing: a longer message is refused, no flow control is
    // ever awaited, and answers reach the ECUs' own sockets only.
    bool functional = false;
    // How long an answer that has started (a frame of it came before the
    // receive's deadline) may go on beyond that deadline; the kernel ends it
    // sooner when the ECU stops sending.
    std::chrono::milliseconds longest_answer{8000};
};

class IsotpSocket {
  public:
    enum class Receive { kMessage, kTimedOut, kFailed };

    // The socket bound to the options' interface and ids; nullptr with
    // *error when the machine has no such interface or no ISO-TP ("no CAN
    // interface can0 on this machine"), or an option is refused.
    static std::unique_ptr<IsotpSocket> open(const IsotpOptions &options, std::string *error);

    // Sends one message; returns when the kernel has sent all of it, with
    // flow control, or failed. Waits until the deadline at most for the
    // socket to take it; the transfer itself is bounded by the kernel's timers.
    bool send(const Bytes &message, Clock::time_point deadline, std::string *error);
    // The next whole message that starts before `until`, whatever its length.
    Receive receive(Clock::time_point until, Bytes *message, std::string *error);
    // Drops what was received before now (messages, failed transfers): an
    // answer that came too late for its request. Returns how many.
    int discard_received();

    const std::string &ifname() const { return ifname_; }

  private:
    IsotpSocket(uoztools::ScopedFd fd, uoztools::ScopedFd frames, const IsotpOptions &options)
        : fd_(std::move(fd)),
          frames_(std::move(frames)),
          ifname_(options.ifname),
          longest_answer_(options.longest_answer),
          frame_type_at_(options.target_address ? 1 : 0) {}
    // Whether the ECU sent a frame of a segmented answer since the last look
    // (a single frame is whole at once, and the ISO-TP socket has it).
    bool answer_frames_came();

    uoztools::ScopedFd fd_;
    // The ECU's frames as they come (CAN_RAW): the kernel tells of an answer
    // only once it is whole, these tell when it starts.
    uoztools::ScopedFd frames_;
    std::string ifname_;
    std::chrono::milliseconds longest_answer_;
    size_t frame_type_at_;  // the ISO-TP protocol byte: after the address byte, if any
};

}  // namespace uozcan

#endif
