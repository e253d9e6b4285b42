// The built-in key algorithm: the one the ECU simulator checks, for a 4-byte
// big-endian seed.
#include "key_algorithm.h"
#include "uds.h"

namespace uozagent {

KeyAlgorithm builtin_key_algorithm() {
    return [](uint8_t level, const Bytes &seed, Bytes *key, std::string *error) {
        if (seed.size() != uozuds::kBuiltinSeedLength) {
            *error = "the built-in key algorithm takes a " +
                     std::to_string(uozuds::kBuiltinSeedLength) + "-byte seed, the ECU sent " +
                     std::to_string(seed.size()) +
                     " (configure a key algorithm plug-in for level " + std::to_string(level) + ")";
            return false;
        }
        uint32_t value =
            static_cast<uint32_t>(seed[0]) << 24 | seed[1] << 16 | seed[2] << 8 | seed[3];
        uint32_t computed = uozuds::builtin_key(level, value);
        *key = {static_cast<uint8_t>(computed >> 24), static_cast<uint8_t>(computed >> 16),
                static_cast<uint8_t>(computed >> 8), static_cast<uint8_t>(computed)};
        return true;
    };
}

}  // namespace uozagent
