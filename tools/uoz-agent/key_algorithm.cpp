#include "key_algorithm.h"

#include <dlfcn.h>

#include <stdexcept>

namespace uozagent {

namespace {

using ComputeKey = int (*)(uint8_t, const uint8_t *, size_t, uint8_t *, size_t *);
constexpr size_t kMaxKeyLength = 64;

}  // namespace

KeyAlgorithm plugin_key_algorithm(const std::string &path) {
    void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
        throw std::runtime_error("cannot load key algorithm " + path + ": " + dlerror());
    auto compute = reinterpret_cast<ComputeKey>(dlsym(library, "uoz_compute_key"));
    if (compute == nullptr) {
        dlclose(library);
        throw std::runtime_error("key algorithm " + path + " has no uoz_compute_key");
    }
    return [compute, path](uint8_t level, const Bytes &seed, Bytes *key, std::string *error) {
        uint8_t buffer[kMaxKeyLength];
        size_t length = sizeof(buffer);
        if (compute(level, seed.data(), seed.size(), buffer, &length) != 0 ||
            length > sizeof(buffer)) {
            *error = "key algorithm " + path + " has no key for level " + std::to_string(level);
            return false;
        }
        key->assign(buffer, buffer + length);
        return true;
    };
}

KeyAlgorithms::KeyAlgorithms() : fallback_(builtin_key_algorithm()) {}

void KeyAlgorithms::set(uint8_t level, KeyAlgorithm algorithm) {
    by_level_[level] = std::move(algorithm);
}

bool KeyAlgorithms::compute(uint8_t level, const Bytes &seed, Bytes *key,
                            std::string *error) const {
    auto found = by_level_.find(level);
    const KeyAlgorithm &algorithm = found != by_level_.end() ? found->second : fallback_;
    return algorithm(level, seed, key, error);
}

}  // namespace uozagent
