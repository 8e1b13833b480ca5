// Printable names: tables for the form, and comparisons with libcrypto. That what is printed reads as the same name, and
// what is damaged as none or as another, is the property of fuzz/names.cpp.
#include <gtest/gtest.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <locale.h>
#include <wctype.h>

#include <memory>
#include <random>
#include <string>
#include <string_view>

#include "libcrypto/libcrypto.h"
#include "platform/asn1.h"
#include "platform/asn1/text.h"
#include "tests/support/der.h"

namespace {

using namespace std::string_literals;

constexpr std::uint8_t kUtf8 = 0x0C;
constexpr std::uint8_t kNumeric = 0x12;
constexpr std::uint8_t kPrintable = 0x13;
constexpr std::uint8_t kTeletex = 0x14;
constexpr std::uint8_t kIa5 = 0x16;
constexpr std::uint8_t kVisible = 0x1A;
constexpr std::uint8_t kUniversal = 0x1C;
constexpr std::uint8_t kBmp = 0x1E;

std::string Attribute(const std::string& type, std::uint8_t tag, const std::string& value) {
    return der::Sequence(der::Oid(type) + der::Tlv(tag, value));
}

/// Name of one attribute.
std::string NameOf(const std::string& type, std::uint8_t tag, const std::string& value) {
    return der::Sequence(der::Set(Attribute(type, tag, value)));
}

std::string Printed(const std::string& name) {
    std::string printable = "?";
    return asn_dn_to_printable(name, printable) ? printable : "<refused>";
}

std::string Encoded(std::string_view printable) {
    std::string name = "?";
    return printable_to_asn_dn(printable, name) ? name : "<refused>";
}

using NamePtr = libcrypto::Owner<X509_NAME, X509_NAME_free>;

NamePtr ParsedByLibcrypto(const std::string& name) {
    const auto* at = reinterpret_cast<const unsigned char*>(name.data());
    return NamePtr(d2i_X509_NAME(nullptr, &at, static_cast<long>(name.size())));
}

TEST(PrintName, EscapesAndStringTypes) {
    const struct {
        const char* type;
        std::uint8_t tag;
        std::string value;
        std::string printed;
    } cases[] = {
        {"CN", kUtf8, "plain", "CN=plain"},
        {"CN", kPrintable, "", "CN="},
        {"O", kUtf8, "a,b;c+d\"e\\f<g>h=i#j k", R"(O=a\,b\;c\+d\"e\\f\<g\>h=i#j k)"},
        {"CN", kUtf8, " #x ", R"(CN=\ #x\ )"},
        {"CN", kUtf8, "#x", R"(CN=\#x)"},
        {"CN", kUtf8, " ", R"(CN=\ )"},
        {"CN", kUtf8, "  ", R"(CN=\ \ )"},
        {"CN", kUtf8, "   ", R"(CN=\  \ )"},
        {"CN", kUtf8, "a\0b\n\x7f"s, R"(CN=a\00b\0a\7f)"},
        {"CN", kUtf8, "\u0085|\u009f|\u00a0|\u00bf",
         R"(CN=\c2\85|\c2\9f|)"
         "\u00a0|\u00bf"},
        {"CN", kUtf8, "Жук 東京 😀", "CN=Жук 東京 😀"},
        {"CN", kUtf8, "\xff\xfe", "CN=#0c02fffe"},
        {"CN", kUtf8, "\xc0\x80", "CN=#0c02c080"},
        {"CN", kUtf8, "\xed\xa0\x80", "CN=#0c03eda080"},
        {"CN", kUtf8, "a\xc2", "CN=#0c0261c2"},
        {"CN", kTeletex, "M\xfcller\x85", R"(CN=Müller\c2\85)"},
        {"CN", kBmp, "\x04\x16\x00,"s, R"(CN=Ж\,)"},
        {"CN", kBmp, "\x04\x16\x00"s, "CN=#1e03041600"},
        {"CN", kBmp, "\xd8\x3d\xde\x00"s, "CN=#1e04d83dde00"},
        {"CN", kUniversal, "\x00\x01\xf6\x00"s, "CN=😀"},
        {"CN", kUniversal, "\x00\x11\x00\x00"s, "CN=#1c0400110000"},
        {"CN", kVisible, "a@b*", "CN=a@b*"},
        {"CN", kNumeric, "12 34", "CN=12 34"},
        {"CN", kPrintable, "caf\xe9", "CN=#1304636166e9"},
        {"CN", 0x04, "octets", "CN=#04066f6374657473"},
        {"CN", 0x30, "\xff", "CN=#3001ff"},
        {"2.5.4.5", kPrintable, "1", "serialNumber=1"},
        {"2.5.4.4", kUtf8, "x", "SN=x"},
        {"emailAddress", kIa5, "a@b", "emailAddress=a@b"},
        {"DC", kIa5, "example", "DC=example"},
        {"UID", kUtf8, "u", "UID=u"},
        {"1.2.3.4", kUtf8, "x", "1.2.3.4=#0c0178"},
        {"2.25.340282366920938463463374607431768211455", kUtf8, "x",
         "2.25.340282366920938463463374607431768211455=#0c0178"},
        {"2.5.29.19", kUtf8, "x", "2.5.29.19=#0c0178"},  // has a name, but no attribute type's
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Printed(NameOf(c.type, c.tag, c.value)), c.printed);
    }
    EXPECT_EQ(Printed(der::Sequence("")), "");
    EXPECT_EQ(Printed(der::Sequence(der::Set(Attribute("C", kPrintable, "DE")) +
                                    der::Set(Attribute("CN", kUtf8, "a") + Attribute("OU", kUtf8, "b")))),
              "C=DE, CN=a+OU=b");
}

TEST(PrintName, TextsAreEscapedAsValuesAre) {
    for (const std::string& text :
         {"plain"s, ""s, "a,b;c+d\"e\\f<g>h=i#j k"s, " #x "s, "a\0b\n\x1b\x7f"s, "\u0085\u00a0 \u202e"s}) {
        EXPECT_EQ("CN=" + asn_text_to_printable(text), Printed(NameOf("CN", kUtf8, text)));
    }
    EXPECT_EQ(asn_text_to_printable("\xff,\xc2\n\xc2"), "\xff\\,\xc2\\0a\xc2");
    EXPECT_EQ(asn_text_to_line(" #1, \"x\" +<y>;\\\n\xff\u0085\u00a0 "), " #1, \"x\" +<y>;\\\\\\0a\xff\\c2\\85\u00a0 ");
}

TEST(PrintName, RefusesWhatIsNoName) {
    const std::string attribute = Attribute("CN", kUtf8, "x");
    const std::string name = der::Sequence(der::Set(attribute));
    const struct {
        const char* what;
        std::string der;
    } cases[] = {
        {"empty", ""},
        {"trailing byte", name + '\0'},
        {"no set", der::Sequence(attribute)},
        {"empty set", der::Sequence(der::Set(""))},
        {"set where the name should be", der::Set(der::Set(attribute))},
        {"no value", der::Sequence(der::Set(der::Sequence(der::Oid("CN"))))},
        {"two values", der::Sequence(der::Set(der::Sequence(der::Oid("CN") + der::Null() + der::Null())))},
        {"empty type", der::Sequence(der::Set(der::Sequence(der::Tlv(6, "") + der::Tlv(kUtf8, "x"))))},
        {"cut type", der::Sequence(der::Set(der::Sequence(der::Tlv(6, "\x55\x84") + der::Tlv(kUtf8, "x"))))},
        {"indefinite length", "\x30\x80" + der::Set(attribute) + "\0\0"s},
        {"long form of a short length", "\x30\x81\x0c" + der::Set(attribute)},
        {"length of 4 GiB", "\x30\x84\xff\xff\xff\xff" + der::Set(attribute)},
        {"length of 2^64", "\x30\x88\xff\xff\xff\xff\xff\xff\xff\xff" + der::Set(attribute)},
        {"64 KiB", NameOf("CN", kUtf8, std::string(65536, 'x'))},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Printed(c.der), "<refused>") << c.what;
    }
    std::string rdns;
    for (int i = 0; i < 1024; ++i) {
        rdns += der::Set(Attribute("CN", kUtf8, "x"));
    }
    EXPECT_NE(Printed(der::Sequence(rdns)), "<refused>");
    EXPECT_EQ(Printed(der::Sequence(rdns + der::Set(attribute))), "<refused>") << "1025 attributes";
    std::string set;
    std::string text;
    for (int i = 0; i < 64; ++i) {
        set += attribute;
        text += i == 0 ? "CN=x" : "+CN=x";
    }
    EXPECT_EQ(Printed(der::Sequence(der::Set(set))), text);
    EXPECT_EQ(Encoded(text), der::Sequence(der::Set(set)));
    EXPECT_EQ(Printed(der::Sequence(der::Set(set + attribute))), "<refused>") << "65 attributes in an RDN";
    EXPECT_EQ(Encoded(text + "+CN=x"), "<refused>");
}

TEST(ParseName, AcceptedForms) {
    const std::pair<const char*, const char*> cases[] = {
        {"cn=a,o=b", "CN=a, O=b"},
        {"CN=a;O=b", "CN=a, O=b"},
        {"  CN = a  ,\tO =b \n", "CN=a, O=b"},
        {"2.5.4.3=a, OID.2.5.4.10=b, oid.1.2.3=#0500", "CN=a, O=b, 1.2.3=#0500"},
        {"commonName=a, E=b@c, S=d, G=e, serialnumber=7", "CN=a, emailAddress=b@c, ST=d, GN=e, serialNumber=7"},
        {R"(CN="a, b+c\"d" , O=x)", R"(CN=a\, b\+c\"d, O=x)"},
        {R"(CN=" a ")", R"(CN=\ a\ )"},
        {R"(CN="")", "CN="},
        {R"(CN=\D0\96\20)", R"(CN=Ж\ )"},
        {R"(CN=a\=b)", "CN=a=b"},
        {"CN=a=b", "CN=a=b"},
        {"CN=", "CN="},
        {"CN=,O=", "CN=, O="},
        {"CN=#0C0161", "CN=a"},
        {"CN=a+O=b , C=DE", "CN=a+O=b, C=DE"},
        {"1.2.3=text", "1.2.3=#0c0474657874"},
        {"", ""},
        {" \n", ""},
    };
    for (const auto& [text, printed] : cases) {
        EXPECT_EQ(Printed(Encoded(text)), printed) << text;
    }
}

TEST(ParseName, RefusedForms) {
    for (const std::string& text : {"CN"s,
                                    "=a"s,
                                    "CN=a,"s,
                                    ",CN=a"s,
                                    "CN=a,,O=b"s,
                                    "CN=a+"s,
                                    "NoSuchType=a"s,
                                    "CN=a, =b"s,
                                    "C N=a"s,
                                    "CN\0=a"s,
                                    R"(CN=a\)"s,
                                    R"(CN=a\z)"s,
                                    R"(CN=a\0)"s,
                                    R"(CN=\ff)"s,
                                    R"(CN=\c3)"s,
                                    "CN=\xff"s,
                                    "CN=a\"b\""s,
                                    "CN=\"a"s,
                                    "CN=\"a\"b"s,
                                    "CN=a\0b"s,
                                    "CN=#"s,
                                    "CN=#0"s,
                                    "CN=#0c"s,
                                    "CN=#0c0261"s,
                                    "CN=#0c016161"s,
                                    "CN=#0c01 61"s,
                                    "CN=#xyz"s,
                                    "1.2.=a"s,
                                    "1=a"s,
                                    "3.1=a"s,
                                    "OID.CN=a"s,
                                    "OID.=a"s,
                                    "2.05.4.3=a"s,
                                    "basicConstraints=a"s,
                                    "CN="s + std::string(65536, 'x'),
                                    "CN="s + std::string(1000000, '\\')}) {
        EXPECT_EQ(Encoded(text), "<refused>") << text.substr(0, 50);
    }
    std::string name = "kept";
    EXPECT_FALSE(printable_to_asn_dn("CN=a", name, 5)) << "there is one map";
    EXPECT_EQ(name, "kept");
}

TEST(ParseName, StringTypesByAttribute) {
    const struct {
        const char* text;
        std::string type;
        std::uint8_t tag;
        std::string value;
    } cases[] = {
        {"C=DE", "C", kPrintable, "DE"},
        {"C=D@", "C", kUtf8, "D@"},
        {"serialNumber=12-3", "serialNumber", kPrintable, "12-3"},
        {"dnQualifier=a?", "dnQualifier", kPrintable, "a?"},
        {"emailAddress=a@b", "emailAddress", kIa5, "a@b"},
        {"emailAddress=ä@b", "emailAddress", kUtf8, "ä@b"},
        {"DC=x", "DC", kIa5, "x"},
        {"CN=DE", "CN", kUtf8, "DE"},
        {"O=DE", "O", kUtf8, "DE"},
        {"1.2.3.4=DE", "1.2.3.4", kUtf8, "DE"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Encoded(c.text), NameOf(c.type, c.tag, c.value)) << c.text;
    }
    EXPECT_EQ(Encoded("OU=b+CN=a"), der::Sequence(der::Set(Attribute("CN", kUtf8, "a") + Attribute("OU", kUtf8, "b"))))
        << "the values of an RDN are sorted";
}

TEST(CompareNames, Equality) {
    const struct {
        const char* a;
        const char* b;
        bool equal;
    } cases[] = {
        {"CN=a", "cn=A", true},
        {"CN=a b", "CN=A    B", true},
        {"CN=a", R"(CN=\ a\ )", true},
        {"CN=a", "CN=a b", false},
        {"CN=ab", "CN=a b", false},
        {"CN=a,O=b", "CN=a, O=b", true},
        {"CN=a,O=b", "O=b, CN=a", false},
        {"CN=a+O=b", "O=B+CN=A", true},
        {"CN=a+O=b", "CN=a, O=b", false},
        {"CN=a, O=b", "CN=a+O=b", false},
        {"CN=a", "CN=a, O=b", false},
        {"CN=a", "O=a", false},
        {"CN=a", "2.5.4.3=a", true},
        {"E=a@B", "emailAddress=A@b", true},
        {"CN=Жук ÀÿΣς", "CN=жУК àŸσσ", true},
        {"CN=Ł", "CN=ł", true},
        {"CN=Ё", "CN=Е", false},
        {"CN=straße", "CN=strasse", false},
        {R"(CN=\d0\96)", "CN=ж", true},
        {"CN=\u00a0a\u3000b", "CN=a b", true},
        {R"(CN=a\09b)", "CN=a b", true},
        {R"(CN=a\00b)", "CN=a", false},
        {R"(CN=a\00b)", "CN=ab", false},
        {"CN=#0c0141", "CN=a", true},
        {"CN=#130141", "CN=#0c0161", true},
        {"1.2.3=#0c0141", "1.2.3=a", true},
        {"1.2.3=#0401AB", "1.2.3=#0401ab", true},
        {"1.2.3=#040141", "1.2.3=#040161", false},
        {"1.2.3=#040161", "1.2.3=a", false},
        {"1.2.3=a", "1.2.4=a", false},
        {"CN=#0c01ff", "CN=#0c01ff", true},
        {"CN=#0c01ff", "CN=#0c01fe", false},
        {"", " ", true},
        {"", "CN=a", false},
        {"CN=", R"(CN=\ )", true},
        {"CN=a", "CN=a,", false},
        {"CN=a", "CN=\"a", false},
        {"Foo=a", "foo=a", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(printable_dn_equal(c.a, c.b), c.equal) << c.a << " | " << c.b;
        EXPECT_EQ(printable_dn_equal(c.b, c.a), c.equal) << c.b << " | " << c.a;
    }
}

TEST(CompareNames, CaseFoldingAsTheCLibraryKnowsIt) {
    const libcrypto::Owner<std::remove_pointer_t<locale_t>, freelocale> utf8(
        newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr));
    ASSERT_NE(utf8, nullptr);
    const auto folded = [&](char32_t c) -> char32_t {
        switch (c) {
            case 0xB5:
                return 0x3BC;  // micro sign and mu
            case 0x130:
                return c;  // has no simple folding
            case 0x17F:
                return 's';
            case 0x3C2:
                return 0x3C3;  // sigma at the end of a word
            default:
                return static_cast<char32_t>(towlower_l(static_cast<wint_t>(c), utf8.get()));
        }
    };
    const std::pair<char32_t, char32_t> ranges[] = {{0, 0x17F}, {0x384, 0x3CE}, {0x400, 0x52F}, {0x3000, 0x30FF}};
    for (const auto& [first, last] : ranges) {
        for (char32_t c = first; c <= last; ++c) {
            EXPECT_EQ(asn1::FoldCase(c), folded(c)) << "U+" << std::hex << static_cast<unsigned>(c);
        }
    }
}

TEST(CompareNames, ContainedAttributes) {
    const std::string name = R"(C=DE, O=Example\, Inc., OU=One+CN=Host, OU=Two, 1.2.3=#0c0178, CN=host)";
    const std::pair<const char*, bool> patterns[] = {
        {"", true},
        {"CN=HOST", true},
        {"CN=host, CN=host", true},
        {"CN=host, CN=host, CN=host", false},
        {"ou=two, ou=one", true},
        {"OU=one+OU=two", true},
        {"OU=one, OU=one", false},
        {R"(O="example, inc.")", true},
        {"O=Example", false},
        {"2.5.4.6=de", true},
        {"1.2.3=X", true},
        {"1.2.3=#0c0178", true},
        {"1.2.4=x", false},
        {"CN=", false},
        {"C=DE, L=", false},
        {"CN=host,", false},
        {"NoSuchType=x", false},
        {"CN", false},
    };
    for (const auto& [pattern, contained] : patterns) {
        EXPECT_EQ(printable_dn_contain_attrs(name, pattern), contained) << pattern;
    }
    EXPECT_TRUE(printable_dn_contain_attrs("", ""));
    EXPECT_FALSE(printable_dn_contain_attrs("", "CN=a"));
    EXPECT_FALSE(printable_dn_contain_attrs("CN=\"", "CN=a"));

    std::string many;
    std::string reversed;
    for (int i = 0; i < 200; ++i) {
        many += (i == 0 ? "OU=" : ", OU=") + std::to_string(i);
        reversed += (i == 0 ? "ou=" : ",ou=") + std::to_string(199 - i);
    }
    EXPECT_TRUE(printable_dn_contain_attrs(many, reversed));
    EXPECT_FALSE(printable_dn_contain_attrs(many, reversed + ",ou=0"));
    EXPECT_TRUE(printable_dn_equal(Printed(Encoded(many)), many));
}

TEST(CompareNames, EqualityAsLibcryptoSeesIt) {
    // ASCII alone: libcrypto folds no other case. Short values over few characters, so that equal names are frequent.
    std::mt19937 random(2);
    const auto value = [&] {
        static const char kCharacters[] = "aA b";
        std::string text;
        for (unsigned i = random() % 4; i > 0; --i) {
            text.push_back(kCharacters[random() % 4]);
        }
        return text;
    };
    const auto name = [&] {
        static const char* const kTypes[] = {"CN", "O"};
        static const std::uint8_t kTags[] = {kUtf8, kPrintable, kIa5, kTeletex};
        std::string rdns;
        for (unsigned i = 1 + random() % 2; i > 0; --i) {
            std::string set;
            for (unsigned j = random() % 4 == 0 ? 2 : 1; j > 0; --j) {
                set += Attribute(kTypes[random() % 2], kTags[random() % std::size(kTags)], value());
            }
            rdns += der::Set(set);
        }
        return der::Sequence(rdns);
    };
    unsigned equal = 0;
    for (int i = 0; i < 50000; ++i) {
        const std::string a = name();
        const std::string b = name();
        const NamePtr libcrypto_a = ParsedByLibcrypto(a);
        const NamePtr libcrypto_b = ParsedByLibcrypto(b);
        ASSERT_TRUE(libcrypto_a != nullptr && libcrypto_b != nullptr);
        const bool expected = X509_NAME_cmp(libcrypto_a.get(), libcrypto_b.get()) == 0;
        ASSERT_EQ(printable_dn_equal(Printed(a), Printed(b)), expected) << Printed(a) << " | " << Printed(b);
        equal += expected ? 1 : 0;
    }
    EXPECT_GT(equal, 500U);
}

}  // namespace
