// A vendor's program: its own host libraries, the module's public headers, and nothing else of this project. Chooses a
// local certificate, signs with it and verifies the signature. With an argument it leaves without stopping the module.
#include <openssl/x509v3.h>

#include <cstdio>

#include <certmgr/certmgr.h>
#include <certmgr/ike.h>

#include "vendor_host.h"

namespace {

using Key = std::shared_ptr<EVP_PKEY>;

struct Certificate {
    Key key;
    std::shared_ptr<X509> x509;

    std::string Der() const {
        unsigned char* bytes = nullptr;
        const int length = i2d_X509(x509.get(), &bytes);
        std::string der(reinterpret_cast<char*>(bytes), static_cast<std::size_t>(length));
        OPENSSL_free(bytes);
        return der;
    }
};

void AddExtension(X509* cert, const char* name, const char* value) {
    X509_EXTENSION* extension = X509V3_EXT_conf(nullptr, nullptr, name, value);
    X509_add_ext(cert, extension, -1);
    X509_EXTENSION_free(extension);
}

Certificate Issue(const char* common_name, const Certificate* issuer) {
    const bool ca = issuer == nullptr;
    Certificate made{{EVP_EC_gen("P-256"), EVP_PKEY_free}, {X509_new(), X509_free}};
    X509* cert = made.x509.get();
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), ca ? 1 : 2);
    X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert), 3600);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(cert), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(common_name), -1, -1, 0);
    X509_set_issuer_name(cert, X509_get_subject_name(ca ? cert : issuer->x509.get()));
    X509_set_pubkey(cert, made.key.get());
    AddExtension(cert, "basicConstraints", ca ? "critical,CA:TRUE" : "critical,CA:FALSE");
    AddExtension(cert, "keyUsage", ca ? "critical,keyCertSign,cRLSign" : "critical,digitalSignature");
    X509_sign(cert, (ca ? made : *issuer).key.get(), EVP_sha256());
    return made;
}

bool SelectSignVerify() {
    LPCFG::auth_ike_t rule;
    rule.name = "rule";
    LPCFG::cert_t pattern;
    pattern.subject = "CN=host";
    rule.cert_local = {pattern};
    const TLogIdent ident;
    const CM::SelectLocalResult result =
        CM::IkeSelectLocalCertificate(nullptr, rule, CM::kIgnoreBoundFirst, nullptr, nullptr, ident);
    std::printf("status %u\n", static_cast<unsigned>(result.status));
    if (result.status != CM::kLocalAccepted) return false;
    std::printf("chosen %s\n", CM::GetCertInfo(result.cert).subject.c_str());
    const pki_alg_t alg = CM::Ike2GetSignAlg(result.cert);
    std::string signature;
    const bool verified = CM::Ike2Sign(result.cert, alg, "octets", signature, ident) &&
                          CM::Ike2Verify(result.cert, alg, "octets", signature, ident) &&
                          !CM::Ike2Verify(result.cert, alg, "other octets", signature, ident);
    CM::VCertHandleClose(result.cert);
    return verified;
}

}  // namespace

int main(int argc, char**) {
    const Certificate root = Issue("root", nullptr);
    const Certificate host = Issue("host", &root);
    const auto token = vendor_host::AddToken("card");
    token->AddCertificate(root.Der(), {.trusted = true});
    token->AddPersonal(host.Der(), host.key);
    CM::CertEngine_Init();
    CM::Init();
    CM::Reload();
    const bool done = SelectSignVerify();
    if (!done) std::printf("%s", vendor_host::AllText().c_str());
    if (argc == 1) {
        CM::Finit();
        CM::CertEngine_Finit();
    }
    std::puts(done ? "done" : "failed");
    return done ? 0 : 1;
}
