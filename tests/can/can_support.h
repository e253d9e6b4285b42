// What the CAN tests need beside the broker: the frames on a bus as
// `candump -L` logs them, read back as ISO-TP, and an independent ISO-TP ECU
// (isotp_ecu.py, the kernel's ISO-TP socket through Python).
#ifndef UOZ_TESTS_CAN_CAN_SUPPORT_H
#define UOZ_TESTS_CAN_CAN_SUPPORT_H

#include <stdint.h>

#include <string>
#include <vector>

#include "processes.h"

namespace uoztest {

// Why the CAN tests cannot run here ("" when they can): no ISO-TP sockets,
// or no such interface.
std::string can_missing(const std::string &ifname);

// One frame of a `candump -L` log: "(1700000000.123456) vcan0 7E0#031902FF";
// CAN FD frames ("7E0##1...") too.
struct CanFrame {
    uint32_t id = 0;  // a 29-bit id with CAN_EFF_FLAG
    bool fd = false;
    uint8_t fd_flags = 0;  // CANFD_BRS, CANFD_ESI
    std::vector<uint8_t> data;
};

// The frames of the log, in order; other lines are skipped.
std::vector<CanFrame> parse_candump(const std::string &log);

// A frame read as ISO-TP with normal addressing: its content (the protocol
// byte(s) and payload) and the padding after it.
struct IsotpFrame {
    CanFrame frame;
    size_t content = 0;  // bytes of frame.data that are ISO-TP content
    // "7E0 031902FF": the id and the content, without padding.
    std::string text() const;
    std::vector<uint8_t> padding() const;
};

// The frames of a bus read as ISO-TP, and the whole messages each id sent.
struct IsotpExchange {
    std::vector<IsotpFrame> frames;
    std::vector<std::string> messages;  // "7E8 5902FF...", reassembled, in order
    std::vector<std::string> frame_texts() const;
    // The frames one id sent.
    std::vector<IsotpFrame> sent_by(uint32_t id) const;
};

// Frames of other ids than those given are left out.
IsotpExchange read_isotp(const std::vector<CanFrame> &frames, const std::vector<uint32_t> &ids);

// candump -L on an interface while the object lives; it is ready (it has
// seen a frame of its own) when the constructor returns.
class CanBusLog {
  public:
    explicit CanBusLog(const std::string &ifname);
    // Where the log stands now; frames_since() gives what came after.
    size_t mark() const { return process_.output().size(); }
    std::vector<CanFrame> frames_since(size_t mark) const;
    std::string text() const { return process_.output(); }

  private:
    ChildProcess process_;
};

// The exchange of the given ids logged since the mark, once it has as many
// frames as expected or two seconds have passed (candump may write the last
// frame after the program that caused it has ended).
IsotpExchange wait_for_exchange(const CanBusLog &bus, size_t mark, size_t frames,
                                const std::vector<uint32_t> &ids);

// isotp_ecu.py answering requests on request_id from a table (see the
// script), ready when the constructor returns; `options` are its own
// ("--fd", "--extended-addressing 0x18 0xF1").
class IsotpEcu {
  public:
    IsotpEcu(const std::string &ifname, uint32_t request_id, uint32_t response_id,
             const std::string &answers_json, uint8_t block_size = 0, uint8_t st_min = 0,
             const std::vector<std::string> &options = {});
    // "request HEX" and "answer HEX" lines.
    std::string output() const { return process_.output(); }

  private:
    ChildProcess process_;
};

}  // namespace uoztest

#endif
