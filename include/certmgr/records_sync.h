// Order of the fields in which the shared records travel on a command stream.
#pragma once

#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>

#include "certmgr/records.h"
#include "platform/bridge.h"
#include "platform/token_sync.h"

/// A list: the number of its elements, and each as `each(stream, element)` does it. Reading replaces what was there; a
/// number that the bytes do not bear out ends where they do.
template <typename List, typename Each>
void sync_list(CommandStreamOut& stream, const List& list, Each each) {
    stream.fields(static_cast<std::uint32_t>(list.size()));
    for (const auto& element : list) each(stream, element);
}
template <typename List, typename Each>
void sync_list(CommandStreamIn& stream, List& list, Each each) {
    std::uint32_t count = 0;
    stream.fields(count);
    list.clear();
    for (; count > 0; --count) each(stream, list.emplace_back());
}

/// What an element is that is no record: a number or a string.
inline constexpr auto sync_field = [](auto& stream, auto& value) { stream.fields(value); };
inline constexpr auto sync_pair = [](auto& stream, auto& pair) { stream.fields(pair.first, pair.second); };
inline constexpr auto sync_record = [](auto& stream, auto& record) { sync(stream, record); };

template <typename Stream, RecordOf<CertInfo> Record>
void sync(Stream& stream, Record& info) {
    stream.fields(info.id, info.serialNumber, info.subject, info.issuer, info.validFrom, info.validTo, info.keyAlg,
                  info.signAlg, info.isCA, info.version, info.keyBits, info.kind);
}

template <typename Stream, RecordOf<CRLInfo> Record>
void sync(Stream& stream, Record& info) {
    stream.fields(info.id, info.issuer, info.thisUpdate, info.nextUpdate, info.signAlg, info.crlNumber,
                  info.deltaCrlIndicator);
}

template <typename Stream, RecordOf<CertExtentions> Record>
void sync(Stream& stream, Record& ext) {
    stream.fields(ext.md5, ext.sha1, ext.subjectAltName, ext.issuerAltName, ext.keyUsage, ext.authorityKeyId,
                  ext.subjectKeyIdHex, ext.privateKeyUsagePeriod, ext.certificatePolicies, ext.policyMappings,
                  ext.nameConstraints, ext.policyConstraints, ext.extKeyUsageNames, ext.basicConstraints,
                  ext.authorityInfoAccess, ext.crlDistributionPoints);
    sync_list(stream, ext.unknownExtensions, sync_pair);
    stream.fields(ext.privateKeyUsageEnd, ext.firstUnknownCritical);
}

template <typename Stream, RecordOf<CertRequestInfo> Record>
void sync(Stream& stream, Record& info) {
    stream.fields(info.keyAlg, info.keyBits, info.hashAlg, info.subject, info.ipAddress, info.email, info.dnsName,
                  info.upn, info.extKeyUsage, info.keyGenFlag, info.randomSeed);
}

template <typename Stream, RecordOf<CertRequestKeyInfo> Record>
void sync(Stream& stream, Record& info) {
    stream.fields(info.keyAlg);
    sync_list(stream, info.keySizes, sync_field);
    sync_list(stream, info.hashAlgs, sync_field);
}

template <typename Stream, RecordOf<CertImportOption> Record>
void sync(Stream& stream, Record& option) {
    sync(stream, option.info);
    stream.fields(option.mode);
    sync_list(stream, option.tokens, sync_field);
}
