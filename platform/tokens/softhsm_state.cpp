#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/base/files.h"
#include "platform/tokens/token_host.h"

namespace tokens {
namespace {

namespace fs = std::filesystem;

/// Where distributions put the module.
constexpr const char* kModulePaths[] = {
    "/usr/lib/softhsm/libsofthsm2.so",
    "/usr/lib64/pkcs11/libsofthsm2.so",
    "/usr/local/lib/softhsm/libsofthsm2.so",
};

}  // namespace

bool PrepareSoftHsm(const std::string& folder, std::string& error) {
    if (!fs::path(folder).is_absolute()) {
        error = folder + ": the state directory's path must be absolute";
        return false;
    }
    const fs::path base(folder);
    const fs::path token_folder = base / "tokens";
    const fs::path configuration = base / "softhsm2.conf";
    if (!vpnfc::MakePrivateFolder(base, error) || !vpnfc::MakePrivateFolder(token_folder, error)) return false;
    std::ofstream file(configuration, std::ios::trunc);
    file << "directories.tokendir = " << token_folder.string() << "\n"
         << "objectstore.backend = file\n"
         << "log.level = ERROR\n";
    file.close();
    if (!file) {
        error = configuration.string() + ": cannot be written";
        return false;
    }
    if (setenv("SOFTHSM2_CONF", configuration.c_str(), 1) != 0) {
        error = "the environment cannot be changed";
        return false;
    }
    return true;
}

std::string SoftHsmModulePath() {
    for (const char* const path : kModulePaths) {
        std::error_code error;
        if (fs::exists(path, error)) return path;
    }
    return {};
}

}  // namespace tokens
