// Names: what is printed reads as an equal name, and what is read prints as an equal name. The input is taken as DER and as
// text.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "fuzz/target.h"
#include "libcrypto/libcrypto.h"
#include "platform/asn1.h"

namespace {

libcrypto::NamePtr ByLibcrypto(const std::string& der) {
    return libcrypto::Decode<X509_NAME_free>(d2i_X509_NAME, der);
}

/// Whether libcrypto takes both for one name, where it reads both and knows all string types as text (not NumericString).
bool IsOneToLibcrypto(const std::string& der, const std::string& other) {
    const libcrypto::NamePtr one = ByLibcrypto(der);
    const libcrypto::NamePtr two = ByLibcrypto(other);
    const bool judged = one != nullptr && two != nullptr && der.find('\x12') == std::string::npos;
    return !judged || X509_NAME_cmp(one.get(), two.get()) == 0;
}

bool IsControl(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

std::string DerProblem(const std::string& der) {
    std::string printed;
    std::string read;
    std::string again;
    if (!asn_dn_to_printable(der, printed)) return "";
    if (std::any_of(printed.begin(), printed.end(), IsControl)) return "a control character in " + printed;
    if (!printable_to_asn_dn(printed, read)) return "a printed name is not read: " + printed;
    if (!asn_dn_to_printable(read, again)) return "a name that was read is not printed: " + printed;
    if (!IsOneToLibcrypto(der, read)) return printed + " is another name to libcrypto";
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
