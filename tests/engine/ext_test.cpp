// Extension rendering: texts and decoded values.
#include <array>
#include <tuple>

#include "tests/engine/engine_fixture.h"
#include "tests/support/der.h"

namespace engine_test {
namespace {

using der::Sequence;

CertExtentions Rendered(const CertSpec& spec) {
    return ExtensionsOf(MakeCert(spec).der);
}

TEST_F(EngineTest, WithoutExtensionsOnlyFingerprintsAreFilled) {
    const std::string der = MakeCert({.version = 1}).der;
    const CertExtentions ext = ExtensionsOf(der);
    EXPECT_EQ(ext.md5, TO_HEX_STD_STRING(Digest("MD5", der), 0));
    EXPECT_EQ(ext.sha1, TO_HEX_STD_STRING(Digest("SHA1", der), 0));
    EXPECT_TRUE(ext.pathLen == -1 && !ext.isCA && ext.subjectKeyIdHex.empty() && ext.unknownExtensions.empty());
}

TEST_F(EngineTest, KeyUsageFromTheLowestBitUp) {
    using Kept = std::array<std::uint8_t, 2>;
    const std::string all =
        "Encipher Only, CRL Sign, Certificate Sign, Key Agreement, Data Encipherment, Key Encipherment, "
        "Non Repudiation, Digital Signature, Decipher Only";
    const std::tuple<std::string, std::uint8_t, Kept, std::string> cases[] = {
        {"\x80", 7, {0x80, 0}, "Digital Signature"},
        {"\xFF\x80", 7, {0xFF, 1}, all},
        {std::string("\x00\x80", 2), 7, {0, 1}, "Decipher Only"},
        {"", 0, {0, 0}, ""},
        {"\x80\x7F\xFF", 0, {0x80, 0}, "Digital Signature"},
    };
    for (const auto& [bits, unused, kept, text] : cases) {
        const CertExtentions ext = Rendered({.extensions = {{"keyUsage", true, der::BitString(bits, unused)}}});
        EXPECT_EQ(std::tuple(ext.keyUsage, ext.keyUsageBits, ext.firstUnknownCritical), std::tuple(text, kept, ""));
    }
}

TEST_F(EngineTest, BasicConstraints) {
    const std::string prefix = "Subject Type=CA, Path Length Constraint=";
    const std::string yes = der::Boolean(true);
    const std::tuple<std::string, bool, std::int32_t, std::string> cases[] = {
        {Sequence(yes), true, -1, prefix + "None"},
        {Sequence(yes + der::Integer(0)), true, 0, prefix + "0"},
        {Sequence(yes + der::IntegerBytes("\xFF")), true, 0, prefix + "0"},
        {Sequence(yes + der::IntegerBytes(std::string(40, '\x7F'))), true, INT32_MAX, prefix + "2147483647"},
        {Sequence(der::Integer(3)), false, 0, ""},
        {Sequence(""), false, -1, ""},
    };
    for (const auto& [der, ca, path_len, text] : cases) {
        const CertExtentions ext = Rendered({.extensions = {{"basicConstraints", true, der}}});
        EXPECT_EQ(std::tuple(ext.isCA, ext.pathLen, ext.basicConstraints), std::tuple(ca, path_len, text));
    }
}

TEST_F(EngineTest, AlternativeNames) {
    const std::string nul_name = std::string("DNS:a\0.b", 8);
    const CertExtentions ext = Rendered(
        {.san = {"DNS:first.example", "email:a@example", "IP:192.0.2.1", "UPN:jos\xC3\xA9@corp", "URI:http://u/",
                 "DN:CN=Alice, C=DE", "RID:1.2.3.4", "IP:2001:db8::1", nul_name, "IPRAW:abc",
                 "DER:" + der::Explicit(0, der::Oid("1.2.3.4") + der::Explicit(0, der::Null())),
                 "DER:" + der::Explicit(3, ""), "DER:" + der::Explicit(5, der::Explicit(1, der::Tlv(0x0C, "party")))},
         .extensions = {{"issuerAltName", false, Sequence(der::Implicit(2, "issuer.example"))}}});
    EXPECT_EQ(ext.subjectAltName,
              std::string("DNS=first.example,EMAIL=a@example,IP=192.0.2.1,OTHERNAME=jos\xC3\xA9@corp,URI=http://u/,"
                          "DIRNAME=CN=Alice, C=DE,RID=1.2.3.4,IP=32.1.13.184,DNS=a") +
                  '\0' + ".b,IP=,OTHERNAME=1.2.3.4,X400=,EDIPARTY=");
    const auto& alt = ext.altSubject;  // of each kind the last one, as it stands
    EXPECT_EQ(std::tuple(alt.dnsName, alt.email, alt.ipAddress, alt.upn),
              std::tuple(nul_name.substr(4), "a@example", "abc", "jos\xC3\xA9@corp"));
    EXPECT_EQ(ext.issuerAltName, "DNS=issuer.example");
    const auto upn = [](const std::string& value) {
        return "DER:" + der::Explicit(0, der::Oid("1.3.6.1.4.1.311.20.2.3") + der::Explicit(0, value));
    };
    EXPECT_EQ(Rendered({.san = {upn(der::Tlv(0x1E, std::string("\0a\0b", 4)))}}).altSubject.upn, "ab");  // BMPString
    for (const std::string& value : {der::Tlv(0x1E, "odd"), der::Boolean(true), Sequence(der::Integer(5))}) {
        EXPECT_EQ(Rendered({.san = {upn(value)}}).altSubject.upn, "");
    }
}

TEST_F(EngineTest, KeyIdentifiers) {
    const Cert root = MakeCa("CN=Root");
    const Extension whole{"authorityKeyIdentifier", false,
                          Sequence(der::Implicit(0, root.key_id) + der::Explicit(1, der::Explicit(4, root.issuer_der)) +
                                   der::Implicit(2, root.serial))};
    const CertExtentions ext = Rendered({.ski = KeyId::Bytes("\x0a\x0b"), .aki = KeyId::None(), .extensions = {whole}});
    const std::string key_id = TO_HEX_STD_STRING(root.key_id, ' ');
    EXPECT_EQ(ext.subjectKeyIdHex + "|" + ext.authorityKeyIdHex, "0a 0b|" + key_id);
    EXPECT_EQ(ext.authorityKeyId, key_id + ", authorityCertIssuer: DIRNAME=CN=Root, authorityCertSerialNumber: " +
                                      TO_HEX_STD_STRING(root.serial, 0));
    const Extension serial_only{"authorityKeyIdentifier", false, Sequence(der::Implicit(2, "\x05"))};
    const CertExtentions other = Rendered({.aki = KeyId::None(), .extensions = {serial_only}});
    EXPECT_EQ(other.authorityKeyId + "|" + other.authorityKeyIdHex, "authorityCertSerialNumber: 05|");
}

TEST_F(EngineTest, ExtendedKeyUsage) {
    const CertExtentions ext = Rendered({.eku = {"serverAuth", "1.2.3.4", "1.3.6.1.5.5.7.3.17"}});
    EXPECT_EQ(ext.extKeyUsageOids, "1.3.6.1.5.5.7.3.1, 1.2.3.4, 1.3.6.1.5.5.7.3.17");
    EXPECT_NE(ext.extKeyUsageNames.find(" (1.3.6.1.5.5.7.3.1), 1.2.3.4, "), std::string::npos) << ext.extKeyUsageNames;
    EXPECT_TRUE(ext.hasIpsecIkeEku);
    EXPECT_FALSE(Rendered({.eku = {"1.3.6.1.5.5.7.3.18"}}).hasIpsecIkeEku);
}

TEST_F(EngineTest, DistributionPoints) {
    // A point named relative to its issuer carries no full name and is not counted.
    const std::string relative =
        Sequence(der::Explicit(0, der::Explicit(1, Sequence(der::Oid("CN") + der::Tlv(12, "x")))));
    const auto full = [](const std::string& names) { return Sequence(der::Explicit(0, der::Explicit(0, names))); };
    const std::string value = Sequence(
        relative + full(GeneralName("URI:http://a/1.crl") + GeneralName("DNS:ignored") + GeneralName("URI:ldap://b/")) +
        full(GeneralName("URI:http://c/")));
    const CertExtentions ext = Rendered({.extensions = {{"crlDistributionPoints", false, value}}});
    EXPECT_EQ(ext.crlDistributionPoints,
              "[1] CRL Distribution Point\n    URI=http://a/1.crl\n    URI=ldap://b/\n"
              "[2] CRL Distribution Point\n    URI=http://c/");
    EXPECT_EQ(ext.crlUris, (std::vector<std::string>{"http://a/1.crl", "ldap://b/", "http://c/"}));
    EXPECT_EQ(ext.crlOtherNames, (std::vector<std::string>{GeneralName("DNS:ignored")}));
}

TEST_F(EngineTest, OtherTexts) {
    const std::string from = der::Implicit(0, "20250301123000Z");
    const std::string to = der::Implicit(1, "20260301123000Z");
    const CertExtentions ext =
        Rendered({.conf = {{"certificatePolicies", "1.2.3.4,1.2.3.5"},
                           {"policyMappings", "1.2.3.4:1.2.3.5"},
                           {"policyConstraints", "requireExplicitPolicy:1"},
                           {"nameConstraints", "permitted;DNS:.a,permitted;email:b,excluded;DNS:c"},
                           {"authorityInfoAccess", "1.2.3.4;URI:http://o/,1.2.3.5;DNS:d"}},
                  .extensions = {{"privateKeyUsagePeriod", false, Sequence(from + to)}}});
    EXPECT_EQ(ext.privateKeyUsagePeriod, "notBefore=2025-03-01 12:30:00 UTC, notAfter=2026-03-01 12:30:00 UTC");
    EXPECT_EQ(CertTimeToString(ext.privateKeyUsageEnd), "2026-03-01 12:30:00 UTC");
    EXPECT_EQ(ext.certificatePolicies,
              "[1] Certificate Policy:\n    Policy Identifier=1.2.3.4\n"
              "[2] Certificate Policy:\n    Policy Identifier=1.2.3.5");
    // The text that clients know for a value that is not shown.
    for (const std::string& text : {ext.policyMappings, ext.policyConstraints}) EXPECT_EQ(text, "TODO");
    EXPECT_EQ(ext.nameConstraints, "permittedSubtrees: DNS=.a,EMAIL=bexcludedSubtrees: DNS=c");
    EXPECT_EQ(ext.authorityInfoAccess,
              "[1] Access Description\n   accessMethod: 1.2.3.4\n   accessLocation: URI=http://o/"
              "[2] Access Description\n   accessMethod: 1.2.3.5\n   accessLocation: DNS=d");
    EXPECT_TRUE(ext.unknownExtensions.empty());

    const CertExtentions open_end = Rendered({.extensions = {{"privateKeyUsagePeriod", false, Sequence(from)}}});
    EXPECT_EQ(open_end.privateKeyUsagePeriod, "notBefore=2025-03-01 12:30:00 UTC");
    EXPECT_EQ(open_end.privateKeyUsageEnd, CERT_TIME_UNKNOWN);
}

TEST_F(EngineTest, UnknownExtensions) {
    const CertExtentions ext = Rendered({.extensions = {{"1.2.3.4", false, der::OctetString("ab")},
                                                        {"keyUsage", true, "\x01"},
                                                        {"1.2.3.5", true, "not DER"},
                                                        {"inhibitAnyPolicy", true, der::Integer(1)}}});
    std::string names;
    for (const auto& [name, value] : ext.unknownExtensions) {
        names += name + "|";
        EXPECT_TRUE(value.find(" \n") == std::string::npos && value.find("\n ") == std::string::npos) << value;
        EXPECT_FALSE(value.empty() || value.front() == ' ' || value.back() == '\n') << value;
    }
    EXPECT_TRUE(names.starts_with("1.2.3.4|" + ext.firstUnknownCritical + "(critical)|1.2.3.5(critical)|")) << names;
    ASSERT_EQ(ext.unknownExtensions.size(), 4U);
    EXPECT_NE(ext.unknownExtensions[0].second.find("OCTET STRING"), std::string::npos);
    EXPECT_EQ(ext.unknownExtensions[3].second + "|" + ext.keyUsage, "1|");
    EXPECT_EQ(Rendered({.extensions = {{"1.2.3.5", true, ""}, {"1.2.3.6", true, ""}}}).firstUnknownCritical, "1.2.3.5");
}

// More bad extensions than libcrypto's error queue has places; the fixture checks that the queue is left alone.
TEST_F(EngineTest, ManyUnreadableExtensionsAreAllReportedAndBounded) {
    CertSpec spec;
    for (int i = 0; i < 300; ++i) spec.extensions.push_back({"subjectAltName", false, std::string(1000, '\x01')});
    const CertExtentions ext = Rendered(spec);
    ASSERT_EQ(ext.unknownExtensions.size(), 300U);
    std::size_t printed = 0;
    for (const auto& [name, value] : ext.unknownExtensions) printed += value.size();
    EXPECT_LT(printed, 512U * 1024);
    EXPECT_EQ(ext.unknownExtensions.back().second, "1000 bytes");
}

TEST_F(EngineTest, LastOfSeveralExtensionsCounts) {
    const CertExtentions ext =
        Rendered({.ca = true,
                  .key_usage = "digitalSignature",
                  .san = {"DNS:first.example", "email:a@example"},
                  .extensions = {{"basicConstraints", true, Sequence("")},
                                 {"keyUsage", true, der::BitString("\x04", 2)},
                                 {"subjectAltName", false, Sequence(der::Implicit(2, "last"))}}});
    EXPECT_FALSE(ext.isCA);
    EXPECT_EQ(ext.basicConstraints + "|" + ext.keyUsage + "|" + ext.subjectAltName + "|" + ext.altSubject.dnsName,
              "|Certificate Sign|DNS=last|last");
}

}  // namespace
}  // namespace engine_test
