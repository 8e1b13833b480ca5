// Settings files: what is accepted, how problems are named, and what a change does.
#include "platform/params/settings.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/params.h"
#include "tests/support/temp_dir.h"

namespace {

using settings::LoadResult;
using settings::Problem;

std::string ReadFile(const std::filesystem::path& path) {
    std::stringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

class Settings : public testing::Test {
  protected:
    std::string Write(const std::string& content, mode_t mode = 0600) {
        const std::string path = folder_ / "certmgr.toml";
        std::ofstream(path, std::ios::trunc) << content;
        chmod(path.c_str(), mode);
        return path;
    }
    LoadResult Load(const std::string& content) { return settings::Load(Write(content)); }

    // The problems, each without the folder.
    std::vector<std::string> Problems(const LoadResult& loaded) {
        std::vector<std::string> texts;
        for (const Problem& problem : loaded.problems) {
            texts.push_back(problem.ToString().substr(folder_.path().string().size() + 1));
        }
        return texts;
    }

    const test_support::TempDir folder_;
};

TEST_F(Settings, NamesEveryProblemWithItsPlace) {
    const std::string table = "[[tokens.provider]]\nname = ";
    // A file, and how each of the problems begins behind its name.
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"[certificates]\nignore_key_usge = true\n",
         {":2:1: error: unknown key \"ignore_key_usge\" in [certificates]; did you mean \"ignore_key_usage\"?"}},
        {"[tokens]\n  crl_cache = true\n",
         {":2:3: error: unknown key \"crl_cache\" in [tokens]; it belongs in [certificates]"}},
        {"[log]\nsubject = 1\nquite_another_thing = 1\n",
         {":2:1: error: unknown key \"subject\" in [log]; it belongs in a certificate pattern",
          ":3:1: error: unknown key \"quite_another_thing\" in [log]"}},
        {"[log]\nlevel = 'warn'\nsyslog = 'true'\nfile = 3\n",
         {":2:9: error: [log] level: \"warn\" is none of \"debug\", \"info\", \"warning\", \"error\" or \"off\"; did",
          ":3:10: error: [log] syslog: expected true or false, found a text; write true without quotes",
          ":4:8: error: [log] file: expected a text, found a whole number; put it in double quotes"}},
        {"[certificates]\ncrl_max_bytes = 12\ncrl_retry_seconds = -1\ncrl_download_timeout_seconds = '5'\n",
         {":2:17: error: [certificates] crl_max_bytes: 12 is out of range, expected 1024 to 268435456",
          ":3:21: error: [certificates] crl_retry_seconds: -1 is out of range, expected 0 to 86400",
          ":4:32: error: [certificates] crl_download_timeout_seconds: expected a whole number, found a text; write"}},
        {"log = 1979-05-27\n", {":1:7: error: [log]: expected a table, found a date or a time"}},
        {"[tokens]\nsofthsm_directory = \"a\\u0007b\"\n",
         {":2:21: error: [tokens] softhsm_directory: holds a control character"}},
        {table + "'card'\nmodule = '/a.so'\n" + table + "'card'\n" + table + "'other'\nmodule = '/b/../a.so'\n",
         {":4:1: error: [[tokens.provider]] 2: name \"card\" is there already",
          ":4:1: error: [[tokens.provider]] 2: has no \"module\"",
          ":6:1: error: [[tokens.provider]] 3: module \"/a.so\" is there already"}},
        {"[tokens.pin_file]\ntoken = 'a'\n", {":1:1: error: [tokens] pin_file: expected a list of tables, found a"}},
        {"[log]\nlevel = 'info'\nlevel = 'info'\n", {":3:9: error: not valid TOML: "}},
        {std::string("\xff", 1), {":1:1: error: not valid TOML: "}},
        {std::string(settings::kMaxFileBytes + 1, '\n'), {": error: is larger than 1048576 bytes"}},
        // Hostile depth and length.
        {"x = " + std::string(100000, '['), {":1:"}},
        {"[" + std::string(500000, 'x') + "]", {":1:"}},
    };
    for (const auto& [content, beginnings] : cases) {
        SCOPED_TRACE(content.substr(0, 100));
        const LoadResult loaded = Load(content);
        EXPECT_FALSE(loaded.ok);
        const std::vector<std::string> problems = Problems(loaded);
        ASSERT_EQ(problems.size(), beginnings.size()) << testing::PrintToString(problems);
        for (std::size_t i = 0; i < problems.size(); ++i) {
            EXPECT_EQ(problems[i].find("certmgr.toml" + beginnings[i]), 0U) << problems[i];
        }
    }
}

TEST_F(Settings, RefusesWhatIsNoSettingsFileAndWarnsOfOneThatOthersWrite) {
    EXPECT_EQ(Problems(settings::Load(Write("", 0620))).at(0).find("certmgr.toml: warning: can be written by"), 0U);
    const std::string directory = settings::Load(folder_.path()).problems.at(0).ToString();
    EXPECT_TRUE(directory.ends_with(": error: is not a regular file; name the settings file itself")) << directory;
    EXPECT_TRUE(Load(std::string(settings::kMaxFileBytes, '\n')).ok);
    std::string rules = "rule = [";
    for (int i = 0; i < 2000; ++i) rules += "{},";
    EXPECT_EQ(Problems(Load(rules + "]")),
              std::vector<std::string>{"certmgr.toml:1:8: error: rule: has 2000 entries, at most 1000 are read"});
}

TEST_F(Settings, ReadsValuesAndMakesPathsAbsolute) {
    const LoadResult loaded = Load(
        "[certificates]\ncrl_cache = false\ncrl_max_bytes = 268435456\n[log]\nlevel = 'off'\nfile = 'logs/../log'\n"
        "[tokens]\ncall_limit_milliseconds = 1500\n[[tokens.provider]]\nname = 'card'\nmodule = 'card.so'\n"
        "[[tokens.pin_file]]\ntoken = 'host'\npath = 'pin'\nlogin_on_insertion = false\n");
    ASSERT_TRUE(loaded.ok) << testing::PrintToString(Problems(loaded));
    const settings::Settings& read = loaded.settings;
    EXPECT_FALSE(read.certificates.crl_cache);
    EXPECT_EQ(read.certificates.crl_max_bytes, 256ULL << 20);
    EXPECT_EQ(read.log.sinks.level, eventlog::Severity::kOff);
    EXPECT_EQ(read.log.sinks.file, folder_ / "log");
    EXPECT_EQ(read.tokens.manager.call_limit, std::chrono::milliseconds(1500));
    EXPECT_EQ(read.tokens.manager.providers.at(0).module_path, folder_ / "card.so");
    EXPECT_EQ(read.tokens.manager.pin_files.at(0).path, folder_ / "pin");
    EXPECT_FALSE(read.tokens.manager.pin_files[0].login_on_insertion);
}

TEST_F(Settings, SoftHsmIsWhatRemainsWhenNothingIsNamed) {
    const std::string provider = "[[tokens.provider]]\nname = \"p\"\nmodule = ";
    // The file, the module that is installed, the one that is used, whether there is a folder, and problems.
    const std::tuple<std::string, std::string, std::string, bool, std::size_t> cases[] = {
        {"", "/lib/libsofthsm2.so", "/lib/libsofthsm2.so", true, 0},
        {"", "", "", false, 1},
        {provider + "\"/opt/libsofthsm2.so\"\n", "", "/opt/libsofthsm2.so", true, 0},
        {provider + "\"/lib/card.so\"\n", "/lib/libsofthsm2.so", "/lib/card.so", false, 0},
        {"[tokens]\nsofthsm_directory = \"/state\"\n" + provider + "\"/lib/card.so\"\n", "", "/lib/card.so", true, 0},
    };
    for (const auto& [content, installed, used, has_directory, problems] : cases) {
        SCOPED_TRACE(content + installed);
        const LoadResult loaded = settings::Load(Write(content), installed);
        ASSERT_TRUE(loaded.ok);
        const settings::Tokens& tokens = loaded.settings.tokens;
        EXPECT_EQ(tokens.manager.providers.empty() ? "" : tokens.manager.providers[0].module_path, used);
        EXPECT_EQ(!tokens.softhsm_directory.empty(), has_directory);
        EXPECT_EQ(loaded.problems.size(), problems);
    }
    EXPECT_EQ(settings::Load(Write(""), "").problems.at(0).Sentence(),
              "no [[tokens.provider]], and SoftHSM2 is not installed: no tokens; install softhsm2 or name a PKCS #11 "
              "module");
}

// The section of a document whose heading ends with the title (in backquotes when it is a table of the file).
std::string Section(const std::string& document, std::string_view title) {
    const std::string quote = title.starts_with('[') ? "`" : "";
    const std::size_t heading = document.find(" " + quote + std::string(title) + quote + "\n\n");
    if (heading == std::string::npos) return {};
    return document.substr(heading, document.find("\n#", heading) - heading);
}

// The documents promise defaults and keys.
TEST_F(Settings, DocumentsNameEveryKeyAndTheRightDefaults) {
    const std::string example = ReadFile(SOURCE_DIR "/packaging/certmgr.toml");
    EXPECT_TRUE(Load(example).ok);
    const std::string used = std::regex_replace(example, std::regex("\n#(?=[a-z \\[\\]])(?! [A-Za-z])"), "\n");
    const LoadResult loaded = Load(used);
    EXPECT_TRUE(loaded.problems.empty()) << testing::PrintToString(Problems(loaded));
    settings::Certificates certificates = loaded.settings.certificates;
    // By default there is none of these.
    EXPECT_FALSE(std::exchange(certificates.crl_proxy, {}).empty());
    EXPECT_FALSE(std::exchange(certificates.crl_tls_ca_file, {}).empty());
    EXPECT_EQ(certificates, settings::Certificates{});
    EXPECT_EQ(loaded.settings.log.sinks.level, eventlog::Sinks{}.level);
    EXPECT_EQ(loaded.settings.log.sinks.file_max_bytes, eventlog::Sinks{}.file_max_bytes);
    EXPECT_EQ(loaded.settings.log.sinks.file_count, eventlog::Sinks{}.file_count);
    EXPECT_EQ(loaded.settings.log.certificate_changes, settings::Log{}.certificate_changes);
    EXPECT_EQ(loaded.settings.tokens.manager.poll_interval, tokens::Settings{}.poll_interval);
    EXPECT_EQ(loaded.settings.tokens.manager.call_limit, tokens::Settings{}.call_limit);
    EXPECT_EQ(loaded.settings.rules.list.size(), 1U);

    const std::string document = ReadFile(SOURCE_DIR "/docs/settings.md");
    for (const settings::KnownKey& key : settings::KnownKeys()) {
        const std::string name(key.name);
        SCOPED_TRACE(std::string(key.table) + " " + name);
        // A key whose value is a list of tables has a section of its own.
        const std::string own_table = "[[tokens." + name + "]]";
        const bool has_table = used.find(own_table) != std::string::npos;
        EXPECT_TRUE(has_table || std::regex_search(used, std::regex("\\b" + name + " = "))) << "not in the example";
        const std::string described = has_table ? "\n### `" + own_table + "`" : "\n| `" + name + "` |";
        EXPECT_NE((has_table ? document : Section(document, key.table)).find(described), std::string::npos);
    }
}

std::vector<bool> g_changes;

TEST_F(Settings, ApplyTellsOfChangesAndAFailedLoadChangesNothing) {
    LPARAMS::CertParams& cert = LPARAMS::server.cert;
    const auto ignores = [&cert] {
        const vpnfc::ObjectLock lock(cert);
        return cert.ignore_key_usage.on;
    };
    cert.on_change.push_back([](bool first) {
        // The block's mutex must be free: a callback reads it on whatever thread it likes.
        EXPECT_TRUE(LPARAMS::server.cert.try_lock());
        LPARAMS::server.cert.unlock();
        std::thread([] { EXPECT_FALSE(LPARAMS::server.cert.calls.try_lock()); }).join();
        g_changes.push_back(first);
    });

    settings::Apply(Load("").settings);
    EXPECT_EQ(g_changes, std::vector<bool>{true});
    EXPECT_FALSE(ignores());

    const settings::Settings changed = Load("[certificates]\nignore_key_usage = true\ncrl_cache = false\n").settings;
    settings::Apply(changed);
    EXPECT_EQ(g_changes, (std::vector<bool>{true, false}));
    EXPECT_TRUE(ignores());
    EXPECT_EQ(cert.crl_cache, 0U);
    EXPECT_EQ(cert.ignore_key_usage.name, "ignore_key_usage");

    // The same again, and a change elsewhere.
    settings::Apply(changed);
    settings::Apply(
        Load("[certificates]\nignore_key_usage = true\ncrl_cache = false\n[log]\ncrl_details = true\n").settings);
    EXPECT_EQ(g_changes.size(), 2U);
    EXPECT_TRUE(LPARAMS::server.log.crl_details);

    EXPECT_FALSE(Load("[certificates]\nignore_key_usage = 7\n").ok);
    EXPECT_TRUE(ignores());
    cert.on_change.clear();
}

}  // namespace
