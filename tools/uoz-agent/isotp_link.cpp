#include "isotp_link.h"

#include <linux/can.h>

#include "udsoverzelko.h"

namespace uozagent {

namespace {

uozcan::IsotpOptions socket_options(const CanAddress &address, const AgentSettings &settings) {
    uozcan::IsotpOptions options;
    options.ifname = address.ifname;
    options.tx_id = address.request_id;
    options.rx_id = address.response_id;
    options.block_size = address.block_size;
    options.st_min = address.st_min;
    options.extended_ids = address.extended_ids;
    options.padding = settings.can.padding;
    options.require_padding = settings.can.require_padding;
    options.longest_answer = settings.timing.overall;
    if (address.fd_data_length != 0) {
        options.link_layer =
            uozcan::LinkLayer{CANFD_MTU, address.fd_data_length,
                              static_cast<uint8_t>(address.bit_rate_switch ? CANFD_BRS : 0)};
    }
    if (address.extended_address) {
        options.target_address = address.extended_address->target;
        options.answer_address = address.extended_address->answer;
    }
    return options;
}

}  // namespace

std::unique_ptr<IsotpLink> IsotpLink::open(const CanAddress &address, const AgentSettings &settings,
                                           std::string *error) {
    std::unique_ptr<uozcan::IsotpSocket> socket =
        uozcan::IsotpSocket::open(socket_options(address, settings), error);
    if (!socket)
        return nullptr;
    return std::unique_ptr<IsotpLink>(new IsotpLink(std::move(socket)));
}

std::unique_ptr<IsotpLink> IsotpLink::open_functional(const CanAddress &address,
                                                      const AgentSettings &settings,
                                                      std::string *error) {
    uozcan::IsotpOptions options = socket_options(address, settings);
    options.tx_id = address.functional_id.value_or(0);
    options.rx_id = options.tx_id;  // no reception is registered
    options.functional = true;
    std::unique_ptr<uozcan::IsotpSocket> socket = uozcan::IsotpSocket::open(options, error);
    if (!socket)
        return nullptr;
    return std::unique_ptr<IsotpLink>(new IsotpLink(std::move(socket)));
}

bool IsotpLink::send(const Bytes &request, Clock::time_point deadline, std::string *error) {
    int late = socket_->discard_received();
    if (late > 0)
        UOZ_DBGLOG(UOZ_LOG_DBG, "%s: dropped %d late answer(s) before a new request",
                   socket_->ifname().c_str(), late);
    return socket_->send(request, deadline, error);
}

bool IsotpLink::receive(Clock::time_point until, Bytes *response, std::string *error,
                        bool *timed_out) {
    uozcan::IsotpSocket::Receive got = socket_->receive(until, response, error);
    *timed_out = got == uozcan::IsotpSocket::Receive::kTimedOut;
    return got == uozcan::IsotpSocket::Receive::kMessage;
}

}  // namespace uozagent
