// Arbitrary bytes as a DoIP TCP stream, fed to the frame reader in chunks
// whose sizes the input chooses; every message is parsed by each payload
// parser, and a message the reader gives back must re-encode to the bytes it
// came from.
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <vector>

#include "doip.h"

namespace {

void parse_everything(const uozdoip::Message &message) {
    uozdoip::parse_routing_activation_request(message);
    uozdoip::parse_routing_activation_response(message);
    uozdoip::parse_diagnostic_message(message);
    uozdoip::parse_diagnostic_ack(message);
    uozdoip::parse_generic_nack(message);
    uozdoip::parse_alive_check_response(message);
    uozdoip::parse_vehicle_id_request(message);
    if (auto announcement = uozdoip::parse_vehicle_announcement(message)) {
        if (uozdoip::encode(*announcement, message.version).size() != 8 + message.payload.size())
            abort();
    }
    uozdoip::payload_type_name(message.payload_type);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2)
        return 0;
    // First byte: chunk size (0: the whole rest at once); second: the cap.
    const size_t chunk = data[0];
    const uint32_t cap = data[1] < 128 ? data[1] : uozdoip::kDefaultMaxPayload;
    std::vector<uint8_t> stream(data + 2, data + size);  // exact size: over-reads are caught
    uozdoip::FrameReader reader(cap, data[1] & 1);
    uozdoip::Message message;
    size_t fed = 0;
    size_t consumed = 0;
    while (fed < stream.size()) {
        size_t step = chunk == 0 ? stream.size() - fed : std::min(chunk, stream.size() - fed);
        reader.feed(stream.data() + fed, step);
        fed += step;
        for (;;) {
            uozdoip::FrameReader::Result result = reader.next(message);
            if (result == uozdoip::FrameReader::Result::kMessage) {
                std::vector<uint8_t> again = uozdoip::encode_message(message);
                if (consumed + again.size() > stream.size() ||
                    !std::equal(again.begin(), again.end(), stream.begin() + consumed))
                    abort();  // the reader gave back bytes other than those it was fed
                consumed += again.size();
                parse_everything(message);
            } else if (result == uozdoip::FrameReader::Result::kTooLarge) {
                consumed += uozdoip::kHeaderSize + reader.bad_header().payload_length;
            } else {
                break;
            }
        }
        if (reader.buffered() > stream.size())
            abort();
    }
    return 0;
}
