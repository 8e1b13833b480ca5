#include "certmgr/cert_bridge.h"

#include <algorithm>
#include <iterator>
#include <list>
#include <vector>

#include "certmgr/cert_chain.h"
#include "certmgr/cert_commands.h"
#include "certmgr/cert_crlcache.h"
#include "certmgr/cert_request.h"
#include "certmgr/chain.h"
#include "certmgr/records_sync.h"
#include "platform/tokens.h"

namespace CM {
namespace {

using PKCS11::TokenInfo;
using vpnfc::SecretString;

std::unique_ptr<CertListener> g_listener;

// --- Enumerations ---

void put_cert_(CommandStreamOut& out, const X509Cert* cert) {
    sync(out, cert->token);
    sync(out, cert->info);
}

void put_certs_(CommandStreamOut& out, const CertList& certs) {
    sync_list(out, certs, put_cert_);
}

/// Those of the other certificates that are CAs, or are not.
void put_other_certs_(CommandStreamOut& out, bool is_ca) {
    const CertStorage& storage = CertStorage::Instance();
    const vpnfc::ReadLock lock(storage);
    std::vector<const X509Cert*> wanted;
    std::copy_if(storage.otherCerts.begin(), storage.otherCerts.end(), std::back_inserter(wanted),
                 [is_ca](const X509Cert* cert) { return cert->info.isCA == is_ca; });
    sync_list(out, wanted, put_cert_);
}

// --- Commands ---

/// What a command works with.
struct Request {
    CertListener& listener;
    const BridgeSession& session;
    CommandStreamIn in;
    CommandStreamOut out;
};

template <typename Record>
Record read_record_(CommandStreamIn& in) {
    Record record;
    sync(in, record);
    return record;
}

/// The token as it is listed now: of what the client says the identifier counts. One that is not there has nothing else.
TokenInfo read_token_(CommandStreamIn& in) {
    return PKCS11::FindToken(read_record_<TokenInfo>(in).id);
}

struct WipeAtEnd {
    std::string& text;
    ~WipeAtEnd() { vpnfc::SecureWipe(text); }
};

/// The two records that name a certificate or a CRL.
template <typename Info>
struct Named {
    explicit Named(CommandStreamIn& in) : token(read_token_(in)), info(read_record_<Info>(in)) {}
    TokenInfo token;
    Info info;
};

MutableCertRef find_cert_(const Named<CertInfo>& named) {
    return CertStorage::Instance().FindCertificate(named.token, named.info);
}

void enum_certs_(Request& request) {
    static constexpr void (*kLists[])(CommandStreamOut&) = {BridgeEnumPersonalCerts, BridgeEnumTrustedCerts,
                                                            BridgeEnumIntermediateCerts, BridgeEnumOtherCerts};
    std::uint32_t selector = 0;
    request.in.fields(selector);
    if (selector < std::size(kLists)) kLists[selector](request.out);
}

void delete_cert_(Request& request) {
    const Named<CertInfo> named(request.in);
    CertStorage::Instance().DeleteCertificate(named.token, named.info);
}

void open_file_(Request& request) {
    SecretString content;
    SecretString password;
    request.in.fields(content.edit(), password.edit());
    auto file = std::make_unique<X509CertFile>(content.get(), password.get());
    X509CertFile_PutToOutStream_(request.listener.SetCertFile(&request.session, std::move(file)), request.out);
}

void import_cert_(Request& request) {
    const TokenInfo token = read_token_(request.in);
    std::uint32_t index = 0;
    std::uint32_t mode = 0;
    bool exportable = false;
    request.in.fields(index, mode, exportable);
    SecretString pin;
    const bool has_pin = !request.in.at_end();
    if (has_pin) request.in.fields(pin.edit());
    const MutableCertRef cert = request.listener.FileCert(&request.session, index);
    std::uint32_t status = ImportCertError;
    if (cert) {
        status = CertStorage::Instance().ImportCertificate(token, *cert, static_cast<CertImportMode>(mode), exportable,
                                                           has_pin ? &pin.get() : nullptr);
    }
    request.out.fields(status);
}

void import_crl_(Request& request) {
    const TokenInfo token = read_token_(request.in);
    std::uint32_t index = 0;
    request.in.fields(index);
    const CrlRef crl = request.listener.FileCrl(&request.session, index);
    std::uint32_t result = ImportCrlError;
    if (crl != nullptr) result = CertStorage::Instance().ImportCRL(token, *crl);
    request.out.fields(result);
}

void export_cert_(Request& request) {
    const Named<CertInfo> named(request.in);
    std::uint32_t format = 0;
    SecretString password;
    bool with_chain = false;
    bool with_private_key = false;
    request.in.fields(format, password.edit(), with_chain, with_private_key);
    SecretString data;
    std::uint32_t result = ExportCertError;
    // A file under the first part of a password would be no secret.
    if (password.get().find('\0') == std::string::npos) {
        result = CertStorage::Instance().ExportCertificate(
            named.token, named.info, static_cast<CertExportFormat>(format), password.get().c_str(), with_chain,
            with_private_key, data.edit());
    }
    request.out.fields(result, data.get());
}

void enum_request_mechanisms_(Request& request) {
    const TokenInfo token = read_token_(request.in);
    std::list<CertRequestKeyInfo> kinds;
    CMT_EnumCertRequestMechanisms(token, kinds);
    sync_list(request.out, kinds, sync_record);
}

void make_request_(Request& request) {
    const TokenInfo token = read_token_(request.in);
    CertRequestInfo info;
    const WipeAtEnd wipe{info.randomSeed};
    sync(request.in, info);
    std::string pem;
    const std::uint32_t result = CMT_MakeCertRequest(token, info, pem);
    request.out.fields(result, pem);
}

void enum_preshared_keys_(Request& request) {
    const CertStorage& storage = CertStorage::Instance();
    const vpnfc::ReadLock lock(storage);
    sync_list(request.out, storage.presharedKeys, [](CommandStreamOut& out, const auto& key) {
        sync(out, std::as_const(key->token));
        out.fields(key->name);
    });
}

void create_preshared_key_(Request& request) {
    const TokenInfo token = read_token_(request.in);
    PresharedKeyInfo info;
    SecretString value;
    request.in.fields(info.name, value.edit());
    request.out.fields(CertStorage::Instance().CreatePresharedKey(token, info, value.get()));
}

void delete_preshared_key_(Request& request) {
    const TokenInfo token = read_token_(request.in);
    PresharedKeyInfo info;
    request.in.fields(info.name);
    CertStorage::Instance().DeletePresharedKey(token, info);
}

void enum_crls_(Request& request) {
    {
        const CertStorage& storage = CertStorage::Instance();
        const vpnfc::ReadLock lock(storage);
        sync_list(request.out, storage.crls, [](CommandStreamOut& out, const CrlRef& crl) {
            sync(out, std::as_const(crl->token));
            sync(out, std::as_const(crl->info));
        });
    }
    EnumDownloadedCrlDB(request.out);
}

void delete_crl_(Request& request) {
    const Named<CRLInfo> named(request.in);
    if (!DeleteDownloadedCrlDB(named.token, named.info)) CertStorage::Instance().DeleteCRL(named.token, named.info);
}

void build_chain_(Request& request) {
    MutableCertRef cert = find_cert_(Named<CertInfo>(request.in));
    if (!cert) return;
    CertList chain;
    chain.Adopt(cert.Detach());
    request.out.fields(static_cast<std::uint32_t>(BuildCertChainFromStore(chain)));
    put_certs_(request.out, chain);
}

void cert_details_(Request& request) {
    const MutableCertRef cert = find_cert_(Named<CertInfo>(request.in));
    if (!cert) return;
    sync(request.out, std::as_const(cert->info));
    sync(request.out, cert->ext());
    request.out.fields(cert->rawPubKey);
}

void verify_cert_(Request& request) {
    const Named<CertInfo> named(request.in);
    std::uint32_t mode = 0;
    request.in.fields(mode);
    const MutableCertRef cert = find_cert_(named);
    std::string text = "Certificate not found";
    bool good = false;
    if (cert) {
        text.clear();
        good = CMT_VerifyCertChain(cert.get(), static_cast<int>(mode), &text);
    }
    request.out.fields(good, text);
}

void reload_(Request& /*request*/) {
    PKCS11::Manager::Instance().ReloadTokensContent(1);
    CertStorage::Instance().Reload();
}

struct Command {
    CertCommand number;
    void (*run)(Request&);
};

constexpr Command kCommands[] = {
    {kCommandEnumCertificates, enum_certs_},
    {kCommandDeleteCertificate, delete_cert_},
    {kCommandOpenFile, open_file_},
    {kCommandImportCertificate, import_cert_},
    {kCommandImportCrl, import_crl_},
    {kCommandExportCertificate, export_cert_},
    {kCommandRequestMechanisms, enum_request_mechanisms_},
    {kCommandMakeRequest, make_request_},
    {kCommandEnumPresharedKeys, enum_preshared_keys_},
    {kCommandCreatePresharedKey, create_preshared_key_},
    {kCommandDeletePresharedKey, delete_preshared_key_},
    {kCommandEnumCrls, enum_crls_},
    {kCommandDeleteCrl, delete_crl_},
    {kCommandBuildChain, build_chain_},
    {kCommandDetails, cert_details_},
    {kCommandVerify, verify_cert_},
    {kCommandReload, reload_},
};

constexpr bool StandInOrder() {
    for (std::size_t i = 0; i < std::size(kCommands); ++i) {
        if (kCommands[i].number != i) return false;
    }
    return std::size(kCommands) == kCertCommands;
}
static_assert(StandInOrder());

}  // namespace

void CertBridge_Init() {
    g_listener = std::make_unique<CertListener>();
}

void CertBridge_Finit() {
    g_listener.reset();
}

CertListener::CertListener() : CommandListener(bridge::kGroupCertificates) {
    AddCommandListener(this);
}

CertListener::~CertListener() {
    DelCommandListener(this);
}

bool CertListener::ExecCommand(BridgeSession& session, long number, const std::string& input, std::string& output) {
    if (number < 0 || static_cast<std::size_t>(number) >= std::size(kCommands)) return false;
    Request request{*this, session, CommandStreamIn(input), CommandStreamOut(output)};
    kCommands[number].run(request);
    return true;
}

void CertListener::OnCloseSession(BridgeSession* session) {
    const std::lock_guard lock(NativeMutex());
    files_.Erase(session);
}

const X509CertFile& CertListener::SetCertFile(const BridgeSession* session, std::unique_ptr<X509CertFile> file) {
    const X509CertFile& kept = *file;
    const std::lock_guard lock(NativeMutex());
    files_.Set(session, std::move(file));
    return kept;
}

MutableCertRef CertListener::FileCert(const BridgeSession* session, std::uint32_t index) const {
    const std::lock_guard lock(NativeMutex());
    const X509CertFile* const file = files_.Find(session);
    return file == nullptr || index >= file->certs.size() ? MutableCertRef() : MutableCertRef(file->certs[index]);
}

CrlRef CertListener::FileCrl(const BridgeSession* session, std::uint32_t index) const {
    const std::lock_guard lock(NativeMutex());
    const X509CertFile* const file = files_.Find(session);
    return file == nullptr || index >= file->crls.size() ? nullptr : file->crls[index];
}

void BridgeEnumPersonalCerts(CommandStreamOut& out) {
    const CertStorage& storage = CertStorage::Instance();
    const vpnfc::ReadLock lock(storage);
    std::vector<const X509Cert*> shown(storage.personalCerts.begin(), storage.personalCerts.end());
    shown.insert(shown.end(), storage.keyPairCerts.begin(), storage.keyPairCerts.end());
    sync_list(out, shown, put_cert_);
}

void BridgeEnumTrustedCerts(CommandStreamOut& out) {
    const CertStorage& storage = CertStorage::Instance();
    const vpnfc::ReadLock lock(storage);
    put_certs_(out, storage.trustedCerts);
}

void BridgeEnumIntermediateCerts(CommandStreamOut& out) {
    put_other_certs_(out, true);
}

void BridgeEnumOtherCerts(CommandStreamOut& out) {
    put_other_certs_(out, false);
}

void X509CertFile_PutToOutStream_(const X509CertFile& file, CommandStreamOut& out) {
    out.fields(static_cast<std::uint32_t>(file.status));
    if (file.status != 0) return;
    const std::vector<TokenInfo> tokens = PKCS11::Manager::Instance().EnumTokens();
    sync_list(out, tokens, sync_record);
    sync_list(out, GetCertImportOptions(tokens, file.certs), sync_record);
    sync_list(out, file.crls,
              [](CommandStreamOut& stream, const CrlRef& crl) { sync(stream, std::as_const(crl->info)); });
}

}  // namespace CM
