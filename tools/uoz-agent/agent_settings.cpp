#include "agent_settings.h"

#include <errno.h>
#include <json-c/json.h>
#include <string.h>
#include <unistd.h>

#include <stdexcept>

#include "entity_info.h"
#include "json_helpers.h"

namespace uozagent {

namespace {

using uoztools::JsonPtr;

json_object *member(json_object *object, const char *key, json_type type, const char *where) {
    json_object *value = nullptr;
    if (!json_object_object_get_ex(object, key, &value))
        return nullptr;
    if (!json_object_is_type(value, type)) {
        throw std::runtime_error(std::string("\"") + where + "\" must be " +
                                 json_type_to_name(type));
    }
    return value;
}

uint32_t number_member(json_object *object, const char *key, uint32_t fallback, uint32_t largest,
                       const char *where) {
    json_object *value = nullptr;
    if (!json_object_object_get_ex(object, key, &value))
        return fallback;
    uint32_t number = 0;
    if (json_object_is_type(value, json_type_int) && json_object_get_int64(value) >= 0 &&
        json_object_get_int64(value) <= largest) {
        return static_cast<uint32_t>(json_object_get_int64(value));
    }
    if (json_object_is_type(value, json_type_string) &&
        parse_hex_number(json_object_get_string(value), &number) && number <= largest) {
        return number;
    }
    throw std::runtime_error(std::string("\"") + where + "\" must be a number up to " +
                             std::to_string(largest));
}

Millis millis_member(json_object *object, const char *key, Millis fallback, const char *where) {
    return Millis(
        number_member(object, key, static_cast<uint32_t>(fallback.count()), 600000, where));
}

std::string text_of(json_object *object, const char *key, const std::string &where) {
    json_object *value = member(object, key, json_type_string, (where + "." + key).c_str());
    return value != nullptr ? json_object_get_string(value) : "";
}

// A PEM file of the TLS settings, checked at start so that a wrong path
// stops the agent instead of failing every request.
void read_tls_file(json_object *tls, const char *key, const std::string &where, std::string *path) {
    std::string given = text_of(tls, key, where);
    if (given.empty())
        return;
    if (access(given.c_str(), R_OK) != 0)
        throw std::runtime_error("\"" + where + "." + key + "\": cannot read " + given + ": " +
                                 strerror(errno));
    *path = given;
}

void read_tls(json_object *tls, const std::string &where, DoipTls *out) {
    read_tls_file(tls, "ca", where, &out->files.ca);
    read_tls_file(tls, "cert", where, &out->files.certificate);
    read_tls_file(tls, "key", where, &out->files.private_key);
    if (out->files.certificate.empty() != out->files.private_key.empty())
        throw std::runtime_error("\"" + where + "\" needs both \"cert\" and \"key\"");
    std::string host = text_of(tls, "host", where);
    if (!host.empty())
        out->host = host;
    out->port = static_cast<uint16_t>(
        number_member(tls, "port", out->port, 65535, (where + ".port").c_str()));
    const std::string use = text_of(tls, "use", where);
    if (use == "never")
        out->use = TlsUse::kNever;
    else if (use == "when-required")
        out->use = TlsUse::kWhenRequired;
    else if (use == "always")
        out->use = TlsUse::kAlways;
    else if (!use.empty())
        throw std::runtime_error("\"" + where +
                                 ".use\" must be \"never\", \"when-required\" or \"always\"");
    else if (out->use == TlsUse::kNever && !out->files.ca.empty())
        out->use = TlsUse::kWhenRequired;
    if (out->use != TlsUse::kNever && out->files.ca.empty())
        throw std::runtime_error("\"" + where +
                                 ".ca\" is needed to check the gateway's certificate");
}

// An idle connection: closed after "close-after-ms", or kept open with
// "keep-alive" sent to "keep-alive-ta" every "keep-alive-ms".
void read_idle(json_object *idle, const std::string &where, DoipIdle *out) {
    if (idle == nullptr)
        return;
    const bool closes = json_object_object_get_ex(idle, "close-after-ms", nullptr);
    out->close_after = millis_member(idle, "close-after-ms", out->close_after,
                                     (where + ".close-after-ms").c_str());
    out->keep_alive =
        millis_member(idle, "keep-alive-ms", out->keep_alive, (where + ".keep-alive-ms").c_str());
    if (out->keep_alive.count() > 0 && closes && out->close_after.count() > 0)
        throw std::runtime_error("\"" + where +
                                 "\" closes an idle connection or keeps it alive, not both");
    if (out->keep_alive.count() > 0 && out->keep_alive < Millis(100))
        throw std::runtime_error("\"" + where + ".keep-alive-ms\" must be at least 100");
    out->target = static_cast<uint16_t>(number_member(idle, "keep-alive-ta", out->target, 0xFFFF,
                                                      (where + ".keep-alive-ta").c_str()));
    const std::string message = text_of(idle, "keep-alive", where);
    if (!message.empty() &&
        (!parse_hex_bytes(message.c_str(), &out->message) || out->message.empty()))
        throw std::runtime_error("\"" + where + ".keep-alive\" must be hex bytes (\"3E 80\")");
}

// Activation type, protocol version, TLS and idle connections: for every
// gateway in "doip", for one in its "gateways" entry.
void read_gateway_policy(json_object *object, const std::string &where, DoipGatewayPolicy *policy) {
    const std::string type_where = where + ".activation-type";
    uint32_t type =
        number_member(object, "activation-type", policy->activation_type, 0xFF, type_where.c_str());
    if (type != 0x00 && type != 0x01 && type < 0xE0)
        throw std::runtime_error("\"" + type_where + "\" must be 0x00, 0x01 or 0xE0-0xFF");
    policy->activation_type = static_cast<uint8_t>(type);
    if (json_object_object_get_ex(object, "version", nullptr)) {
        const std::string version_where = where + ".version";
        uint32_t version = number_member(object, "version", 0, 0xFF, version_where.c_str());
        if (version != uozdoip::kVersion2012 && version != uozdoip::kVersion2019)
            throw std::runtime_error("\"" + version_where + "\" must be 0x02 or 0x03");
        policy->version = static_cast<uint8_t>(version);
    }
    json_object *tls = member(object, "tls", json_type_object, (where + ".tls").c_str());
    if (tls != nullptr)
        read_tls(tls, where + ".tls", &policy->tls);
    read_idle(member(object, "idle", json_type_object, (where + ".idle").c_str()), where + ".idle",
              &policy->idle);
}

// {"vin": "..."} or {"eid": "..."} in place of a gateway's address.
GatewayIdentity read_identity(json_object *object, const std::string &where) {
    GatewayIdentity identity;
    identity.vin = text_of(object, "vin", where);
    identity.eid = text_of(object, "eid", where);
    std::vector<uint8_t> bytes;
    if (!identity.vin.empty() && !identity.eid.empty())
        throw std::runtime_error("\"" + where +
                                 "\" names the gateway by \"vin\" or \"eid\", not both");
    if (!identity.vin.empty() && !uozdoip::parse_vin(identity.vin, &bytes))
        throw std::runtime_error("\"" + where + ".vin\": \"" + identity.vin +
                                 "\" is not a VIN (17 letters and digits)");
    if (!identity.eid.empty() && !uozdoip::parse_eid(identity.eid, &bytes))
        throw std::runtime_error("\"" + where + ".eid\": \"" + identity.eid +
                                 "\" is not an EID (6 bytes: 12 hex digits, colons allowed)");
    return identity;
}

void read_discovery(json_object *discovery, GatewayDiscovery *out) {
    if (discovery == nullptr)
        return;
    json_object *to = nullptr;
    if (json_object_object_get_ex(discovery, "to", &to)) {
        out->to.clear();
        for (size_t i = 0;
             json_object_is_type(to, json_type_array) && i < json_object_array_length(to); ++i) {
            json_object *address = json_object_array_get_idx(to, i);
            if (json_object_is_type(address, json_type_string))
                out->to.push_back(json_object_get_string(address));
        }
        if (out->to.empty() || out->to.size() != json_object_array_length(to))
            throw std::runtime_error("\"doip.discovery.to\" lists addresses (\"ADDR[:PORT]\")");
    }
    out->wait = millis_member(discovery, "wait-ms", out->wait, "doip.discovery.wait-ms");
}

void read_doip(json_object *doip, AgentSettings *settings) {
    if (doip == nullptr)
        return;
    settings->doip_port = number_member(doip, "port", 13400, 65535, "doip.port");
    json_object *remote = member(doip, "allow-remote", json_type_boolean, "doip.allow-remote");
    settings->allow_remote_gateways = remote != nullptr && json_object_get_boolean(remote);
    json_object *addresses = member(doip, "addresses", json_type_object, "doip.addresses");
    if (addresses != nullptr) {
        json_object_object_foreach(addresses, from, to) {
            if (json_object_is_type(to, json_type_object)) {
                GatewayIdentity identity = read_identity(to, std::string("doip.addresses.") + from);
                if (identity.empty())
                    throw std::runtime_error(std::string("\"doip.addresses.") + from +
                                             "\" needs \"vin\" or \"eid\"");
                settings->gateway_identities[from] = identity;
                continue;
            }
            if (!json_object_is_type(to, json_type_string))
                throw std::runtime_error(
                    "\"doip.addresses\" maps texts to texts or to {\"vin\": ...} / {\"eid\": ...}");
            settings->gateway_addresses[from] = json_object_get_string(to);
        }
    }
    settings->connect_timeout = millis_member(doip, "connect-timeout-ms", settings->connect_timeout,
                                              "doip.connect-timeout-ms");
    settings->activation_timeout = millis_member(
        doip, "activation-timeout-ms", settings->activation_timeout, "doip.activation-timeout-ms");
    settings->ack_timeout =
        millis_member(doip, "ack-timeout-ms", settings->ack_timeout, "doip.ack-timeout-ms");
    settings->processing_time = millis_member(doip, "processing-time-ms", settings->processing_time,
                                              "doip.processing-time-ms");
    read_discovery(member(doip, "discovery", json_type_object, "doip.discovery"),
                   &settings->discovery);
    read_gateway_policy(doip, "doip", &settings->doip);
    json_object *gateways = member(doip, "gateways", json_type_object, "doip.gateways");
    if (gateways == nullptr)
        return;
    json_object_object_foreach(gateways, host, own) {
        std::string where = std::string("doip.gateways.") + host;
        if (!json_object_is_type(own, json_type_object))
            throw std::runtime_error("\"" + where + "\" must be object");
        DoipGatewayPolicy policy = settings->doip;
        read_gateway_policy(own, where, &policy);
        settings->doip_gateways[host] = policy;
    }
}

void read_timing(json_object *uds, UdsTiming *timing) {
    if (uds == nullptr)
        return;
    timing->p2 = millis_member(uds, "p2-ms", timing->p2, "uds.p2-ms");
    timing->p2_star = millis_member(uds, "p2-star-ms", timing->p2_star, "uds.p2-star-ms");
    timing->overall = millis_member(uds, "deadline-ms", timing->overall, "uds.deadline-ms");
    if (timing->overall > Millis(9000))
        throw std::runtime_error(
            "\"uds.deadline-ms\" must stay below 9000 (the library waits 10 s)");
    timing->busy_retries =
        static_cast<int>(number_member(uds, "busy-retries", 3, 20, "uds.busy-retries"));
    timing->busy_delay =
        millis_member(uds, "busy-delay-ms", timing->busy_delay, "uds.busy-delay-ms");
}

// "ECU": "0x12" (its answers start with 0x12 too) or
// "ECU": {"target": "0x12", "answer": "0xF1"}.
void read_extended_addressing(json_object *ecus, CanSettings *settings) {
    if (ecus == nullptr)
        return;
    json_object_object_foreach(ecus, ecu, given) {
        const std::string where = std::string("can.extended-addressing.") + ecu;
        ExtendedAddress address;
        if (json_object_is_type(given, json_type_object)) {
            if (!json_object_object_get_ex(given, "target", nullptr))
                throw std::runtime_error("\"" + where + "\" needs \"target\"");
            address.target = static_cast<uint8_t>(
                number_member(given, "target", 0, 0xFF, (where + ".target").c_str()));
            address.answer = static_cast<uint8_t>(
                number_member(given, "answer", address.target, 0xFF, (where + ".answer").c_str()));
        } else {
            JsonPtr wrapped(json_object_new_object());
            json_object_object_add(wrapped.get(), "target", json_object_get(given));
            address.target = static_cast<uint8_t>(
                number_member(wrapped.get(), "target", 0, 0xFF, where.c_str()));
            address.answer = address.target;
        }
        settings->extended_addressing[ecu] = address;
    }
}

void read_can(json_object *can, CanSettings *settings) {
    if (can == nullptr)
        return;
    json_object *padding = nullptr;
    if (json_object_object_get_ex(can, "padding", &padding) &&
        json_object_is_type(padding, json_type_boolean)) {
        if (json_object_get_boolean(padding))
            throw std::runtime_error("\"can.padding\" must be a byte (\"0xCC\") or false");
        settings->padding.reset();
    } else {
        settings->padding =
            static_cast<uint8_t>(number_member(can, "padding", 0xCC, 0xFF, "can.padding"));
    }
    json_object *required =
        member(can, "require-padding", json_type_boolean, "can.require-padding");
    settings->require_padding = required != nullptr && json_object_get_boolean(required);
    json_object *extended = member(can, "29-bit-ids", json_type_array, "can.29-bit-ids");
    for (size_t i = 0; extended != nullptr && i < json_object_array_length(extended); ++i) {
        json_object *ecu = json_object_array_get_idx(extended, i);
        if (!json_object_is_type(ecu, json_type_string))
            throw std::runtime_error("\"can.29-bit-ids\" lists ECU names or \"phy-req-id\" texts");
        settings->extended_ids.insert(json_object_get_string(ecu));
    }
    read_extended_addressing(
        member(can, "extended-addressing", json_type_object, "can.extended-addressing"), settings);
}

// "canfd": {"ECU name": {"ifname": ..., "phy-req-id": ..., "phy-resp-id": ...,
// "st-min": ..., "bsize": ..., "data-length": 64, "bit-rate-switch": true}}
void read_canfd(json_object *ecus, std::map<std::string, CanFdEcu> *out) {
    if (ecus == nullptr)
        return;
    json_object_object_foreach(ecus, name, block) {
        const std::string where = std::string("canfd.") + name;
        if (!json_object_is_type(block, json_type_object))
            throw std::runtime_error("\"" + where + "\" must be object");
        for (const char *key : {"ifname", "phy-req-id", "phy-resp-id"}) {
            if (text_of(block, key, where).empty())
                throw std::runtime_error("\"" + where + "\" needs \"" + key + "\"");
        }
        CanFdEcu ecu;
        const uint32_t length =
            number_member(block, "data-length", 64, 64, (where + ".data-length").c_str());
        if (length < 8 || (length > 24 && length != 32 && length != 48 && length != 64) ||
            length % 4 != 0)
            throw std::runtime_error("\"" + where +
                                     ".data-length\" must be 8, 12, 16, 20, 24, 32, 48 or 64");
        ecu.data_length = static_cast<uint8_t>(length);
        json_object *switched = member(block, "bit-rate-switch", json_type_boolean,
                                       (where + ".bit-rate-switch").c_str());
        ecu.bit_rate_switch = switched != nullptr && json_object_get_boolean(switched);
        ecu.block = json_object_to_json_string_ext(block, JSON_C_TO_STRING_PLAIN);
        (*out)[name] = ecu;
    }
}

void read_j1939(json_object *j1939, J1939Settings *settings) {
    if (j1939 == nullptr)
        return;
    uint32_t address = number_member(j1939, "address", settings->address, 0xFF, "j1939.address");
    if (address > 0xFD)
        throw std::runtime_error("\"j1939.address\" must be a unicast address (up to 0xFD)");
    settings->address = static_cast<uint8_t>(address);
    settings->timeout = millis_member(j1939, "timeout-ms", settings->timeout, "j1939.timeout-ms");
    if (settings->timeout > Millis(9000))
        throw std::runtime_error(
            "\"j1939.timeout-ms\" must stay below 9000 (the library waits 10 s)");
}

void read_gateway(json_object *gateway, GatewayRoute *route) {
    if (gateway == nullptr)
        return;
    json_object *host = member(gateway, "gw-ip", json_type_string, "gateway.gw-ip");
    route->identity = read_identity(gateway, "gateway");
    if (host == nullptr && route->identity.empty())
        throw std::runtime_error("\"gateway\" needs \"gw-ip\" (or \"vin\" or \"eid\")");
    if (host != nullptr && !route->identity.empty())
        throw std::runtime_error(
            "\"gateway\" names its gateway by \"gw-ip\" or by \"vin\"/\"eid\", not both");
    route->enabled = true;
    route->host = host != nullptr ? json_object_get_string(host) : route->identity.text();
    route->port =
        static_cast<uint16_t>(number_member(gateway, "port", 13400, 65535, "gateway.port"));
    route->tester_address =
        static_cast<uint16_t>(number_member(gateway, "sa", 0x0E80, 0xFFFF, "gateway.sa"));
    json_object *ecus = nullptr;
    if (json_object_object_get_ex(gateway, "ecus", &ecus) &&
        json_object_is_type(ecus, json_type_string) &&
        std::string(json_object_get_string(ecus)) == "all") {
        route->all = true;
        return;
    }
    ecus = member(gateway, "ecus", json_type_object, "gateway.ecus");
    if (ecus == nullptr)
        throw std::runtime_error("\"gateway.ecus\" must be \"all\" or an object of ECUs");
    json_object_object_foreach(ecus, ecu, logical) {
        uint32_t address = 0;
        if (json_object_is_type(logical, json_type_null)) {
            route->ecus[ecu] = -1;
        } else if (json_object_is_type(logical, json_type_string) &&
                   parse_hex_number(json_object_get_string(logical), &address) &&
                   address <= 0xFFFF) {
            route->ecus[ecu] = static_cast<int32_t>(address);
        } else {
            throw std::runtime_error("\"gateway.ecus\": the logical address of " +
                                     std::string(ecu) + " must be hex text or null");
        }
    }
}

void read_keys(json_object *keys, std::map<uint8_t, std::string> *algorithms) {
    if (keys == nullptr)
        return;
    json_object_object_foreach(keys, level_text, algorithm) {
        uint32_t level = 0;
        if (!parse_hex_number(level_text, &level) || level == 0 || level > 0x7D || level % 2 == 0)
            throw std::runtime_error("\"key-algorithms\": " + std::string(level_text) +
                                     " is no odd security level");
        if (!json_object_is_type(algorithm, json_type_string))
            throw std::runtime_error("\"key-algorithms\" maps a level to \"builtin\" or a path");
        (*algorithms)[static_cast<uint8_t>(level)] = json_object_get_string(algorithm);
    }
}

void read_all_ecus(json_object *all_ecus, AgentSettings *settings) {
    json_object *doip = member(all_ecus, "doip", json_type_string, "all-ecus.doip");
    if (doip == nullptr)
        return;
    const std::string source = json_object_get_string(doip);
    if (source == "ecu-config")
        settings->all_ecus_doip = DoipEcuSource::kEcuConfig;
    else if (source != "none")
        throw std::runtime_error("\"all-ecus.doip\" must be \"ecu-config\" or \"none\"");
}

void read_power_mode(json_object *check, PowerModeCheck *settings) {
    if (check == nullptr)
        return;
    json_object *enabled = member(check, "check", json_type_boolean, "power-mode.check");
    settings->enabled = enabled == nullptr || json_object_get_boolean(enabled);
    settings->timeout =
        millis_member(check, "timeout-ms", settings->timeout, "power-mode.timeout-ms");
}

// "sessions": kept open with a TesterPresent for "keep-ms" after an ECU's last
// request, one every "interval-ms" (below the ECUs' S3 of 5 s).
void read_sessions(json_object *sessions, SessionKeeping *keeping) {
    if (sessions == nullptr)
        return;
    keeping->keep = millis_member(sessions, "keep-ms", Millis(30000), "sessions.keep-ms");
    keeping->interval =
        millis_member(sessions, "interval-ms", keeping->interval, "sessions.interval-ms");
    if (keeping->interval < Millis(100) || keeping->interval > Millis(4000))
        throw std::runtime_error(
            "\"sessions.interval-ms\" must be 100 to 4000 (ECUs end a session after 5 s)");
    const std::string message = text_of(sessions, "tester-present", "sessions");
    if (!message.empty() && (!parse_hex_bytes(message.c_str(), &keeping->tester_present) ||
                             keeping->tester_present.empty()))
        throw std::runtime_error("\"sessions.tester-present\" must be hex bytes (\"3E 80\")");
}

}  // namespace

AgentSettings AgentSettings::from_json(const std::string &text) {
    JsonPtr root(json_tokener_parse(text.c_str()));
    if (!root || !json_object_is_type(root.get(), json_type_object))
        throw std::runtime_error("the agent settings are not a JSON object");
    AgentSettings settings;
    read_doip(member(root.get(), "doip", json_type_object, "doip"), &settings);
    read_timing(member(root.get(), "uds", json_type_object, "uds"), &settings.timing);
    read_can(member(root.get(), "can", json_type_object, "can"), &settings.can);
    read_canfd(member(root.get(), "canfd", json_type_object, "canfd"), &settings.canfd_ecus);
    read_j1939(member(root.get(), "j1939", json_type_object, "j1939"), &settings.j1939);
    read_gateway(member(root.get(), "gateway", json_type_object, "gateway"), &settings.gateway);
    read_keys(member(root.get(), "key-algorithms", json_type_object, "key-algorithms"),
              &settings.key_algorithms);
    read_all_ecus(member(root.get(), "all-ecus", json_type_object, "all-ecus"), &settings);
    read_power_mode(member(root.get(), "power-mode", json_type_object, "power-mode"),
                    &settings.power_mode);
    read_sessions(member(root.get(), "sessions", json_type_object, "sessions"), &settings.sessions);
    return settings;
}

const DoipGatewayPolicy &AgentSettings::doip_policy(const std::string &host) const {
    auto own = doip_gateways.find(host);
    return own != doip_gateways.end() ? own->second : doip;
}

void AgentSettings::learn_ecus(const std::string &config_text) {
    JsonPtr root(json_tokener_parse(config_text.c_str()));
    json_object *configs = nullptr;
    if (!root || !json_object_object_get_ex(root.get(), "configs", &configs) ||
        !json_object_is_type(configs, json_type_array)) {
        throw std::runtime_error("the ECU configuration has no \"configs\" array");
    }
    for (size_t i = 0; i < json_object_array_length(configs); ++i) {
        json_object *entry = json_object_array_get_idx(configs, i);
        const char *name = nullptr;
        const char *address = nullptr;
        const char *request_id = nullptr;
        json_object *value = nullptr;
        if (json_object_object_get_ex(entry, "name", &value))
            name = json_object_get_string(value);
        if (json_object_object_get_ex(entry, "targetAddress", &value))
            address = json_object_get_string(value);
        for (const char *block : {"can", "ioc"}) {
            json_object *transport = nullptr;
            if (json_object_object_get_ex(entry, block, &transport) &&
                json_object_object_get_ex(transport, "phy-req-id", &value)) {
                request_id = json_object_get_string(value);
            }
        }
        json_object *doip = nullptr;
        if (json_object_object_get_ex(entry, "doip", &doip) &&
            json_object_is_type(doip, json_type_object)) {
            doip_ecus.push_back({name != nullptr ? name : "",
                                 json_object_to_json_string_ext(doip, JSON_C_TO_STRING_PLAIN)});
        }
        uint32_t target = 0;
        const char *type = uoztools::text_member(entry, "type");
        if (name != nullptr && type != nullptr && strcmp(type, "CANFD") == 0 &&
            parse_hex_number(address, &target))
            canfd_names.emplace(target, name);
        if (name == nullptr || request_id == nullptr || !parse_hex_number(address, &target))
            continue;
        ecus_by_request_id.emplace(request_id, KnownEcu{name, static_cast<int32_t>(target)});
    }
}

}  // namespace uozagent
