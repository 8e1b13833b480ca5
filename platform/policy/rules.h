// Policy rules, the side of the program that hosts them: the [[rule]] tables of the settings.
#pragma once

#include <list>
#include <string_view>

#include "platform/api.h"
#include "platform/policy.h"

namespace LPCFG {

/// The rules in the order of the settings. A copy is independent of its original.
struct PLATFORM_API Rules {
    std::list<auth_ike_t> list{};

    /// The first rule of that name, or null. Valid as long as this object is not changed.
    const auth_ike_t* find(std::string_view name) const;
};

}  // namespace LPCFG
