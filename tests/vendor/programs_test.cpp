// A vendor's programs: one outside the tree that links the module, one that loads and unloads it.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/pki.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace {

void ExpectDone(const std::vector<std::string>& command) {
    const auto result = test_support::Run(command);
    EXPECT_FALSE(result.timed_out);
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_TRUE(result.out.ends_with("done\n")) << result.out;
    EXPECT_EQ(result.err, "") << "a sanitizer or the loader complains";
}

TEST(VendorProgram, BuildsFromThePublicHeadersAloneRunsAndLeavesWithoutStopping) {
    const test_support::TempDir dir;
    const std::filesystem::path source(TEST_SOURCE_DIR);
    for (const auto& [from, to] : {std::pair("include", "include"), {"tests/vendor/host", "host"}}) {
        std::filesystem::copy(source / from, dir / to, std::filesystem::copy_options::recursive);
    }
    std::filesystem::copy(source / "tests/vendor/outside", dir / "host");

    const std::string program = dir / "program";
    const std::string module_dir = std::filesystem::path(TEST_MODULE).parent_path();
    std::vector<std::string> command{TEST_COMPILER, "-std=c++20", "-Wall", "-Wextra", "-Werror", "-I", dir / "include"};
    if (*TEST_SANITIZE != '\0') command.push_back("-fsanitize=" TEST_SANITIZE);
    if (TEST_COVERAGE) command.emplace_back("--coverage");
    for (const auto& entry : std::filesystem::directory_iterator(dir / "host")) {
        if (entry.path().extension() == ".cpp") command.push_back(entry.path());
    }
    command.insert(command.end(),
                   {"-o", program, TEST_MODULE, TEST_BASE_ASN1, "-lcrypto", "-pthread", "-Wl,-rpath," + module_dir});
    const auto built = test_support::Run(command, {}, std::chrono::minutes(4));
    ASSERT_EQ(built.exit_code, 0) << built.err;

    const test_pki::Cert root = test_pki::MakeCa("CN=root");
    const test_pki::Cert host = test_pki::MakeLeaf("CN=host", root);
    std::ofstream(dir / "root.der") << root.der;
    std::ofstream(dir / "host.der") << host.der;
    std::ofstream(dir / "host.p8") << test_pki::Pkcs8(host.key);
    // What the module still does when they leave differs.
    for (int run = 0; run < 5; ++run) ExpectDone({program, dir / "root.der", dir / "host.der", dir / "host.p8"});
}

TEST(VendorProgram, LoadsAndUnloadsTheModuleAgainAndAgain) {
    ExpectDone({TEST_LOADER, TEST_MODULE});
}

}  // namespace
