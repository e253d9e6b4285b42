#include "isotp_socket.h"

#include <errno.h>
#include <linux/can.h>
#include <linux/can/isotp.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "interface_failure.h"

namespace uozcan {

namespace {

// CAN ids above 0x7FF are extended (29-bit) frames, others where chosen.
canid_t can_id(uint32_t id, bool extended) {
    return extended || id > CAN_SFF_MASK ? (id | CAN_EFF_FLAG) : id;
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
    can_isotp_options socket_options{};
    socket_options.flags = CAN_ISOTP_WAIT_TX_DONE;
    socket_options.frame_txtime = CAN_ISOTP_DEFAULT_FRAME_TXTIME;
    socket_options.txpad_content = options.padding.value_or(CAN_ISOTP_DEFAULT_PAD_CONTENT);
    socket_options.rxpad_content = CAN_ISOTP_DEFAULT_PAD_CONTENT;
    if (options.padding)
        socket_options.flags |= CAN_ISOTP_TX_PADDING;
    if (options.require_padding)
        socket_options.flags |= CAN_ISOTP_RX_PADDING | CAN_ISOTP_CHK_PAD_LEN;
    if (options.target_address) {
        socket_options.flags |= CAN_ISOTP_EXTEND_ADDR;
        socket_options.ext_address = *options.target_address;
    }
    if (options.answer_address) {
        socket_options.flags |= CAN_ISOTP_RX_EXT_ADDR;
        socket_options.rx_ext_address = *options.answer_address;
    }
    if (options.listen_only)
        socket_options.flags |= CAN_ISOTP_LISTEN_MODE;
    if (options.functional)
        socket_options.flags |= CAN_ISOTP_SF_BROADCAST;
    if (!set_option(fd, CAN_ISOTP_OPTS, socket_options))
        return false;
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

// A CAN_RAW socket that receives only the frames of one id (CAN FD frames
// too when the link carries them).
uoztools::ScopedFd frames_of(int ifindex, uint32_t id, bool extended, bool fd_frames) {
    uoztools::ScopedFd fd(socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW));
    const int on = 1;
    if (fd.valid() && fd_frames &&
        setsockopt(fd.get(), SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &on, sizeof(on)) != 0)
        return uoztools::ScopedFd();
    can_filter only{};
    only.can_id = can_id(id, extended);
    only.can_mask = ((only.can_id & CAN_EFF_FLAG) != 0 ? CAN_EFF_MASK : CAN_SFF_MASK) |
                    CAN_EFF_FLAG | CAN_RTR_FLAG;
    sockaddr_can bound{};
    bound.can_family = AF_CAN;
    bound.can_ifindex = ifindex;
    if (!fd.valid() ||
        setsockopt(fd.get(), SOL_CAN_RAW, CAN_RAW_FILTER, &only, sizeof(only)) != 0 ||
        bind(fd.get(), reinterpret_cast<sockaddr *>(&bound), sizeof(bound)) != 0)
        return uoztools::ScopedFd();
    return fd;
}

// What a failed send or receive means for the exchange with the ECU.
std::string failure(const std::string &what, const std::string &ifname, int error) {
    const std::string frame_timeout = std::to_string(kKernelFrameTimeoutMs) + " ms";
    switch (error) {
        case ECOMM:  // the kernel's N_Bs timer, reported on the send or the next receive
            return "the ECU sent no flow control within " + frame_timeout;
        case ETIMEDOUT:  // the kernel's N_Cr timer
            return "the ECU stopped sending in the middle of its answer (no frame within " +
                   frame_timeout + ")";
        default:
            return interface_failure(what, ifname, error);
    }
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
    bound.can_addr.tp.tx_id = can_id(options.tx_id, options.extended_ids);
    bound.can_addr.tp.rx_id = can_id(options.rx_id, options.extended_ids);
    if (bind(fd.get(), reinterpret_cast<sockaddr *>(&bound), sizeof(bound)) != 0) {
        *error = "cannot open ISO-TP on " + options.ifname + ": " + strerror(errno);
        return nullptr;
    }
    // A functional socket receives nothing, so there is no answer to watch.
    uoztools::ScopedFd frames;
    if (!options.functional) {
        frames = frames_of(static_cast<int>(index), options.rx_id, options.extended_ids,
                           options.link_layer && options.link_layer->mtu == CANFD_MTU);
    }
    if (!options.functional && !frames.valid()) {
        *error = "cannot watch the frames of " + options.ifname + ": " + strerror(errno);
        return nullptr;
    }
    return std::unique_ptr<IsotpSocket>(new IsotpSocket(std::move(fd), std::move(frames), options));
}

bool IsotpSocket::send(const Bytes &message, Clock::time_point deadline, std::string *error) {
    int ready = wait_until(fd_.get(), POLLOUT, deadline);
    if (ready == 0) {
        *error = "ISO-TP send on " + ifname_ + " timed out";
        return false;
    }
    if (ready < 0 || ::write(fd_.get(), message.data(), message.size()) !=
                         static_cast<ssize_t>(message.size())) {
        *error = failure("ISO-TP send", ifname_, errno);
        return false;
    }
    return true;
}

IsotpSocket::Receive IsotpSocket::receive(Clock::time_point until, Bytes *message,
                                          std::string *error) {
    int ready = wait_until(fd_.get(), POLLIN, until);
    // An answer under way is bounded by the kernel's wait for each of its
    // frames, and by the longest an answer may take.
    const Clock::time_point latest = until + longest_answer_;
    while (ready == 0 && Clock::now() < latest && answer_frames_came()) {
        auto frame_wait = std::chrono::milliseconds(kKernelFrameTimeoutMs + 500);
        ready = wait_until(fd_.get(), POLLIN, std::min(latest, Clock::now() + frame_wait));
    }
    if (ready == 0)
        return Receive::kTimedOut;
    // The message's whole length first, so that no answer is ever cut short.
    ssize_t length = ready > 0 ? ::recv(fd_.get(), nullptr, 0, MSG_PEEK | MSG_TRUNC) : -1;
    if (length >= 0) {
        message->resize(static_cast<size_t>(length));
        length = ::recv(fd_.get(), message->data(), message->size(), 0);
    }
    if (length < 0) {
        *error = failure("ISO-TP receive", ifname_, errno);
        return Receive::kFailed;
    }
    message->resize(static_cast<size_t>(length));
    return Receive::kMessage;
}

bool IsotpSocket::answer_frames_came() {
    bool came = false;
    canfd_frame frame{};
    while (::recv(frames_.get(), &frame, sizeof(frame), MSG_DONTWAIT) > 0) {
        uint8_t frame_type = frame.len > frame_type_at_ ? frame.data[frame_type_at_] >> 4 : 0;
        came = came || frame_type == 1 || frame_type == 2;  // first or consecutive frame
    }
    return came;
}

int IsotpSocket::discard_received() {
    answer_frames_came();
    // Each message or failed transfer is taken once; the bound only keeps a
    // socket that fails on every call from holding the caller here.
    constexpr int kMostDiscarded = 256;
    int discarded = 0;
    uint8_t byte = 0;
    while (discarded < kMostDiscarded) {
        ssize_t got = ::recv(fd_.get(), &byte, sizeof(byte), MSG_DONTWAIT | MSG_TRUNC);
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;
        if (got >= 0 || errno != EINTR)
            ++discarded;
    }
    return discarded;
}

}  // namespace uozcan
