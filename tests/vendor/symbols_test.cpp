// The module's shared library offers what its headers declare, and needs no library but the documented ones. That the
// host libraries' headers are enough for it, the program outside the tree shows.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "tests/support/process.h"

namespace {

using Names = std::set<std::string>;

/// What the pattern's group matches in the text.
Names Collect(const std::string& text, const std::string& pattern) {
    const std::regex regex(pattern);
    Names names;
    for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match) {
        names.insert((*match)[1].str());
    }
    return names;
}

std::string HeadersWithoutComments() {
    std::stringstream text;
    for (const char* folder : {"/include/certmgr", "/include/iputils"}) {
        for (const auto& entry : std::filesystem::directory_iterator(std::string(TEST_SOURCE_DIR) + folder)) {
            text << std::ifstream(entry.path()).rdbuf();
        }
    }
    return std::regex_replace(text.str(), std::regex("//[^\n]*"), "");
}

std::string OutputOf(const std::vector<std::string>& command) {
    const auto result = test_support::Run(command);
    EXPECT_EQ(result.exit_code, 0) << result.err;
    return result.out;
}

TEST(ModuleSymbols, ExportsTheDeclaredInterfaceAndNothingElse) {
    const std::string headers = HeadersWithoutComments();
    const Names words = Collect(headers, "(\\w+)");
    // The declared name stands before the first parenthesis, or before the end of a variable.
    const Names marked = Collect(headers, "\\n *(?:extern )?CM_API [^;({]*?(\\w+)\\s*[(;]");
    ASSERT_GT(marked.size(), 80U);
    const std::string symbols = OutputOf({"nm", "-D", "-C", "--defined-only", TEST_MODULE});
    // "address type scopes::name(arguments)": the first name that a parenthesis or the line's end follows.
    const Names exported =
        Collect(symbols, "[^\n]{19}[^\n(]*?(\\w+|operator[^\n\\w]+)(?:\\[abi:\\w+\\])?(?:\\([^\n]*)?\n");
    for (const std::string& name : exported) {
        EXPECT_TRUE(words.contains(name) || name.starts_with("operator")) << name << " is exported and not declared";
    }
    for (const std::string& name : marked) EXPECT_TRUE(exported.contains(name)) << name << " is declared and not there";
    EXPECT_EQ(Collect("\n" + symbols, "\n[^\n]{19}([^\n(]*<)"), Names()) << "templates are nobody's interface";
}

TEST(ModuleSymbols, NeedsNoLibraryButTheDocumentedOnes) {
    const Names allowed{"crypto", "curl", "stdc", "m", "gcc_s", "c", "pthread", "asan", "ubsan", "tsan"};
    for (const std::string& name : Collect(OutputOf({"readelf", "-d", TEST_MODULE}), "NEEDED[^\\[]*\\[lib(\\w+)")) {
        EXPECT_TRUE(allowed.contains(name)) << name;
    }
}

}  // namespace
