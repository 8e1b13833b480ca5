// Extensions that have no reader of their own: libcrypto prints them, within bounds.
#include <openssl/x509v3.h>

#include <algorithm>
#include <utility>

#include "certmgr/cert_engine.h"
#include "certmgr/cert_engine_openssl.h"
#include "certmgr/cert_engine_openssl_ext.h"

namespace cert_engine {
namespace {

constexpr std::size_t kMaxPrintedText = 65536;

// Lines without surrounding blanks, empty ones left out.
std::string Reflow(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r";
    std::string lines;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
        line = line.substr(0, line.find_last_not_of(kBlanks) + 1);
        if (line.empty()) continue;
        if (!lines.empty()) lines += '\n';
        lines += line;
    }
    return lines;
}

std::string PrintedValue(X509_EXTENSION* extension) {
    constexpr int kIndent = 4;
    const ErrorMark mark;
    const BioPtr stream(BIO_new(BIO_s_mem()));
    if (stream == nullptr) return {};
    X509V3_EXT_print(stream.get(), extension, X509V3_EXT_PARSE_UNKNOWN, kIndent);
    char* text = nullptr;
    const long length = BIO_get_mem_data(stream.get(), &text);
    if (length <= 0) return {};
    std::string lines = Reflow({text, static_cast<std::size_t>(length)});
    if (lines.size() > kMaxPrintedText) {
        const std::string cut = "\n... (" + std::to_string(lines.size() - kMaxPrintedText) + " bytes cut)";
        lines.replace(kMaxPrintedText, std::string::npos, cut);
    }
    return lines;
}

}  // namespace

std::string UnknownName(X509_EXTENSION* extension) {
    std::string name;
    ASN1_OBJECT_to_std_string(X509_EXTENSION_get_object(extension), name, kOidName);
    return name.empty() ? "unknown extension" : name;
}

void cert_ext_Unknown(X509_EXTENSION* extension, CertExtentions& texts, std::size_t& printable_bytes) {
    std::string name = UnknownName(extension);
    if (X509_EXTENSION_get_critical(extension) != 0) name += "(critical)";
    const std::size_t size = BytesOf(X509_EXTENSION_get_data(extension)).size();
    const bool printed = size <= printable_bytes;
    if (printed) printable_bytes -= size;
    texts.unknownExtensions.emplace_back(std::move(name),
                                         printed ? PrintedValue(extension) : std::to_string(size) + " bytes");
}

}  // namespace cert_engine
