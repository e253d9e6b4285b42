// Key algorithms for SecurityAccess, chosen by level. The built-in one is the
// ECU simulator's; others come from plug-ins: a shared object that exports
//
//   extern "C" int uoz_compute_key(uint8_t level, const uint8_t *seed,
//                                  size_t seed_length, uint8_t *key,
//                                  size_t *key_length);
//
// which writes the key for the seed of that level into key (*key_length holds
// its room on entry and the key's length on return) and returns 0, or
// anything else when it has no key.
#ifndef UOZ_TOOLS_AGENT_KEY_ALGORITHM_H
#define UOZ_TOOLS_AGENT_KEY_ALGORITHM_H

#include <stdint.h>

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "uds_requests.h"

namespace uozagent {

// False with *error when there is no key for the seed.
using KeyAlgorithm =
    std::function<bool(uint8_t level, const Bytes &seed, Bytes *key, std::string *error)>;

KeyAlgorithm builtin_key_algorithm();
// Loads a plug-in; throws std::runtime_error when the file or its
// uoz_compute_key cannot be loaded. The object stays loaded for the process.
KeyAlgorithm plugin_key_algorithm(const std::string &path);

class KeyAlgorithms {
  public:
    // Levels without an algorithm of their own use the built-in one.
    KeyAlgorithms();
    void set(uint8_t level, KeyAlgorithm algorithm);
    bool compute(uint8_t level, const Bytes &seed, Bytes *key, std::string *error) const;

  private:
    KeyAlgorithm fallback_;
    std::map<uint8_t, KeyAlgorithm> by_level_;
};

}  // namespace uozagent

#endif
