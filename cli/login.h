// PINs of tokens.
#pragma once

#include <string>
#include <vector>

#include "arguments/arguments.h"
#include "cli/session.h"
#include "cli/store/records.h"
#include "platform/base.h"

namespace certmgrctl {

/// --token, and --pin-file for commands that work on private objects.
void AddTokenOption(arguments::Command& command, std::string& token);
void AddPinOption(arguments::Command& command, std::string& pin_file);

/// The token as it is now: what a list carries may be older than the last login. As it was when it is gone.
TokenInfo Refreshed(Context& context, const TokenInfo& token);

/// "PIN of token "label"".
std::string PinQuestion(const TokenInfo& token);
/// The user's, of the file or as it is typed.
vpnfc::SecretString ReadPin(const std::string& pin_file, const TokenInfo& token);

/// Logs in to a token that asks for it, with the PIN of the file or the one that is typed. Does nothing when there is
/// neither a file nor somebody to ask: the daemon may know the PIN.
void LogInIfNeeded(Context& context, const TokenInfo& token, const std::string& pin_file);

/// Failure (kExitUsage) when the PIN of one file would go to several tokens: each would count a wrong one.
void RequireOneToken(const std::vector<TokenInfo>& tokens, const std::string& option, const std::string& pin_file);

/// A Failure that says what to do, unless the PIN was taken.
void RequireTaken(const certmgr_client::PinReply& reply, const TokenInfo& token);

/// Likewise, when the token asks for a login and nobody is logged in.
void RequireLogin(Context& context, const TokenInfo& token, const std::string& what);

/// What a command could not do because nobody is logged in.
Failure NotLoggedIn(const std::string& what, const TokenInfo& token);

}  // namespace certmgrctl
