#include "tokens/gost/object_file.h"

#include "tokens/gost/sealing.h"

namespace gost_token {
namespace {

constexpr std::string_view kPublicMagic = "certmgr GOST public object 1\n";
constexpr std::string_view kPrivateMagic = "certmgr GOST private object 1\n";

/// No less than what surrounds the attributes in either form.
constexpr std::size_t kFrameBytes = 256;

std::string Purpose(std::string_view magic, const ObjectPlace& place) {
    return std::string(magic).append(place.serial).append(place.file_name);
}

std::string PublicChecksum(std::string_view body, const ObjectPlace& place) {
    return Checksum(Purpose(kPublicMagic, place).append(body));
}

Readable DecodePublic(std::string_view body, const ObjectPlace& place, Attributes& object) {
    if (body.size() < kChecksumBytes) return Readable::kDamaged;
    const std::string_view checksum = body.substr(body.size() - kChecksumBytes);
    body.remove_suffix(kChecksumBytes);
    if (PublicChecksum(body, place) != checksum || !Attributes::Decode(body, object)) return Readable::kDamaged;
    return object.Flag(CKA_PRIVATE) ? Readable::kDamaged : Readable::kYes;
}

Readable DecodePrivate(std::string_view body, const ObjectPlace& place, const vpnfc::SecretString& key,
                       Attributes& object) {
    if (key.empty()) return Readable::kLocked;
    vpnfc::SecretString plain;
    const bool good =
        Unseal(key, Purpose(kPrivateMagic, place), body, plain) && Attributes::Decode(plain.get(), object);
    return good && object.Flag(CKA_PRIVATE) ? Readable::kYes : Readable::kDamaged;
}

}  // namespace

std::string EncodeObject(const Attributes& object, const ObjectPlace& place, const vpnfc::SecretString& token_key) {
    const vpnfc::SecretString body = object.Encode();
    Require(body.get().size() <= kMaxObjectFileBytes - kFrameBytes, CKR_DEVICE_MEMORY);
    if (object.Flag(CKA_PRIVATE)) {
        return std::string(kPrivateMagic).append(Seal(token_key, Purpose(kPrivateMagic, place), body.get()));
    }
    return std::string(kPublicMagic).append(body.get()).append(PublicChecksum(body.get(), place));
}

Readable DecodeObject(std::string_view content, const ObjectPlace& place, const vpnfc::SecretString& token_key,
                      Attributes& object) {
    if (content.starts_with(kPublicMagic)) {
        return DecodePublic(content.substr(kPublicMagic.size()), place, object);
    }
    if (content.starts_with(kPrivateMagic)) {
        return DecodePrivate(content.substr(kPrivateMagic.size()), place, token_key, object);
    }
    return Readable::kDamaged;
}

}  // namespace gost_token
