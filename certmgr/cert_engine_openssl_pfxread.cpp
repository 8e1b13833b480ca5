// Reading PKCS #12: integrity, encrypted parts, bags; limits before every derivation of a key.
#include <openssl/pkcs12.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "certmgr/cert_engine_openssl_pfx.h"

namespace cert_engine {

namespace {

using PbeParameters = Owner<PBEPARAM, PBEPARAM_free>;
using Pbe2Parameters = Owner<PBE2PARAM, PBE2PARAM_free>;
using Pbkdf2Parameters = Owner<PBKDF2PARAM, PBKDF2PARAM_free>;

/// Longer passwords are nobody's.
constexpr std::size_t kMaxPasswordBytes = 4096;
/// Decoding one may compute its public key.
constexpr std::size_t kMaxKeys = 32;
/// A PrivateKeyInfo; an RSA key of the most bits has some 9 KB.
constexpr std::size_t kMaxKeyBytes = std::size_t{16} * 1024;
constexpr int kMaxRsaBits = 16384;
/// The prime of DSA and of Diffie-Hellman, and the private number: computing the public one takes milliseconds.
constexpr int kMaxPrimeBytes = 4096 / 8;
/// Bags inside bags; nobody writes any.
constexpr int kMaxDepth = 4;
/// What an attempt costs beside its iterations.
constexpr std::uint64_t kAttemptCost = 1000;

bool IsAscii(std::string_view text) {
    return std::none_of(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0x80) != 0; });
}

/// Each byte as a character of its own, in UTF-8: what programs that did not know UTF-8 made of a password.
std::string Widen(std::string_view text) {
    std::string wide;
    wide.reserve(2 * text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80) {
            wide.push_back(c);
        } else {
            wide.push_back(static_cast<char>(0xC0 | byte >> 6));
            wide.push_back(static_cast<char>(0x80 | (byte & 0x3F)));
        }
    }
    return wide;
}

PasswordBytes BytesOfPassword(const std::string& password) {
    return {password.data(), static_cast<int>(password.size())};
}

/// How something is encrypted.
struct Scheme {
    std::uint64_t iterations = 0;
    int cipher = NID_undef;
};

std::optional<std::uint64_t> Count(const ASN1_INTEGER* number) {
    std::uint64_t value = 0;
    if (number == nullptr || ASN1_INTEGER_get_uint64(&value, number) != 1) return std::nullopt;
    return value;
}

/// PBES2 with PBKDF2; other ways to derive a key are not seen in such files and have costs of their own.
std::optional<Scheme> ReadPbes2(const ASN1_TYPE* parameter) {
    const Pbe2Parameters outer(
        static_cast<PBE2PARAM*>(ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBE2PARAM), parameter)));
    if (outer == nullptr || OBJ_obj2nid(outer->keyfunc->algorithm) != NID_id_pbkdf2) return std::nullopt;
    const Pbkdf2Parameters inner(
        static_cast<PBKDF2PARAM*>(ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBKDF2PARAM), outer->keyfunc->parameter)));
    const std::optional<std::uint64_t> iterations = Count(inner != nullptr ? inner->iter : nullptr);
    if (!iterations) return std::nullopt;
    return Scheme{*iterations, OBJ_obj2nid(outer->encryption->algorithm)};
}

/// The schemes of PKCS #12 itself and those of PKCS #5 v1.
std::optional<Scheme> ReadPbes1(int scheme, const ASN1_TYPE* parameter) {
    int cipher = NID_undef;
    int digest = NID_undef;
    if (EVP_PBE_find(EVP_PBE_TYPE_OUTER, scheme, &cipher, &digest, nullptr) != 1) return std::nullopt;
    const PbeParameters parameters(
        static_cast<PBEPARAM*>(ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBEPARAM), parameter)));
    const std::optional<std::uint64_t> iterations = Count(parameters != nullptr ? parameters->iter : nullptr);
    if (!iterations) return std::nullopt;
    return Scheme{*iterations, cipher};
}

std::optional<Scheme> ReadScheme(const X509_ALGOR* algorithm) {
    const int scheme = OBJ_obj2nid(algorithm->algorithm);
    return scheme == NID_pbes2 ? ReadPbes2(algorithm->parameter) : ReadPbes1(scheme, algorithm->parameter);
}

/// In the default context (null), or with the old ones.
bool KnowsCipher(OSSL_LIB_CTX* context, int nid) {
    const Owner<EVP_CIPHER, EVP_CIPHER_free> cipher(EVP_CIPHER_fetch(context, OBJ_nid2sn(nid), nullptr));
    return cipher != nullptr;
}

bool KnowsDigest(const X509_ALGOR* algorithm) {
    const int nid = OBJ_obj2nid(algorithm->algorithm);
    const Owner<EVP_MD, EVP_MD_free> digest(EVP_MD_fetch(nullptr, OBJ_nid2sn(nid), nullptr));
    return digest != nullptr;
}

std::string KeyIdOf(const PKCS12_SAFEBAG* bag) {
    const ASN1_TYPE* const id = PKCS12_SAFEBAG_get0_attr(bag, NID_localKeyID);
    if (id == nullptr || ASN1_TYPE_get(id) != V_ASN1_OCTET_STRING) return {};
    return std::string(BytesOf(id->value.octet_string));
}

void FreeValues(ASN1_SEQUENCE_ANY* values) {
    sk_ASN1_TYPE_pop_free(values, ASN1_TYPE_free);
}
using ValuesPtr = Owner<ASN1_SEQUENCE_ANY, FreeValues>;

/// Whether a file has the content that some versions of libcrypto read without a look whether it is there.
bool HasContent(std::string_view file) {
    const auto values = Decode<FreeValues>(d2i_ASN1_SEQUENCE_ANY, file);
    const ASN1_TYPE* const safes = sk_ASN1_TYPE_num(values.get()) > 1 ? sk_ASN1_TYPE_value(values.get(), 1) : nullptr;
    const libcrypto::Pkcs7Ptr content(static_cast<PKCS7*>(ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PKCS7), safes)));
    return content != nullptr && PKCS7_type_is_data(content.get()) && content->d.data != nullptr;
}

/// Whether the prime, which is the first of the parameters, is of a usual size.
bool IsPrimeUsual(const ASN1_TYPE* parameters) {
    const ValuesPtr numbers(
        static_cast<ASN1_SEQUENCE_ANY*>(ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(ASN1_SEQUENCE_ANY), parameters)));
    const ASN1_TYPE* const prime = sk_ASN1_TYPE_num(numbers.get()) > 0 ? sk_ASN1_TYPE_value(numbers.get(), 0) : nullptr;
    return prime != nullptr && ASN1_TYPE_get(prime) == V_ASN1_INTEGER &&
           ASN1_STRING_length(prime->value.integer) <= kMaxPrimeBytes;
}

/// Such a key comes without its public number, which libcrypto computes of whatever sizes it finds.
bool IsCheapToDecode(const PKCS8_PRIV_KEY_INFO* info) {
    constexpr int kHeaderBytes = 8;
    const ASN1_OBJECT* identifier = nullptr;
    const X509_ALGOR* algorithm = nullptr;
    int length = 0;
    if (vpnfc::SecretString(Encode(info, i2d_PKCS8_PRIV_KEY_INFO)).get().size() > kMaxKeyBytes) return false;
    if (PKCS8_pkey_get0(&identifier, nullptr, &length, &algorithm, info) != 1) return false;
    const int nid = OBJ_obj2nid(identifier);
    if (nid != NID_dsa && nid != NID_dsa_2 && nid != NID_dhKeyAgreement && nid != NID_dhpublicnumber) return true;
    return length <= kMaxPrimeBytes + kHeaderBytes && IsPrimeUsual(algorithm->parameter);
}

}  // namespace

Pkcs12File::Pkcs12File(const std::string& password, std::uint64_t iterations)
    : given_(std::string_view(password)), iterations_(iterations) {
    passwords_.push_back(BytesOfPassword(given_.get()));
    if (password.empty()) passwords_.push_back({});
    if (IsAscii(password)) return;
    wide_ = vpnfc::SecretString(Widen(password));
    passwords_.push_back(BytesOfPassword(wide_.get()));
}

P12ReadResult Pkcs12File::Read(std::string_view bytes) {
    if (bytes.size() > kMaxPkcs12Bytes) return kP12Unsupported;
    const auto file = Decode<PKCS12_free>(d2i_PKCS12, bytes);
    if (file == nullptr || !HasContent(bytes)) return kP12NotReadable;
    if (given_.get().size() > kMaxPasswordBytes) return kP12WrongPassword;
    if (!CheckMac(file.get())) return kP12Unsupported;
    if (mac_wrong_ && given_.empty()) return kP12WrongPassword;  // before anybody was asked for one
    if (ReadSafes(file.get())) return Verdict();
    const bool wrong = mac_wrong_ || (failed_ && !opened_ && !mac_right_);
    if (refused_) return wrong ? kP12WrongPassword : kP12Unsupported;
    return kP12NotReadable;
}

bool Pkcs12File::Afford(std::uint64_t iterations) {
    if (iterations > iterations_ || iterations_ - iterations < kAttemptCost) return Refuse();
    iterations_ -= iterations + kAttemptCost;
    return true;
}

bool Pkcs12File::Refuse() {
    refused_ = true;
    return false;
}

/// False only when it cannot be checked.
bool Pkcs12File::CheckMac(PKCS12* file) {
    if (PKCS12_mac_present(file) != 1) return true;
    const X509_ALGOR* algorithm = nullptr;
    const ASN1_INTEGER* iterations = nullptr;
    PKCS12_get0_mac(nullptr, &algorithm, nullptr, &iterations, file);
    const std::optional<std::uint64_t> count = iterations == nullptr ? 1 : Count(iterations);
    if (!KnowsDigest(algorithm) || !count) return Refuse();
    mac_right_ = TryPasswords(*count, [file](const PasswordBytes& password) {
        return PKCS12_verify_mac(file, password.data, password.length) == 1;
    });
    mac_wrong_ = !mac_right_;
    return !refused_;
}

bool Pkcs12File::ReadSafes(const PKCS12* file) {
    const SafesPtr safes(PKCS12_unpack_authsafes(file));
    if (safes == nullptr) return false;
    for (int i = 0; i < sk_PKCS7_num(safes.get()); ++i) {
        if (!ReadSafe(sk_PKCS7_value(safes.get(), i))) return false;
    }
    return true;
}

bool Pkcs12File::ReadSafe(PKCS7* safe) {
    const ErrorMark mark;
    if (PKCS7_type_is_data(safe)) {
        const BagsPtr bags(safe->d.data != nullptr ? PKCS12_unpack_p7data(safe) : nullptr);
        return bags != nullptr && ReadBags(bags.get(), 0);
    }
    if (!PKCS7_type_is_encrypted(safe)) return Refuse();  // for the holder of a key, not of a password
    const PKCS7_ENCRYPT* const encrypted = safe->d.encrypted;
    const bool has_content =
        encrypted != nullptr && encrypted->enc_data != nullptr && encrypted->enc_data->enc_data != nullptr;
    return has_content && ReadEncryptedSafe(*encrypted->enc_data);
}

bool Pkcs12File::ReadEncryptedSafe(const PKCS7_ENC_CONTENT& content) {
    const std::optional<Scheme> scheme = ReadScheme(content.algorithm);
    if (!scheme || !KnowsCipher(LegacyContext(), scheme->cipher)) return Refuse();
    BagsPtr bags;
    const bool opened = TryPasswords(scheme->iterations, [&](const PasswordBytes& password) {
        bags.reset(static_cast<STACK_OF(PKCS12_SAFEBAG)*>(
            PKCS12_item_decrypt_d2i_ex(content.algorithm, ASN1_ITEM_rptr(PKCS12_SAFEBAGS), password.data,
                                       password.length, content.enc_data, 1, LegacyContext(), nullptr)));
        return bags != nullptr;
    });
    if (refused_) return false;
    (opened ? opened_ : failed_) = true;
    return !opened || ReadBags(bags.get(), 0);
}

bool Pkcs12File::ReadBags(const STACK_OF(PKCS12_SAFEBAG) * bags, int depth) {
    if (depth > kMaxDepth) return Refuse();
    for (int i = 0; i < sk_PKCS12_SAFEBAG_num(bags); ++i) {
        if (!ReadBag(sk_PKCS12_SAFEBAG_value(bags, i), depth)) return false;
        if (certs_.size() + keys_.size() > kMaxBundleItems) return Refuse();
    }
    return true;
}

bool Pkcs12File::ReadBag(const PKCS12_SAFEBAG* bag, int depth) {
    const ErrorMark mark;
    switch (PKCS12_SAFEBAG_get_nid(bag)) {
        case NID_certBag:
            return ReadCert(bag);
        case NID_keyBag:
            return ReadKey(bag);
        case NID_pkcs8ShroudedKeyBag:
            return ReadEncryptedKey(bag);
        case NID_safeContentsBag:
            return ReadBags(PKCS12_SAFEBAG_get0_safes(bag), depth + 1);
        default:
            return true;
    }
}

bool Pkcs12File::ReadCert(const PKCS12_SAFEBAG* bag) {
    if (PKCS12_SAFEBAG_get_bag_nid(bag) != NID_x509Certificate) return true;
    CertPtr cert(PKCS12_SAFEBAG_get1_cert(bag));
    if (cert == nullptr) return false;
    certs_.push_back({std::move(cert), KeyIdOf(bag)});
    return true;
}

bool Pkcs12File::ReadKey(const PKCS12_SAFEBAG* bag) {
    const PKCS8_PRIV_KEY_INFO* const info = PKCS12_SAFEBAG_get0_p8inf(bag);
    vpnfc::SecretString der(Encode(info, i2d_PKCS8_PRIV_KEY_INFO));
    auto copy = Decode<PKCS8_PRIV_KEY_INFO_free>(d2i_PKCS8_PRIV_KEY_INFO, der.get());
    return copy != nullptr && Keep({std::move(copy), {}, KeyIdOf(bag), nullptr});
}

bool Pkcs12File::Keep(BagKey key) {
    if (keys_.size() == kMaxKeys) return Refuse();
    if (key.info != nullptr) {
        if (!IsCheapToDecode(key.info.get())) return Refuse();
        const ErrorMark mark;
        key.decoded.reset(EVP_PKCS82PKEY(key.info.get()));
        const bool is_rsa = key.decoded != nullptr && EVP_PKEY_is_a(key.decoded.get(), "RSA") == 1;
        if (is_rsa && EVP_PKEY_get_bits(key.decoded.get()) > kMaxRsaBits) return Refuse();
    }
    keys_.push_back(std::move(key));
    return true;
}

bool Pkcs12File::ReadEncryptedKey(const PKCS12_SAFEBAG* bag) {
    const X509_SIG* const shrouded = PKCS12_SAFEBAG_get0_pkcs8(bag);
    const X509_ALGOR* algorithm = nullptr;
    X509_SIG_get0(shrouded, &algorithm, nullptr);
    const std::optional<Scheme> scheme = ReadScheme(algorithm);
    if (!scheme) return Refuse();
    BagKey key{nullptr, Encode(shrouded, i2d_X509_SIG), KeyIdOf(bag), nullptr};
    if (KnowsCipher(LegacyContext(), scheme->cipher)) {
        const bool opened = TryPasswords(scheme->iterations, [&](const PasswordBytes& password) {
            key.info.reset(PKCS8_decrypt_ex(shrouded, password.data, password.length, LegacyContext(), nullptr));
            return key.info != nullptr;
        });
        if (refused_) return false;
        (opened ? opened_ : failed_) = true;
        if (!opened) return true;
        const bool old = !KnowsCipher(nullptr, scheme->cipher);
        if (old || passwords_.front().data != given_.get().data()) key.encrypted.clear();
    } else if (!Afford(scheme->iterations)) {  // whoever opens it pays
        return false;
    }
    return Keep(std::move(key));
}

/// Whether one of the passwords opens it. The one that does is tried first from then on.
template <typename Open>
bool Pkcs12File::TryPasswords(std::uint64_t iterations, Open open) {
    for (PasswordBytes& password : passwords_) {
        const ErrorMark mark;
        if (!Afford(iterations)) return false;
        if (!open(password)) continue;
        std::swap(passwords_.front(), password);
        return true;
    }
    return false;
}

/// A wrong password opens nothing. A right integrity check means that nothing is damaged, a wrong one beside something
/// that opens that something is.
P12ReadResult Pkcs12File::Verdict() const {
    if (!failed_ && !mac_wrong_) return kP12Read;
    return opened_ && !mac_right_ ? kP12NotReadable : kP12WrongPassword;
}

int Pkcs12File::CertOf(const BagKey& key) const {
    const auto position = [this](auto fits) {
        const auto found = std::find_if(certs_.begin(), certs_.end(), fits);
        return found != certs_.end() ? static_cast<int>(found - certs_.begin()) : -1;
    };
    const ErrorMark mark;
    const auto is_marked = [&](const BagCert& cert) { return !key.key_id.empty() && cert.key_id == key.key_id; };
    if (key.decoded != nullptr) {
        const auto fits = [&](const BagCert& cert) {
            return X509_check_private_key(cert.cert.get(), key.decoded.get()) == 1;
        };
        const int both = position([&](const BagCert& cert) { return is_marked(cert) && fits(cert); });
        return both < 0 ? position(fits) : both;
    }
    const int by_id = position(is_marked);
    const auto is_end_entity = [](const BagCert& cert) { return !IsCa(cert.cert.get()); };
    const bool only_one = keys_.size() == 1 && std::count_if(certs_.begin(), certs_.end(), is_end_entity) == 1;
    return by_id < 0 && only_one ? position(is_end_entity) : by_id;
}

}  // namespace cert_engine
