// What a PKCS #12 file holds.
#pragma once

#include <openssl/pkcs12.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "certmgr/cert_engine_openssl.h"
#include "platform/base.h"

namespace cert_engine {

using Pkcs12Ptr = Owner<PKCS12, PKCS12_free>;
using libcrypto::CertPtr;
using libcrypto::KeyPtr;
using libcrypto::Pkcs8Ptr;
using libcrypto::SealedKeyPtr;

inline void FreeBags(STACK_OF(PKCS12_SAFEBAG) * bags) {
    sk_PKCS12_SAFEBAG_pop_free(bags, PKCS12_SAFEBAG_free);
}
using BagsPtr = Owner<STACK_OF(PKCS12_SAFEBAG), FreeBags>;

inline void FreeSafes(STACK_OF(PKCS7) * safes) {
    sk_PKCS7_pop_free(safes, PKCS7_free);
}
using SafesPtr = Owner<STACK_OF(PKCS7), FreeSafes>;

/// Bytes that a key is derived from; null is no password, which is not the empty one.
struct PasswordBytes {
    const char* data = nullptr;
    int length = 0;
};

/// A certificate in the default library context, which knows its public key.
struct BagCert {
    CertPtr cert;
    std::string key_id;  // localKeyID; empty: none
};

struct BagKey {
    Pkcs8Ptr info;  // null for a cipher that libcrypto lacks
    std::string encrypted;  // EncryptedPrivateKeyInfo that the password opens as it was given; empty: there is none
    std::string key_id;
    KeyPtr decoded;  // null when libcrypto does not know the algorithm
};

/// Certificates and keys of a file. Reads one file, in so many iterations at most.
class Pkcs12File {
  public:
    Pkcs12File(const std::string& password, std::uint64_t iterations);
    Pkcs12File(const Pkcs12File&) = delete;  // passwords_ points into it
    Pkcs12File& operator=(const Pkcs12File&) = delete;

    void ReadFile(std::string_view bytes) { result_ = Read(bytes); }
    P12ReadResult result() const { return result_; }

    const std::vector<BagCert>& certs() const { return certs_; }
    const std::vector<BagKey>& keys() const { return keys_; }

    /// Position of the certificate of a key, or -1. By the public key where libcrypto knows it, of several the one with
    /// its localKeyID; else by localKeyID; else the only end entity's.
    int CertOf(const BagKey& key) const;

  private:
    P12ReadResult Read(std::string_view bytes);
    bool CheckMac(PKCS12* file);
    bool ReadSafes(const PKCS12* file);
    bool ReadSafe(PKCS7* safe);
    bool ReadEncryptedSafe(const PKCS7_ENC_CONTENT& content);
    bool ReadBags(const STACK_OF(PKCS12_SAFEBAG) * bags, int depth);
    bool ReadBag(const PKCS12_SAFEBAG* bag, int depth);
    bool ReadCert(const PKCS12_SAFEBAG* bag);
    bool ReadKey(const PKCS12_SAFEBAG* bag);
    bool ReadEncryptedKey(const PKCS12_SAFEBAG* bag);
    bool Keep(BagKey key);
    /// False, and the file is refused, when that would be too much.
    bool Afford(std::uint64_t iterations);
    bool Refuse();
    P12ReadResult Verdict() const;
    template <typename Open>
    bool TryPasswords(std::uint64_t iterations, Open open);

    vpnfc::SecretString given_;
    vpnfc::SecretString wide_;  // the password as old programs took it
    std::vector<PasswordBytes> passwords_;  // the likeliest first
    std::uint64_t iterations_;  // left
    P12ReadResult result_ = kP12NotReadable;
    std::vector<BagCert> certs_;
    std::vector<BagKey> keys_;
    bool mac_right_ = false;
    bool mac_wrong_ = false;
    bool opened_ = false;  // something encrypted was
    bool failed_ = false;  // something encrypted was not
    bool refused_ = false;
};

}  // namespace cert_engine
