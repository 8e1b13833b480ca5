// Servers for CRLs, on 127.0.0.1 alone: nginx and slapd as Debian packs them, and one that does what those never would.
//
//     NginxServer http;
//     http.Put("root.crl", der);
//     ... {"URI:" + http.Uri("root.crl")} ...
//
//     HostileServer hostile;
//     hostile.Set("/slow", {.body = der, .byte_interval = 50ms});
//     hostile.Hold("/held");
//     std::thread check(...);
//     ASSERT_TRUE(hostile.WaitForRequests("/held", 1));
//     hostile.Release("/held");
//     EXPECT_EQ(hostile.Requests("/held"), 1U);
//
// Each listens on a port of its own, keeps its files in a folder of its own, answers when its constructor returns and is
// gone, with its processes and threads, when its destructor returns; the processes also when the test is killed.
// Constructors throw std::runtime_error with what the server said when it does not come up.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "tests/support/pki.h"
#include "tests/support/process.h"
#include "tests/support/sockets.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace test_support {

/// nginx serving a folder over HTTP, and over HTTPS when it is given a certificate.
class NginxServer {
  public:
    explicit NginxServer(const test_pki::Cert* tls = nullptr);

    /// Makes or replaces a file.
    void Put(const std::string& name, const std::string& content) const { dir_.Write("files/" + name, content); }
    std::string Uri(const std::string& name) const { return port_.Uri("http", "/" + name); }
    std::string TlsUri(const std::string& name) const { return tls_port_.Uri("https", "/" + name); }

  private:
    TempDir dir_;
    ReservedPort port_;
    ReservedPort tls_port_;
    std::unique_ptr<Process> process_;
};

/// slapd with one CRL distribution point for each CRL given, over LDAP, and over LDAPS when it is given a certificate.
class SlapdServer {
  public:
    /// `crls`: common name and DER.
    explicit SlapdServer(const std::map<std::string, std::string>& crls, const test_pki::Cert* tls = nullptr);

    /// Asks for certificateRevocationList;binary of the entry with that common name, or for what is given.
    std::string Uri(const std::string& cn, const std::string& attributes = kBinaryCrl) const {
        return port_.Uri("ldap", "/cn=" + cn + ",dc=crl?" + attributes + "?base");
    }
    std::string TlsUri(const std::string& cn) const {
        return tls_port_.Uri("ldaps", "/cn=" + cn + ",dc=crl?" + kBinaryCrl + "?base");
    }

  private:
    static constexpr const char* kBinaryCrl = "certificateRevocationList;binary";

    TempDir dir_;
    ReservedPort port_;
    ReservedPort tls_port_;
    std::unique_ptr<Process> process_;
};

/// An HTTP server, in threads of this process, that answers each path as the test says. It closes the connection after
/// each answer. Whoever speaks another protocol to it, LDAP for one, is never answered. All functions may be called from
/// any thread.
class HostileServer {
  public:
    /// One answer. Everything left out is as an honest server has it.
    struct Answer {
        int status = 200;
        std::string location{};  // of a redirect
        std::string content_type = "application/pkix-crl";
        std::string body{};
        std::optional<std::uint64_t> claimed_length{};  // in place of the body's; the body is sent whole
        bool silent = false;  // the request is read and nothing is ever sent
        std::chrono::milliseconds byte_interval{0};  // pause before each byte of head and body
        std::optional<std::size_t> close_after{};  // bytes of head and body
    };
    static Answer Redirect(std::string location) { return {.status = 302, .location = std::move(location)}; }

    struct Counts {
        unsigned connections = 0;
        std::multiset<std::string> requests{};  // their paths
        std::string last_head{};  // request line and header fields
    };

    HostileServer();
    ~HostileServer();
    HostileServer(const HostileServer&) = delete;
    HostileServer& operator=(const HostileServer&) = delete;

    std::string Uri(const std::string& path, const std::string& scheme = "http") const {
        return port_.Uri(scheme, path);
    }
    /// From the next request on. A path that was never set is answered with 404.
    void Set(const std::string& path, Answer answer);
    /// Requests for the path wait for Release before they are answered, as it was set when they came in.
    void Hold(const std::string& path);
    void Release(const std::string& path);

    Counts counts() const { return state_.Get().counts; }
    std::size_t Requests(const std::string& path) const { return counts().requests.count(path); }
    /// Waits until that many requests for the path have come in since the start.
    bool WaitForRequests(const std::string& path, unsigned count);
    /// Waits until no connection is open: every answer was sent or the client has hung up.
    bool WaitForIdle();

  private:
    struct State {
        std::map<std::string, std::shared_ptr<const Answer>> answers;
        std::set<std::string> held;
        std::set<int> sockets;  // open connections
        Counts counts;
        bool stopping = false;
    };

    void Accept();
    void Serve(int socket);
    /// Counts the request and waits while its path is held; nothing when the server stops.
    std::shared_ptr<const Answer> AnswerFor(const std::string& head);
    void Reply(int socket, const Answer& answer);

    ReservedPort port_;
    Watched<State> state_;
    std::list<std::future<void>> connections_;  // the accepting thread's until it ends
    std::thread acceptor_;
};

}  // namespace test_support
