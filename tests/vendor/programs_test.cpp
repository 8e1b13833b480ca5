// A vendor's programs: one outside the tree that links the module, one that loads and unloads it.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace {

using test_support::ProcessResult;

void ExpectDone(const ProcessResult& result) {
    EXPECT_FALSE(result.timed_out);
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_NE(result.out.find("done\n"), std::string::npos) << result.out;
    EXPECT_EQ(result.err, "") << "a sanitizer or the loader complains";
}

TEST(VendorProgram, BuildsFromThePublicHeadersAloneAndRuns) {
    const test_support::TempDir dir;
    const std::filesystem::path source(TEST_SOURCE_DIR);
    const auto recursive = std::filesystem::copy_options::recursive;
    std::filesystem::copy(source / "include", dir / "include", recursive);
    std::filesystem::copy(source / "tests" / "vendor" / "host", dir / "host", recursive);
    std::filesystem::copy(source / "tests" / "vendor" / "outside", dir / "host", recursive);

    std::vector<std::string> command{TEST_COMPILER, "-std=c++20", "-Wall", "-Wextra",
                                     "-Wpedantic",  "-Werror",    "-I",    dir / "include"};
    if (*TEST_SANITIZE != '\0') command.push_back("-fsanitize=" TEST_SANITIZE);
    if (TEST_COVERAGE) command.emplace_back("--coverage");
    for (const auto& entry : std::filesystem::directory_iterator(dir / "host")) {
        if (entry.path().extension() == ".cpp") command.push_back(entry.path());
    }
    const std::string program = dir / "program";
    const std::string module_dir = std::filesystem::path(TEST_MODULE).parent_path();
    for (const std::string& argument :
         {std::string("-o"), program, std::string(TEST_MODULE), std::string(TEST_BASE_ASN1), std::string("-lcrypto"),
          std::string("-pthread"), "-Wl,-rpath," + module_dir}) {
        command.push_back(argument);
    }
    const ProcessResult built = test_support::Run(command, {}, std::chrono::minutes(4));
    ASSERT_EQ(built.exit_code, 0) << built.err;
    const ProcessResult result = test_support::Run({program});
    ExpectDone(result);
    EXPECT_NE(result.out.find("chosen CN=host"), std::string::npos) << result.out;
    ExpectDone(test_support::Run({program, "leave"}));
}

TEST(VendorProgram, LoadsAndUnloadsTheModuleAgainAndAgain) {
    ExpectDone(test_support::Run({TEST_LOADER, TEST_MODULE, "cycle", "5"}));
}

TEST(VendorProgram, UnloadsWithAReloadTimerArmed) {
    ExpectDone(test_support::Run({TEST_LOADER, TEST_MODULE, "queued"}));
}

TEST(VendorProgram, LeavesTheProcessWithoutStopping) {
    for (int round = 0; round < 5; ++round) ExpectDone(test_support::Run({TEST_LOADER, TEST_MODULE, "leave"}));
}

}  // namespace
