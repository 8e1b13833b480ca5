// CRL handles: description, entries and their look-up, scope, and what is no CRL.
#include <algorithm>
#include <cstdlib>
#include <random>

#include "certmgr/cert_engine_openssl_crl.h"
#include "tests/engine/engine_fixture.h"
#include "tests/support/der.h"

namespace {

using namespace std::string_literals;
using engine_test::CrlHandle;
using engine_test::EngineTest;
using engine_test::ReadCrl;
using test_pki::Cert;
using test_pki::CrlEntry;
using test_pki::CrlSpec;
using test_pki::EntryDer;
using test_pki::KeyType;
using test_pki::MakeCa;
using test_pki::Time;

CRLInfo CrlInfoOf(const std::string& der) {
    CRLInfo info;
    const auto crl = ReadCrl(der);
    EXPECT_NE(crl, nullptr);
    if (crl != nullptr) {
        EXPECT_TRUE(CertEngine_HandleToCRLInfo(crl.get(), info));
    }
    return info;
}

TEST_F(EngineTest, DescribesACrl) {
    const Cert root = MakeCa("CN=Root", nullptr, KeyType::kEd25519);
    const CRLInfo info = CrlInfoOf(MakeCrl({.number = "\x01\x02"}, root));
    EXPECT_EQ(info.issuer, "CN=Root");
    EXPECT_EQ(CertTimeTo_time_t(info.thisUpdate), test_pki::kNotBefore);
    EXPECT_EQ(CertTimeTo_time_t(info.nextUpdate), test_pki::kNotAfter);
    EXPECT_EQ(info.signAlg, 0xC0005U);
    EXPECT_EQ(info.crlNumber, "0102");
    EXPECT_EQ(info.deltaCrlIndicator, "");

    const CRLInfo old = CrlInfoOf(MakeCrl({.next_update = std::nullopt, .version = 1}, root));
    EXPECT_EQ(old.nextUpdate, CERT_TIME_UNKNOWN);
    EXPECT_EQ(old.crlNumber, "");
}

TEST_F(EngineTest, DeltaIndicatorRepeatsTheCrlNumber) {
    const Cert root = MakeCa("CN=Root");
    const CRLInfo delta = CrlInfoOf(MakeCrl({.number = "\x07", .delta_base = "\x05"}, root));
    EXPECT_EQ(delta.crlNumber, "07");
    EXPECT_EQ(delta.deltaCrlIndicator, "07");
    EXPECT_EQ(CrlInfoOf(MakeCrl({.delta_base = "\x05"}, root)).deltaCrlIndicator, "");
    // A number that cannot be decoded is no number.
    EXPECT_EQ(CrlInfoOf(MakeCrl({.extensions = {{"crlNumber", false, "\x01"}}}, root)).crlNumber, "");
}

TEST_F(EngineTest, RevokedListKeepsItsOrder) {
    const Cert root = MakeCa("CN=Root");
    const std::string der = MakeCrl({.entries = {{.serial = "\x30", .reason = 1},
                                                 {.serial = "\x10", .date = Time::Utc("250301123000Z")},
                                                 {.serial = "\x20", .date = Time::Utc("never")}}},
                                    root);
    RevokedCertInfoList entries(1);
    EXPECT_TRUE(CertEngine_CRLRevokedCerts(ReadCrl(der).get(), entries));
    ASSERT_EQ(entries.size(), 4U) << "entries are appended";
    EXPECT_EQ(entries[1].serialNumber, "30");
    EXPECT_EQ(entries[2].serialNumber, "10");
    EXPECT_EQ(entries[3].serialNumber, "20");
    EXPECT_EQ(entries[1].reasonCode, -1);
    EXPECT_EQ(CertTimeToString(entries[2].revocationDate), "2025-03-01 12:30:00 UTC");
    EXPECT_EQ(entries[3].revocationDate, CERT_TIME_UNKNOWN);
    EXPECT_TRUE(CertEngine_CRLRevokedCerts(ReadCrl(MakeCrl({}, root)).get(), entries));
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
    return ReadCrl(MakeCrl({.entries = entries}, MakeCa("CN=Root")));
}

TEST_F(EngineTest, EverySerialNumberIsFoundByItsText) {
    const std::vector<std::string> contents = {
        "\x05",
        "\0"s,
        "\0\x80"s,
        "\x7f\xff",
        "\0\xff\0"s,
        "\x80",
        "\xff",
        "\xff\x7f",
        "\x80\0"s,
        "\xff\0"s,
        "\xff\0\0"s,
        "\xfe\xdc\xba",
        "\xff\0\1"s,
        std::string(20, 'S'),
        std::string(35, 'S'),
        std::string(36, 'S'),
        std::string(64, 'S'),
        "\x90" + std::string(63, 'S'),
    };
    std::vector<CrlEntry> entries;
    for (const std::string& content : contents) entries.push_back({.serial = content});
    const CrlHandle crl = Revoking(entries);
    ASSERT_NE(crl, nullptr);
    const std::vector<std::string> serials = SerialsOf(crl);
    ASSERT_EQ(serials.size(), contents.size());
    EXPECT_EQ(serials[2], "80");
    EXPECT_EQ(serials[5], "-80");
    EXPECT_EQ(serials[9], "-0100");
    EXPECT_EQ(serials[12], "-FFFF");
    for (const std::string& serial : serials) EXPECT_EQ(Find(crl, serial), 100) << serial;
    // Texts that no record has.
    for (const char* text : {"", "-", "5", "005", "0005", "05 ", " 05", "0x05", "-00", "-05", "7fff", "7F", "FF\n",
                             "\\\n05", "8\\\n0", "--80", "80-"}) {
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
    EXPECT_EQ(Find(ReadCrl(MakeCrl({}, MakeCa("CN=Root"))), "02"), 0) << "no list";
    EXPECT_EQ(Find(ReadCrl(MakeCrl({.entries_der = ""}, MakeCa("CN=Root"))), "02"), 0) << "an empty list";
}

TEST_F(EngineTest, ReasonIsThatOfTheEntry) {
    const auto reason = [](const std::string& value) { return test_pki::Extension{"CRLReason", false, value}; };
    const auto coded = [&](const std::string& content) { return reason(der::Tlv(0x0A, content)); };
    const struct {
        const char* what;
        std::vector<test_pki::Extension> extensions;
        int reason;
    } cases[] = {
        {"none", {}, 0},
        {"other extensions", {{"invalidityDate", false, der::Tlv(0x18, "20250101000000Z")}}, 0},
        {"unspecified", {coded("\0"s)}, 1},
        {"key compromise, after another", {{"1.2.3", false, "x"}, coded("\1")}, 2},
        {"remove from CRL, critical", {{"CRLReason", true, der::Tlv(0x0A, "\x08")}}, 9},
        {"AA compromise", {coded("\x0a")}, 11},
        {"unassigned", {coded("\x63")}, 100},
        {"negative", {coded("\xff")}, -1},
        {"large", {coded("\1\0"s)}, -1},
        {"no number", {reason("\x05")}, -1},
        {"more behind it", {reason(der::Tlv(0x0A, "\1") + "x")}, -1},
        {"an INTEGER", {reason(der::Integer(1))}, -1},
        {"two of them", {coded("\1"), coded("\1")}, -1},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Find(Revoking({{.serial = "\x05", .extensions = c.extensions}}), "05"), 100 + c.reason) << c.what;
    }
}

// RFC 5280, 5.3.3: the name holds until another one comes.
TEST_F(EngineTest, EntriesOfAnotherIssuerAreNotFound) {
    const auto names = [](const std::string& value) {
        return std::vector<test_pki::Extension>{{"certificateIssuer", true, value}};
    };
    const auto name = [&](const std::string& text) {
        return names(der::Sequence(test_pki::GeneralName("DNS:x") + test_pki::GeneralName("DN:" + text)));
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
    const struct {
        const char* serial;
        const char* issuer;
        int found;
    } cases[] = {
        {"01", "CN=Root", 100}, {"01", "CN=Third", 100}, {"02", "CN=Root", 106},  {"02", "CN=Other", 100},
        {"02", "CN=Third", 0},  {"03", "CN=Root", 0},    {"03", "CN=Other", 100}, {"04", "CN=Root", 100},
        {"04", "CN=Other", 0},  {"05", "CN=Third", 100}, {"06", "CN=Root", 100},  {"06", "CN=Third", 100},
    };
    for (const auto& c : cases) EXPECT_EQ(Find(crl, c.serial, c.issuer), c.found) << c.serial << c.issuer;
}

TEST_F(EngineTest, HugeListsAreSearchedAsSmallOnes) {
    constexpr int kEntries = 300000;
    constexpr int kDistinct = 100000;
    std::mt19937 random(20300101);
    const auto serial = [](int n) { return "\x11" + std::to_string(n % kDistinct * 7919); };
    const auto text_of = [](const std::string& digits) {  // "\x11" and decimal digits
        std::string text = "11";
        for (const char digit : digits.substr(1)) text += std::string("3") + digit;
        return text;
    };
    std::string entries;
    for (int i = 0; i < kEntries; ++i) {
        entries += EntryDer({.serial = serial(i), .date = test_pki::kNotBefore + i / kDistinct});
    }
    const CrlHandle crl = ReadCrl(MakeCrl({.entries_der = entries}, MakeCa("CN=Root")));
    ASSERT_NE(crl, nullptr);
    EXPECT_EQ(SerialsOf(crl).size(), static_cast<std::size_t>(kEntries));
    for (int round = 0; round < 2000; ++round) {
        const std::string text = text_of(serial(static_cast<int>(random() % kEntries)));
        RevokedEntry entry;
        ASSERT_TRUE(CertEngine_CRLFindRevoked(crl.get(), text, "CN=Root", entry)) << text;
        EXPECT_EQ(CertTimeTo_time_t(entry.revocationDate), test_pki::kNotBefore) << "the first";
        ASSERT_EQ(Find(crl, text + "FF"), 0);
    }
}

// An index that compares equal serial numbers while it is made would not come to an end here.
TEST_F(EngineTest, MillionsOfEqualSerialNumbersDoNoHarm) {
    const std::string entry = EntryDer({.serial = "\x05"});
    std::string entries;
    for (int i = 0; i < 2000000; ++i) entries += entry;
    EXPECT_EQ(Find(ReadCrl(MakeCrl({.entries_der = entries}, MakeCa("CN=Root"))), "05"), 100);
}

// --- Scope ---

CrlScope ScopeOf(const CrlSpec& spec) {
    CrlScope scope;
    const CrlHandle crl = ReadCrl(MakeCrl(spec, MakeCa("CN=Root")));
    EXPECT_NE(crl, nullptr);
    if (crl != nullptr) CertEngine_CRLScope(crl.get(), scope);
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

    const struct {
        const char* value;
        bool CrlScope::*flag;
    } flags[] = {
        {"onlyuser:TRUE", &CrlScope::onlyContainsUserCerts},           {"onlyCA:TRUE", &CrlScope::onlyContainsCACerts},
        {"onlyAA:TRUE", &CrlScope::onlyContainsAttributeCerts},        {"indirectCRL:TRUE", &CrlScope::indirectCRL},
        {"onlysomereasons:keyCompromise", &CrlScope::onlySomeReasons},
    };
    for (const auto& expected : flags) {
        const CrlScope scope = ScopeOfPoint(expected.value);
        EXPECT_TRUE(scope.hasIssuingPoint && !scope.namesPoint && scope.firstUnreadable.empty()) << expected.value;
        for (const auto& other : flags) EXPECT_EQ(scope.*other.flag, other.flag == expected.flag) << expected.value;
    }

    const std::string full_name = der::Explicit(0, test_pki::GeneralName("DN:CN=p") + test_pki::GeneralName("URI:u"));
    const CrlScope several = ScopeOf({.issuing_distribution_point = der::Sequence(der::Explicit(0, full_name))});
    EXPECT_EQ(several.otherNames, std::vector<std::string>{test_pki::GeneralName("DN:CN=p")});
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
    const auto entry = [&](std::vector<test_pki::Extension> extensions) {
        return std::vector<CrlEntry>{{.serial = "\x04"}, {.serial = serial, .extensions = std::move(extensions)}};
    };
    const std::string date = der::Tlv(0x18, "20250101000000Z");
    const struct {
        const char* what;
        CrlSpec spec;
        const char* unknown;
    } cases[] = {
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
    for (const auto& c : cases) EXPECT_EQ(ScopeOf(c.spec).firstUnknownCritical, c.unknown) << c.what;
}

// --- What is no CRL ---

/// A CRL of these parts.
std::string Frame(const std::string& fields, const std::string& after = "") {
    const std::string algorithm = der::Sequence(der::Oid("ecdsa-with-SHA256"));
    return der::Sequence(der::Sequence(fields) + algorithm + der::BitString("signature") + after);
}

const std::string kAlgorithm = der::Sequence(der::Oid("ecdsa-with-SHA256"));
const std::string kTime = der::Tlv(0x17, "300101000000Z");
std::string Header() {
    return der::Integer(1) + kAlgorithm + test_pki::NameDer("CN=Root") + kTime + kTime;
}
std::string WithEntries(const std::string& content) {
    return Frame(Header() + der::Sequence(content));
}
std::string WithEntryExtensions(const std::string& content) {
    return WithEntries(der::Sequence(der::Integer(5) + kTime + der::Sequence(content)));
}
/// An element whose length takes more bytes than it must.
std::string LongForm(unsigned char tag, const std::string& content) {
    return std::string{static_cast<char>(tag), '\x82', '\0', static_cast<char>(content.size())} + content;
}

TEST_F(EngineTest, WhatIsOutOfFormIsNoCrl) {
    const std::string entry = der::Sequence(der::Integer(5) + kTime);
    const std::string oid = der::Oid("1.2.3");
    const auto extension = [](const std::string& content) { return WithEntryExtensions(der::Sequence(content)); };
    const std::string value = der::OctetString("x");
    // Each of these is made of the same pieces as the refused ones.
    const std::string good[] = {
        Frame(Header()),
        WithEntries(entry + entry),
        WithEntries(""),
        extension(oid + der::Boolean(true) + value),
        extension(oid + der::Boolean(false) + value),
        Frame(kAlgorithm + test_pki::NameDer("CN=Root") + kTime),
        Frame(Header() + der::Explicit(0, der::Sequence(""))),
        WithEntryExtensions(""),
    };
    for (const std::string& bytes : good) EXPECT_NE(ReadCrl(bytes), nullptr) << TO_HEX_STD_STRING(bytes);

    const struct {
        const char* what;
        std::string bytes;
    } bad[] = {
        {"more after the signature", Frame(Header(), der::Null())},
        {"no version number", Frame(der::Tlv(0x02, "") + Header().substr(3))},
        {"two lists", Frame(Header() + der::Sequence(entry) + der::Sequence(entry))},
        {"a list after the extensions", Frame(Header() + der::Explicit(0, der::Sequence("")) + der::Sequence(entry))},
        {"three times", Frame(Header() + kTime)},
        {"extensions without a list", Frame(Header() + der::Explicit(0, ""))},
        {"more after the extensions", Frame(Header() + der::Explicit(0, der::Sequence("") + der::Null()))},
        {"entry that is no sequence", WithEntries(entry + der::Integer(5))},
        {"entry without time", WithEntries(der::Sequence(der::Integer(5)))},
        {"entry without number", WithEntries(der::Sequence(kTime))},
        {"empty number", WithEntries(der::Sequence(der::Tlv(0x02, "") + kTime))},
        {"padded number", WithEntries(der::Sequence(der::IntegerBytes("\0\5"s) + kTime))},
        {"padded negative number", WithEntries(der::Sequence(der::IntegerBytes("\xff\x85") + kTime))},
        {"time as text", WithEntries(der::Sequence(der::Integer(5) + der::Tlv(0x0C, "300101000000Z")))},
        {"more in an entry", WithEntries(der::Sequence(der::Integer(5) + kTime + der::Sequence("") + der::Null()))},
        {"null in an entry", WithEntries(der::Sequence(der::Integer(5) + kTime + der::Null()))},
        {"entry in an entry", WithEntries(der::Sequence(entry))},
        {"entry longer than the list", WithEntries("\x30\x7f\x02\x01\x05")},
        {"entry of 2^32 bytes", WithEntries("\x30\x84\xff\xff\xff\xff" + entry)},
        {"entry of 2^64 bytes", WithEntries("\x30\x88\xff\xff\xff\xff\xff\xff\xff\xff" + entry)},
        {"entry without end", WithEntries("\x30\x80" + der::Integer(5) + kTime + "\0\0"s)},
        {"long form of a short length", WithEntries(LongForm(0x30, der::Integer(5) + kTime))},
        {"long form in an entry", WithEntries(der::Sequence(LongForm(0x02, "\5") + kTime))},
        {"constructed number", WithEntries(der::Sequence(der::Tlv(0x22, der::Integer(5)) + kTime))},
        {"extension that is no sequence", WithEntryExtensions(der::Null())},
        {"extension without value", extension(oid)},
        {"extension without identifier", extension(value)},
        {"empty identifier", extension(der::Tlv(0x06, "") + value)},
        {"unfinished identifier", extension(der::Tlv(0x06, "\x2a\x83") + value)},
        {"padded identifier", extension(der::Tlv(0x06, "\x2a\x80\x03") + value)},
        {"long boolean", extension(oid + der::Tlv(0x01, "\xff\xff") + value)},
        {"empty boolean", extension(oid + der::Tlv(0x01, "") + value)},
        {"more in an extension", extension(oid + value + der::Null())},
        {"no unused-bits count", der::Sequence(der::Sequence(Header()) + kAlgorithm + der::Tlv(0x03, ""))},
        {"without end", "\x30\x80" + Frame(Header()).substr(2) + "\0\0"s},
    };
    for (const auto& c : bad) EXPECT_EQ(ReadCrl(c.bytes), nullptr) << c.what;
}

TEST_F(EngineTest, LimitsStandBeforeTheParser) {
    constexpr std::size_t kLimit = cert_engine::kMaxCrlFieldBytes;
    const auto with_extension = [](std::size_t size) {
        return ReadCrl(MakeCrl({.extensions = {{"1.2.3.4", false, std::string(size, 'x')}}}, MakeCa("CN=Root")));
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
