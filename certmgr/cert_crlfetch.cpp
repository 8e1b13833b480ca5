#include "certmgr/cert_crlfetch.h"

#include <curl/curl.h>
#include <dlfcn.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <pthread.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <ctime>
#include <memory>
#include <new>

#include "platform/asn1.h"
#include "platform/params.h"

namespace {

constexpr long kMaxRedirects = 3;
constexpr const char* kProtocols = "http,https,ldap,ldaps";
constexpr const char* kRedirectProtocols = "http,https";
/// What a transfer may receive beside the CRL: headers, names, the answers that redirect.
constexpr std::uint64_t kEnvelopeBytes = 256U << 10;
/// Of what a CRL may take, the share that TLS records and chunks may add to it.
constexpr std::uint64_t kFramingShare = 8;

using CurlHandle = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;

/// Starts libcurl once. It is not stopped, and stays in memory: a look-up of a name that ran into the time-out goes on
/// in a thread of libcurl's own for a while.
bool CurlIsReady() {
    static const bool ready = [] {
        Dl_info library{};
        if (dladdr(reinterpret_cast<const void*>(&curl_easy_perform), &library) != 0) {
            dlopen(library.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
        }
        return curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    }();
    return ready;
}

/// Keeps SIGPIPE from the calling thread's process while it lives: the LDAP and TLS libraries under libcurl write to
/// sockets that a server has closed.
class SigpipeBlocked {
  public:
    SigpipeBlocked() {
        sigemptyset(&sigpipe_);
        sigaddset(&sigpipe_, SIGPIPE);
        was_pending_ = IsPending();
        pthread_sigmask(SIG_BLOCK, &sigpipe_, &before_);
    }
    ~SigpipeBlocked() {
        const timespec at_once{};
        if (!was_pending_ && IsPending()) sigtimedwait(&sigpipe_, nullptr, &at_once);
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    SigpipeBlocked(const SigpipeBlocked&) = delete;
    SigpipeBlocked& operator=(const SigpipeBlocked&) = delete;

  private:
    static bool IsPending() {
        sigset_t pending;
        return sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
    }

    sigset_t sigpipe_{};
    sigset_t before_{};
    bool was_pending_ = false;
};

bool StartsWithoutCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && strncasecmp(text.data(), prefix.data(), prefix.size()) == 0;
}

bool IsLdap(std::string_view uri) {
    return StartsWithoutCase(uri, "ldap:") || StartsWithoutCase(uri, "ldaps:");
}

/// What comes in during one transfer, and where it stops.
class Reception {
  public:
    Reception(std::string& data, bool ldap, std::uint64_t limit) : data_(data), ldap_(ldap), limit_(limit) {}

    bool too_large() const { return too_large_; }

    // libcurl's callbacks; `self` is this object.
    static std::size_t OnData(char* bytes, std::size_t size, std::size_t count, void* self) {
        return static_cast<Reception*>(self)->Take({bytes, size * count}) ? size * count : 0;
    }
    static curl_socket_t OnOpen(void* self, curlsocktype /*purpose*/, curl_sockaddr* address) {
        return static_cast<Reception*>(self)->Open(*address);
    }
    static int OnClose(void* self, curl_socket_t fd) { return static_cast<Reception*>(self)->Close(fd); }
    static int OnProgress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
        return static_cast<Reception*>(self)->WithinLimit() ? 0 : 1;
    }

  private:
    bool Take(std::string_view chunk);
    curl_socket_t Open(const curl_sockaddr& address);
    int Close(int fd);
    bool WithinLimit();

    std::string& data_;
    const bool ldap_;
    const std::uint64_t limit_;
    CM::LdapValueFinder finder_;
    std::array<CM::TransferSocket, 8> sockets_;  // two at most are open at once, one for each version of IP
    std::uint64_t received_ = 0;  // by those that are closed
    bool too_large_ = false;
};

bool Reception::Take(std::string_view chunk) {
    // A directory's bytes come as base64.
    const std::uint64_t limit = ldap_ ? limit_ / 3 * 4 + 4 : limit_;
    if (data_.size() > limit || chunk.size() > limit - data_.size()) {
        too_large_ = true;
        return false;
    }
    try {
        if (ldap_) {
            finder_.Take(chunk, data_);
        } else {
            data_.append(chunk);
        }
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

curl_socket_t Reception::Open(const curl_sockaddr& address) {
    const auto unused =
        std::find_if(sockets_.begin(), sockets_.end(), [](const CM::TransferSocket& s) { return s.fd() < 0; });
    if (unused == sockets_.end() || !unused->Open(address.family, address.socktype, address.protocol))
        return CURL_SOCKET_BAD;
    return unused->fd();
}

int Reception::Close(int fd) {
    const auto found =
        std::find_if(sockets_.begin(), sockets_.end(), [fd](const CM::TransferSocket& s) { return s.fd() == fd; });
    if (found == sockets_.end()) return 0;
    received_ += found->BytesReceived();
    return found->Close();
}

/// Headers, and a directory's answer, are held in memory before anything of them is passed on: what the sockets received
/// is looked at as well.
bool Reception::WithinLimit() {
    std::uint64_t received = received_;
    for (const CM::TransferSocket& socket : sockets_) received += socket.BytesReceived();
    too_large_ = too_large_ || received > limit_ + limit_ / kFramingShare + kEnvelopeBytes;
    return !too_large_;
}

template <typename Value>
bool Set(const CurlHandle& curl, CURLoption option, Value value) {
    return curl_easy_setopt(curl.get(), option, value) == CURLE_OK;
}

struct TransferSettings {
    std::uint64_t max_bytes;
    std::string proxy;
    std::string tls_ca_file;
};

TransferSettings ReadTransferSettings() {
    const LPARAMS::CertParams& block = LPARAMS::server.cert;
    const vpnfc::ObjectLock lock(block);
    return {block.crl_max_bytes, block.crl_proxy, block.crl_tls_ca_file};
}

bool SetUp(const CurlHandle& curl, const char* uri, unsigned int timeout_seconds, const TransferSettings& settings,
           Reception& reception) {
    const auto seconds = static_cast<long>(timeout_seconds);
    return Set(curl, CURLOPT_URL, uri) && Set(curl, CURLOPT_PROTOCOLS_STR, kProtocols) &&
           Set(curl, CURLOPT_REDIR_PROTOCOLS_STR, kRedirectProtocols) && Set(curl, CURLOPT_FOLLOWLOCATION, 1L) &&
           Set(curl, CURLOPT_MAXREDIRS, kMaxRedirects) && Set(curl, CURLOPT_TIMEOUT, seconds) &&
           Set(curl, CURLOPT_CONNECTTIMEOUT, seconds) &&
           // No signal handlers in the daemon's process, and no waiting for a name look-up that is over its time.
           Set(curl, CURLOPT_NOSIGNAL, 1L) && Set(curl, CURLOPT_QUICK_EXIT, 1L) &&
           // Nothing from the environment or the user's files. An empty proxy is "none", whatever the environment says.
           // Directories are asked directly.
           Set(curl, CURLOPT_PROXY, IsLdap(uri) ? "" : settings.proxy.c_str()) && Set(curl, CURLOPT_NOPROXY, "") &&
           Set(curl, CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED)) &&
           (settings.tls_ca_file.empty() || Set(curl, CURLOPT_CAINFO, settings.tls_ca_file.c_str())) &&
           Set(curl, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1)) &&
           Set(curl, CURLOPT_USERAGENT, "certmgr") && Set(curl, CURLOPT_WRITEFUNCTION, Reception::OnData) &&
           Set(curl, CURLOPT_WRITEDATA, &reception) && Set(curl, CURLOPT_OPENSOCKETFUNCTION, Reception::OnOpen) &&
           Set(curl, CURLOPT_OPENSOCKETDATA, &reception) &&
           Set(curl, CURLOPT_CLOSESOCKETFUNCTION, Reception::OnClose) &&
           Set(curl, CURLOPT_CLOSESOCKETDATA, &reception) && Set(curl, CURLOPT_NOPROGRESS, 0L) &&
           Set(curl, CURLOPT_XFERINFOFUNCTION, Reception::OnProgress) && Set(curl, CURLOPT_XFERINFODATA, &reception);
}

/// libcurl's own texts: they quote nothing of the address or of the answer.
std::string FailureText(CURLcode code, const Reception& reception, std::uint64_t max_bytes) {
    if (reception.too_large()) return "more than " + std::to_string(max_bytes) + " bytes";
    return curl_easy_strerror(code);
}

void NoteStatus(const CurlHandle& curl, std::string& note) {
    constexpr long kOk = 200;
    long status = 0;
    if (curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status) == CURLE_OK && status != 0 && status != kOk) {
        note = "HTTP status " + std::to_string(status);
    }
}

}  // namespace

bool download_data_from_uri(const char* uri, std::string& data, std::string& content_type, unsigned int timeout_seconds,
                            std::string* note) {
    std::string unused;
    std::string& why = note != nullptr ? *note : unused;
    const TransferSettings settings = ReadTransferSettings();
    const bool ldap = IsLdap(uri);
    Reception reception(data, ldap, settings.max_bytes);
    const SigpipeBlocked no_sigpipe;
    const CurlHandle curl(CurlIsReady() ? curl_easy_init() : nullptr, curl_easy_cleanup);
    if (curl == nullptr || !SetUp(curl, uri, timeout_seconds, settings, reception)) {
        why = "no transfer can be set up";
        return false;
    }
    const CURLcode code = curl_easy_perform(curl.get());
    const char* type = nullptr;
    if (curl_easy_getinfo(curl.get(), CURLINFO_CONTENT_TYPE, &type) == CURLE_OK && type != nullptr) content_type = type;
    if (code != CURLE_OK) {
        why = FailureText(code, reception, settings.max_bytes);
    } else if (!ldap) {
        NoteStatus(curl, why);
    }
    return code == CURLE_OK;
}

namespace CM {

namespace {

ino_t SocketInode(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode) ? status.st_ino : 0;
}

}  // namespace

bool TransferSocket::Open(int family, int type, int protocol) {
    fd_ = socket(family, type | SOCK_CLOEXEC, protocol);
    inode_ = fd_ < 0 ? 0 : SocketInode(fd_);
    return fd_ >= 0;
}

bool TransferSocket::IsStillOurs() const {
    return fd_ >= 0 && SocketInode(fd_) == inode_;
}

int TransferSocket::Close() {
    const int result = IsStillOurs() ? close(fd_) : 0;
    fd_ = -1;
    return result;
}

std::uint64_t TransferSocket::BytesReceived() const {
    tcp_info info{};
    socklen_t length = sizeof info;
    if (!IsStillOurs() || getsockopt(fd_, IPPROTO_TCP, TCP_INFO, &info, &length) != 0) return 0;
    return info.tcpi_bytes_received;
}

const std::string& cm_crl_tune_uri_source_addr_(const std::string& uri, const std::string& default_server,
                                                std::string& work) {
    constexpr std::string_view kAfterScheme = "://";
    const std::size_t scheme_end = default_server.find(kAfterScheme);
    if (scheme_end == std::string::npos) return uri;
    // An address with a host stays.
    const std::size_t host = scheme_end + kAfterScheme.size();
    if (uri.size() <= host || uri[host] != '/') return uri;
    // So does one of another scheme.
    if (!StartsWithoutCase(uri, std::string_view(default_server).substr(0, host))) return uri;
    work = default_server;
    work.append(uri, host);
    return work;
}

namespace {

std::string WithoutCredentials(const std::string& uri) {
    constexpr std::string_view kAfterScheme = "://";
    if (uri.find('@') == std::string::npos) return uri;
    const std::size_t scheme_end = std::min(uri.find(kAfterScheme), uri.size());
    const std::size_t begin = std::min(scheme_end + kAfterScheme.size(), uri.size());
    const std::size_t end = std::min(uri.find_first_of("/?#", begin), uri.size());
    const std::string authority = uri.substr(begin, end - begin);
    const std::size_t at = authority.rfind('@');
    const bool has_scheme = uri.find_first_of("@/?#[") > scheme_end && uri.find('\\') == std::string::npos;
    const bool has_host = at == std::string::npos ? !authority.empty() : at + 1 != authority.size();
    // A password with a slash in it looks like a host and a port that is none.
    const std::size_t colon = authority.rfind(':');
    const bool has_port = colon == std::string::npos || authority.ends_with(']') ||
                          authority.find_first_not_of("0123456789", colon + 1) == std::string::npos;
    // Of what is not written as it should be nobody knows what is taken for a password.
    if (!has_scheme || !has_host || !(at != std::string::npos || has_port)) return "(address with credentials)";
    return at == std::string::npos ? uri : uri.substr(0, begin) + uri.substr(begin + at + 1);
}

}  // namespace

std::string PrintableUri(const std::string& uri) {
    return asn_text_to_printable(WithoutCredentials(uri));
}

void LdapValueFinder::Take(std::string_view chunk, std::string& value) {
    while (!chunk.empty() && state_ < State::kValue) {
        if (Step(chunk.front())) chunk.remove_prefix(1);
    }
    if (state_ != State::kValue) return;
    const std::size_t end = chunk.find('\n');
    value.append(chunk.substr(0, end));
    if (end != std::string_view::npos) state_ = State::kDiscard;
}

/// Looks at one byte before the value; false when it belongs to the value.
bool LdapValueFinder::Step(char c) {
    if (c == '\n') {
        state_ = state_ < State::kValueBegin ? State::kAttributeBegin : State::kDiscard;
        return true;
    }
    switch (state_) {
        case State::kAttributeBegin:
            state_ = c == '\t' ? State::kNameBegin : State::kAttributeEnd;
            return true;
        case State::kAttributeEnd:
            return true;
        case State::kNameBegin:
            state_ = c == 'c' || c == 'C' ? State::kName : State::kAttributeEnd;
            return true;
        case State::kName:
            if (c == ':') state_ = State::kValueBegin;
            return true;
        case State::kValueBegin:
            if (c == ':') {
                state_ = State::kValueBeginBase64;
                return true;
            }
            [[fallthrough]];
        default:
            state_ = State::kValue;
            return c == ' ';
    }
}

}  // namespace CM
