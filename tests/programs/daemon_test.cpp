// certmgrd as an operator sees it: tokens that come and go, reloads, wrong settings, a module that hangs, stopping.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "tests/programs/hosts.h"

namespace program_test {
namespace {

class DaemonTest : public testing::Test {
  protected:
    void SetUp() override { Says("certmgrd runs"); }
    void Says(const std::string& text, unsigned times = 1) {
        EXPECT_TRUE(daemon_.WaitForOutput(text, test_support::kWaitLimit, times)) << text << '\n' << daemon_.Err();
    }
    void EndsAfter(int signal) {
        daemon_.Kill(signal);
        EXPECT_EQ(daemon_.Wait().exit_code, 0) << daemon_.Err();
    }

    Hosts hosts_;
    test_support::Process daemon_{{CERTMGRD_PATH, "--config", hosts_.alice.settings()},
                                  {{"FORWARD_PKCS11_CONTROL", hosts_.control.path()}}};
};

TEST_F(DaemonTest, ShowsTokensThatComeAndGo) {
    Says("PersonalCertAppeared: CN=alice");
    hosts_.control.Set({"hide alice"});
    Says("Token removed: \"alice\"");
    Says("PersonalCertDisappeared: CN=alice");
    hosts_.control.Set({});
    Says("PersonalCertAppeared: CN=alice", 2);
    EndsAfter(SIGTERM);
}

TEST_F(DaemonTest, KeepsItsSettingsWhenTheNewOnesAreWrong) {
    hosts_.alice.WriteSettings("[certificates]\nignore_key_usag = true\n");
    daemon_.Kill(SIGHUP);
    Says("unknown key \"ignore_key_usag\"");
    Says("settings not reloaded, the old ones stay in force");
    hosts_.alice.WriteSettings("[certificates]\nignore_key_usage = true\n");
    daemon_.Kill(SIGHUP);
    Says("settings and tokens reloaded");
    EndsAfter(SIGINT);
}

TEST_F(DaemonTest, StopsAlthoughAModuleHangs) {
    hosts_.control.Set({"hang C_GetTokenInfo", "hang C_GetSlotList", "hang C_FindObjects", "hang C_Finalize"});
    Says("does not return; its tokens are left out until it answers again");
    Says("PersonalCertDisappeared: CN=alice");
    EndsAfter(SIGTERM);
}

TEST(DaemonStartTest, ExitCodesAreWhatTheHelpSays) {
    const test_support::TempDir dir;
    const auto settings = [&](const std::string& name, const std::string& content) {
        dir.Write(name, content);
        return (dir / name).string();
    };
    const std::string bad = settings("bad.toml", "[log]\nlevel = 7\n");
    const std::string no_tokens = settings("tokens.toml", "[tokens]\nsofthsm_directory = \"bad.toml/tokens\"\n");
    const struct {
        std::vector<std::string> options;
        int exit_code;
        const char* text;
    } cases[] = {
        {{"--help"}, 0, "Exit codes:"},
        {{"--version"}, 0, "certmgrd "},
        {{"--wrong"}, 2, "not expected: --wrong"},
        {{"--config", dir / "missing.toml"}, 2, "missing.toml: cannot be opened: No such file or directory"},
        {{"--config", bad}, 2, "bad.toml:2:9: [log] level: expected a text"},
        {{"--check", "--config", bad}, 2, "bad.toml:2:"},
        {{"--check", "--config", settings("good.toml", "")}, 0, "good.toml: good"},
        {{"--config", settings("log.toml", "[log]\nfile = \"bad.toml/log\"\n")}, 1, "another as \"file\""},
        {{"--config", no_tokens}, 1, "name another as \"softhsm_directory\" in [tokens]"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> words{CERTMGRD_PATH};
        words.insert(words.end(), c.options.begin(), c.options.end());
        const auto result = test_support::Run(words);
        const std::string said = result.out + result.err;
        EXPECT_EQ(result.exit_code, c.exit_code) << c.text;
        EXPECT_NE(said.find(c.text), std::string::npos) << c.text << '\n' << said;
    }
}

// The reader of stderr goes away after the first line; what is logged on must not end the daemon. What is doubtful in
// the settings goes to the log file that they name.
TEST(DaemonStartTest, LogsToTheFileFromTheFirstLineOnAndSurvivesAClosedStderr) {
    const test_support::TempDir dir;
    dir.Write("daemon.toml", "[log]\nfile = \"daemon.log\"\n[[rule]]\nname = \"office\"\n");
    const std::string config = dir / "daemon.toml";
    ASSERT_EQ(chmod(config.c_str(), 0666), 0);
    test_support::Process daemon({"bash", "-c", "exec \"$0\" --config \"$1\" 2> >(head -n 1)", CERTMGRD_PATH, config});
    test_support::Process reader({"tail", "-n", "+1", "-F", dir / "daemon.log"});
    ASSERT_TRUE(reader.WaitForOutput("certmgrd runs")) << reader.Out();
    EXPECT_NE(reader.Out().find("can be written by others than its owner"), std::string::npos) << reader.Out();
    EXPECT_NE(reader.Out().find("Settings loaded: "), std::string::npos) << reader.Out();
    daemon.Kill(SIGHUP);
    EXPECT_TRUE(reader.WaitForOutput("settings and tokens reloaded")) << reader.Out();
    daemon.Kill(SIGTERM);
    EXPECT_EQ(daemon.Wait().exit_code, 0) << reader.Out();
}

}  // namespace
}  // namespace program_test
