// The outermost frame of a program.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <exception>

namespace vpnhost {

/// Runs a program. What it throws becomes a line on standard error and the exit code `failure`.
template <typename Body>
int RunProgram(const char* name, int failure, Body body) noexcept {
    try {
        return body();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", name, error.what());
    } catch (...) {
        std::fprintf(stderr, "%s: unknown failure\n", name);
    }
    return failure;
}

/// Ends a process in which something runs on that nobody can end: nothing is taken away from under it.
[[noreturn]] inline void LeaveAtOnce(int code) noexcept {
    std::fflush(nullptr);
    std::_Exit(code);
}

}  // namespace vpnhost
