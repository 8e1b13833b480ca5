// Replays the seeds of a target, in place of libFuzzer: replay FOLDER. Each is run as it is, cut at every byte and with
// every bit turned, of large ones at a sample of the places.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/target.h"

namespace {

constexpr std::size_t kPlaces = 2000;  // where one seed is changed

void Run(const std::string& input) {
    // Behind a block of exactly its size the address sanitizer sees reads beyond the end.
    const std::vector<std::uint8_t> bytes(input.begin(), input.end());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

void RunWithChanges(const std::string& seed) {
    Run(seed);
    const std::size_t step = std::max<std::size_t>(1, seed.size() / kPlaces);
    for (std::size_t at = 0; at < seed.size(); at += step) {
        Run(seed.substr(0, at));
        for (unsigned bit = 0; bit < 8; ++bit) {
            std::string changed = seed;
            changed[at] = static_cast<char>(changed[at] ^ (1U << bit));
            Run(changed);
        }
    }
}

std::string Contents(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " FOLDER\n";
        return 2;
    }
    std::size_t seeds = 0;
    for (const auto& file : std::filesystem::directory_iterator(argv[1])) {
        RunWithChanges(Contents(file.path()));
        ++seeds;
    }
    std::cout << seeds << " seeds\n";
    return seeds != 0 ? 0 : 1;
}
