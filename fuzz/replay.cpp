// SPDX-License-Identifier: Apache-2.0
// Runs a fuzzer's target on every file of the directories named: inputs that once failed, and some
// that together reach all its code.
#include "Input.h"

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

int main(int argc, char** argv) {
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        for (auto const& entry : std::filesystem::directory_iterator(argv[i])) {
            std::cout << entry.path().filename().string() << std::endl; // before it fails
            std::ifstream in(entry.path(), std::ios::binary);
            std::vector<std::uint8_t> const bytes{std::istreambuf_iterator<char>(in), {}};
            LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
            ++count;
        }
    }
    std::cout << count << " inputs\n";
    return count > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
