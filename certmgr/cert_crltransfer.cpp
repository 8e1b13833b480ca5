#include "certmgr/cert_crltransfer.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "certmgr/cert_crlfetch.h"
#include "certmgr/cert_engine.h"
#include "certmgr/cert_engine_openssl.h"
#include "certmgr/cert_engine_openssl_crl.h"
#include "certmgr/cert_log.h"

namespace CM {

// --- What failed lately ---

void FailureMemory::Note(const Key& key, std::string outcome) {
    if (failures_.size() >= kMaxCrlFailures && !failures_.contains(key)) {
        failures_.erase(std::min_element(failures_.begin(), failures_.end(),
                                         [](const auto& a, const auto& b) { return a.second.at < b.second.at; }));
    }
    failures_[key] = {vpnfc::CurrentTime(), std::move(outcome)};
}

std::optional<std::string> FailureMemory::Recall(const Key& key, std::uint32_t seconds) const {
    const auto found = failures_.find(key);
    if (found == failures_.end()) return std::nullopt;
    const std::time_t age = vpnfc::CurrentTime() - found->second.at;
    if (age < 0 || age >= static_cast<std::time_t>(seconds)) return std::nullopt;
    return found->second.outcome + " (" + std::to_string(age) + " s ago, not asked again yet)";
}

// --- One transfer ---

namespace {

/// The CRL in data that is DER, or text of it; null when it is neither. One that is known is not decoded again.
CrlRef Decode(std::string data, const std::vector<CrlRef>& known) {
    using cert_engine::SharedBytes;
    const cert_engine::ErrorMark mark;
    const auto known_or_parsed = [&known](const SharedBytes& der) -> CrlRef {
        const auto same = [&der](const CrlRef& crl) { return crl != nullptr && crl->rawCrl() == *der; };
        const auto found = std::find_if(known.begin(), known.end(), same);
        if (found != known.end()) return *found;
        void* const handle = cert_engine::CreateCrlHandle(der);
        if (handle == nullptr) return nullptr;
        ++g_crl_counters.parsed;
        return std::make_shared<X509CRL>(handle, true);
    };
    // What follows the CRL is neither compared nor kept.
    const auto first_element = [](const SharedBytes& bytes) {
        const std::string_view element = cert_engine::FirstElement(*bytes);
        return element.size() == bytes->size() ? bytes : std::make_shared<const std::string>(element);
    };
    const auto bytes = std::make_shared<const std::string>(std::move(data));
    CrlRef crl = known_or_parsed(first_element(bytes));
    if (crl != nullptr) return crl;
    return known_or_parsed(first_element(std::make_shared<const std::string>(cert_engine::CrlTextPayload(*bytes))));
}

}  // namespace

CrlAnswer Transfer(const CrlRequest& request) {
    ++g_crl_counters.transfers;
    std::string data;
    std::string content_type;
    std::string note;
    const bool received =
        download_data_from_uri(request.address.c_str(), data, content_type, request.params.timeout_seconds, &note);
    CrlAnswer answer{.generation = request.params.generation};
    log_content_type_(answer.received, content_type);
    log_data_(answer.received, data);
    const auto because = [&note](const char* text) { return note.empty() ? text : std::string(text) + ": " + note; };
    if (!received || data.empty()) {
        answer.outcome = because("no data");
        return answer;
    }
    const std::vector<CrlRef> known{request.known, FindCachedCrl(request.address)};
    answer.crl = Decode(std::move(data), known);
    if (answer.crl == nullptr) {
        answer.outcome = because("data malformed, X509 ASN.1 expected");
    } else if (std::find(known.begin(), known.end(), answer.crl) != known.end()) {
        answer.outcome = "CRL not changed, first downloaded at: " + CertTimeToString(answer.crl->downloadedAt);
    } else {
        answer.crl->uri = request.address;
        answer.outcome = "CRL downloaded";
    }
    return answer;
}

// --- Log renderings ---

std::string& log_uri_(std::string& text, const std::string& used, const std::string& named) {
    cmprint_Value(text.append(" - "), PrintableUri(used));
    return used == named ? text : text.append("(modified)");
}

std::string& log_content_type_(std::string& text, const std::string& content_type) {
    if (!content_type.empty()) cmprint_Text(text.append(", "), content_type);
    return text;
}

std::string& log_data_(std::string& text, const std::string& data) {
    constexpr std::size_t kEnds = 6;
    text.append(", data[").append(std::to_string(data.size())).append("]: ");
    const std::string_view bytes = data;
    if (bytes.size() < 2 * kEnds) {
        asn_bytes_to_upper_hex(bytes, text);
        return text;
    }
    asn_bytes_to_upper_hex(bytes.substr(0, kEnds), text);
    text.append("...");
    asn_bytes_to_upper_hex(bytes.substr(bytes.size() - kEnds), text);
    return text;
}

}  // namespace CM
