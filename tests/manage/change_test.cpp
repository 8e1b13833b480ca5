// Imports, exports and deletions: what they answer, what the token holds afterwards, and what the log says.
#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <thread>

#include "platform/asn1.h"
#include "platform/event_codes.h"
#include "tests/manage/manage_fixture.h"

namespace manage_test {
namespace {

using CM::X509CertFile;
using test_pki::Cert;

const Cert& Root() {
    static const Cert root = test_pki::MakeCa("CN=Root, O=Test");
    return root;
}
const Cert& Leaf() {
    static const Cert leaf = test_pki::MakeLeaf("CN=leaf, O=Test", Root());
    return leaf;
}
std::string LeafWithKey() {
    return MakePkcs12(Leaf().key, {Leaf().der, Root().der});
}

enum class What : std::uint8_t { kLeaf, kLeafWithKey, kLeafStillEncrypted, kLeafBesideKey, kRoot, kUnknownCritical };

struct ImportCase {
    const char* name;
    What what;
    CertImportMode mode;
    CM::CertImportStatus expected;
    std::vector<std::string> trouble{};
    bool officer_pin = false;
    bool logged_in = true;
};

std::string ContentOf(What what) {
    const std::map<What, std::string> special = {
        {What::kLeafWithKey, LeafWithKey()},
        {What::kLeafStillEncrypted, JoinPkcs12({LeafWithKey(), MakePkcs12(Root().key, {Root().der})})},
        {What::kRoot, Root().der},
        {What::kUnknownCritical, test_pki::MakeCert({.extensions = {{"1.2.3.4", true, "\5"}}}).der},
    };
    return special.contains(what) ? special.at(what) : Leaf().der;
}

class Imports : public ManageTest, public testing::WithParamInterface<ImportCase> {
  protected:
    /// What the certificate became on the token: for whom it is, whether it is trusted, under which identifier.
    void ExpectObject(const std::string& der) const {
        const ImportCase& c = GetParam();
        std::list<PKCS11::CertObject> objects;
        ASSERT_TRUE(PKCS11::TokenSession(token_.info).EnumCertificates(objects));
        const auto object = std::find_if(objects.begin(), objects.end(), [&](const auto& o) { return o.value == der; });
        ASSERT_NE(object, objects.end());
        EXPECT_EQ(object->category, c.mode == kImportPersonal ? 1U : c.what == What::kRoot ? 2U : 3U);
        EXPECT_EQ(object->trusted, c.mode == kImportTrusted);
        EXPECT_TRUE(c.what == What::kLeafBesideKey ? object->id == "id" : object->id.size() == 8);
    }
};

TEST_P(Imports, AnswerAndLeaveNothingHalf) {
    const ImportCase& c = GetParam();
    if (c.what == What::kLeafBesideKey) Import(token_.info, PKI_KEY_EC, Leaf().key, "id");
    const X509CertFile file(ContentOf(c.what), kPassword);
    ASSERT_EQ(file.status, 0);
    const std::size_t before = ObjectsOnToken();
    if (!c.logged_in) tokens::Logout(token_.info);
    const std::string* const pin = c.officer_pin ? &token_.so_pin : nullptr;
    SetTrouble(c.trouble);
    const CM::CertImportStatus status = store().ImportCertificate(token_.info, *file.certs[0], c.mode, false, pin);
    EXPECT_STREQ(CM::CertImportStatusText(status), CM::CertImportStatusText(c.expected));
    EndTrouble();
    const bool written = c.expected == CM::ImportCertOk || c.expected == CM::ImportCertWarningTrustedNotCA;
    const bool joined = c.what == What::kLeafBesideKey;  // its key pair is not listed any more
    EXPECT_EQ(ObjectsOnToken(), before + (written && !joined ? 1 : 0));
    EXPECT_EQ(KeyOnToken(Leaf().spki), joined || (written && file.certs.size() > 1));
    if (written) ExpectObject(file.certs[0]->rawCert);
    if (c.expected != CM::ImportCertOk) return;
    const CM::CertList* const lists[] = {nullptr, &store().trustedCerts, &store().personalCerts, &store().otherCerts};
    ASSERT_EQ(lists[c.mode]->size(), 1U);
    const char* const logs[] = {"", "log 160", "log 159", "log 158"};
    EXPECT_EQ(reports_.Count(logs[c.mode]), 1U);
    EXPECT_EQ(store().ImportCertificate(token_.info, *file.certs[0], c.mode, false, pin), CM::ImportCertAlreadyExist);
}

const std::string kFull = "fail C_CreateObject CKR_DEVICE_MEMORY";
const std::vector<std::string> kKeyStays{kFull + " skip 2", "fail C_DestroyObject CKR_DEVICE_ERROR skip 1"};
const ImportCase kImports[] = {
    {"other", What::kLeaf, kImportOther, CM::ImportCertOk},
    {"trusted", What::kRoot, kImportTrusted, CM::ImportCertOk, {}, true},
    {"trusted_not_ca", What::kLeaf, kImportTrusted, CM::ImportCertWarningTrustedNotCA, {}, true},
    {"personal_beside_its_key", What::kLeafBesideKey, kImportPersonal, CM::ImportCertOk},
    {"personal_with_key", What::kLeafWithKey, kImportPersonal, CM::ImportCertOk},
    {"personal_still_encrypted", What::kLeafStillEncrypted, kImportPersonal, CM::ImportCertOk},
    {"personal_without_key", What::kLeaf, kImportPersonal, CM::ImportCertErrorNotPersonal},
    {"personal_logged_out", What::kLeafBesideKey, kImportPersonal, CM::ImportCertErrorLogin, {}, false, false},
    {"unusable", What::kUnknownCritical, kImportOther, CM::ImportCertErrorUnknownCriticalExtension},
    {"trusted_by_the_user", What::kRoot, kImportTrusted, CM::ImportCertErrorLoginSO},
    {"other_logged_out", What::kLeaf, kImportOther, CM::ImportCertErrorLogin, {}, false, false},
    {"key_logged_out", What::kLeafWithKey, kImportPersonal, CM::ImportCertErrorLogin, {}, false, false},
    {"other_token_gone", What::kLeaf, kImportOther, CM::ImportCertErrorOpenTokenSession, {"hide one"}},
    {"trusted_token_gone", What::kRoot, kImportTrusted, CM::ImportCertErrorOpenTokenSession, {"hide one"}},
    {"other_refused", What::kLeaf, kImportOther, CM::ImportCertError, {kFull}},
    {"trusted_refused", What::kRoot, kImportTrusted, CM::ImportCertError, {kFull}, true},
    {"trusted_not_ca_refused", What::kLeaf, kImportTrusted, CM::ImportCertErrorNotTrusted, {kFull}, true},
    {"key_refused", What::kLeafWithKey, kImportPersonal, CM::ImportCertErrorPrivKey, {kFull}},
    {"public_key_refused", What::kLeafWithKey, kImportPersonal, CM::ImportCertErrorPubKey, {kFull + " skip 1"}},
    {"certificate_refused", What::kLeafWithKey, kImportPersonal, CM::ImportCertError, {kFull + " skip 2"}},
    {"public_key_stays_at_first", What::kLeafWithKey, kImportPersonal, CM::ImportCertError, kKeyStays},
};
INSTANTIATE_TEST_SUITE_P(, Imports, testing::ValuesIn(kImports), [](const auto& test) { return test.param.name; });

class Changes : public ManageTest {
  protected:
    CM::CertImportStatus ImportOne(const X509CertFile& file, CertImportMode mode, bool exportable = true) {
        const std::string* const pin = mode == kImportTrusted ? &token_.so_pin : nullptr;
        return store().ImportCertificate(token_.info, *file.certs[0], mode, exportable, pin);
    }
    /// With its key. Nothing comes out of a failure.
    std::uint32_t ExportKey(const CertInfo& info) {
        std::string out;
        const auto status = store().ExportCertificate(token_.info, info, kExportPkcs12, kPassword, false, true, out);
        EXPECT_EQ(out.empty(), status != CM::ExportCertOk);
        return status;
    }
    void ExpectNothingLeft() const {
        EXPECT_EQ(std::pair(ObjectsOnToken(), KeyOnToken(Leaf().spki)), std::pair(std::size_t{0}, false));
    }
    void ImportAll() {
        ASSERT_EQ(ImportOne({LeafWithKey(), kPassword}, kImportPersonal), 0U);
        ASSERT_EQ(ImportOne({Root().der, ""}, kImportTrusted), 0U);
        ASSERT_EQ(LogIn(token_), tokens::PinResult::kDone);  // the officer's login ended the user's
    }
};

// What is there already is not judged again, and a warning is no import that the log or a reload knows of.
TEST_F(Changes, ImportsThatChangeNothingVisible) {
    const X509CertFile leaf(Leaf().der, "");
    EXPECT_EQ(ImportOne(leaf, kImportTrusted), CM::ImportCertWarningTrustedNotCA);
    EXPECT_EQ(ObjectsOnToken(), 1U);
    EXPECT_EQ(store().trustedCerts.size(), 0U);
    EXPECT_EQ(reports_.Count("log " + std::to_string(kMsgTrustedCertImported)), 0U);
    store().Reload();
    leaf.certs[0]->info.signAlg = 0;
    EXPECT_EQ(ImportOne(leaf, kImportOther), CM::ImportCertAlreadyExist);
}

// A key that may not leave stays, and goes with its certificate; when it cannot, the log says so.
TEST_F(Changes, KeysThatStay) {
    const X509CertFile file(LeafWithKey(), kPassword);
    ASSERT_EQ(ImportOne(file, kImportPersonal, false), 0U);
    const CertInfo info = store().personalCerts[0]->info;
    EXPECT_EQ(ExportKey(info), CM::ExportCertErrorPrivKey);
    control_.Set({"fail C_DestroyObject CKR_DEVICE_ERROR skip 1"});
    store().DeleteCertificate(token_.info, info);
    EXPECT_EQ(reports_.Count("(without key)"), 1U);
}

// Whatever moment of an import the token is taken away at: no key without its certificate is there once it is back.
TEST_F(Changes, TokenRemovedInMidImport) {
    const X509CertFile file(LeafWithKey(), kPassword);
    for (int created = 1; created <= 2; ++created) {
        control_.Set({"trace C_CreateObject", "delay C_CreateObject 100"});
        const int before = control_.Calls("C_CreateObject");
        std::thread thief([&] {
            while (control_.Calls("C_CreateObject") < before + created) std::this_thread::yield();
            control_.Set({"hide one"});
        });
        EXPECT_NE(ImportOne(file, kImportPersonal), 0U);
        thief.join();
        ASSERT_TRUE(WaitUntilListed("one", false));
        EndTrouble();
        EXPECT_EQ(store().keyPairCerts.size(), 0U);
        ExpectNothingLeft();
    }
}

// A key pair that resists is deleted in the end, though not tried at each reload for ever.
TEST_F(Changes, WhatCannotBeDeletedIsTriedForLong) {
    const X509CertFile file(LeafWithKey(), kPassword);
    const std::time_t start = vpnfc::CurrentTime();
    control_.Set({"fail C_CreateObject CKR_DEVICE_MEMORY skip 2", "fail C_DestroyObject CKR_DEVICE_ERROR",
                  "trace C_DestroyObject"});
    EXPECT_EQ(ImportOne(file, kImportPersonal), CM::ImportCertError);
    for (const auto& [minutes, tried] : {std::pair(1, true), {11, true}, {12, false}, {72, true}}) {
        vpnfc::SetCurrentTimeForTesting(start + 60 * minutes);
        const int before = control_.Calls("C_DestroyObject");
        store().ReloadCertificates();
        EXPECT_EQ(control_.Calls("C_DestroyObject") > before, tried) << minutes;
    }
    // Nobody is logged in for it.
    ASSERT_TRUE(tokens::Logout(token_.info));
    AddPinFile("one", token_.pin, 0600, false);
    Apply();
    control_.Set({"trace C_Login"});
    vpnfc::SetCurrentTimeForTesting(start + 60 * 200);
    store().ReloadCertificates();
    EXPECT_EQ(control_.Calls("C_Login"), 0);
    ASSERT_EQ(LogIn(token_), tokens::PinResult::kDone);
    store().ReloadCertificates();
    vpnfc::SetCurrentTimeForTesting(std::nullopt);
    ExpectNothingLeft();
}

TEST_F(Changes, Exports) {
    ImportAll();
    const CertInfo info = store().personalCerts[0]->info;
    for (const bool more : {true, false}) {  // chain and key, or neither
        for (const CertExportFormat format : {kExportDer, kExportPem, kExportPkcs7, kExportPkcs12}) {
            std::string out;
            ASSERT_EQ(store().ExportCertificate(token_.info, info, format, kPassword, more, more, out), 1U);
            const X509CertFile file(out, kPassword);
            ASSERT_EQ(file.certs.size(), more && format >= kExportPkcs7 ? 2U : 1U) << format;
            EXPECT_EQ(file.certs[0]->privKeyHandle != nullptr, more && format == kExportPkcs12);
        }
    }
    std::string out;
    EXPECT_EQ(ExportKey(CertInfo{}), CM::ExportCertNotFound);
    EXPECT_EQ(store().ExportCertificate(token_.info, info, CertExportFormat(5), "", true, true, out),
              CM::ExportCertUnknownFormat);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(ExportKey(store().trustedCerts[0]->info), CM::ExportCertErrorPrivKey);
}

TEST_F(Changes, DeletionsSayWhatWent) {
    ImportAll();
    const X509CertFile other(test_pki::MakeLeaf("CN=other", Root()).der, "");
    ASSERT_EQ(ImportOne(other, kImportOther), 0U);
    Import(token_.info, PKI_KEY_EC, test_pki::MakeKey(test_pki::KeyType::kEcP256, 7), "pair");
    store().Reload();
    ASSERT_EQ(store().keyPairCerts.size(), 1U);
    int log = 150;  // deleted; four numbers on: not deleted, when it is gone already
    for (const auto* list :
         {&store().otherCerts, &store().personalCerts, &store().trustedCerts, &store().keyPairCerts}) {
        const CertInfo info = (*list)[0]->info;
        for (const int number : {log, log + 4}) {
            store().DeleteCertificate(token_.info, info);
            EXPECT_EQ(reports_.Count("log " + std::to_string(number)), 1U) << number;
        }
        ++log;
    }
    EXPECT_EQ(reports_.Count("(without key)"), 0U);
    ExpectNothingLeft();
    // What somebody else deleted leaves the list, too.
    ASSERT_EQ(ImportOne(other, kImportOther), 0U);
    const CertInfo info = store().otherCerts[0]->info;
    ASSERT_TRUE(PKCS11::TokenSession(token_.info, PKCS11::TokenSession::kPrivate).DeleteCertObject(info));
    store().DeleteCertificate(token_.info, info);
    EXPECT_EQ(store().otherCerts.size(), 0U);
}

// Serial numbers that nobody should give are in use: negative ones, and longer than a line of their text.
TEST_F(Changes, AnySerialNumberIsFoundOnTheToken) {
    for (const std::string& serial : {std::string("\x85"), std::string("\x80"), "\x01" + std::string(39, '\x23')}) {
        const X509CertFile file(test_pki::MakeCert({.serial = serial}, &Root()).der, "");
        ASSERT_EQ(ImportOne(file, kImportOther), 0U);
        store().DeleteCertificate(token_.info, file.certs[0]->info);
        EXPECT_EQ(ObjectsOnToken(), 0U) << file.certs[0]->info.serialNumber;
    }
}

TEST_F(Changes, CrlsAndPresharedKeys) {
    const X509CertFile file(test_pki::MakeCrl({}, Root()), "");
    ASSERT_EQ(store().ImportCRL(token_.info, *file.crls[0]), CM::ImportCrlOk);
    ASSERT_TRUE(store().CreatePresharedKey(token_.info, {"peer"}, "secret"));
    EXPECT_FALSE(store().CreatePresharedKey(token_.info, {"peer"}, "other"));
    std::string value;
    EXPECT_TRUE(CM::IsValidPresharedKey("peer", {}) && !CM::IsValidPresharedKey("pee", {}));
    EXPECT_TRUE(CM::GetPresharedKeyByName("peer", value) && value == "secret");
    control_.Set({kFull});
    EXPECT_EQ(store().ImportCRL(token_.info, *file.crls[0]), CM::ImportCrlError);
    control_.Set({});
    ASSERT_EQ(store().crls.size(), 1U);
    const CRLInfo crl(store().crls[0]->info);
    for (int again = 0; again < 2; ++again) {  // what is gone already is told all the same
        store().DeleteCRL(token_.info, crl);
        store().DeletePresharedKey(token_.info, {"peer"});
        EXPECT_TRUE(store().crls.empty() && store().presharedKeys.empty());
    }
    std::vector<std::size_t> counts;
    for (const char* log : {"log 161", "log 162", "log 163", "log 164"}) counts.push_back(reports_.Count(log));
    EXPECT_EQ(counts, (std::vector<std::size_t>{2, 1, 2, 1}));
}

// Nobody logged in, or no token: nothing is changed and nothing logged.
TEST_F(Changes, WithoutASessionNothingHappens) {
    ImportAll();
    const X509CertFile file(test_pki::MakeCrl({}, Root()), "");
    ASSERT_EQ(store().ImportCRL(token_.info, *file.crls[0]), CM::ImportCrlOk);
    ASSERT_TRUE(store().CreatePresharedKey(token_.info, {"peer"}, "secret"));
    const CertInfo leaf = store().personalCerts[0]->info;
    const CRLInfo crl(store().crls[0]->info);
    for (const bool gone : {false, true}) {
        if (gone) {
            SetTrouble({"hide one"});
            store().DeleteCRL(token_.info, crl);  // would need no login
        } else {
            tokens::Logout(token_.info);
        }
        EXPECT_EQ(ExportKey(leaf), gone ? CM::ExportCertError : CM::ExportCertErrorLogin);
        EXPECT_EQ(store().ImportCRL(token_.info, *file.crls[0]), gone ? CM::ImportCrlError : CM::ImportCrlErrorLogin);
        EXPECT_FALSE(store().CreatePresharedKey(token_.info, {"two"}, "secret"));
        store().DeletePresharedKey(token_.info, {"peer"});
        store().DeleteCertificate(token_.info, leaf);
    }
    EndTrouble();
    EXPECT_EQ(store().personalCerts.size() + store().crls.size() + store().presharedKeys.size(), 3U);
    for (const char* log : {"log 151", "log 155", "log 161", "log 163"}) EXPECT_EQ(reports_.Count(log), 0U) << log;
    EXPECT_EQ(reports_.Count("log 164") + reports_.Count("log 162"), 2U);
}

// Seconds and a counter of 16 bits: two imports in one second, and those around the counter's end, differ.
TEST(ObjectIds, HoldTheTimeAndACounter) {
    vpnfc::SetCurrentTimeForTesting(test_pki::kNow);
    std::set<std::string> seen;
    for (int i = 0; i < 0x10000; ++i) {
        std::string id = "before";
        CM::CertStorage::GenNewCertObjectId(id);
        ASSERT_EQ(id.size(), sizeof(std::uint64_t));
        ASSERT_TRUE(seen.insert(id).second) << i;
    }
    std::uint64_t value = 0;
    std::memcpy(&value, seen.begin()->data(), sizeof value);
    EXPECT_EQ(value >> 16, static_cast<std::uint64_t>(test_pki::kNow));
    vpnfc::SetCurrentTimeForTesting(std::nullopt);
}

TEST(ImportStatus, NamesStandAtTheirNumbers) {
    EXPECT_STREQ(CM::CertImportStatusText(10), "ImportCertErrorNotTrusted");
    EXPECT_STREQ(CM::CertImportStatusText(19), "ImportCertWarningTrustedNotCA");
    EXPECT_STREQ(CM::CertImportStatusText(20), "ImportCertErrorUnknown");
}

// What becomes of a file: what is proposed for it, and what is reported when the daemon has it without a person.
TEST_F(Changes, ImportsFiles) {
    const auto import = [](const std::string& content, const char* password = kPassword) {
        std::string report;
        return CM::ImportCertsFromFile(content, password, &report) ? "done" : report;
    };
    const auto proposed = [&](const std::string& content) {
        CertImportOption option;
        CM::GetCertImportOption({PKCS11::TokenInfo{}, token_.info}, X509CertFile(content, kPassword).certs[0], option);
        EXPECT_EQ(option.tokens, std::vector<std::uint32_t>{1});
        return option.mode;
    };
    EXPECT_EQ(proposed(LeafWithKey()), kImportPersonal);
    EXPECT_EQ(proposed(Root().der), kImportTrusted);
    EXPECT_EQ(proposed(Leaf().der), kImportOther);
    EXPECT_EQ(import(Leaf().der), "Key Pair not found for cert: CN=leaf, O=Test");
    EXPECT_EQ(import(LeafWithKey(), "wrong"), "wrong password");
    EXPECT_EQ(import("nonsense"), "can't parse cert data");
    EXPECT_EQ(import(test_pki::MakeCrl({}, Root())), "done");
    X509CertFile(JoinPkcs12({LeafWithKey(), LeafWithKey()}), kPassword);
    EXPECT_EQ(reports_.Count("log 166"), 1U);  // of two keys for one certificate
    EXPECT_EQ(import(Root().der), "ImportCertErrorLoginSO: CN=Root, O=Test");
    Import(token_.info, PKI_KEY_EC, Leaf().key, "id");
    EXPECT_EQ(proposed(Leaf().der), kImportPersonal);
    for (int again = 0; again < 2; ++again) EXPECT_EQ(import(Leaf().der), "done");
    SetTrouble({"hide one"});
    EXPECT_EQ(import(Leaf().der), "no tokens to import");
}

}  // namespace
}  // namespace manage_test
