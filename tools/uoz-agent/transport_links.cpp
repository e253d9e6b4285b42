#include "transport_links.h"

#include <algorithm>

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

namespace {

// Asks for the entity with the identity's VIN or EID: the first that answers
// with it, or none with *error.
std::optional<uozdoip::DiscoveredEntity> discover(const GatewayIdentity &identity,
                                                  const GatewayDiscovery &where,
                                                  std::string *error) {
    uozdoip::DiscoveryOptions options;
    options.send_to = where.to;
    options.announcement_port = 0;  // the answers are enough
    options.wait = where.wait;
    const bool by_vin = !identity.vin.empty();
    options.request.payload_type = by_vin ? uozdoip::payload::kVehicleIdRequestByVin
                                          : uozdoip::payload::kVehicleIdRequestByEid;
    std::vector<uint8_t> &wanted = options.request.filter;
    if (by_vin)
        uozdoip::parse_vin(identity.vin, &wanted);
    else
        uozdoip::parse_eid(identity.eid, &wanted);
    auto matches = [&](const uozdoip::DiscoveredEntity &entity) {
        return by_vin ? std::equal(wanted.begin(), wanted.end(), entity.identity.vin.begin())
                      : std::equal(wanted.begin(), wanted.end(), entity.identity.eid.begin());
    };
    uozdoip::Discovery discovery;
    std::string why;
    if (discovery.open(options, &why) &&
        discovery.collect(
            [&](const std::vector<uozdoip::DiscoveredEntity> &entities, Millis) {
                return std::any_of(entities.begin(), entities.end(), matches);
            },
            &why)) {
        const std::vector<uozdoip::DiscoveredEntity> &found = discovery.entities();
        auto entity = std::find_if(found.begin(), found.end(), matches);
        if (entity != found.end())
            return *entity;
    }
    std::string places;
    for (const std::string &to : where.to)
        places += (places.empty() ? "" : ", ") + to;
    *error = "no DoIP entity with " + identity.text() + " answered within " +
             std::to_string(where.wait.count()) + " ms on " + places +
             (why.empty() ? "" : " (" + why + ")");
    return std::nullopt;
}

}  // namespace

bool TransportLinks::find_gateway(DoipAddress *address, std::string *error) {
    const std::string name = address->identity.text();
    std::lock_guard<std::mutex> one_discovery(finding_);
    // Found just now (the other ECUs of a query on their way there) or
    // connected since: still there.
    auto known = found_.find(name);
    if (known != found_.end()) {
        DoipAddress found = *address;
        found.host = known->second.host;
        found.port = known->second.port;
        if (Clock::now() - known->second.when < settings_.discovery.wait ||
            connection(found)->connected()) {
            *address = found;
            return true;
        }
    }
    std::optional<uozdoip::DiscoveredEntity> entity =
        discover(address->identity, settings_.discovery, error);
    if (!entity) {
        found_.erase(name);
        return false;
    }
    address->host = entity->from.host;
    address->port = entity->from.port;
    found_[name] = {address->host, address->port, Clock::now()};
    UOZ_DBGLOG(UOZ_LOG_INFO, "gateway with %s found at %s (logical address %s)", name.c_str(),
               entity->from.text().c_str(),
               uozuds::hex_number(entity->identity.logical_address, 4).c_str());
    return true;
}

void TransportLinks::find_gateways() {
    std::vector<GatewayIdentity> named;
    if (settings_.gateway.enabled && !settings_.gateway.identity.empty())
        named.push_back(settings_.gateway.identity);
    for (const auto &[gw_ip, identity] : settings_.gateway_identities) {
        (void)gw_ip;
        named.push_back(identity);
    }
    for (const GatewayIdentity &identity : named) {
        DoipAddress address;
        address.identity = identity;
        std::string error;
        if (!find_gateway(&address, &error))
            UOZ_DBGLOG(UOZ_LOG_WARN, "%s: looked for again at the first request to it",
                       error.c_str());
    }
}

std::shared_ptr<EcuLink> TransportLinks::can_link(const CanAddress &address, std::string *error) {
    std::lock_guard<std::mutex> hold(lock_);
    std::shared_ptr<EcuLink> &shared = can_links_[address.link_key()];
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
        case Transport::kDoip: {
            DoipAddress address = target.doip;
            if (!address.identity.empty() && !find_gateway(&address, error))
                return nullptr;
            if (!power_mode_allows(address, error))
                return nullptr;
            return std::make_shared<DoipLink>(connection(address), address.logical_address);
        }
        case Transport::kCan:
            return can_link(target.can, error);
        case Transport::kNone:
            *error = target.error.empty() ? "no transport for " + target.label : target.error;
            return nullptr;
    }
    return nullptr;
}

}  // namespace uozagent
