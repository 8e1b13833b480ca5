#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

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

/// Makes the folder, for its owner alone, if it is not there. One that is there must be like that already: who could
/// read it has read it.
bool MakePrivateFolder(const fs::path& folder, std::string& error) {
    std::error_code code;
    fs::create_directories(folder.parent_path(), code);
    if (!code && mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) code.assign(errno, std::generic_category());
    struct stat status {};
    if (!code && stat(folder.c_str(), &status) != 0) code.assign(errno, std::generic_category());
    std::string reason;
    if (code) {
        reason = code.message();
    } else if (!S_ISDIR(status.st_mode)) {
        reason = "is not a directory";
    } else if (status.st_uid != geteuid()) {
        reason = "belongs to another user";
    } else if ((status.st_mode & 077) != 0) {
        reason = "can be read or written by others; its mode must be 0700";
    }
    if (!reason.empty()) error = folder.string() + ": " + reason;
    return reason.empty();
}

}  // namespace

bool PrepareSoftHsm(const std::string& folder, std::string& error) {
    if (!fs::path(folder).is_absolute()) {
        error = folder + ": the state directory's path must be absolute";
        return false;
    }
    const fs::path base(folder);
    const fs::path token_folder = base / "tokens";
    const fs::path configuration = base / "softhsm2.conf";
    if (!MakePrivateFolder(base, error) || !MakePrivateFolder(token_folder, error)) return false;
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
