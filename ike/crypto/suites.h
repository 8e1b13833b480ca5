// The algorithms of an IKE SA: one table, proposals made from it, and the choice between two sides' proposals.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ike/wire/payloads.h"

namespace ikeauth {

struct Algorithm {
    std::uint8_t type;  // TransformType
    std::uint16_t id;
    std::uint16_t key_bits;  // of the transform's attribute; 0: it has none
    std::string_view word;  // in proposals that people write; a PRF goes with its hash, "sha256"
    std::string_view name;
    const char* libcrypto;  // cipher, digest or group
    std::size_t key_bytes;  // encryption: with the salt; integrity: key; PRF: output
    std::size_t check_bytes;  // what it appends to a message; 0: nothing
    bool aead;
};

/// In the order in which this system prefers them.
const std::vector<Algorithm>& Algorithms();
const Algorithm* FindAlgorithm(const Transform& transform);

/// What an SA uses. A suite with an AEAD cipher has no integrity algorithm.
struct Suite {
    const Algorithm* encryption = nullptr;
    const Algorithm* prf = nullptr;
    const Algorithm* integrity = nullptr;
    const Algorithm* group = nullptr;
};

/// Everything in the table: AEAD ciphers first, then the others with integrity algorithms.
SaOffer DefaultOffer();
/// Reads proposals as people write them, "aes256gcm16-sha384-ecp384,aes128-sha256-x25519". A word that is not known, or
/// a proposal that lacks something, is named in `error`.
bool ReadOffer(std::string_view text, SaOffer& offer, std::string& error);
/// "AES-GCM-16-256, PRF HMAC-SHA-384, ECP-384".
std::string Describe(const Proposal& proposal);
std::string Describe(const Suite& suite);

/// The first of the peer's proposals from which, type by type, something of ours can be taken, in our order.
/// `chosen` repeats its number. False when there is none.
bool ChooseProposal(const SaOffer& offered, const SaOffer& ours, Proposal& chosen);
/// The suite of a proposal that has one transform of each type. False when it is not that.
bool ReadSuite(const Proposal& proposal, Suite& suite);
/// The group that a proposal names first, or null.
const Algorithm* FirstGroup(const SaOffer& offer);

/// ESP, for the child that a peer may insist on: AES-GCM and AES-CBC, without extended sequence numbers.
SaOffer EspOffer(const std::string& spi);

}  // namespace ikeauth
