// Files and folders: what is read has a limit, what is private is private.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "platform/api.h"
#include "platform/base.h"

namespace vpnfc {

/// Room for that many bytes. What moves leaves nothing behind.
PLATFORM_API void Reserve(SecretString& text, std::size_t bytes);

enum class ReadResult : std::uint8_t { kRead, kTooLong, kFailed };  // kFailed: see errno

/// Reads what is left of a file into `content`, waiting for a pipe's writer.
PLATFORM_API ReadResult ReadToEnd(int fd, std::size_t max_bytes, SecretString& content);

/// Reads a line without its end (LF or CRLF), and no byte beyond it. `any`: the input had not ended already.
PLATFORM_API ReadResult ReadLine(int fd, std::size_t max_bytes, SecretString& line, bool& any);

/// Of which files a secret is taken.
enum class SecretFile : std::uint8_t {
    kOwn,  // regular, of this user, no link: what settings name
    kAny,  // pipes, too: what the user of a program names
};
/// The first line, up to any line end, of a file that nobody else can read or write; it may be empty. False, with a text that begins with the
/// path.
PLATFORM_API bool ReadSecretLine(const std::string& path, SecretFile kind, std::size_t max_bytes, SecretString& line,
                                 std::string& error);

/// False with errno.
PLATFORM_API bool WriteAll(int fd, std::string_view content);

/// Makes a folder and its parents unless it is there; what it is then goes into `status`. False with the reason.
PLATFORM_API bool MakeFolder(const std::filesystem::path& folder, mode_t mode, struct stat& status, std::string& error);
/// Likewise, mode 0700. One that is there must be like that already: who could read it has read it.
PLATFORM_API bool MakePrivateFolder(const std::filesystem::path& folder, std::string& error);

/// Where the programs keep their state: /var/lib/certmgr for root, else certmgr in the user's state folder
/// ($XDG_STATE_HOME, ~/.local/state). Absolute; empty when the user has no home.
PLATFORM_API std::string StateFolder();

/// The value of a variable that holds an absolute path, else empty; empty in a program with raised rights.
PLATFORM_API std::string PathFromEnvironment(const char* variable);

}  // namespace vpnfc
