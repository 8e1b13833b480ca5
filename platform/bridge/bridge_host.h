// Management bridge, the side of the program that hosts it: where clients connect, who may, and what they may use.
//
//     bridge::Settings settings;
//     settings.socket_path = "/run/certmgr/certmgr.sock";
//     std::string error;
//     if (!bridge::Start(settings, error)) ...
//     ...
//     bridge::Stop();
//
// One thread does the I/O; commands run on threads of their own, those of one session in order. Start, Apply and Stop are
// called by one thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/api.h"

namespace bridge {

/// What must fit beside a frame among the bytes that wait.
inline constexpr std::uint32_t kRoomBesideFrame = 4096;

struct Settings {
    std::string socket_path{};  // absolute; a missing folder is made
    std::uint32_t socket_mode = 0600;
    /// Who may connect beside root and the user of the process: user numbers, and groups one of which they are in.
    std::vector<std::uint32_t> users{};
    std::vector<std::uint32_t> groups{};
    std::uint32_t max_frame_bytes = 80U << 20;  // room for 64 MiB of file content
    /// What may wait to be sent to one client; at least a frame and
    /// kRoomBesideFrame. One that lets more come up is dropped.
    std::uint64_t max_pending_bytes = 128ULL << 20;
    std::uint32_t max_sessions = 64;
    /// How long a client may take none of what is sent to it, or say nothing at the beginning, before it is dropped.
    std::chrono::milliseconds stall_limit{30000};
    std::string program{};  // name and version, told to clients
};

/// Opens the socket and serves it. The socket file of a server that is gone is replaced. False, with nothing started,
/// when another server lives there, when the path cannot be used, or the settings are wrong.
PLATFORM_API bool Start(const Settings& settings, std::string& error);

/// Brings the running server to other limits and users; sessions that are open stay. The socket stays where it is. False,
/// with nothing changed, when the settings are wrong.
PLATFORM_API bool Apply(const Settings& settings, std::string& error);

/// Takes no more clients and commands, fails the open questions, waits for the commands that run and lets their answers
/// out, then closes everything. Harmless when not started.
PLATFORM_API void Stop();

/// Clients that are connected.
PLATFORM_API std::size_t SessionCount();

}  // namespace bridge
