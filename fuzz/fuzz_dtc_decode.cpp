// Arbitrary bytes as a ReadDTCInformation response, decoded and rendered as
// text and JSON as uozctl shows them.
#include <json-c/json.h>
#include <stdint.h>

#include <vector>

#include "dtc_decode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<uint8_t> bytes(data, data + size);  // exact size: over-reads are caught
    uozctl::DtcReport report = uozctl::decode_dtc_response(bytes.data(), bytes.size());
    uozctl::report_to_text(report);
    json_object_put(uozctl::report_to_json(report));
    return 0;
}
