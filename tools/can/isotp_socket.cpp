#include "isotp_socket.h"

#include <errno.h>
#include <linux/can.h>
#include <linux/can/isotp.h>
#include <net/if.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>

namespace uozcan {

namespace {

// CAN ids above 0x7FF are extended (29-bit) frames.
canid_t can_id(uint32_t id) {
    return id > CAN_SFF_MASK ? (id | CAN_EFF_FLAG) : id;
}

// Waits for `events` until the deadline: 1 ready, 0 timed out, -1 failed.
int wait_until(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd waiting = {fd, events, 0};
        int ready = poll(&waiting, 1, static_cast<int>(std::max<long long>(0, left.count())));
        if (ready >= 0 || errno != EINTR)
            return ready > 0 ? 1 : ready;
    }
}

template <typename Option>
bool set_option(int fd, int name, const Option &value) {
    return setsockopt(fd, SOL_CAN_ISOTP, name, &value, sizeof(value)) == 0;
}

bool apply_options(int fd, const IsotpOptions &options) {
    can_isotp_fc_options flow_control{};
    flow_control.bs = options.block_size;
    flow_control.stmin = options.st_min;
    if (!set_option(fd, CAN_ISOTP_RECV_FC, flow_control))
        return false;
    if (options.flags != 0) {
        can_isotp_options socket_options{};
        socket_options.flags = options.flags;
        socket_options.txpad_content = options.tx_padding;
        socket_options.rxpad_content = options.rx_padding;
        if (!set_option(fd, CAN_ISOTP_OPTS, socket_options))
            return false;
    }
    if (options.link_layer) {
        can_isotp_ll_options link_layer{};
        link_layer.mtu = options.link_layer->mtu;
        link_layer.tx_dl = options.link_layer->tx_dl;
        link_layer.tx_flags = options.link_layer->tx_flags;
        if (!set_option(fd, CAN_ISOTP_LL_OPTS, link_layer))
            return false;
    }
    return true;
}

}  // namespace

std::unique_ptr<IsotpSocket> IsotpSocket::open(const IsotpOptions &options, std::string *error) {
    const std::string missing = "no CAN interface " + options.ifname + " on this machine";
    uoztools::ScopedFd fd(socket(PF_CAN, SOCK_DGRAM | SOCK_CLOEXEC, CAN_ISOTP));
    if (!fd.valid()) {
        *error = missing + (errno == EAFNOSUPPORT || errno == EPROTONOSUPPORT
                                ? " (the kernel has no CAN ISO-TP support)"
                                : std::string(" (") + strerror(errno) + ")");
        return nullptr;
    }
    unsigned index = if_nametoindex(options.ifname.c_str());
    if (index == 0) {
        *error = missing;
        return nullptr;
    }
    if (!apply_options(fd.get(), options)) {
        *error = "cannot set the ISO-TP options on " + options.ifname + ": " + strerror(errno);
        return nullptr;
    }
    sockaddr_can bound{};
    bound.can_family = AF_CAN;
    bound.can_ifindex = static_cast<int>(index);
    bound.can_addr.tp.tx_id = can_id(options.tx_id);
    bound.can_addr.tp.rx_id = can_id(options.rx_id);
    if (bind(fd.get(), reinterpret_cast<sockaddr *>(&bound), sizeof(bound)) != 0) {
        *error = "cannot open ISO-TP on " + options.ifname + ": " + strerror(errno);
        return nullptr;
    }
    return std::unique_ptr<IsotpSocket>(new IsotpSocket(std::move(fd), options.ifname));
}

bool IsotpSocket::send(const Bytes &message, Clock::time_point deadline, std::string *error) {
    int ready = wait_until(fd_.get(), POLLOUT, deadline);
    if (ready <= 0) {
        *error = "ISO-TP send on " + ifname_ +
                 (ready == 0 ? " timed out" : std::string(" failed: ") + strerror(errno));
        return false;
    }
    if (::write(fd_.get(), message.data(), message.size()) !=
        static_cast<ssize_t>(message.size())) {
        *error = "ISO-TP send on " + ifname_ + " failed: " + strerror(errno);
        return false;
    }
    return true;
}

IsotpSocket::Receive IsotpSocket::receive(Clock::time_point until, Bytes *message,
                                          std::string *error) {
    int ready = wait_until(fd_.get(), POLLIN, until);
    if (ready == 0)
        return Receive::kTimedOut;
    uint8_t buffer[kLargestMessage];
    ssize_t got = ready > 0 ? ::read(fd_.get(), buffer, sizeof(buffer)) : -1;
    if (got <= 0) {
        *error = "ISO-TP receive on " + ifname_ + " failed: " + strerror(errno);
        return Receive::kFailed;
    }
    message->assign(buffer, buffer + got);
    return Receive::kMessage;
}

}  // namespace uozcan
