// SPDX-License-Identifier: Apache-2.0
// Runs a fuzzer's target on every file of a directory: inputs that once failed, and some that reach
// all its code. Then on random inputs, with consecutive seeds:
//     replay_buffers CORPUS [INPUTS [FIRST-SEED]]
#include "Input.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>
#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace {

void run(std::string const& name, std::vector<std::uint8_t> const& bytes) {
    fuzz::place = {name.c_str()};
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

// Bytes of memory in use, as far as they can be told.
std::size_t memoryInUse() {
#ifdef __GLIBC__
    return ::mallinfo2().uordblks;
#else
    return 0;
#endif
}

} // namespace

int main(int argc, char** argv) {
    auto const number = [&](int i, unsigned otherwise) {
        return argc > i ? static_cast<unsigned>(std::stoul(argv[i])) : otherwise;
    };
    unsigned const inputs = number(2, 5000);
    unsigned const first = number(3, 0);
    std::signal(SIGSEGV, [](int) { // reported by nothing else
        std::cerr << fuzz::place << ": invalid memory access" << std::endl;
        std::_Exit(EXIT_FAILURE);
    });
    std::set_terminate([] {
        std::cerr << fuzz::place << ": terminated" << std::endl;
        std::abort();
    });
    std::size_t files = 0;
    for (auto const& entry : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream in(entry.path(), std::ios::binary);
        run(entry.path().filename().string(), {std::istreambuf_iterator<char>(in), {}});
        ++files;
    }
    std::size_t const before = memoryInUse();
    for (unsigned seed = first; seed < first + inputs; ++seed) {
        std::mt19937 random(seed);
        std::vector<std::uint8_t> bytes(random() % 1000);
        std::ranges::generate(bytes, [&] { return static_cast<std::uint8_t>(random()); });
        run("seed " + std::to_string(seed), bytes);
    }
    std::size_t const kept = 1 << 20;          // by malloc, of what was freed
    SAME(memoryInUse() < before + kept, true); // or there is a leak
    std::cout << files << " kept inputs, " << inputs << " random ones\n";
    return files > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
