// Certificate payloads, and what a handle tells.
#include <algorithm>

#include "certmgr/cert_engine.h"
#include "certmgr/chain.h"
#include "tests/local/local_fixture.h"

namespace local_test {
namespace {

class PayloadTest : public LocalTest {
  protected:
    /// DER values of a bundle, in its order.
    static std::vector<std::string> Unpack(const std::string& bundle) {
        std::vector<void*> handles;
        EXPECT_EQ(CertEngine_ReadP7CCertData(bundle.data(), static_cast<unsigned>(bundle.size()), handles, nullptr), 0);
        std::vector<std::string> certs;
        for (void* handle : handles) {
            CertEngine_RawCert(handle, certs.emplace_back());
            CertEngine_CloseCertHandle(handle);
        }
        std::ranges::reverse(certs);
        return certs;
    }
};

TEST_F(PayloadTest, ChainsAreCutAtTheRequestedAuthorityNearestTheRoot) {
    const test_pki::Cert middle = test_pki::MakeCa("CN=Middle", &root_, KeyType::kEcP256, 1);
    const test_pki::Cert leaf = test_pki::MakeLeaf("CN=host", middle);
    token_->AddPersonal(leaf.der, leaf.key);
    token_->AddCertificate(root_.der, {.trusted = true});
    token_->AddCertificate(middle.der);
    Load();
    const auto local = FindLocal("CN=host");
    std::vector<const CM::X509Cert*> chain;
    ASSERT_TRUE(CM::BuildLocalCertChain(chain, local->get(), ident_));
    ASSERT_EQ(chain.size(), 3U);

    const auto key_hash = [](const test_pki::Cert& cert) { return test_pki::Digest("SHA1", cert.spki); };
    struct Case {
        const char* name;
        std::string authority;
        CM::CertDataFormat format;
        std::uint32_t length;
    };
    const Case cases[] = {
        {"leaf by name", leaf.subject_der, CM::kSubjectNameDer, 1},
        {"middle by name", middle.subject_der, CM::kSubjectNameDer, 2},
        {"root by name", root_.subject_der, CM::kSubjectNameDer, 3},
        {"middle by key", key_hash(middle), CM::kPublicKeySha1, 2},
        {"root by key", key_hash(root_), CM::kPublicKeySha1, 3},
        {"other formats mean names", middle.subject_der, static_cast<CM::CertDataFormat>(7), 2},
        {"name as key", middle.subject_der, CM::kPublicKeySha1, 0},
        {"key as name", key_hash(middle), CM::kSubjectNameDer, 0},
        {"stranger", test_pki::NameDer("CN=Stranger"), CM::kSubjectNameDer, 0},
        {"prefix", middle.subject_der.substr(0, 5), CM::kSubjectNameDer, 0},
        {"nothing", "", CM::kSubjectNameDer, 0},
    };
    for (const Case& test : cases) {
        EXPECT_EQ(CM::CutCertChainLength(chain, test.format, test.authority.data(),
                                         static_cast<std::uint32_t>(test.authority.size())),
                  test.length)
            << test.name;
    }
    // An authority that stands in the chain twice.
    const std::vector<const CM::X509Cert*> crossed = {chain[0], chain[1], chain[1], chain[2]};
    EXPECT_EQ(CM::CutCertChainLength(crossed, CM::kSubjectNameDer, middle.subject_der.data(),
                                     static_cast<std::uint32_t>(middle.subject_der.size())),
              3U);
    EXPECT_EQ(CM::CutCertChainLength({}, CM::kSubjectNameDer, nullptr, 0), 0U);

    // The bundle of any part of it, in chain order; more than there is gives what there is.
    const std::vector<std::string> all = {leaf.der, middle.der, root_.der};
    for (const std::uint32_t count : {0U, 1U, 2U, 3U, 4U}) {
        vendor_host::ClearMessages();
        std::string bundle;
        ASSERT_TRUE(CM::VCertsListToRawPKCS7(chain, count, bundle, ident_));
        const auto size = std::min<std::size_t>(count, all.size());
        EXPECT_EQ(Unpack(bundle), std::vector<std::string>(all.begin(), all.begin() + static_cast<long>(size)));
        EXPECT_EQ(vendor_host::FindMessages(kMsgCertSentPkcs7).size(), size);
    }
    for (const CM::X509Cert* cert : chain) CM::VCertHandleClose(cert);
}

TEST_F(PayloadTest, SingleCertificatesAndTheWholeStore) {
    std::string out = "untouched";
    EXPECT_FALSE(CM::VCertHandleToRawX509(nullptr, out, ident_));
    EXPECT_EQ(out, "untouched");
    EXPECT_TRUE(CM::LocalCertsExportToRawPKCS7(out, ident_));
    EXPECT_TRUE(Unpack(out).empty());

    const std::string a = AddPersonal({.subject = "CN=a"});
    const std::string b = AddPersonal({.subject = "CN=b"});
    token_->AddCertificate(root_.der, {.trusted = true});
    Load();
    EXPECT_TRUE(CM::LocalCertsExportToRawPKCS7(out, ident_));
    EXPECT_EQ(Unpack(out), (std::vector<std::string>{a, b}));
    EXPECT_TRUE(vendor_host::Messages().empty());

    const auto cert = FindLocal("CN=b");
    EXPECT_TRUE(CM::VCertHandleToRawX509(cert->get(), out, ident_));
    EXPECT_EQ(out, b);
    EXPECT_NE(OnlyMessage(kMsgCertSentX509).find("Subject: CN=b"), std::string::npos);
}

TEST_F(PayloadTest, HandlesTellTheirCertificate) {
    constexpr std::time_t kEnd = kNow + 10 * kDay;
    struct Case {
        const char* subject;
        cert_time64_t key_end;
        std::time_t expected;
    };
    const Case cases[] = {
        {"CN=no key period", CERT_TIME_UNKNOWN, kEnd},
        {"CN=key ends before", CertTimeFrom_time_t(kEnd - 1), kEnd - 1},
        {"CN=key ends with it", CertTimeFrom_time_t(kEnd), kEnd},
        {"CN=key ends after", CertTimeFrom_time_t(kEnd + 1), kEnd},
    };
    for (const Case& test : cases) {
        AddPersonal({.subject = test.subject, .not_after = kEnd}, {.key_not_after = test.key_end});
    }
    Load();
    for (const Case& test : cases) {
        SCOPED_TRACE(test.subject);
        const auto cert = FindLocal(test.subject);
        EXPECT_EQ(CM::GetCertPrivKeyExpireTime(cert->get()), test.expected);
        EXPECT_EQ(CM::GetCertExpireTime(cert->get()), kEnd);
        EXPECT_EQ(CM::GetCertKeyAlg(cert->get()), PKI_KEY_EC);
        EXPECT_EQ(CM::GetCertToken(cert->get()).label, "card");
        EXPECT_EQ(CM::GetCertInfo(cert->get()).subject, test.subject);
    }
    CM::VCertHandleClose(nullptr);
}

}  // namespace
}  // namespace local_test
