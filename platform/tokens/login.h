// Logging in and out. No PIN is tried twice after it failed, and none when the token says that few tries are left,
// unless a person wants it.
#pragma once

#include <functional>

#include "platform/tokens/object_writer.h"
#include "platform/tokens/token.h"

namespace tokens {

/// Logs the user in; kDone at once when that is the state already. Why a PIN was not tried, and device trouble, are
/// logged. An empty PIN is for PIN pads.
PinResult LoginUser(const TokenPtr& token, const vpnfc::SecretString& pin, FewTries few_tries);
bool LogoutUser(const TokenPtr& token);
PinResult ChangeUserPin(const TokenPtr& token, const vpnfc::SecretString& old_pin, const vpnfc::SecretString& new_pin,
                        FewTries few_tries);

PinResult ChangeOfficerPin(const TokenPtr& token, const vpnfc::SecretString& old_pin,
                           const vpnfc::SecretString& new_pin, FewTries few_tries);
/// The security officer sets a new PIN for the user.
PinResult ResetUserPin(const TokenPtr& token, const vpnfc::SecretString& officer_pin,
                       const vpnfc::SecretString& new_pin, FewTries few_tries);

/// Runs `work` while the security officer is logged in, then logs them out. A user that was logged in is logged out
/// before, and in again after when their PIN stands in a file. `work` owns everything it touches. `pin_result` other than
/// kDone: not run.
CreateOutcome RunAsSecurityOfficer(const TokenPtr& token, const vpnfc::SecretString& pin,
                                   std::function<CreateOutcome(Session&)> work, PinResult& pin_result,
                                   FewTries few_tries = FewTries::kRefuse);

}  // namespace tokens
