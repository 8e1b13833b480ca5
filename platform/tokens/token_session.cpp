#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <algorithm>

#include "certmgr/records.h"
#include "libcrypto/libcrypto.h"
#include "platform/tokens/key_codec.h"
#include "platform/tokens/session_impl.h"

namespace PKCS11 {

using tokens::Session;
using vpnfc::SecretString;

namespace {

/// Making a key pair takes slow tokens minutes.
constexpr unsigned kKeyPairPatience = 30;

bool IsUsable(const std::string& id) {
    return !id.empty();
}

std::string_view WithoutLeadingZeros(std::string_view text) {
    return text.substr(std::min(text.find_first_not_of('0'), text.size()));
}

/// Whether a serial number, DER, has that text: the hexadecimal digits of the magnitude after its sign, long ones broken
/// into lines with backslashes.
bool IsSerialNumber(std::string_view serial, std::string text) {
    const auto number = libcrypto::Decode<ASN1_INTEGER_free>(d2i_ASN1_INTEGER, serial);
    if (number == nullptr) return false;
    const bool negative = ASN1_STRING_type(number.get()) == V_ASN1_NEG_INTEGER;
    if (negative != text.starts_with('-')) return false;
    std::erase_if(text, [](char c) { return c == '-' || c == '\\' || c == '\n'; });
    std::string hex;
    asn_bytes_to_upper_hex({reinterpret_cast<const char*>(ASN1_STRING_get0_data(number.get())),
                            static_cast<std::size_t>(ASN1_STRING_length(number.get()))},
                           hex);
    return WithoutLeadingZeros(hex) == WithoutLeadingZeros(text);
}

/// Whether the record describes this certificate. One that does not parse is known by its identifier alone.
bool Describes(const CertInfo& info, const std::string& certificate) {
    std::string_view issuer;
    std::string_view serial;
    if (!tokens::ReadIssuerAndSerial(certificate, issuer, serial)) return IsUsable(info.id);
    std::string printable;
    return asn_dn_to_printable(issuer, printable) && printable == info.issuer &&
           IsSerialNumber(serial, info.serialNumber);
}

/// PKCS #8 out of its encryption. Empty, which is no key, when the password is wrong or the encoding is.
SecretString Decrypt(const EncryptedPrivateKey& key) {
    const auto encrypted = libcrypto::Decode<X509_SIG_free>(d2i_X509_SIG, key.encryptedKeyInfoDer);
    if (encrypted == nullptr) return {};
    const std::string& password = key.password.get();
    const libcrypto::Pkcs8Ptr info(PKCS8_decrypt(encrypted.get(), password.data(), static_cast<int>(password.size())));
    if (info == nullptr) return {};
    return SecretString(libcrypto::Encode(info.get(), i2d_PKCS8_PRIV_KEY_INFO));
}

using SharedSecret = std::shared_ptr<const SecretString>;

SharedSecret Share(std::string_view secret) {
    return std::make_shared<const SecretString>(secret);
}

/// Moves a secret out without leaving a copy.
bool TakeSecret(tokens::SecretOutcome outcome, std::string& secret) {
    if (!outcome.secret.has_value()) return false;
    vpnfc::SecureWipe(secret);
    secret.swap(outcome.secret->edit());
    return true;
}

}  // namespace

TokenSession::TokenSession(const TokenInfo& token, OpenType type, const std::string* pin, Logger* logger)
    : impl_(std::make_unique<Impl>(token, type, pin, logger)) {}

TokenSession::~TokenSession() = default;

bool TokenSession::opened() const {
    return impl_->session != nullptr;
}

bool TokenSession::loginFailed() const {
    return impl_->login_failed;
}

bool TokenSession::securityOfficerRequired() const {
    return impl_->officer_required;
}

bool TokenSession::EnumCertificates(std::list<CertObject>& certificates) {
    if (!opened()) return false;
    const auto& token = impl_->token;
    const bool see_private = !token->login_required() || token->login_state() == tokens::LoginState::kUser;
    return impl_->Enumerate(Impl::kCertificates, certificates,
                            [see_private](Session& session, const tokens::ObjectListing& listing) {
                                return tokens::ReadCertificates(session, listing, see_private);
                            });
}

bool TokenSession::EnumCRLs(std::list<CRLObject>& crls) {
    return opened() && impl_->Enumerate(Impl::kCrls, crls, tokens::ReadCrls);
}

bool TokenSession::EnumPresharedKeys(std::list<PresharedKeyObject>& keys) {
    return opened() && impl_->Enumerate(Impl::kPresharedKeys, keys, tokens::ReadPresharedKeys);
}

bool TokenSession::GetRawPubKeyObjectData(pki_alg_t keyAlg, const std::string& id, std::string& spki) {
    const auto keys = impl_->PublicKeys();
    const tokens::PublicKeyIndex::Key* const key = keys == nullptr ? nullptr : keys->FindById(keyAlg, id);
    if (key == nullptr) return false;
    spki = key->spki;
    return true;
}

bool TokenSession::ContainPubKeyObject(const std::string& spki, std::string* id) {
    tokens::PublicKey parsed;
    impl_->look_up_failed = false;
    if (!tokens::PublicKeyFromSpki(spki, parsed)) return false;
    const auto keys = impl_->PublicKeys();
    // Both sides in the form that is written here: parameters may be encoded in more ways than one.
    const tokens::PublicKeyIndex::Key* const key =
        keys == nullptr ? nullptr : keys->FindBySpki(tokens::SpkiFromComponents(parsed.alg, parsed.components));
    if (key == nullptr) return false;
    if (id != nullptr) *id = key->id;
    return true;
}

bool TokenSession::keyLookUpFailed() const {
    return impl_->look_up_failed;
}

bool TokenSession::SeedRandom(const std::string& seed) {
    if (!opened()) return false;
    return impl_
        ->Perform(Where::kWorker,
                  [secret = Share(seed)](Session& session) -> tokens::CreateOutcome {
                      return {session.api().SeedRandom(session.handle(), secret->get())};
                  })
        .result.ok();
}

bool TokenSession::GenerateKeyPair(pki_alg_t keyAlg, std::uint32_t bits, const std::string& id, bool exportable) {
    return opened() &&
           impl_->Create(
               [=](Session& session) { return tokens::GenerateKeyPair(session, keyAlg, bits, id, exportable); },
               kKeyPairPatience);
}

bool TokenSession::CreateCertObject(const CertObject& object, const std::string& subject_der) {
    if (!opened()) return false;
    const auto create = [object, subject_der](Session& session) {
        return tokens::CreateCertificate(session, object, subject_der);
    };
    return object.trusted ? impl_->CreateTrusted(create) : impl_->Create(create);
}

bool TokenSession::CreatePrivKeyObject(pki_alg_t keyAlg, const std::string& id, const std::string& pkcs8_der,
                                       bool exportable, cert_time64_t not_after) {
    return opened() && impl_->Create([=, key = Share(pkcs8_der)](Session& session) {
        return tokens::CreatePrivateKey(session, keyAlg, id, *key, exportable, not_after);
    });
}

bool TokenSession::CreatePubKeyObject(pki_alg_t keyAlg, const std::string& id, const std::string& spki,
                                      cert_time64_t not_after) {
    return opened() && impl_->Create([=](Session& session) {
        return tokens::CreatePublicKey(session, keyAlg, id, spki, not_after);
    });
}

bool TokenSession::ImportPrivKeyObject(const EncryptedPrivateKey& key, pki_alg_t keyAlg, const std::string& id,
                                       bool exportable) {
    return CreatePrivKeyObject(keyAlg, id, Decrypt(key).get(), exportable);
}

bool TokenSession::CreateCRLObject(const std::string& id, const std::string& crl_der) {
    return opened() && impl_->Create([=](Session& session) { return tokens::CreateCrl(session, id, crl_der); });
}

bool TokenSession::CreatePresharedKeyObject(const std::string& name, const std::string& value) {
    return opened() && impl_->Create([name, secret = Share(value)](Session& session) {
        return tokens::CreatePresharedKey(session, name, *secret);
    });
}

bool TokenSession::DeleteCertObject(const CertInfo& info) {
    return opened() && impl_->Delete([info](Session& session) -> tokens::DeleteOutcome {
        const tokens::CertificatesOutcome found = tokens::FindCertificates(session, info.id);
        tokens::FoundOutcome wanted{found.result};
        for (const tokens::CertificateAt& certificate : found.certificates) {
            if (Describes(info, certificate.value)) wanted.objects.push_back(certificate.object);
        }
        return tokens::Delete(session, wanted);
    });
}

bool TokenSession::DeletePrivKeyObject(const CertInfo& info) {
    return opened() && impl_->DeleteKey(CKO_PRIVATE_KEY, info);
}

bool TokenSession::DeletePubKeyObject(const CertInfo& info) {
    return opened() && impl_->DeleteKey(CKO_PUBLIC_KEY, info);
}

bool TokenSession::DeletePrivKeyObject(const std::string& id) {
    return opened() && IsUsable(id) && impl_->Delete([id](Session& session) {
        return tokens::Delete(session, tokens::FindById(session, CKO_PRIVATE_KEY, id));
    });
}

bool TokenSession::DeletePubKeyObject(const std::string& id) {
    return opened() && IsUsable(id) && impl_->Delete([id](Session& session) {
        return tokens::Delete(session, tokens::FindById(session, CKO_PUBLIC_KEY, id));
    });
}

bool TokenSession::DeleteCRLObject(const CRLInfo& info) {
    return opened() && IsUsable(info.id) && impl_->Delete([id = info.id](Session& session) {
        return tokens::Delete(session, tokens::FindCrls(session, id));
    });
}

bool TokenSession::DeletePresharedKeyObject(const PresharedKeyInfo& info) {
    return opened() && IsUsable(info.name) && impl_->Delete([name = info.name](Session& session) {
        return tokens::Delete(session, tokens::FindPresharedKeys(session, name));
    });
}

bool TokenSession::GetPresharedKeyPrivateData(const std::string& name, std::string& value) {
    return opened() &&
           TakeSecret(impl_->Perform(Where::kWorker,
                                     [name](Session& session) { return tokens::ReadPresharedKey(session, name); }),
                      value);
}

bool TokenSession::ExportPrivateKey(const std::string& id, std::string& pkcs8_der) {
    return opened() &&
           TakeSecret(
               impl_->Perform(Where::kWorker, [id](Session& session) { return tokens::ReadPrivateKey(session, id); }),
               pkcs8_der);
}

}  // namespace PKCS11
