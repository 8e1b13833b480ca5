// Wording, safe rendering and sinks of the event log.
#include "platform/eventlog.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/event_codes.h"
#include "platform/eventlog/sinks.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace {

using eventlog::Record;
using eventlog::Severity;
using eventlog::Sinks;

std::string ReadFile(const std::filesystem::path& path) {
    std::stringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

class EventLog : public testing::Test {
  protected:
    EventLog() { Use(Severity::kDebug); }
    ~EventLog() override { Use(Severity::kWarning, false); }

    void Use(Severity level, bool collect = true) {
        Sinks sinks;
        sinks.level = level;
        sinks.to_stderr = false;
        if (collect) {
            sinks.callback = [this](const Record& record) {
                records_.Update([&](std::vector<Record>& list) { list.push_back(record); });
            };
        }
        std::string error;
        ASSERT_TRUE(eventlog::SetSinks(sinks, error)) << error;
    }

    Record Last() { return records_.Get().empty() ? Record{} : records_.Get().back(); }

    std::string TextOf(std::uint16_t code, const std::vector<std::string>& attributes) {
        TLogMessage message(code);
        for (const std::string& attribute : attributes) message.Attr(attribute);
        message.Send();
        return Last().text;
    }

    test_support::Watched<std::vector<Record>> records_;
};

// What a wording does not use is shown behind it.
TEST_F(EventLog, EveryCodeHasAWordingThatLosesNothing) {
    const std::string header = ReadFile(SOURCE_DIR "/include/platform/event_codes.h");
    const std::regex enumerator(R"((kMsg\w+) = (\d+),)");
    std::size_t codes = 0;
    for (std::sregex_iterator i(header.begin(), header.end(), enumerator), end; i != end; ++i, ++codes) {
        const std::string text = TextOf(static_cast<std::uint16_t>(std::stoi((*i)[2])), {"<1>", "<2>", "<3>", "<4>"});
        for (const char* attribute : {"<1>", "<2>", "<3>", "; <4>"}) {
            EXPECT_NE(text.find(attribute), std::string::npos) << (*i)[1] << ": " << text;
        }
        EXPECT_EQ(text.find("without wording"), std::string::npos) << text;
        EXPECT_EQ(text.find('%'), std::string::npos) << text;
    }
    EXPECT_GE(codes, 60U);
    EXPECT_EQ(TextOf(9999, {"a", "b"}), "Message without wording: a; b");
}

TEST_F(EventLog, ShowsObjectsAsIndentedLines) {
    const std::string cert = " \\\n\t\tSubject: CN=host \\\n\t\tKeyAlg: RSA, \tValid from: 2026 to: 2027";
    EXPECT_EQ(TextOf(kMsgPersonalCertDeleted, {cert, " \\\n\t\tlabel: card,\t serial: 01"}),
              "Personal certificate deleted:\n"
              "        Subject: CN=host\n"
              "        KeyAlg: RSA, Valid from: 2026 to: 2027\n"
              "    Token:\n"
              "        label: card, serial: 01");
    EXPECT_EQ(TextOf(kMsgIkeSignOrVerifyFailed, {"Can't ike sign on token\\\n\t[token] card\\\n\t[private key] RSA"}),
              "Can't ike sign on token\n    [token] card\n    [private key] RSA");
}

TEST_F(EventLog, AttributesCannotForgeLinesNorHideText) {
    const std::pair<std::string, std::string> cases[] = {
        {"a\nb\rc\vd", "a\\nb\\x0dc\\x0bd"},
        {"\x1b[31m\x7f", "\\x1b[31m\\x7f"},
        {std::string("a\0b", 3), "a\\x00b"},
        {"a\tb\t c\t", "a b c"},
        {"CN=a\\\\\nb", "CN=a\\\\\\nb"},  // an escaped backslash before a line feed
        {"CN=a\\\\\\\n\tb", "CN=a\\\\\n    b"},  // the same, then a continuation
        {"a\\\nb", "a\n    b"},
        {"a\\\n" + std::string(500, '\t') + "b", "a\n" + std::string(32, ' ') + "b"},
        {"a\\", "a\\"},
        {"\xd0\x9c\xe2\x82\xac\xf0\x9f\x98\x80", "\xd0\x9c\xe2\x82\xac\xf0\x9f\x98\x80"},  // UTF-8 stays
        {"\xff\xc0\x80\xe2\x82\xed\xa0\x80\xf4\x90\x80\x80\xc3",
         "\\xff\\xc0\\x80\\xe2\\x82\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80\\xc3"},
        // C1 controls, reordering, line separators
        {"\xc2\x9b\xe2\x80\xae\xe2\x80\xa8\xef\xbb\xbf", "\\u{009b}\\u{202e}\\u{2028}\\u{feff}"},
    };
    for (const auto& [attribute, text] : cases) EXPECT_EQ(TextOf(kMsgStoreChanged, {attribute}), text);
}

TEST_F(EventLog, CutsWhatIsTooLong) {
    constexpr std::size_t kKept = 32 << 10;
    EXPECT_EQ(TextOf(kMsgStoreChanged, {std::string(kKept, 'x')}), std::string(kKept, 'x'));
    // Not within a character.
    EXPECT_EQ(TextOf(kMsgStoreChanged, {std::string(kKept - 1, 'x') + "\xc3\xbc"}),
              std::string(kKept - 1, 'x') + "... (2 bytes cut)");
    // Escaping makes four bytes of one.
    EXPECT_LT(TextOf(kMsgStoreChanged, {std::string(kKept, '\x01')}).size(), (64U << 10) + 40);
}

TEST_F(EventLog, FiltersBySeverity) {
    Use(Severity::kWarning);
    EXPECT_FALSE(TLogMessage::IsEnabled(kMsgPeerCertSelected));
    EXPECT_TRUE(TLogMessage::IsEnabled(kMsgPeerCertNotSelected));
    TextOf(kMsgPeerCertSelected, {"quiet"});
    EXPECT_TRUE(records_.Get().empty());

    // One code, good and bad news.
    TextOf(kMsgIke2Verify, {"CM::Ike2Verify ok, peer cert: "});
    EXPECT_TRUE(records_.Get().empty());
    TextOf(kMsgIke2Verify, {"CM::Ike2Verify failed: Invalid signature"});
    EXPECT_EQ(Last().severity, Severity::kWarning);

    Use(Severity::kOff);
    EXPECT_FALSE(TLogMessage::IsEnabled(kMsgIke2SignFailed));
}

TEST_F(EventLog, RendersIdentities) {
    const std::pair<TLogIdent, const char*> cases[] = {
        {{0x0102, 3, TLogIdent::kNone, 1}, ""},
        {{0xABCDEF0102030405, 0, TLogIdent::kConnection, TLogIdent::kInitiator}, "abcdef0102030405"},
        {{1, 0xA, TLogIdent::kExchange, TLogIdent::kInitiator}, "0000000000000001.0000000a,I"},
        {{1, 0xFFFFFFFF, TLogIdent::kExchange, TLogIdent::kResponder}, "0000000000000001.ffffffff,R"},
        {{1, 2, TLogIdent::kExchange, 7}, "0000000000000001.00000002"},
        {{1, 2, 9, 1}, ""},
    };
    for (const auto& [ident, text] : cases) {
        std::string all = "before ";
        ident.toStr(all);
        EXPECT_EQ(all, std::string("before ") + text);
    }
    TLogMessage(kMsgDaemon, {1, 2, TLogIdent::kConnection, 0}).Attr("x").Send();
    EXPECT_EQ(Last().ident, "0000000000000001");
}

TEST_F(EventLog, WritesAndRotatesAFile) {
    const test_support::TempDir folder;
    Sinks sinks;
    sinks.to_stderr = false;
    sinks.file = folder / "log";
    sinks.file_max_bytes = 4096;
    sinks.file_count = 2;
    std::string error;
    ASSERT_TRUE(eventlog::SetSinks(sinks, error)) << error;
    TLogMessage(kMsgIkeSignOrVerifyFailed, {1, 2, TLogIdent::kConnection, 0}).Attr("one\\\n\t[token] card").Send();
    EXPECT_TRUE(
        std::regex_match(ReadFile(folder / "log"), std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}Z error     4 )"
                                                              R"(\[0000000000000001\] one\n    \[token\] card\n)")));
    using std::filesystem::perms;
    EXPECT_EQ(std::filesystem::status(sinks.file).permissions(),
              perms::owner_read | perms::owner_write | perms::group_read);
    for (int i = 0; i < 20; ++i) TLogMessage(kMsgDaemon).Attr(std::string(1000, 'x')).Send();
    EXPECT_TRUE(std::filesystem::exists(folder / "log.2"));
    EXPECT_FALSE(std::filesystem::exists(folder / "log.3"));

    // A file that cannot be opened changes nothing.
    sinks.file = folder / "log" / "below";
    EXPECT_FALSE(eventlog::SetSinks(sinks, error));
    EXPECT_NE(error.find("below"), std::string::npos) << error;
    TLogMessage(kMsgDaemon).Attr("still here").Send();
    EXPECT_NE(ReadFile(folder / "log").find("still here"), std::string::npos);
}

TEST_F(EventLog, SinksMayBeReplacedWhileOthersLog) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 200; ++i) TLogMessage(kMsgDaemon).Attr("line").Send();
        });
    }
    for (int i = 0; i < 50; ++i) Use(Severity::kDebug);
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(records_.Get().size(), 800U);
}

// Nothing is configured in a fresh process: what matters is seen all the same, also from static destructors
// (UsesTheHostAtExit in events_test.cpp).
TEST(EventLogWithoutSinks, WarningsGoToStderr) {
    const auto log_and_leave = [] {
        TLogMessage(kMsgProviderReady).Attr("info is not seen").Send();
        TLogMessage(kMsgProviderFailed).Attr("a failure is").Send();
        std::exit(0);
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(log_and_leave(), testing::ExitedWithCode(0),
                "^[^\n]*Z error   205 Provider failed: a failure is\n[^\n]*ignore_key_usage\n$");
}

}  // namespace
