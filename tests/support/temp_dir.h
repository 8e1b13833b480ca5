// A temporary directory that goes away with everything in it.
//
//     const test_support::TempDir dir;
//     std::ofstream(dir / "settings.toml") << "...";
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
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

  private:
    std::filesystem::path path_;
};

}  // namespace test_support
