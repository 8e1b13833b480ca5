#include "platform/tokens/slot_scan.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <set>

namespace tokens {
namespace {

/// Slots that a module is let list.
constexpr CK_ULONG kMaxListedSlots = 65536;

PKCS11::TokenInfo MakeInfo(const std::string& provider, const CK_SLOT_INFO& slot, const CK_TOKEN_INFO& token) {
    PKCS11::TokenInfo info;
    info.id = IdentifyToken(token);
    info.label = Padded(token.label);
    info.manufacturer = Padded(token.manufacturerID);
    info.model = Padded(token.model);
    info.serialNumber = Padded(token.serialNumber);
    info.slotDescription = Padded(slot.slotDescription);
    info.providerName = provider;
    info.writeProtected = (token.flags & CKF_WRITE_PROTECTED) != 0;
    info.loginRequired = (token.flags & CKF_LOGIN_REQUIRED) != 0;
    info.hardware = (slot.flags & CKF_HW_SLOT) != 0;
    info.removable = (slot.flags & CKF_REMOVABLE_DEVICE) != 0;
    info.pinPad = (token.flags & CKF_PROTECTED_AUTHENTICATION_PATH) != 0;
    return info;
}

std::uint32_t StatusBits(CK_FLAGS flags) {
    static constexpr std::pair<CK_FLAGS, std::uint32_t> kBits[] = {
        {CKF_TOKEN_INITIALIZED, PKCS11::kTokenInitialised},  {CKF_USER_PIN_INITIALIZED, PKCS11::kUserPinSet},
        {CKF_USER_PIN_COUNT_LOW, PKCS11::kUserPinFewTries},  {CKF_USER_PIN_FINAL_TRY, PKCS11::kUserPinFinalTry},
        {CKF_USER_PIN_LOCKED, PKCS11::kUserPinLocked},       {CKF_SO_PIN_COUNT_LOW, PKCS11::kOfficerPinFewTries},
        {CKF_SO_PIN_FINAL_TRY, PKCS11::kOfficerPinFinalTry}, {CKF_SO_PIN_LOCKED, PKCS11::kOfficerPinLocked},
    };
    std::uint32_t bits = 0;
    for (const auto& [flag, bit] : kBits) {
        if ((flags & flag) != 0) bits |= bit;
    }
    return bits;
}

bool IsAbsent(CK_RV rv) {
    return rv == CKR_TOKEN_NOT_PRESENT || rv == CKR_DEVICE_REMOVED || rv == CKR_SLOT_ID_INVALID;
}

/// Whether the answer says that the token known in a slot is not there. Any other may be a passing trouble: modules fail
/// while another process writes the token.
bool SaysGone(CK_RV rv) {
    return IsAbsent(rv) || rv == CKR_TOKEN_NOT_RECOGNIZED;
}

/// Whether the token was taken out since the session was opened, though it may be there again.
bool SaysSessionGone(CK_RV rv) {
    return SaysGone(rv) || rv == CKR_SESSION_HANDLE_INVALID || rv == CKR_SESSION_CLOSED;
}

/// The login state through the watching session, opened first where there is none.
Result WatchLogin(const Token& token, SessionPtr& session, LoginState& state) {
    if (session == nullptr) {
        const Result result = token.Open(session);
        if (!result.ok()) return result;
    }
    CK_SESSION_INFO info{};
    const Result result = session->api().GetSessionInfo(session->handle(), info);
    if (IsUserState(info.state)) state = LoginState::kUser;
    if (info.state == CKS_RW_SO_FUNCTIONS) state = LoginState::kSecurityOfficer;
    return result;
}

TokenPtr FindKnown(const std::vector<TokenPtr>& known, CK_SLOT_ID slot) {
    const auto found =
        std::find_if(known.begin(), known.end(), [slot](const TokenPtr& token) { return token->slot() == slot; });
    return found == known.end() ? nullptr : *found;
}

class Scan {
  public:
    Scan(const ModuleLinkPtr& link, const std::string& provider, const std::vector<TokenPtr>& known)
        : link_(link), api_(link->api()), provider_(provider), known_(known) {}

    ScanOutcome Run() {
        const SlotList list = ListSlots(api_);
        outcome_.result = list.result;
        outcome_.slots_left_out = list.left_out;
        if (!list.result.ok()) {
            for (const TokenPtr& token : known_) KeepOnce(token);
        }
        for (const CK_SLOT_ID slot : list.slots) {
            const Result result = Look(slot);
            if (!result.ok() && !IsAbsent(result.rv)) outcome_.troubles.push_back({slot, result});
        }
        return std::move(outcome_);
    }

  private:
    /// A token that could not be asked stays as it was; when the next look fails, too, it is gone: false.
    bool KeepOnce(const TokenPtr& token) {
        if (token == nullptr || token->removed() || !token->DoubtOnce()) return false;
        SeenToken seen{token};
        seen.login_changes = token->login_changes();
        seen.login_state = token->login_state();
        seen.info = token->Info();
        outcome_.tokens.push_back(std::move(seen));
        return true;
    }

    Result Look(CK_SLOT_ID slot) {
        CK_SLOT_INFO slot_info{};
        CK_TOKEN_INFO token_info{};
        Result result = api_.GetSlotInfo(slot, slot_info);
        if (result.ok()) result = api_.GetTokenInfo(slot, token_info);
        const TokenPtr known = FindKnown(known_, slot);
        if (!result.ok() && !SaysGone(result.rv)) KeepOnce(known);
        if (!result.ok() || (token_info.flags & CKF_TOKEN_INITIALIZED) == 0) return result;
        SeenToken seen;
        seen.info = MakeInfo(provider_, slot_info, token_info);
        if (seen.info.id == 0) {
            KeepOnce(known);
            return {"EVP_Digest", CKR_HOST_MEMORY};
        }
        if (known == nullptr || known->id() != seen.info.id) return LookAtNew(slot, std::move(seen));
        seen.token = known;
        return LookAtKnown(slot, std::move(seen));
    }

    /// The same object stands for the token again, unless it was taken out and put back.
    Result LookAtKnown(CK_SLOT_ID slot, SeenToken seen) {
        const TokenPtr known = seen.token;
        Result result = WatchKnown(seen);
        if (result.ok()) {
            known->EndDoubt();
            outcome_.tokens.push_back(std::move(seen));
            return {};
        }
        if (!SaysSessionGone(result.rv) && KeepOnce(known)) return result;
        result = LookAtNew(slot, std::move(seen));
        if (!result.ok() && !SaysGone(result.rv)) KeepOnce(known);
        return result;
    }

    /// Fails when the session on the token is gone, as after it was taken out and put back.
    static Result WatchKnown(SeenToken& seen) {
        SessionPtr session = seen.token->watch_session();
        const bool watched = session != nullptr;
        seen.login_changes = seen.token->login_changes();
        seen.info.holdsTrusted = !seen.info.writeProtected && !seen.token->mechanisms().empty();
        const Result result = WatchLogin(*seen.token, session, seen.login_state);
        if (result.ok() && !watched) seen.token->SetWatchSession(session);
        return watched ? result : Result{};
    }

    Result LookAtNew(CK_SLOT_ID slot, SeenToken seen) {
        MechanismList mechanisms;
        if (const Result result = MechanismList::Read(api_, slot, mechanisms); !result.ok()) return result;
        // A token without mechanisms is a list of certificates that others maintain.
        seen.info.holdsTrusted = !seen.info.writeProtected && !mechanisms.empty();
        seen.is_new = true;
        seen.token = std::make_shared<Token>(link_, slot, seen.info, std::move(mechanisms));
        SessionPtr session;
        const Result result = WatchLogin(*seen.token, session, seen.login_state);
        if (result.ok()) seen.token->SetWatchSession(session);
        // One that does not open a session now is listed all the same: it may be busy.
        if (IsAbsent(result.rv)) return result;
        outcome_.tokens.push_back(std::move(seen));
        return {};
    }

    const ModuleLinkPtr& link_;
    const Api& api_;
    const std::string& provider_;
    const std::vector<TokenPtr>& known_;
    ScanOutcome outcome_;
};

}  // namespace

SlotList ListSlots(const Api& api) {
    SlotList list;
    std::vector<CK_SLOT_ID> slots;
    for (int attempt = 0;; ++attempt) {
        CK_ULONG count = 0;
        // Asking for the number is also what makes modules look for new slots.
        list.result = api.GetSlotList(true, nullptr, count);
        if (!list.result.ok()) return list;
        list.left_out = count > kMaxSlots;
        // All of them, or the call fails; of which the first are used.
        slots.resize(std::min(count, kMaxListedSlots));
        count = slots.size();
        if (count > 0) list.result = api.GetSlotList(true, slots.data(), count);
        if (list.result.rv == CKR_BUFFER_TOO_SMALL && attempt < 3) continue;  // one more token since
        if (!list.result.ok()) return list;
        slots.resize(std::min<std::size_t>(count, slots.size()));
        break;
    }
    std::set<CK_SLOT_ID> seen;
    for (const CK_SLOT_ID slot : slots) {
        if (seen.insert(slot).second && list.slots.size() < kMaxSlots) list.slots.push_back(slot);
    }
    return list;
}

/// The fields as the token gives them, blanks included: of fixed widths, so that they cannot run into each other.
std::uint64_t IdentifyToken(const CK_TOKEN_INFO& info) {
    std::string fields;
    fields.append(reinterpret_cast<const char*>(info.manufacturerID), sizeof info.manufacturerID);
    fields.append(reinterpret_cast<const char*>(info.model), sizeof info.model);
    fields.append(reinterpret_cast<const char*>(info.serialNumber), sizeof info.serialNumber);
    fields.append(reinterpret_cast<const char*>(info.label), sizeof info.label);
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned length = 0;
    if (EVP_Digest(fields.data(), fields.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) return 0;
    std::uint64_t id = 0;
    for (std::size_t i = 0; i < sizeof id; ++i) id = id << 8 | digest[i];
    return id;
}

ScanOutcome ScanSlots(const ModuleLinkPtr& link, const std::string& provider_name, const std::vector<TokenPtr>& known) {
    return Scan(link, provider_name, known).Run();
}

std::vector<SlotStatus> ReadSlotStatuses(const ModuleLinkPtr& link, const std::string& provider_name) {
    const ModuleLink::Entry entry = link->Enter();
    std::vector<SlotStatus> statuses;
    if (!entry) return statuses;
    const Api& api = link->api();
    for (const CK_SLOT_ID slot : ListSlots(api).slots) {
        CK_SLOT_INFO slot_info{};
        CK_TOKEN_INFO token_info{};
        if (!api.GetSlotInfo(slot, slot_info).ok() || !api.GetTokenInfo(slot, token_info).ok()) continue;
        SlotStatus& status = statuses.emplace_back();
        status.slot = slot;
        status.token.info = MakeInfo(provider_name, slot_info, token_info);
        status.token.flags = StatusBits(token_info.flags);
        status.token.minPinBytes = static_cast<std::uint32_t>(token_info.ulMinPinLen);
        status.token.maxPinBytes = static_cast<std::uint32_t>(token_info.ulMaxPinLen);
        if ((token_info.flags & CKF_TOKEN_INITIALIZED) != 0) continue;
        status.token.info.id = 0;
        status.token.flags = 0;  // there are no PINs yet
    }
    return statuses;
}

}  // namespace tokens
