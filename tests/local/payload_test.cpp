// Certificate payloads, and what a handle tells.
#include <algorithm>

#include "certmgr/cert_file.h"
#include "certmgr/chain.h"
#include "tests/local/local_fixture.h"

namespace local_test {
namespace {

class PayloadTest : public LocalTest {
  protected:
    /// DER values of a bundle, in its order.
    static Strings Unpack(const std::string& bundle) {
        const CM::X509CertFile file(bundle, "");
        EXPECT_EQ(file.status, 0);
        Strings certs;
        for (const CM::X509Cert* cert : file.certs) certs.insert(certs.begin(), cert->rawCert);
        return certs;
    }
};

TEST_F(PayloadTest, ChainsAreCutAtTheRequestedAuthorityNearestTheRoot) {
    const Cert middle = MakeCa("CN=Middle", &root_);
    const Cert leaf = MakeLeaf("CN=host", middle);
    token_->AddPersonal(leaf.der, leaf.key);
    token_->AddCertificate(root_.der, {.trusted = true});
    token_->AddCertificate(middle.der);
    Load();
    Handles<> chain;
    ASSERT_TRUE(CM::BuildLocalCertChain(chain.certs, FindLocal("CN=host")->get(), ident_));
    ASSERT_EQ(chain.certs.size(), 3U);
    // An authority that stands in the chain twice.
    std::vector<const CM::X509Cert*> crossed = chain.certs;
    crossed.insert(crossed.begin() + 1, crossed[1]);

    const auto length = [](const std::vector<const CM::X509Cert*>& certs, CM::CertDataFormat format,
                           const std::string& authority) {
        return CM::CutCertChainLength(certs, format, authority.data(), static_cast<std::uint32_t>(authority.size()));
    };
    const auto key_hash = [](const Cert& cert) { return test_pki::Digest("SHA1", cert.spki); };
    const std::tuple<std::string, CM::CertDataFormat, std::uint32_t> cases[] = {
        {leaf.subject_der, CM::kSubjectNameDer, 1},
        {middle.subject_der, CM::kSubjectNameDer, 2},
        {root_.subject_der, CM::kSubjectNameDer, 3},
        {key_hash(middle), CM::kPublicKeySha1, 2},
        {middle.subject_der, static_cast<CM::CertDataFormat>(7), 2},  // other formats mean names
        {middle.subject_der, CM::kPublicKeySha1, 0},
        {key_hash(middle), CM::kSubjectNameDer, 0},
        {middle.subject_der.substr(0, 5), CM::kSubjectNameDer, 0},
        {"", CM::kSubjectNameDer, 0},
    };
    for (const auto& [authority, format, expected] : cases) {
        EXPECT_EQ(length(chain.certs, format, authority), expected) << TO_HEX_STD_STRING(authority) << " " << format;
    }
    EXPECT_EQ(length(crossed, CM::kSubjectNameDer, middle.subject_der), 3U);
    EXPECT_EQ(length({}, CM::kSubjectNameDer, middle.subject_der), 0U);

    // The bundle of any part of it, in chain order; more than there is gives what there is.
    const Strings all = {leaf.der, middle.der, root_.der};
    for (const std::size_t count : {0U, 2U, 4U}) {
        vendor_host::ClearMessages();
        std::string bundle;
        ASSERT_TRUE(CM::VCertsListToRawPKCS7(chain.certs, static_cast<std::uint32_t>(count), bundle, ident_));
        const std::size_t size = std::min(count, all.size());
        EXPECT_EQ(Unpack(bundle), Strings(all.begin(), all.begin() + static_cast<long>(size)));
        EXPECT_EQ(vendor_host::FindMessages(kMsgCertSentPkcs7).size(), size);
    }
}

TEST_F(PayloadTest, SingleCertificatesAndTheWholeStore) {
    std::string out = "untouched";
    EXPECT_FALSE(CM::VCertHandleToRawX509(nullptr, out, ident_));
    EXPECT_EQ(out, "untouched");
    const std::string a = AddPersonal({.subject = "CN=a"});
    const std::string b = AddPersonal({.subject = "CN=b"});
    token_->AddCertificate(root_.der, {.trusted = true});
    Load();
    EXPECT_TRUE(CM::LocalCertsExportToRawPKCS7(out, ident_));
    EXPECT_EQ(Unpack(out), (Strings{a, b}));
    EXPECT_TRUE(CM::VCertHandleToRawX509(FindLocal("CN=b")->get(), out, ident_));
    EXPECT_EQ(out, b);
    EXPECT_NE(OnlyMessage(kMsgCertSentX509).find("Subject: CN=b"), std::string::npos);
}

TEST_F(PayloadTest, ACertificateEndsWithItsKey) {
    constexpr std::time_t kEnd = kNow + 10 * kDay;
    for (const auto& [key_end, expected] : {std::pair{CERT_TIME_UNKNOWN, kEnd},
                                            {CertTimeFrom_time_t(kEnd - 1), kEnd - 1},
                                            {CertTimeFrom_time_t(kEnd + 1), kEnd}}) {
        AddPersonal({.subject = "CN=host", .not_after = kEnd}, {.id = "host", .key_not_after = key_end});
        Load();
        const auto cert = FindLocal("CN=host");
        EXPECT_EQ(CM::GetCertPrivKeyExpireTime(cert->get()), expected);
        EXPECT_EQ(CM::GetCertExpireTime(cert->get()), kEnd);
        token_->Remove("host");
    }
}

}  // namespace
}  // namespace local_test
