#include "query_targets.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "flow_control.h"

namespace uozagent {

namespace {

bool hex_member(json_object *block, const char *key, uint32_t largest, uint32_t *value,
                EcuTarget *target) {
    const char *text = text_member(block, key);
    if (text != nullptr && parse_hex_number(text, value) && *value <= largest)
        return true;
    if (target->error.empty()) {
        target->error = std::string("the transport block's \"") + key + "\" (" +
                        (text ? text : "missing") + ") is not a valid value";
    }
    return false;
}

void doip_target(json_object *block, const AgentSettings &settings, EcuTarget *target) {
    uint32_t tester = 0;
    uint32_t logical = 0;
    const char *gateway = text_member(block, "gw-ip");
    target->label = text_member(block, "ta") ? text_member(block, "ta") : "";
    if (!hex_member(block, "sa", 0xFFFF, &tester, target) ||
        !hex_member(block, "ta", 0xFFFF, &logical, target)) {
        return;
    }
    if (gateway == nullptr || *gateway == '\0') {
        target->error = "the transport block has no \"gw-ip\"";
        return;
    }
    auto mapped = settings.gateway_addresses.find(gateway);
    target->transport = Transport::kDoip;
    target->doip.host = mapped != settings.gateway_addresses.end() ? mapped->second : gateway;
    target->doip.port = settings.doip_port;
    target->doip.tester_address = static_cast<uint16_t>(tester);
    target->doip.logical_address = static_cast<uint16_t>(logical);
    auto identity = settings.gateway_identities.find(gateway);
    if (identity != settings.gateway_identities.end()) {
        target->doip.identity = identity->second;
        target->doip.host = identity->second.text();
    }
}

// The logical address of a routed ECU: the settings' own, else its target
// address (from the configuration, or the query's for a single ECU).
bool routed_address(const GatewayRoute &route, const EcuTarget &target, const KnownEcu *known,
                    int32_t query_target, int32_t *logical) {
    auto listed = route.ecus.find(target.name);
    if (listed == route.ecus.end() || target.name.empty())
        listed = route.ecus.find(target.label);
    if (listed == route.ecus.end() && !route.all)
        return false;
    *logical = listed != route.ecus.end() ? listed->second : -1;
    if (*logical < 0)
        *logical = known != nullptr ? known->target_address : query_target;
    return true;
}

void bus_target(json_object *block, const AgentSettings &settings, int32_t query_target,
                EcuTarget *target) {
    const char *request_id = text_member(block, "phy-req-id");
    target->label = request_id != nullptr ? request_id : "";
    auto known = settings.ecus_by_request_id.find(target->label);
    const KnownEcu *ecu = known != settings.ecus_by_request_id.end() ? &known->second : nullptr;
    if (ecu != nullptr)
        target->name = ecu->name;
    int32_t logical = -1;
    if (settings.gateway.enabled &&
        routed_address(settings.gateway, *target, ecu, query_target, &logical)) {
        if (logical < 0 || logical > 0xFFFF) {
            target->error = "no logical address for " + target->label +
                            " at the gateway: give it in the agent settings' \"gateway\".\"ecus\"";
            return;
        }
        target->transport = Transport::kDoip;
        target->doip = {settings.gateway.host, settings.gateway.port,
                        settings.gateway.tester_address, static_cast<uint16_t>(logical),
                        settings.gateway.identity};
        return;
    }
    const char *ifname = text_member(block, "ifname");
    if (ifname == nullptr) {
        target->error = "an IOC ECU is reached only through a gateway: route " +
                        (target->name.empty() ? target->label : target->name) +
                        " in the agent settings' \"gateway\"";
        return;
    }
    uint32_t request = 0, response = 0, st_min = 0, block_size = 0;
    if (!hex_member(block, "phy-req-id", 0x1FFFFFFF, &request, target) ||
        !hex_member(block, "phy-resp-id", 0x1FFFFFFF, &response, target) ||
        !hex_member(block, "st-min", 0xFF, &st_min, target) ||
        !hex_member(block, "bsize", uozcan::kLargestBlockSize, &block_size, target)) {
        return;
    }
    std::string st_min_problem = uozcan::st_min_problem(st_min);
    if (!st_min_problem.empty()) {
        target->error = "the transport block's \"st-min\" " + st_min_problem;
        return;
    }
    target->transport = Transport::kCan;
    const std::set<std::string> &extended = settings.can.extended_ids;
    target->can.ifname = ifname;
    target->can.request_id = request;
    target->can.response_id = response;
    target->can.st_min = static_cast<uint8_t>(st_min);
    target->can.block_size = static_cast<uint8_t>(block_size);
    target->can.extended_ids =
        extended.count(target->label) > 0 || extended.count(target->name) > 0;
    const std::map<std::string, ExtendedAddress> &addressed = settings.can.extended_addressing;
    auto address = addressed.find(target->name);
    if (target->name.empty() || address == addressed.end())
        address = addressed.find(target->label);
    if (address != addressed.end())
        target->can.extended_address = address->second;
    uint32_t functional = 0;
    const char *functional_text = text_member(block, "func-addr");
    if (functional_text != nullptr && parse_hex_number(functional_text, &functional) &&
        functional <= 0x1FFFFFFF)
        target->can.functional_id = functional;
}

// A CAN FD ECU of the settings, reached like a CAN ECU with that block.
EcuTarget canfd_target(const std::string &name, const CanFdEcu &ecu, const AgentSettings &settings,
                       int32_t query_target) {
    EcuTarget target;
    target.name = name;
    JsonPtr block(json_tokener_parse(ecu.block.c_str()));
    bus_target(block.get(), settings, query_target, &target);
    target.can.fd_data_length = ecu.data_length;
    target.can.bit_rate_switch = ecu.bit_rate_switch;
    return target;
}

// A query's "canfd" block names no interface or ids: the ECU of its target
// address is looked up in the settings.
EcuTarget canfd_target_of(int32_t query_target, const AgentSettings &settings) {
    auto name = settings.canfd_names.find(static_cast<uint32_t>(query_target));
    auto ecu = name != settings.canfd_names.end() ? settings.canfd_ecus.find(name->second)
                                                  : settings.canfd_ecus.end();
    if (ecu == settings.canfd_ecus.end()) {
        EcuTarget target;
        char address[16];
        snprintf(address, sizeof(address), "0x%X", static_cast<unsigned>(query_target));
        target.label = address;
        target.error = "CANFD ECU " +
                       (name != settings.canfd_names.end() ? name->second : target.label) +
                       " has no entry in the agent settings' \"canfd\"";
        return target;
    }
    return canfd_target(ecu->first, ecu->second, settings, query_target);
}

EcuTarget target_of(json_object *block, const AgentSettings &settings, int32_t query_target) {
    EcuTarget target;
    if (!json_object_is_type(block, json_type_object)) {
        target.error = "the query holds a transport block that is not an object";
    } else if (json_object_object_get_ex(block, "gw-ip", nullptr)) {
        doip_target(block, settings, &target);
    } else {
        bus_target(block, settings, query_target, &target);
    }
    return target;
}

// The DoIP ECUs that a query for all ECUs adds: those of the ECU
// configuration when the settings ask for them, unless the query has them.
// The one place for another source (discovery).
void add_vehicle_doip_ecus(const AgentSettings &settings, std::vector<EcuTarget> *targets) {
    if (settings.all_ecus_doip != DoipEcuSource::kEcuConfig)
        return;
    for (const KnownDoipEcu &known : settings.doip_ecus) {
        JsonPtr block(json_tokener_parse(known.block.c_str()));
        EcuTarget target;
        doip_target(block.get(), settings, &target);
        target.name = known.name;
        bool asked = false;
        for (const EcuTarget &other : *targets)
            asked = asked || (other.transport == Transport::kDoip && other.key() == target.key());
        if (!asked)
            targets->push_back(std::move(target));
    }
}

}  // namespace

std::string CanAddress::link_key() const {
    std::string key = ifname + " " + std::to_string(request_id) + " " + std::to_string(response_id);
    if (extended_ids)
        key += " 29";
    if (fd_data_length != 0)
        key += " fd" + std::to_string(fd_data_length) + (bit_rate_switch ? "brs" : "");
    if (extended_address)
        key += " ea" + std::to_string(extended_address->target) + "/" +
               std::to_string(extended_address->answer);
    return key;
}

std::string EcuTarget::key() const {
    switch (transport) {
        case Transport::kDoip:
            return "doip " + doip.host + ":" + std::to_string(doip.port) + " " +
                   std::to_string(doip.logical_address);
        case Transport::kCan:
            return "can " + can.ifname + " " + std::to_string(can.request_id);
        case Transport::kNone:
            return "none " + label;
    }
    return label;
}

std::vector<EcuTarget> query_targets(json_object *body, const AgentSettings &settings,
                                     bool *broadcast) {
    const char *address = text_member(body, "targetAddress");
    long long value = address != nullptr ? strtoll(address, nullptr, 16) : 0;
    *broadcast = address != nullptr && (strcmp(address, "-1") == 0 || value == 0xFFFFFFFFLL);
    std::vector<EcuTarget> targets;
    for (const char *key : {"doip", "can", "ioc", "canfd"}) {
        json_object *blocks = nullptr;
        if (!json_object_object_get_ex(body, key, &blocks))
            continue;
        if (strcmp(key, "canfd") == 0 && !*broadcast) {
            targets.push_back(canfd_target_of(static_cast<int32_t>(value), settings));
            continue;
        }
        if (!json_object_is_type(blocks, json_type_array)) {
            targets.push_back(target_of(blocks, settings, static_cast<int32_t>(value)));
            continue;
        }
        for (size_t i = 0; i < json_object_array_length(blocks); ++i) {
            json_object *block = json_object_array_get_idx(blocks, i);
            if (block != nullptr)
                targets.push_back(target_of(block, settings, -1));
        }
    }
    if (*broadcast) {
        for (const auto &[name, ecu] : settings.canfd_ecus)
            targets.push_back(canfd_target(name, ecu, settings, -1));
        add_vehicle_doip_ecus(settings, &targets);
    }
    return targets;
}

}  // namespace uozagent
