// A CRL as the engine keeps it: the received bytes and an index of serial numbers, no object per entry.
//
// The frame and every entry must be DER (RFC 5280, 5.1): definite lengths in their shortest form, no elements but those of
// the standard. A CRL with one entry that is not is no CRL: it must not clear what could not be read. Small fields (names,
// algorithms, extensions) are decoded by libcrypto.
#pragma once

#include <openssl/x509v3.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "certmgr/cert_engine_openssl.h"

namespace cert_engine {

/// Bytes that several holders share.
using SharedBytes = std::shared_ptr<const std::string>;

/// Largest name, algorithm, signature or list of extensions of a CRL that is decoded: libcrypto makes objects of some
/// ten times their size.
inline constexpr std::size_t kMaxCrlFieldBytes = 1U << 16;

using libcrypto::AlgorithmPtr;
using libcrypto::BitStringPtr;
using libcrypto::ExtensionsPtr;
using libcrypto::NamePtr;
using TimePtr = Owner<ASN1_TIME, ASN1_TIME_free>;

/// One entry, as views into the CRL.
struct CrlEntry {
    std::uint32_t offset = 0;  // in the CRL's bytes
    std::string_view serial;  // content of the INTEGER
    int time_type = 0;
    std::string_view time;
    std::string_view extensions;  // content of the list; empty when there is none
};

/// Finds entries by serial number. Nine bytes an entry, whatever the serial numbers are: equal and colliding ones cost a
/// search more, never the building.
class SerialIndex {
  public:
    struct Slot {
        std::uint32_t hash;  // of the serial number
        std::uint32_t offset;  // of the entry
    };

    static std::uint32_t Hash(std::string_view serial);

    /// Entries in the CRL's order.
    void Reserve(std::size_t count) { slots_.reserve(count); }
    void Add(std::string_view serial, std::uint32_t offset) { slots_.push_back({Hash(serial), offset}); }
    /// After the last one.
    void Finish();

    std::size_t size() const { return slots_.size(); }
    /// All entries whose serial number has that hash, and perhaps others, in the CRL's order.
    std::span<const Slot> Candidates(std::uint32_t hash) const;

  private:
    std::size_t BucketOf(std::uint32_t hash) const;

    std::vector<Slot> slots_;  // by bucket
    std::vector<std::uint32_t> begins_;  // of each bucket; one more ends the last
};

/// Immutable; any number of threads read it.
class Crl {
  public:
    /// The CRL at the beginning of the bytes, which are kept; null when there is none or it exceeds a limit.
    static std::unique_ptr<const Crl> Read(SharedBytes bytes);

    /// The CRL, without what followed it.
    std::string_view whole() const { return whole_; }
    /// As they were given.
    const SharedBytes& bytes() const { return bytes_; }
    std::string_view toBeSigned() const { return to_be_signed_; }
    const X509_ALGOR* algorithm() const { return algorithm_.get(); }
    const ASN1_BIT_STRING* signature() const { return signature_.get(); }
    X509_NAME* issuer() const { return issuer_.get(); }
    const ASN1_TIME* thisUpdate() const { return this_update_.get(); }
    const ASN1_TIME* nextUpdate() const { return next_update_.get(); }
    /// Null when it has none.
    const STACK_OF(X509_EXTENSION) * extensions() const { return extensions_.get(); }
    /// Whether the algorithm that is signed is the one that is named beside the signature.
    bool signedAlgorithmAgrees() const { return signed_algorithm_agrees_; }
    /// Name of the first critical extension of an entry that is unknown; empty when there is none.
    const std::string& unknownCriticalOfEntries() const { return unknown_critical_; }

    std::size_t entryCount() const { return index_.size(); }
    /// Appends a record of each entry, in order.
    void AppendRecords(RevokedCertInfoList& records) const;
    /// As CertEngine_CRLFindRevoked.
    bool FindRevoked(const std::string& serial, const std::string& issuer, RevokedEntry& entry) const;

  private:
    bool ReadFrame();
    bool ReadToBeSigned(std::string_view content);
    bool ReadEntries();
    bool CheckEntryExtensions(const CrlEntry& entry);
    bool IsAbout(const CrlEntry& entry, const std::string& issuer) const;
    CrlEntry EntryAt(std::uint32_t offset) const;

    SharedBytes bytes_;
    std::string_view whole_;
    std::string_view to_be_signed_;
    std::string_view entries_;  // content of the list
    AlgorithmPtr algorithm_;
    BitStringPtr signature_;
    NamePtr issuer_;
    TimePtr this_update_;
    TimePtr next_update_;
    ExtensionsPtr extensions_;
    SerialIndex index_;
    std::vector<std::uint32_t> issuer_entries_;  // offsets of the entries that name a certificate issuer, ascending
    std::string unknown_critical_;
    bool signed_algorithm_agrees_ = false;
};

/// The CRL behind a handle.
inline const Crl& CrlOf(void* handle) {
    return *static_cast<const Crl*>(handle);
}
/// The bytes of the CRL behind a handle, and nothing after them; shared with it where that is all it has.
SharedBytes CrlBytes(void* handle);
/// The element that the bytes begin with, without what follows it; all of them where none can be told.
std::string_view FirstElement(std::string_view bytes);
/// A handle over bytes that are shared with it; null when they are no CRL.
void* CreateCrlHandle(SharedBytes bytes);

}  // namespace cert_engine
