// Which certificate is chosen for a rule, and what is said about the others.
#include <functional>
#include <future>
#include <list>

#include "certmgr/findlocal.h"
#include "platform/params.h"
#include "tests/local/local_fixture.h"
#include "tests/support/wait.h"

namespace local_test {
namespace {

constexpr auto kFqdn = LPCFG::ipsecid_t::kFqdn;
constexpr auto kIp4 = LPCFG::ipsecid_t::kIp4;
constexpr auto kEmail = LPCFG::ipsecid_t::kEmail;
constexpr auto kDn = LPCFG::ipsecid_t::kDn;

class SelectTest : public LocalTest {
  protected:
    CM::SelectLocalResult Select(const LPCFG::auth_ike_t& rule, std::uint32_t mode = CM::kIgnoreBoundCollect,
                                 CM::IkeCertRequestIter* requests = nullptr, LPCFG::ipsecid_t* id = nullptr,
                                 const std::string* excluded = nullptr) {
        return CM::IkeSelectLocalCertificate(id, rule, static_cast<CM::UseHandleFromAuthType>(mode), excluded, requests,
                                             ident_);
    }
};

// --- Filters ---

struct FilterCase {
    const char* name;
    std::uint32_t status;
    const char* report;  // in the log; null: selected
    CertSpec cert{.subject = "CN=host"};
    cert_time64_t key_not_after = CERT_TIME_UNKNOWN;
    std::function<void(LPCFG::auth_ike_t&)> rule = [](LPCFG::auth_ike_t&) {};
    bool stranger_requested = false;
};

void OtherIdentity(LPCFG::auth_ike_t& rule) {
    rule.id_local.push_back(Id(kFqdn, "other.example"));
}

const CertSpec kFuture{.subject = "CN=host", .not_before = kNow + kDay};
const CertSpec kPast{.subject = "CN=host", .not_after = kNow - kDay};
const CertSpec kWebOnly{.subject = "CN=host", .eku = {"serverAuth"}};
const cert_time64_t kKeyEnded = CertTimeFrom_time_t(kNow - 1);

// The last five have two faults each, neighbours in the order of the filters: the earlier one decides.
const FilterCase kFilters[] = {
    {"passes", 1, nullptr},
    {"future", 2, ": cert_local[1]: Will be valid from: 2030-01-02 00:00:00 UTC", kFuture},
    {"past", 3, ": cert_local[1]: Not valid after: 2029-12-31 00:00:00 UTC", kPast},
    {"key ended",
     4,
     ": cert_local[1]: Prvate Key not valid after: 2029-12-31 23:59:59 UTC",
     {.subject = "CN=host"},
     kKeyEnded},
    {"first second", 1, nullptr, {.subject = "CN=host", .not_before = kNow}},
    {"last second", 1, nullptr, {.subject = "CN=host", .not_after = kNow}, CertTimeFrom_time_t(kNow)},
    {"identity",
     5,
     ": cert_local[1]: Not matched to 'id_local'",
     {.subject = "CN=host"},
     CERT_TIME_UNKNOWN,
     OtherIdentity},
    {"identity as written",
     1,
     nullptr,
     {.subject = "CN=host"},
     CERT_TIME_UNKNOWN,
     [](LPCFG::auth_ike_t& rule) {
         OtherIdentity(rule);
         rule.no_map_id_local = true;
     }},
    {"purpose", 9, ": cert_local[1]: Missing IKE/IPsec Extended Key Usage", kWebOnly},
    {"purpose among others", 1, nullptr, {.subject = "CN=host", .eku = {"serverAuth", "ipsecIKE"}}},
    {"not requested", 1, nullptr, {.subject = "CN=host"}, CERT_TIME_UNKNOWN, [](LPCFG::auth_ike_t&) {}, true},
    {"identity before future", 5, "Not matched to 'id_local'", kFuture, CERT_TIME_UNKNOWN, OtherIdentity},
    {"future before past",
     2,
     "Will be valid from: ",
     {.subject = "CN=host", .not_before = kNow + kDay, .not_after = kNow - kDay}},
    {"past before key", 3, "Not valid after: ", kPast, kKeyEnded},
    {"key before purpose", 4, "Prvate Key not valid after: ", kWebOnly, kKeyEnded},
    {"purpose before request", 9, "Missing IKE/IPsec Extended Key Usage", kWebOnly, CERT_TIME_UNKNOWN,
     [](LPCFG::auth_ike_t&) {}, true},
};

TEST_F(SelectTest, FiltersDecideInTheirOrder) {
    for (const FilterCase& test : kFilters) {
        SCOPED_TRACE(test.name);
        AddPersonal(test.cert, {.id = "host", .key_not_after = test.key_not_after});
        Load();
        LPCFG::auth_ike_t rule;
        rule.name = "office";
        test.rule(rule);
        Requests stranger(test_pki::NameDer("CN=Stranger"));

        const auto result = Select(rule, CM::kIgnoreBoundFirst, test.stranger_requested ? &stranger : nullptr);
        const Handle cert(result.cert);
        EXPECT_EQ(result.status, test.status);
        EXPECT_EQ(cert.Subject(), "CN=host");  // alone, it is the answer whatever its fault
        if (test.report == nullptr) {
            EXPECT_NE(OnlyMessage(kMsgLocalCertSelected), "");
            EXPECT_EQ(OnlyMessage(kMsgLocalCertSelected).find(" (Not matched to CR)") != std::string::npos,
                      test.stranger_requested);
        } else {
            EXPECT_NE(OnlyMessage(kMsgLocalCertNotFound).find(test.report), std::string::npos)
                << vendor_host::AllText();
        }
        token_->Remove("host");
    }
}

TEST_F(SelectTest, MissingPurposeIsAcceptedWhenTheSettingsSaySo) {
    AddPersonal(kWebOnly);
    Load();
    {
        const vpnfc::ObjectLock lock(LPARAMS::server.cert);
        LPARAMS::server.cert.allow_missing_ike_eku.on = true;
    }
    const auto result = Select({});
    const Handle cert(result.cert);
    EXPECT_EQ(result.status, CM::kLocalAccepted);
}

TEST_F(SelectTest, InfoGivesTheTimeBehindAStatus) {
    AddPersonal({.subject = "CN=host", .not_before = kNow - kDay, .not_after = kNow + kDay},
                {.key_not_after = CertTimeFrom_time_t(kNow)});
    Load();
    const auto cert = FindLocal("CN=host");
    const auto info = [&](std::uint32_t status) {
        std::string text = "untouched";
        CM::SelectLocalResult{status, cert->get()}.GetInfo(&text);
        return text;
    };
    EXPECT_EQ(info(2), "2029-12-31 00:00:00 UTC");
    EXPECT_EQ(info(3), "2030-01-02 00:00:00 UTC");
    EXPECT_EQ(info(4), "2030-01-01 00:00:00 UTC");
    EXPECT_EQ(info(1), "untouched");
    EXPECT_EQ(info(11), "untouched");
}

// What leaves no record does not stand in the way of the single-record answer, and is not reported.
TEST_F(SelectTest, SkippedCertificatesLeaveNoRecord) {
    const std::string expired = AddPersonal(kPast);
    AddPersonal({.subject = "CN=excluded"});
    AddPersonal({.subject = "CN=no pattern"});
    vendor_host::AddToken("second")->AddPersonal(expired, test_pki::MakeKey(KeyType::kEcP256));  // the same DER
    Load();

    LPCFG::auth_ike_t rule;
    rule.cert_local = {SubjectPattern("CN=excluded"), SubjectPattern("CN=host"), SubjectPattern("CN=host")};
    const std::string excluded = "CN=excluded";
    const auto result = Select(rule, CM::kIgnoreBoundCollect, nullptr, nullptr, &excluded);
    const Handle cert(result.cert);
    EXPECT_EQ(result.status, CM::kLocalExpired);
    EXPECT_EQ(cert.Subject(), "CN=host");
    const std::string report = OnlyMessage(kMsgLocalCertNotFound);
    EXPECT_NE(report.find("Certificate 1: cert_local[2]: Not valid after: "), std::string::npos) << report;
    EXPECT_EQ(report.find("Certificate 2"), std::string::npos) << report;
    EXPECT_NE(report.find(", exclude subject name: CN=excluded"), std::string::npos) << report;

    // An empty excluded subject excludes nothing.
    const std::string nothing;
    const auto chosen = Select(rule, CM::kIgnoreBoundCollect, nullptr, nullptr, &nothing);
    EXPECT_EQ(Handle(chosen.cert).Subject(), "CN=excluded");
}

TEST_F(SelectTest, TwoRefusedCertificatesGiveNoneAndBothReasons) {
    AddPersonal({.subject = "CN=first", .not_after = kNow - kDay});
    AddPersonal({.subject = "CN=second", .eku = {"serverAuth"}});
    Load();
    const std::string excluded(100'000, 'x');
    const auto result = Select({}, CM::kIgnoreBoundCollect, nullptr, nullptr, &excluded);
    EXPECT_EQ(result.status, CM::kLocalNotFound);
    EXPECT_EQ(result.cert, nullptr);
    EXPECT_LT(OnlyMessage(kMsgLocalCertNotFound).size(), 6000U) << "a long name is cut";
    const std::string report = OnlyMessage(kMsgLocalCertNotFound);
    EXPECT_NE(report.find(" - 'cert_local' is empty"), std::string::npos) << report;
    EXPECT_LT(report.find("Certificate 1: cert_local[1]: Not valid after: "),
              report.find("Certificate 2: cert_local[1]: Missing IKE/IPsec Extended Key Usage"))
        << report;
}

// --- Patterns and modes ---

TEST_F(SelectTest, PatternsAreTriedInTheRulesOrderThenTheStores) {
    AddPersonal({.subject = "CN=a"});
    AddPersonal({.key = KeyType::kRsa2048, .subject = "CN=b"});
    AddPersonal({.key = KeyType::kRsa2048, .subject = "CN=c"});
    Load();

    LPCFG::cert_t by_issuer;
    by_issuer.issuer = "O=Test";
    by_issuer.issuerExact = false;
    struct Case {
        const char* name;
        std::list<LPCFG::cert_t> patterns;
        pki_alg_t alg;
        const char* first;
    };
    const Case cases[] = {
        {"store order", {}, 0, "CN=a"},
        {"algorithm without patterns", {}, PKI_KEY_RSA, "CN=b"},
        {"no certificate of that algorithm", {}, PKI_KEY_DSA, ""},
        {"algorithm is not looked at beside patterns", {by_issuer}, PKI_KEY_RSA, "CN=a"},
        {"pattern order", {SubjectPattern("CN=none"), SubjectPattern("CN=c"), by_issuer}, 0, "CN=c"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        LPCFG::auth_ike_t rule;
        rule.cert_local = test.patterns;
        rule.authAlg = test.alg;
        for (const std::uint32_t mode : {CM::kIgnoreBoundFirst, CM::kUseBoundFirst}) {
            const Handle cert(Select(rule, mode).cert);
            EXPECT_EQ(cert.Subject(), test.first);
        }
    }
    EXPECT_TRUE(vendor_host::Questions().empty());  // the first one is the answer: nobody is asked
}

TEST_F(SelectTest, BoundCertificatePassesEveryOtherFilter) {
    AddPersonal({.subject = "CN=free"});
    AddPersonal({.subject = "CN=bound", .eku = {"serverAuth"}});
    Load();
    const auto bound = FindLocal("CN=bound");
    LPCFG::auth_ike_t rule;
    rule.boundCert = bound->get();
    rule.cert_local = {SubjectPattern("CN=free")};
    Requests stranger(test_pki::NameDer("CN=Stranger"));
    const std::string excluded = "CN=bound";

    for (const std::uint32_t mode : {CM::kUseBoundFirst, CM::kUseBoundCollect}) {
        EXPECT_EQ(Handle(Select(rule, mode, &stranger, nullptr, &excluded).cert).Subject(), "CN=bound");
    }
    for (const std::uint32_t mode : {CM::kIgnoreBoundFirst, CM::kIgnoreBoundCollect}) {
        EXPECT_EQ(Handle(Select(rule, mode).cert).Subject(), "CN=free");
    }

    // Only its validity counts; the answer carries it with the reason.
    vpnfc::SetCurrentTimeForTesting(test_pki::kNotAfter + 1);
    const auto expired = Select(rule, CM::kUseBoundFirst);
    EXPECT_EQ(Handle(expired.cert).Subject(), "CN=bound");
    EXPECT_EQ(expired.status, CM::kLocalExpired);
    EXPECT_FALSE(CM::IsValidLocalCertificateHandle(bound->get()));
    vpnfc::SetCurrentTimeForTesting(kNow);
    EXPECT_TRUE(CM::IsValidLocalCertificateHandle(bound->get()));

    // Gone from the store: nothing is returned and nothing is logged.
    token_->Remove(bound->get()->info.id);
    Load();
    const auto missing = Select(rule, CM::kUseBoundFirst | CM::kWaitForReload);
    EXPECT_EQ(missing.status, CM::kLocalBoundMissing);
    EXPECT_EQ(missing.cert, nullptr);
    EXPECT_TRUE(vendor_host::Messages().empty());
    EXPECT_FALSE(CM::IsValidLocalCertificateHandle(bound->get()));
    EXPECT_FALSE(CM::IsValidLocalCertificateHandle(nullptr));
}

TEST_F(SelectTest, RequestsPreferButDoNotExclude) {
    AddPersonal({.subject = "CN=a"});
    Load();
    Requests root(root_.subject_der);
    Requests stranger(test_pki::NameDer("CN=Stranger"));

    EXPECT_EQ(Handle(Select({}, CM::kIgnoreBoundCollect, &root).cert).Subject(), "CN=a");
    EXPECT_NE(OnlyMessage(kMsgLocalCertSelected).find("Not matched to CR"), std::string::npos);
    token_->AddCertificate(root_.der, {.trusted = true});
    Load();
    const auto matched = Select({}, CM::kIgnoreBoundCollect, &root);
    EXPECT_EQ(Handle(matched.cert).Subject(), "CN=a");
    EXPECT_EQ(OnlyMessage(kMsgLocalCertSelected).find("Not matched to CR"), std::string::npos);

    // A second one that answers the request is taken in place of the first.
    const test_pki::Cert other_root = test_pki::MakeCa("CN=Stranger");
    const test_pki::Cert other = test_pki::MakeLeaf("CN=b", other_root);
    token_->AddCertificate(other_root.der, {.trusted = true});
    token_->AddPersonal(other.der, other.key);
    Load();
    const auto preferred = Select({}, CM::kIgnoreBoundCollect, &stranger);
    EXPECT_EQ(Handle(preferred.cert).Subject(), "CN=b");
    EXPECT_EQ(preferred.status, CM::kLocalAccepted);

    // Two that answer no request are candidates both.
    Requests nobody("");
    EXPECT_EQ(Handle(Select({}, CM::kIgnoreBoundFirst, &nobody).cert).Subject(), "CN=a");
    EXPECT_NE(OnlyMessage(kMsgLocalCertNotFound).find("failed to send notification"), std::string::npos);
}

// --- Waiting for a reload ---

TEST_F(SelectTest, WaitsForAPendingReloadOnce) {
    Load();
    constexpr std::uint32_t kMode = CM::kIgnoreBoundFirst | CM::kWaitForReload;
    // Nothing pending: the answer comes at once.
    EXPECT_EQ(Select({}, kMode).status, CM::kLocalNotFound);
    EXPECT_EQ(vendor_host::FindMessages(kMsgLocalCertNotFound).size(), 1U);
    vendor_host::ClearMessages();

    // A reload that is under way is waited for. Several rounds: now and then it ends before the search begins.
    const test_pki::Cert late = test_pki::MakeLeaf("CN=late", root_);
    for (int round = 0; round < 20; ++round) {
        token_->AddPersonal(late.der, late.key, {.id = "late"});
        vendor_host::FireInsert(*token_);
        test_support::Event started;
        auto answer = std::async(std::launch::async, [&] {
            started.Signal();
            return Select({}, kMode);
        });
        ASSERT_TRUE(started.Wait());
        vendor_host::Advance(2);
        ASSERT_EQ(Handle(answer.get().cert).Subject(), "CN=late");
        ASSERT_FALSE(vendor_host::Logged("No personal certificate matches", kMsgLocalCertNotFound));
        token_->Remove("late");
        Load();
    }

    // A reload that brings nothing is waited for once.
    vendor_host::FireRemove(*token_);
    const auto gate = std::make_shared<vendor_host::Gate>();
    token_->Block(vendor_host::Op::kEnumCertificates, gate);
    auto reload = std::async(std::launch::async, [] { return vendor_host::Advance(2); });
    ASSERT_TRUE(gate->WaitForArrivals(1));
    auto nothing = std::async(std::launch::async, [&] {
        LPCFG::auth_ike_t rule;
        rule.cert_local = {SubjectPattern("CN=nobody")};
        return Select(rule, kMode);
    });
    gate->Open();
    EXPECT_EQ(nothing.get().status, CM::kLocalNotFound);
    EXPECT_EQ(vendor_host::FindMessages(kMsgLocalCertNotFound).size(), 1U);
    reload.get();
}

// --- Identities ---

TEST_F(SelectTest, IdentitiesMapByTypeAndBytes) {
    AddPersonal({.subject = "CN=host, O=Test",
                 .san = {"DNS:first.example", "DNS:host.example", "email:joe@example", "IP:10.1.2.3"}});
    AddPersonal({.subject = "CN=bare"});
    AddPersonal({.subject = "CN=six", .san = {"IP:fd00::1"}});
    Load();
    const auto host = FindLocal("CN=host, O=Test");
    const auto bare = FindLocal("CN=bare");
    const auto six = FindLocal("CN=six");

    const std::string ip{10, 1, 2, 3};
    struct Case {
        const char* name;
        const Handle& cert;
        LPCFG::ipsecid_t id;
        std::optional<std::string> value;
    };
    const Case cases[] = {
        {"ip", *host, Id(kIp4, ip), ip},
        {"other ip", *host, Id(kIp4, std::string{10, 1, 2, 4}), {}},
        {"any ip", *host, AnyId(kIp4), ip},
        {"any ip of none", *bare, AnyId(kIp4), {}},
        {"any ip of IPv6", *six, AnyId(kIp4), {}},
        {"last dns name", *host, Id(kFqdn, "host.example"), "host.example"},
        {"earlier dns name", *host, Id(kFqdn, "first.example"), {}},
        {"case", *host, Id(kFqdn, "Host.example"), {}},
        {"prefix", *host, Id(kFqdn, "host.exampl"), {}},
        {"no wildcard", *host, Id(kFqdn, "*.example"), {}},
        {"e-mail", *host, Id(kEmail, "joe@example"), "joe@example"},
        {"e-mail as dns name", *host, Id(kFqdn, "joe@example"), {}},
        {"empty value", *bare, Id(kEmail, ""), {}},
        {"dn", *host, Id(kDn, "ignored", "CN=host, O=Test"), test_pki::NameDer("CN=host, O=Test")},
        {"dn by value", *host, Id(kDn, "CN=host, O=Test"), {}},
        {"any dn", *bare, AnyId(kDn), test_pki::NameDer("CN=bare")},
        {"unknown type", *host, AnyId(4), {}},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        const std::string* value = CM::cert_map_to_lp_cfg_ipsecid(test.cert.get(), test.id);
        EXPECT_EQ(value != nullptr ? std::optional(*value) : std::nullopt, test.value);
    }

    // The first entry that fits counts; only type and value are written.
    const std::list<LPCFG::ipsecid_t> ids = {Id(kEmail, "x@example"), AnyId(kFqdn), AnyId(kIp4)};
    LPCFG::ipsecid_t mapped = Id(kDn, "before", "kept");
    mapped.any = 7;
    EXPECT_EQ(CM::cert_map_to_lp_cfg_ipsecid_list(&mapped, host->get(), ids), 2U);
    EXPECT_EQ(mapped.type, kFqdn);
    EXPECT_EQ(mapped.value, "host.example");
    EXPECT_EQ(mapped.dn, "kept");
    EXPECT_EQ(mapped.any, 7U);
    EXPECT_EQ(CM::cert_map_to_lp_cfg_ipsecid_list(nullptr, bare->get(), ids), 0U);
    EXPECT_EQ(CM::cert_map_to_lp_cfg_ipsecid_list(nullptr, host->get(), {}), 0U);
}

TEST_F(SelectTest, AnnouncesTheIdentityAndSaysWhereItIsFrom) {
    AddPersonal({.subject = "CN=host", .san = {"DNS:host.example", "email:joe@example", "IP:10.1.2.3"}});
    Load();
    const std::string ip{10, 1, 2, 3};
    struct Case {
        std::list<LPCFG::ipsecid_t> id_local;
        bool as_written;
        std::uint32_t type;
        std::string value;
        std::string line;
    };
    const std::string explicit_mark = " (explicit - 'no_map_id_local' is set in LSP rule)";
    const Case cases[] = {
        {{}, false, 99, "untouched", "empty - any local IP address will be used"},
        {{}, true, 99, "untouched", "empty - any local IP address will be used"},
        {{AnyId(kIp4)}, false, kIp4, ip, "IP - alt-subject from certificate: 10.1.2.3"},
        {{AnyId(kFqdn)}, false, kFqdn, "host.example", "DNS - alt-subject from certificate: host.example"},
        {{AnyId(kEmail)}, false, kEmail, "joe@example", "E-Mail - alt-subject from certificate: joe@example"},
        {{AnyId(kDn)}, false, kDn, test_pki::NameDer("CN=host"), "DN from certificate"},
        {{Id(kIp4, std::string{127, 0, 0, 1}), AnyId(kFqdn)},
         true,
         kIp4,
         {127, 0, 0, 1},
         "IP: 127.0.0.1" + explicit_mark},
        {{Id(kFqdn, "x\n.example")}, true, kFqdn, "x\n.example", "DNS: x\\0a.example" + explicit_mark},
        {{Id(kEmail, "x@example")}, true, kEmail, "x@example", "E-Mail: x@example" + explicit_mark},
        {{Id(kDn, "", "CN=x")}, true, kDn, "", "DN: CN=x" + explicit_mark},
        {{AnyId(kFqdn)}, true, kFqdn, "", "empty - any local IP address will be used"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.line);
        vendor_host::ClearMessages();
        LPCFG::auth_ike_t rule;
        rule.id_local = test.id_local;
        rule.no_map_id_local = test.as_written;
        LPCFG::ipsecid_t id = Id(99, "untouched", "untouched");
        const Handle cert(Select(rule, CM::kIgnoreBoundFirst, nullptr, &id).cert);
        EXPECT_EQ(id.type, test.type);
        EXPECT_EQ(id.value, test.value);
        const bool copied = test.as_written && !test.id_local.empty();
        EXPECT_EQ(id.dn, copied ? test.id_local.front().dn : "untouched");
        const std::string text = OnlyMessage(kMsgLocalCertSelected);
        EXPECT_NE(text.find("Identity: " + test.line), std::string::npos) << text;
        EXPECT_NE(text.find("Subject: CN=host"), std::string::npos) << text;
    }
    EXPECT_EQ(vendor_host::FindMessages(kMsgLocalCertSelected).front().ident, "1122334455667788");
}

// --- Look-ups ---

TEST_F(SelectTest, AlgorithmsStandInOrderOfFirstAppearance) {
    AddPersonal({.key = KeyType::kRsa2048, .subject = "CN=expired", .not_after = kNow - kDay});
    AddPersonal({.key = KeyType::kEd25519, .subject = "CN=a"});
    AddPersonal({.key = KeyType::kEcP256, .subject = "CN=b"});
    AddPersonal({.key = KeyType::kEcP384, .subject = "CN=c"});
    Load();
    std::vector<pki_alg_t> algs = {PKI_KEY_DSA};
    CM::IkeSelectLocalCertificateAlgs(algs, {}, ident_);
    EXPECT_EQ(algs, (std::vector<pki_alg_t>{PKI_KEY_ED25519, PKI_KEY_EC}));
    EXPECT_NE(OnlyMessage(kMsgLocalCertAlgsFound).find(": 2 certificates"), std::string::npos);

    // A bound certificate stands for all; an expired one gives nothing and the reason.
    const auto expired = FindLocal("CN=expired");
    LPCFG::auth_ike_t rule;
    rule.boundCert = expired->get();
    CM::IkeSelectLocalCertificateAlgs(algs, rule, ident_);
    EXPECT_TRUE(algs.empty());
    EXPECT_NE(OnlyMessage(kMsgLocalCertAlgsNotFound).find(": bound to the rule: Not valid after: "), std::string::npos);
}

TEST_F(SelectTest, FindsCertificatesBySubjectInStoreOrder) {
    const std::string first = AddPersonal({.subject = "CN=twice"});
    AddPersonal({.subject = "CN=Twice"});
    const std::string second = AddPersonal({.subject = "CN=twice"});
    Load();
    std::vector<const CM::X509Cert*> found = {nullptr};
    CM::GetLocalCertificatesBySubject(found, "CN=twice");
    ASSERT_EQ(found.size(), 3U);
    EXPECT_EQ(found[1]->rawCert, first);
    EXPECT_EQ(found[2]->rawCert, second);
    CM::Finit();  // the references outlive the store
    EXPECT_EQ(found[1]->info.subject, "CN=twice");
    for (const CM::X509Cert* cert : found) CM::VCertHandleClose(cert);
    CM::Init();
}

TEST_F(SelectTest, NothingIsRenderedForMessagesThatAreOff) {
    AddPersonal({.subject = "CN=a"});
    Load();
    for (const auto code : {kMsgLocalCertSelected, kMsgLocalCertNotFound, kMsgLocalCertAlgsFound}) {
        vendor_host::SetMessageEnabled(code, false);
    }
    const Handle cert(Select({}).cert);
    std::vector<pki_alg_t> algs;
    CM::IkeSelectLocalCertificateAlgs(algs, {}, ident_);
    EXPECT_EQ(cert.Subject(), "CN=a");
    EXPECT_TRUE(vendor_host::Messages().empty());
}

}  // namespace
}  // namespace local_test
