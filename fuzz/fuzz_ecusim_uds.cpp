// Arbitrary UDS requests for a simulated ECU of the example vehicle: a
// sequence of requests (each a length byte and its bytes) answered by one
// server, as a tester on the simulator's DoIP connection would send them.
// Every answer must be a well-formed positive or negative response to its
// request.
#include <stdint.h>
#include <stdlib.h>

#include <vector>

#include "uds_server.h"
#include "vehicle.h"
#include "vehicle_default.h"

namespace {

const uozecusim::VehicleFile &vehicle() {
    static const uozecusim::VehicleFile parsed = uozecusim::parse_vehicle(kDefaultVehicle);
    return parsed;
}

void check(const std::vector<uint8_t> &request, const uozecusim::UdsAnswer &answer) {
    const std::vector<uint8_t> &response = answer.response;
    if (response.empty())
        abort();
    if (response[0] == 0x7F) {
        if (response.size() != 3 || (!request.empty() && response[1] != request[0]) ||
            answer.suppressed)
            abort();
        return;
    }
    if (request.empty() || response[0] != static_cast<uint8_t>(request[0] + 0x40))
        abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1)
        return 0;
    const auto &ecus = vehicle().ecus;
    uozecusim::ServerSettings settings;
    uozecusim::EcuServer server(ecus[data[0] % ecus.size()], settings, [] { return 0x12345678u; });
    auto now = uozecusim::Clock::time_point{} + std::chrono::hours(1);
    size_t at = 1;
    while (at < size) {
        size_t length = data[at++];
        length = std::min(length, size - at);
        std::vector<uint8_t> request(data + at, data + at + length);  // exact size
        at += length;
        now += std::chrono::milliseconds(length * 100);  // time moves on, past S3 at times
        check(request, server.handle(request.data(), request.size(), now));
    }
    return 0;
}
