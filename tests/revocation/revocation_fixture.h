// A started module, an authority, its CRLs on a server that does as it is told, and checks of its certificates.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "certmgr/cert_crltransfer.h"
#include "certmgr/chain.h"
#include "certmgr/records_sync.h"
#include "tests/chain/chain_fixture.h"
#include "tests/support/crl_servers.h"

namespace revocation_test {

using chain_test::Cert;
using chain_test::kDay;
using chain_test::Object;
using chain_test::Strings;
using test_pki::CrlSpec;
using test_pki::kNow;
using test_support::HostileServer;

inline constexpr LPARAMS::CRL_PROC_t kStrict = LPARAMS::CRL_PROC_ENABLED;
inline constexpr LPARAMS::CRL_PROC_t kSoft = LPARAMS::CRL_PROC_ENABLED_SOFT;

class RevocationTest : public chain_test::ChainTest {
  protected:
    RevocationTest() : transfers_before_(CM::g_crl_counters.transfers), parsed_before_(CM::g_crl_counters.parsed) {
        SetParams([](LPARAMS::CertParams& params) { params.crl_retry_seconds = 0; });
    }

    template <typename Change>
    static void SetParams(Change change) {
        const vpnfc::ObjectLock lock(LPARAMS::server.cert);
        change(LPARAMS::server.cert);
    }
    static void SetDetails() {
        const vpnfc::ObjectLock lock(LPARAMS::server.log);
        LPARAMS::server.log.crl_details = true;
    }

    static test_pki::CertSpec Spec(const Strings& addresses, const std::string& subject = "CN=host") {
        test_pki::CertSpec spec{.key_index = 3, .subject = subject, .key_usage = "digitalSignature"};
        for (const std::string& address : addresses) spec.crl_points.push_back({"URI:" + address});
        return spec;
    }
    Cert Leaf(const Strings& addresses) const { return MakeCert(Spec(addresses), &ca_); }
    /// That names these paths of the server.
    template <typename... Paths>
    Cert LeafAt(const Paths&... paths) const {
        return Leaf({server_.Uri(paths)...});
    }
    /// Another authority's that names the path.
    Cert OthersLeaf(const std::string& path, const Cert& authority) const {
        return MakeCert(Spec({server_.Uri(path)}), &authority);
    }

    std::string Crl(const CrlSpec& spec = {}) const { return test_pki::MakeCrl(spec, ca_); }
    static CrlSpec Listing(const Cert& cert) { return {.entries = {{.serial = cert.serial}}}; }
    static CrlSpec Expired(CrlSpec spec = {}) {
        spec.next_update = kNow - kDay;
        return spec;
    }
    void Serve(const std::string& path, const std::string& body) { server_.Set(path, {.body = body}); }
    /// Has the path's CRL downloaded.
    void Fill(const std::string& path, const CrlSpec& spec = {}) {
        Serve(path, Crl(spec));
        EXPECT_TRUE(Passes(LeafAt(path), kSoft));
    }
    /// All that is cached is to be downloaded anew.
    static void Mark() { CM::cm_crl_apply_lparams_(false); }
    void ServeNothing(const std::string& path) { server_.Set(path, {.status = 404}); }
    void PutOnToken(const std::string& der) {
        token_->AddCrl("crl" + std::to_string(token_->CrlObjects().size()), der);
        CM::Reload();
    }

    bool Passes(const Cert& cert, LPARAMS::CRL_PROC_t mode = kStrict, const std::string& default_server = {}) const {
        return PassesUnder(cert, ca_, mode, default_server);
    }
    bool PassesUnder(const Cert& cert, const Cert& issuer, LPARAMS::CRL_PROC_t mode,
                     const std::string& default_server = {}) const {
        const auto checked = Object(cert);
        const auto signer = Object(issuer);
        return CM::CertVerifyRevocation(checked.get(), signer.get(), mode, default_server, ident_);
    }

    /// What the transfers since the last call came to.
    static Strings Outcomes() {
        Strings outcomes;
        for (const auto& message : vendor_host::FindMessages(kMsgCrlTransfer)) {
            outcomes.push_back(message.attributes[0]);
        }
        vendor_host::ClearMessages();
        return outcomes;
    }
    /// Whose CRLs the cache has: paths of the server, other addresses whole.
    Strings Cached() const {
        Strings paths;
        const std::string server = server_.Uri("");
        const vpnfc::ObjectLock lock(CM::g_crl_db_lock);
        for (const auto& [address, crl] : CM::g_crl_db) {
            paths.push_back(address->starts_with(server) ? address->substr(server.size()) : *address);
        }
        return paths;
    }
    /// What the module writes of its cache, read to the last byte.
    static std::vector<std::pair<PKCS11::TokenInfo, CRLInfo>> Listed() {
        std::string bytes;
        CommandStreamOut out(bytes);
        CM::EnumDownloadedCrlDB(out);
        std::vector<std::pair<PKCS11::TokenInfo, CRLInfo>> listed;
        for (CommandStreamIn in(bytes); !in.at_end();) {
            auto& [token, info] = listed.emplace_back();
            sync(in, token);
            sync(in, info);
        }
        return listed;
    }
    std::uint64_t Transfers() const { return CM::g_crl_counters.transfers - transfers_before_; }
    std::uint64_t Parsed() const { return CM::g_crl_counters.parsed - parsed_before_; }

    HostileServer server_;
    const Cert root_ = chain_test::MakeCa("CN=root");
    const Cert ca_ = chain_test::MakeCa("CN=issuing", &root_, chain_test::KeyType::kEcP256, 1);
    const Cert other_ = chain_test::MakeCa("CN=other");
    const Cert stranger_ = chain_test::MakeCa("CN=issuing");  // of the same name and another key

  private:
    const std::uint64_t transfers_before_;
    const std::uint64_t parsed_before_;
};

}  // namespace revocation_test
