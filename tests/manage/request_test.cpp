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
        return {.keyAlg = key, .keyBits = bits, .hashAlg = hash, .subject = "CN=request, O=Test"};
    }
    static CertRequestInfo Read(const std::string& pem, std::string& spki) {
        CertRequestInfo read;
        EXPECT_EQ(CertEngine_ReadP10CertReqInfo(pem.data(), pem.size(), read, spki), 0);
        return read;
    }
    test_support::ProcessResult Openssl(const std::string& what, const std::string& pem) const {
        const std::string path = directory_ / "request.pem";
        std::ofstream(path) << pem;
        return test_support::Run({"openssl", "req", what, "-noout", "-in", path});
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
            // Others are slow, or too short to sign.
            if (mechanism.keyAlg == PKI_KEY_RSA && (bits < 1024 || bits > 2048)) continue;
            if (mechanism.keyAlg == PKI_KEY_DSA && bits != 1024) continue;
            for (const pki_alg_t hash : mechanism.hashAlgs) {
                std::string pem;
                ASSERT_EQ(CMT_MakeCertRequest(token_.info, Wanted(mechanism.keyAlg, bits, hash), pem), 0U)
                    << mechanism.keyAlg << ' ' << bits << ' ' << hash;
                const auto result = Openssl("-verify", pem);
                EXPECT_EQ(result.exit_code, 0) << mechanism.keyAlg << ' ' << bits << ' ' << hash << result.err;
                std::string spki;
                const CertRequestInfo read = Read(pem, spki);
                EXPECT_EQ(std::pair(read.keyAlg, read.hashAlg), std::pair(mechanism.keyAlg, hash));
                EXPECT_EQ(store().keyPairCerts.size(), ++made);
            }
        }
    }
    EXPECT_EQ(made, 29U);  // RSA 2 x 6, DSA 1, curves 3 x 5, Ed25519
}

TEST_F(Requests, FailuresLeaveNoKey) {
    using Info = CertRequestInfo;
    const Info good = Wanted(PKI_KEY_EC, 256, PKI_HASH_SHA256);
    const auto with = [&](auto Info::*field, const auto& value) {
        Info info = good;
        info.*field = value;
        return info;
    };
    const auto fails = [&](const std::string& error, const Info& info, const std::vector<std::string>& trouble = {},
                           bool logged_in = true) {
        SCOPED_TRACE(testing::PrintToString(std::pair(trouble, info.extKeyUsage + info.ipAddress + info.upn)));
        if (!logged_in) tokens::Logout(token_.info);
        SetTrouble(trouble);
        std::string text = "before";
        EXPECT_FALSE(CM::MakeCertRequest(token_.info, info, text));
        EXPECT_EQ(text, error);
        EndTrouble();
        EXPECT_EQ(ObjectsOnToken(), 0U) << error;
    };
    fails("MakeCertRequestError", with(&Info::subject, ""));
    fails("MakeCertRequestError", with(&Info::extKeyUsage, "ipsecIKE,nonsense"));
    fails("MakeCertRequestError", with(&Info::extKeyUsage, "DER:0500"));
    fails("MakeCertRequestError", with(&Info::ipAddress, "1.2.3"));
    fails("MakeCertRequestError", with(&Info::dnsName, std::string("a\0b", 3)));
    fails("MakeCertRequestError", with(&Info::upn, "a@b\n"));
    fails("MakeCertRequestError", with(&Info::hashAlg, PKI_HASH_MD5));
    fails("MakeCertRequestError", good, {"hide one"});
    fails("MakeCertRequestErrorLogin", good, {}, false);
    fails("SetRandomSeedError", with(&Info::randomSeed, "seed"), {"fail C_SeedRandom CKR_RANDOM_SEED_NOT_SUPPORTED"});
    fails("GenerateKeyPairError", good, {"fail C_GenerateKeyPair CKR_DEVICE_MEMORY"});
    fails("GenerateKeyPairError", with(&Info::keyBits, 1));
    fails("GenerateKeyPairError", good, {"fail C_FindObjectsInit CKR_DEVICE_ERROR times 1"});
    fails("MakeCertRequestDigestError", with(&Info::hashAlg, PKI_HASH_SHA));
    fails("MakeCertRequestSignatureError", good, {"fail C_SignInit CKR_DEVICE_ERROR"});
    fails("MakeCertRequestSignatureError", good, {"fail C_Sign CKR_DEVICE_ERROR"});
    EXPECT_EQ(reports_.Count("ECDSA keys of 1 bits are not made"), 1U);
}

TEST_F(Requests, ReadBackAsAsked) {
    CertRequestInfo info = Wanted(PKI_KEY_EC, 256, PKI_HASH_SHA256);
    info.dnsName = "host.example";
    info.extKeyUsage = "ipsecIKE,1.2.3.4";
    for (const char* address : {"", "192.0.2.1", "2001:db8::1"}) {
        info.ipAddress = address;
        info.keyGenFlag = *address != '\0';
        info.email = info.keyGenFlag ? "a@b.example" : "";
        info.upn = info.keyGenFlag ? "Üser@b.example" : "";
        std::string pem;
        ASSERT_EQ(CMT_MakeCertRequest(token_.info, info, pem), 0U);
        std::string spki;
        const CertRequestInfo read = Read(pem, spki);
        EXPECT_EQ(std::tuple(read.subject, read.ipAddress, read.email, read.dnsName, read.upn, read.keyBits),
                  std::tuple(info.subject, info.ipAddress, info.email, info.dnsName, info.upn, 256U));
        EXPECT_EQ(read.extKeyUsage, "1.3.6.1.5.5.7.3.17, 1.2.3.4");
        PKCS11::TokenSession session(token_.info, PKCS11::TokenSession::kPrivate);
        std::string id;
        std::string pkcs8;
        EXPECT_TRUE(session.ContainPubKeyObject(spki, &id));
        EXPECT_EQ(session.ExportPrivateKey(id, pkcs8), info.keyGenFlag);
        const std::string text = Openssl("-text", pem).out;
        const std::string line = "\n                    ";
        for (const std::string& part : {info.keyGenFlag ? ", DNS:host.example, email:a@b" : line + "DNS:host.example\n",
                                        "Key Usage: critical" + line + "Digital Signature, Key Encipherment\n"}) {
            EXPECT_NE(text.find(part), std::string::npos) << part << text;
        }
    }
}

}  // namespace
}  // namespace manage_test
