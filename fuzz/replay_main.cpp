// Runs a fuzz target once on every input of the corpus directories (or
// files) given, without libFuzzer: the seeds and the findings kept in
// fuzz/corpus become regression tests of the ordinary test build.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

std::vector<std::filesystem::path> inputs_of(const std::filesystem::path &path) {
    std::vector<std::filesystem::path> inputs;
    if (std::filesystem::is_directory(path)) {
        for (const auto &entry : std::filesystem::directory_iterator(path)) {
            if (entry.is_regular_file())
                inputs.push_back(entry.path());
        }
        std::sort(inputs.begin(), inputs.end());
    } else if (std::filesystem::is_regular_file(path)) {
        inputs.push_back(path);
    }
    return inputs;
}

}  // namespace

int main(int argc, char **argv) {
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto &input : inputs_of(argv[i])) {
            std::ifstream file(input, std::ios::binary);
            std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)),
                                       std::istreambuf_iterator<char>());
            printf("%s (%zu bytes)\n", input.c_str(), bytes.size());
            fflush(stdout);
            // An exact-size heap buffer, as libFuzzer passes it.
            std::vector<uint8_t> exact(bytes.begin(), bytes.end());
            LLVMFuzzerTestOneInput(exact.empty() ? nullptr : exact.data(), exact.size());
            ++count;
        }
    }
    printf("%zu inputs replayed\n", count);
    return count > 0 ? 0 : 1;  // an empty or missing corpus is a mistake
}
