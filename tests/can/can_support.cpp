#include "can_support.h"

#include <errno.h>
#include <linux/can.h>
#include <linux/can/isotp.h>
#include <net/if.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "hex_bytes.h"

namespace uoztest {

namespace {

// A frame nothing else sends, that tells the log is running.
constexpr uint32_t kMarkerId = 0x7FF;
const char kMarkerLine[] = " 7FF#CA4D";

std::string hex_text(std::vector<uint8_t>::const_iterator from,
                     std::vector<uint8_t>::const_iterator to) {
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    for (auto at = from; at != to; ++at) {
        text += digits[*at >> 4];
        text += digits[*at & 0x0F];
    }
    return text;
}

// "7E0", or "000007E0" for a 29-bit id, as candump writes them.
std::string id_text(uint32_t id) {
    char text[16];
    bool extended = (id & CAN_EFF_FLAG) != 0 || id > CAN_SFF_MASK;
    snprintf(text, sizeof(text), extended ? "%08X" : "%03X", id & CAN_EFF_MASK);
    return text;
}

// The id for isotp_ecu.py: a 29-bit id with CAN_EFF_FLAG, as the kernel takes it.
std::string hex_id(uint32_t id) {
    char text[16];
    snprintf(text, sizeof(text), "0x%X", id);
    return text;
}

bool send_marker(const std::string &ifname) {
    int fd = socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW);
    sockaddr_can address{};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(if_nametoindex(ifname.c_str()));
    can_frame marker{};
    marker.can_id = kMarkerId;
    marker.can_dlc = 2;
    marker.data[0] = 0xCA;
    marker.data[1] = 0x4D;
    bool sent = fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0 &&
                write(fd, &marker, sizeof(marker)) == sizeof(marker);
    if (fd >= 0)
        close(fd);
    return sent;
}

// Bytes of a frame that are ISO-TP content, given what the message of its id
// still lacks (updated here).
size_t isotp_content(const CanFrame &frame, size_t *missing, std::vector<uint8_t> *message,
                     bool *complete) {
    const std::vector<uint8_t> &data = frame.data;
    *complete = false;
    if (data.empty())
        return 0;
    size_t size = data.size();
    switch (data[0] >> 4) {
        case 0: {  // single frame; a first byte of 0 escapes to a length byte (CAN FD)
            size_t header = (data[0] & 0x0F) == 0 && size > 8 ? 2 : 1;
            size_t length = header == 2 ? data[1] : (data[0] & 0x0F);
            size_t content = std::min(size, header + length);
            message->assign(data.begin() + static_cast<long>(header),
                            data.begin() + static_cast<long>(content));
            *complete = true;
            return content;
        }
        case 1: {  // first frame; a length of 0 escapes to 32 bits
            size_t total = (static_cast<size_t>(data[0] & 0x0F) << 8) | (size > 1 ? data[1] : 0);
            size_t header = 2;
            if (total == 0 && size >= 6) {
                total = static_cast<size_t>(data[2]) << 24 | data[3] << 16 | data[4] << 8 | data[5];
                header = 6;
            }
            header = std::min(header, size);
            message->assign(data.begin() + static_cast<long>(header), data.end());
            *missing = total > message->size() ? total - message->size() : 0;
            return size;
        }
        case 2: {  // consecutive frame
            size_t taken = std::min(size - 1, *missing);
            message->insert(message->end(), data.begin() + 1,
                            data.begin() + 1 + static_cast<long>(taken));
            *missing -= taken;
            *complete = *missing == 0 && taken > 0;
            return 1 + taken;
        }
        case 3:  // flow control: status, block size, st-min
            return std::min<size_t>(size, 3);
        default:
            return size;
    }
}

}  // namespace

std::string can_missing(const std::string &ifname) {
    int fd = socket(PF_CAN, SOCK_DGRAM | SOCK_CLOEXEC, CAN_ISOTP);
    if (fd < 0)
        return std::string("this kernel has no CAN ISO-TP sockets (") + strerror(errno) + ")";
    close(fd);
    if (if_nametoindex(ifname.c_str()) == 0)
        return "this machine has no " + ifname;
    return "";
}

std::vector<CanFrame> parse_candump(const std::string &log) {
    std::vector<CanFrame> frames;
    std::istringstream lines(log);
    std::string stamp, ifname, frame_text;
    while (lines >> stamp >> ifname >> frame_text) {
        size_t hash = frame_text.find('#');
        if (stamp.front() != '(' || hash == std::string::npos || hash == 0)
            continue;
        CanFrame frame;
        frame.id = static_cast<uint32_t>(std::stoul(frame_text.substr(0, hash), nullptr, 16));
        if (hash == 8)  // a 29-bit id
            frame.id |= CAN_EFF_FLAG;
        std::string data = frame_text.substr(hash + 1);
        if (!data.empty() && data.front() == '#') {  // CAN FD: "##", a flags digit, the data
            frame.fd = true;
            frame.fd_flags = data.size() > 1
                                 ? static_cast<uint8_t>(std::stoul(data.substr(1, 1), nullptr, 16))
                                 : 0;
            data = data.size() > 2 ? data.substr(2) : "";
        }
        if (!data.empty() && data.front() == 'R')  // a remote request carries no data
            data.clear();
        frame.data = hex_bytes(data);
        frames.push_back(frame);
    }
    return frames;
}

std::string IsotpFrame::text() const {
    return id_text(frame.id) + " " +
           hex_text(frame.data.begin(), frame.data.begin() + static_cast<long>(content));
}

std::vector<uint8_t> IsotpFrame::padding() const {
    return std::vector<uint8_t>(frame.data.begin() + static_cast<long>(content), frame.data.end());
}

std::vector<std::string> IsotpExchange::frame_texts() const {
    std::vector<std::string> texts;
    for (const IsotpFrame &frame : frames)
        texts.push_back(frame.text());
    return texts;
}

std::vector<IsotpFrame> IsotpExchange::sent_by(uint32_t id) const {
    std::vector<IsotpFrame> sent;
    std::copy_if(frames.begin(), frames.end(), std::back_inserter(sent),
                 [id](const IsotpFrame &frame) { return frame.frame.id == id; });
    return sent;
}

IsotpExchange read_isotp(const std::vector<CanFrame> &frames, const std::vector<uint32_t> &ids) {
    struct Under {
        size_t missing = 0;
        std::vector<uint8_t> message;
    };
    std::map<uint32_t, Under> under_way;
    IsotpExchange exchange;
    for (const CanFrame &frame : frames) {
        if (std::find(ids.begin(), ids.end(), frame.id) == ids.end())
            continue;
        Under &under = under_way[frame.id];
        bool complete = false;
        size_t content = isotp_content(frame, &under.missing, &under.message, &complete);
        exchange.frames.push_back({frame, content});
        if (complete)
            exchange.messages.push_back(id_text(frame.id) + " " +
                                        hex_text(under.message.begin(), under.message.end()));
    }
    return exchange;
}

CanBusLog::CanBusLog(const std::string &ifname) : process_({"/usr/bin/candump", "-L", ifname}) {
    for (int tries = 0; tries < 600; ++tries) {  // a minute at most
        if (!send_marker(ifname) || !process_.running())
            break;
        if (process_.wait_for_output(kMarkerLine, 100))
            return;
    }
    throw std::runtime_error("candump does not log " + ifname + ": " + process_.output());
}

std::vector<CanFrame> CanBusLog::frames_since(size_t mark) const {
    std::string log = text();
    size_t end = log.rfind('\n');  // a line still being written is left for later
    return parse_candump(end != std::string::npos && mark <= end ? log.substr(mark, end - mark)
                                                                 : "");
}

IsotpExchange wait_for_exchange(const CanBusLog &bus, size_t mark, size_t frames,
                                const std::vector<uint32_t> &ids) {
    IsotpExchange exchange;
    for (int waited = 0; waited <= 2000; waited += 10) {
        exchange = read_isotp(bus.frames_since(mark), ids);
        if (exchange.frames.size() >= frames)
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return exchange;
}

// The script's command line: the table and flow control, then its options.
std::vector<std::string> isotp_ecu_command(const std::string &ifname, uint32_t request_id,
                                           uint32_t response_id, const std::string &answers_json,
                                           uint8_t block_size, uint8_t st_min,
                                           const std::vector<std::string> &options) {
    std::vector<std::string> command = {
        "/usr/bin/python3",         UOZ_CAN_DIR "/isotp_ecu.py", ifname,
        hex_id(request_id),         hex_id(response_id),         answers_json,
        std::to_string(block_size), std::to_string(st_min)};
    command.insert(command.end(), options.begin(), options.end());
    return command;
}

IsotpEcu::IsotpEcu(const std::string &ifname, uint32_t request_id, uint32_t response_id,
                   const std::string &answers_json, uint8_t block_size, uint8_t st_min,
                   const std::vector<std::string> &options)
    : process_(isotp_ecu_command(ifname, request_id, response_id, answers_json, block_size, st_min,
                                 options)) {
    if (!process_.wait_for_output("ready\n", 60000))
        throw std::runtime_error("isotp_ecu.py did not start: " + process_.output());
}

}  // namespace uoztest
