// A PKCS #11 module for tests that forwards what the token manager calls to another module and, steered through a file,
// makes the trouble that real tokens make: they vanish, fail, are slow or never answer.
//
// The control file is named by C_Initialize's pReserved ("control=PATH"), else by the environment variable
// FORWARD_PKCS11_CONTROL. It is looked at in every call, so a directive works at once; replace it by renaming another
// file over it (control.h does). Without a file everything is forwarded. The other module is named by
// FORWARD_PKCS11_MODULE; the default is SoftHSM2. One directive a line:
//
//   hide LABEL                         the token is not there: it is left out of lists of slots with tokens, calls on its
//                                      slot answer CKR_TOKEN_NOT_PRESENT, its sessions are closed and answer
//                                      CKR_DEVICE_REMOVED, and CKR_SESSION_HANDLE_INVALID when no token is hidden
//   fail FUNCTION CKR [skip N] [times M]
//                                      answers CKR ("CKR_DEVICE_ERROR") without forwarding; after N calls, M times
//   delay FUNCTION MILLISECONDS        before forwarding
//   hang FUNCTION                      does not return as long as the directive stands, two minutes at most
//   flags LABEL BITS                   adds bits (hexadecimal) to CK_TOKEN_INFO.flags
//   pose LABEL OTHER                   the token describes itself as the token OTHER does
//   ghost                              every search finds one more object, which does not exist
//   slots NUMBER                       as many more slots, after the others, that claim a token and have none
//   endless                            no search ends: it finds objects that do not exist
//   without MECHANISM USES             the token does not offer it for these uses (CKF_ bits); both hexadecimal
//   no-events                          C_WaitForSlotEvent answers CKR_FUNCTION_NOT_SUPPORTED
//   trace FUNCTION                     appends "FUNCTION CKR" to the control file's name with ".trace" after each call
//
// C_WaitForSlotEvent, which SoftHSM2 lacks, reports tokens that were hidden or shown.
#include <dlfcn.h>
#include <p11-kit/pkcs11.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <shared_mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/tokens/ck_api.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kLongestHang{120000};
constexpr milliseconds kLook{5};  // between two looks at the control file while a call waits
constexpr CK_OBJECT_HANDLE kGhost = 0x7FFFFFF1;
constexpr CK_FLAGS kAllUses = ~CK_FLAGS{0};

/// The control file.
class Control {
  public:
    void SetPath(std::string path) {
        const std::lock_guard lock(mutex_);
        path_ = std::move(path);
        read_ = {};
    }
    /// What follows "VERB NAME" on a line.
    std::optional<std::string> Find(const std::string& verb, const std::string& name = {}) {
        const auto named = All(verb);
        const auto found = named.find(name);
        return found == named.end() ? std::nullopt : std::optional(found->second);
    }
    /// The lines of a verb: what follows, by name.
    std::map<std::string, std::string> All(const std::string& verb) {
        const std::lock_guard lock(mutex_);
        struct stat status {};
        stat(path_.c_str(), &status);
        const Version now = {static_cast<long>(status.st_ino), status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
        if (now != read_) Read();
        read_ = now;
        return directives_[verb];
    }
    /// Counts the calls since the file was written.
    long CallsBefore(const std::string& function) {
        const std::lock_guard lock(mutex_);
        return calls_[function]++;
    }
    void Trace(const char* function, CK_RV rv) {
        if (!Find("trace", function).has_value()) return;
        const std::lock_guard lock(mutex_);
        std::ofstream(path_ + ".trace", std::ios::app) << function << ' ' << tokens::RvName(rv) << '\n';
    }

  private:
    using Version = std::array<long, 3>;

    void Read() {
        directives_.clear();
        calls_.clear();
        std::ifstream file(path_);
        for (std::string line; std::getline(file, line);) {
            std::istringstream words(line);
            std::string verb;
            std::string name;
            words >> verb >> name >> std::ws;
            std::getline(words, directives_[verb][name]);
        }
    }

    std::mutex mutex_;
    std::string path_;
    Version read_{};
    std::map<std::string, std::map<std::string, std::string>> directives_;
    std::map<std::string, long> calls_;
};

std::string Label(const CK_TOKEN_INFO& info) {
    std::string label(reinterpret_cast<const char*>(info.label), sizeof info.label);
    return label.erase(label.find_last_not_of(' ') + 1);
}

/// The tokens of the other module, whatever the control file says.
std::map<CK_SLOT_ID, CK_TOKEN_INFO> TokensOf(CK_FUNCTION_LIST& module) {
    std::map<CK_SLOT_ID, CK_TOKEN_INFO> tokens;
    std::vector<CK_SLOT_ID> slots(64);
    CK_ULONG count = slots.size();
    if (module.C_GetSlotList(1, slots.data(), &count) != CKR_OK) return tokens;
    slots.resize(count);
    for (const CK_SLOT_ID slot : slots) {
        if (module.C_GetTokenInfo(slot, &tokens[slot]) != CKR_OK) tokens.erase(slot);
    }
    return tokens;
}

/// Which slots are hidden.
class Slots {
  public:
    /// Held shared while the other module is entered: its sessions must not be closed under a call.
    std::shared_mutex in_use;

    /// Brings the slots to what the control file says.
    void Update(CK_FUNCTION_LIST& module, const std::map<std::string, std::string>& hidden) {
        {
            const std::lock_guard lock(mutex_);
            if (hidden == labels_) return;
        }
        const std::unique_lock exclusive(in_use);
        const std::lock_guard lock(mutex_);
        labels_ = hidden;
        for (const auto& [slot, info] : TokensOf(module)) {
            if (labels_.contains(Label(info)) == hidden_.contains(slot)) continue;
            events_.insert(slot);
            if (hidden_.erase(slot) > 0) continue;
            hidden_.insert(slot);
            module.C_CloseAllSessions(slot);
        }
    }
    std::set<CK_SLOT_ID> Hidden() {
        const std::lock_guard lock(mutex_);
        return hidden_;
    }
    bool TakeEvent(CK_SLOT_ID& slot) {
        const std::lock_guard lock(mutex_);
        if (events_.empty()) return false;
        slot = events_.extract(events_.begin()).value();
        return true;
    }
    void Clear() {
        const std::lock_guard lock(mutex_);
        hidden_.clear();
        events_.clear();
        labels_.clear();
    }

  private:
    std::mutex mutex_;
    std::map<std::string, std::string> labels_;
    std::set<CK_SLOT_ID> hidden_;
    std::set<CK_SLOT_ID> events_;
};

// Never destroyed: calls may hang when the process ends.
Control& g_control = *new Control;
Slots& g_slots = *new Slots;
CK_FUNCTION_LIST* g_module = nullptr;
bool g_finalize = false;

/// What the control file wants of a call before it is forwarded: an answer, or nothing.
std::optional<CK_RV> Intervene(const char* function) {
    const auto end = steady_clock::now() + kLongestHang;
    while (g_control.Find("hang", function).has_value() && steady_clock::now() < end) {
        std::this_thread::sleep_for(kLook);
    }
    const auto delay = g_control.Find("delay", function);
    if (delay.has_value()) std::this_thread::sleep_for(milliseconds(std::stol(*delay)));
    const auto fail = g_control.Find("fail", function);
    if (!fail.has_value()) return std::nullopt;
    std::istringstream words(*fail);
    std::string name;
    std::string word;
    long skip = 0;
    long times = LONG_MAX;
    words >> name;
    while (words >> word) words >> (word == "skip" ? skip : times);
    const long call = g_control.CallsBefore(function) - skip;
    if (call < 0 || call >= times) return std::nullopt;
    CK_RV rv = 0;
    while (rv < 0x400 && tokens::RvName(rv) != name) ++rv;
    return rv;
}

template <typename Call>
CK_RV Forward(const char* function, const Call& call) {
    std::optional<CK_RV> rv = Intervene(function);
    if (!rv.has_value()) {
        if (g_module == nullptr) return CKR_CRYPTOKI_NOT_INITIALIZED;
        g_slots.Update(*g_module, g_control.All("hide"));
        const std::shared_lock in_use(g_slots.in_use);
        rv = call();
    }
    g_control.Trace(function, *rv);
    return *rv;
}

template <typename Call>
CK_RV ForwardOnSlot(const char* function, CK_SLOT_ID slot, const Call& call) {
    return Forward(function, [&] { return g_slots.Hidden().contains(slot) ? CKR_TOKEN_NOT_PRESENT : call(); });
}

template <typename Call>
CK_RV ForwardOnSession(const char* function, CK_SESSION_HANDLE /*session*/, const Call& call) {
    return Forward(function, [&] {
        const CK_RV rv = call();
        return rv == CKR_SESSION_HANDLE_INVALID && !g_slots.Hidden().empty() ? CKR_DEVICE_REMOVED : rv;
    });
}

CK_RV LoadModule() {
    if (g_module != nullptr) return CKR_OK;
    const char* const path = std::getenv("FORWARD_PKCS11_MODULE");
    void* const library = dlopen(path != nullptr ? path : "/usr/lib/softhsm/libsofthsm2.so", RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) return CKR_LIBRARY_LOAD_FAILED;
    const auto get = reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"));
    return get == nullptr ? CKR_LIBRARY_LOAD_FAILED : get(&g_module);
}

CK_RV Initialize(void* init_args) {
    CK_C_INITIALIZE_ARGS args{};
    args.flags = CKF_OS_LOCKING_OK;
    const auto* const given = static_cast<const CK_C_INITIALIZE_ARGS*>(init_args);
    const bool named = given != nullptr && given->pReserved != nullptr;
    const char* const path = std::getenv("FORWARD_PKCS11_CONTROL");
    g_control.SetPath(named ? static_cast<const char*>(given->pReserved) + std::string_view("control=").size()
                            : (path == nullptr ? "" : path));
    if (const auto answer = Intervene("C_Initialize")) return *answer;
    if (const CK_RV rv = LoadModule(); rv != CKR_OK) return rv;
    const CK_RV rv = g_module->C_Initialize(&args);
    g_finalize = rv == CKR_OK;
    // Two copies of this module may stand on one other module.
    return rv == CKR_CRYPTOKI_ALREADY_INITIALIZED ? CKR_OK : rv;
}

CK_RV Finalize(void* reserved) {
    if (const auto answer = Intervene("C_Finalize")) return *answer;
    const CK_RV rv = g_finalize ? g_module->C_Finalize(reserved) : CKR_OK;
    g_slots.Clear();
    return rv;
}

CK_RV GetSlotList(unsigned char token_present, CK_SLOT_ID* slots, CK_ULONG* count) {
    return Forward("C_GetSlotList", [&] {
        CK_ULONG all = 0;
        CK_RV rv = g_module->C_GetSlotList(token_present, nullptr, &all);
        std::vector<CK_SLOT_ID> list(all);
        if (rv == CKR_OK) rv = g_module->C_GetSlotList(token_present, list.data(), &all);
        if (rv != CKR_OK) return rv;
        list.resize(std::min<std::size_t>(all, list.size()));
        std::erase_if(list, [hidden = g_slots.Hidden()](CK_SLOT_ID slot) { return hidden.contains(slot); });
        for (const auto& [number, rest] : g_control.All("slots")) {
            for (CK_ULONG i = std::stoul(number); i > 0; --i) list.push_back(kGhost + i);
        }
        const bool fits = slots == nullptr || *count >= list.size();
        *count = list.size();
        if (slots != nullptr && fits) std::copy(list.begin(), list.end(), slots);
        return fits ? CKR_OK : CKR_BUFFER_TOO_SMALL;
    });
}

CK_RV GetTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO* info) {
    return ForwardOnSlot("C_GetTokenInfo", slot, [&] {
        const CK_RV rv = g_module->C_GetTokenInfo(slot, info);
        if (rv != CKR_OK) return rv;
        if (const auto pose = g_control.Find("pose", Label(*info))) {
            for (const auto& [other, its_info] : TokensOf(*g_module)) {
                if (Label(its_info) == *pose) *info = its_info;
            }
        }
        if (const auto flags = g_control.Find("flags", Label(*info))) info->flags |= std::stoul(*flags, nullptr, 16);
        return rv;
    });
}

/// What the token does not offer the mechanism for.
CK_FLAGS LeftOut(CK_MECHANISM_TYPE type) {
    std::ostringstream name;
    name << std::hex << type;
    const auto uses = g_control.Find("without", name.str());
    return uses.has_value() ? std::stoul(*uses, nullptr, 16) : 0;
}
bool IsLeftOut(CK_MECHANISM_TYPE type) {
    return LeftOut(type) == kAllUses;
}

CK_RV GetMechanismList(CK_SLOT_ID slot, CK_MECHANISM_TYPE* types, CK_ULONG* count) {
    return ForwardOnSlot("C_GetMechanismList", slot, [&] {
        const CK_RV rv = g_module->C_GetMechanismList(slot, types, count);
        // Asked for the number alone, it may be too high.
        if (rv == CKR_OK && types != nullptr)
            *count = static_cast<CK_ULONG>(std::remove_if(types, types + *count, IsLeftOut) - types);
        return rv;
    });
}

CK_RV GetMechanismInfo(CK_SLOT_ID slot, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* info) {
    return ForwardOnSlot("C_GetMechanismInfo", slot, [&] {
        const CK_RV rv = IsLeftOut(type) ? CKR_MECHANISM_INVALID : g_module->C_GetMechanismInfo(slot, type, info);
        if (rv == CKR_OK) info->flags &= ~LeftOut(type);
        return rv;
    });
}

CK_RV WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID* slot, void* /*reserved*/) {
    const auto end = steady_clock::now() + kLongestHang;
    for (;;) {
        const CK_RV rv = Forward("C_WaitForSlotEvent", [&]() -> CK_RV {
            if (g_control.Find("no-events").has_value()) return CKR_FUNCTION_NOT_SUPPORTED;
            return g_slots.TakeEvent(*slot) ? CKR_OK : CKR_NO_EVENT;
        });
        if (rv != CKR_NO_EVENT || (flags & CKF_DONT_BLOCK) != 0 || steady_clock::now() > end) return rv;
        std::this_thread::sleep_for(kLook);
    }
}

CK_RV FindObjects(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE* objects, CK_ULONG capacity, CK_ULONG* found) {
    return ForwardOnSession("C_FindObjects", session, [&]() -> CK_RV {
        if (g_control.Find("endless").has_value()) {
            std::fill_n(objects, *found = capacity, kGhost);
            return CKR_OK;
        }
        const CK_RV rv = g_module->C_FindObjects(session, objects, capacity, found);
        // On the last page, which is not full.
        const bool last = rv == CKR_OK && *found > 0 && *found < capacity;
        if (last && g_control.Find("ghost").has_value()) objects[(*found)++] = kGhost;
        return rv;
    });
}

/// Whether a call's second argument is a mechanism that the token does not offer for this.
template <typename... Rest>
bool UsesLeftOut(std::string_view function, CK_MECHANISM* mechanism, Rest...) {
    const CK_FLAGS use = function == "C_SignInit" ? CKF_SIGN : function == "C_VerifyInit" ? CKF_VERIFY : kAllUses;
    return (LeftOut(mechanism->mechanism) & use) == use;
}
bool UsesLeftOut(...) {
    return false;
}

CK_RV GetFunctionList(CK_FUNCTION_LIST** list);

// Functions that are forwarded as a call on what their first argument names.
#define ON(slot_or_session, function)                                                                            \
    list.function = [](unsigned long first, auto... rest) -> CK_RV {                                             \
        return ForwardOn##slot_or_session(#function, first, [&]() -> CK_RV {                                     \
            return UsesLeftOut(#function, rest...) ? CKR_MECHANISM_INVALID : g_module->function(first, rest...); \
        });                                                                                                      \
    };

/// The functions that the token manager calls; the others are not there.
CK_FUNCTION_LIST MakeList() {
    CK_FUNCTION_LIST list{};
    list.version = {2, 40};
    list.C_Initialize = Initialize;
    list.C_Finalize = Finalize;
    list.C_GetInfo = [](CK_INFO* info) { return Forward("C_GetInfo", [&] { return g_module->C_GetInfo(info); }); };
    list.C_GetFunctionList = GetFunctionList;
    list.C_GetSlotList = GetSlotList;
    list.C_GetTokenInfo = GetTokenInfo;
    list.C_GetMechanismList = GetMechanismList;
    list.C_GetMechanismInfo = GetMechanismInfo;
    list.C_WaitForSlotEvent = WaitForSlotEvent;
    list.C_FindObjects = FindObjects;
    ON(Slot, C_GetSlotInfo)
    ON(Slot, C_InitToken)
    ON(Slot, C_OpenSession)
    ON(Session, C_CloseSession)
    ON(Session, C_InitPIN)
    ON(Session, C_SetPIN)
    ON(Session, C_GetSessionInfo)
    ON(Session, C_Login)
    ON(Session, C_Logout)
    ON(Session, C_CreateObject)
    ON(Session, C_DestroyObject)
    ON(Session, C_GetAttributeValue)
    ON(Session, C_FindObjectsInit)
    ON(Session, C_FindObjectsFinal)
    ON(Session, C_EncryptInit)
    ON(Session, C_Encrypt)
    ON(Session, C_DigestInit)
    ON(Session, C_Digest)
    ON(Session, C_SignInit)
    ON(Session, C_Sign)
    ON(Session, C_VerifyInit)
    ON(Session, C_Verify)
    ON(Session, C_VerifyRecoverInit)
    ON(Session, C_VerifyRecover)
    ON(Session, C_GenerateKey)
    ON(Session, C_GenerateKeyPair)
    ON(Session, C_SeedRandom)
    return list;
}

CK_RV GetFunctionList(CK_FUNCTION_LIST** list) {
    static CK_FUNCTION_LIST functions = MakeList();
    *list = &functions;
    return CKR_OK;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST** list) {
    return GetFunctionList(list);
}
