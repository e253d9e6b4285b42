#include "transport_links.h"

#include "discovery.h"
#include "entity_info.h"
#include "isotp_link.h"
#include "udsoverzelko.h"

namespace uozagent {

std::shared_ptr<DoipConnection> TransportLinks::connection(const DoipAddress &address) {
    std::string key = address.host + ":" + std::to_string(address.port) + "/" +
                      std::to_string(address.tester_address);
    std::lock_guard<std::mutex> hold(lock_);
    std::shared_ptr<DoipConnection> &shared = connections_[key];
    if (!shared) {
        DoipOptions options;
        options.host = address.host;
        options.port = address.port;
        options.tester_address = address.tester_address;
        options.policy = settings_.doip_policy(address.host);
        options.allow_remote = settings_.allow_remote_gateways;
        options.connect_timeout = settings_.connect_timeout;
        options.activation_timeout = settings_.activation_timeout;
        options.processing_time = settings_.processing_time;
        options.ack_timeout = settings_.ack_timeout;
        shared = std::make_shared<DoipConnection>(options);
    }
    return shared;
}

void TransportLinks::close_all() {
    std::lock_guard<std::mutex> hold(lock_);
    for (auto &[key, connection] : connections_) {
        (void)key;
        connection->close(true);
    }
}

bool TransportLinks::power_mode_allows(const DoipAddress &address, std::string *error) {
    if (!settings_.power_mode.enabled)
        return true;
    std::string why;
    std::optional<uint8_t> mode = uozdoip::read_power_mode(
        address.host, address.port, uozdoip::kDefaultVersion, settings_.power_mode.timeout, &why);
    if (!mode) {
        UOZ_DBGLOG(UOZ_LOG_WARN, "%s: diagnostics go ahead", why.c_str());
        return true;
    }
    if (*mode != uozdoip::power_mode::kNotReady)
        return true;
    *error = "gateway " + address.host + ":" + std::to_string(address.port) +
             " reports power mode not ready: no diagnostics sent";
    return false;
}

std::shared_ptr<EcuLink> TransportLinks::can_link(const CanAddress &address, std::string *error) {
    std::string key = address.ifname + " " + std::to_string(address.request_id) + " " +
                      std::to_string(address.response_id) + (address.extended_ids ? " 29" : "");
    std::lock_guard<std::mutex> hold(lock_);
    std::shared_ptr<EcuLink> &shared = can_links_[key];
    if (!shared)
        shared = IsotpLink::open(address, settings_, error);
    if (!shared && missing_can_logged_.insert(address.ifname).second)
        UOZ_DBGLOG(UOZ_LOG_WARN, "%s", error->c_str());
    return shared;
}

std::shared_ptr<EcuLink> TransportLinks::functional_link(const CanAddress &address,
                                                         std::string *error) {
    if (!address.functional_id) {
        *error = "no functional id";
        return nullptr;
    }
    std::string key = address.ifname + " " + std::to_string(*address.functional_id) +
                      (address.extended_ids ? " 29" : "");
    std::lock_guard<std::mutex> hold(lock_);
    std::shared_ptr<EcuLink> &shared = functional_links_[key];
    if (!shared)
        shared = IsotpLink::open_functional(address, settings_, error);
    return shared;
}

std::shared_ptr<EcuLink> TransportLinks::link_for(const EcuTarget &target, std::string *error) {
    switch (target.transport) {
        case Transport::kDoip:
            if (!power_mode_allows(target.doip, error))
                return nullptr;
            return std::make_shared<DoipLink>(connection(target.doip), target.doip.logical_address);
        case Transport::kCan:
            return can_link(target.can, error);
        case Transport::kNone:
            *error = target.error.empty() ? "no transport for " + target.label : target.error;
            return nullptr;
    }
    return nullptr;
}

}  // namespace uozagent
