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

/// What the headers say: the marked functions and variables, the marked classes, and where these may stand.
struct Interface {
    std::string headers = HeadersWithoutComments();
    Names words = Collect(headers, "(\\w+)");
    // The declared name stands before the first parenthesis, or before the end of a variable.
    Names marked = Collect(headers, "\\n *(?:extern )?CM_API [^;({]*?(\\w+)\\s*[(;]");
    Names classes = Collect(headers, "(?:class|struct) CM_API (\\w+)");
    Names namespaces = Collect(headers, "namespace ([\\w:]+)");
};

/// The last name of "scopes::name(arguments)" when it is declared; of a template or what stands inside a function, none.
std::string DeclaredName(const std::string& symbol, const Interface& declared) {
    static const std::regex form(
        "(?:[a-z ]+ for )?(?:([\\w:]*?)(\\w+)::)?~?(\\w+|operator[^\\w{]+)(?:\\[abi:\\w+\\])?(?:\\([^{]*)?");
    std::smatch parts;
    if (!std::regex_match(symbol, parts, form)) return {};
    const std::string scope = parts[2];
    const std::string name = parts[3];
    if (declared.classes.contains(scope)) {
        return declared.words.contains(name) || name.starts_with("operator") ? name : "";
    }
    const bool outside = scope.empty() || declared.namespaces.contains(parts[1].str() + scope);
    return outside && (declared.marked.contains(name) || declared.classes.contains(name)) ? name : "";
}

TEST(ModuleSymbols, ExportsTheDeclaredInterfaceAndNothingElse) {
    const Interface declared;
    ASSERT_GT(declared.marked.size(), 80U);
    Names exported;
    // "address type symbol"
    for (const std::string& symbol :
         Collect(OutputOf({"nm", "-D", "-C", "--defined-only", TEST_MODULE}), "[^\n]{19}([^\n]+)")) {
        const std::string name = DeclaredName(symbol, declared);
        EXPECT_NE(name, "") << symbol << " is exported and not declared";
        exported.insert(name);
    }
    for (const std::string& name : declared.marked) {
        EXPECT_TRUE(exported.contains(name)) << name << " is declared and not there";
    }
    for (const char* foreign :
         {"CM::Undeclared()", "CM::CertIndex::Find(int)", "CM::CertStorage::Reload()::{lambda()#1}::operator()() const",
          "std::vector<CM::X509Cert*>::push_back(CM::X509Cert*&&)"}) {
        EXPECT_EQ(DeclaredName(foreign, declared), "") << foreign;
    }
}

TEST(ModuleSymbols, NeedsNoLibraryButTheDocumentedOnes) {
    const Names allowed{"crypto", "curl", "stdc", "m", "gcc_s", "c", "pthread", "asan", "ubsan", "tsan"};
    for (const std::string& name : Collect(OutputOf({"readelf", "-d", TEST_MODULE}), "NEEDED[^\\[]*\\[lib(\\w+)")) {
        EXPECT_TRUE(allowed.contains(name)) << name;
    }
}

}  // namespace
