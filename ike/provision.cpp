#include "ike/provision.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <memory>

#include "certmgr/cert_engine.h"
#include "certmgr/certmgr.h"
#include "ike/crypto/keys.h"
#include "ike/exchange.h"
#include "ike/wire/bytes.h"
#include "libcrypto/libcrypto.h"
#include "platform/base/descriptor.h"
#include "platform/base/files.h"
#include "platform/tokens.h"
#include "platform/tokens/token_host.h"

namespace ikeauth {
namespace {

constexpr std::size_t kMaxFileBytes = 1U << 20;
constexpr int kPinDigits = 8;

/// What a PEM certificate file holds, as a token wants it.
struct CertFile {
    std::string der;
    std::string subject_der;
    std::string spki;
    std::string key_hash;
    CertInfo info;
};

bool Complain(const std::string& text) {
    std::cerr << "ikeauth: " << text << "\n";
    return false;
}

bool ReadFile(const std::string& path, vpnfc::SecretString& content) {
    const vpnfc::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const auto result = file ? vpnfc::ReadToEnd(file.get(), kMaxFileBytes, content) : vpnfc::ReadResult::kFailed;
    if (result == vpnfc::ReadResult::kTooLong) return Complain(path + ": larger than 1 MiB");
    return result == vpnfc::ReadResult::kRead || Complain(path + ": cannot be read: " + std::strerror(errno));
}

bool ReadCert(const std::string& path, CertFile& cert) {
    vpnfc::SecretString text;
    if (!ReadFile(path, text)) return false;
    const std::unique_ptr<void, decltype(&CertEngine_CloseCertHandle)> handle(CertEngine_ReadPEMCertData(text.get()),
                                                                              CertEngine_CloseCertHandle);
    if (!handle) return Complain(path + ": not a certificate");
    CertEngine_GetCertInfo(handle.get(), cert.info);
    return CertEngine_RawCert(handle.get(), cert.der) && CertEngine_RawSubject(handle.get(), cert.subject_der) &&
           CertEngine_RawPubKey(handle.get(), cert.spki, cert.key_hash);
}

/// In the form of PKCS #8 as it stands, whatever the algorithm; the older forms are libcrypto's to read.
libcrypto::Pkcs8Ptr ReadKeyInfo(BIO* file) {
    libcrypto::Pkcs8Ptr info(PEM_read_bio_PKCS8_PRIV_KEY_INFO(file, nullptr, nullptr, nullptr));
    if (info != nullptr || BIO_reset(file) != 1) return info;
    const libcrypto::KeyPtr key(PEM_read_bio_PrivateKey(file, nullptr, nullptr, const_cast<char*>("")));
    if (key != nullptr) info.reset(EVP_PKEY2PKCS8(key.get()));
    return info;
}

/// PrivateKeyInfo DER of a PEM private key without password.
bool ReadKey(const std::string& path, vpnfc::SecretString& pkcs8) {
    vpnfc::SecretString text;
    if (!ReadFile(path, text)) return false;
    const libcrypto::BioPtr file(BIO_new_mem_buf(text.get().data(), static_cast<int>(text.get().size())));
    const libcrypto::Pkcs8Ptr info = file ? ReadKeyInfo(file.get()) : nullptr;
    if (info) pkcs8 = vpnfc::SecretString(libcrypto::Encode(info.get(), i2d_PKCS8_PRIV_KEY_INFO));
    return !pkcs8.empty() || Complain(path + ": not an unencrypted PEM private key");
}

vpnfc::SecretString RandomPin() {
    vpnfc::SecretString pin;
    while (pin.get().size() < kPinDigits) {
        const auto byte = static_cast<unsigned char>(RandomBytes(1)[0]);
        if (byte < 250) pin.edit().push_back(static_cast<char>('0' + byte % 10));  // below 250 every digit is as likely
    }
    return pin;
}

/// Reads a PIN file, or makes one with a random PIN.
bool ReadOrMakePin(const std::string& path, vpnfc::SecretString& pin) {
    std::string error;
    if (access(path.c_str(), F_OK) == 0) return tokens::ReadPinFile(path, pin, error) || Complain(error);
    pin = RandomPin();
    vpnfc::Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!file) return Complain("PIN file " + path + " cannot be made: " + std::strerror(errno));
    return (vpnfc::WriteAll(file.get(), pin.get()) && file.Close()) ||
           Complain("PIN file " + path + " cannot be written: " + std::strerror(errno));
}

bool ReadDate(const std::string& text, cert_time64_t& time) {
    std::tm tm{};
    const char* end = strptime(text.c_str(), "%Y-%m-%d", &tm);
    if (end == nullptr || *end != '\0') return Complain("'" + text + "' is not a date YYYY-MM-DD");
    time = CertTimeFromTm(tm);
    return true;
}

/// Writes objects on a fresh token.
class TokenWriter {
  public:
    explicit TokenWriter(PKCS11::TokenInfo token) : token_(std::move(token)) {}

    bool WriteHost(const ProvisionOptions& options, const vpnfc::SecretString& pin) {
        PKCS11::TokenSession session(token_, PKCS11::TokenSession::kPrivate, &pin.get());
        if (!session) return Complain("no private session on token '" + token_.label + "'");
        if (options.certs.size() != options.keys.size()) return Complain("each --cert needs its --key");
        for (std::size_t i = 0; i < options.certs.size(); ++i) {
            if (!WriteKeyAndCert(session, options.certs[i], options.keys[i], options.key_not_after)) return false;
        }
        for (const std::string& key : options.preshared_keys) {
            if (!WritePresharedKey(session, key)) return false;
        }
        for (const std::string& path : options.others) {
            if (!WriteCert(session, path, false)) return false;
        }
        return true;
    }

    bool WriteTrusted(const std::vector<std::string>& paths, const vpnfc::SecretString& so_pin) {
        if (paths.empty()) return true;
        PKCS11::TokenSession session(token_, PKCS11::TokenSession::kPublic, &so_pin.get());
        if (!session) return Complain("no security officer session on token '" + token_.label + "'");
        for (const std::string& path : paths) {
            if (!WriteCert(session, path, true)) return false;
        }
        return true;
    }

  private:
    /// CKA_ID, in network order.
    std::string NextId() { return NetworkOrder(++last_id_); }

    bool WriteKeyAndCert(PKCS11::TokenSession& session, const std::string& cert_path, const std::string& key_path,
                         const std::string& key_not_after) {
        CertFile cert;
        vpnfc::SecretString pkcs8;
        if (!ReadCert(cert_path, cert) || !ReadKey(key_path, pkcs8)) return false;
        cert_time64_t not_after = CERT_TIME_UNKNOWN;
        if (!key_not_after.empty() && !ReadDate(key_not_after, not_after)) return false;
        const std::string id = NextId();
        const PKCS11::CertObject object{.id = id, .value = cert.der, .category = PKCS11::kTokenUserCategory};
        return (session.CreatePrivKeyObject(cert.info.keyAlg, id, pkcs8.get(), false, not_after) &&
                session.CreatePubKeyObject(cert.info.keyAlg, id, cert.spki, not_after) &&
                session.CreateCertObject(object, cert.subject_der)) ||
               Complain("the token does not take the key pair and certificate of " + cert_path);
    }

    /// The key is the first line of its file.
    static bool WritePresharedKey(PKCS11::TokenSession& session, const std::string& name_and_path) {
        const std::size_t equals = name_and_path.find('=');
        if (equals == std::string::npos) return Complain("'" + name_and_path + "' is not NAME=FILE");
        vpnfc::SecretString key;
        std::string error;
        if (!tokens::ReadPinFile(name_and_path.substr(equals + 1), key, error)) return Complain(error);
        const std::string name = name_and_path.substr(0, equals);
        return session.CreatePresharedKeyObject(name, key.get()) || Complain("the token does not take the key " + name);
    }

    bool WriteCert(PKCS11::TokenSession& session, const std::string& path, bool trusted) {
        CertFile cert;
        if (!ReadCert(path, cert)) return false;
        const PKCS11::CertObject object{
            .id = NextId(),
            .value = cert.der,
            .category = cert.info.isCA ? PKCS11::kAuthorityCategory : PKCS11::kOtherEntityCategory,
            .trusted = trusted};
        return session.CreateCertObject(object, cert.subject_der) || Complain("the token does not take " + path);
    }

    PKCS11::TokenInfo token_;
    std::uint16_t last_id_ = 0;
};

bool PrepareProvider(const ProvisionOptions& options, tokens::Provider& provider) {
    const std::string state = std::filesystem::absolute(options.state);
    if (!options.module.empty()) {
        const std::string module = std::filesystem::absolute(options.module);
        provider = {.name = "module", .module_path = module, .init_args = "directory=" + state};
        return true;
    }
    provider = {.name = "softhsm", .module_path = tokens::SoftHsmModulePath()};
    if (provider.module_path.empty()) return Complain("SoftHSM2 is not installed: install softhsm2");
    std::string error;
    return tokens::PrepareSoftHsm(state, error) || Complain("state folder " + error);
}

bool Provision(const ProvisionOptions& options) {
    vpnfc::SecretString pin;
    vpnfc::SecretString so_pin;
    if (!ReadOrMakePin(options.pin_file, pin) || !ReadOrMakePin(options.so_pin_file, so_pin)) return false;

    std::string error;
    tokens::Provider provider;
    if (!PrepareProvider(options, provider)) return false;
    if (!tokens::Start({.providers = {provider}}, error)) return Complain(error);

    PKCS11::TokenInfo token;
    if (!tokens::InitToken(provider.name, options.label, so_pin, pin, token, error)) return Complain(error);
    TokenWriter writer(token);
    return writer.WriteHost(options, pin) && writer.WriteTrusted(options.trusted, so_pin);
}

}  // namespace

int RunProvision(const ProvisionOptions& options) {
    CM::CertEngine_Init();
    const bool done = Provision(options);
    tokens::Stop();
    CM::CertEngine_Finit();
    return done ? kExitSuccess : kExitCannotRun;
}

}  // namespace ikeauth
