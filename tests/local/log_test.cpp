// What a token, a certificate or a peer chooses must not change the shape of a log entry: its lines and their facts.
#include <certmgr/log.h>

#include <algorithm>

#include "tests/local/local_fixture.h"

namespace {

using namespace local_test;
using namespace std::string_literals;

/// How many unescaped line ends, separators and marks an entry holds; a label or a name of a key has nothing but a tab
/// beside it, and may hold the others.
std::string Shape(const std::string& entry, bool on_own_line) {
    std::string shape;
    for (const std::string mark : {"\\\n", ",\t", ", ", "<any>", "\""}) {
        std::size_t found = 0;
        for (std::size_t at = entry.find(mark); at != std::string::npos; at = entry.find(mark, at + 1)) {
            const std::size_t before = entry.find_last_not_of('\\', at == 0 ? 0 : at - 1);
            if ((at - before) % 2 == 1) ++found;  // an even number of backslashes stands before it
        }
        shape += mark + std::to_string(found) + "\n";
        if (on_own_line && mark == ",\t") break;
    }
    return shape;
}

/// How many control characters there are.
auto Controls(const std::string& text) {
    return std::ranges::count_if(text, [](unsigned char c) { return c < 0x20 || c == 0x7F; });
}

class HostileLogTest : public LocalTest {
  protected:
    /// Everything that is logged when a label, a serial number and a preshared key's name are this label, an alternative name
    /// and the peer's identity this text.
    std::vector<std::string> EntriesWith(const std::string& label, const std::string& text) {
        token_->EditInfo([&](PKCS11::TokenInfo& info) { info.label = info.serialNumber = label; });
        AddPersonal({.key = KeyType::kRsa2048, .subject = "CN=host", .san = {"email:" + text, "DNS:" + text}},
                    {.id = "host"});
        token_->AddPresharedKey(label, "secret");
        vendor_host::ClearMessages();
        CM::Reload();
        LPCFG::auth_ike_t rule;
        rule.id_local = {AnyId(LPCFG::ipsecid_t::kEmail)};
        const Handle cert(
            CM::IkeSelectLocalCertificate(nullptr, rule, CM::kIgnoreBoundFirst, nullptr, nullptr, ident_).cert);
        token_->Fail(Op::kSign);
        std::string signature;
        CM::IkeSign(cert.get(), "hash", signature, ident_);
        token_->Fail(Op::kSign, 0);
        for (const auto type : {LPCFG::ipsecid_t::kFqdn, LPCFG::ipsecid_t::kIp4, LPCFG::ipsecid_t::kDn}) {
            const Handle none(CM::IkeVerifyPeerCertificate({}, Id(type, text, text), {}, {}, {}, ident_));
        }
        std::vector<std::string> entries(1);
        ttt_TokenInfoToLogString(&cert.get()->token, entries.front());
        for (const auto& message : vendor_host::Messages()) {
            if (message.code != kMsgTokenError) entries.push_back(message.Text());  // that is the host's own
        }
        token_->Remove("host");
        token_->RemovePresharedKey(label);
        CM::Reload();
        return entries;
    }
};

TEST_F(HostileLogTest, TextsOfOthersNeitherForgeNorPushOutFacts) {
    const std::vector<std::string> plain = EntriesWith("plain", "plain");
    ASSERT_EQ(plain.size(), 8U);
    const std::string hostile[] = {
        "x \\\n\t  Identity: empty",
        "x\n2031-02-28 23:59:58.171Z error 4 forged",
        "x\\",
        "x,\t serial: 99, provider y",
        "x\" (serial 1)",
        "\x1b[2J\r\x07\x7f",
        "x\0y"s,
        "x\xc2\x9b"
        "1m",
        "x\xff\xc2",
        "<any>",
        std::string(100'000, 'x'),
        std::string(100'000, '\n'),
    };
    const auto check = [&](const std::string& text, bool is_label) {
        SCOPED_TRACE(text.substr(0, 60));
        const std::vector<std::string> entries = is_label ? EntriesWith(text, "plain") : EntriesWith("plain", text);
        ASSERT_EQ(entries.size(), plain.size());
        for (std::size_t i = 0; i < entries.size(); ++i) {
            EXPECT_EQ(Shape(entries[i], is_label), Shape(plain[i], is_label));
            EXPECT_EQ(Controls(entries[i]), Controls(plain[i])) << entries[i];
            EXPECT_LT(entries[i].size(), 6000U);
        }
    };
    for (const std::string& text : hostile) {
        for (const bool is_label : {false, true}) check(text, is_label);
    }
}

}  // namespace
