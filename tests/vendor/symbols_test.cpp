// The module's shared library offers what its headers declare, and asks for nothing but the host libraries' headers.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/process.h"

namespace {

using Names = std::set<std::string>;

/// What the headers of a folder mark as interface.
struct Interface {
    Names words;  // every identifier
    Names namespaces;
    Names classes;  // marked
    Names objects;  // marked functions and variables
};

std::string ReadWithoutComments(const std::filesystem::path& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return std::regex_replace(text.str(), std::regex("//[^\n]*"), "");
}

void Collect(const std::string& text, const std::string& pattern, Names& names) {
    const std::regex regex(pattern);
    for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match) {
        names.insert((*match)[1].str());
    }
}

Interface ReadInterface(const std::vector<std::string>& folders, const std::string& mark) {
    Interface found;
    for (const std::string& folder : folders) {
        for (const auto& entry :
             std::filesystem::directory_iterator(std::filesystem::path(TEST_SOURCE_DIR) / "include" / folder)) {
            const std::string text = ReadWithoutComments(entry.path());
            Collect(text, "(\\w+)", found.words);
            Collect(text, "(?:class|struct) " + mark + " (\\w+)", found.classes);
            // The declared name stands before the first parenthesis, or before the end of a variable.
            Collect(text, "\\n *(?:extern )?" + mark + " [^;({]*?(\\w+)\\s*[(;]", found.objects);
            Names scopes;
            Collect(text, "namespace ([\\w:]+)", scopes);
            for (const std::string& scope : scopes) Collect(scope, "(\\w+)", found.namespaces);
        }
    }
    return found;
}

/// A symbol's scopes and name, without arguments: "CM::CertStorage::Reload()" gives three parts.
std::vector<std::string> Parts(std::string symbol) {
    symbol = std::regex_replace(symbol, std::regex("^(vtable|typeinfo|typeinfo name|guard variable) for "), "");
    symbol = std::regex_replace(symbol, std::regex("\\[abi:\\w+\\]|\\(.*"), "");
    std::vector<std::string> parts;
    const std::regex part("[^:]+");
    for (std::sregex_iterator match(symbol.begin(), symbol.end(), part), end; match != end; ++match) {
        parts.push_back(match->str());
    }
    return parts;
}

bool IsDeclared(const std::string& symbol, const Interface& interface) {
    if (symbol.find('{') != std::string::npos || symbol.find('<') < symbol.find('(')) return false;
    const std::vector<std::string> parts = Parts(symbol);
    std::size_t i = 0;
    while (i + 1 < parts.size() && interface.namespaces.count(parts[i]) != 0) ++i;
    if (i + 1 == parts.size()) return interface.objects.count(parts[i]) != 0 || interface.classes.count(parts[i]) != 0;
    if (interface.classes.count(parts[i]) == 0) return false;
    const std::string member = std::regex_replace(parts.back(), std::regex("^~|^operator.*"), "");
    return member.empty() || interface.words.count(member) != 0;
}

struct Symbol {
    char type;
    std::string name;
};

std::vector<Symbol> ModuleSymbols(const std::string& which) {
    const auto result = test_support::Run({"nm", "-D", "-C", which, TEST_MODULE});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    std::vector<Symbol> symbols;
    std::istringstream lines(result.out);
    for (std::string line; std::getline(lines, line);) {
        if (line.size() > 19) symbols.push_back({line[17], line.substr(19)});
    }
    return symbols;
}

TEST(ModuleSymbols, ExportsTheDeclaredInterfaceAndNothingElse) {
    const Interface interface = ReadInterface({"certmgr", "iputils"}, "CM_API");
    ASSERT_GT(interface.objects.size(), 80U);
    Names exported;
    for (const Symbol& symbol : ModuleSymbols("--defined-only")) {
        EXPECT_TRUE(IsDeclared(symbol.name, interface)) << symbol.type << ' ' << symbol.name;
        EXPECT_NE(symbol.type, 'u') << symbol.name << " would keep the library from being unloaded";
        exported.insert(Parts(symbol.name).back());
    }
    for (const std::string& name : interface.objects) {
        EXPECT_EQ(exported.count(name), 1U) << name << " is declared and not there";
    }
}

TEST(ModuleSymbols, AsksForTheHostLibrariesAlone) {
    if (*TEST_SANITIZE != '\0') GTEST_SKIP() << "a sanitizer offers the system's functions without their versions";
    const Interface interface = ReadInterface({"platform"}, "PLATFORM_API");
    // What compilers add has no version; everything else of the system has one.
    const std::regex tools("_ITM_.*|__gmon_start__|__gcov.*|__llvm.*");
    for (const Symbol& symbol : ModuleSymbols("--undefined-only")) {
        if (symbol.name.find('@') != std::string::npos || std::regex_match(symbol.name, tools)) continue;
        EXPECT_TRUE(IsDeclared(symbol.name, interface)) << symbol.name;
    }
}

TEST(ModuleSymbols, NeedsNoLibraryButTheDocumentedOnes) {
    const auto result = test_support::Run({"readelf", "-d", TEST_MODULE});
    ASSERT_EQ(result.exit_code, 0) << result.err;
    Names needed;
    Collect(result.out, "NEEDED[^\\[]*\\[lib(\\w+)", needed);
    const Names allowed{"crypto", "curl", "stdc", "m", "gcc_s", "c", "pthread", "asan", "ubsan", "tsan"};
    for (const std::string& name : needed) EXPECT_EQ(allowed.count(name), 1U) << name;
}

// The checks above would pass on anything if they could not tell these apart.
TEST(ModuleSymbols, ForeignSymbolsAreRecognised) {
    const Interface interface = ReadInterface({"certmgr", "iputils"}, "CM_API");
    for (const char* symbol :
         {"CM::Init()", "CM::CertStorage::Reload()", "CM::CertStorage::~CertStorage()", "CertEngine_Init()",
          "CM::CertList::operator=(CM::CertList&&)", "CM::Callbacks", "typeinfo for CM::X509Cert"}) {
        EXPECT_TRUE(IsDeclared(symbol, interface)) << symbol;
    }
    for (const char* symbol :
         {"CM::Undeclared()", "std::vector<CM::X509Cert*>::push_back(CM::X509Cert*&&)", "PKCS11::Manager::Instance()",
          "CM::CertIndex::Find(int)", "CM::CertStorage::Reload()::{lambda()#1}::operator()() const",
          "CM::CertStorage::Undeclared()", "CertEngine_Undeclared(void*)", "cert_engine::Sha1()"}) {
        EXPECT_FALSE(IsDeclared(symbol, interface)) << symbol;
    }
}

}  // namespace
