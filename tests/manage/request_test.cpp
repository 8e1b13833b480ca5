// Requests made on a token: OpenSSL verifies them, and a failure leaves no key.
#include <fstream>

#include "certmgr/cert_engine.h"
#include "certmgr/cert_request.h"
#include "tests/manage/manage_fixture.h"
#include "tests/support/process.h"

namespace manage_test {
namespace {

class Requests : public ManageTest {
  protected:
    static CertRequestInfo Wanted(pki_alg_t key, unsigned bits, pki_alg_t hash) {
        CertRequestInfo info;
        info.keyAlg = key;
        info.keyBits = bits;
        info.hashAlg = hash;
        info.subject = "CN=request, O=Test";
        return info;
    }
};

TEST_F(Requests, OpenSslVerifiesEveryKeyAndHash) {
    std::list<CertRequestKeyInfo> mechanisms;
    CMT_EnumCertRequestMechanisms(token_.info, mechanisms);
    std::size_t made = 0;
    for (CertRequestKeyInfo& mechanism : mechanisms) {
        const bool is_ec = mechanism.keyAlg == PKI_KEY_EC;
        if (is_ec || mechanism.keyAlg == PKI_KEY_ED25519) {  // a range
            EXPECT_LE(mechanism.keySizes.front(), 256U);
            mechanism.keySizes = is_ec ? std::vector<std::uint32_t>{256, 384, 521} : std::vector<std::uint32_t>{256};
        }
        for (const std::uint32_t bits : mechanism.keySizes) {
            if (mechanism.keyAlg == PKI_KEY_RSA && (bits < 1024 || bits > 2048))
                continue;  // slow, or too short to sign
            if (mechanism.keyAlg == PKI_KEY_DSA && bits != 1024) continue;
            for (const pki_alg_t hash : mechanism.hashAlgs) {
                std::string pem;
                ASSERT_EQ(CMT_MakeCertRequest(token_.info, Wanted(mechanism.keyAlg, bits, hash), pem), 0U)
                    << mechanism.keyAlg << ' ' << bits << ' ' << hash;
                const std::string path = directory_ / "request.pem";
                std::ofstream(path) << pem;
                const auto result = test_support::Run({"openssl", "req", "-verify", "-noout", "-in", path});
                EXPECT_EQ(result.exit_code, 0) << mechanism.keyAlg << ' ' << bits << ' ' << hash << result.err;
                CertRequestInfo read;
                std::string spki;
                ASSERT_EQ(CertEngine_ReadP10CertReqInfo(pem.data(), pem.size(), read, spki), 0);
                EXPECT_EQ(read.keyAlg, mechanism.keyAlg);
                EXPECT_EQ(read.hashAlg, hash);
                EXPECT_EQ(store().keyPairCerts.size(), ++made);
            }
        }
    }
    EXPECT_EQ(made, 29U);  // RSA 2 x 6, DSA 1, curves 3 x 5, Ed25519
}

TEST_F(Requests, FailuresLeaveNoKey) {
    struct Case {
        const char* error;
        std::vector<std::string> trouble;
        void (*edit)(CertRequestInfo&) = [](CertRequestInfo&) {};
        bool logged_in = true;
    };
    const Case cases[] = {
        {"MakeCertRequestError", {}, [](CertRequestInfo& info) { info.subject.clear(); }},
        {"MakeCertRequestError", {}, [](CertRequestInfo& info) { info.extKeyUsage = "ipsecIKE,nonsense"; }},
        {"MakeCertRequestError", {}, [](CertRequestInfo& info) { info.extKeyUsage = "DER:0500"; }},
        {"MakeCertRequestError", {}, [](CertRequestInfo& info) { info.ipAddress = "1.2.3"; }},
        {"MakeCertRequestError", {}, [](CertRequestInfo& info) { info.dnsName = std::string("a\0b", 3); }},
        {"MakeCertRequestError", {}, [](CertRequestInfo& info) { info.upn = "a@b\n"; }},
        {"MakeCertRequestError", {"hide one"}},
        {"MakeCertRequestErrorLogin", {}, [](CertRequestInfo&) {}, false},
        {"SetRandomSeedError",
         {"fail C_SeedRandom CKR_RANDOM_SEED_NOT_SUPPORTED"},
         [](CertRequestInfo& info) { info.randomSeed = "seed"; }},
        {"GenerateKeyPairError", {"fail C_GenerateKeyPair CKR_DEVICE_MEMORY"}},
        {"GenerateKeyPairError", {}, [](CertRequestInfo& info) { info.keyBits = 1; }},
        {"GenerateKeyPairError", {"fail C_FindObjectsInit CKR_DEVICE_ERROR times 1"}},
        {"MakeCertRequestDigestError", {}, [](CertRequestInfo& info) { info.hashAlg = PKI_HASH_SHA; }},
        {"MakeCertRequestSignatureError", {"fail C_SignInit CKR_DEVICE_ERROR"}},
        {"MakeCertRequestSignatureError", {"fail C_Sign CKR_DEVICE_ERROR"}},
        {"MakeCertRequestError", {}, [](CertRequestInfo& info) { info.hashAlg = PKI_HASH_MD5; }},
    };
    for (const Case& c : cases) {
        CertRequestInfo info = Wanted(PKI_KEY_EC, 256, PKI_HASH_SHA256);
        c.edit(info);
        if (!c.logged_in) tokens::Logout(token_.info);
        control_.Set(c.trouble);
        if (c.trouble == std::vector<std::string>{"hide one"}) {
            ASSERT_TRUE(WaitUntilListed("one", false));
        }
        std::string text = "before";
        EXPECT_FALSE(CM::MakeCertRequest(token_.info, info, text));
        EXPECT_EQ(text, c.error) << testing::PrintToString(c.trouble);
        control_.Set({});
        ASSERT_TRUE(WaitUntilListed("one"));
        ASSERT_EQ(LogIn(token_), tokens::PinResult::kDone);
        EXPECT_EQ(ObjectsOnToken(), 0U) << c.error;
    }
    EXPECT_EQ(reports_.Count("ECDSA keys of 1 bits are not made"), 1U);
}

TEST_F(Requests, ReadBackAsAsked) {
    CertRequestInfo info = Wanted(PKI_KEY_EC, 256, PKI_HASH_SHA256);
    info.dnsName = "host.example";
    info.extKeyUsage = "ipsecIKE,1.2.3.4";
    for (const char* address : {"", "192.0.2.1", "2001:db8::1"}) {
        info.ipAddress = address;
        info.email = *address != '\0' ? "a@b.example" : "";
        info.upn = *address != '\0' ? "Üser@b.example" : "";
        info.keyGenFlag = *address != '\0';
        std::string pem;
        ASSERT_EQ(CMT_MakeCertRequest(token_.info, info, pem), 0U);
        CertRequestInfo read;
        std::string spki;
        ASSERT_EQ(CertEngine_ReadP10CertReqInfo(pem.data(), pem.size(), read, spki), 0);
        const auto texts = [](const CertRequestInfo& i) {
            return std::vector{i.subject, i.ipAddress, i.email, i.dnsName, i.upn};
        };
        EXPECT_EQ(texts(read), texts(info));
        EXPECT_EQ(read.keyBits, 256U);
        EXPECT_EQ(read.extKeyUsage, "1.3.6.1.5.5.7.3.17, 1.2.3.4");
        PKCS11::TokenSession session(token_.info, PKCS11::TokenSession::kPrivate);
        std::string id;
        std::string pkcs8;
        EXPECT_TRUE(session.ContainPubKeyObject(spki, &id));
        EXPECT_EQ(session.ExportPrivateKey(id, pkcs8), info.keyGenFlag);
        const std::string path = directory_ / "request.pem";
        std::ofstream(path) << pem;
        const std::string text = test_support::Run({"openssl", "req", "-text", "-noout", "-in", path}).out;
        const char* const names =
            *address == '\0' ? "\n                    DNS:host.example\n" : ", DNS:host.example, email:a@b";
        EXPECT_NE(text.find(names), std::string::npos) << text;
        EXPECT_NE(text.find("Key Usage: critical\n                    Digital Signature, Key Encipherment\n"),
                  std::string::npos);
    }
}

}  // namespace
}  // namespace manage_test
