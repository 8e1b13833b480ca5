// certmgrd as an operator sees it: tokens that come and go, reloads, wrong settings, a module that hangs, stopping.

#include <gtest/gtest.h>

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
    EXPECT_TRUE(daemon_.WaitForOutput("does not return; its tokens are left out until it answers again")) << daemon_.Err();
    EXPECT_TRUE(daemon_.WaitForOutput("PersonalCertDisappeared: CN=alice")) << daemon_.Err();
    daemon_.Kill(SIGTERM);
    const auto result = daemon_.Wait();
    EXPECT_FALSE(result.timed_out);
    EXPECT_EQ(result.exit_code, 0) << result.err;
}

TEST(DaemonSettingsTest, AreCheckedBeforeAnythingStarts) {
    const Hosts hosts;
    hosts.Write("bad.toml", "[log]\nlevel = 7\n");
    const auto check = test_support::Run({CERTMGRD_PATH, "--check", "--config", hosts.Settings("bad")});
    EXPECT_EQ(check.exit_code, 2);
    EXPECT_NE(check.err.find("bad.toml:2:"), std::string::npos) << check.err;
    const auto run = test_support::Run({CERTMGRD_PATH, "--config", hosts.Settings("missing")});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_NE(run.err.find("missing.toml"), std::string::npos) << run.err;
    EXPECT_EQ(test_support::Run({CERTMGRD_PATH, "--check", "--config", hosts.Settings("alice")}).exit_code, 0);
}

}  // namespace
}  // namespace program_test
