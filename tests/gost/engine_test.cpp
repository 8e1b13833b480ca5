// GOST keys through the token manager and the module, held against openssl(1) with its engine, both ways.
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
    unsigned bits;
    CK_MECHANISM_TYPE generate;
    CK_MECHANISM_TYPE sign;
    CK_MECHANISM_TYPE digest;
    CK_MECHANISM_TYPE whole;  // digests and signs
    const char* sets;
};

const Algorithm kAlgorithms[] = {
    {"gost2001", PKI_KEY_GOST2001, PKI_HASH_GOST94, 512, CKM_GOSTR3410_KEY_PAIR_GEN, CKM_GOSTR3410, CKM_GOSTR3411,
     CKM_GOSTR3410_WITH_GOSTR3411, "0 A B C XA XB TCA TCB TCC TCD"},
    {"gost2012_256", PKI_KEY_GOST2012_256, PKI_HASH_GOST2012_256, 512, CKM_GOSTR3410_KEY_PAIR_GEN, CKM_GOSTR3410,
     CKM_GOSTR3411_2012_256, CKM_GOSTR3410_WITH_GOSTR3411_2012_256, "0 A B C XA XB TCA TCB TCC TCD"},
    {"gost2012_512", PKI_KEY_GOST2012_512, PKI_HASH_GOST2012_512, 1024, CKM_GOSTR3410_512_KEY_PAIR_GEN,
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
    CertRef Cert(const std::string& file) const {
        return CertRef::Adopt(new X509Cert(CertEngine_ReadPEMCertData(Read(file)), nullptr));
    }
    /// root.pem as the certificate of a key pair on the token.
    CertRef OwnCert(const PKCS11::TokenInfo& token, const std::string& id) const {
        return CertRef::Adopt(new X509Cert(token, PKCS11::CertObject{.id = id, .value = Cert("root.pem")->rawCert}));
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

/// What openssl signed with a key, in files of these names; and what ends well when `made`, in its place, verifies.
const std::pair<const char*, const char*> kSigned[] = {
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
            for (const auto& [file, command] : kSigned) {
                SCOPED_TRACE(file);
                const std::string der = Read(file);
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
                EXPECT_TRUE(Shell(command)) << output_;
                Write("made", unsigned_part + Reversed(signature));
                EXPECT_FALSE(Shell(command));
            }
            // IKE's first version signs a ready hash, and turns one kind of signature around.
            const CertRef own = OwnCert(token.info, id);
            EXPECT_EQ(CM::Ike2GetSignAlg(own.get()), alg.key | alg.hash);
            const std::string hash(alg.bits / 16, 'h');
            std::string ike1;
            ASSERT_TRUE(CM::IkeSign(own.get(), hash, ike1, kIdent));
            const std::string forward = alg.key == PKI_KEY_GOST2001 ? Reversed(ike1) : ike1;
            Write("hash", hash);
            Write("signature", forward);
            EXPECT_TRUE(Shell("openssl pkeyutl -engine gost -verify -pubin -inkey pub.pem -in hash -sigfile signature"))
                << output_;
            EXPECT_TRUE(CM::IkeVerify(own.get(), hash, ike1, kIdent));
            EXPECT_EQ(ike1, forward) << "turned in place";
            // The second one signs like a certificate.
            std::string ike2;
            ASSERT_TRUE(CM::Ike2Sign(own.get(), alg.key | alg.hash, "octets", ike2, kIdent));
            const auto as_certificate = CM::X509Cert_Verify(alg.key | alg.hash, cert->rawPubKey, "octets", ike2);
            EXPECT_EQ(as_certificate, CM::kSignatureRight);
            EXPECT_TRUE(CM::Ike2Verify(own.get(), alg.key, "octets", ike2, kIdent));
            EXPECT_FALSE(CM::Ike2Verify(own.get(), alg.key, "0ctets", ike2, kIdent));
            // What the token gives back is the same key to the engine.
            std::string exported;
            ASSERT_TRUE(session.ExportPrivateKey(id, exported));
            Write("exported.der", exported);
            EXPECT_TRUE(Shell("openssl pkey -engine gost -inform DER -in exported.der -pubout | cmp - pub.pem"))
                << output_;
        }
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

/// A token that shows the hash of the other kind alone is not taken for one of both; one that cannot verify, for none.
TEST_F(GostEngine, ATokenIsAskedForWhatItShows) {
    const std::tuple<std::vector<CK_MECHANISM_TYPE>, pki_alg_t, bool> cases[] = {
        {{CKM_GOSTR3411_2012_256, CKM_GOSTR3410_WITH_GOSTR3411_2012_256}, PKI_KEY_GOST2012_256, false},
        {{CKM_GOSTR3411_2012_256, CKM_GOSTR3410_WITH_GOSTR3411_2012_256}, PKI_KEY_GOST2001, true},
        {{CKM_GOSTR3411_2012_256}, PKI_KEY_GOST2012_256, true},
        {{CKM_GOSTR3411_2012_512, CKM_GOSTR3410_WITH_GOSTR3411_2012_512}, PKI_KEY_GOST2012_512, true},
        {{CKM_GOSTR3410}, PKI_KEY_GOST2001, false},
        {{CKM_GOSTR3410}, PKI_KEY_GOST2001 | PKI_HASH_GOST94, true},
    };
    int number = 0;
    for (const auto& [missing, alg, listed] : cases) {
        StartWithout(missing);
        NewToken("card" + std::to_string(++number));
        EXPECT_EQ(!PKCS11::Manager::Instance().EnumTokens(alg).empty(), listed) << number;
        tokens::Stop();
    }
}

/// Each mechanism in turn is missing, or one use of it: every function fails as documented, and no key is left behind.
/// One mechanism that digests and signs is enough for all but ready hashes.
TEST_F(GostEngine, ATokenWithoutSomeMechanismFailsAsDocumented) {
    constexpr CK_FLAGS kAny = ~CK_FLAGS{0};
    int number = 0;
    for (const Algorithm& alg : kAlgorithms) {
        ASSERT_TRUE(Shell(std::string("pki_new $PWD; pki_root $PWD root ") + alg.name +
                          "; openssl pkcs8 -engine gost -topk8 -nocrypt -in root.key -outform DER -out key.der"));
        const std::vector<CK_MECHANISM_TYPE> signing{alg.sign, alg.whole};
        // Without its hash a kind of 256 bits is taken for the other one.
        const char* const no_hash = alg.key == PKI_KEY_GOST2012_512 ? "--1S---" : "---S---";
        // What works: (m)echanisms of requests are listed, (c)ertificates are verified, IKE version 1 finds a token to
        // (1) verify, and it (S)igns; version 2 has the (h)ash, it (s)igns and (v)erifies. What the others answer.
        const std::tuple<std::vector<CK_MECHANISM_TYPE>, CK_FLAGS, std::string, std::string, std::string> cases[] = {
            {{alg.generate}, kAny, "-c1Shsv", "GenerateKeyPairError", ""},
            {{alg.digest, alg.whole}, kAny, no_hash, "MakeCertRequestDigestError", "can't form digest"},
            {signing, kAny, "m------", "MakeCertRequestSignatureError", "can't form sign"},
            {signing, CKF_SIGN, "mc1-h--", "MakeCertRequestSignatureError", "can't form sign"},
            {signing, CKF_VERIFY, "m--Shs-", "", ""},
            {{alg.sign, alg.digest}, kAny, "mc--hsv", "", ""},
        };
        for (const auto& [missing, use, works, request_error, sign_error] : cases) {
            SCOPED_TRACE(alg.name + std::to_string(++number));
            StartWithout(missing, use);
            const token_test::TestToken token = NewToken("gost" + std::to_string(number));
            std::string text;
            const bool made = CM::MakeCertRequest(token.info, Request(alg), text);
            EXPECT_EQ(made ? "" : text, request_error);
            if (made) {
                Write("host.csr", text);
                EXPECT_TRUE(Shell("openssl req -engine gost -in host.csr -verify -noout 2>&1 | grep 'verify OK'"));
            }
            std::string found;
            const auto note = [&found](char what, bool good) { found += good ? what : '-'; };
            note('m', MakesRequests(token.info, alg));
            const CertRef cert = Cert("root.pem");
            const CM::SignatureCheck check = cert->CheckSignature(cert.get());
            EXPECT_TRUE(check == CM::kSignatureRight || check == CM::kSignatureNoToken);
            note('c', check == CM::kSignatureRight);
            {
                TokenSession session(token.info, TokenSession::kPrivate);
                std::list<PKCS11::CertObject> objects;
                EXPECT_TRUE(session.EnumCertificates(objects));
                EXPECT_EQ(objects.empty(), !made) << "no key is left behind";
                ASSERT_TRUE(session.CreatePrivKeyObject(alg.key, "id", Read("key.der"), true));
            }
            const CertRef own = OwnCert(token.info, "id");
            const pki_alg_t sign_alg = alg.key | alg.hash;
            const std::string hash(alg.bits / 16, 'h');
            std::string signature(alg.bits / 8, 's');
            EXPECT_FALSE(CM::IkeVerify(own.get(), hash, signature, kIdent));
            note('1', reports_.Count("Can't find tokens for ike verify") == 0);
            note('S', CM::IkeSign(own.get(), hash, signature, kIdent));
            EXPECT_EQ(reports_.Count("Can't ike sign on token") == 0, found.back() == 'S');
            note('h', CM::Ike2CheckHashAlg(own.get(), sign_alg));
            note('s', CM::Ike2Sign(own.get(), sign_alg, "octets", signature, kIdent));
            EXPECT_TRUE(sign_error.empty() || reports_.Count("Ike2Sign: " + sign_error) > 0);
            note('v', CM::Ike2Verify(own.get(), alg.key, "octets", signature, kIdent));
            EXPECT_EQ(reports_.Count("No token to verify signature") == 0, works[1] == 'c');
            EXPECT_EQ(found, works);
            reports_.Clear();
            tokens::Stop();
        }
    }
}

}  // namespace
}  // namespace gost_test
