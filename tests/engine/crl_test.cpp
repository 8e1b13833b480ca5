// CRL handles: description, entries and their look-up, scope, and what is no CRL.
#include <algorithm>
#include <cstdlib>
#include <tuple>

#include "certmgr/cert_engine_openssl_crl.h"
#include "tests/engine/engine_fixture.h"
#include "tests/support/der.h"

namespace engine_test {
namespace {

using namespace std::string_literals;

CRLInfo InfoOfCrl(const CrlSpec& spec, const Cert& issuer) {
    CRLInfo info;
    EXPECT_TRUE(CertEngine_HandleToCRLInfo(ReadCrl(MakeCrl(spec, issuer)).get(), info));
    return info;
}
CrlHandle Read(const CrlSpec& spec) {
    return ReadCrl(MakeCrl(spec, MakeCa("CN=Root")));
}

TEST_F(EngineTest, DescribesACrl) {
    const Cert root = MakeCa("CN=Root", nullptr, KeyType::kEd25519);
    const CRLInfo info = InfoOfCrl({.number = "\x01\x02"}, root);
    EXPECT_EQ(info.issuer + "|" + info.crlNumber + "|" + info.deltaCrlIndicator, "CN=Root|0102|");
    EXPECT_EQ(CertTimeTo_time_t(info.thisUpdate), kNotBefore);
    EXPECT_EQ(CertTimeTo_time_t(info.nextUpdate), kNotAfter);
    EXPECT_EQ(info.signAlg, 0xC0005U);
    EXPECT_EQ(InfoOfCrl({.number = "\x07", .delta_base = "\x05"}, root).deltaCrlIndicator, "07");
    EXPECT_EQ(InfoOfCrl({.delta_base = "\x05"}, root).deltaCrlIndicator, "");
    // A number that cannot be decoded is no number.
    EXPECT_EQ(InfoOfCrl({.extensions = {{"crlNumber", false, "\x01"}}}, root).crlNumber, "");
    const CRLInfo old = InfoOfCrl({.next_update = std::nullopt, .version = 1}, root);
    EXPECT_EQ(std::tuple(old.nextUpdate, old.crlNumber), std::tuple(CERT_TIME_UNKNOWN, ""));
}

TEST_F(EngineTest, RevokedListKeepsItsOrder) {
    RevokedCertInfoList entries(1);
    EXPECT_TRUE(CertEngine_CRLRevokedCerts(Read({.entries = {{.serial = "\x30", .reason = 1},
                                                             {.serial = "\x10", .date = Time::Utc("250301123000Z")},
                                                             {.serial = "\x20", .date = Time::Utc("never")}}})
                                               .get(),
                                           entries));
    std::string text;  // appended to what was there
    for (const RevokedCertInfo& entry : entries) {
        text += entry.serialNumber + " " + CertTimeToString(entry.revocationDate) + "\n";
    }
    EXPECT_EQ(text, " " + CertTimeToString(RevokedCertInfo().revocationDate) +
                        "\n30 2020-01-01 00:00:00 UTC\n10 2025-03-01 12:30:00 UTC\n20 unknown\n");
    EXPECT_EQ(entries[1].reasonCode, -1);
    EXPECT_TRUE(CertEngine_CRLRevokedCerts(Read({}).get(), entries));
    EXPECT_EQ(entries.size(), 4U);
}

// --- Look-up ---

/// Reason of the entry found for a certificate with that issuer, plus 100 for "found"; 0 when there is none.
int Find(const CrlHandle& crl, const std::string& serial, const std::string& issuer = "CN=Root") {
    RevokedEntry entry;
    if (!CertEngine_CRLFindRevoked(crl.get(), serial, issuer, entry)) return 0;
    EXPECT_EQ(entry.serialNumber, serial);
    return 100 + entry.reason;
}

std::vector<std::string> SerialsOf(const CrlHandle& crl) {
    RevokedCertInfoList records;
    CertEngine_CRLRevokedCerts(crl.get(), records);
    std::vector<std::string> serials;
    for (const RevokedCertInfo& record : records) serials.push_back(record.serialNumber);
    return serials;
}

CrlHandle Revoking(const std::vector<CrlEntry>& entries) {
    return Read({.entries = entries});
}

// That each entry is found by its text, and what its reason is: fuzz/crl.cpp.
TEST_F(EngineTest, SerialNumbersAreFoundByTheirTextAlone) {
    const CrlHandle crl = Revoking({{.serial = "\x05"},
                                    {.serial = "\0\x80"s},
                                    {.serial = "\x80"},
                                    {.serial = "\xff\0"s},
                                    {.serial = "\x7f\xff"},
                                    {.serial = "\x90" + std::string(63, 'S')}});
    const std::vector<std::string> serials = SerialsOf(crl);
    EXPECT_EQ(std::vector(serials.begin(), serials.begin() + 5),
              (std::vector<std::string>{"05", "80", "-80", "-0100", "7FFF"}));
    for (const std::string& serial : serials) EXPECT_EQ(Find(crl, serial), 100) << serial;
    for (const char* text : {"", "-", "5", "005", "0005", "05 ", "-00", "-05", "7fff", "7F", "\\\n05", "--80"}) {
        EXPECT_EQ(Find(crl, text), 0) << text;
    }
}

TEST_F(EngineTest, FirstEntryOfASerialNumberWins) {
    const CrlHandle crl = Revoking({{.serial = "\x01", .reason = 9},
                                    {.serial = "\x02", .date = Time::Utc("250301123000Z"), .reason = 1},
                                    {.serial = "\x02", .reason = 4},
                                    {.serial = "\x02"}});
    EXPECT_EQ(Find(crl, "02"), 102);
    RevokedEntry entry;
    EXPECT_TRUE(CertEngine_CRLFindRevoked(crl.get(), "02", "", entry));
    EXPECT_EQ(CertTimeToString(entry.revocationDate), "2025-03-01 12:30:00 UTC");
    EXPECT_FALSE(CertEngine_CRLFindRevoked(crl.get(), "03", "", entry));
    EXPECT_EQ(entry.serialNumber, "02") << "unchanged";
    EXPECT_EQ(Find(Read({}), "02"), 0) << "no list";
    EXPECT_EQ(Find(Read({.entries_der = ""}), "02"), 0) << "an empty list";
}

TEST_F(EngineTest, AReasonThatCannotBeReadIsTold) {
    const auto reason = [](const std::string& value) { return Extension{"CRLReason", false, value}; };
    const std::pair<std::vector<Extension>, int> cases[] = {
        {{}, 0},
        {{{"1.2.3", false, "x"}, reason("\x0a\1\1")}, 2},
        {{reason("\x0a\1\1"), reason("\x0a\1\1")}, -1},
        {{reason("\x0a\1\1x")}, -1},
        {{reason("\x0a\1\xff")}, -1},
        {{reason("\5")}, -1},
    };
    for (const auto& [extensions, code] : cases) {
        EXPECT_EQ(Find(Revoking({{.serial = "\x05", .extensions = extensions}}), "05"), 100 + code);
    }
}

// RFC 5280, 5.3.3: the name holds until another one comes.
TEST_F(EngineTest, EntriesOfAnotherIssuerAreNotFound) {
    const auto names = [](const std::string& value) {
        return std::vector<Extension>{{"certificateIssuer", true, value}};
    };
    const auto name = [&](const std::string& text) {
        return names(der::Sequence(GeneralName("DNS:x") + GeneralName("DN:" + text)));
    };
    const CrlHandle crl = Revoking({{.serial = "\x01"},
                                    {.serial = "\x02", .extensions = name("CN=Other")},
                                    {.serial = "\x03"},
                                    {.serial = "\x01", .reason = 1},
                                    {.serial = "\x04", .extensions = name("CN=Root")},
                                    {.serial = "\x02", .reason = 5},
                                    {.serial = "\x05", .extensions = names("junk")},
                                    {.serial = "\x06"}});
    ASSERT_NE(crl, nullptr);
    const std::tuple<const char*, const char*, int> cases[] = {
        {"01", "CN=Root", 100}, {"01", "CN=Third", 100}, {"02", "CN=Root", 106},  {"02", "CN=Other", 100},
        {"02", "CN=Third", 0},  {"03", "CN=Root", 0},    {"03", "CN=Other", 100}, {"04", "CN=Root", 100},
        {"04", "CN=Other", 0},  {"05", "CN=Third", 100}, {"06", "CN=Root", 100},  {"06", "CN=Third", 100},
    };
    for (const auto& [serial, issuer, found] : cases) EXPECT_EQ(Find(crl, serial, issuer), found) << serial << issuer;
}

// An index that compares equal serial numbers while it is made would not come to an end here.
TEST_F(EngineTest, HugeListsAreSearchedAsSmallOnes) {
    constexpr int kDistinct = 50000;
    std::string entries;
    for (int i = 0; i < 2 * kDistinct; ++i) {
        entries +=
            EntryDer({.serial = std::to_string(1000000 + i % kDistinct * 17), .date = kNotBefore + i / kDistinct});
    }
    const std::string equal = EntryDer({.serial = "\x05"});
    for (int i = 0; i < 1000000; ++i) entries += equal;
    const CrlHandle crl = Read({.entries_der = entries});
    ASSERT_NE(crl, nullptr);
    EXPECT_EQ(Find(crl, "05"), 100);
    for (int i = 0; i < kDistinct; i += 25) {
        const std::string text = TO_HEX_STD_STRING(std::to_string(1000000 + i * 17));
        RevokedEntry entry;
        ASSERT_TRUE(CertEngine_CRLFindRevoked(crl.get(), text, "CN=Root", entry)) << text;
        EXPECT_EQ(CertTimeTo_time_t(entry.revocationDate), kNotBefore) << "the first";
        ASSERT_EQ(Find(crl, text + "FF"), 0);
    }
}

// --- Scope ---

CrlScope ScopeOf(const CrlSpec& spec) {
    CrlScope scope;
    CertEngine_CRLScope(Read(spec).get(), scope);
    return scope;
}
CrlScope ScopeOfPoint(const std::string& value) {
    return ScopeOf({.conf = {{"issuingDistributionPoint", "critical," + value}}});
}

TEST_F(EngineTest, ScopeTellsWhatTheIssuingDistributionPointSays) {
    const CrlScope plain = ScopeOf({.number = "\1"});
    EXPECT_FALSE(plain.hasIssuingPoint || plain.namesPoint || plain.isDelta);

    const CrlScope named = ScopeOfPoint("fullname:URI:http://a/1.crl");
    EXPECT_TRUE(named.hasIssuingPoint && named.namesPoint);
    EXPECT_EQ(named.uris, std::vector<std::string>{"http://a/1.crl"});

    const std::pair<const char*, bool CrlScope::*> flags[] = {
        {"onlyuser:TRUE", &CrlScope::onlyContainsUserCerts},           {"onlyCA:TRUE", &CrlScope::onlyContainsCACerts},
        {"onlyAA:TRUE", &CrlScope::onlyContainsAttributeCerts},        {"indirectCRL:TRUE", &CrlScope::indirectCRL},
        {"onlysomereasons:keyCompromise", &CrlScope::onlySomeReasons},
    };
    for (const auto& [value, flag] : flags) {
        const CrlScope scope = ScopeOfPoint(value);
        EXPECT_TRUE(scope.hasIssuingPoint && !scope.namesPoint && scope.firstUnreadable.empty()) << value;
        for (const auto& [other, other_flag] : flags) EXPECT_EQ(scope.*other_flag, other_flag == flag) << value;
    }

    const std::string full_name = der::Explicit(0, GeneralName("DN:CN=p") + GeneralName("URI:u"));
    const CrlScope several = ScopeOf({.issuing_distribution_point = der::Sequence(der::Explicit(0, full_name))});
    EXPECT_EQ(several.otherNames, std::vector<std::string>{GeneralName("DN:CN=p")});
    EXPECT_EQ(several.uris, std::vector<std::string>{"u"});
    const std::string relative = der::Explicit(1, der::Sequence(der::Oid("CN") + der::Tlv(0x0C, "p")));
    const CrlScope by_relative_name =
        ScopeOf({.issuing_distribution_point = der::Sequence(der::Explicit(0, relative))});
    EXPECT_TRUE(by_relative_name.namesPoint && by_relative_name.otherNames.empty());
}

TEST_F(EngineTest, ScopeNamesWhatIsNotUnderstood) {
    EXPECT_EQ(ScopeOf({.issuing_distribution_point = "junk"}).firstUnreadable, "issuingDistributionPoint");
    EXPECT_EQ(ScopeOf({.issuing_distribution_point = der::Sequence(""),
                       .extensions = {{"issuingDistributionPoint", true, der::Sequence("")}}})
                  .firstUnreadable,
              "issuingDistributionPoint");
    EXPECT_TRUE(ScopeOf({.delta_base = "\1"}).isDelta);
    EXPECT_TRUE(ScopeOf({.extensions = {{"deltaCRL", false, "junk"}}}).isDelta);

    const std::string serial = "\x05";
    const auto entry = [&](std::vector<Extension> extensions) {
        return std::vector<CrlEntry>{{.serial = "\x04"}, {.serial = serial, .extensions = std::move(extensions)}};
    };
    const std::string date = der::Tlv(0x18, "20250101000000Z");
    const std::tuple<const char*, CrlSpec, const char*> cases[] = {
        {"known ones", {.number = "\1", .delta_base = "\1", .extensions = {{"crlNumber", true, der::Integer(1)}}}, ""},
        {"not critical", {.extensions = {{"1.2.3.4", false, "x"}}}, ""},
        {"of the CRL", {.extensions = {{"1.2.3.4", true, "x"}, {"1.2.3.5", true, "x"}}}, "1.2.3.4"},
        {"with a name", {.extensions = {{"freshestCRL", true, der::Sequence("")}}}, "freshestCRL"},
        {"known ones of an entry",
         {.entries = entry({{"CRLReason", true, der::Tlv(0x0A, "\1")},
                            {"invalidityDate", true, date},
                            {"certificateIssuer", true, der::Sequence("")},
                            {"1.2.3.4", false, "x"}})},
         ""},
        {"of an entry", {.entries = entry({{"1.2.3.6", true, "x"}, {"1.2.3.7", true, "x"}})}, "1.2.3.6"},
        {"of both", {.entries = entry({{"1.2.3.6", true, "x"}}), .extensions = {{"1.2.3.4", true, "x"}}}, "1.2.3.4"},
    };
    for (const auto& [what, spec, unknown] : cases) EXPECT_EQ(ScopeOf(spec).firstUnknownCritical, unknown) << what;
}

// --- What is no CRL ---

const std::string kAlgorithm = der::Sequence(der::Oid("ecdsa-with-SHA256"));
/// A CRL of these parts.
std::string Frame(const std::string& fields, const std::string& after = "") {
    return der::Sequence(der::Sequence(fields) + kAlgorithm + der::BitString("signature") + after);
}
const std::string kTime = der::Tlv(0x17, "300101000000Z");
std::string Header() {
    return der::Integer(1) + kAlgorithm + NameDer("CN=Root") + kTime + kTime;
}
std::string WithEntries(const std::string& content) {
    return Frame(Header() + der::Sequence(content));
}
/// An element whose length takes more bytes than it must.
std::string LongForm(unsigned char tag, const std::string& content) {
    return std::string{static_cast<char>(tag), '\x82', '\0', static_cast<char>(content.size())} + content;
}

// What libcrypto would take; fuzz/crl.cpp has what it refuses.
TEST_F(EngineTest, WhatIsNotDerIsNoCrl) {
    const std::string entry = der::Sequence(der::Integer(5) + kTime);
    EXPECT_NE(ReadCrl(WithEntries(entry + entry)), nullptr);
    EXPECT_NE(ReadCrl(Frame(kAlgorithm + NameDer("CN=Root") + kTime)), nullptr) << "of version 1";
    const std::pair<const char*, std::string> bad[] = {
        {"entry without end", WithEntries("\x30\x80" + der::Integer(5) + kTime + "\0\0"s)},
        {"entry of 2^64 bytes", WithEntries("\x30\x88\xff\xff\xff\xff\xff\xff\xff\xff" + entry)},
        {"long form of a short length", WithEntries(LongForm(0x30, der::Integer(5) + kTime))},
        {"long form in an entry", WithEntries(der::Sequence(LongForm(0x02, "\5") + kTime))},
        {"constructed number", WithEntries(der::Sequence(der::Tlv(0x22, der::Integer(5)) + kTime))},
        {"two lists", Frame(Header() + der::Sequence(entry) + der::Sequence(entry))},
        {"more after the signature", Frame(Header(), der::Null())},
        {"without end", "\x30\x80" + Frame(Header()).substr(2) + "\0\0"s},
    };
    for (const auto& [what, bytes] : bad) EXPECT_EQ(ReadCrl(bytes), nullptr) << what;
}

TEST_F(EngineTest, LimitsStandBeforeTheParser) {
    constexpr std::size_t kLimit = cert_engine::kMaxCrlFieldBytes;
    const auto with_extension = [](std::size_t size) {
        return Read({.extensions = {{"1.2.3.4", false, std::string(size, 'x')}}});
    };
    EXPECT_NE(with_extension(kLimit / 2), nullptr);
    EXPECT_EQ(with_extension(kLimit), nullptr);
    const std::string name =
        der::Sequence(der::Set(der::Sequence(der::Oid("CN") + der::Tlv(0x0C, std::string(kLimit, 'x')))));
    EXPECT_EQ(ReadCrl(Frame(kAlgorithm + name + kTime)), nullptr);

    // Far too much, most of it never touched.
    const std::string good = Frame(Header());
    const std::unique_ptr<char, decltype(&std::free)> much(static_cast<char*>(std::calloc(kMaxCrlBytes + 1UL, 1)),
                                                           std::free);
    ASSERT_NE(much, nullptr);
    std::copy(good.begin(), good.end(), much.get());
    EXPECT_NE(CrlHandle(CertEngine_CreateCRLHandle(much.get(), kMaxCrlBytes)), nullptr);
    EXPECT_EQ(CertEngine_CreateCRLHandle(much.get(), kMaxCrlBytes + 1), nullptr);
}

}  // namespace
}  // namespace engine_test
