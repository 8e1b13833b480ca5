// Addresses of CRLs: completion with the default server, and what may be shown of them. Input: default server, line end,
// address.
#include <curl/curl.h>
#include <strings.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "certmgr/cert_crlfetch.h"
#include "fuzz/target.h"
#include "platform/asn1.h"

namespace {

/// What does not hold of the completion.
std::string CompletionProblem(const std::string& uri, const std::string& server) {
    std::string work;
    const std::string& used = CM::cm_crl_tune_uri_source_addr_(uri, server, work);
    const std::size_t colon = server.find("://");
    const std::size_t host = colon + 3;
    const bool lacks_host = colon != std::string::npos && uri.size() > host && uri[host] == '/' &&
                            strncasecmp(uri.c_str(), server.c_str(), host) == 0;
    if (!lacks_host) return &used == &uri ? "" : "an address was changed that is complete, or cannot be completed";
    return used == server + uri.substr(host) ? "" : "the completed address is another one";
}

std::string Part(CURLU* address, CURLUPart part) {
    char* text = nullptr;
    if (curl_url_get(address, part, &text, 0) != CURLUE_OK) return {};
    std::string copy(text);
    curl_free(text);
    return copy;
}

/// What does not hold of an address that is shown.
std::string ShownProblem(const std::string& uri) {
    const std::string shown = CM::PrintableUri(uri);
    const bool plain = uri.find('@') == std::string::npos;
    if (plain && shown != asn_text_to_printable(uri)) return "an address without credentials was changed";
    const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> address(curl_url(), curl_url_cleanup);
    constexpr unsigned kAsInTransfers = CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME | CURLU_URLENCODE;
    if (curl_url_set(address.get(), CURLUPART_URL, shown.c_str(), kAsInTransfers) != CURLUE_OK) return {};
    const bool bare = Part(address.get(), CURLUPART_USER).empty() && Part(address.get(), CURLUPART_PASSWORD).empty();
    return bare ? "" : "credentials are shown";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t end = std::min(input.find('\n'), input.size());
    const std::string server = input.substr(0, end);
    const std::string uri = input.substr(std::min(end + 1, input.size()));
    fuzz::Require(CompletionProblem(uri, server));
    fuzz::Require(ShownProblem(uri));
    return 0;
}
