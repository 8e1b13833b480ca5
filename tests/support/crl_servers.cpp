#include "tests/support/crl_servers.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <vector>

#include "tests/support/sockets.h"

namespace test_support {
namespace {

namespace fs = std::filesystem;

void Write(const fs::path& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary);
    file << content;
    if (!file.flush()) throw std::runtime_error("cannot write " + path.string());
}

std::string ReadFile(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The certificate and the key, as files of these names.
void WriteIdentity(const TempDir& dir, const TlsIdentity* tls) {
    if (tls == nullptr) return;
    Write(dir / "tls.pem", tls->certificate_pem);
    Write(dir / "tls.key", tls->key_pem);
}

std::string Base64(const std::string& der) {
    std::string text(der.size() * 2 + 4, '\0');
    const int length =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                        reinterpret_cast<const unsigned char*>(der.data()), static_cast<int>(der.size()));
    text.resize(static_cast<std::size_t>(length));
    return text;
}

/// Sends a request to a server that hangs up after its answer.
void Ask(std::uint16_t port, const std::string& request) {
    const int socket = ConnectLoopback(port);
    SendAll(socket, request);
    WaitForHangUp(socket);
    close(socket);
}

/// A server that ends with this process, however that ends, if the thread that starts it is still there.
std::unique_ptr<Process> StartServer(std::vector<std::string> command, const std::string& ready) {
    const std::string name = command.front();
    command.insert(command.begin(), {"setpriv", "--pdeathsig", "KILL"});
    auto process = std::make_unique<Process>(command);
    if (!process->WaitForOutput(ready)) throw std::runtime_error(name + ": " + process->Err());
    return process;
}

unsigned CountOf(const std::string& text, const std::string& part) {
    unsigned count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++count;
    return count;
}

}  // namespace

ReservedPort::ReservedPort() {
    const BoundSocket bound = BindLoopback();
    socket_ = bound.fd;
    number_ = bound.port;
}

ReservedPort::~ReservedPort() {
    close(socket_);
}

std::string ReservedPort::Uri(const std::string& scheme, const std::string& path) const {
    return LoopbackUri(scheme, number_, path);
}

SaturatedPort::SaturatedPort() {
    const BoundSocket bound = BindLoopback();
    sockets_.push_back(bound.fd);
    port_ = bound.port;
    Listen(bound.fd, 0);
    // A queue of length 0 takes one connection; what follows stays in the air.
    for (int i = 0; i < 3; ++i) sockets_.push_back(ConnectLoopback(port_, i == 0));
}

SaturatedPort::~SaturatedPort() {
    for (const int socket : sockets_) close(socket);
}

std::string SaturatedPort::Uri(const std::string& scheme, const std::string& path) const {
    return LoopbackUri(scheme, port_, path);
}

NginxServer::NginxServer(const TlsIdentity* tls) {
    fs::create_directory(dir_ / "files");
    WriteIdentity(dir_, tls);
    WriteConfiguration(tls != nullptr);
    const std::string folder = dir_.path().string() + "/";
    process_ = StartServer({"/usr/sbin/nginx", "-p", folder, "-e", "stderr", "-c", folder + "nginx.conf"}, "OS: ");
}

void NginxServer::WriteConfiguration(bool tls) const {
    std::string listen = "listen 127.0.0.1:" + std::to_string(port_.number()) + ";\n";
    if (tls) {
        listen += "listen 127.0.0.1:" + std::to_string(tls_port_.number()) +
                  " ssl;\nssl_certificate tls.pem;\nssl_certificate_key tls.key;\n";
    }
    std::string temporary;
    for (const std::string kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
        temporary += kind + "_temp_path temp_" + kind + ";\n";
    }
    // One process, so that its end is the server's.
    Write(dir_ / "nginx.conf",
          "daemon off;\nmaster_process off;\npid nginx.pid;\nerror_log stderr notice;\nevents {}\nhttp {\n" +
              temporary +
              "keepalive_timeout 0;\nlog_format line '$request_uri ';\naccess_log access.log line;\n"
              "default_type application/pkix-crl;\nserver {\n" +
              listen + "root files;\n}\n}\n");
}

void NginxServer::Put(const std::string& name, const std::string& content) const {
    const fs::path staged = dir_ / "staged";
    Write(staged, content);
    fs::rename(staged, dir_ / ("files/" + name));
}

unsigned NginxServer::Requests(const std::string& name) const {
    // A request is logged before the next is taken: after the answer to this one all others are in the file.
    Ask(port_.number(), "GET /counted HTTP/1.0\r\n\r\n");
    return CountOf("\n" + ReadFile(dir_ / "access.log"), "\n/" + name + " ");
}

SlapdServer::SlapdServer(const std::map<std::string, std::string>& crls, const TlsIdentity* tls) {
    WriteIdentity(dir_, tls);
    WriteConfiguration(tls != nullptr);
    // A profile of AppArmor may tie the packaged program to the packaged folders; a copy is tied to none.
    fs::copy_file("/usr/sbin/slapd", dir_ / "slapd");
    Load(crls);
    std::string listen = port_.Uri("ldap", "/");
    if (tls != nullptr) listen += " " + tls_port_.Uri("ldaps", "/");
    // It says that it starts before it listens; what it says of its event loop comes after.
    process_ = StartServer({dir_ / "slapd", "-d", "stats", "-d", "conns", "-h", listen, "-f", dir_ / "slapd.conf"},
                           "daemon: epoll: listen=");
}

void SlapdServer::WriteConfiguration(bool tls) const {
    fs::create_directory(dir_ / "database");
    const std::string folder = dir_.path().string() + "/";
    std::string text = "include /etc/ldap/schema/core.schema\nmodulepath /usr/lib/ldap\nmoduleload back_mdb\n";
    if (tls) text += "TLSCertificateFile " + folder + "tls.pem\nTLSCertificateKeyFile " + folder + "tls.key\n";
    text += "pidfile " + folder + "slapd.pid\ndatabase mdb\nsuffix dc=crl\ndirectory " + folder + "database\n";
    Write(dir_ / "slapd.conf", text);
}

void SlapdServer::Load(const std::map<std::string, std::string>& crls) const {
    std::string ldif = "dn: dc=crl\nobjectClass: dcObject\nobjectClass: organization\no: Test\n";
    for (const auto& [cn, der] : crls) {
        ldif += "\ndn: cn=" + cn + ",dc=crl\nobjectClass: cRLDistributionPoint\ncn: " + cn +
                "\ncertificateRevocationList;binary:: " + Base64(der) + "\n";
    }
    const fs::path file = dir_ / "entries.ldif";
    Write(file, ldif);
    const ProcessResult result = Run({dir_ / "slapd", "-Tadd", "-f", dir_ / "slapd.conf", "-l", file});
    if (result.exit_code != 0) throw std::runtime_error("slapd -Tadd: " + result.err);
}

std::string SlapdServer::Uri(const std::string& cn, const std::string& attributes) const {
    return port_.Uri("ldap", "/cn=" + cn + ",dc=crl?" + attributes + "?base");
}

std::string SlapdServer::TlsUri(const std::string& cn) const {
    return tls_port_.Uri("ldaps", "/cn=" + cn + ",dc=crl?" + kBinaryCrl + "?base");
}

}  // namespace test_support
