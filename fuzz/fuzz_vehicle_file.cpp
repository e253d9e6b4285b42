// Arbitrary text as a vehicle file for the ECU simulator; a file that is
// accepted must also serve every ReadDTCInformation report of each ECU.
#include <stdint.h>

#include <stdexcept>
#include <string>

#include "dtc_reports.h"
#include "read_dtc.h"
#include "vehicle.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string text(reinterpret_cast<const char *>(data), size);
    uozecusim::VehicleFile vehicle;
    try {
        vehicle = uozecusim::parse_vehicle(text);
    } catch (const std::runtime_error &) {
        return 0;
    }
    for (const uozecusim::SimulatedEcu &ecu : vehicle.ecus) {
        for (const uozuds::DtcReportType &type : uozuds::dtc_reports()) {
            std::vector<uint8_t> request(uozuds::dtc_request_length(type), 0xFF);
            request[0] = 0x19;
            request[1] = type.number;
            uozecusim::read_dtc_response(ecu, request.data(), request.size());
        }
    }
    return 0;
}
