// strongSwan accepts us and we accept it, or either refuses the other for the right reason; both ways round.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <optional>

#include "ike/sa/report.h"
#include "tests/ike/charon.h"
#include "tests/support/crl_servers.h"

namespace ike_test {
namespace {

using test_pki::Cert;
using test_pki::KeyType;

enum class Crls : std::uint8_t { kNone, kPublished, kUnreachable };

constexpr const char* kAccepted = "authenticated";

/// One pair of hosts. What a case leaves out is as it should be.
struct Case {
    std::string name{};
    std::string our_verdict = kAccepted;
    std::string our_text{};  // in what ikeauth prints
    std::string their_text = "established";  // in charon's log
    // Where it is another one when charon initiates: who is first to judge refuses.
    std::string our_verdict_responding{};
    std::string their_text_initiating{};

    KeyType key = KeyType::kEcP256;
    std::vector<std::string> options{};  // of ikeauth
    std::string local_id = "fqdn = \"client.example\"";
    std::string remote_id = "fqdn = \"gateway.example\"";
    std::string rule{};  // more lines
    std::string their_client_id = "client.example";  // what charon expects of us
    std::string their_id = "gateway.example";
    std::string their_auth = "pubkey";  // of theirs
    std::string their_demand = "pubkey";  // of ours
    std::string their_lines{};  // more of the connection

    bool they_have_issuing = true;  // the intermediate, to send and to build with
    bool we_have_issuing = true;
    bool client_expired = false, gateway_expired = false;
    bool client_revoked = false, gateway_revoked = false;
    bool client_of_stranger = false, gateway_of_stranger = false;
    bool three_clients = false;  // of three authorities, of which charon trusts the second
    bool child = false;  // both ways round one is made
    bool pinned_client = false;  // charon knows a certificate of another key of ours and takes no other
    bool stale_gateway = false;  // charon sends no certificate, and we hold one of another key
    Crls crls = Crls::kNone;
    std::string our_psk{}, their_psk{};
};

const std::string kClientDn = "C=EX, O=Test, CN=client";
const std::string kGatewayDn = "C=EX, O=Test, CN=gateway";
const std::vector<std::string> kPskOptions = {"--psk", "shared"};

std::vector<Case> Accepted() {
    return {
        {.name = "ECDSA P-256", .their_text = "ECDSA_WITH_SHA256_DER successful"},
        {.name = "ECDSA P-384, identities by e-mail; CRL, soft",
         .their_text = "ECDSA_WITH_SHA384_DER successful",
         .key = KeyType::kEcP384,
         .local_id = "email = \"client@example\"",
         .remote_id = "email = \"gateway@example\"",
         .rule = "crl = \"soft\"\n",
         .their_client_id = "client@example",
         .their_id = "gateway@example",
         .crls = Crls::kPublished},
        {.name = "Ed25519; ECP-384, AES-GCM",
         .our_text = "AES-GCM-16-256, PRF HMAC-SHA-512, ECP-384",
         .their_text = "ED25519 successful",
         .key = KeyType::kEd25519,
         .their_lines = "proposals = aes256gcm16-prfsha512-ecp384\n"},
        {.name = "RSA", .their_text = "RSA_EMSA_PKCS1_SHA2_256 successful", .key = KeyType::kRsa2048},
        {.name = "RSA-PSS",
         .our_text = "RSASSA-PSS",
         .their_text = "RSA_EMSA_PSS_SHA2_256",
         .key = KeyType::kRsa2048,
         .options = {"--pss"},
         .their_auth = "ike:rsa/pss-sha256",
         .their_demand = "ike:rsa/pss-sha256"},
        {.name = "RSA, older method", .our_text = "RSA signature", .key = KeyType::kRsa2048, .options = {"--classic"}},
        {.name = "ECDSA P-384, older method",
         .our_text = "ECDSA with SHA-384 on P-384",
         .key = KeyType::kEcP384,
         .options = {"--classic"}},
        {.name = "their intermediate is sent", .we_have_issuing = false},
        {.name = "their intermediate comes from our store", .they_have_issuing = false},
        {.name = "our intermediate comes from their store", .options = {"--leaf-only"}},
        {.name = "identities by DN",
         .local_id = "dn = \"" + kClientDn + "\"",
         .remote_id = "dn = \"" + kGatewayDn + "\"",
         .their_client_id = kClientDn,
         .their_id = kGatewayDn},
        {.name = "identities by address",
         .local_id = "ip = \"192.0.2.1\"",
         .remote_id = "ip = \"192.0.2.2\"",
         .their_client_id = "192.0.2.1",
         .their_id = "192.0.2.2"},
        {.name = "CRL, strict", .rule = "crl = \"strict\"\n", .crls = Crls::kPublished},
        {.name = "CRL, soft and unreachable", .rule = "crl = \"soft\"\n", .crls = Crls::kUnreachable},
        {.name = "preshared key",
         .their_text = "with pre-shared key successful",
         .options = kPskOptions,
         .their_auth = "psk",
         .their_demand = "psk",
         .our_psk = "a key of some length",
         .their_psk = "a key of some length"},
        {.name = "the certificate that is requested, of three",
         .their_text = "using certificate \"C=EX, O=Test, CN=client 2\"",
         .three_clients = true},
        {.name = "MODP-2048, AES-CBC, SHA-384",
         .our_text = "AES-CBC-256, HMAC-SHA-384-192, PRF HMAC-SHA-384, MODP-2048",
         .their_lines = "proposals = aes256-sha384-modp2048\n"},
        {.name = "a child",
         .our_text = "SA, TSi, TSr",
         .their_lines = "childless = allow\nchildren {\n net {\n mode = transport\n}\n}\n",
         .child = true},
        {.name = "small fragments", .our_text = "fragments", .options = {"--fragment-bytes", "400"}},
    };
}

std::vector<Case> Refused() {
    const std::string told = "N(AUTH_FAILED)";
    const std::string certificate = "certificate-refused";
    const std::string they = "peer-refused";
    return {
        {.name = "their certificate has expired",
         .our_verdict = certificate,
         .our_text = "Not valid after: 2021-01-01",
         .their_text = told,
         .gateway_expired = true},
        {.name = "our certificate has expired",
         .our_verdict = they,
         .their_text = "subject certificate invalid",
         .options = {"--careless"},
         .client_expired = true},
        {.name = "their certificate is revoked",
         .our_verdict = certificate,
         .our_text = "Revoked certificate(s) present in chain",
         .their_text = told,
         .rule = "crl = \"strict\"\n",
         .gateway_revoked = true,
         .crls = Crls::kPublished},
        {.name = "our certificate is revoked",
         .our_verdict = they,
         .their_text = "certificate was revoked",
         .client_revoked = true,
         .crls = Crls::kPublished},
        {.name = "strict, and their CRL cannot be had",
         .our_verdict = certificate,
         .our_text = "No CRL for a certificate",
         .their_text = told,
         .rule = "crl = \"strict\"\n",
         .crls = Crls::kUnreachable},
        {.name = "their authority is not trusted",
         .our_verdict = certificate,
         .our_text = "Certificates chain is not",
         .their_text = told,
         .gateway_of_stranger = true},
        {.name = "our authority is not trusted",
         .our_verdict = they,
         .their_text = "no trusted",
         .options = {"--careless"},
         .client_of_stranger = true},
        {.name = "their identity is another one",
         .our_verdict = "identity-refused",
         .our_text = "id_remote of the rule does not allow FQDN gateway.example",
         .their_text = told,
         .remote_id = "fqdn = \"other.example\"},{fqdn = \"third.example\""},
        {.name = "our identity is another one",
         .our_verdict = they,
         .their_text = "mallory.example",
         .options = {"--announce-fqdn", "mallory.example"}},
        {.name = "their key is another one",
         .our_verdict = "signature-wrong",
         .our_text = "CM::Ike2Verify failed: Invalid signature",
         .their_text = told,
         .their_lines = "send_cert = never\n",
         .stale_gateway = true},
        {.name = "their certificate has expired, we hold another",
         .our_verdict = "signature-wrong",
         .our_text = "why the peer's first certificate",
         .their_text = told,
         .gateway_expired = true,
         .stale_gateway = true},
        {.name = "our key is another one",
         .our_verdict = they,
         .their_text = "signature validation failed, looking for another key",
         .pinned_client = true},
        {.name = "our signature is damaged",
         .our_verdict = they,
         .their_text = "signature validation failed",
         .options = {"--damage-signature"}},
        {.name = "preshared keys differ",
         .our_verdict = they,
         .their_text = "MAC mismatched",
         .our_verdict_responding = "preshared-key-wrong",
         .their_text_initiating = "received AUTHENTICATION_FAILED notify error",
         .options = kPskOptions,
         .their_auth = "psk",
         .their_demand = "psk",
         .our_psk = "a key of some length",
         .their_psk = "another key"},
        {.name = "PKCS #7, which charon does not read",
         .our_verdict = they,
         .our_text = "PKCS #7 payloads",
         .their_text = "ENC_PKCS7_WRAPPED_X509 not supported",
         .options = {"--payload", "pkcs7"}},
        {.name = "no proposal is common",
         .our_verdict = "proposals-refused",
         .their_text = "received proposals unacceptable",
         .their_text_initiating = "received NO_PROPOSAL_CHOSEN notify error",
         .options = {"--proposal", "aes128gcm16-sha256-ecp256"},
         .their_lines = "proposals = aes256-sha384-modp2048\n"},
    };
}

/// Both hosts of a case.
class Pair {
  public:
    Pair(const Case& c, Charon& charon, const test_support::NginxServer& crls) : c_(c), charon_(charon), crls_(crls) {
        MakeAuthorities();
        MakeHosts();
        if (c.crls == Crls::kPublished) Publish();
        client_.emplace(OurContents());
    }

    void RunAsInitiator() {
        ASSERT_EQ(charon_.Load(TheirConfiguration(FreeUdpPort())), "");
        std::vector<std::string> options = c_.options;
        if (c_.child) options.emplace_back("--child");
        const auto ours = client_->Probe(charon_.port(), options);
        Judge(ours, true);
    }
    void RunAsResponder() {
        std::uint16_t port = 0;
        const auto process = client_->Respond(c_.options, port);
        ASSERT_EQ(charon_.Load(TheirConfiguration(port)), "");
        const auto theirs = charon_.Initiate(c_.child);
        const auto ours = Client::EndOf(*process);
        // Where the kernel knows no IPsec, charon's child fails and its SA stays.
        const bool judged = c_.child || (theirs.exit_code == 0) == (c_.our_verdict == kAccepted);
        EXPECT_TRUE(judged) << theirs.out << theirs.err;
        Judge(ours, false);
    }

  private:
    std::vector<std::vector<std::string>> CrlPoint(const std::string& issuer) const {
        if (c_.crls == Crls::kNone) return {};
        if (c_.crls == Crls::kUnreachable) return {{"URI:" + nobody_.Uri("http", "/" + issuer + ".crl")}};
        return {{"URI:" + crls_.Uri(issuer + ".crl")}};
    }
    Cert Authority(const std::string& cn, const Cert* issuer) const {
        return test_pki::MakeCert({.key = c_.key,
                                   .subject = "C=EX, O=Test, CN=" + cn,
                                   .ca = true,
                                   .key_usage = "keyCertSign, cRLSign",
                                   .crl_points = issuer == nullptr ? decltype(CrlPoint("")){} : CrlPoint("root")},
                                  issuer);
    }
    Cert Host(const std::string& cn, const std::string& ip, const Cert& issuer, bool expired, int key_index) const {
        return test_pki::MakeCert({.key = c_.key,
                                   .key_index = key_index,
                                   .subject = "C=EX, O=Test, CN=" + cn,
                                   .not_after = expired ? 1609459200 : test_pki::kNotAfter,  // 2021-01-01
                                   .key_usage = "digitalSignature",
                                   .eku = {"ipsecIKE"},
                                   .san = {"DNS:" + cn + ".example", "email:" + cn + "@example", "IP:" + ip},
                                   .crl_points = CrlPoint("issuing")},
                                  &issuer);
    }
    void MakeAuthorities() {
        root_ = Authority("root", nullptr);
        issuing_ = Authority("issuing", &root_);
        stranger_ = Authority("stranger", nullptr);
        second_ = Authority("second root", nullptr);
    }
    void MakeHosts() {
        client_cert_ = Host("client", "192.0.2.1", c_.client_of_stranger ? stranger_ : issuing_, c_.client_expired, 1);
        gateway_cert_ =
            Host("gateway", "192.0.2.2", c_.gateway_of_stranger ? stranger_ : issuing_, c_.gateway_expired, 2);
    }
    void Publish() const {
        std::vector<test_pki::CrlEntry> revoked;
        if (c_.client_revoked) revoked.push_back({.serial = client_cert_.serial});
        if (c_.gateway_revoked) revoked.push_back({.serial = gateway_cert_.serial});
        crls_.Put("root.crl", test_pki::MakeCrl({}, root_));
        crls_.Put("issuing.crl", test_pki::MakeCrl({.entries = revoked}, issuing_));
    }

    Client::Contents OurContents() const {
        Client::Contents contents{.own = {client_cert_}, .trusted = {root_}, .preshared_key = c_.our_psk};
        std::string local_id = "id_local = [{" + c_.local_id + "}]\n";
        if (c_.three_clients) {
            const Cert one = Host("client 1", "192.0.2.1", stranger_, false, 3);
            const Cert two = Host("client 2", "192.0.2.1", second_, false, 4);
            contents.own = {one, two, client_cert_};
            contents.trusted.insert(contents.trusted.end(), {stranger_, second_});
            local_id = "id_local = [{ip = \"192.0.2.1\"}]\n";
        }
        if (c_.client_of_stranger) contents.others.push_back(stranger_);
        if (c_.we_have_issuing) contents.others.push_back(issuing_);
        if (c_.stale_gateway) contents.others.push_back(Host("gateway", "192.0.2.2", issuing_, false, 5));
        contents.rule =
            local_id + "id_remote = [{" + c_.remote_id + "}]\ncert_trust = [{subject_attrs = \"O=Test\"}]\n" + c_.rule;
        return contents;
    }

    Charon::Configuration TheirConfiguration(std::uint16_t client_port) const {
        Charon::Configuration theirs;
        const bool psk = c_.their_auth == "psk";
        const std::string client = c_.three_clients ? "192.0.2.1" : c_.their_client_id;
        theirs.connection = "remote_addrs = 127.0.0.1\nremote_port = " + std::to_string(client_port) +
                            "\nchildless = force\n" + c_.their_lines + "local {\n auth = " + c_.their_auth +
                            (psk ? "" : "\n certs = gateway.pem") + "\n id = \"" + c_.their_id +
                            "\"\n}\nremote {\n auth = " + c_.their_demand + "\n id = \"" + client + "\"\n" +
                            (c_.pinned_client ? "certs = pinned.pem\n" : "") + "}\n";
        if (psk) {
            theirs.secrets = "ike-client {\n id = \"" + client + "\"\n secret = \"" + c_.their_psk + "\"\n}\n";
            return theirs;
        }
        theirs.files = {{"x509/gateway.pem", gateway_cert_.Pem()},
                        {"private/gateway.pem", test_pki::ToPem("PRIVATE KEY", test_pki::Pkcs8(gateway_cert_.key))},
                        {"x509ca/root.pem", c_.three_clients ? second_.Pem() : root_.Pem()}};
        if (c_.pinned_client) {
            theirs.files.emplace_back("x509/pinned.pem", Host("client", "192.0.2.1", issuing_, false, 6).Pem());
        }
        if (c_.they_have_issuing && !c_.three_clients) theirs.files.emplace_back("x509ca/issuing.pem", issuing_.Pem());
        return theirs;
    }

    /// Both say how it ended and why.
    void Judge(const test_support::ProcessResult& ours, bool initiator) {
        const bool other_verdict = !initiator && !c_.our_verdict_responding.empty();
        const bool other_text = !initiator && !c_.their_text_initiating.empty();
        const std::string& verdict = other_verdict ? c_.our_verdict_responding : c_.our_verdict;
        const std::string& expected = other_text ? c_.their_text_initiating : c_.their_text;
        const bool logged = charon_.WaitForLog(expected);
        const std::string everything = ours.out + ours.err + "\n--- charon:\n" + charon_.Log();
        const auto& endings = ikeauth::Endings();
        const auto info =
            std::find_if(endings.begin(), endings.end(), [&](const auto& e) { return e.name == verdict; });
        EXPECT_EQ(ours.exit_code, info->exit_code) << everything;
        EXPECT_NE(ours.out.find("verdict: " + verdict + " "), std::string::npos) << verdict << "\n" << everything;
        EXPECT_NE(ours.out.find(c_.our_text), std::string::npos) << c_.our_text << "\n" << everything;
        EXPECT_TRUE(logged) << expected << "\n" << everything;
    }

    const Case& c_;
    Charon& charon_;
    const test_support::NginxServer& crls_;
    test_support::ReservedPort nobody_;
    Cert root_, issuing_, stranger_, second_, client_cert_, gateway_cert_;
    std::optional<Client> client_;
};

TEST(StrongSwanTest, AcceptsAndRefusesAsWeDo) {
    if (!std::filesystem::exists(kCharonPath) || test_support::Run({"swanctl", "--help"}).exit_code == -1) {
        IKE_CANNOT_RUN("strongSwan is not installed: see scripts/deps --ci");
    }
    Charon charon;
    ASSERT_TRUE(charon.running()) << charon.Trouble();
    const test_support::NginxServer crls;
    std::vector<Case> cases = Accepted();
    for (Case& c : Refused()) cases.push_back(std::move(c));
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Pair pair(c, charon, crls);
        pair.RunAsInitiator();
        pair.RunAsResponder();
    }
}

}  // namespace
}  // namespace ike_test
