// What every fuzz target is made of.
//
// A target is one file, fuzz/NAME.cpp, with the one function below; its seeds are the files in fuzz/corpus/NAME/. It is
// built twice: with libFuzzer in the fuzz preset (scripts/fuzz NAME SECONDS), and in every build with tests as the test
// "fuzz.NAME", which replays the seeds and small changes of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

/// Takes any bytes, and ends the process when a property does not hold.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

/// Ends the process unless the problem is empty.
inline void Require(const std::string& problem) {
    if (problem.empty()) return;
    std::fprintf(stderr, "fuzz: %s\n", problem.c_str());
    std::abort();
}

}  // namespace fuzz
