// Files that the person names: what is imported, and what is exported.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base.h"

namespace certmgrctl {

/// The content of a file, or of standard input ("-"). Failure: kExitUsage.
vpnfc::SecretString ReadWholeFile(const std::string& path);

/// The parts of a file that the daemon takes one at a time: each PEM block of a text that has several, else the whole.
/// Views into the content.
std::vector<std::string_view> PartsOf(std::string_view content);

enum class Access : unsigned char {
    kOthersMayRead,
    kOwnerOnly,  // mode 0600
};

/// Failure (kExitFailed) when the file is there and shall not be replaced: asked before anything is done for it.
void RequireAbsent(const std::string& path, bool force);

/// A file that is written whole or not at all. Made before what cannot be made twice is: where no file can be made, the
/// constructor already is a Failure (kExitFailed).
class OutputFile {
  public:
    OutputFile(const std::string& path, Access access, bool force);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void Write(std::string_view content) const;

  private:
    class Temporary;
    std::string path_;
    Access access_;
    bool force_;
    std::unique_ptr<Temporary> temporary_;
};

/// Writes what was produced to the file, or to standard output when `path` is empty or "-"; binary data not to a terminal.
void WriteResult(const std::string& path, std::string_view content, Access access, bool force);

}  // namespace certmgrctl
