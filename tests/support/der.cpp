#include "tests/support/der.h"

#include <openssl/objects.h>

#include <stdexcept>

#include "libcrypto/libcrypto.h"

namespace der {

std::string Tlv(std::uint8_t tag, std::string_view content) {
    std::string out(1, static_cast<char>(tag));
    const std::size_t length = content.size();
    if (length < 0x80) {
        out += static_cast<char>(length);
    } else {
        std::string bytes;
        for (std::size_t rest = length; rest != 0; rest >>= 8) bytes.insert(bytes.begin(), static_cast<char>(rest));
        out += static_cast<char>(0x80 | bytes.size());
        out += bytes;
    }
    return out.append(content);
}

std::string Integer(std::uint64_t value) {
    std::string bytes;
    do {
        bytes.insert(bytes.begin(), static_cast<char>(value));
        value >>= 8;
    } while (value != 0);
    if ((bytes.front() & 0x80) != 0) bytes.insert(bytes.begin(), '\0');
    return IntegerBytes(bytes);
}

std::string Oid(const std::string& text) {
    const libcrypto::ObjectPtr object(OBJ_txt2obj(text.c_str(), 0));
    if (object == nullptr) throw std::invalid_argument("not an object identifier: " + text);
    const auto* data = reinterpret_cast<const char*>(OBJ_get0_data(object.get()));
    return Tlv(0x06, std::string_view(data, OBJ_length(object.get())));
}

}  // namespace der
