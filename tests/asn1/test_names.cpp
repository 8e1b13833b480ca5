// Printable names: tables for the form, and comparisons with libcrypto. That what is printed reads as the same name, and
// what is damaged as none or as another, is the property of fuzz/names.cpp.
#include <gtest/gtest.h>

#include <locale.h>
#include <wctype.h>

#include <map>
#include <random>
#include <tuple>
#include <vector>

#include "libcrypto/libcrypto.h"
#include "platform/asn1.h"
#include "platform/asn1/text.h"
#include "tests/support/der.h"

namespace {

using namespace std::string_literals;

enum StringType : std::uint8_t { kUtf8 = 12, kPrintable = 19, kTeletex = 20, kIa5 = 22, kUniversal = 28, kBmp = 30 };

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

libcrypto::NamePtr ParsedByLibcrypto(const std::string& name) {
    return libcrypto::Decode<X509_NAME_free>(d2i_X509_NAME, name);
}

TEST(PrintName, EscapesAndStringTypes) {
    const std::tuple<const char*, std::uint8_t, std::string, std::string> cases[] = {
        {"CN", kPrintable, "", "CN="},
        {"O", kUtf8, "a,b;c+d\"e\\f<g>h=i#j k", R"(O=a\,b\;c\+d\"e\\f\<g\>h=i#j k)"},
        {"CN", kUtf8, " #x ", R"(CN=\ #x\ )"},
        {"CN", kUtf8, "   ", R"(CN=\  \ )"},
        {"CN", kUtf8, "a\0b\n\x7f"s, R"(CN=a\00b\0a\7f)"},
        {"CN", kUtf8, "\u0085|\u009f|\u00a0|\u00bf", "CN=\\c2\\85|\\c2\\9f|\u00a0|\u00bf"},
        {"CN", kUtf8, "Жук 東京 😀", "CN=Жук 東京 😀"},
        {"CN", kUtf8, "\xed\xa0\x80", "CN=#0c03eda080"},
        {"CN", kUtf8, "a\xc2", "CN=#0c0261c2"},
        {"CN", kTeletex, "M\xfcller\x85", R"(CN=Müller\c2\85)"},
        {"CN", kBmp, "\x04\x16\x00,"s, R"(CN=Ж\,)"},
        {"CN", kBmp, "\x04\x16\x00"s, "CN=#1e03041600"},
        {"CN", kUniversal, "\x00\x01\xf6\x00"s, "CN=😀"},
        {"CN", kUniversal, "\x00\x11\x00\x00"s, "CN=#1c0400110000"},
        {"CN", kPrintable, "caf\xe9", "CN=#1304636166e9"},
        {"CN", 0x04, "octets", "CN=#04066f6374657473"},
        {"2.5.4.4", kUtf8, "x", "SN=x"},
        {"emailAddress", kIa5, "a@b", "emailAddress=a@b"},
        {"1.2.3.4", kUtf8, "x", "1.2.3.4=#0c0178"},
        {"2.25.340282366920938463463374607431768211455", kUtf8, "x",
         "2.25.340282366920938463463374607431768211455=#0c0178"},
        {"2.5.29.19", kUtf8, "x", "2.5.29.19=#0c0178"},  // has a name, but no attribute type's
    };
    for (const auto& [type, tag, value, printed] : cases) EXPECT_EQ(Printed(NameOf(type, tag, value)), printed);
    EXPECT_EQ(Printed(der::Sequence("")), "");
    EXPECT_EQ(Printed(der::Sequence(der::Set(Attribute("C", kPrintable, "DE")) +
                                    der::Set(Attribute("CN", kUtf8, "a") + Attribute("OU", kUtf8, "b")))),
              "C=DE, CN=a+OU=b");
}

TEST(PrintName, TextsAreEscapedAsValuesAre) {
    const std::string text = " a,b;c+d\"e\\f<g>h=i#j\0k\n\x1b\x7f\u0085\u00a0 \u202e "s;
    EXPECT_EQ("CN=" + asn_text_to_printable(text), Printed(NameOf("CN", kUtf8, text)));
    EXPECT_EQ(asn_text_to_printable("\xff,\xc2\n\xc2"), "\xff\\,\xc2\\0a\xc2");
    EXPECT_EQ(asn_text_to_line(" #1, \"x\" +<y>;\\\n\xff\u0085\u00a0 "), " #1, \"x\" +<y>;\\\\\\0a\xff\\c2\\85\u00a0 ");
}

TEST(PrintName, RefusesWhatIsNoName) {
    const std::string attribute = Attribute("CN", kUtf8, "x");
    const std::string name = der::Sequence(der::Set(attribute));
    const std::pair<const char*, std::string> cases[] = {
        {"trailing byte", name + '\0'},
        {"no set", der::Sequence(attribute)},
        {"empty set", der::Sequence(der::Set(""))},
        {"two values", der::Sequence(der::Set(der::Sequence(der::Oid("CN") + der::Null() + der::Null())))},
        {"empty type", der::Sequence(der::Set(der::Sequence(der::Tlv(6, "") + der::Tlv(kUtf8, "x"))))},
        {"cut type", der::Sequence(der::Set(der::Sequence(der::Tlv(6, "\x55\x84") + der::Tlv(kUtf8, "x"))))},
        {"64 KiB", NameOf("CN", kUtf8, std::string(65536, 'x'))},
    };
    for (const auto& [what, der] : cases) EXPECT_EQ(Printed(der), "<refused>") << what;
    std::string rdns;
    for (int i = 0; i < 1024; ++i) rdns += der::Set(attribute);
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
        {R"(CN=\D0\96\20)", R"(CN=Ж\ )"},
        {R"(CN=a\=b)", "CN=a=b"},
        {"CN=#0C0161", "CN=a"},
        {"CN=a+O=b , C=DE", "CN=a+O=b, C=DE"},
        {"1.2.3=text", "1.2.3=#0c0474657874"},
        {"", ""},
    };
    for (const auto& [text, printed] : cases) EXPECT_EQ(Printed(Encoded(text)), printed) << text;
}

TEST(ParseName, RefusedForms) {
    const auto refuse = [](const std::vector<std::string>& texts) {
        for (const std::string& text : texts) EXPECT_EQ(Encoded(text), "<refused>") << text.substr(0, 50);
    };
    refuse({"CN", "=a", "CN=a,", ",CN=a", "CN=a,,O=b", "CN=a+", "C N=a", R"(CN=a\)", R"(CN=a\z)", R"(CN=a\0)",
            R"(CN=\ff)", R"(CN=\c3)", "CN=\xff", "CN=a\"b\"", "CN=\"a", "CN=\"a\"b", "CN\0=a"s, "CN=a\0b"s});
    refuse({"CN=#", "CN=#0", "CN=#0c", "CN=#0c0261", "CN=#0c016161", "CN=#0c01 61", "CN=#xyz",
            "CN="s + std::string(65536, 'x'), "CN="s + std::string(1000000, '\\')});
    refuse({"NoSuchType=a", "1.2.=a", "1=a", "3.1=a", "OID.CN=a", "OID.=a", "2.05.4.3=a", "basicConstraints=a"});
    std::string name = "kept";
    EXPECT_FALSE(printable_to_asn_dn("CN=a", name, 5)) << "there is one map";
    EXPECT_EQ(name, "kept");
}

TEST(ParseName, StringTypesByAttribute) {
    const std::tuple<const char*, std::string, std::uint8_t, std::string> cases[] = {
        {"C=DE", "C", kPrintable, "DE"},
        {"C=D@", "C", kUtf8, "D@"},
        {"emailAddress=a@b", "emailAddress", kIa5, "a@b"},
        {"emailAddress=ä@b", "emailAddress", kUtf8, "ä@b"},
        {"DC=x", "DC", kIa5, "x"},
        {"CN=DE", "CN", kUtf8, "DE"},
        {"1.2.3.4=DE", "1.2.3.4", kUtf8, "DE"},
    };
    for (const auto& [text, type, tag, value] : cases) EXPECT_EQ(Encoded(text), NameOf(type, tag, value)) << text;
    EXPECT_EQ(Encoded("OU=b+CN=a"), der::Sequence(der::Set(Attribute("CN", kUtf8, "a") + Attribute("OU", kUtf8, "b"))))
        << "the values of an RDN are sorted";
}

TEST(CompareNames, Equality) {
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"CN=a", R"(CN=\ a\ )", true},
        {"CN=a", "2.5.4.3=a", true},
        {"CN=Жук ÀÿΣς", "CN=жУК àŸσσ", true},
        {R"(CN=\d0\96)", "CN=ж", true},
        {"CN=\u00a0a\u3000b", "CN=a b", true},
        {R"(CN=a\09b)", "CN=a b", true},
        {R"(CN=a\00b)", "CN=ab", false},
        {"CN=#130141", "CN=#0c0161", true},
        {"1.2.3=#040141", "1.2.3=#040161", false},
        {"1.2.3=#040161", "1.2.3=a", false},
        {"CN=#0c01ff", "CN=#0c01fe", false},
        {"CN=a", "CN=\"a", false},
        {"Foo=a", "foo=a", false},
    };
    for (const auto& [a, b, equal] : cases) {
        EXPECT_EQ(printable_dn_equal(a, b), equal) << a << " | " << b;
        EXPECT_EQ(printable_dn_equal(b, a), equal) << b << " | " << a;
    }
}

TEST(CompareNames, CaseFoldingAsTheCLibraryKnowsIt) {
    const libcrypto::Owner<std::remove_pointer_t<locale_t>, freelocale> utf8(
        newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr));
    ASSERT_NE(utf8, nullptr);
    // Micro sign, I with dot (no simple folding), long s, sigma at the end of a word.
    const std::map<char32_t, char32_t> special{{0xB5, 0x3BC}, {0x130, 0x130}, {0x17F, 's'}, {0x3C2, 0x3C3}};
    const std::pair<char32_t, char32_t> ranges[] = {{0, 0x17F}, {0x384, 0x3CE}, {0x400, 0x52F}, {0x3000, 0x30FF}};
    for (const auto& [first, last] : ranges) {
        for (char32_t c = first; c <= last; ++c) {
            const auto lower = static_cast<char32_t>(towlower_l(static_cast<wint_t>(c), utf8.get()));
            const char32_t folded = special.contains(c) ? special.at(c) : lower;
            EXPECT_EQ(asn1::FoldCase(c), folded) << "U+" << std::hex << static_cast<unsigned>(c);
        }
    }
}

TEST(CompareNames, ContainedAttributes) {
    const std::string name = R"(C=DE, O=Example\, Inc., OU=One+CN=Host, OU=Two, 1.2.3=#0c0178, CN=host)";
    for (const char* pattern : {"", "CN=host, CN=host", "ou=two, ou=one", R"(O="example, inc.")", "1.2.3=X"}) {
        EXPECT_TRUE(printable_dn_contain_attrs(name, pattern)) << pattern;
    }
    for (const char* pattern :
         {"CN=host, CN=host, CN=host", "OU=one, OU=one", "O=Example", "C=DE, L=", "CN=host,", "NoSuchType=x"}) {
        EXPECT_FALSE(printable_dn_contain_attrs(name, pattern)) << pattern;
    }
    EXPECT_FALSE(printable_dn_contain_attrs("CN=\"", "CN=a"));
}

TEST(CompareNames, EqualityAsLibcryptoSeesIt) {
    // ASCII alone: libcrypto folds no other case. Short values over few characters, so that equal names are frequent.
    std::mt19937 random(2);
    const auto pick = [&random](const auto& choices) { return choices[random() % std::size(choices)]; };
    const auto name = [&] {
        std::string rdns;
        for (unsigned i = 1 + random() % 2; i > 0; --i) {
            std::string set;
            for (unsigned j = random() % 4 == 0 ? 2 : 1; j > 0; --j) {
                std::string value;
                for (unsigned k = random() % 4; k > 0; --k) value += pick("aA b"s);
                set += Attribute(pick(std::vector{"CN", "O"}), pick(std::vector{kUtf8, kPrintable, kIa5, kTeletex}),
                                 value);
            }
            rdns += der::Set(set);
        }
        return der::Sequence(rdns);
    };
    unsigned equal = 0;
    for (int i = 0; i < 50000; ++i) {
        const std::string a = name();
        const std::string b = name();
        const libcrypto::NamePtr libcrypto_a = ParsedByLibcrypto(a);
        const libcrypto::NamePtr libcrypto_b = ParsedByLibcrypto(b);
        ASSERT_TRUE(libcrypto_a != nullptr && libcrypto_b != nullptr);
        const bool expected = X509_NAME_cmp(libcrypto_a.get(), libcrypto_b.get()) == 0;
        ASSERT_EQ(printable_dn_equal(Printed(a), Printed(b)), expected) << Printed(a) << " | " << Printed(b);
        equal += expected ? 1 : 0;
    }
    EXPECT_GT(equal, 500U);
}

}  // namespace
