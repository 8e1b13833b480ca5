// PKCS #12 files: the two readers, which differ in what becomes of the keys, and the writer.
#include "certmgr/cert_engine_openssl_pfx.h"

#include <openssl/x509v3.h>

#include <memory>
#include <utility>

#include "certmgr/cert_engine.h"

using cert_engine::BagCert;
using cert_engine::BagKey;
using cert_engine::BagsPtr;
using cert_engine::ErrorMark;
using cert_engine::kExportFailed;
using cert_engine::Owner;
using cert_engine::Pkcs12File;
using cert_engine::Pkcs12Ptr;
using cert_engine::Pkcs8Ptr;
using cert_engine::SafesPtr;
using cert_engine::SealedKeyPtr;

namespace {

/// What is written: PBES2 with AES-256, HMAC-SHA-256 both for the keys and for the integrity check.
constexpr int kCipher = NID_aes_256_cbc;
constexpr int kIterations = 100'000;
constexpr int kSaltBytes = 16;

std::string_view View(const void* data, unsigned length) {
    return {static_cast<const char*>(data), data != nullptr ? length : 0};
}

// --- Reading ---

/// Reads the file once for all readers.
const Pkcs12File& Reading(std::string_view bytes, const std::string& password, P12Budget& budget) {
    if (budget.reading == nullptr) {
        budget.reading = std::make_shared<Pkcs12File>(password, budget.iterations);
        budget.reading->ReadFile(bytes);
    }
    return *budget.reading;
}

/// In the engine's own context; null when it is too large.
void* HandleOf(const BagCert& bag) {
    return cert_engine::CertParser::FromDer(cert_engine::Encode<const X509>(bag.cert.get(), i2d_X509)).release();
}

/// The certificates that are not marked as taken, in the order of the file.
void AppendOthers(const Pkcs12File& file, const std::vector<bool>& taken, std::vector<void*>& certs) {
    for (std::size_t i = 0; i < file.certs().size(); ++i) {
        if (taken[i]) continue;
        if (void* const handle = HandleOf(file.certs()[i])) certs.push_back(handle);
    }
}

SealedKeyPtr Encrypt(PKCS8_PRIV_KEY_INFO* info, std::string_view password) {
    const Owner<EVP_CIPHER, EVP_CIPHER_free> cipher(EVP_CIPHER_fetch(nullptr, OBJ_nid2sn(kCipher), nullptr));
    return SealedKeyPtr(PKCS8_encrypt(-1, cipher.get(), password.data(), static_cast<int>(password.size()), nullptr,
                                      kSaltBytes, kIterations, info));
}

/// A key that the file has in the clear, or under a cipher or a form of the password that nobody else may know, is
/// encrypted anew. Null when that fails.
std::unique_ptr<PKCS12_PBE_key_iv_t> KeepEncrypted(const BagKey& bag, const std::string& password) {
    auto key = std::make_unique<PKCS12_PBE_key_iv_t>();
    key->password = vpnfc::SecretString(std::string_view(password));
    key->encryptedKeyInfoDer = bag.encrypted;
    if (!bag.encrypted.empty()) return key;
    const SealedKeyPtr encrypted = Encrypt(bag.info.get(), password);
    if (encrypted == nullptr) return nullptr;
    key->encryptedKeyInfoDer = cert_engine::Encode(encrypted.get(), i2d_X509_SIG);
    return key;
}

// --- Writing ---

/// Takes over both. `key_id` (empty: none) tells which certificate is the key's.
bool AddBag(STACK_OF(PKCS12_SAFEBAG) * bags, PKCS12_SAFEBAG* bag, std::string& key_id) {
    unsigned char* const id = libcrypto::Data(key_id);
    const bool marked =
        bag != nullptr && (key_id.empty() || PKCS12_add_localkeyid(bag, id, static_cast<int>(key_id.size())) == 1);
    if (marked && sk_PKCS12_SAFEBAG_push(bags, bag) > 0) return true;
    PKCS12_SAFEBAG_free(bag);
    return false;
}

/// Takes over the safe.
bool AddSafe(STACK_OF(PKCS7) * safes, PKCS7* safe) {
    if (safe != nullptr && sk_PKCS7_push(safes, safe) > 0) return true;
    PKCS7_free(safe);
    return false;
}

/// A certificate that belongs to no key. Java shows it only with this attribute: for which purposes it is trusted.
PKCS12_SAFEBAG* LoneCertificate(X509* cert) {
    constexpr const char* kTrustedKeyUsage = "2.16.840.1.113894.746875.1.1";
    PKCS12_SAFEBAG* const bag = PKCS12_SAFEBAG_create_cert(cert);
    // An identifier is handed over as the object that it is, with no length.
    const auto* const any = reinterpret_cast<const unsigned char*>(OBJ_nid2obj(NID_anyExtendedKeyUsage));
    if (bag != nullptr) PKCS12_add1_attr_by_txt(bag, kTrustedKeyUsage, V_ASN1_OBJECT, any, -1);
    return bag;
}

bool AddCerts(STACK_OF(PKCS7) * safes, const std::vector<void*>& certs, std::string key_id, const char* password) {
    const BagsPtr bags(sk_PKCS12_SAFEBAG_new_null());
    if (bags == nullptr) return false;
    const bool with_key = !key_id.empty();
    for (void* handle : certs) {
        auto* const cert = static_cast<X509*>(handle);
        if (cert == nullptr) continue;
        PKCS12_SAFEBAG* const bag = with_key ? PKCS12_SAFEBAG_create_cert(cert) : LoneCertificate(cert);
        if (!AddBag(bags.get(), bag, key_id)) return false;
        key_id.clear();
    }
    if (sk_PKCS12_SAFEBAG_num(bags.get()) == 0) return true;
    return AddSafe(safes, PKCS12_pack_p7encdata(kCipher, password, -1, nullptr, kSaltBytes, kIterations, bags.get()));
}

bool AddKey(STACK_OF(PKCS7) * safes, const std::string& pkcs8, std::string key_id, const char* password) {
    const auto info = libcrypto::Decode<PKCS8_PRIV_KEY_INFO_free>(d2i_PKCS8_PRIV_KEY_INFO, pkcs8);
    const BagsPtr bags(sk_PKCS12_SAFEBAG_new_null());
    if (info == nullptr || bags == nullptr) return false;
    SealedKeyPtr encrypted = Encrypt(info.get(), password);
    if (encrypted == nullptr) return false;
    PKCS12_SAFEBAG* const bag = PKCS12_SAFEBAG_create0_pkcs8(encrypted.get());
    if (bag == nullptr) return false;
    static_cast<void>(encrypted.release());
    return AddBag(bags.get(), bag, key_id) && AddSafe(safes, PKCS12_pack_p7data(bags.get()));
}

}  // namespace

void CertEngine_ClosePBEPrivKey(PKCS12_PBE_key_iv_t* key) {
    delete key;
}

P12ReadResult CertEngine_ReadP12CertData(const void* data, unsigned length, const std::string& password, void*& cert,
                                         void*& key, std::vector<void*>& certs, P12Budget* budget) {
    const ErrorMark mark;
    P12Budget fresh;
    const Pkcs12File& file = Reading(View(data, length), password, budget != nullptr ? *budget : fresh);
    if (file.result() != kP12Read) return file.result();
    if (file.keys().size() != 1) return kP12Unsupported;
    EVP_PKEY* const private_key = file.keys().front().decoded.get();
    const int main = file.CertOf(file.keys().front());
    void* const handle = private_key != nullptr && main >= 0 ? HandleOf(file.certs()[main]) : nullptr;
    if (handle == nullptr) return kP12Unsupported;
    std::vector<bool> taken(file.certs().size());
    taken[main] = true;
    AppendOthers(file, taken, certs);
    cert = handle;
    EVP_PKEY_up_ref(private_key);
    key = private_key;
    return kP12Read;
}

P12ReadResult CertEngine_ReadP12CertData_XXX(const void* data, unsigned length, const std::string& password,
                                             std::vector<PBEPrivKeyHandle>& keys, std::vector<void*>& certs,
                                             P12Budget* budget) {
    const ErrorMark mark;
    P12Budget fresh;
    if (budget == nullptr) budget = &fresh;
    const Pkcs12File& file = Reading(View(data, length), password, *budget);
    if (file.result() != kP12Read) return file.result();
    std::vector<bool> taken(file.certs().size());
    for (const BagKey& bag : file.keys()) {
        const int of_key = file.CertOf(bag);
        if (of_key < 0 || taken[of_key]) continue;
        auto key = KeepEncrypted(bag, password);
        void* const handle = key != nullptr ? HandleOf(file.certs()[of_key]) : nullptr;
        if (handle == nullptr) continue;
        keys.push_back({handle, key.release()});
        taken[of_key] = true;
    }
    AppendOthers(file, taken, certs);
    budget->keys_left_out = file.keys().size() - keys.size();
    const bool only_lost_keys = !file.keys().empty() && keys.empty() && certs.empty();
    return only_lost_keys ? kP12Unsupported : kP12Read;
}

int CertEngine_ExportCertsToPKCS12(const std::vector<void*>& certs, const std::string& pkcs8, const char* password,
                                   std::string& out) {
    const ErrorMark mark;
    const char* const secret = password != nullptr ? password : "";
    const SafesPtr safes(sk_PKCS7_new_null());
    std::string key_id;
    if (!pkcs8.empty() && !certs.empty() && certs.front() != nullptr) {
        const std::string der = cert_engine::Encode<const X509>(static_cast<X509*>(certs.front()), i2d_X509);
        if (!cert_engine::Digest(cert_engine::Sha1(), der, key_id)) return kExportFailed;
    }
    if (safes == nullptr || !AddCerts(safes.get(), certs, key_id, secret)) return kExportFailed;
    if (!pkcs8.empty() && !AddKey(safes.get(), pkcs8, key_id, secret)) return kExportFailed;
    const Pkcs12Ptr file(PKCS12_add_safes(safes.get(), 0));
    if (file == nullptr ||
        PKCS12_set_mac(file.get(), secret, -1, nullptr, kSaltBytes, kIterations, EVP_sha256()) != 1) {
        return kExportFailed;
    }
    return cert_engine::ExportThroughStream(out, [&file](BIO* stream) { return i2d_PKCS12_bio(stream, file.get()); });
}
