// Where the socket of the management bridge stands unless it is named.
#pragma once

#include <string>

#include "platform/api.h"

namespace bridge {

/// Where a daemon of this user serves: /run/certmgr/certmgr.sock for root, else certmgr/certmgr.sock in the user's
/// runtime directory ($XDG_RUNTIME_DIR), or state directory where there is none. Empty when the user has no home either.
PLATFORM_API std::string DefaultSocketPath();

/// Where a client looks: the socket of the user's own daemon if there is one, else the system's.
PLATFORM_API std::string DefaultClientSocketPath();

}  // namespace bridge
