#include "cli/client/manager.h"

#include "certmgr/cert_commands.h"
#include "certmgr/records_sync.h"

namespace certmgr_client {
namespace {

using bridge::kGroupCertificates;
using bridge::kGroupTokens;
using vpnfc::SecretString;

constexpr auto kNoInput = [](CommandStreamOut& /*out*/) {};

/// A record, writer and reader alike.
constexpr auto sync_listed = [](auto& stream, auto& listed) {
    sync(stream, listed.token);
    sync(stream, listed.info);
};

/// Writes the two records that name a certificate or a CRL.
template <typename Info>
auto NameOf(const TokenInfo& token, const Info& info) {
    return [&token, &info](CommandStreamOut& out) {
        sync(out, token);
        sync(out, info);
    };
}

/// Room beside what else a command carries.
constexpr std::size_t kRoomForRecords = 64U << 10;

void ReadPinReply(CommandStreamIn& in, PinReply& reply) {
    in.fields(reply.status, reply.text);
}

const std::string& TextOf(const SecretString* secret) {
    static const std::string empty;
    return secret == nullptr ? empty : secret->get();
}

}  // namespace

/// `write` writes the input, `read` reads the output of the command. What a newer daemon adds at the end is left alone.
/// `secret_bytes`: of what the input holds beside records; one that grew would leave copies of it behind.
template <typename Result, typename Write, typename Read>
std::optional<Result> Manager::Call(std::uint32_t group, std::uint32_t command, Write write, Read read,
                                    std::size_t secret_bytes) {
    SecretString input;
    input.edit().reserve(secret_bytes + kRoomForRecords);
    CommandStreamOut out(input.edit());
    write(out);
    SecretString reply;
    if (!client_.Call(group, command, input.get(), reply.edit(), timeout_)) {
        failure_ = client_.failure();
        return std::nullopt;
    }
    failure_ = {};
    std::optional<Result> result(std::in_place);
    try {
        CommandStreamIn in(reply.get());
        read(in, *result);
    } catch (const char*) {
        failure_ = {.kind = bridge::ClientFailure::Kind::kMalformed, .text = "the daemon's answer is too short"};
        return std::nullopt;
    }
    return result;
}

template <typename Write>
bool Manager::Send(std::uint32_t group, std::uint32_t command, Write write) {
    return Call<bool>(group, command, write, [](CommandStreamIn& /*in*/, bool& /*ignored*/) {}).has_value();
}

// --- Certificates ---

std::optional<std::vector<ListedCert>> Manager::ListCertificates(CertSelector selector) {
    return Call<std::vector<ListedCert>>(
        kGroupCertificates, CM::kCommandEnumCertificates,
        [&](CommandStreamOut& out) { out.fields(static_cast<std::uint32_t>(selector)); },
        [](CommandStreamIn& in, std::vector<ListedCert>& listed) { sync_list(in, listed, sync_listed); });
}

std::optional<Details> Manager::CertificateDetails(const TokenInfo& token, const CertInfo& info) {
    return Call<Details>(kGroupCertificates, CM::kCommandDetails, NameOf(token, info),
                         [](CommandStreamIn& in, Details& details) {
                             details.found = !in.at_end();
                             if (!details.found) return;
                             sync(in, details.info);
                             sync(in, details.ext);
                             in.fields(details.public_key);
                         });
}

std::optional<Chain> Manager::BuildChain(const TokenInfo& token, const CertInfo& info) {
    return Call<Chain>(kGroupCertificates, CM::kCommandBuildChain, NameOf(token, info),
                       [](CommandStreamIn& in, Chain& chain) {
                           chain.found = !in.at_end();
                           if (!chain.found) return;
                           in.fields(chain.result);
                           sync_list(in, chain.members, sync_listed);
                       });
}

std::optional<Verdict> Manager::VerifyCertificate(const TokenInfo& token, const CertInfo& info, std::uint32_t mode) {
    return Call<Verdict>(
        kGroupCertificates, CM::kCommandVerify,
        [&](CommandStreamOut& out) {
            NameOf(token, info)(out);
            out.fields(mode);
        },
        [](CommandStreamIn& in, Verdict& verdict) { in.fields(verdict.good, verdict.text); });
}

bool Manager::DeleteCertificate(const TokenInfo& token, const CertInfo& info) {
    return Send(kGroupCertificates, CM::kCommandDeleteCertificate, NameOf(token, info));
}

std::optional<Produced> Manager::ExportCertificate(const TokenInfo& token, const CertInfo& info,
                                                   const ExportOptions& options) {
    return Call<Produced>(
        kGroupCertificates, CM::kCommandExportCertificate,
        [&](CommandStreamOut& out) {
            NameOf(token, info)(out);
            out.fields(options.format, TextOf(options.password), options.with_chain, options.with_private_key);
        },
        [](CommandStreamIn& in, Produced& produced) { in.fields(produced.result, produced.bytes.edit()); },
        TextOf(options.password).size());
}

// --- Files ---

std::optional<FileContent> Manager::OpenFile(std::string_view content, const SecretString& password) {
    return Call<FileContent>(
        kGroupCertificates, CM::kCommandOpenFile, [&](CommandStreamOut& out) { out.fields(content, password.get()); },
        [](CommandStreamIn& in, FileContent& file) {
            in.fields(file.status);
            if (file.status != 0) return;
            sync_list(in, file.tokens, sync_record);
            sync_list(in, file.certs, sync_record);
            sync_list(in, file.crls, sync_record);
        },
        content.size() + password.get().size());
}

std::optional<std::uint32_t> Manager::ImportCertificate(const TokenInfo& token, std::uint32_t index,
                                                        const ImportOptions& options) {
    return Call<std::uint32_t>(
        kGroupCertificates, CM::kCommandImportCertificate,
        [&](CommandStreamOut& out) {
            sync(out, token);
            out.fields(index, options.mode, options.exportable);
            if (options.pin != nullptr) out.fields(options.pin->get());
        },
        [](CommandStreamIn& in, std::uint32_t& status) { in.fields(status); }, TextOf(options.pin).size());
}

std::optional<std::uint32_t> Manager::ImportCrl(const TokenInfo& token, std::uint32_t index) {
    return Call<std::uint32_t>(
        kGroupCertificates, CM::kCommandImportCrl,
        [&](CommandStreamOut& out) {
            sync(out, token);
            out.fields(index);
        },
        [](CommandStreamIn& in, std::uint32_t& status) { in.fields(status); });
}

// --- Requests ---

std::optional<std::vector<CertRequestKeyInfo>> Manager::RequestMechanisms(const TokenInfo& token) {
    return Call<std::vector<CertRequestKeyInfo>>(
        kGroupCertificates, CM::kCommandRequestMechanisms, [&](CommandStreamOut& out) { sync(out, token); },
        [](CommandStreamIn& in, std::vector<CertRequestKeyInfo>& kinds) { sync_list(in, kinds, sync_record); });
}

std::optional<Produced> Manager::MakeRequest(const TokenInfo& token, const CertRequestInfo& info) {
    return Call<Produced>(
        kGroupCertificates, CM::kCommandMakeRequest, NameOf(token, info),
        [](CommandStreamIn& in, Produced& produced) { in.fields(produced.result, produced.bytes.edit()); },
        info.randomSeed.size());
}

// --- Preshared keys ---

std::optional<std::vector<ListedKey>> Manager::ListPresharedKeys() {
    return Call<std::vector<ListedKey>>(kGroupCertificates, CM::kCommandEnumPresharedKeys, kNoInput,
                                        [](CommandStreamIn& in, std::vector<ListedKey>& keys) {
                                            sync_list(in, keys, [](CommandStreamIn& stream, ListedKey& key) {
                                                sync(stream, key.token);
                                                stream.fields(key.name);
                                            });
                                        });
}

std::optional<bool> Manager::CreatePresharedKey(const TokenInfo& token, const std::string& name,
                                                const SecretString& value) {
    return Call<bool>(
        kGroupCertificates, CM::kCommandCreatePresharedKey,
        [&](CommandStreamOut& out) {
            sync(out, token);
            out.fields(name, value.get());
        },
        [](CommandStreamIn& in, bool& created) { in.fields(created); }, value.get().size());
}

bool Manager::DeletePresharedKey(const TokenInfo& token, const std::string& name) {
    return Send(kGroupCertificates, CM::kCommandDeletePresharedKey, [&](CommandStreamOut& out) {
        sync(out, token);
        out.fields(name);
    });
}

// --- CRLs ---

std::optional<std::vector<ListedCrl>> Manager::ListCrls() {
    return Call<std::vector<ListedCrl>>(kGroupCertificates, CM::kCommandEnumCrls, kNoInput,
                                        [](CommandStreamIn& in, std::vector<ListedCrl>& crls) {
                                            sync_list(in, crls, sync_listed);
                                            while (!in.at_end()) {
                                                sync_listed(in, crls.emplace_back());
                                                crls.back().downloaded = true;
                                            }
                                        });
}

bool Manager::DeleteCrl(const TokenInfo& token, const CRLInfo& info) {
    return Send(kGroupCertificates, CM::kCommandDeleteCrl, NameOf(token, info));
}

bool Manager::Reload() {
    return Send(kGroupCertificates, CM::kCommandReload, kNoInput);
}

// --- Tokens ---

std::optional<PKCS11::TokenListing> Manager::ListTokens() {
    return Call<PKCS11::TokenListing>(kGroupTokens, PKCS11::kCommandListTokens, kNoInput,
                                      [](CommandStreamIn& in, PKCS11::TokenListing& listing) {
                                          sync_list(in, listing.providers, sync_record);
                                          sync_list(in, listing.tokens, sync_record);
                                      });
}

std::optional<PinReply> Manager::Login(const TokenInfo& token, const SecretString& pin, bool try_anyway) {
    return Call<PinReply>(
        kGroupTokens, PKCS11::kCommandLogin,
        [&](CommandStreamOut& out) { out.fields(token.id, pin.get(), try_anyway); }, ReadPinReply, pin.get().size());
}

std::optional<PinReply> Manager::Logout(const TokenInfo& token) {
    return Call<PinReply>(
        kGroupTokens, PKCS11::kCommandLogout, [&](CommandStreamOut& out) { out.fields(token.id); }, ReadPinReply);
}

std::optional<PinReply> Manager::ChangePin(const TokenInfo& token, PKCS11::PinRole role, const SecretString& old_pin,
                                           const SecretString& new_pin, bool try_anyway) {
    return Call<PinReply>(
        kGroupTokens, PKCS11::kCommandChangePin,
        [&](CommandStreamOut& out) {
            out.fields(token.id, static_cast<std::uint32_t>(role), old_pin.get(), new_pin.get(), try_anyway);
        },
        ReadPinReply, old_pin.get().size() + new_pin.get().size());
}

std::optional<InitReply> Manager::InitToken(const std::string& provider, const std::string& label,
                                            const SecretString& officer_pin, const SecretString& user_pin) {
    return Call<InitReply>(
        kGroupTokens, PKCS11::kCommandInitToken,
        [&](CommandStreamOut& out) { out.fields(provider, label, officer_pin.get(), user_pin.get()); },
        [](CommandStreamIn& in, InitReply& reply) {
            in.fields(reply.done, reply.text);
            if (reply.done) sync(in, reply.token);
        },
        officer_pin.get().size() + user_pin.get().size());
}

// --- The question ---

std::optional<std::vector<ListedCert>> ParseCertificateQuestion(const std::string& body) {
    std::vector<CertInfo> certs;
    std::vector<TokenInfo> tokens;
    try {
        CommandStreamIn in(body);
        sync_list(in, certs, sync_record);
        sync_list(in, tokens, sync_record);
    } catch (const char*) {
        return std::nullopt;
    }
    if (certs.size() != tokens.size()) return std::nullopt;
    std::vector<ListedCert> listed;
    for (std::size_t i = 0; i < certs.size(); ++i) listed.push_back({.token = tokens[i], .info = certs[i]});
    return listed;
}

std::string ChooseCertificate(const CertInfo& chosen) {
    std::string answer;
    CommandStreamOut out(answer);
    out.fields(true);
    sync(out, chosen);
    return answer;
}

std::string CancelChoice() {
    return std::string(1, '\0');
}

}  // namespace certmgr_client
