// The kernel's J1939 sockets (CAN_J1939, module can-j1939), for the programs
// that read parameter groups of ECUs on a J1939 network: the agent's J1939
// version reads, and the simulator's J1939 ECU that answers them.
//
// A J1939Socket is bound to an interface and a static source address (no
// address claim): the kernel builds the 29-bit ids, and runs the transport
// protocols (TP and ETP, BAM or RTS/CTS) for messages over 8 bytes, so a
// send or receive here is one whole parameter group. Broadcast messages are
// sent and received (SO_BROADCAST): a global request, an answer sent to
// everyone, an acknowledgement to the global address.
//
//   std::string error;
//   auto socket = uozcan::J1939Socket::open("vcan0", 0xF9, &error);
//   socket->accept_only(0x00, {uozcan::kPgnSoftwareIdentification}, &error);
//   socket->send(uozcan::kPgnRequest, 0x00, uozcan::pgn_request(0xFEDA), &error);
#ifndef UOZ_TOOLS_CAN_J1939_SOCKET_H
#define UOZ_TOOLS_CAN_J1939_SOCKET_H

#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

#include "isotp_socket.h"
#include "scoped_fd.h"

namespace uozcan {

constexpr uint32_t kPgnRequest = 0xEA00;
constexpr uint32_t kPgnAcknowledgement = 0xE800;
constexpr uint32_t kPgnSoftwareIdentification = 0xFEDA;
constexpr uint32_t kPgnComponentIdentification = 0xFEEB;
constexpr uint8_t kGlobalAddress = 0xFF;

struct J1939Message {
    uint32_t pgn = 0;  // a PDU1 group without its destination byte
    uint8_t source = 0;
    uint8_t destination = kGlobalAddress;
    Bytes data;
};

// The three data bytes of a request (PGN 0xEA00) for `pgn`, least
// significant first.
Bytes pgn_request(uint32_t pgn);
// The group a request asks for; false for data that is no request.
bool requested_pgn(const Bytes &request, uint32_t *pgn);
// A negative acknowledgement (PGN 0xE800, control byte 1) of a request for
// `pgn` from `requester`.
Bytes pgn_refusal(uint32_t pgn, uint8_t requester);

class J1939Socket {
  public:
    enum class Receive { kMessage, kTimedOut, kFailed };

    // Bound to the interface with `address` as its source address; nullptr
    // with *error when the machine has no such interface or no J1939.
    static std::unique_ptr<J1939Socket> open(const std::string &ifname, uint8_t address,
                                             std::string *error);

    // From now on only these groups from `source`, and acknowledgements from
    // it, reach this socket.
    bool accept_only(uint8_t source, const std::vector<uint32_t> &pgns, std::string *error);
    // One parameter group to `destination` (kGlobalAddress: to all), however long.
    bool send(uint32_t pgn, uint8_t destination, const Bytes &data, std::string *error);
    // The next whole message, waiting until `until`.
    Receive receive(Clock::time_point until, J1939Message *message, std::string *error);

  private:
    J1939Socket(uoztools::ScopedFd fd, std::string ifname)
        : fd_(std::move(fd)), ifname_(std::move(ifname)) {}

    uoztools::ScopedFd fd_;
    std::string ifname_;
};

}  // namespace uozcan

#endif
