// Which certificate is chosen for a rule, and what is said about the others.
#include <future>
#include <list>
#include <optional>

#include "certmgr/findlocal.h"
#include "tests/local/local_fixture.h"
#include "tests/support/wait.h"

namespace local_test {
namespace {

using namespace std::string_literals;

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
    /// Subject of the one that is selected.
    std::string Selected(const LPCFG::auth_ike_t& rule, std::uint32_t mode = CM::kIgnoreBoundCollect,
                         CM::IkeCertRequestIter* requests = nullptr, const std::string* excluded = nullptr) {
        return Handle(Select(rule, mode, requests, nullptr, excluded).cert).Subject();
    }
    static void ExpectReport(std::uint16_t code, const std::string& part) {
        EXPECT_NE(OnlyMessage(code).find(part), std::string::npos) << part << "\nin " << vendor_host::AllText();
    }
};

LPCFG::auth_ike_t RuleOf(const std::list<LPCFG::cert_t>& patterns) {
    LPCFG::auth_ike_t rule;
    rule.name = "office";
    rule.cert_local = patterns;
    return rule;
}

// --- Filters ---

enum Circumstance : std::uint8_t { kPlain = 0, kKeyEnded = 1, kOtherIdentity = 2, kAsWritten = 4, kNotRequested = 8 };

const CertSpec kGood{.subject = "CN=host"};
const CertSpec kFuture{.subject = "CN=host", .not_before = kNow + kDay};
const CertSpec kPast{.subject = "CN=host", .not_after = kNow - kDay};
const CertSpec kNever{.subject = "CN=host", .not_before = kNow + kDay, .not_after = kNow - kDay};
const CertSpec kThisSecond{.subject = "CN=host", .not_before = kNow, .not_after = kNow};
const CertSpec kWebOnly{.subject = "CN=host", .eku = {"serverAuth"}};
const CertSpec kWebAndIke{.subject = "CN=host", .eku = {"serverAuth", "ipsecIKE"}};

// Circumstances, certificate, status, and what the log says (null: selected). The last five have two faults each,
// neighbours in the order of the filters: the earlier one decides.
const std::tuple<unsigned, CertSpec, std::uint32_t, const char*> kFilters[] = {
    {kPlain, kGood, 1, nullptr},
    {kPlain, kThisSecond, 1, nullptr},
    {kOtherIdentity | kAsWritten, kGood, 1, nullptr},
    {kPlain, kWebAndIke, 1, nullptr},
    {kNotRequested, kGood, 1, nullptr},
    {kPlain, kFuture, 2, ": cert_local[1]: Will be valid from: 2030-01-02 00:00:00 UTC"},
    {kPlain, kPast, 3, ": cert_local[1]: Not valid after: 2029-12-31 00:00:00 UTC"},
    {kKeyEnded, kGood, 4, ": cert_local[1]: Prvate Key not valid after: 2029-12-31 23:59:59 UTC"},
    {kOtherIdentity, kGood, 5, ": cert_local[1]: Not matched to 'id_local'"},
    {kPlain, kWebOnly, 9, ": cert_local[1]: Missing IKE/IPsec Extended Key Usage"},
    {kOtherIdentity, kFuture, 5, "Not matched to 'id_local'"},
    {kPlain, kNever, 2, "Will be valid from: "},
    {kKeyEnded, kPast, 3, "Not valid after: "},
    {kKeyEnded, kWebOnly, 4, "Prvate Key not valid after: "},
    {kNotRequested, kWebOnly, 9, "Missing IKE/IPsec Extended Key Usage"},
};

TEST_F(SelectTest, FiltersDecideInTheirOrder) {
    Requests stranger({test_pki::NameDer("CN=Stranger")});
    for (const auto& row : kFilters) {
        SCOPED_TRACE(testing::Message() << "row " << &row - kFilters);
        const auto& [circumstances, cert, status, report] = row;
        const auto is = [flags = circumstances](Circumstance flag) { return (flags & flag) != 0; };
        AddPersonal(cert, {.id = "host", .key_not_after = CertTimeFrom_time_t(is(kKeyEnded) ? kNow - 1 : kNow)});
        Load();
        LPCFG::auth_ike_t rule;
        if (is(kOtherIdentity)) rule.id_local = {Id(kFqdn, "other.example")};
        rule.no_map_id_local = is(kAsWritten);
        const auto result = Select(rule, CM::kIgnoreBoundFirst, is(kNotRequested) ? &stranger : nullptr);
        EXPECT_EQ(result.status, status);
        EXPECT_EQ(Handle(result.cert).Subject(), "CN=host");  // alone, it is the answer whatever its fault
        ExpectReport(report != nullptr ? kMsgLocalCertNotFound : kMsgLocalCertSelected,
                     report != nullptr ? report : "CN=host");
        EXPECT_EQ(vendor_host::Logged(" (Not matched to CR)", kMsgLocalCertSelected), is(kNotRequested) && status == 1);
        token_->Remove("host");
    }
    AddPersonal(kWebOnly);
    Load();
    Set(&LPARAMS::CertParams::allow_missing_ike_eku);
    EXPECT_EQ(Selected({}), "CN=host");
    ExpectReport(kMsgLocalCertSelected, "CN=host");
}

TEST_F(SelectTest, InfoGivesTheTimeBehindAStatus) {
    AddPersonal({.subject = "CN=host", .not_before = kNow - kDay, .not_after = kNow + kDay},
                {.key_not_after = CertTimeFrom_time_t(kNow)});
    Load();
    const auto cert = FindLocal("CN=host");
    std::string times;
    for (const std::uint32_t status : {2U, 3U, 4U, 1U}) {
        std::string text = "untouched";
        CM::SelectLocalResult{status, cert->get()}.GetInfo(&text);
        times += text + "|";
    }
    EXPECT_EQ(times, "2029-12-31 00:00:00 UTC|2030-01-02 00:00:00 UTC|2030-01-01 00:00:00 UTC|untouched|");
}

// What leaves no record does not stand in the way of the single-record answer, and is not reported.
TEST_F(SelectTest, SkippedCertificatesLeaveNoRecord) {
    const std::string expired = AddPersonal(kPast);
    AddPersonal({.subject = "CN=excluded"});
    AddPersonal({.subject = "CN=no pattern"});
    vendor_host::AddToken("second")->AddCertificate(expired, {.category = 1});  // the same DER
    Load();
    const auto rule = RuleOf({SubjectPattern("CN=excluded"), SubjectPattern("CN=host"), SubjectPattern("CN=host")});
    const std::string excluded = "CN=excluded";
    const auto result = Select(rule, CM::kIgnoreBoundCollect, nullptr, nullptr, &excluded);
    EXPECT_EQ(std::pair(result.status, Handle(result.cert).Subject()), std::pair(3U, "CN=host"s));
    ExpectReport(kMsgLocalCertNotFound, "Certificate 1: cert_local[2]: Not valid after: ");
    ExpectReport(kMsgLocalCertNotFound, ", exclude subject name: CN=excluded");
    EXPECT_FALSE(vendor_host::Logged("Certificate 2", kMsgLocalCertNotFound));
    const std::string nothing;  // excludes nothing
    EXPECT_EQ(Selected(rule, CM::kIgnoreBoundCollect, nullptr, &nothing), "CN=excluded");
}

TEST_F(SelectTest, TwoRefusedCertificatesGiveNoneAndBothReasons) {
    AddPersonal({.subject = "CN=first", .not_after = kNow - kDay});
    AddPersonal({.subject = "CN=second", .eku = {"serverAuth"}});
    Load();
    const std::string excluded(100'000, 'x');
    const auto result = Select({}, CM::kIgnoreBoundCollect, nullptr, nullptr, &excluded);
    EXPECT_TRUE(result.status == CM::kLocalNotFound && result.cert == nullptr);
    ExpectReport(kMsgLocalCertNotFound, " - 'cert_local' is empty");
    const std::string report = OnlyMessage(kMsgLocalCertNotFound);
    EXPECT_LT(report.size(), 6000U) << "a long name is cut";
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
    const std::tuple<std::list<LPCFG::cert_t>, pki_alg_t, const char*> cases[] = {
        {{}, 0, "CN=a"},
        {{}, PKI_KEY_RSA, "CN=b"},
        {{}, PKI_KEY_DSA, ""},
        {{by_issuer}, PKI_KEY_RSA, "CN=a"},  // the algorithm is not looked at beside patterns
        {{SubjectPattern("CN=none"), SubjectPattern("CN=c"), by_issuer}, 0, "CN=c"},
    };
    for (const auto& [patterns, alg, first] : cases) {
        LPCFG::auth_ike_t rule = RuleOf(patterns);
        rule.authAlg = alg;
        for (const std::uint32_t mode : {CM::kIgnoreBoundFirst, CM::kUseBoundFirst}) {
            EXPECT_EQ(Selected(rule, mode), first) << patterns.size() << " " << alg;
        }
    }
    EXPECT_TRUE(vendor_host::Questions().empty());  // the first one is the answer: nobody is asked
}

TEST_F(SelectTest, BoundCertificatePassesEveryOtherFilter) {
    AddPersonal({.subject = "CN=free"});
    AddPersonal({.subject = "CN=bound", .eku = {"serverAuth"}});
    Load();
    const auto bound = FindLocal("CN=bound");
    LPCFG::auth_ike_t rule = RuleOf({SubjectPattern("CN=free")});
    rule.boundCert = bound->get();
    Requests stranger({test_pki::NameDer("CN=Stranger")});
    const std::string excluded = "CN=bound";
    for (const std::uint32_t mode : {CM::kUseBoundFirst, CM::kUseBoundCollect}) {
        EXPECT_EQ(Selected(rule, mode, &stranger, &excluded), "CN=bound");
    }
    for (const std::uint32_t mode : {CM::kIgnoreBoundFirst, CM::kIgnoreBoundCollect}) {
        EXPECT_EQ(Selected(rule, mode), "CN=free");
    }

    // Only its validity counts; the answer carries it with the reason.
    vpnfc::SetCurrentTimeForTesting(test_pki::kNotAfter + 1);
    const auto expired = Select(rule, CM::kUseBoundFirst);
    EXPECT_EQ(std::pair(expired.status, Handle(expired.cert).Subject()), std::pair(3U, "CN=bound"s));
    EXPECT_FALSE(CM::IsValidLocalCertificateHandle(bound->get()));
    vpnfc::SetCurrentTimeForTesting(kNow);
    EXPECT_TRUE(CM::IsValidLocalCertificateHandle(bound->get()));

    // Gone from the store: nothing is returned and nothing is logged.
    token_->Remove(bound->get()->info.id);
    Load();
    const auto missing = Select(rule, CM::kUseBoundFirst | CM::kWaitForReload);
    EXPECT_TRUE(missing.status == CM::kLocalBoundMissing && missing.cert == nullptr);
    EXPECT_TRUE(vendor_host::Messages().empty());
    EXPECT_FALSE(CM::IsValidLocalCertificateHandle(bound->get()));
    EXPECT_FALSE(CM::IsValidLocalCertificateHandle(nullptr));
}

TEST_F(SelectTest, RequestsPreferButDoNotExclude) {
    AddPersonal({.subject = "CN=a"});
    Load();
    Requests root({root_.subject_der});
    EXPECT_EQ(Selected({}, CM::kIgnoreBoundCollect, &root), "CN=a");
    EXPECT_TRUE(vendor_host::Logged("Not matched to CR", kMsgLocalCertSelected));
    token_->AddCertificate(root_.der, {.trusted = true});
    Load();
    EXPECT_EQ(Selected({}, CM::kIgnoreBoundCollect, &root), "CN=a");
    EXPECT_FALSE(vendor_host::Logged("Not matched to CR", kMsgLocalCertSelected));

    // A second one that answers the request is taken in place of the first.
    const Cert other_root = MakeCa("CN=Stranger");
    const Cert other = MakeLeaf("CN=b", other_root);
    token_->AddCertificate(other_root.der, {.trusted = true});
    token_->AddPersonal(other.der, other.key);
    Load();
    Requests stranger({other_root.subject_der});
    EXPECT_EQ(Selected({}, CM::kIgnoreBoundCollect, &stranger), "CN=b");

    // Two that answer no request are candidates both.
    Requests nobody({});
    EXPECT_EQ(Selected({}, CM::kIgnoreBoundFirst, &nobody), "CN=a");
    ExpectReport(kMsgLocalCertNotFound, "failed to send notification");
}

// --- Waiting for a reload ---

TEST_F(SelectTest, WaitsForAPendingReloadOnce) {
    Load();
    constexpr std::uint32_t kMode = CM::kIgnoreBoundFirst | CM::kWaitForReload;
    EXPECT_EQ(Selected({}, kMode), "");  // nothing pending: the answer comes at once
    // They ask while a reload is under way; it brings all but the last one what is wanted.
    for (int round = 0; round <= 10; ++round) {
        const bool comes = round < 10;
        const std::string wanted = "CN=" + std::to_string(round);
        if (comes) AddPersonal({.subject = wanted});
        vendor_host::ClearMessages();
        const auto gate = std::make_shared<vendor_host::Gate>();
        token_->Block(Op::kEnumCertificates, gate);
        vendor_host::FireInsert(*token_);
        auto reload = std::async(std::launch::async, [] { return vendor_host::Advance(2); });
        ASSERT_TRUE(gate->WaitForArrivals(1));
        test_support::Event started;
        auto answer = std::async(std::launch::async, [&] {
            started.Signal();
            return Selected(RuleOf({SubjectPattern(wanted)}), kMode);
        });
        ASSERT_TRUE(started.Wait());
        gate->Open();
        EXPECT_EQ(answer.get(), comes ? wanted : "");
        EXPECT_EQ(vendor_host::FindMessages(kMsgLocalCertNotFound).size(), comes ? 0U : 1U) << "once";
        reload.get();
    }
}

// --- Identities ---

TEST_F(SelectTest, IdentitiesMapByTypeAndBytes) {
    const Strings names{"DNS:first.example", "DNS:host.example", "email:joe@example", "IP:10.1.2.3"};
    const auto host = Object(MakeCert({.subject = "CN=host, O=Test", .san = names}, &root_));
    const auto bare = Object(MakeCert({.subject = "CN=bare"}, &root_));
    const auto six = Object(MakeCert({.subject = "CN=six", .san = {"IP:fd00::1"}}, &root_));
    const std::string ip{10, 1, 2, 3};
    const std::tuple<const CM::X509Cert*, LPCFG::ipsecid_t, std::optional<std::string>> cases[] = {
        {host.get(), Id(kIp4, ip), ip},
        {host.get(), Id(kIp4, std::string{10, 1, 2, 4}), {}},
        {bare.get(), AnyId(kIp4), {}},
        {six.get(), AnyId(kIp4), {}},
        {host.get(), Id(kFqdn, "host.example"), "host.example"},
        {host.get(), Id(kFqdn, "first.example"), {}},  // the last counts
        {host.get(), Id(kFqdn, "Host.example"), {}},
        {host.get(), Id(kFqdn, "host.exampl"), {}},
        {host.get(), Id(kFqdn, "*.example"), {}},
        {host.get(), Id(kFqdn, "joe@example"), {}},
        {host.get(), Id(kEmail, "joe@example"), "joe@example"},
        {bare.get(), Id(kEmail, ""), {}},
        {host.get(), Id(kDn, "ignored", "CN=host, O=Test"), test_pki::NameDer("CN=host, O=Test")},
        {host.get(), Id(kDn, "CN=host, O=Test"), {}},
        {host.get(), AnyId(4), {}},
    };
    for (const auto& [cert, id, expected] : cases) {
        const std::string* value = CM::cert_map_to_lp_cfg_ipsecid(cert, id);
        EXPECT_EQ(value != nullptr ? std::optional(*value) : std::nullopt, expected) << id.type << " " << id.value;
    }
}

TEST_F(SelectTest, AnnouncesTheIdentityAndSaysWhereItIsFrom) {
    AddPersonal({.subject = "CN=host", .san = {"DNS:host.example", "email:joe@example", "IP:10.1.2.3"}});
    Load();
    const std::string ip{10, 1, 2, 3};
    const std::string local_ip{127, 0, 0, 1};
    const std::string empty = "empty - any local IP address will be used";
    const std::string from = " - alt-subject from certificate: ";
    const std::string mark = " (explicit - 'no_map_id_local' is set in LSP rule)";
    // The rule's identities, whether they are sent as written; type and value that come out; the line of the report.
    const std::tuple<std::list<LPCFG::ipsecid_t>, bool, std::uint32_t, std::string, std::string> cases[] = {
        {{}, false, 99, "untouched", empty},
        {{}, true, 99, "untouched", empty},
        {{AnyId(kIp4)}, false, kIp4, ip, "IP" + from + "10.1.2.3"},
        {{Id(kEmail, "x@x"), AnyId(kFqdn), AnyId(kIp4)}, false, kFqdn, "host.example", "DNS" + from + "host.example"},
        {{AnyId(kEmail)}, false, kEmail, "joe@example", "E-Mail" + from + "joe@example"},
        {{AnyId(kDn)}, false, kDn, test_pki::NameDer("CN=host"), "DN from certificate"},
        {{Id(kIp4, local_ip), AnyId(kFqdn)}, true, kIp4, local_ip, "IP: 127.0.0.1" + mark},
        {{Id(kFqdn, "x\n.example")}, true, kFqdn, "x\n.example", "DNS: x\\0a.example" + mark},
        {{Id(kEmail, "x@example")}, true, kEmail, "x@example", "E-Mail: x@example" + mark},
        {{Id(kDn, "", "CN=x")}, true, kDn, "", "DN: CN=x" + mark},
        {{AnyId(kFqdn)}, true, kFqdn, "", empty},
    };
    for (const auto& [id_local, as_written, type, value, line] : cases) {
        SCOPED_TRACE(line);
        vendor_host::ClearMessages();
        LPCFG::auth_ike_t rule;
        rule.id_local = id_local;
        rule.no_map_id_local = as_written;
        LPCFG::ipsecid_t id = Id(99, "untouched", "untouched");
        const Handle cert(Select(rule, CM::kIgnoreBoundFirst, nullptr, &id).cert);
        const std::string dn = as_written && !id_local.empty() ? id_local.front().dn : "untouched";
        EXPECT_EQ(std::tuple(id.type, id.value, id.dn), std::tuple(type, value, dn));
        ExpectReport(kMsgLocalCertSelected, "Identity: " + line);
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
    ExpectReport(kMsgLocalCertAlgsFound, ": 2 certificates");

    // A bound certificate stands for all; an expired one gives nothing and the reason.
    const auto expired = FindLocal("CN=expired");
    LPCFG::auth_ike_t rule;
    rule.boundCert = expired->get();
    CM::IkeSelectLocalCertificateAlgs(algs, rule, ident_);
    EXPECT_TRUE(algs.empty());
    ExpectReport(kMsgLocalCertAlgsNotFound, ": bound to the rule: Not valid after: ");

    // Nothing is rendered for messages that are off.
    vendor_host::DisableMessage(kMsgLocalCertAlgsFound);
    vendor_host::ClearMessages();
    CM::IkeSelectLocalCertificateAlgs(algs, {}, ident_);
    EXPECT_TRUE(vendor_host::Messages().empty());
}

TEST_F(SelectTest, FindsCertificatesBySubjectInStoreOrder) {
    const std::string first = AddPersonal({.subject = "CN=twice"});
    AddPersonal({.subject = "CN=Twice"});
    const std::string second = AddPersonal({.subject = "CN=twice"});
    Load();
    Handle found(nullptr);
    CM::GetLocalCertificatesBySubject(found.certs, "CN=twice");
    ASSERT_EQ(found.certs.size(), 3U) << "appended";
    EXPECT_EQ(std::pair(found.certs[1]->rawCert, found.certs[2]->rawCert), std::pair(first, second));
    CM::Finit();  // the references outlive the store
    EXPECT_EQ(found.certs[1]->info.subject, "CN=twice");
    CM::Init();
}

}  // namespace
}  // namespace local_test
