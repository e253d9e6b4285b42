#include "j1939_socket.h"

#include <errno.h>
#include <linux/can.h>
#include <linux/can/j1939.h>
#include <net/if.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>

#include "interface_failure.h"

namespace uozcan {

namespace {

// The largest group the kernel's extended transport carries is far beyond
// what a version read needs; this bounds what one receive takes.
constexpr size_t kLargestMessage = 64 * 1024;

sockaddr_can j1939_address(int ifindex, uint32_t pgn, uint8_t address) {
    sockaddr_can socket_address{};
    socket_address.can_family = AF_CAN;
    socket_address.can_ifindex = ifindex;
    socket_address.can_addr.j1939.name = J1939_NO_NAME;
    socket_address.can_addr.j1939.pgn = pgn;
    socket_address.can_addr.j1939.addr = address;
    return socket_address;
}

}  // namespace

Bytes pgn_request(uint32_t pgn) {
    return {static_cast<uint8_t>(pgn), static_cast<uint8_t>(pgn >> 8),
            static_cast<uint8_t>(pgn >> 16)};
}

bool requested_pgn(const Bytes &request, uint32_t *pgn) {
    if (request.size() != 3)
        return false;
    *pgn = request[0] | (request[1] << 8) | (static_cast<uint32_t>(request[2]) << 16);
    return *pgn <= J1939_PGN_MAX;
}

Bytes pgn_refusal(uint32_t pgn, uint8_t requester) {
    Bytes refusal = {0x01, 0xFF, 0xFF, 0xFF, requester};
    Bytes group = pgn_request(pgn);
    refusal.insert(refusal.end(), group.begin(), group.end());
    return refusal;
}

std::unique_ptr<J1939Socket> J1939Socket::open(const std::string &ifname, uint8_t address,
                                               std::string *error) {
    const std::string missing = "no CAN interface " + ifname + " on this machine";
    uoztools::ScopedFd fd(socket(PF_CAN, SOCK_DGRAM | SOCK_CLOEXEC, CAN_J1939));
    if (!fd.valid()) {
        *error = missing + (errno == EAFNOSUPPORT || errno == EPROTONOSUPPORT
                                ? " (the kernel has no J1939 support: module can-j1939)"
                                : std::string(" (") + strerror(errno) + ")");
        return nullptr;
    }
    unsigned index = if_nametoindex(ifname.c_str());
    if (index == 0) {
        *error = missing;
        return nullptr;
    }
    const int on = 1;
    sockaddr_can bound = j1939_address(static_cast<int>(index), J1939_NO_PGN, address);
    if (setsockopt(fd.get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof(on)) != 0 ||
        bind(fd.get(), reinterpret_cast<sockaddr *>(&bound), sizeof(bound)) != 0) {
        *error = interface_failure("opening J1939", ifname, errno);
        return nullptr;
    }
    return std::unique_ptr<J1939Socket>(new J1939Socket(std::move(fd), ifname));
}

bool J1939Socket::accept_only(uint8_t source, const std::vector<uint32_t> &pgns,
                              std::string *error) {
    std::vector<j1939_filter> filters;
    for (uint32_t pgn : pgns) {
        for (uint32_t group : {pgn, kPgnAcknowledgement}) {
            j1939_filter filter{};
            filter.pgn = group;
            filter.pgn_mask = J1939_PGN_MAX;
            filter.addr = source;
            filter.addr_mask = 0xFF;
            filters.push_back(filter);
        }
    }
    if (setsockopt(fd_.get(), SOL_CAN_J1939, SO_J1939_FILTER, filters.data(),
                   static_cast<socklen_t>(filters.size() * sizeof(j1939_filter))) != 0) {
        *error = interface_failure("filtering J1939", ifname_, errno);
        return false;
    }
    return true;
}

bool J1939Socket::send(uint32_t pgn, uint8_t destination, const Bytes &data, std::string *error) {
    sockaddr_can to = j1939_address(0, pgn, destination);
    if (::sendto(fd_.get(), data.data(), data.size(), 0, reinterpret_cast<sockaddr *>(&to),
                 sizeof(to)) != static_cast<ssize_t>(data.size())) {
        *error = interface_failure("J1939 send", ifname_, errno);
        return false;
    }
    return true;
}

J1939Socket::Receive J1939Socket::receive(Clock::time_point until, J1939Message *message,
                                          std::string *error) {
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
        pollfd waiting = {fd_.get(), POLLIN, 0};
        int ready = poll(&waiting, 1, static_cast<int>(std::max<long long>(0, left.count())));
        if (ready == 0)
            return Receive::kTimedOut;
        if (ready > 0 || errno != EINTR)
            break;
    }
    message->data.resize(kLargestMessage);
    sockaddr_can from{};
    iovec part = {message->data.data(), message->data.size()};
    char control[CMSG_SPACE(sizeof(uint8_t)) * 4] = {};
    msghdr header{};
    header.msg_name = &from;
    header.msg_namelen = sizeof(from);
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof(control);
    ssize_t length = ::recvmsg(fd_.get(), &header, MSG_DONTWAIT);
    if (length < 0) {
        *error = interface_failure("J1939 receive", ifname_, errno);
        return Receive::kFailed;
    }
    message->data.resize(static_cast<size_t>(length));
    message->pgn = from.can_addr.j1939.pgn;
    message->source = from.can_addr.j1939.addr;
    message->destination = kGlobalAddress;
    for (cmsghdr *item = CMSG_FIRSTHDR(&header); item != nullptr;
         item = CMSG_NXTHDR(&header, item)) {
        if (item->cmsg_level == SOL_CAN_J1939 && item->cmsg_type == SCM_J1939_DEST_ADDR)
            message->destination = *CMSG_DATA(item);
    }
    return Receive::kMessage;
}

}  // namespace uozcan
