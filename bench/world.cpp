#include "bench/world.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "certmgr/cert_engine.h"
#include "platform/eventlog/sinks.h"
#include "platform/events/event_host.h"
#include "platform/tokens/token_host.h"

namespace bench {
namespace {

using test_pki::KeyType;

constexpr KeyType kKey = KeyType::kRsa2048;
constexpr std::size_t kDigits = 6;

void Check(bool good, const std::string& what) {
    if (!good) throw std::runtime_error(what);
}

std::string RandomPin() {
    std::string pin;
    std::FILE* random = std::fopen("/dev/urandom", "rb");
    while (random != nullptr && pin.size() < 8) pin.push_back(static_cast<char>('0' + std::fgetc(random) % 10));
    if (random != nullptr) std::fclose(random);
    return pin;
}

/// A certificate as a token without its key would hold it; the caller has the reference.
CM::X509Cert* ParseCert(const std::string& der) {
    auto* cert = new CM::X509Cert(CertEngine_CreateCertHandle(der.data(), static_cast<unsigned>(der.size())), nullptr);
    cert->info.kind = kCertKindOther;
    return cert;
}

/// The log is written as in production, to nowhere.
void LogToNowhere() {
    eventlog::Sinks sinks;
    sinks.to_stderr = false;
    sinks.file = "/dev/null";
    std::string error;
    Check(eventlog::SetSinks(sinks, error), error);
}

}  // namespace

World::World()
    : root_(test_pki::MakeCa("CN=Root, O=Bench, C=EX", nullptr, kKey, 0)),
      intermediate_(test_pki::MakeCa("CN=Issuing, O=Bench, C=EX", &root_, kKey, 1)),
      leaf_(test_pki::MakeCert({.key = kKey,
                                .key_index = 2,
                                .subject = "CN=host, OU=Gateways, O=Bench, C=EX",
                                .ca = false,
                                .key_usage = "digitalSignature, nonRepudiation",
                                .eku = {"ipsecIKE"},
                                .san = {"DNS:host.example", "email:host@example", "IP:192.0.2.7"},
                                .crl_points = {{"URI:http://crl.example/issuing.crl"}},
                                .conf = {{"authorityInfoAccess", "OCSP;URI:http://ocsp.example/"}}},
                               &intermediate_)) {
    rule_.name = "bench";
    rule_.no_map_id_remote = true;
    LogToNowhere();
    StartTokens();
    const std::string pin = RandomPin();
    const std::string so_pin = RandomPin();
    FillHostToken(MakeToken("host", pin, so_pin), pin, so_pin);
    FillLargeToken(MakeToken("large", pin, so_pin), pin);
    for (const PKCS11::TokenInfo& token : PKCS11::Manager::Instance().EnumTokens()) {
        tokens::Login(token, vpnfc::SecretString(std::string_view(pin)));
    }
    module_ = std::make_unique<CM::RunningModule>();
    CM::Reload();
    std::vector<const CM::X509Cert*> found;
    CM::GetLocalCertificatesBySubject(found, "CN=host, OU=Gateways, O=Bench, C=EX");
    Check(found.size() == 1, "the token's certificate is not in the store");
    personal_ = CM::CertRef::Adopt(found.front());
    FindPlainFunctions();
}

World::~World() {
    personal_ = {};
    variants_.clear();
    module_.reset();
    tokens::Stop();
    events::Stop();
}

void World::StartTokens() {
    std::string error;
    Check(tokens::PrepareSoftHsm(directory_ / "softhsm", error), error);
    Check(tokens::Start({.providers = {{.name = "softhsm", .module_path = tokens::SoftHsmModulePath()}}}, error),
          error);
    events::Start();
    CM::CertEngine_Init();  // test fixtures and the peers share libcrypto with the engine
    CM::CertEngine_Finit();
}

PKCS11::TokenInfo World::MakeToken(const std::string& label, const std::string& pin, const std::string& so_pin) {
    PKCS11::TokenInfo token;
    std::string error;
    Check(tokens::InitToken("softhsm", label, vpnfc::SecretString(std::string_view(so_pin)),
                            vpnfc::SecretString(std::string_view(pin)), token, error),
          error);
    return token;
}

void World::FillHostToken(const PKCS11::TokenInfo& token, const std::string& pin, const std::string& so_pin) {
    {
        PKCS11::TokenSession session(token, PKCS11::TokenSession::kPrivate, &pin);
        Check(session.CreatePrivKeyObject(PKI_KEY_RSA, "1", test_pki::Pkcs8(leaf_.key), false) &&
                  session.CreatePubKeyObject(PKI_KEY_RSA, "1", leaf_.spki) &&
                  session.CreateCertObject({.id = "1", .value = leaf_.der, .category = 1}, leaf_.subject_der),
              "the host's key and certificate");
    }
    PKCS11::TokenSession officer(token, PKCS11::TokenSession::kPublic, &so_pin);
    Check(officer.CreateCertObject({.id = "2", .value = root_.der, .category = 2, .trusted = true}, root_.subject_der),
          "the trusted root");
}

void World::FillLargeToken(const PKCS11::TokenInfo& token, const std::string& pin) {
    PKCS11::TokenSession session(token, PKCS11::TokenSession::kPrivate, &pin);
    CM::CertEngine_Init();
    {
        const CM::CertStorage::X509CertsDB certs = MakeVariants(root_, "Large", false, kCertificatesOnToken);
        int number = 0;
        for (const CM::X509Cert* cert : certs) {
            const PKCS11::CertObject object{.id = std::to_string(++number), .value = cert->rawCert, .category = 3};
            Check(session.CreateCertObject(object, cert->rawSubject), "a certificate of the large token");
        }
    }
    CM::CertEngine_Finit();
}

void World::FindPlainFunctions() {
    void* library = dlopen(tokens::SoftHsmModulePath().c_str(), RTLD_NOW | RTLD_NOLOAD);
    Check(library != nullptr, "SoftHSM2 is not loaded");
    const auto get = reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"));
    Check(get != nullptr && get(&functions_) == CKR_OK, "no function list");
    CK_ULONG count = 16;
    slots_.resize(count);
    Check(functions_->C_GetSlotList(CK_TRUE, slots_.data(), &count) == CKR_OK, "no slots");
    slots_.resize(count);
    // SoftHSM2 always shows one more slot for a token to come.
    std::erase_if(slots_, [this](CK_SLOT_ID slot) {
        CK_TOKEN_INFO info;
        return functions_->C_GetTokenInfo(slot, &info) != CKR_OK || (info.flags & CKF_TOKEN_INITIALIZED) == 0;
    });
}

bool World::VerifyPeer(const test_pki::Cert& leaf, const test_pki::Cert& intermediate, LPARAMS::CRL_PROC_t mode) const {
    const LPCFG::ipsecid_t any;
    std::vector<const CM::X509Cert*> sent;
    for (const std::string* der : {&leaf.der, &intermediate.der}) {
        CM::VCertsListAddRawX509(sent, der->data(), static_cast<unsigned>(der->size()), {});
    }
    const CM::X509Cert* const peer = CM::IkeVerifyPeerCertificate(rule_, any, sent, mode, {}, {});
    for (const CM::X509Cert* cert : sent) CM::VCertHandleClose(cert);
    if (peer != nullptr) CM::VCertHandleClose(peer);
    return peer != nullptr;
}

CM::CertStorage::X509CertsDB& World::Variants(const std::string& name, bool ca, int count) {
    const auto [entry, fresh] = variants_.try_emplace({name, count});
    if (!fresh) return entry->second;
    entry->second = MakeVariants(root_, name, ca, count);
    if (ca) {
        entry->second.Adopt(ParseCert(intermediate_.der));
        entry->second.Reindex();
    }
    return entry->second;
}

void StoreListReplaced::Swap() {
    CM::CertStorage& store = CM::CertStorage::Instance();
    const vpnfc::WriteLock lock(store);
    std::swap(store.*list_, other_);
}

CM::CertStorage::X509CertsDB MakeVariants(const test_pki::Cert& issuer, const std::string& name, bool ca, int count) {
    const std::string placeholder(kDigits, '0');
    const std::string subject = name + " " + placeholder;
    const std::string key_id = "key id        " + placeholder;
    test_pki::CertSpec spec{.key = kKey, .key_index = 3, .subject = "CN=" + subject + ", OU=Many, O=Bench, C=EX"};
    spec.ca = ca;
    spec.key_usage = ca ? "keyCertSign, cRLSign" : "digitalSignature";
    spec.san = {"DNS:many.example"};
    spec.ski = test_pki::KeyId::Bytes(key_id);
    std::string der = test_pki::MakeCert(spec, &issuer).der;
    const std::size_t subject_at = der.find(subject) + subject.size() - kDigits;
    const std::size_t key_id_at = der.find(key_id) + key_id.size() - kDigits;

    CM::CertStorage::X509CertsDB certs;
    for (int i = 0; i < count; ++i) {
        char digits[16];
        std::snprintf(digits, sizeof digits, "%06d", i);
        der.replace(subject_at, kDigits, digits);
        der.replace(key_id_at, kDigits, digits);
        auto* cert =
            new CM::X509Cert(CertEngine_CreateCertHandle(der.data(), static_cast<unsigned>(der.size())), nullptr);
        cert->info.kind = kCertKindOther;
        certs.Adopt(cert);
    }
    certs.Reindex();
    return certs;
}

}  // namespace bench
