// What must hold for any bytes that are read as a CRL.
#pragma once

#include <string>
#include <string_view>

namespace fuzz {

/// Reads the bytes with the engine, which must be started, and with libcrypto, which is stricter in nothing, and compares
/// what both found. Returns what does not hold; empty when all does.
std::string CrlProblem(std::string_view bytes);

}  // namespace fuzz
