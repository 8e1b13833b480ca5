// Certificate files: what other programs write, what they read of ours, and what is damaged.
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "certmgr/cert_engine.h"
#include "libcrypto/libcrypto.h"
#include "tests/manage/manage_fixture.h"
#include "tests/support/der.h"
#include "tests/support/process.h"

namespace manage_test {
namespace {

using CM::X509CertFile;
using test_pki::Cert;

/// A key pair, its certificate and CA, and a CRL, as files that commands can use: user.key, user.pem, ca.pem, crl.pem.
class FileTest : public testing::Test {
  protected:
    FileTest() {
        CM::CertEngine_Init();
        Write("user.key", user_.KeyPem());
        Write("user.pem", user_.Pem());
        Write("ca.pem", ca_.Pem());
        Write("crl.pem", test_pki::ToPem("X509 CRL", crl_));
    }
    ~FileTest() override { CM::CertEngine_Finit(); }
    void Write(const std::string& name, const std::string& content) const {
        std::ofstream(directory_ / name) << content;
    }
    std::string Read(const std::string& name) const {
        std::stringstream content;
        content << std::ifstream(directory_ / name).rdbuf();
        return content.str();
    }
    /// Runs a shell command in the folder, with the password in $P; its output with errors is the message of a failure.
    void Shell(const std::string& command, const char* password = kPassword) const {
        const std::string in_folder =
            "cd '" + directory_.path().string() + "' && export P='" + password + "' && { " + command;
        const auto result = test_support::Run({"sh", "-c", in_folder + "; } 2>&1"});
        ASSERT_EQ(result.exit_code, 0) << command << '\n' << result.out;
    }
    /// Where the other programs are required, only Java may be absent.
    static bool HasTool(const std::string& command) {
        const std::string tool = command.substr(0, command.find(' '));
        const bool found = test_support::Run({"sh", "-c", "command -v " + tool}).exit_code == 0;
        const bool required = std::getenv("CERTMGR_REQUIRE_PEERS") != nullptr && tool != "keytool";
        EXPECT_TRUE(found || !required) << tool << " is not installed";
        if (!found) std::cout << "[  SKIPPED ] not installed: " << command << '\n';
        return found;
    }

    const Cert ca_ = test_pki::MakeCa("CN=CA, O=Test", nullptr, test_pki::KeyType::kRsa2048);
    const Cert user_ = test_pki::MakeLeaf("CN=user, O=Test", ca_, test_pki::KeyType::kRsa2048);
    const std::string crl_ = test_pki::MakeCrl({.entries = {{.serial = "\7"}}}, ca_);
    const test_support::TempDir directory_;
};

struct ForeignFile {
    const char* name;
    const char* command;  // writes the file "out"
    std::size_t certs;
    bool key;
    std::size_t crls = 0;
    const char* password = kPassword;
};

class ForeignFiles : public FileTest, public testing::WithParamInterface<ForeignFile> {};

TEST_P(ForeignFiles, AreRead) {
    const ForeignFile& c = GetParam();
    if (!HasTool(c.command)) GTEST_SKIP();
    ASSERT_NO_FATAL_FAILURE(Shell(c.command, c.password));
    const X509CertFile file(Read("out"), c.password);
    ASSERT_EQ(file.status, 0);
    ASSERT_EQ(file.certs.size(), c.certs);
    EXPECT_EQ(file.crls.size(), c.crls);
    for (const CM::CrlRef& crl : file.crls) EXPECT_EQ(crl->rawCrl(), crl_);
    for (const CM::X509Cert* cert : file.certs) EXPECT_TRUE(cert->rawCert == user_.der || cert->rawCert == ca_.der);
    if (!c.key) return;
    std::string pkcs8;
    ASSERT_NE(file.certs[0]->privKeyHandle, nullptr);
    EXPECT_EQ(file.certs[0]->rawCert, user_.der);
    EXPECT_TRUE(CertEngine_PrivKeyToPKCS8(file.certs[0]->privKeyHandle, pkcs8));
    EXPECT_EQ(pkcs8, test_pki::Pkcs8(user_.key));
    EXPECT_EQ(X509CertFile(Read("out"), "wrong").status, kP12WrongPassword);
    if (*c.password != 0) {
        EXPECT_EQ(X509CertFile(Read("out"), "").status, kP12WrongPassword);
    }
}

#define OPENSSL_P12 "openssl pkcs12 -export -inkey user.key -in user.pem -certfile ca.pem -passout env:P -out out "
#define CERTTOOL_P12                                                                                                   \
    "certtool --to-p12 --load-privkey user.key --load-certificate user.pem --load-ca-certificate ca.pem --p12-name x " \
    "--password \"$P\" --outder --outfile out --pkcs-cipher "
#define FOR_NSS \
    OPENSSL_P12 \
    "-name x && mkdir db && certutil -N -d db --empty-password && pk12util -i out -d db -W \"$P\" && rm out && "
const ForeignFile kForeignFiles[] = {
    {"openssl", OPENSSL_P12, 2, true},
    {"openssl_legacy", OPENSSL_P12 "-legacy", 2, true},
    {"openssl_rc4", OPENSSL_P12 "-legacy -keypbe PBE-SHA1-RC4-128 -certpbe PBE-SHA1-RC2-128 -macalg md5", 2, true},
    {"openssl_many_iterations", OPENSSL_P12 "-iter 1000000", 2, true},
    {"openssl_no_mac", OPENSSL_P12 "-nomac", 2, true},
    {"openssl_in_the_clear", OPENSSL_P12 "-keypbe NONE -certpbe NONE", 2, true},
    {"openssl_empty_password", OPENSSL_P12, 2, true, 0, ""},
    {"openssl_not_ascii", OPENSSL_P12 "-legacy", 2, true, 0,
     "Gr\xc3\xbc\xc3\x9f"
     "e"},
    {"certtool", CERTTOOL_P12 "aes-256", 2, true},
    {"certtool_3des", CERTTOOL_P12 "3des-pkcs12", 2, true},
    {"pk12util", FOR_NSS "pk12util -o out -n x -d db -W \"$P\"", 2, true},
    {"keytool",
     "keytool -h 2>/dev/null; " OPENSSL_P12 "-name x && mv out in && keytool -importkeystore -srckeystore in "
     "-srcstorepass \"$P\" -destkeystore out -deststoretype pkcs12 -deststorepass \"$P\"",
     2, true},
    {"keytool_trust", "keytool -importcert -noprompt -file ca.pem -keystore out -storetype pkcs12 -storepass \"$P\"", 1,
     false},
    {"pkcs7_der", "openssl crl2pkcs7 -in crl.pem -certfile user.pem -certfile ca.pem -outform DER -out out", 2, false,
     1},
    {"text_around", "openssl x509 -in user.pem -text -out out && echo after >>out", 1, false},
    {"base64", "grep -v -- ----- user.pem >out", 1, false},
    {"crl_der", "openssl crl -in crl.pem -outform DER -out out", 0, false, 1},
};
INSTANTIATE_TEST_SUITE_P(, ForeignFiles, testing::ValuesIn(kForeignFiles),
                         [](const auto& test) { return test.param.name; });

// What is written here is read elsewhere: with key and chain, and certificates alone.
TEST_F(FileTest, OtherProgramsReadOurs) {
    const auto handle = [](const Cert& cert) {
        return CertEngine_CreateCertHandle(cert.der.data(), static_cast<unsigned>(cert.der.size()));
    };
    void* const user = handle(user_);
    void* const ca = handle(ca_);
    std::string key_file;
    std::string certs_file;
    ASSERT_EQ(CertEngine_ExportCertsToPKCS12({user, nullptr, ca}, test_pki::Pkcs8(user_.key), kPassword, key_file), 1);
    ASSERT_EQ(CertEngine_ExportCertsToPKCS12({ca}, "", kPassword, certs_file), 1);
    EXPECT_EQ(CertEngine_ExportCertsToPKCS12({user}, "no key", kPassword, certs_file), 3);
    CertEngine_CloseCertHandle(user);
    CertEngine_CloseCertHandle(ca);
    Write("key.p12", key_file);
    Write("certs.p12", certs_file);
    for (const char* command : {
             "openssl pkcs12 -in key.p12 -passin env:P -noenc | openssl pkey | cmp - user.key",
             "openssl pkcs12 -in certs.p12 -passin env:P | openssl x509 | cmp - ca.pem",
             "certtool --p12-info --inder --infile key.p12 --password \"$P\" | grep 'BEGIN ENCRYPTED PRIVATE KEY'",
             "certtool --p12-info --inder --infile certs.p12 --password \"$P\" | grep 'BEGIN CERTIFICATE'",
             "pk12util -l key.p12 -W \"$P\" | grep -A1 'Key(shrouded)'",
             "pk12util -l certs.p12 -W \"$P\" | grep 'Subject: .*CN=CA'",
             "keytool -list -storetype pkcs12 -keystore key.p12 -storepass \"$P\" | grep PrivateKeyEntry",
             "keytool -list -storetype pkcs12 -keystore certs.p12 -storepass \"$P\" | grep trustedCertEntry",
         }) {
        if (HasTool(command)) Shell(command);
    }
}

// Several keys stay encrypted; each goes with its own certificate.
TEST_F(FileTest, KeysThatStayEncrypted) {
    const Cert second = test_pki::MakeLeaf("CN=second", ca_);
    const std::string content =
        JoinPkcs12({MakePkcs12(second.key, {second.der}), MakePkcs12(user_.key, {user_.der, ca_.der})});
    const X509CertFile file(content, kPassword);
    ASSERT_EQ(file.certs.size(), 3U);
    const std::string* const expected[] = {&second.der, &user_.der, &ca_.der};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(file.certs[i]->rawCert, *expected[i]);
        EXPECT_EQ(file.certs[i]->privKeyHandle, nullptr);
        EXPECT_EQ(file.certs[i]->pbeKey != nullptr, i < 2);
    }
    EXPECT_EQ(X509CertFile(content, "wrong").status, kP12WrongPassword);
}

// Files put together by hand: what libcrypto would not write.

std::string Bag(const char* kind, const std::string& value) {
    return der::Sequence(der::Oid(std::string("1.2.840.113549.1.12.10.1.") + kind) + der::Explicit(0, value));
}
std::string CertBag(const std::string& cert) {
    return Bag("3", der::Sequence(der::Oid("1.2.840.113549.1.9.22.1") + der::Explicit(0, der::OctetString(cert))));
}
std::string Data(const std::string& content) {
    return der::Sequence(der::Oid("1.2.840.113549.1.7.1") + der::Explicit(0, der::OctetString(content)));
}
std::string FileWith(const std::string& safe) {
    return der::Sequence(der::Integer(3) + Data(der::Sequence(safe)));
}
std::string FileOfBags(const std::string& bags) {
    return FileWith(Data(der::Sequence(bags)));
}
std::string Nested(int depth, const std::string& bag) {
    return depth == 0 ? bag : Nested(depth - 1, Bag("6", der::Sequence(bag)));
}
/// A key under a cipher that nobody here knows: it counts as many iterations as it says, and takes no time.
std::string KeyUnderUnknownCipher(std::uint64_t iterations) {
    const std::string derivation = der::Sequence(der::Oid("1.2.840.113549.1.5.12") +
                                                 der::Sequence(der::OctetString("salt") + der::Integer(iterations)));
    const std::string scheme = der::Sequence(derivation + der::Sequence(der::Oid("1.2.3.4")));
    return Bag("2", der::Sequence(der::Sequence(der::Oid("1.2.840.113549.1.5.13") + scheme) + der::OctetString("key")));
}
std::string PlainKey(const std::string& algorithm, const std::string& key) {
    return Bag("1", der::Sequence(der::Integer(0) + der::Sequence(algorithm) + der::OctetString(key)));
}
std::string UnknownKey(std::size_t bytes) {
    return PlainKey(der::Oid("1.2.3.4"), std::string(bytes, 'k'));
}
/// A file with a DSA key in the clear whose prime and private number are of those sizes.
std::string DsaKey(std::size_t prime_bytes, std::size_t private_bytes) {
    const auto number = [](std::size_t bytes) { return der::IntegerBytes(std::string(bytes, '\x55')); };
    const std::string parameters = der::Sequence(number(prime_bytes) + number(20) + number(2));
    return FileOfBags(PlainKey(der::Oid("1.2.840.10040.4.1") + parameters, number(private_bytes)));
}
/// A file whose one key is encrypted in that way; what it encrypts is nothing.
std::string KeyUnder(X509_ALGOR* algorithm) {
    const std::string der = libcrypto::Encode(libcrypto::AlgorithmPtr(algorithm).get(), i2d_X509_ALGOR);
    return FileOfBags(Bag("2", der::Sequence(der + der::OctetString("0123456789ABCDEF"))));
}
std::string RsaKey(std::size_t bytes) {
    std::string numbers = der::Integer(0);
    for (const std::size_t part : {2 * bytes, std::size_t{1}, 2 * bytes, bytes, bytes, bytes, bytes, bytes}) {
        numbers += der::IntegerBytes(std::string(part, '\x55'));
    }
    return PlainKey(der::Oid("1.2.840.113549.1.1.1"), der::Sequence(numbers));
}

TEST_F(FileTest, FilesThatNobodyWrites) {
    const std::string cert = CertBag(ca_.der);
    std::string many;
    for (int i = 0; i <= 4096; ++i) many += cert;
    const std::tuple<const char*, std::string, int> cases[] = {
        {"bags in bags", FileOfBags(Nested(4, cert)), kP12Read},
        {"and deeper", FileOfBags(Nested(5, cert)), kP12Unsupported},
        {"without content", der::Sequence(der::Integer(3) + der::Sequence(der::Oid("1.2.840.113549.1.7.1"))),
         kP12NotReadable},
        {"a part without content", FileWith(der::Sequence(der::Oid("1.2.840.113549.1.7.1"))), kP12NotReadable},
        {"for the holder of a key", FileWith(der::Sequence(der::Oid("1.2.840.113549.1.7.3"))), kP12Unsupported},
        {"too many certificates", FileOfBags(many), kP12Unsupported},
        {"RSA key", FileOfBags(cert + RsaKey(1024)), kP12Read},
        {"RSA key of too many bits", FileOfBags(cert + RsaKey(1025)), kP12Unsupported},
        {"key", FileOfBags(cert + UnknownKey(16000)), kP12Read},
        {"key too long", FileOfBags(cert + UnknownKey(16384)), kP12Unsupported},
        // What the keys say counts once, although two readers look.
        {"work", FileOfBags(cert + KeyUnderUnknownCipher(3'000'000)), kP12Read},
        {"too much work", FileOfBags(cert + KeyUnderUnknownCipher(3'000'000) + KeyUnderUnknownCipher(2'500'000)),
         kP12Unsupported},
        {"too much work behind what the password does not open",
         JoinPkcs12({KeyUnder(PKCS5_pbe2_set_iv(EVP_aes_256_cbc(), 1, nullptr, 0, nullptr, NID_hmacWithSHA256)),
                     FileOfBags(KeyUnderUnknownCipher(6'000'000))}),
         kP12WrongPassword},
    };
    for (const auto& [name, file, status] : cases) EXPECT_EQ(X509CertFile(file, kPassword).status, status) << name;
    const std::string file = MakePkcs12(user_.key, {user_.der});
    EXPECT_EQ(X509CertFile(file, std::string(4097, 'p')).status, kP12WrongPassword);
}

// Of two certificates for one key the file says which is its own, whatever their order.
TEST_F(FileTest, TheMarkedCertificateGetsTheKey) {
    const Cert old = test_pki::MakeLeaf("CN=old, O=Test", ca_, test_pki::KeyType::kRsa2048);  // of the same key
    const X509CertFile file(JoinPkcs12({FileOfBags(CertBag(old.der)), MakePkcs12(user_.key, {user_.der})}), kPassword);
    ASSERT_EQ(file.certs.size(), 2U);
    EXPECT_EQ(file.certs[0]->rawCert, user_.der);
    EXPECT_NE(file.certs[0]->privKeyHandle, nullptr);
}

// A file decides how much work it makes: within limits.
TEST_F(FileTest, CostlyFilesAreRefused) {
    constexpr int kMost = 0x7FFFFFFF;
    unsigned char salt[8] = {};
    const std::string files[] = {
        MakePkcs12(user_.key, {user_.der}, kMost),
        KeyUnder(PKCS5_pbe2_set_iv(EVP_aes_256_cbc(), kMost, salt, sizeof salt, nullptr, NID_hmacWithSHA256)),
        KeyUnder(PKCS5_pbe_set(NID_pbe_WithSHA1And3_Key_TripleDES_CBC, kMost, salt, sizeof salt)),
        KeyUnder(PKCS5_pbe2_set_scrypt(EVP_aes_256_cbc(), salt, sizeof salt, nullptr, 1 << 10, 8, 1)),
        DsaKey(513, 20),
        DsaKey(128, 1024),
        DsaKey(128, 20),  // no more than a key without a certificate
        JoinPkcs12(std::vector<std::string>(33, MakePkcs12(user_.key, {user_.der}))),
        std::string(kMaxPkcs12Bytes + 1, '0'),
    };
    for (const std::string& file : files) {
        EXPECT_EQ(X509CertFile(file, kPassword).status, kP12Unsupported) << &file - files;
    }
}

// Whatever is damaged is not read as something else, and a right password is not called wrong.
TEST_F(FileTest, DamagedFiles) {
    const Cert leaf = test_pki::MakeLeaf("CN=leaf", ca_);
    const std::string p12 = MakePkcs12(leaf.key, {leaf.der});
    const std::string files[] = {p12, test_pki::MakePkcs7({leaf.der}, {crl_}), leaf.der, crl_, leaf.Pem()};
    for (const std::string& whole : files) {
        for (std::size_t cut = 0; cut < whole.size() - 2; ++cut) {
            const X509CertFile file(whole.substr(0, cut), kPassword);
            EXPECT_TRUE(file.status != 0 && file.certs.empty() && file.crls.empty()) << cut;
        }
    }
    std::size_t damaged = 0;
    for (std::size_t bit = 0; bit < 8 * p12.size(); bit += 5) {
        std::string changed = p12;
        changed[bit / 8] = static_cast<char>(changed[bit / 8] ^ 1 << bit % 8);
        const X509CertFile file(changed, kPassword);
        if (file.status == 0) {
            EXPECT_EQ(file.certs[0]->rawCert, leaf.der) << bit;
        }
        damaged += file.status == kP12NotReadable ? 1 : 0;
    }
    EXPECT_GT(damaged, 8 * p12.size() / 5 * 9 / 10);
}

}  // namespace
}  // namespace manage_test
