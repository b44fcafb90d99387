// SPDX-License-Identifier: Apache-2.0
// Runs a fuzz target's entry point over files, so the seed corpus runs as
// an ordinary test in every build (libFuzzer itself is only linked into the
// fuzzing build).

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static int runFile(const std::filesystem::path &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return 1;
    }
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    return 0;
}

int main(int argc, char **argv) {
    int failures = 0, inputs = 0;
    for (int i = 1; i < argc; i++) {
        std::filesystem::path path(argv[i]);
        if (std::filesystem::is_directory(path)) {
            for (const auto &entry : std::filesystem::directory_iterator(path)) {
                if (!entry.is_regular_file()) continue;
                failures += runFile(entry.path());
                inputs++;
            }
        } else {
            failures += runFile(path);
            inputs++;
        }
    }
    std::printf("%d inputs replayed\n", inputs);
    return failures == 0 && inputs > 0 ? 0 : 1;
}
