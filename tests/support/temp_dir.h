// A temporary directory that goes away with everything in it.
//
//     const test_support::TempDir dir;
//     dir.Write("settings.toml", "...");
#pragma once

#include <filesystem>
#include <string>

namespace test_support {

class TempDir {
  public:
    /// Mode 0700, under TMPDIR or /tmp. Throws std::system_error.
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    /// Makes a file, mode 0600, with the folders above it; who reads it meanwhile sees the old one or the new one. Throws
    /// std::runtime_error.
    void Write(const std::string& name, const std::string& content) const;
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

  private:
    std::filesystem::path path_;
};

}  // namespace test_support
