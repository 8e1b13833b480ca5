#include "cert_index.h"

#include <utility>

namespace CM {

namespace {

std::uint64_t ObjectHash(std::uint64_t token, std::string_view id, std::string_view der) {
    constexpr std::uint64_t kOddMultiplier = 0x9E3779B97F4A7C15;
    const std::hash<std::string_view> hash;
    return ((token * kOddMultiplier) ^ hash(id)) * kOddMultiplier ^ hash(der);
}

}  // namespace

TokenObjectKey::TokenObjectKey(const PKCS11::TokenInfo& on_token, const PKCS11::CertObject& object)
    : token(on_token.id), id(object.id), der(object.value), hash(ObjectHash(token, id, der)) {}

bool TokenObjectKey::Equals(const X509Cert& cert) const {
    return cert.token.id == token && cert.info.id == id && cert.rawCert == der;
}

CertIndex::CertIndex(const std::vector<X509Cert*>& certs) {
    using Text = std::optional<std::string_view>;
    by_subject_.Build(certs.size(), [&](std::size_t i) { return Text(certs[i]->info.subject); });
    by_key_id_.Build(certs.size(), [&](std::size_t i) {
        const std::string& key_id = certs[i]->facts().subjectKeyIdHex;
        return key_id.empty() ? Text() : Text(key_id);
    });
    by_address_.Build(certs.size(), [&](std::size_t i) { return std::optional<const X509Cert*>(certs[i]); });
    by_object_.Build(certs.size(), [&](std::size_t i) {
        const X509Cert& cert = *certs[i];
        return std::optional(ObjectHash(cert.token.id, cert.info.id, cert.rawCert));
    });
}

CrlIndex::CrlIndex(std::vector<CrlRef> crls) : crls_(std::move(crls)) {
    by_issuer_.Build(crls_.size(),
                     [&](std::size_t i) { return std::optional<std::string_view>(crls_[i]->info.issuer); });
}

}  // namespace CM
