#include "platform/tokens/object_writer.h"

#include "platform/asn1/alg_table.h"
#include "platform/tokens/attributes.h"
#include "platform/tokens/key_codec.h"
#include "platform/tokens/key_der.h"
#include "platform/tokens/object_layout.h"
#include "platform/tokens/objects.h"

namespace tokens {
namespace {

constexpr std::string_view kRsaExponent("\1\0\1", 3);  // 65537
/// Labels are for people who look at the token with other tools.
constexpr char kCrlLabel[] = "CRL";

CreateOutcome Create(Session& session, AttributeTemplate& attributes) {
    CK_OBJECT_HANDLE object = CK_INVALID_HANDLE;
    const Result result = session.api().CreateObject(session.handle(), attributes.view(), object);
    return {result, result.ok()};
}

CreateOutcome Refuse(std::string why) {
    return {{}, false, false, std::move(why)};
}

/// What tokens answer to anybody else who sets CKA_TRUSTED.
bool IsForOfficerAlone(CK_RV rv) {
    return rv == CKR_ATTRIBUTE_READ_ONLY || rv == CKR_USER_NOT_LOGGED_IN || rv == CKR_ACTION_PROHIBITED;
}

void AddTokenObject(AttributeTemplate& attributes, CK_OBJECT_CLASS object_class, bool is_private) {
    attributes.Number(CKA_CLASS, object_class).Flag(CKA_TOKEN, true).Flag(CKA_PRIVATE, is_private);
}

void AddPublicUse(AttributeTemplate& attributes, CK_KEY_TYPE type, const std::string& id) {
    attributes.Bytes(CKA_ID, id).Flag(CKA_VERIFY, true);
    if (type == CKK_RSA) attributes.Flag(CKA_ENCRYPT, true);
}

void AddPrivateUse(AttributeTemplate& attributes, CK_KEY_TYPE type, const std::string& id, bool exportable) {
    attributes.Bytes(CKA_ID, id).Flag(CKA_SIGN, true);
    if (type == CKK_RSA) attributes.Flag(CKA_DECRYPT, true);
    attributes.Flag(CKA_SENSITIVE, !exportable).Flag(CKA_EXTRACTABLE, exportable);
}

void AddEndDate(AttributeTemplate& attributes, cert_time64_t not_after) {
    if (not_after == CERT_TIME_UNKNOWN) return;
    attributes.Bytes(CKA_END_DATE, CertTimeToString(not_after).substr(0, 10).erase(7, 1).erase(4, 1));
}

/// Domain parameters of a DSA key pair, made on the token.
Result GenerateDsaParameters(Session& session, unsigned bits, AttributeTemplate& public_key) {
    CK_MECHANISM mechanism{CKM_DSA_PARAMETER_GEN, nullptr, 0};
    AttributeTemplate attributes;
    attributes.Number(CKA_PRIME_BITS, bits).Flag(CKA_TOKEN, false).Flag(CKA_PRIVATE, false);
    CK_OBJECT_HANDLE object = CK_INVALID_HANDLE;
    Result result = session.api().GenerateKey(session.handle(), mechanism, attributes.view(), object);
    if (!result.ok()) return result;
    constexpr CK_ULONG kBytes = kMaxDsaBits / 8;
    ByteBudget budget;
    AttributeReader reader({{CKA_PRIME, kBytes}, {CKA_SUBPRIME, kBytes}, {CKA_BASE, kBytes}}, budget);
    result = reader.Read(session.api(), session.handle(), object);
    if (result.ok()) {
        public_key.Bytes(CKA_PRIME, reader.Bytes(0)).Bytes(CKA_SUBPRIME, reader.Bytes(1));
        public_key.Bytes(CKA_BASE, reader.Bytes(2));
    }
    session.api().DestroyObject(session.handle(), object);
    return result;
}

/// Parameter sets that new GOST keys get: the ones that certificates commonly carry.
void AddGostParameters(pki_alg_t alg, AttributeTemplate& public_key) {
    static constexpr asn1::OidContent kCryptoProA = asn1::Oid("1.2.643.2.2.35.1");
    static constexpr asn1::OidContent kCryptoProDigest = asn1::Oid("1.2.643.2.2.30.1");
    static constexpr asn1::OidContent kTc26Set512A = asn1::Oid("1.2.643.7.1.2.1.2.1");
    const std::string_view key_set = alg == PKI_KEY_GOST2012_512 ? kTc26Set512A : kCryptoProA;
    // Of 34.11-94 a set is named, of later hashes the hash itself.
    const std::string_view digest = alg == PKI_KEY_GOST2001 ? kCryptoProDigest : asn1::FindHashOfKey(alg)->oid;
    public_key.Bytes(CKA_GOSTR3410_PARAMS, Tlv(asn1::kTagOid, key_set));
    public_key.Bytes(CKA_GOSTR3411_PARAMS, Tlv(asn1::kTagOid, digest));
}

/// What the new key is to be. False when there is no such key.
bool AddKeyParameters(Session& session, pki_alg_t alg, unsigned bits, AttributeTemplate& public_key, Result& result) {
    switch (alg) {
        case PKI_KEY_RSA:
            if (bits > kMaxRsaBits) return false;
            public_key.Number(CKA_MODULUS_BITS, bits).Bytes(CKA_PUBLIC_EXPONENT, kRsaExponent);
            return true;
        case PKI_KEY_DSA:
            if (bits > kMaxDsaBits) return false;
            result = GenerateDsaParameters(session, bits, public_key);
            return result.ok();
        case PKI_KEY_EC:
        case PKI_KEY_ED25519: {
            const std::string parameters = CurveParameters(alg, bits);
            public_key.Bytes(CKA_EC_PARAMS, parameters);
            return !parameters.empty();
        }
        case PKI_KEY_GOST2001:
        case PKI_KEY_GOST2012_256:
        case PKI_KEY_GOST2012_512:
            AddGostParameters(alg, public_key);
            return bits == GostKeyBytes(alg) * 2 * 8;  // those of the public key, as its certificates tell them
        default:
            return false;
    }
}

}  // namespace

CreateOutcome CreateCertificate(Session& session, const PKCS11::CertObject& object, const std::string& subject) {
    AttributeTemplate attributes;
    AddTokenObject(attributes, CKO_CERTIFICATE, false);
    attributes.Number(CKA_CERTIFICATE_TYPE, CKC_X_509).Bytes(CKA_ID, object.id);
    attributes.Bytes(CKA_SUBJECT, subject).Bytes(CKA_VALUE, object.value);
    attributes.Number(CKA_CERTIFICATE_CATEGORY, object.category);
    std::string_view issuer;
    std::string_view serial;
    if (ReadIssuerAndSerial(object.value, issuer, serial)) {
        attributes.Bytes(CKA_ISSUER, issuer).Bytes(CKA_SERIAL_NUMBER, serial);
    }
    if (!object.trusted) return Create(session, attributes);
    attributes.Flag(CKA_TRUSTED, true);
    CreateOutcome outcome = Create(session, attributes);
    if (!IsForOfficerAlone(outcome.result.rv)) return outcome;
    Delete(session, FindEmptyCertificates(session));  // what some tokens leave of an object that they refused
    return {.officer_required = true};
}

CreateOutcome CreatePrivateKey(Session& session, pki_alg_t alg, const std::string& id, const vpnfc::SecretString& pkcs8,
                               bool exportable, cert_time64_t not_after) {
    PrivateKey key;
    if (!PrivateKeyFromPkcs8(pkcs8.get(), key)) return Refuse("the private key is not understood");
    if (key.alg != (alg & PKI_KEY_MASK)) return Refuse("the private key is of another algorithm than its certificate");
    AttributeTemplate attributes;
    AddTokenObject(attributes, CKO_PRIVATE_KEY, true);
    attributes.Number(CKA_KEY_TYPE, key.type);
    AddPrivateUse(attributes, key.type, id, exportable);
    AddEndDate(attributes, not_after);
    const auto types = PrivateComponents(key.type);
    for (std::size_t i = 0; i < types.size(); ++i) attributes.Bytes(types[i], key.components[i].get());
    return Create(session, attributes);
}

CreateOutcome CreatePublicKey(Session& session, pki_alg_t alg, const std::string& id, const std::string& spki,
                              cert_time64_t not_after) {
    PublicKey key;
    if (!PublicKeyFromSpki(spki, key)) return Refuse(WhyNoPublicKey(spki));
    if (key.alg != (alg & PKI_KEY_MASK)) return Refuse("the public key is of another algorithm than its certificate");
    AttributeTemplate attributes;
    AddTokenObject(attributes, CKO_PUBLIC_KEY, false);
    attributes.Number(CKA_KEY_TYPE, key.type);
    AddPublicUse(attributes, key.type, id);
    AddEndDate(attributes, not_after);
    const auto types = PublicComponents(key.type);
    for (std::size_t i = 0; i < types.size(); ++i) attributes.Bytes(types[i], key.components[i]);
    return Create(session, attributes);
}

CreateOutcome CreateCrl(Session& session, const std::string& id, const std::string& crl) {
    AttributeTemplate attributes;
    AddTokenObject(attributes, CKO_DATA, false);
    attributes.Bytes(CKA_APPLICATION, kCrlApplication).Bytes(CKA_LABEL, kCrlLabel);
    attributes.Bytes(CKA_OBJECT_ID, id).Bytes(CKA_VALUE, crl);
    return Create(session, attributes);
}

CreateOutcome CreatePresharedKey(Session& session, const std::string& name, const vpnfc::SecretString& value) {
    if (name.empty() || value.empty()) return Refuse("a preshared key without name or value");
    const FoundOutcome found = FindPresharedKeys(session, name);
    if (!found.result.ok()) return {found.result};
    if (!found.objects.empty()) return Refuse("a preshared key of that name is there already");
    AttributeTemplate attributes;
    AddTokenObject(attributes, CKO_SECRET_KEY, true);
    attributes.Number(CKA_KEY_TYPE, CKK_GENERIC_SECRET).Bytes(CKA_LABEL, name).Bytes(CKA_VALUE, value.get());
    attributes.Flag(CKA_SENSITIVE, false).Flag(CKA_EXTRACTABLE, true);
    return Create(session, attributes);
}

CreateOutcome GenerateKeyPair(Session& session, pki_alg_t alg, unsigned bits, const std::string& id, bool exportable) {
    const asn1::AlgRow* const row = asn1::FindKeyAlg(alg);
    if (row == nullptr || row->key.generate == asn1::kNoMechanism) return Refuse("key pairs of an unknown algorithm");
    AttributeTemplate public_key;
    AttributeTemplate private_key;
    Result result;
    AddTokenObject(public_key, CKO_PUBLIC_KEY, false);
    AddPublicUse(public_key, row->key.keyType, id);
    if (!AddKeyParameters(session, row->code, bits, public_key, result)) {
        if (!result.ok()) return {result};
        return Refuse(std::string(row->name) + " keys of " + std::to_string(bits) + " bits are not made");
    }
    AddTokenObject(private_key, CKO_PRIVATE_KEY, true);
    AddPrivateUse(private_key, row->key.keyType, id, exportable);
    CK_MECHANISM mechanism{row->key.generate, nullptr, 0};
    CK_OBJECT_HANDLE public_handle = CK_INVALID_HANDLE;
    CK_OBJECT_HANDLE private_handle = CK_INVALID_HANDLE;
    result = session.api().GenerateKeyPair(session.handle(), mechanism, public_key.view(), private_key.view(),
                                           public_handle, private_handle);
    return {result, result.ok()};
}

}  // namespace tokens
