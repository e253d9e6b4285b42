// Feeds arbitrary bytes, of arbitrary length and without a terminating NUL,
// to the handler of incoming bus messages, as a hostile peer could send them.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "UDSOverZelko/config.h"
#include "UDSOverZelko/exchange.h"
#include "fuzz_handle.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static UDSOverZelkoHandle *handle = uozfuzz::offline_handle();
    // An exact-size copy, so that reading past `size` is caught.
    std::vector<char> message(data, data + size);
    kt5bus_address source{};
    source.kind = KT5BUS_ADDR_UA;
    source.value.name = const_cast<char *>("/ZDATA/UDS");
    on_bus_message(size > 0 ? message.data() : nullptr, size, &source, handle);
    uozfuzz::drain_replies(handle);
    return 0;
}
