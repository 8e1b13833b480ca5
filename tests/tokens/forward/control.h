// Writes the control file of the forwarding PKCS #11 module, see forward_pkcs11.cpp for its directives.
//
//     const forward::Control control(directory / "control");
//     settings.providers = {{.name = "forward", .module_path = FORWARD_PKCS11_PATH, .init_args = control.InitArgs()}};
//     control.Set({"hide one", "fail C_Sign CKR_DEVICE_ERROR"});
//     control.Set({});
//
// Programs that cannot pass arguments to the module take the path from the environment: FORWARD_PKCS11_CONTROL.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace forward {

class Control {
  public:
    explicit Control(std::filesystem::path path) : path_(std::move(path)) { Set({}); }

    const std::filesystem::path& path() const { return path_; }
    std::string InitArgs() const { return "control=" + path_.string(); }

    /// Replaces all directives.
    void Set(const std::vector<std::string>& directives) const {
        const std::filesystem::path next = path_.string() + ".next";
        std::ofstream file(next, std::ios::trunc);
        for (const std::string& directive : directives) file << directive << '\n';
        file.close();
        std::filesystem::rename(next, path_);
    }

    /// Calls of a function since "trace FUNCTION" was set first.
    int Calls(const std::string& function) const {
        int count = 0;
        std::ifstream file(path_.string() + ".trace");
        for (std::string line; std::getline(file, line);) count += line.starts_with(function + " ") ? 1 : 0;
        return count;
    }

  private:
    std::filesystem::path path_;
};

}  // namespace forward
