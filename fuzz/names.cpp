// Names: what is printed reads as an equal name, and what is read prints as an equal name. The input is taken as DER and as
// text.
#include <cstddef>
#include <cstdint>

#include "fuzz/target.h"
#include "platform/asn1.h"

namespace {

std::string DerProblem(const std::string& der) {
    std::string printed;
    std::string read;
    std::string again;
    if (!asn_dn_to_printable(der, printed)) return "";
    if (!printable_to_asn_dn(printed, read)) return "a printed name is not read: " + printed;
    if (!asn_dn_to_printable(read, again)) return "a name that was read is not printed: " + printed;
    return printable_dn_equal(printed, again) ? "" : printed + " became " + again;
}

std::string TextProblem(const std::string& text) {
    std::string der;
    std::string printed;
    if (!printable_to_asn_dn(text, der)) return "";
    if (!asn_dn_to_printable(der, printed)) return "a name that was read is not printed: " + text;
    if (!printable_dn_equal(text, printed)) return text + " became " + printed;
    return printable_dn_contain_attrs(printed, text) ? "" : printed + " does not contain " + text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    fuzz::Require(DerProblem(input));
    fuzz::Require(TextProblem(input));
    return 0;
}
