// strongSwan accepts us and we accept it, or either refuses the other for the right reason; both ways round.

#include <gtest/gtest.h>

#include <filesystem>

#include "ike/sa/report.h"
#include "tests/ike/charon.h"
#include "tests/ike/client.h"
#include "tests/support/crl_servers.h"

namespace ike_test {
namespace {

using ikeauth::Ending;
using test_pki::Cert;
using test_pki::KeyType;
using Strings = std::vector<std::string>;

enum class Crls : std::uint8_t { kNone, kPublished, kUnreachable };
/// What is wrong with a certificate.
enum class Flaw : std::uint8_t { kNone, kExpired, kRevoked, kOfStranger };

/// As both configurations have them: the rule's kind, and the names.
struct Identities {
    std::string kind, ours, theirs;
};
const Identities kFqdn{"fqdn", "client.example", "gateway.example"};
const Identities kEmail{"email", "client@example", "gateway@example"};
const Identities kAddress{"ip", "192.0.2.1", "192.0.2.2"};
const Identities kDn{"dn", "C=EX, O=Test, CN=client", "C=EX, O=Test, CN=gateway"};

const std::string kOurPsk = "a key of some length";

/// One pair of hosts. What a case leaves out is as it should be.
struct Hosts {
    KeyType key = KeyType::kEcP256;
    Strings options{};  // of ikeauth
    Identities ids = kFqdn;
    std::string id_remote{};  // what our rule wants, in place of their identity
    std::string auth = "pubkey";  // charon's word for both
    std::string their_lines{};  // more of the connection
    std::string their_psk{};  // both have preshared keys
    std::string crl{};  // mode of the rule
    Crls crls = Crls::kNone;
    Flaw client = Flaw::kNone, gateway = Flaw::kNone;
    bool we_have_issuing = true;  // the intermediate, to send and to build with
    bool they_have_issuing = true;
    bool three_clients = false;  // of three authorities, of which charon trusts the second
    bool child = false;  // both ways round one is made
    bool pinned_client = false;  // charon knows a certificate of another key of ours and takes no other
    bool stale_gateway = false;  // charon sends no certificate, and we hold one of another key
};

struct Outcome {
    Ending ending;
    std::string our_text;  // in what ikeauth prints
    std::string their_text;  // in charon's log
};

struct Case {
    std::string name;
    Outcome initiating;  // we are
    Outcome responding;
    Hosts hosts;
};

Case Accepted(const char* name, const char* our_text, const char* their_text, const Hosts& hosts) {
    const Outcome outcome{Ending::kAuthenticated, our_text, their_text};
    return {name, outcome, outcome, hosts};
}
Case WeRefuse(const char* name, Ending ending, const char* our_text, const Hosts& hosts) {
    const Outcome outcome{ending, our_text, "N(AUTH_FAILED)"};
    return {name, outcome, outcome, hosts};
}
Case TheyRefuse(const char* name, const char* their_text, const Hosts& hosts) {
    const Outcome outcome{Ending::kPeerRefused, "", their_text};
    return {name, outcome, outcome, hosts};
}

std::vector<Case> Cases() {
    const char* const kEstablished = "established";
    return {
        Accepted("ECDSA P-256", "", "ECDSA_WITH_SHA256_DER successful", {}),
        Accepted("ECDSA P-384, identities by e-mail; CRL, soft", "", "ECDSA_WITH_SHA384_DER successful",
                 {.key = KeyType::kEcP384, .ids = kEmail, .crl = "soft", .crls = Crls::kPublished}),
        Accepted("Ed25519; ECP-384, AES-GCM", "AES-GCM-16-256, PRF HMAC-SHA-512, ECP-384", "ED25519 successful",
                 {.key = KeyType::kEd25519, .their_lines = "proposals = aes256gcm16-prfsha512-ecp384\n"}),
        Accepted("RSA", "", "RSA_EMSA_PKCS1_SHA2_256 successful", {.key = KeyType::kRsa2048}),
        Accepted("RSA-PSS", "RSASSA-PSS", "RSA_EMSA_PSS_SHA2_256",
                 {.key = KeyType::kRsa2048, .options = {"--pss"}, .auth = "ike:rsa/pss-sha256"}),
        Accepted("RSA, older method", "RSA signature", kEstablished,
                 {.key = KeyType::kRsa2048, .options = {"--classic"}}),
        Accepted("ECDSA P-384, older method", "ECDSA with SHA-384 on P-384", kEstablished,
                 {.key = KeyType::kEcP384, .options = {"--classic"}}),
        Accepted("their intermediate is sent", "", kEstablished, {.we_have_issuing = false}),
        Accepted("their intermediate comes from our store", "", kEstablished, {.they_have_issuing = false}),
        Accepted("our intermediate comes from their store", "", kEstablished, {.options = {"--leaf-only"}}),
        Accepted("identities by DN", "", kEstablished, {.ids = kDn}),
        Accepted("identities by address", "", kEstablished, {.ids = kAddress}),
        Accepted("CRL, strict", "", kEstablished, {.crl = "strict", .crls = Crls::kPublished}),
        Accepted("CRL, soft and unreachable", "", kEstablished, {.crl = "soft", .crls = Crls::kUnreachable}),
        Accepted("preshared key", "", "with pre-shared key successful", {.their_psk = kOurPsk}),
        Accepted("the certificate that is requested, of three", "", "using certificate \"C=EX, O=Test, CN=client 2\"",
                 {.ids = kAddress, .three_clients = true}),
        Accepted("MODP-2048, AES-CBC, SHA-384", "AES-CBC-256, HMAC-SHA-384-192, PRF HMAC-SHA-384, MODP-2048",
                 kEstablished, {.their_lines = "proposals = aes256-sha384-modp2048\n"}),
        Accepted("a child", "SA, TSi, TSr", kEstablished,
                 {.their_lines = "childless = allow\nchildren {\n net {\n mode = transport\n}\n}\n", .child = true}),
        Accepted("small fragments", "fragments", kEstablished, {.options = {"--fragment-bytes", "400"}}),

        WeRefuse("their certificate has expired", Ending::kCertificateRefused, "Not valid after: 2021-01-01",
                 {.gateway = Flaw::kExpired}),
        WeRefuse("their certificate is revoked", Ending::kCertificateRefused, "Revoked certificate(s) present in chain",
                 {.crl = "strict", .crls = Crls::kPublished, .gateway = Flaw::kRevoked}),
        WeRefuse("strict, and their CRL cannot be had", Ending::kCertificateRefused, "No CRL for a certificate",
                 {.crl = "strict", .crls = Crls::kUnreachable}),
        WeRefuse("their authority is not trusted", Ending::kCertificateRefused, "Certificates chain is not",
                 {.gateway = Flaw::kOfStranger}),
        WeRefuse("their identity is another one", Ending::kIdentityRefused,
                 "verdict: identity-refused (stage judge): id_remote of the rule does not allow FQDN gateway.example",
                 {.id_remote = "{fqdn = \"other.example\"}, {fqdn = \"third.example\"}"}),
        WeRefuse("their key is another one", Ending::kSignatureWrong, "CM::Ike2Verify failed: Invalid signature",
                 {.their_lines = "send_cert = never\n", .stale_gateway = true}),
        WeRefuse("their certificate has expired, we hold another", Ending::kSignatureWrong,
                 "why the peer's first certificate", {.gateway = Flaw::kExpired, .stale_gateway = true}),

        TheyRefuse("our certificate has expired", "subject certificate invalid",
                   {.options = {"--careless"}, .client = Flaw::kExpired}),
        TheyRefuse("our certificate is revoked", "certificate was revoked",
                   {.crls = Crls::kPublished, .client = Flaw::kRevoked}),
        TheyRefuse("our authority is not trusted", "no trusted",
                   {.options = {"--careless"}, .client = Flaw::kOfStranger}),
        TheyRefuse("our identity is another one", "mallory.example",
                   {.options = {"--announce-fqdn", "mallory.example"}}),
        TheyRefuse("our key is another one", "signature validation failed, looking for another key",
                   {.pinned_client = true}),
        TheyRefuse("our signature is damaged", "signature validation failed", {.options = {"--damage-signature"}}),
        TheyRefuse("PKCS #7, which charon does not read", "ENC_PKCS7_WRAPPED_X509 not supported",
                   {.options = {"--payload", "pkcs7"}}),

        {"preshared keys differ",
         {Ending::kPeerRefused, "", "MAC mismatched"},
         {Ending::kPresharedKeyWrong, "verdict: preshared-key-wrong (stage judge)",
          "received AUTHENTICATION_FAILED notify error"},
         {.their_psk = "another key"}},
        {"no proposal is common",
         {Ending::kProposalsRefused, "", "received proposals unacceptable"},
         {Ending::kProposalsRefused, "", "received NO_PROPOSAL_CHOSEN notify error"},
         {.options = {"--proposal", "aes128gcm16-sha256-ecp256"},
          .their_lines = "proposals = aes256-sha384-modp2048\n"}},
    };
}

/// Both hosts of a case.
class Pair {
  public:
    Pair(const Case& c, Charon& charon, const test_support::NginxServer& crls)
        : case_(c), hosts_(c.hosts), charon_(charon), crls_(crls) {
        if (hosts_.crls == Crls::kPublished) Publish();
        if (!hosts_.their_psk.empty()) options_ = {"--psk", "shared"};
    }

    void RunAsInitiator() {
        ASSERT_EQ(charon_.Load(TheirConfiguration(FreeUdpPort())), "");
        Strings options = options_;
        if (hosts_.child) options.emplace_back("--child");
        Judge(client_.Probe(charon_.port(), options), case_.initiating);
    }
    void RunAsResponder() {
        Responder responder(client_, options_);
        ASSERT_EQ(charon_.Load(TheirConfiguration(responder.port())), "");
        const auto theirs = charon_.Initiate(hosts_.child);
        const auto ours = responder.End();
        // Where the kernel knows no IPsec, charon's child fails and its SA stays.
        const bool accepted = case_.responding.ending == Ending::kAuthenticated;
        EXPECT_TRUE(hosts_.child || (theirs.exit_code == 0) == accepted) << theirs.out << theirs.err;
        Judge(ours, case_.responding);
    }

  private:
    std::vector<Strings> CrlPoint(const std::string& issuer) const {
        if (hosts_.crls == Crls::kNone) return {};
        const std::string file = issuer + ".crl";
        return {{"URI:" + (hosts_.crls == Crls::kPublished ? crls_.Uri(file) : nobody_.Uri("http", "/" + file))}};
    }
    Cert Authority(const std::string& cn, const Cert* issuer = nullptr) const {
        return test_pki::MakeCert({.key = hosts_.key,
                                   .subject = "C=EX, O=Test, CN=" + cn,
                                   .ca = true,
                                   .key_usage = "keyCertSign, cRLSign",
                                   .crl_points = issuer == nullptr ? std::vector<Strings>{} : CrlPoint("root")},
                                  issuer);
    }
    Cert Host(const std::string& cn, int key_index, const Cert& issuer, Flaw flaw = Flaw::kNone) const {
        const std::string ip = cn == "gateway" ? kAddress.theirs : kAddress.ours;
        return test_pki::MakeCert(
            {.key = hosts_.key,
             .key_index = key_index,
             .subject = "C=EX, O=Test, CN=" + cn,
             .not_after = flaw == Flaw::kExpired ? 1609459200 : test_pki::kNotAfter,  // 2021-01-01
             .key_usage = "digitalSignature",
             .eku = {"ipsecIKE"},
             .san = {"DNS:" + cn + ".example", "email:" + cn + "@example", "IP:" + ip},
             .crl_points = CrlPoint("issuing")},
            flaw == Flaw::kOfStranger ? &stranger_ : &issuer);
    }
    void Publish() const {
        std::vector<test_pki::CrlEntry> revoked;
        if (hosts_.client == Flaw::kRevoked) revoked.push_back({.serial = client_cert_.serial});
        if (hosts_.gateway == Flaw::kRevoked) revoked.push_back({.serial = gateway_cert_.serial});
        crls_.Put("root.crl", test_pki::MakeCrl({}, root_));
        crls_.Put("issuing.crl", test_pki::MakeCrl({.entries = revoked}, issuing_));
    }

    Client::Contents OurContents() const {
        Client::Contents contents{.own = {client_cert_}, .trusted = {root_}};
        if (!hosts_.their_psk.empty()) contents.preshared_key = kOurPsk;
        if (hosts_.three_clients) {
            contents.own = {Host("client 1", 3, stranger_), Host("client 2", 4, second_), client_cert_};
            contents.trusted = {root_, stranger_, second_};
        }
        if (hosts_.client == Flaw::kOfStranger) contents.others.push_back(stranger_);
        if (hosts_.we_have_issuing) contents.others.push_back(issuing_);
        if (hosts_.stale_gateway) contents.others.push_back(Host("gateway", 5, issuing_));
        const Identities& ids = hosts_.ids;
        const std::string theirs = "{" + ids.kind + " = \"" + ids.theirs + "\"}";
        contents.rule = "id_local = [{" + ids.kind + " = \"" + ids.ours + "\"}]\nid_remote = [" +
                        (hosts_.id_remote.empty() ? theirs : hosts_.id_remote) +
                        "]\ncert_trust = [{subject_attrs = \"O=Test\"}]\n";
        if (!hosts_.crl.empty()) contents.rule += "crl = \"" + hosts_.crl + "\"\n";
        return contents;
    }

    Charon::Configuration TheirConfiguration(std::uint16_t client_port) const {
        Charon::Configuration theirs;
        const bool psk = !hosts_.their_psk.empty();
        const std::string auth = " {\n auth = " + (psk ? "psk" : hosts_.auth) + "\n";
        theirs.connection = "remote_addrs = 127.0.0.1\nremote_port = " + std::to_string(client_port) +
                            "\nchildless = force\n" + hosts_.their_lines + "local" + auth +
                            (psk ? "" : "certs = gateway.pem\n") + "id = \"" + hosts_.ids.theirs + "\"\n}\nremote" +
                            auth + "id = \"" + hosts_.ids.ours + "\"\n" +
                            (hosts_.pinned_client ? "certs = pinned.pem\n" : "") + "}\n";
        if (psk) {
            theirs.secrets =
                "ike-client {\n id = \"" + hosts_.ids.ours + "\"\n secret = \"" + hosts_.their_psk + "\"\n}\n";
            return theirs;
        }
        theirs.files = {{"x509/gateway.pem", gateway_cert_.Pem()},
                        {"private/gateway.pem", gateway_cert_.KeyPem()},
                        {"x509ca/root.pem", hosts_.three_clients ? second_.Pem() : root_.Pem()}};
        if (hosts_.pinned_client) theirs.files.emplace_back("x509/pinned.pem", Host("client", 6, issuing_).Pem());
        if (hosts_.they_have_issuing && !hosts_.three_clients) {
            theirs.files.emplace_back("x509ca/issuing.pem", issuing_.Pem());
        }
        return theirs;
    }

    /// Both say how it ended and why.
    void Judge(const test_support::ProcessResult& ours, const Outcome& expected) {
        const bool logged = charon_.WaitForLog(expected.their_text);
        const ikeauth::EndingInfo& info = ikeauth::Info(expected.ending);
        const std::string verdict = "verdict: " + std::string(info.name) + " ";
        const std::string everything = ours.out + ours.err + "\n--- charon:\n" + charon_.Log();
        EXPECT_EQ(ours.exit_code, info.exit_code) << everything;
        EXPECT_NE(ours.out.find(verdict), std::string::npos) << verdict << "\n" << everything;
        EXPECT_NE(ours.out.find(expected.our_text), std::string::npos) << expected.our_text << "\n" << everything;
        EXPECT_TRUE(logged) << expected.their_text << "\n" << everything;
    }

    const Case& case_;
    const Hosts& hosts_;
    Charon& charon_;
    const test_support::NginxServer& crls_;
    const test_support::ReservedPort nobody_;
    const Cert root_ = Authority("root");
    const Cert issuing_ = Authority("issuing", &root_);
    const Cert stranger_ = Authority("stranger");
    const Cert second_ = Authority("second root");
    const Cert client_cert_ = Host("client", 1, issuing_, hosts_.client);
    const Cert gateway_cert_ = Host("gateway", 2, issuing_, hosts_.gateway);
    const Client client_{OurContents()};
    Strings options_ = hosts_.options;
};

TEST(StrongSwanTest, AcceptsAndRefusesAsWeDo) {
    if (!std::filesystem::exists(kCharonPath) || test_support::Run({"swanctl", "--help"}).exit_code == -1) {
        return test_support::CannotRun("strongSwan is not installed: see scripts/deps --ci");
    }
    Charon charon;
    const test_support::NginxServer crls;
    for (const Case& c : Cases()) {
        SCOPED_TRACE(c.name);
        Pair pair(c, charon, crls);
        pair.RunAsInitiator();
        pair.RunAsResponder();
    }
}

}  // namespace
}  // namespace ike_test
