// uoz-ecusim: a DoIP entity with the vehicle file's ECUs behind one gateway
// address, each a UDS server, the CAN ECUs also on CAN buses (--can), and
// switches that make it misbehave on demand.
//
//   uoz-ecusim [--listen ADDR:PORT] [--vehicle FILE] [--tls DIR] [--entity ADDR:PORT,LOGICAL[,EID]]
//              [--announce-to ADDR:PORT|none] [--power-mode MODE] [--can IFNAME] [--trace]
//              [switches]
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include <CLI/CLI.hpp>
#include <array>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <thread>

#include "announcer.h"
#include "can_side.h"
#include "command_line.h"
#include "doip_entity.h"
#include "entity_info.h"
#include "exit_codes.h"
#include "files.h"
#include "flow_control.h"
#include "terminal.h"
#include "vehicle.h"
#include "vehicle_default.h"

namespace {

// Every entity the process serves, for the signal handler; set before the
// handler is installed and left alone while it may run.
std::vector<uozecusim::DoipEntity *> g_entities;
std::vector<uozecusim::CanSide *> g_can_sides;

void request_stop(int) {
    for (uozecusim::CanSide *side : g_can_sides)
        side->stop();
    for (uozecusim::DoipEntity *entity : g_entities)
        entity->stop();
}

// "0x7E1" or "7E1"; CLI::ValidationError for anything else.
uint32_t parse_hex(const std::string &text, uint32_t max, const std::string &what) {
    size_t at = text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0 ? 2 : 0;
    if (at >= text.size() || text.size() - at > 8 ||
        text.find_first_not_of("0123456789abcdefABCDEF", at) != std::string::npos)
        throw CLI::ValidationError(what, "\"" + text + "\" is not a hex number");
    uint32_t value = static_cast<uint32_t>(strtoul(text.c_str() + at, nullptr, 16));
    if (value > max)
        throw CLI::ValidationError(what, "\"" + text + "\" is too large");
    return value;
}

uint32_t parse_count(const std::string &text, const std::string &what) {
    if (text.empty() || text.size() > 9 ||
        text.find_first_not_of("0123456789") != std::string::npos)
        throw CLI::ValidationError(what, "\"" + text + "\" is not a number");
    return static_cast<uint32_t>(strtoul(text.c_str(), nullptr, 10));
}

// "TARGET:VALUE" pairs of the --nack and --slow switches.
std::pair<std::string, std::string> split_pair(const std::string &text, const std::string &what) {
    size_t colon = text.find(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size())
        throw CLI::ValidationError(what, "\"" + text + "\" is not TARGET:VALUE");
    return {text.substr(0, colon), text.substr(colon + 1)};
}

// "1,3,5": request numbers, counted from 1 over the simulator's lifetime.
std::set<uint64_t> parse_numbers(const std::string &text, const std::string &what) {
    std::set<uint64_t> numbers;
    std::stringstream list(text);
    std::string item;
    while (std::getline(list, item, ',')) {
        uint32_t number = parse_count(item, what);
        if (number == 0)
            throw CLI::ValidationError(what, "requests are counted from 1");
        numbers.insert(number);
    }
    return numbers;
}

// "ready", "not-ready", "not-supported" or the byte in hex.
uint8_t parse_power_mode(const std::string &text) {
    const std::map<std::string, uint8_t> names = {
        {"ready", uozdoip::power_mode::kReady},
        {"not-ready", uozdoip::power_mode::kNotReady},
        {"not-supported", uozdoip::power_mode::kNotSupported}};
    auto named = names.find(text);
    if (named != names.end())
        return named->second;
    try {
        return static_cast<uint8_t>(parse_hex(text, 0xFF, "--power-mode"));
    } catch (const CLI::ValidationError &) {
        throw CLI::ValidationError("--power-mode", "\"" + text +
                                                       "\" is not ready, not-ready, "
                                                       "not-supported or a hex byte");
    }
}

// A further entity of the vehicle: where it listens, its logical address and
// its EID (by default the vehicle's EID ending in the logical address).
struct ExtraEntity {
    std::string listen;
    uint16_t logical_address = 0;
    std::optional<std::array<uint8_t, 6>> eid;
};

ExtraEntity parse_entity(const std::string &text) {
    const std::string form = "\"" + text + "\" is not ADDR:PORT,LOGICAL[,EID]";
    std::vector<std::string> parts;
    std::stringstream list(text);
    for (std::string part; std::getline(list, part, ',');)
        parts.push_back(part);
    if (parts.size() < 2 || parts.size() > 3)
        throw CLI::ValidationError("--entity", form);
    ExtraEntity entity;
    entity.listen = parts[0];
    entity.logical_address = static_cast<uint16_t>(parse_hex(parts[1], 0xFFFF, "--entity"));
    std::string host;
    uint16_t port = 0;
    if (!uozdoip::split_host_port(entity.listen.c_str(), uozdoip::kDefaultPort, host, port))
        throw CLI::ValidationError("--entity", form);
    std::vector<uint8_t> eid;
    if (parts.size() == 3) {
        if (!uozdoip::parse_eid(parts[2], &eid))
            throw CLI::ValidationError("--entity",
                                       "\"" + parts[2] + "\" is not an EID (12 hex digits)");
        entity.eid.emplace();
        std::copy(eid.begin(), eid.end(), entity.eid->begin());
    }
    return entity;
}

// The vehicle as a further entity serves it: its own logical address and
// EID. Throws std::runtime_error when the address is taken.
uozecusim::VehicleFile entity_vehicle(uozecusim::VehicleFile vehicle, const ExtraEntity &entity,
                                      const std::set<uint16_t> &taken) {
    char address[8];
    snprintf(address, sizeof(address), "0x%04X", entity.logical_address);
    if (taken.count(entity.logical_address) != 0)
        throw std::runtime_error("--entity " + entity.listen + ": logical address " + address +
                                 " is taken by an ECU, the functional address or another entity");
    vehicle.gateway_address = entity.logical_address;
    if (entity.eid) {
        vehicle.eid = *entity.eid;
    } else {
        vehicle.eid[4] = static_cast<uint8_t>(entity.logical_address >> 8);
        vehicle.eid[5] = static_cast<uint8_t>(entity.logical_address);
    }
    return vehicle;
}

// Every entity of the process, bound: the vehicle's own gateway first.
std::vector<std::unique_ptr<uozecusim::DoipEntity>> make_entities(
    const uozecusim::VehicleFile &vehicle, const uozecusim::EntitySettings &settings,
    const std::vector<ExtraEntity> &extra) {
    std::set<uint16_t> taken = {vehicle.gateway_address, vehicle.functional_address};
    for (const uozecusim::SimulatedEcu &ecu : vehicle.ecus)
        taken.insert(ecu.logical_address);
    std::vector<std::unique_ptr<uozecusim::DoipEntity>> entities;
    entities.push_back(std::make_unique<uozecusim::DoipEntity>(vehicle, settings));
    for (const ExtraEntity &entity : extra) {
        uozecusim::EntitySettings own = settings;
        uozdoip::split_host_port(entity.listen.c_str(), uozdoip::kDefaultPort, own.host, own.port);
        entities.push_back(
            std::make_unique<uozecusim::DoipEntity>(entity_vehicle(vehicle, entity, taken), own));
        taken.insert(entity.logical_address);
    }
    for (const auto &entity : entities)
        entity->bind();
    return entities;
}

// The announcers of the entities, started: to --announce-to, or where
// default_announce_target() says.
std::vector<std::unique_ptr<uozecusim::Announcer>> start_announcing(
    const std::vector<std::unique_ptr<uozecusim::DoipEntity>> &entities, const std::string &to) {
    std::vector<std::unique_ptr<uozecusim::Announcer>> announcers;
    for (const auto &entity : entities) {
        std::optional<std::string> target =
            to.empty() ? uozecusim::default_announce_target(entity->settings().host)
                       : std::optional<std::string>(to);
        if (!target || *target == "none")
            continue;
        announcers.push_back(std::make_unique<uozecusim::Announcer>(*entity, *target));
        announcers.back()->start();
    }
    return announcers;
}

struct Switches {
    std::string listen = "127.0.0.1:13400";
    std::string vehicle_path;
    std::vector<std::string> entities;
    std::string announce_to;
    std::string power_mode;
    std::vector<std::string> nack;
    std::vector<std::string> slow;
    std::string deny_routing;
    std::string drop_after;
    std::string drop_mid;
    std::string cut_answer;
    std::string bad_version;
    std::string tls_dir;
    std::vector<std::string> can_interfaces;
    std::string can_padding = "0xCC";
    std::string can_st_min = "0x00";
    std::string can_block_size = "0x00";
    std::vector<std::string> no_flow_control;
    std::vector<std::string> stop_mid_answer;
};

// The CAN switches; CLI::ValidationError for a value out of range.
uozecusim::CanServing can_serving_from(const Switches &switches) {
    uozecusim::CanServing serving;
    if (switches.can_padding == "none")
        serving.padding.reset();
    else
        serving.padding =
            static_cast<uint8_t>(parse_hex(switches.can_padding, 0xFF, "--can-padding"));
    uint32_t st_min = parse_hex(switches.can_st_min, 0xFFFF, "--can-st-min");
    std::string problem = uozcan::st_min_problem(st_min);
    if (!problem.empty())
        throw CLI::ValidationError("--can-st-min", problem);
    serving.st_min = static_cast<uint8_t>(st_min);
    serving.block_size = static_cast<uint8_t>(
        parse_hex(switches.can_block_size, uozcan::kLargestBlockSize, "--can-block-size"));
    for (const std::string &target : switches.no_flow_control)
        serving.no_flow_control.insert(
            static_cast<uint16_t>(parse_hex(target, 0xFFFF, "--no-flow-control")));
    for (const std::string &target : switches.stop_mid_answer)
        serving.stop_mid_answer.insert(
            static_cast<uint16_t>(parse_hex(target, 0xFFFF, "--stop-mid-answer")));
    return serving;
}

uozecusim::EntitySettings settings_from(const Switches &switches,
                                        uozecusim::EntitySettings settings) {
    if (!uozdoip::split_host_port(switches.listen.c_str(), uozdoip::kDefaultPort, settings.host,
                                  settings.port))
        throw CLI::ValidationError("--listen", "\"" + switches.listen + "\" is not ADDR:PORT");
    uozecusim::Misbehaviour &misbehave = settings.misbehave;
    for (const std::string &item : switches.nack) {
        auto [target, code] = split_pair(item, "--nack");
        misbehave.nack[static_cast<uint16_t>(parse_hex(target, 0xFFFF, "--nack"))] =
            static_cast<uint8_t>(parse_hex(code, 0xFF, "--nack"));
    }
    for (const std::string &item : switches.slow) {
        auto [target, delay] = split_pair(item, "--slow");
        uint32_t ms = parse_count(delay, "--slow");
        if (target == "all")
            misbehave.slow_all = ms;
        else
            misbehave.slow[static_cast<uint16_t>(parse_hex(target, 0xFFFF, "--slow"))] = ms;
    }
    if (!switches.deny_routing.empty()) {
        uint32_t code = parse_hex(switches.deny_routing, 0xFF, "--deny-routing");
        if (code > uozdoip::routing::kDeniedTlsRequired)
            throw CLI::ValidationError("--deny-routing", "\"" + switches.deny_routing +
                                                             "\" is not a denial code (0x00-0x07)");
        misbehave.deny_routing = static_cast<uint8_t>(code);
    }
    if (!switches.tls_dir.empty()) {
        settings.tls.enabled = true;
        settings.tls.files.certificate = switches.tls_dir + "/cert.pem";
        settings.tls.files.private_key = switches.tls_dir + "/private.pem";
    } else if (settings.tls.required || !settings.tls.files.ca.empty()) {
        throw CLI::ValidationError("--tls", "--require-tls and --tls-ca need --tls DIR");
    }
    if (!switches.drop_after.empty())
        misbehave.drop_after = parse_numbers(switches.drop_after, "--drop-after");
    if (!switches.drop_mid.empty())
        misbehave.drop_mid = parse_numbers(switches.drop_mid, "--drop-mid");
    if (!switches.cut_answer.empty())
        misbehave.cut_answer = parse_numbers(switches.cut_answer, "--cut-answer");
    if (!switches.bad_version.empty())
        misbehave.bad_version = parse_numbers(switches.bad_version, "--bad-version");
    if (!switches.power_mode.empty())
        settings.power_mode = parse_power_mode(switches.power_mode);
    if (!switches.announce_to.empty() && switches.announce_to != "none" &&
        !uozecusim::Announcer::valid_target(switches.announce_to))
        throw CLI::ValidationError("--announce-to",
                                   "\"" + switches.announce_to + "\" is not ADDR:PORT or none");
    return settings;
}

void add_switches(CLI::App &app, Switches &switches, uozecusim::EntitySettings &settings) {
    uozecusim::Misbehaviour &misbehave = settings.misbehave;
    app.add_option("--listen", switches.listen, "TCP and UDP address (port 0: any free port)")
        ->type_name("ADDR:PORT")
        ->capture_default_str();
    app.add_option("--vehicle", switches.vehicle_path, "vehicle file (default: built-in)")
        ->type_name("FILE");
    app.add_flag("--trace", settings.trace, "print each request and response per ECU");
    app.add_option("--tls", switches.tls_dir,
                   "serve DoIP over TLS too, with DIR/cert.pem and DIR/private.pem (made by "
                   "'uoz-pki doip-entity')")
        ->type_name("DIR");
    app.add_option("--tls-port", settings.tls.port, "TLS port (0: any free port)")
        ->type_name("PORT")
        ->capture_default_str();
    app.add_option("--tls-ca", settings.tls.files.ca,
                   "ask testers for a certificate from this CA; central security activation "
                   "(0xE0) needs one")
        ->type_name("FILE");
    app.add_flag("--require-tls", settings.tls.required,
                 "deny routing activation on the plain port with 0x07 (TLS required)");
    app.add_option("--entity", switches.entities,
                   "one more DoIP entity of the vehicle on ADDR:PORT (same VIN, GID and ECUs), "
                   "with its own logical address and EID (default: the vehicle's EID ending in "
                   "LOGICAL); may be repeated")
        ->type_name("ADDR:PORT,LOGICAL[,EID]");
    app.add_option("--announce-to", switches.announce_to,
                   "where the 3 vehicle announcements go at start (default: the broadcast "
                   "address of the listening interface, port 13400; none on loopback)")
        ->type_name("ADDR:PORT|none");
    app.add_option("--power-mode", switches.power_mode,
                   "answer to the power mode request: ready (default), not-ready, not-supported "
                   "or a hex byte")
        ->type_name("MODE");
    app.add_option("--can", switches.can_interfaces,
                   "serve the vehicle's CAN ECUs (those with a \"phy-resp-id\") on this CAN "
                   "interface too, over ISO-TP on their ids and the functional id "
                   "(\"func-addr\", default 0x7DF), and its J1939 ECUs (those with a "
                   "\"j1939\" member) over J1939; may be repeated")
        ->type_name("IFNAME");
    app.add_option("--can-padding", switches.can_padding,
                   "the byte that fills every CAN frame sent to 8 bytes, or none")
        ->type_name("BYTE|none")
        ->capture_default_str();
    app.add_option("--can-st-min", switches.can_st_min,
                   "separation time the ECUs ask of a sender in their flow control "
                   "(0x00-0x7F ms, 0xF1-0xF9 100-900 us)")
        ->type_name("HEX")
        ->capture_default_str();
    app.add_option("--can-block-size", switches.can_block_size,
                   "frames the ECUs take before their next flow control (0x00: all)")
        ->type_name("HEX")
        ->capture_default_str();
    app.add_option("--s3", settings.uds.s3_ms, "S3 session timeout")
        ->type_name("MS")
        ->capture_default_str();
    app.add_option("--idle-close", settings.general_inactivity_ms,
                   "close a connection that nothing came over for MS (DoIP's general "
                   "inactivity time)")
        ->type_name("MS")
        ->capture_default_str();
    app.add_option("--security-delay", settings.uds.security_delay_ms,
                   "lock-out after too many invalid keys")
        ->type_name("MS")
        ->capture_default_str();
    auto *group = "Misbehaviour";
    app.add_flag("--coalesce", misbehave.coalesce, "write the ACK and the answer in one write")
        ->group(group);
    app.add_flag("--split", misbehave.split, "write every message byte by byte")->group(group);
    app.add_flag("--no-ack", misbehave.no_ack, "never acknowledge a diagnostic message")
        ->group(group);
    app.add_flag("--ack-after-answer", misbehave.ack_after_answer, "send the answer before its ACK")
        ->group(group);
    app.add_option("--pending", misbehave.pending_count,
                   "send N response-pending (0x78) before every answer")
        ->check(CLI::Range(0, 1000))
        ->type_name("N")
        ->group(group);
    app.add_option("--pending-interval", misbehave.pending_interval_ms,
                   "time between response-pending messages and before the answer")
        ->type_name("MS")
        ->capture_default_str()
        ->group(group);
    app.add_option("--drop-after", switches.drop_after,
                   "close the connection after answering these requests (1,3: counted from 1)")
        ->type_name("LIST")
        ->group(group);
    app.add_option("--drop-mid", switches.drop_mid,
                   "close the connection after ACKing these requests, without answering")
        ->type_name("LIST")
        ->group(group);
    app.add_option("--cut-answer", switches.cut_answer,
                   "send half of the answer to these requests, then close the connection")
        ->type_name("LIST")
        ->group(group);
    app.add_option("--bad-version", switches.bad_version,
                   "answer these requests with a wrong protocol version pair")
        ->type_name("LIST")
        ->group(group);
    app.add_option("--nack", switches.nack, "NACK every message to TARGET with CODE (0x7E1:0x06)")
        ->type_name("TARGET:CODE")
        ->group(group);
    app.add_option("--deny-routing", switches.deny_routing,
                   "answer routing activation with this code (0x00-0x07) and close")
        ->type_name("CODE")
        ->group(group);
    app.add_option("--confirm-routing", misbehave.confirm_routing_ms,
                   "answer routing activation with 0x11 (confirmation required) first, and "
                   "with success MS later")
        ->type_name("MS")
        ->group(group);
    app.add_option("--slow", switches.slow, "delay TARGET's answers by MS (0x7E1:500, all:500)")
        ->type_name("TARGET:MS")
        ->group(group);
    app.add_option("--no-flow-control", switches.no_flow_control,
                   "CAN: TARGET never acknowledges a segmented request (no flow control); may "
                   "be repeated")
        ->type_name("TARGET")
        ->group(group);
    app.add_option("--stop-mid-answer", switches.stop_mid_answer,
                   "CAN: TARGET sends only the first frame of a segmented answer; may be repeated")
        ->type_name("TARGET")
        ->group(group);
    app.add_option("--alive-check", misbehave.alive_check_idle_ms,
                   "send an alive check to a tester idle for MS; close if it does not answer")
        ->type_name("MS")
        ->group(group);
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{
        "ECU simulator: the vehicle file's ECUs behind one DoIP gateway (or several "
        "entities), each a UDS server; with --can, its CAN ECUs on a CAN bus too.\n"
        "Exit codes: 0 stopped by SIGINT/SIGTERM, 1 cannot start, 2 invalid usage"};
    app.set_version_flag("--version", std::string("uoz-ecusim ") + uoztools::project_version());
    Switches switches;
    uozecusim::EntitySettings settings;
    add_switches(app, switches, settings);
    app.footer(
        "CAN ECUs are those whose vehicle file entry has a \"phy-resp-id\"; each --can "
        "interface carries all of them.\n\n"
        "Examples:\n"
        "  uoz-ecusim --trace\n"
        "  uoz-ecusim --can vcan0 --can-st-min 0x05 --can-block-size 0x02 --trace\n"
        "  uoz-ecusim --can vcan0 --slow 0x7E0:1500 --stop-mid-answer 0x7E1");
    uoztools::footer_only_at_top(app);
    if (int rc = uoztools::parse_command_line(app, argc, argv, "uoz-ecusim"); rc >= 0)
        return rc;
    std::vector<ExtraEntity> extra;
    uozecusim::CanServing can_serving;
    try {
        settings = settings_from(switches, settings);
        can_serving = can_serving_from(switches);
        for (const std::string &text : switches.entities)
            extra.push_back(parse_entity(text));
    } catch (const CLI::ParseError &error) {
        fprintf(stderr, "uoz-ecusim: %s (see uoz-ecusim --help)\n", error.what());
        return uoztools::kExitInvalidInput;
    }

    std::vector<std::unique_ptr<uozecusim::DoipEntity>> entities;
    std::vector<std::unique_ptr<uozecusim::Announcer>> announcers;
    std::vector<std::unique_ptr<uozecusim::CanSide>> can_sides;
    try {
        std::string text = switches.vehicle_path.empty()
                               ? std::string(kDefaultVehicle)
                               : uoztools::read_text_file(switches.vehicle_path);
        uozecusim::VehicleFile vehicle;
        try {
            vehicle = uozecusim::parse_vehicle(text);
        } catch (const std::runtime_error &error) {
            throw std::runtime_error(
                (switches.vehicle_path.empty() ? "built-in vehicle" : switches.vehicle_path) +
                ": " + error.what());
        }
        entities = make_entities(vehicle, settings, extra);
        for (const std::string &ifname : switches.can_interfaces) {
            can_sides.push_back(
                std::make_unique<uozecusim::CanSide>(ifname, *entities[0], can_serving));
            can_sides.back()->start();
        }
    } catch (const std::exception &error) {
        fprintf(stderr, "uoz-ecusim: %s\n", error.what());
        return uoztools::kExitCannotStart;
    }

    for (const auto &entity : entities)
        g_entities.push_back(entity.get());
    for (const auto &side : can_sides)
        g_can_sides.push_back(side.get());
    struct sigaction action {};
    action.sa_handler = request_stop;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);

    for (const auto &entity : entities)
        printf("uoz-ecusim: %s\n", entity->listening_text().c_str());
    for (const auto &side : can_sides)
        printf("uoz-ecusim: %s\n", side->listening_text().c_str());
    fflush(stdout);
    announcers = start_announcing(entities, switches.announce_to);

    std::vector<std::thread> others;
    for (size_t i = 1; i < entities.size(); ++i)
        others.emplace_back(&uozecusim::DoipEntity::run, entities[i].get());
    entities[0]->run();
    for (std::thread &other : others)
        other.join();
    announcers.clear();
    can_sides.clear();
    printf("uoz-ecusim: stopped\n");
    return uoztools::kExitOk;
}
