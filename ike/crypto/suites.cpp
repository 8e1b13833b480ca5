#include "ike/crypto/suites.h"

#include <algorithm>
#include <array>

#include "platform/base/text.h"

namespace ikeauth {
namespace {

constexpr std::uint16_t kAesCbc = 12;
constexpr std::uint16_t kAesGcm16 = 20;
constexpr std::uint16_t kNoExtendedSequence = 0;

Transform ToTransform(const Algorithm& algorithm) {
    return {.type = algorithm.type, .id = algorithm.id, .key_bits = algorithm.key_bits};
}

bool IsAead(const Transform& transform) {
    const Algorithm* algorithm = FindAlgorithm(transform);
    return algorithm != nullptr && algorithm->aead;
}

bool HasType(const Proposal& proposal, std::uint8_t type) {
    return std::any_of(proposal.transforms.begin(), proposal.transforms.end(),
                       [type](const Transform& transform) { return transform.type == type; });
}

Proposal AllOf(std::uint8_t number, bool aead) {
    Proposal proposal{.number = number};
    for (const Algorithm& algorithm : Algorithms()) {
        const bool fits =
            algorithm.type == kEncryption ? algorithm.aead == aead : !aead || algorithm.type != kIntegrity;
        if (fits) proposal.transforms.push_back(ToTransform(algorithm));
    }
    return proposal;
}

/// What a proposal lacks, or has too much of; empty when it is complete.
std::string Incomplete(const Proposal& proposal) {
    bool aead = false;
    bool other = false;
    for (const Transform& transform : proposal.transforms) {
        if (transform.type == kEncryption) (IsAead(transform) ? aead : other) = true;
    }
    if (aead && other) return "mixes AES-GCM with other ciphers: write them as two proposals";
    if (!aead && !other) return "names no cipher, such as aes256gcm16 or aes256";
    if (!HasType(proposal, kPrf)) return "names no hash, such as sha256";
    if (!HasType(proposal, kGroup)) return "names no group, such as ecp256, x25519 or modp2048";
    return {};
}

/// A hash stands for its PRF and its integrity algorithm, the latter not beside an AEAD cipher.
bool AddWord(std::string_view word, Proposal& proposal, std::string& error) {
    bool known = false;
    for (const Algorithm& algorithm : Algorithms()) {
        if (algorithm.word != word) continue;
        proposal.transforms.push_back(ToTransform(algorithm));
        known = true;
    }
    if (!known) error = "\"" + std::string(word) + "\" is no algorithm of this system; see --help";
    return known;
}

std::string_view TakeUntil(std::string_view& text, char separator) {
    const std::size_t end = std::min(text.find(separator), text.size());
    const std::string_view word = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return word;
}

bool ReadProposal(std::string_view text, Proposal& proposal, std::string& error) {
    const std::string whole(text);
    while (!text.empty()) {
        if (!AddWord(TakeUntil(text, '-'), proposal, error)) return false;
    }
    error = Incomplete(proposal);
    if (!error.empty()) {
        error.insert(0, "proposal \"" + whole + "\" ");
        return false;
    }
    if (std::any_of(proposal.transforms.begin(), proposal.transforms.end(), IsAead)) {
        std::erase_if(proposal.transforms, [](const Transform& transform) { return transform.type == kIntegrity; });
    }
    return true;
}

/// Our first transform of a type that the peer offers too.
const Transform* ChooseTransform(const Proposal& offered, const Proposal& ours, std::uint8_t type) {
    for (const Transform& mine : ours.transforms) {
        if (mine.type != type) continue;
        const auto found = std::find(offered.transforms.begin(), offered.transforms.end(), mine);
        if (found != offered.transforms.end()) return &mine;
    }
    return nullptr;
}

/// NONE may stand for a type that the other side does not have.
bool MayBeAbsent(const Proposal& proposal, std::uint8_t type) {
    return !HasType(proposal, type) || std::any_of(proposal.transforms.begin(), proposal.transforms.end(),
                                                   [type](const Transform& t) { return t.type == type && t.id == 0; });
}

bool Match(const Proposal& offered, const Proposal& ours, Proposal& chosen) {
    if (offered.protocol != ours.protocol) return false;
    std::vector<std::uint8_t> types;
    for (const Proposal* side : {&offered, &ours}) {
        for (const Transform& transform : side->transforms) {
            if (std::find(types.begin(), types.end(), transform.type) == types.end()) types.push_back(transform.type);
        }
    }
    chosen = {.number = offered.number, .protocol = offered.protocol, .spi = ours.spi};
    for (const std::uint8_t type : types) {
        const Transform* transform = ChooseTransform(offered, ours, type);
        if (transform != nullptr) {
            chosen.transforms.push_back(*transform);
        } else if (!MayBeAbsent(offered, type) || !MayBeAbsent(ours, type)) {
            return false;
        }
    }
    return true;
}

const Algorithm** MemberFor(Suite& suite, std::uint8_t type) {
    switch (type) {
        case kEncryption:
            return &suite.encryption;
        case kPrf:
            return &suite.prf;
        case kIntegrity:
            return &suite.integrity;
        case kGroup:
            return &suite.group;
        default:
            return nullptr;
    }
}

std::string Name(const Transform& transform) {
    const Algorithm* algorithm = FindAlgorithm(transform);
    if (algorithm != nullptr) return std::string(algorithm->name);
    std::string text = "transform " + std::to_string(transform.type) + "/" + std::to_string(transform.id);
    if (transform.key_bits != 0) text += "/" + std::to_string(transform.key_bits);
    return text;
}

}  // namespace

const std::vector<Algorithm>& Algorithms() {
    static const std::vector<Algorithm> table = {
        {kEncryption, kAesGcm16, 256, "aes256gcm16", "AES-GCM-16-256", "AES-256-GCM", 36, 16, true},
        {kEncryption, kAesGcm16, 192, "aes192gcm16", "AES-GCM-16-192", "AES-192-GCM", 28, 16, true},
        {kEncryption, kAesGcm16, 128, "aes128gcm16", "AES-GCM-16-128", "AES-128-GCM", 20, 16, true},
        {kEncryption, kAesCbc, 256, "aes256", "AES-CBC-256", "AES-256-CBC", 32, 0, false},
        {kEncryption, kAesCbc, 192, "aes192", "AES-CBC-192", "AES-192-CBC", 24, 0, false},
        {kEncryption, kAesCbc, 128, "aes128", "AES-CBC-128", "AES-128-CBC", 16, 0, false},
        {kIntegrity, 12, 0, "sha256", "HMAC-SHA-256-128", "SHA256", 32, 16, false},
        {kIntegrity, 13, 0, "sha384", "HMAC-SHA-384-192", "SHA384", 48, 24, false},
        {kIntegrity, 14, 0, "sha512", "HMAC-SHA-512-256", "SHA512", 64, 32, false},
        {kPrf, 5, 0, "sha256", "PRF HMAC-SHA-256", "SHA256", 32, 0, false},
        {kPrf, 6, 0, "sha384", "PRF HMAC-SHA-384", "SHA384", 48, 0, false},
        {kPrf, 7, 0, "sha512", "PRF HMAC-SHA-512", "SHA512", 64, 0, false},
        {kGroup, 31, 0, "x25519", "X25519", "X25519", 32, 0, false},
        {kGroup, 19, 0, "ecp256", "ECP-256", "P-256", 64, 0, false},
        {kGroup, 20, 0, "ecp384", "ECP-384", "P-384", 96, 0, false},
        {kGroup, 14, 0, "modp2048", "MODP-2048", "modp_2048", 256, 0, false},
    };
    return table;
}

const Algorithm* FindAlgorithm(const Transform& transform) {
    const std::vector<Algorithm>& table = Algorithms();
    const auto found = std::find_if(table.begin(), table.end(),
                                    [&](const Algorithm& algorithm) { return ToTransform(algorithm) == transform; });
    return found == table.end() ? nullptr : &*found;
}

SaOffer DefaultOffer() {
    return {.proposals = {AllOf(1, true), AllOf(2, false)}};
}

bool ReadOffer(std::string_view text, SaOffer& offer, std::string& error) {
    offer = {};
    do {
        Proposal& proposal = offer.proposals.emplace_back();
        proposal.number = static_cast<std::uint8_t>(offer.proposals.size());
        if (!ReadProposal(TakeUntil(text, ','), proposal, error)) return false;
        if (offer.proposals.size() > kMaxProposals) {
            error = "more than " + std::to_string(kMaxProposals) + " proposals";
            return false;
        }
    } while (!text.empty());
    return true;
}

std::string Describe(const Proposal& proposal) {
    return vpnfc::Joined(proposal.transforms, [](const Transform& transform) { return Name(transform); });
}

std::string Describe(const Suite& suite) {
    const std::array parts{suite.encryption, suite.integrity, suite.prf, suite.group};
    return vpnfc::Joined(parts, [](const Algorithm* part) { return part == nullptr ? "" : part->name; });
}

bool ChooseProposal(const SaOffer& offered, const SaOffer& ours, Proposal& chosen) {
    for (const Proposal& theirs : offered.proposals) {
        for (const Proposal& mine : ours.proposals) {
            if (Match(theirs, mine, chosen)) return true;
        }
    }
    return false;
}

bool ReadSuite(const Proposal& proposal, Suite& suite) {
    for (const Transform& transform : proposal.transforms) {
        if (transform.id == 0) continue;  // NONE
        const Algorithm** member = MemberFor(suite, transform.type);
        if (member == nullptr || *member != nullptr) return false;
        *member = FindAlgorithm(transform);
        if (*member == nullptr) return false;
    }
    const bool complete = suite.encryption != nullptr && suite.prf != nullptr && suite.group != nullptr;
    return complete && suite.encryption->aead == (suite.integrity == nullptr);
}

const Algorithm* FirstGroup(const SaOffer& offer) {
    for (const Proposal& proposal : offer.proposals) {
        for (const Transform& transform : proposal.transforms) {
            if (transform.type == kGroup) return FindAlgorithm(transform);
        }
    }
    return nullptr;
}

SaOffer EspOffer(const std::string& spi) {
    SaOffer offer = DefaultOffer();
    for (Proposal& proposal : offer.proposals) {
        proposal.protocol = kProtocolEsp;
        proposal.spi = spi;
        std::erase_if(proposal.transforms, [](const Transform& t) { return t.type == kPrf || t.type == kGroup; });
        proposal.transforms.push_back({.type = kSequence, .id = kNoExtendedSequence});
    }
    return offer;
}

}  // namespace ikeauth
