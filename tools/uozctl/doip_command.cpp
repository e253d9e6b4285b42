// uozctl doip discover: the vehicle's DoIP entities, found over UDP on the
// vehicle network itself. Needs no broker, no certificates and no ECU
// configuration.
#include <stdio.h>
#include <unistd.h>

#include <algorithm>

#include "commands.h"
#include "discovery.h"
#include "exit_codes.h"

namespace uozctl {

namespace {

// Shows on a terminal how long discovery has run and what it found so far.
class DiscoveryProgress {
  public:
    DiscoveryProgress() : shown_(isatty(STDERR_FILENO) != 0) {}
    ~DiscoveryProgress() {
        if (shown_ && ticks_ > 0) {
            fprintf(stderr, "\r\033[K");
            fflush(stderr);
        }
    }
    void show(uozdoip::Millis elapsed, size_t found) {
        static const char kSpin[] = "|/-\\";
        if (!shown_)
            return;
        fprintf(stderr, "\r%c discovering DoIP entities... %.1f s, %zu found ", kSpin[ticks_++ % 4],
                static_cast<double>(elapsed.count()) / 1000.0, found);
        fflush(stderr);
    }

  private:
    bool shown_;
    unsigned ticks_ = 0;
};

// The identification request of --vin or --eid (plain without either);
// false with *error for a value that is neither.
bool identification_request(const DiscoverRequest &request, uozdoip::VehicleIdRequest *out,
                            std::string *error) {
    if (!request.vin.empty()) {
        out->payload_type = uozdoip::payload::kVehicleIdRequestByVin;
        if (uozdoip::parse_vin(request.vin, &out->filter))
            return true;
        *error = "--vin: \"" + request.vin + "\" is not a VIN (17 letters and digits)";
        return false;
    }
    if (!request.eid.empty()) {
        out->payload_type = uozdoip::payload::kVehicleIdRequestByEid;
        if (uozdoip::parse_eid(request.eid, &out->filter))
            return true;
        *error =
            "--eid: \"" + request.eid + "\" is not an EID (6 bytes: 12 hex digits, colons allowed)";
        return false;
    }
    return true;
}

}  // namespace

CLI::App *add_doip_commands(CLI::App &app, DiscoverRequest *request) {
    auto *doip = app.add_subcommand("doip", "talk to the vehicle's DoIP entities directly");
    doip->require_subcommand(1);
    auto *discover = doip->add_subcommand(
        "discover",
        "find the vehicle's DoIP entities over UDP (vehicle identification, announcements), "
        "with their status and power mode. Talks to the vehicle network directly: needs no "
        "broker, certificates or --config");
    discover
        ->add_option("--to", request->to,
                     "where the identification request goes, ADDR[:PORT] (default "
                     "255.255.255.255:13400, the limited broadcast; a directed broadcast such as "
                     "192.168.0.255 or one entity's address also work); may be repeated")
        ->type_name("ADDR[:PORT]");
    auto *vin = discover->add_option("--vin", request->vin, "only the vehicle with this VIN")
                    ->type_name("VIN");
    discover->add_option("--eid", request->eid, "only the entity with this EID (020000001000)")
        ->type_name("EID")
        ->excludes(vin);
    discover->add_option("--wait", request->wait_ms, "how long answers and announcements count")
        ->type_name("MS")
        ->check(CLI::Range(1, 60000))
        ->capture_default_str();
    discover
        ->add_option("--announce-port", request->announce_port,
                     "UDP port on which announcements are heard (0: none)")
        ->type_name("PORT")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    discover->footer(
        "Exit codes: 0 entities found, 1 cannot open or send on the network, 2 invalid input, "
        "3 no entity answered within --wait.\n\n"
        "Examples:\n"
        "  uozctl doip discover\n"
        "  uozctl doip discover --to 192.168.0.255 --vin WZL00000000000001\n"
        "  uozctl --json doip discover --to 127.0.0.1:13400 --wait 500");
    return discover;
}

int run_doip_discover(const Context &context, const DiscoverRequest &request) {
    const Output &output = context.output;
    uozdoip::DiscoveryOptions options;
    std::string error;
    if (!identification_request(request, &options.request, &error))
        return output.fail(uoztools::kExitInvalidInput, error);
    if (!request.to.empty())
        options.send_to = request.to;
    options.announcement_port = static_cast<uint16_t>(request.announce_port);
    options.wait = uozdoip::Millis(request.wait_ms);
    uozdoip::Discovery discovery;
    if (!discovery.open(options, &error))
        return output.fail(uoztools::kExitCannotStart, error);
    bool sent = false;
    {
        DiscoveryProgress progress;
        sent = discovery.collect(
            [&](const std::vector<uozdoip::DiscoveredEntity> &found, uozdoip::Millis elapsed) {
                progress.show(elapsed, found.size());
                return false;
            },
            &error);
    }
    if (!sent)
        return output.fail(uoztools::kExitCannotStart, error);
    for (const std::string &warning : discovery.warnings())
        output.warn(warning);
    if (discovery.entities().empty()) {
        return output.fail(uoztools::kExitNoReply, "no DoIP entity answered within " +
                                                       std::to_string(request.wait_ms) + " ms");
    }
    discovery.read_entity_info(std::min(options.wait, uozdoip::kControlTime));
    std::vector<uozdoip::DiscoveredEntity> entities = discovery.entities();
    std::sort(entities.begin(), entities.end(), [](const auto &a, const auto &b) {
        return std::make_tuple(a.identity.logical_address, a.from.host, a.from.port) <
               std::make_tuple(b.identity.logical_address, b.from.host, b.from.port);
    });
    output.doip_entities(entities);
    return uoztools::kExitOk;
}

}  // namespace uozctl
