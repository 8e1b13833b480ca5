// The [[rule]] tables of a settings file.
#pragma once

#include <string_view>
#include <vector>

#include "platform/params/toml_reader.h"
#include "platform/policy/rules.h"

namespace LPCFG {

/// Reads the list of rules. What is wrong is an error; a rule, or a part of it, that can never match is a warning.
void ReadRules(const settings::Value& list, Rules& rules);

/// The keys of a rule, of a certificate pattern and of an identity.
std::vector<std::string_view> RuleKeys();
std::vector<std::string_view> PatternKeys();
std::vector<std::string_view> IdentityKeys();

}  // namespace LPCFG
