// Reading a CRL, and looking entries up in it.
#include <openssl/x509v3.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <numeric>
#include <utility>

#include "certmgr/cert_engine.h"
#include "certmgr/cert_engine_openssl_crl.h"

namespace cert_engine {

namespace {

using libcrypto::GeneralNamesPtr;
using libcrypto::ObjectPtr;
using EnumeratedPtr = Owner<ASN1_ENUMERATED, ASN1_ENUMERATED_free>;

constexpr unsigned char kTagBoolean = V_ASN1_BOOLEAN;
constexpr unsigned char kTagInteger = V_ASN1_INTEGER;
constexpr unsigned char kTagBitString = V_ASN1_BIT_STRING;
constexpr unsigned char kTagOctetString = V_ASN1_OCTET_STRING;
constexpr unsigned char kTagOid = V_ASN1_OBJECT;
constexpr unsigned char kTagSequence = V_ASN1_SEQUENCE | V_ASN1_CONSTRUCTED;
constexpr unsigned char kTagExtensions = V_ASN1_CONTEXT_SPECIFIC | V_ASN1_CONSTRUCTED;  // [0]

// Content bytes of the identifiers of entry extensions.
constexpr std::string_view kReasonCode = "\x55\x1D\x15";
constexpr std::string_view kInvalidityDate = "\x55\x1D\x18";
constexpr std::string_view kCertificateIssuer = "\x55\x1D\x1D";

unsigned char ByteAt(std::string_view bytes, std::size_t at) {
    return static_cast<unsigned char>(bytes[at]);
}

struct Element {
    std::string_view whole;
    std::string_view content;
};

// Header bytes of an element with a one-byte tag in DER.
std::size_t HeaderSize(std::size_t content_size) {
    std::size_t size = 2;
    if (content_size >= 0x80) {
        for (; content_size != 0; content_size >>= 8) ++size;
    }
    return size;
}

// Takes one DER element after the other. What is not as expected stays where it is.
class DerCursor {
  public:
    explicit DerCursor(std::string_view der) : rest_(der) {}

    bool AtEnd() const { return rest_.empty(); }
    const char* position() const { return rest_.data(); }
    bool NextIs(unsigned char tag) const { return !rest_.empty() && ByteAt(rest_, 0) == tag; }

    bool Take(unsigned char tag, Element& element) {
        if (!NextIs(tag)) return false;
        const unsigned char* const begin = Data(rest_);
        const unsigned char* content = begin;
        long length = 0;
        int number = 0;
        int tag_class = 0;
        const int form = ASN1_get_object(&content, &length, &number, &tag_class, static_cast<long>(rest_.size()));
        constexpr int kBad = 0x80;
        constexpr int kIndefinite = 1;
        const auto header = static_cast<std::size_t>(content - begin);
        const auto size = static_cast<std::size_t>(length);
        if ((form & (kBad | kIndefinite)) != 0 || header != HeaderSize(size)) return false;
        element = {rest_.substr(0, header + size), rest_.substr(header, size)};
        rest_.remove_prefix(header + size);
        return true;
    }
    bool Take(unsigned char tag, std::string_view& content) {
        Element element;
        if (!Take(tag, element)) return false;
        content = element.content;
        return true;
    }

  private:
    std::string_view rest_;
};

template <auto D2i, typename T, auto Free>
bool DecodeField(std::string_view der, Owner<T, Free>& out) {
    if (der.size() > kMaxCrlFieldBytes) return false;
    out = libcrypto::DecodeWhole<Free>(D2i, der);
    return out != nullptr;
}

// An INTEGER in its shortest form.
bool IsInteger(std::string_view content) {
    if (content.size() < 2) return !content.empty();
    const bool sign = ByteAt(content, 1) >= 0x80;
    return ByteAt(content, 0) != (sign ? 0xFF : 0x00);
}

// Every arc is complete and in its shortest form.
bool IsOid(std::string_view content) {
    if (content.empty() || ByteAt(content, content.size() - 1) >= 0x80) return false;
    bool arc_begins = true;
    for (const char c : content) {
        const auto byte = static_cast<unsigned char>(c);
        if (arc_begins && byte == 0x80) return false;
        arc_begins = byte < 0x80;
    }
    return true;
}

bool TakeTime(DerCursor& from, Element& time) {
    return from.Take(V_ASN1_UTCTIME, time) || from.Take(V_ASN1_GENERALIZEDTIME, time);
}

bool TakeEntry(DerCursor& from, CrlEntry& entry) {
    std::string_view content;
    if (!from.Take(kTagSequence, content)) return false;
    DerCursor in(content);
    Element time;
    entry.extensions = {};
    if (!in.Take(kTagInteger, entry.serial) || !IsInteger(entry.serial) || !TakeTime(in, time)) return false;
    entry.time_type = ByteAt(time.whole, 0);
    entry.time = time.content;
    return in.AtEnd() || (in.Take(kTagSequence, entry.extensions) && in.AtEnd());
}

struct EntryExtension {
    Element oid;
    bool critical = false;
    std::string_view value;
};

bool TakeExtension(DerCursor& from, EntryExtension& extension) {
    std::string_view content;
    if (!from.Take(kTagSequence, content)) return false;
    DerCursor in(content);
    std::string_view critical;
    if (!in.Take(kTagOid, extension.oid) || !IsOid(extension.oid.content)) return false;
    if (in.NextIs(kTagBoolean) && (!in.Take(kTagBoolean, critical) || critical.size() != 1)) return false;
    extension.critical = !critical.empty() && critical[0] != 0;
    return in.Take(kTagOctetString, extension.value) && in.AtEnd();
}

// Number of the entry's extensions of that kind, of which `value` receives the last. The list has been read before.
int FindExtension(const CrlEntry& entry, std::string_view oid, std::string_view& value) {
    int found = 0;
    DerCursor in(entry.extensions);
    for (EntryExtension extension; TakeExtension(in, extension);) {
        if (extension.oid.content != oid) continue;
        value = extension.value;
        ++found;
    }
    return found;
}

// As RevokedEntry::reason has it.
int ReasonOf(const CrlEntry& entry) {
    constexpr int kNone = 0;
    constexpr int kUnreadable = -1;
    std::string_view value;
    const int found = FindExtension(entry, kReasonCode, value);
    if (found == 0) return kNone;
    EnumeratedPtr reason;
    if (found > 1 || !DecodeField<d2i_ASN1_ENUMERATED>(value, reason)) return kUnreadable;
    const long code = ASN1_ENUMERATED_get(reason.get());
    return code >= 0 && code <= UINT8_MAX ? static_cast<int>(code) + 1 : kUnreadable;
}

bool HoldsName(const GENERAL_NAMES* names, const std::string& printable) {
    for (int i = 0; i < sk_GENERAL_NAME_num(names); ++i) {
        const GENERAL_NAME* const name = sk_GENERAL_NAME_value(names, i);
        std::string text;
        if (name->type == GEN_DIRNAME) X509_NAME_to_utf8(name->d.directoryName, text);
        if (!text.empty() && text == printable) return true;
    }
    return false;
}

// Magnitude of a negative number from its two's complement and back; keeps the number of bytes.
std::string Negated(std::string_view bytes) {
    std::string negated(bytes);
    bool carry = true;
    for (auto byte = negated.rbegin(); byte != negated.rend(); ++byte) {
        *byte = static_cast<char>(~*byte + (carry ? 1 : 0));
        carry = carry && *byte == 0;
    }
    return negated;
}

std::string SerialText(std::string_view content) {
    const bool negative = ByteAt(content, 0) >= 0x80;
    const std::string negated = negative ? Negated(content) : std::string();
    std::string_view magnitude = negative ? negated : content;
    if (magnitude.size() > 1 && magnitude[0] == 0) magnitude.remove_prefix(1);
    return asn_serial_to_text(negative, magnitude);
}

// Content of the INTEGER that has this text; empty when none has.
std::string SerialContent(const std::string& text) {
    const bool negative = !text.empty() && text[0] == '-';
    std::string digits = text.substr(negative ? 1 : 0);
    std::erase_if(digits, [](char c) { return c == '\\' || c == '\n'; });
    std::string content;
    if (!FROM_HEX_STD_STRING(digits, content)) return {};
    content.insert(content.begin(), '\0');  // for the sign
    if (negative) content = Negated(content);
    if (content.size() > 1 && !IsInteger(content)) content.erase(0, 1);
    return IsInteger(content) && SerialText(content) == text ? content : std::string();
}

}  // namespace

// --- Reading ---

std::unique_ptr<const Crl> Crl::Read(SharedBytes bytes) {
    if (bytes->size() > kMaxCrlBytes) return nullptr;
    auto crl = std::make_unique<Crl>();
    crl->bytes_ = std::move(bytes);
    if (!crl->ReadFrame() || !crl->ReadEntries()) return nullptr;
    return crl;
}

bool Crl::ReadFrame() {
    Element crl;
    Element signed_part;
    Element algorithm;
    Element signature;
    if (!DerCursor(*bytes_).Take(kTagSequence, crl)) return false;
    DerCursor in(crl.content);
    if (!in.Take(kTagSequence, signed_part) || !in.Take(kTagSequence, algorithm) ||
        !in.Take(kTagBitString, signature) || !in.AtEnd()) {
        return false;
    }
    whole_ = crl.whole;
    to_be_signed_ = signed_part.whole;
    return DecodeField<d2i_X509_ALGOR>(algorithm.whole, algorithm_) &&
           DecodeField<d2i_ASN1_BIT_STRING>(signature.whole, signature_) && ReadToBeSigned(signed_part.content);
}

bool Crl::ReadToBeSigned(std::string_view content) {
    DerCursor in(content);
    Element field;
    AlgorithmPtr inner_algorithm;
    if (in.NextIs(kTagInteger) && !(in.Take(kTagInteger, field) && IsInteger(field.content))) return false;
    if (!in.Take(kTagSequence, field) || !DecodeField<d2i_X509_ALGOR>(field.whole, inner_algorithm)) return false;
    signed_algorithm_agrees_ = X509_ALGOR_cmp(inner_algorithm.get(), algorithm_.get()) == 0;
    if (!in.Take(kTagSequence, field) || !DecodeField<d2i_X509_NAME>(field.whole, issuer_)) return false;
    if (!TakeTime(in, field) || !DecodeField<d2i_ASN1_TIME>(field.whole, this_update_)) return false;
    if (TakeTime(in, field) && !DecodeField<d2i_ASN1_TIME>(field.whole, next_update_)) return false;
    if (in.NextIs(kTagSequence) && !in.Take(kTagSequence, entries_)) return false;
    if (in.Take(kTagExtensions, field) && !DecodeField<d2i_X509_EXTENSIONS>(field.content, extensions_)) return false;
    return in.AtEnd();
}

bool Crl::ReadEntries() {
    constexpr std::size_t kShortEntry = 20;  // few real ones are shorter
    index_.Reserve(entries_.size() / kShortEntry);
    CrlEntry entry;
    for (DerCursor in(entries_); !in.AtEnd();) {
        entry.offset = static_cast<std::uint32_t>(in.position() - bytes_->data());
        if (!TakeEntry(in, entry) || !CheckEntryExtensions(entry)) return false;
        index_.Add(entry.serial, entry.offset);
    }
    index_.Finish();
    return true;
}

bool Crl::CheckEntryExtensions(const CrlEntry& entry) {
    EntryExtension extension;
    for (DerCursor in(entry.extensions); !in.AtEnd();) {
        if (!TakeExtension(in, extension)) return false;
        const std::string_view oid = extension.oid.content;
        if (oid == kCertificateIssuer) {
            issuer_entries_.push_back(entry.offset);
        } else if (extension.critical && unknown_critical_.empty() && oid != kReasonCode && oid != kInvalidityDate) {
            ObjectPtr object;
            if (DecodeField<d2i_ASN1_OBJECT>(extension.oid.whole, object)) {
                ASN1_OBJECT_to_std_string(object.get(), unknown_critical_, kOidName);
            }
            if (unknown_critical_.empty()) unknown_critical_ = "unknown extension";
        }
    }
    return true;
}

// --- Entries ---

CrlEntry Crl::EntryAt(std::uint32_t offset) const {
    CrlEntry entry;
    entry.offset = offset;
    const std::size_t begin = static_cast<std::size_t>(entries_.data() - bytes_->data());
    DerCursor in(entries_.substr(offset - begin));
    TakeEntry(in, entry);
    return entry;
}

void Crl::AppendRecords(RevokedCertInfoList& records) const {
    records.reserve(records.size() + entryCount());
    CrlEntry entry;
    for (DerCursor in(entries_); TakeEntry(in, entry);) {
        RevokedCertInfo& record = records.emplace_back();
        record.serialNumber = SerialText(entry.serial);
        record.revocationDate = PackedTime(entry.time_type, entry.time);
    }
}

// The certificate issuer of an entry is that of the entry itself or of the last one before it that names one. One that
// cannot be read may be anybody.
bool Crl::IsAbout(const CrlEntry& entry, const std::string& issuer) const {
    const auto after = std::upper_bound(issuer_entries_.begin(), issuer_entries_.end(), entry.offset);
    if (after == issuer_entries_.begin()) return true;
    std::string_view value;
    GeneralNamesPtr names;
    if (FindExtension(EntryAt(*std::prev(after)), kCertificateIssuer, value) != 1) return true;
    return !DecodeField<d2i_GENERAL_NAMES>(value, names) || HoldsName(names.get(), issuer);
}

bool Crl::FindRevoked(const std::string& serial, const std::string& issuer, RevokedEntry& entry) const {
    const std::string wanted = SerialContent(serial);
    if (wanted.empty()) return false;
    const std::uint32_t hash = SerialIndex::Hash(wanted);
    for (const SerialIndex::Slot& slot : index_.Candidates(hash)) {
        if (slot.hash != hash) continue;
        const CrlEntry found = EntryAt(slot.offset);
        if (found.serial != wanted || !IsAbout(found, issuer)) continue;
        entry = {serial, PackedTime(found.time_type, found.time), ReasonOf(found)};
        return true;
    }
    return false;
}

// --- Index ---

std::uint32_t SerialIndex::Hash(std::string_view serial) {
    const std::uint64_t hash = std::hash<std::string_view>()(serial);
    return static_cast<std::uint32_t>(hash ^ hash >> 32);
}

std::size_t SerialIndex::BucketOf(std::uint32_t hash) const {
    return static_cast<std::size_t>(std::uint64_t{hash} * (begins_.size() - 1) >> 32);
}

// Sorts by bucket and keeps the order within one.
void SerialIndex::Finish() {
    constexpr std::size_t kSlotsPerBucket = 4;
    begins_.assign(slots_.size() / kSlotsPerBucket + 2, 0);
    for (const Slot& slot : slots_) ++begins_[BucketOf(slot.hash) + 1];
    std::partial_sum(begins_.begin(), begins_.end(), begins_.begin());
    std::vector<std::uint32_t> next(begins_.begin(), begins_.end() - 1);
    std::vector<Slot> sorted(slots_.size());
    for (const Slot& slot : slots_) sorted[next[BucketOf(slot.hash)]++] = slot;
    slots_ = std::move(sorted);
}

std::span<const SerialIndex::Slot> SerialIndex::Candidates(std::uint32_t hash) const {
    const std::size_t bucket = BucketOf(hash);
    return std::span(slots_).subspan(begins_[bucket], begins_[bucket + 1] - begins_[bucket]);
}

}  // namespace cert_engine
