#include "platform/policy/rules.h"

#include <algorithm>

namespace LPCFG {

const auth_ike_t* Rules::find(std::string_view name) const {
    const auto found =
        std::find_if(list.begin(), list.end(), [name](const auth_ike_t& rule) { return rule.name == name; });
    return found == list.end() ? nullptr : &*found;
}

}  // namespace LPCFG
