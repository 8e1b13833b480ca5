// GOST keys through the token manager and the module, held against openssl(1) with its engine, both ways.
#include <gtest/gtest.h>
#include <p11-kit/pkcs11.h>
#include <p11-kit/pkcs11x.h>

#include <algorithm>
#include <fstream>

#include "certmgr/cert_engine.h"
#include "certmgr/cert_request.h"
#include "certmgr/certmgr.h"
#include "certmgr/ike.h"
#include "certmgr/x509cert.h"
#include "platform/asn1/der.h"
#include "tests/gost/examples.h"
#include "tests/support/der.h"
#include "tests/support/process.h"
#include "tests/tokens/fixture.h"

namespace gost_test {
namespace {

using CM::CertRef;
using CM::X509Cert;
using PKCS11::TokenSession;

struct Algorithm {
    const char* name;  // of the engine and of scripts/pki
    pki_alg_t key;
    pki_alg_t hash;
    const char* md;
    unsigned bits;
    CK_MECHANISM_TYPE generate;
    CK_MECHANISM_TYPE sign;
    CK_MECHANISM_TYPE digest;
    CK_MECHANISM_TYPE whole;  // digests and signs
    const char* sets;
};

const Algorithm kAlgorithms[] = {
    {"gost2001", PKI_KEY_GOST2001, PKI_HASH_GOST94, "md_gost94", 512, CKM_GOSTR3410_KEY_PAIR_GEN, CKM_GOSTR3410,
     CKM_GOSTR3411, CKM_GOSTR3410_WITH_GOSTR3411, "0 A B C XA XB TCA TCB TCC TCD"},
    {"gost2012_256", PKI_KEY_GOST2012_256, PKI_HASH_GOST2012_256, "md_gost12_256", 512, CKM_GOSTR3410_KEY_PAIR_GEN,
     CKM_GOSTR3410, CKM_GOSTR3411_2012_256, CKM_GOSTR3410_WITH_GOSTR3411_2012_256, "0 A B C XA XB TCA TCB TCC TCD"},
    {"gost2012_512", PKI_KEY_GOST2012_512, PKI_HASH_GOST2012_512, "md_gost12_512", 1024, CKM_GOSTR3410_512_KEY_PAIR_GEN,
     CKM_GOSTR3410_512, CKM_GOSTR3411_2012_512, CKM_GOSTR3410_WITH_GOSTR3411_2012_512, "A B C 1.2.643.7.1.2.1.2.0"},
};

const TLogIdent kIdent{};

class GostEngine : public token_test::TokenTest {
  protected:
    GostEngine() { CM::CertEngine_Init(); }
    ~GostEngine() override { CM::CertEngine_Finit(); }

    std::string StateFolder() const { return (directory_ / "gost").string(); }
    void StartGost() {
        Start({.name = "gost", .module_path = GOST_TOKEN_PATH, .init_args = "directory=" + StateFolder()});
    }
    /// Behind the module that leaves mechanisms out, or one use of them.
    void StartWithout(const std::vector<CK_MECHANISM_TYPE>& mechanisms, CK_FLAGS use = ~CK_FLAGS{0}) {
        std::vector<std::string> directives;
        for (const CK_MECHANISM_TYPE mechanism : mechanisms) {
            char directive[60];
            std::snprintf(directive, sizeof directive, "without %lx %lx", mechanism, use);
            directives.emplace_back(directive);
        }
        control_.Set(directives);
        setenv("FORWARD_PKCS11_MODULE", GOST_TOKEN_PATH, 1);
        setenv("CERTMGR_GOST_DIRECTORY", StateFolder().c_str(), 1);
        Start({.name = "forward", .module_path = FORWARD_PKCS11_PATH, .init_args = control_.InitArgs()});
    }
    void Start(tokens::Provider provider) {
        settings_.providers = {std::move(provider)};
        TokenTest::Start();
    }

    std::string Path(const std::string& name) const { return (directory_ / name).string(); }
    void Write(const std::string& name, const std::string& content) const { std::ofstream(Path(name)) << content; }
    std::string Read(const std::string& name) const {
        std::ifstream in(Path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    /// A command in the tests' folder that may use scripts/pki: whether it succeeded.
    bool Shell(const std::string& command) const {
        const auto result =
            test_support::Run({"bash", "-ec", "cd " + directory_.path().string() + "; . " PKI_SCRIPT "; " + command});
        output_ = result.out + result.err;
        return result.exit_code == 0;
    }
    /// Whether the engine takes the signature of `data` for right; of a ready digest with `digest`.
    bool EngineVerifies(const Algorithm& alg, const std::string& public_key, const std::string& data,
                        const std::string& signature, bool digest = false) const {
        Write("data", data);
        Write("signature", signature);
        if (digest) {
            return Shell("openssl pkeyutl -engine gost -verify -pubin -inkey " + public_key +
                         " -in data -sigfile signature");
        }
        return Shell(std::string("openssl dgst -engine gost -") + alg.md + " -verify " + public_key +
                     " -signature signature data");
    }
    CertRef Cert(const std::string& file) const {
        return CertRef::Adopt(new X509Cert(CertEngine_ReadPEMCertData(Read(file)), nullptr));
    }
    /// The certificate of a key pair on the token.
    CertRef OwnCert(const PKCS11::TokenInfo& token, const std::string& file, const std::string& id) const {
        return CertRef::Adopt(new X509Cert(token, PKCS11::CertObject{.id = id, .value = Cert(file)->rawCert}));
    }

    mutable std::string output_;
};

CertRequestInfo Request(const Algorithm& alg) {
    CertRequestInfo info;
    info.keyAlg = alg.key;
    info.keyBits = alg.bits;
    info.hashAlg = alg.hash;
    info.subject = "CN=host, O=Demo, C=EX";
    info.dnsName = "host.example";
    return info;
}

/// The to-be-signed part of a certificate, a CRL or a request.
std::string ToBeSigned(const std::string& der) {
    asn1::DerReader inside("");
    asn1::Tlv body{};
    EXPECT_TRUE(asn1::ReadWhole(der, asn1::kTagSequence, inside) && inside.Next(body));
    return std::string(body.whole);
}

/// What openssl signed with a key, in files of these names.
const struct {
    const char* file;
    const char* check;  // ends well when `made`, in its place, verifies
} kSigned[] = {
    {"certificate",
     "openssl x509 -inform DER -in made -out made.pem; "
     "openssl verify -engine gost -check_ss_sig -CAfile made.pem made.pem"},
    {"crl",
     "openssl crl -inform DER -in made -out made.pem; "
     "openssl verify -engine gost -crl_check -CRLfile made.pem -CAfile root.pem root.pem"},
    {"request", "openssl req -engine gost -inform DER -in made -verify -noout 2>&1 | grep 'verify OK'"},
};

void ExpectRequestRead(const Algorithm& alg, const std::string& der, const X509Cert& cert) {
    CertRequestInfo request;
    std::string key;
    ASSERT_EQ(CertEngine_ReadP10CertReqInfo(der.data(), static_cast<unsigned>(der.size()), request, key), 0);
    EXPECT_EQ(request.keyAlg, alg.key);
    EXPECT_EQ(request.hashAlg, alg.hash);
    EXPECT_EQ(request.keyBits, alg.bits);
    EXPECT_EQ(key, cert.rawPubKey);
}

/// What openssl makes with a key verifies here; with a signature of the token in its place it verifies there.
TEST_F(GostEngine, CertificatesCrlsRequestsAndKeysOfEverySetVerifyBothWays) {
    StartGost();
    const token_test::TestToken token = NewToken("gost");
    TokenSession session(token.info, TokenSession::kPrivate);
    for (const Algorithm& alg : kAlgorithms) {
        std::istringstream sets(alg.sets);
        for (std::string set; sets >> set;) {
            SCOPED_TRACE(std::string(alg.name) + " " + set);
            ASSERT_TRUE(Shell("export PKI_GOST_SET=" + set + " alg=" + alg.name + R"(
                pki_new $PWD
                pki_root $PWD root $alg
                pki_crl $PWD root $alg
                cp root.crl crl
                openssl req -in root.csr -outform DER -out request
                openssl x509 -in root.pem -outform DER -out certificate
                openssl pkcs8 -engine gost -topk8 -nocrypt -in root.key -outform DER -out key.der
                openssl pkey -engine gost -in root.key -pubout -out pub.pem)"))
                << output_;
            const CertRef cert = Cert("root.pem");
            EXPECT_EQ(cert->info.keyAlg, alg.key);
            EXPECT_EQ(cert->info.signAlg & PKI_ALG_MASK, alg.key | alg.hash);
            EXPECT_EQ(cert->info.keyBits, alg.bits);
            EXPECT_EQ(cert->CheckSignature(cert.get()), CM::kSignatureRight);
            const CM::X509CRL crl(token.info, PKCS11::CRLObject{"", Read("crl")});
            EXPECT_EQ(crl.CheckSignature(cert.get()), CM::kSignatureRight);
            ExpectRequestRead(alg, Read("request"), *cert);

            const std::string id = alg.name + set;
            ASSERT_TRUE(session.CreatePrivKeyObject(alg.key, id, Read("key.der"), true));
            ASSERT_TRUE(session.CreatePubKeyObject(alg.key, id, cert->rawPubKey));
            EXPECT_TRUE(session.ContainPubKeyObject(cert->rawPubKey));
            for (const auto& c : kSigned) {
                SCOPED_TRACE(c.file);
                const std::string der = Read(c.file);
                const std::string body = ToBeSigned(der);
                std::string signature = der.substr(der.size() - alg.bits / 8);
                const auto check = [&](const std::string& data) {
                    return CM::X509Cert_Verify(alg.key | alg.hash, cert->rawPubKey, data, signature);
                };
                EXPECT_EQ(check(body), CM::kSignatureRight);
                EXPECT_EQ(check(body + "x"), CM::kSignatureWrong);
                const std::string unsigned_part = der.substr(0, der.size() - signature.size());
                ASSERT_EQ(CM::X509Cert_Sign(session, id, alg.key, alg.hash, body, signature), 2);
                Write("made", unsigned_part + signature);
                EXPECT_TRUE(Shell(c.check)) << output_;
                Write("made", unsigned_part + Reversed(signature));
                EXPECT_FALSE(Shell(c.check));
            }
            // What the token gives back is the same key to the engine.
            std::string exported;
            ASSERT_TRUE(session.ExportPrivateKey(id, exported));
            Write("exported.der", exported);
            EXPECT_TRUE(Shell("openssl pkey -engine gost -inform DER -in exported.der -pubout | cmp - pub.pem"))
                << output_;
        }
    }
}

/// A request from the token, its certificate from the engine's authority, and signatures of both IKE versions.
TEST_F(GostEngine, RequestsAreCertifiedAndTheirKeysAuthenticate) {
    StartGost();
    const token_test::TestToken token = NewToken("gost");
    for (const Algorithm& alg : kAlgorithms) {
        SCOPED_TRACE(alg.name);
        std::string pem;
        ASSERT_TRUE(CM::MakeCertRequest(token.info, Request(alg), pem)) << pem;
        Write("host.csr", pem);
        ASSERT_TRUE(Shell(
            std::string("pki_new $PWD; pki_root $PWD root ") + alg.name +
            "; openssl req -engine gost -in host.csr -verify -noout -pubkey -out pub.pem; pki_certify $PWD host " +
            alg.name + " root host"))
            << output_;
        const CertRef root = Cert("root.pem");
        std::list<PKCS11::CertObject> objects;
        ASSERT_TRUE(TokenSession(token.info, TokenSession::kPrivate).EnumCertificates(objects));
        const auto pair = std::find_if(objects.begin(), objects.end(), [&](const auto& object) {
            return object.category == PKCS11::kKeyPairCategory && object.keyAlg == alg.key;
        });
        ASSERT_NE(pair, objects.end());
        const CertRef host = OwnCert(token.info, "host.pem", pair->id);
        EXPECT_EQ(host->CheckSignature(root.get()), CM::kSignatureRight);

        const std::string hash(alg.bits / 16, 'h');
        std::string ike1;
        std::string ike2;
        ASSERT_TRUE(CM::IkeSign(host.get(), hash, ike1, kIdent));
        std::string forward = ike1;
        if (alg.key == PKI_KEY_GOST2001) std::reverse(forward.begin(), forward.end());
        EXPECT_TRUE(EngineVerifies(alg, "pub.pem", hash, forward, true)) << output_;
        EXPECT_TRUE(CM::IkeVerify(host.get(), hash, ike1, kIdent));
        EXPECT_EQ(ike1, forward) << "turned in place";
        const pki_alg_t sign_alg = CM::Ike2GetSignAlg(host.get());
        EXPECT_EQ(sign_alg, alg.key | alg.hash);
        EXPECT_TRUE(CM::Ike2CheckHashAlg(host.get(), sign_alg));
        ASSERT_TRUE(CM::Ike2Sign(host.get(), sign_alg, "octets", ike2, kIdent));
        EXPECT_TRUE(EngineVerifies(alg, "pub.pem", "octets", ike2)) << output_;
        EXPECT_TRUE(CM::Ike2Verify(host.get(), alg.key, "octets", ike2, kIdent));
        EXPECT_FALSE(CM::Ike2Verify(host.get(), alg.key, "0ctets", ike2, kIdent));
    }
}

TEST_F(GostEngine, AKeyWithoutParametersIsRefused) {
    StartGost();
    NewToken("gost");
    const std::string point = Reversed(FromHex(kExample256.x)) + Reversed(FromHex(kExample256.y));
    const std::string key = der::Sequence(der::Oid("1.2.643.7.1.1.1.1")) + der::BitString(der::OctetString(point));
    const test_pki::Cert made = test_pki::MakeCert({.spki = der::Sequence(key)});
    const CertRef peer = CertRef::Adopt(new X509Cert({}, PKCS11::CertObject{.value = made.der}));
    std::string signature = FromHex(kExample256.s) + FromHex(kExample256.r);
    EXPECT_FALSE(CM::IkeVerify(peer.get(), Reversed(FromHex(kExample256.e)), signature, kIdent));
    EXPECT_EQ(reports_.Count("inherits its parameters from its issuer's"), 1);
}

/// A signature in a certificate and one of IKEv2 have the same form, which is that of the published certificate.
TEST_F(GostEngine, APublishedCertificatePinsTheFormOfX509AndIke2) {
    StartGost();
    NewToken("gost");
    const Algorithm& alg = kAlgorithms[1];
    const CertRef cert = CertRef::Adopt(new X509Cert(CertEngine_ReadPEMCertData(kCert256), nullptr));
    EXPECT_EQ(cert->CheckSignature(cert.get()), CM::kSignatureRight);
    const std::string body = ToBeSigned(cert->rawCert);
    const std::string signature = cert->rawCert.substr(cert->rawCert.size() - alg.bits / 8);
    EXPECT_TRUE(CM::Ike2Verify(cert.get(), alg.key, body, signature, kIdent));
    EXPECT_FALSE(CM::Ike2Verify(cert.get(), alg.key, body, Reversed(signature), kIdent));
}

bool MakesRequests(const PKCS11::TokenInfo& token, const Algorithm& alg) {
    std::list<CertRequestKeyInfo> kinds;
    CMT_EnumCertRequestMechanisms(token, kinds);
    return std::any_of(kinds.begin(), kinds.end(), [&](const CertRequestKeyInfo& kind) {
        return kind.keyAlg == alg.key && kind.hashAlgs == std::vector<pki_alg_t>{alg.hash};
    });
}

TEST_F(GostEngine, AMechanismThatDigestsAndSignsIsEnough) {
    for (const Algorithm& alg : kAlgorithms) {
        SCOPED_TRACE(alg.name);
        StartWithout({alg.sign, alg.digest});
        const token_test::TestToken token = NewToken(alg.name);
        EXPECT_TRUE(MakesRequests(token.info, alg));
        std::string pem;
        ASSERT_TRUE(CM::MakeCertRequest(token.info, Request(alg), pem)) << pem;
        Write("host.csr", pem);
        EXPECT_TRUE(Shell("openssl req -engine gost -in host.csr -verify -noout -pubkey -out pub.pem")) << output_;
        tokens::Stop();
    }
}

/// A token that shows the hash of the other kind alone is not taken for one of both; one that cannot verify, for none.
TEST_F(GostEngine, ATokenIsAskedForWhatItShows) {
    struct {
        std::vector<CK_MECHANISM_TYPE> missing;
        pki_alg_t alg;
        bool listed;
    } const cases[] = {
        {{CKM_GOSTR3411_2012_256, CKM_GOSTR3410_WITH_GOSTR3411_2012_256}, PKI_KEY_GOST2012_256, false},
        {{CKM_GOSTR3411_2012_256, CKM_GOSTR3410_WITH_GOSTR3411_2012_256}, PKI_KEY_GOST2001, true},
        {{CKM_GOSTR3411_2012_256}, PKI_KEY_GOST2012_256, true},
        {{CKM_GOSTR3411_2012_512, CKM_GOSTR3410_WITH_GOSTR3411_2012_512}, PKI_KEY_GOST2012_512, true},
        {{CKM_GOSTR3410}, PKI_KEY_GOST2001, false},
        {{CKM_GOSTR3410}, PKI_KEY_GOST2001 | PKI_HASH_GOST94, true},
    };
    int number = 0;
    for (const auto& c : cases) {
        StartWithout(c.missing);
        NewToken("card" + std::to_string(++number));
        EXPECT_EQ(!PKCS11::Manager::Instance().EnumTokens(c.alg).empty(), c.listed) << number;
        tokens::Stop();
    }
}

/// Each mechanism in turn is missing, or one use of it: every function fails as documented, and no key is left behind.
TEST_F(GostEngine, ATokenWithoutSomeMechanismFailsAsDocumented) {
    constexpr CK_FLAGS kAny = ~CK_FLAGS{0};
    int number = 0;
    for (const Algorithm& alg : kAlgorithms) {
        ASSERT_TRUE(Shell(std::string("pki_new $PWD; pki_root $PWD root ") + alg.name +
                          "; openssl pkcs8 -engine gost -topk8 -nocrypt -in root.key -outform DER -out key.der"));
        const std::vector<CK_MECHANISM_TYPE> signing{alg.sign, alg.whole};
        const struct {
            std::vector<CK_MECHANISM_TYPE> missing;
            CK_FLAGS use;
            bool digests, signs, verifies;
            std::string request_error;  // empty: it is made
            const char* sign_error;
        } cases[] = {
            {{alg.generate}, kAny, true, true, true, "GenerateKeyPairError", ""},
            {{alg.digest, alg.whole}, kAny, false, true, true, "MakeCertRequestDigestError", "can't form digest"},
            {signing, kAny, true, false, false, "MakeCertRequestSignatureError", "can't form sign"},
            {signing, CKF_SIGN, true, false, true, "MakeCertRequestSignatureError", "can't form sign"},
            {signing, CKF_VERIFY, true, true, false, "", ""},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(alg.name + c.request_error);
            StartWithout(c.missing, c.use);
            const token_test::TestToken token = NewToken("gost" + std::to_string(++number));
            std::string text;
            EXPECT_EQ(CM::MakeCertRequest(token.info, Request(alg), text), c.request_error.empty());
            EXPECT_TRUE(c.request_error.empty() || text == c.request_error) << text;
            EXPECT_EQ(MakesRequests(token.info, alg), c.digests && c.missing[0] != alg.generate);
            const CertRef cert = Cert("root.pem");
            EXPECT_EQ(cert->CheckSignature(cert.get()),
                      c.digests && c.verifies ? CM::kSignatureRight : CM::kSignatureNoToken);
            {
                TokenSession session(token.info, TokenSession::kPrivate);
                std::list<PKCS11::CertObject> objects;
                EXPECT_TRUE(session.EnumCertificates(objects));
                EXPECT_EQ(objects.empty(), !c.request_error.empty()) << "no key is left behind";
                ASSERT_TRUE(session.CreatePrivKeyObject(alg.key, "id", Read("key.der"), true));
            }
            const CertRef own = OwnCert(token.info, "root.pem", "id");
            const pki_alg_t sign_alg = alg.key | alg.hash;
            const bool signs2 = c.signs && c.digests;
            const std::string hash(alg.bits / 16, 'h');
            std::string signature(alg.bits / 8, 's');
            EXPECT_FALSE(CM::IkeVerify(own.get(), hash, signature, kIdent));
            // Without its hash a kind of 256 bits is taken for the other one.
            const bool found = c.verifies && (c.digests || alg.key == PKI_KEY_GOST2012_512);
            EXPECT_EQ(reports_.Count("Can't find tokens for ike verify") > 0, !found);
            EXPECT_EQ(CM::Ike2CheckHashAlg(own.get(), sign_alg), c.digests && (c.signs || c.verifies));
            EXPECT_EQ(CM::IkeSign(own.get(), hash, signature, kIdent), c.signs);
            EXPECT_EQ(reports_.Count("Can't ike sign on token") > 0, !c.signs);
            EXPECT_EQ(CM::Ike2Sign(own.get(), sign_alg, "octets", signature, kIdent), signs2);
            EXPECT_TRUE(signs2 || reports_.Count(std::string("Ike2Sign: ") + c.sign_error) > 0);
            EXPECT_EQ(CM::Ike2Verify(own.get(), alg.key, "octets", signature, kIdent), signs2 && c.verifies);
            EXPECT_EQ(reports_.Count("No token to verify signature") > 0, !(c.digests && c.verifies));
            reports_.Clear();
            tokens::Stop();
        }
    }
}

}  // namespace
}  // namespace gost_test
