#include "isotp_link.h"

namespace uozagent {

std::unique_ptr<IsotpLink> IsotpLink::open(const CanAddress &address, std::string *error) {
    uozcan::IsotpOptions options;
    options.ifname = address.ifname;
    options.tx_id = address.request_id;
    options.rx_id = address.response_id;
    options.block_size = address.block_size;
    options.st_min = address.st_min;
    std::unique_ptr<uozcan::IsotpSocket> socket = uozcan::IsotpSocket::open(options, error);
    if (!socket)
        return nullptr;
    return std::unique_ptr<IsotpLink>(new IsotpLink(std::move(socket)));
}

bool IsotpLink::send(const Bytes &request, Clock::time_point deadline, std::string *error) {
    return socket_->send(request, deadline, error);
}

bool IsotpLink::receive(Clock::time_point until, Bytes *response, std::string *error,
                        bool *timed_out) {
    uozcan::IsotpSocket::Receive got = socket_->receive(until, response, error);
    *timed_out = got == uozcan::IsotpSocket::Receive::kTimedOut;
    return got == uozcan::IsotpSocket::Receive::kMessage;
}

}  // namespace uozagent
