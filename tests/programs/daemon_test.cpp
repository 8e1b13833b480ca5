// certmgrd as an operator sees it: tokens that come and go, reloads, wrong settings, a module that hangs, stopping.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "tests/programs/hosts.h"

namespace program_test {
namespace {

class DaemonTest : public testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(daemon_.WaitForOutput("certmgrd runs")) << daemon_.Err(); }

    Hosts hosts_;
    test_support::Process daemon_{{CERTMGRD_PATH, "--config", hosts_.Settings("alice")}, hosts_.Environment()};
};

TEST_F(DaemonTest, ShowsTokensThatComeAndGo) {
    EXPECT_TRUE(daemon_.WaitForOutput("PersonalCertAppeared: CN=alice")) << daemon_.Err();
    hosts_.control().Set({"hide alice"});
    EXPECT_TRUE(daemon_.WaitForOutput("Token removed: \"alice\"")) << daemon_.Err();
    EXPECT_TRUE(daemon_.WaitForOutput("PersonalCertDisappeared: CN=alice")) << daemon_.Err();
    hosts_.control().Set({});
    EXPECT_TRUE(daemon_.WaitForOutput("PersonalCertAppeared: CN=alice", test_support::kWaitLimit, 2)) << daemon_.Err();
    daemon_.Kill(SIGTERM);
    EXPECT_EQ(daemon_.Wait().exit_code, 0) << daemon_.Err();
}

TEST_F(DaemonTest, KeepsItsSettingsWhenTheNewOnesAreWrong) {
    hosts_.WriteSettings("alice", "[certificates]\nignore_key_usag = true\n");
    daemon_.Kill(SIGHUP);
    EXPECT_TRUE(daemon_.WaitForOutput("unknown key \"ignore_key_usag\"")) << daemon_.Err();
    EXPECT_TRUE(daemon_.WaitForOutput("did you mean \"ignore_key_usage\"?")) << daemon_.Err();
    EXPECT_TRUE(daemon_.WaitForOutput("settings not reloaded, the old ones stay in force")) << daemon_.Err();
    hosts_.WriteSettings("alice", "[certificates]\nignore_key_usage = true\n");
    daemon_.Kill(SIGHUP);
    EXPECT_TRUE(daemon_.WaitForOutput("settings and tokens reloaded")) << daemon_.Err();
    daemon_.Kill(SIGINT);
    EXPECT_EQ(daemon_.Wait().exit_code, 0) << daemon_.Err();
}

TEST_F(DaemonTest, StopsAlthoughAModuleHangs) {
    hosts_.control().Set({"hang C_GetTokenInfo", "hang C_GetSlotList", "hang C_FindObjects", "hang C_Finalize"});
    EXPECT_TRUE(daemon_.WaitForOutput("does not return; its tokens are left out until it answers again"))
        << daemon_.Err();
    EXPECT_TRUE(daemon_.WaitForOutput("PersonalCertDisappeared: CN=alice")) << daemon_.Err();
    daemon_.Kill(SIGTERM);
    const auto result = daemon_.Wait();
    EXPECT_FALSE(result.timed_out);
    EXPECT_EQ(result.exit_code, 0) << result.err;
}

TEST(DaemonStartTest, ExitCodesAreWhatTheHelpSays) {
    const Hosts hosts;
    const auto settings = [&](const std::string& name, const std::string& content) {
        hosts.Write(name + ".toml", content);
        return hosts.Settings(name);
    };
    const struct {
        std::vector<std::string> options;
        int exit_code;
        const char* text;
    } cases[] = {
        {{"--help"}, 0, "Exit codes:"},
        {{"--version"}, 0, "certmgrd "},
        {{"--wrong"}, 2, "not expected: --wrong"},
        {{"--config"}, 2, "--config"},
        {{"--config", hosts.Settings("missing")},
         2,
         "missing.toml: cannot be opened: No such file or directory; write one"},
        {{"--config", settings("bad", "[log]\nlevel = 7\n")}, 2, "bad.toml:2:9: [log] level: expected a text"},
        {{"--config", settings("log", "[log]\nfile = \"alice.pem/log\"\n")}, 1, "name another as \"file\" in [log]"},
        {{"--config", settings("state", "[tokens]\nsofthsm_directory = \"alice.pem/tokens\"\n")},
         1,
         "name another as \"softhsm_directory\" in [tokens]"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> words{CERTMGRD_PATH};
        words.insert(words.end(), c.options.begin(), c.options.end());
        const auto result = test_support::Run(words);
        EXPECT_EQ(result.exit_code, c.exit_code) << c.text;
        EXPECT_NE((result.out + result.err).find(c.text), std::string::npos) << c.text << "\n"
                                                                             << result.out << result.err;
    }
}

// The reader of stderr goes away after the first line; what is logged on must not end the daemon. What is doubtful in
// the settings goes to the log file that they name.
TEST(DaemonStartTest, LogsToTheFileFromTheFirstLineOnAndSurvivesAClosedStderr) {
    const Hosts hosts;
    const std::string config = hosts.Settings("alice");
    hosts.Write("alice.toml", "[log]\nfile = \"daemon.log\"\n[[rule]]\nname = \"office\"\n");
    ASSERT_EQ(chmod(config.c_str(), 0666), 0);
    const std::string log = std::filesystem::path(config).replace_filename("daemon.log");
    test_support::Process daemon({"bash", "-c", "exec \"$0\" --config \"$1\" 2> >(head -n 1)", CERTMGRD_PATH, config});
    test_support::Process reader({"tail", "-n", "+1", "-F", log});
    ASSERT_TRUE(reader.WaitForOutput("certmgrd runs")) << reader.Out();
    EXPECT_NE(reader.Out().find("can be written by others than its owner"), std::string::npos) << reader.Out();
    EXPECT_NE(reader.Out().find("Settings loaded: "), std::string::npos) << reader.Out();
    daemon.Kill(SIGHUP);
    EXPECT_TRUE(reader.WaitForOutput("settings and tokens reloaded")) << reader.Out();
    daemon.Kill(SIGTERM);
    EXPECT_EQ(daemon.Wait().exit_code, 0) << reader.Out();
}

TEST(DaemonSettingsTest, AreCheckedBeforeAnythingStarts) {
    const Hosts hosts;
    hosts.Write("bad.toml", "[log]\nlevel = 7\n");
    const auto check = test_support::Run({CERTMGRD_PATH, "--check", "--config", hosts.Settings("bad")});
    EXPECT_EQ(check.exit_code, 2);
    EXPECT_NE(check.err.find("bad.toml:2:"), std::string::npos) << check.err;
    EXPECT_EQ(test_support::Run({CERTMGRD_PATH, "--check", "--config", hosts.Settings("alice")}).exit_code, 0);
}

}  // namespace
}  // namespace program_test
