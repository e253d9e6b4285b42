#include "isotp_link.h"

#include <errno.h>
#include <linux/can.h>
#include <linux/can/isotp.h>
#include <net/if.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

namespace uozagent {

namespace {

constexpr size_t kLargestUdsMessage = 4095;

// CAN ids above 0x7FF are extended (29-bit) frames.
canid_t can_id(uint32_t id) {
    return id > CAN_SFF_MASK ? (id | CAN_EFF_FLAG) : id;
}

}  // namespace

std::unique_ptr<IsotpLink> IsotpLink::open(const CanAddress &address, std::string *error) {
    const std::string missing = "no CAN interface " + address.ifname + " on this machine";
    uozdoip::ScopedFd fd(socket(PF_CAN, SOCK_DGRAM | SOCK_CLOEXEC, CAN_ISOTP));
    if (!fd.valid()) {
        *error = missing + (errno == EAFNOSUPPORT || errno == EPROTONOSUPPORT
                                ? " (the kernel has no CAN ISO-TP support)"
                                : std::string(" (") + strerror(errno) + ")");
        return nullptr;
    }
    unsigned index = if_nametoindex(address.ifname.c_str());
    if (index == 0) {
        *error = missing;
        return nullptr;
    }
    can_isotp_fc_options flow_control{};
    flow_control.bs = address.block_size;
    flow_control.stmin = address.st_min;
    setsockopt(fd.get(), SOL_CAN_ISOTP, CAN_ISOTP_RECV_FC, &flow_control, sizeof(flow_control));
    sockaddr_can bound{};
    bound.can_family = AF_CAN;
    bound.can_ifindex = static_cast<int>(index);
    bound.can_addr.tp.tx_id = can_id(address.request_id);
    bound.can_addr.tp.rx_id = can_id(address.response_id);
    if (bind(fd.get(), reinterpret_cast<sockaddr *>(&bound), sizeof(bound)) != 0) {
        *error = "cannot open ISO-TP on " + address.ifname + ": " + strerror(errno);
        return nullptr;
    }
    return std::unique_ptr<IsotpLink>(new IsotpLink(std::move(fd), address.ifname));
}

bool IsotpLink::send(const Bytes &request, Clock::time_point, std::string *error) {
    // The kernel sends the whole message (with flow control) or fails.
    if (::write(fd_.get(), request.data(), request.size()) !=
        static_cast<ssize_t>(request.size())) {
        *error = "ISO-TP send on " + ifname_ + " failed: " + strerror(errno);
        return false;
    }
    return true;
}

bool IsotpLink::receive(Clock::time_point until, Bytes *response, std::string *error,
                        bool *timed_out) {
    auto left = std::chrono::duration_cast<Millis>(until - Clock::now()).count();
    pollfd waiting = {fd_.get(), POLLIN, 0};
    int ready = poll(&waiting, 1, static_cast<int>(std::max<long long>(0, left)));
    if (ready == 0) {
        *timed_out = true;
        return false;
    }
    uint8_t buffer[kLargestUdsMessage];
    ssize_t got = ready > 0 ? ::read(fd_.get(), buffer, sizeof(buffer)) : -1;
    if (got <= 0) {
        *error = "ISO-TP receive on " + ifname_ + " failed: " + strerror(errno);
        return false;
    }
    response->assign(buffer, buffer + got);
    return true;
}

}  // namespace uozagent
