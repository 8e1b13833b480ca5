#include "tests/support/crl_servers.h"

#include <filesystem>
#include <stdexcept>
#include <vector>

namespace test_support {
namespace {

/// The certificate and the key, as files of these names.
void WriteIdentity(const TempDir& dir, const test_pki::Cert& tls) {
    dir.Write("tls.pem", tls.Pem());
    dir.Write("tls.key", tls.KeyPem());
}

/// A server that ends with this process, however that ends, if the thread that starts it is still there.
std::unique_ptr<Process> StartServer(std::vector<std::string> command, const std::string& ready) {
    const std::string name = command.front();
    command.insert(command.begin(), {"setpriv", "--pdeathsig", "KILL"});
    auto process = std::make_unique<Process>(command);
    if (!process->WaitForOutput(ready)) throw std::runtime_error(name + ": " + process->Err());
    return process;
}

}  // namespace

NginxServer::NginxServer(const test_pki::Cert* tls) {
    std::string listen = "listen " + port_.Address() + ";\n";
    if (tls != nullptr) {
        WriteIdentity(dir_, *tls);
        listen += "listen " + tls_port_.Address() + " ssl;\nssl_certificate tls.pem;\nssl_certificate_key tls.key;\n";
    }
    // One process, so that its end is the server's.
    dir_.Write("nginx.conf",
               "daemon off;\nmaster_process off;\npid nginx.pid;\nerror_log stderr notice;\nevents {}\nhttp {\n"
               "client_body_temp_path t;\nproxy_temp_path t;\nfastcgi_temp_path t;\nuwsgi_temp_path t;\n"
               "scgi_temp_path t;\nkeepalive_timeout 0;\naccess_log off;\ndefault_type application/pkix-crl;\n"
               "server {\n" +
                   listen + "root files;\n}\n}\n");
    const std::string folder = dir_.path().string() + "/";
    process_ = StartServer({"/usr/sbin/nginx", "-p", folder, "-e", "stderr", "-c", folder + "nginx.conf"}, "OS: ");
}

SlapdServer::SlapdServer(const std::map<std::string, std::string>& crls, const test_pki::Cert* tls) {
    const std::string folder = dir_.path().string() + "/";
    std::string listen = port_.Uri("ldap", "/");
    std::string text = "include /etc/ldap/schema/core.schema\nmodulepath /usr/lib/ldap\nmoduleload back_mdb\n";
    if (tls != nullptr) {
        WriteIdentity(dir_, *tls);
        listen += " " + tls_port_.Uri("ldaps", "/");
        text += "TLSCertificateFile " + folder + "tls.pem\nTLSCertificateKeyFile " + folder + "tls.key\n";
    }
    std::filesystem::create_directory(dir_ / "database");
    dir_.Write("slapd.conf", text + "pidfile " + folder + "slapd.pid\ndatabase mdb\nsuffix dc=crl\ndirectory " +
                                 folder + "database\n");
    std::string ldif = "dn: dc=crl\nobjectClass: dcObject\nobjectClass: organization\no: Test\n";
    for (const auto& [cn, der] : crls) {
        dir_.Write(cn + ".crl", der);
        ldif += "\ndn: cn=" + cn + ",dc=crl\nobjectClass: cRLDistributionPoint\ncn: " + cn +
                "\ncertificateRevocationList;binary:< file://" + folder + cn + ".crl\n";
    }
    dir_.Write("entries.ldif", ldif);
    // A profile of AppArmor may tie the packaged program to the packaged folders; a copy is tied to none.
    std::filesystem::copy_file("/usr/sbin/slapd", dir_ / "slapd");
    const ProcessResult added = Run({dir_ / "slapd", "-Tadd", "-f", dir_ / "slapd.conf", "-l", dir_ / "entries.ldif"});
    if (added.exit_code != 0) throw std::runtime_error("slapd -Tadd: " + added.err);
    // It says that it starts before it listens; what it says of its event loop comes after.
    process_ = StartServer({dir_ / "slapd", "-d", "stats", "-d", "conns", "-h", listen, "-f", dir_ / "slapd.conf"},
                           "daemon: epoll: listen=");
}

}  // namespace test_support
