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
//                                      CKR_DEVICE_REMOVED, and CKR_SESSION_HANDLE_INVALID after it came back
//   fail FUNCTION CKR [skip N] [times M]
//                                      answers CKR ("CKR_DEVICE_ERROR") without forwarding; after N calls, M times
//   delay FUNCTION MILLISECONDS        before forwarding
//   hang FUNCTION                      does not return as long as the directive stands, two minutes at most
//   flags LABEL BITS                   adds bits (hexadecimal) to CK_TOKEN_INFO.flags
//   pose LABEL OTHER                   the token describes itself as the token OTHER does
//   ghost                              every search finds one more object, which does not exist
//   slots NUMBER                       as many more slots, after the others, that claim a token and have none
//   endless                            no search ends: it finds objects that do not exist
//   without MECHANISM [USES]           the token does not offer it (hexadecimal), or not for these uses (CKF_ bits)
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
#include <cstdlib>
#include <cstring>
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

constexpr milliseconds kLongestHang{120000};
constexpr milliseconds kLook{5};  // between two looks at the control file while a call waits
constexpr CK_OBJECT_HANDLE kGhost = 0x7FFFFFF1;
constexpr CK_FLAGS kAllUses = ~CK_FLAGS{0};

struct FailRule {
    CK_RV rv = CKR_OK;
    long skip = 0;
    long times = -1;
};

struct Directives {
    std::set<std::string> hidden;
    std::set<std::string> hang;
    std::set<std::string> trace;
    std::map<std::string, FailRule> fail;
    std::map<std::string, milliseconds> delay;
    std::map<std::string, CK_FLAGS> flags;
    std::map<std::string, std::string> pose;
    std::map<CK_MECHANISM_TYPE, CK_FLAGS> without;
    CK_ULONG slots = 0;
    bool ghost = false;
    bool endless = false;
    bool no_events = false;
};

Directives Parse(const std::string& path) {
    Directives directives;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string verb;
        std::string name;
        words >> verb >> name;
        if (verb == "hide") directives.hidden.insert(name);
        if (verb == "hang") directives.hang.insert(name);
        if (verb == "trace") directives.trace.insert(name);
        if (verb == "slots") directives.slots = std::stoul(name);
        if (verb == "without" && !(words >> std::hex >> directives.without[std::stoul(name, nullptr, 16)]))
            directives.without[std::stoul(name, nullptr, 16)] = kAllUses;
        if (verb == "ghost") directives.ghost = true;
        if (verb == "endless") directives.endless = true;
        if (verb == "no-events") directives.no_events = true;
        if (verb == "delay") {
            long count = 0;
            words >> count;
            directives.delay[name] = milliseconds(count);
        }
        if (verb == "pose") words >> directives.pose[name];
        if (verb == "flags") words >> std::hex >> directives.flags[name];
        if (verb == "fail") {
            FailRule rule;
            std::string text;
            words >> text;
            rule.rv = tokens::RvFromName(text);
            while (words >> text) words >> (text == "skip" ? rule.skip : rule.times);
            directives.fail[name] = rule;
        }
    }
    return directives;
}

/// The control file as last read.
class Control {
  public:
    void SetPath(std::string path) {
        const std::lock_guard lock(mutex_);
        path_ = std::move(path);
        read_ = {};
    }
    Directives Get() {
        const std::lock_guard lock(mutex_);
        Refresh();
        return directives_;
    }
    template <typename Question>
    auto Ask(Question question) {
        const std::lock_guard lock(mutex_);
        Refresh();
        return question(directives_);
    }
    void Trace(const char* function, CK_RV rv) {
        const std::lock_guard lock(mutex_);
        if (directives_.trace.count(function) == 0) return;
        std::ofstream(path_ + ".trace", std::ios::app) << function << ' ' << tokens::RvName(rv) << '\n';
    }

  private:
    using Version = std::array<long long, 4>;

    void Refresh() {
        struct stat status {};
        Version version{};
        if (!path_.empty() && stat(path_.c_str(), &status) == 0) {
            version = {static_cast<long long>(status.st_ino), status.st_mtim.tv_sec, status.st_mtim.tv_nsec,
                       status.st_size};
        }
        if (version == read_) return;
        read_ = version;
        directives_ = Parse(path_);
    }

    std::mutex mutex_;
    std::string path_;
    Version read_{};
    Directives directives_;
};

std::string Label(const CK_TOKEN_INFO& info) {
    std::string label(reinterpret_cast<const char*>(info.label), sizeof info.label);
    return label.erase(label.find_last_not_of(' ') + 1);
}

/// Which slots are hidden, and the sessions that were lost with them.
class Slots {
  public:
    /// Held shared while the other module is entered: its sessions must not be closed under a call.
    std::shared_mutex in_use;

    void SetModule(CK_FUNCTION_LIST* module) { module_ = module; }

    /// Brings the slots to what the control file says.
    void Update(const std::set<std::string>& hidden_labels) {
        {
            const std::lock_guard lock(mutex_);
            if (hidden_labels == labels_) return;
        }
        const std::unique_lock exclusive(in_use);
        const std::lock_guard lock(mutex_);
        CK_ULONG count = 0;
        if (hidden_labels == labels_ || module_->C_GetSlotList(1, nullptr, &count) != CKR_OK) return;
        labels_ = hidden_labels;
        std::vector<CK_SLOT_ID> slots(count);
        if (module_->C_GetSlotList(1, slots.data(), &count) != CKR_OK) return;
        for (const CK_SLOT_ID slot : slots) {
            CK_TOKEN_INFO info{};
            if (module_->C_GetTokenInfo(slot, &info) != CKR_OK) continue;
            const bool hide = labels_.count(Label(info)) > 0;
            if (hide == (hidden_.count(slot) > 0)) continue;
            events_.insert(slot);
            hide ? Hide(slot) : void(hidden_.erase(slot));
        }
    }

    bool IsHidden(CK_SLOT_ID slot) {
        const std::lock_guard lock(mutex_);
        return hidden_.count(slot) > 0;
    }
    std::optional<CK_SLOT_ID> TakeEvent() {
        const std::lock_guard lock(mutex_);
        if (events_.empty()) return std::nullopt;
        const CK_SLOT_ID slot = *events_.begin();
        events_.erase(events_.begin());
        return slot;
    }
    void Opened(CK_SESSION_HANDLE session, CK_SLOT_ID slot) {
        const std::lock_guard lock(mutex_);
        sessions_[session] = slot;
        lost_.erase(session);
    }
    void Closed(CK_SESSION_HANDLE session) {
        const std::lock_guard lock(mutex_);
        sessions_.erase(session);
    }
    /// What a call on a session that was lost answers.
    std::optional<CK_RV> Lost(CK_SESSION_HANDLE session) {
        const std::lock_guard lock(mutex_);
        const auto found = lost_.find(session);
        if (found == lost_.end()) return std::nullopt;
        return hidden_.count(found->second) > 0 ? CKR_DEVICE_REMOVED : CKR_SESSION_HANDLE_INVALID;
    }
    void Clear() {
        const std::lock_guard lock(mutex_);
        sessions_.clear();
        lost_.clear();
        hidden_.clear();
        events_.clear();
        labels_.clear();
    }

  private:
    void Hide(CK_SLOT_ID slot) {
        hidden_.insert(slot);
        module_->C_CloseAllSessions(slot);
        for (auto it = sessions_.begin(); it != sessions_.end();) {
            if (it->second != slot) {
                ++it;
                continue;
            }
            lost_.insert(*it);
            it = sessions_.erase(it);
        }
    }

    std::mutex mutex_;
    CK_FUNCTION_LIST* module_ = nullptr;
    std::set<std::string> labels_;
    std::set<CK_SLOT_ID> hidden_;
    std::set<CK_SLOT_ID> events_;
    std::map<CK_SESSION_HANDLE, CK_SLOT_ID> sessions_;
    std::map<CK_SESSION_HANDLE, CK_SLOT_ID> lost_;
};

/// Never destroyed: calls may hang when the process ends.
struct State {
    Control control;
    Slots slots;
    CK_FUNCTION_LIST* module = nullptr;
    std::mutex counters_mutex;
    std::map<std::string, long> calls;
    bool finalize = false;
};

State& Get() {
    static State* const state = new State;
    return *state;
}

/// What the control file wants of a call before it is forwarded: an answer, or nothing.
std::optional<CK_RV> Intervene(const char* function) {
    State& state = Get();
    const auto end = std::chrono::steady_clock::now() + kLongestHang;
    const auto hangs = [&] {
        return state.control.Ask([&](const Directives& d) { return d.hang.count(function) > 0; });
    };
    while (hangs() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(kLook);
    const auto delay = state.control.Ask([&](const Directives& d) {
        const auto found = d.delay.find(function);
        return found == d.delay.end() ? milliseconds(0) : found->second;
    });
    if (delay.count() > 0) std::this_thread::sleep_for(std::min(delay, kLongestHang));
    return state.control.Ask([&](Directives& d) -> std::optional<CK_RV> {
        const auto found = d.fail.find(function);
        if (found == d.fail.end() || found->second.times == 0) return std::nullopt;
        if (found->second.skip-- > 0) return std::nullopt;
        --found->second.times;
        return found->second.rv;
    });
}

template <typename Call>
CK_RV Forward(const char* function, const Call& call) {
    State& state = Get();
    CK_RV rv = CKR_OK;
    if (const auto answer = Intervene(function)) {
        rv = *answer;
    } else {
        if (state.module == nullptr) return CKR_CRYPTOKI_NOT_INITIALIZED;
        state.slots.Update(state.control.Get().hidden);
        const std::shared_lock in_use(state.slots.in_use);
        rv = call(*state.module);
    }
    state.control.Trace(function, rv);
    return rv;
}

template <typename Call>
CK_RV ForwardOnSlot(const char* function, CK_SLOT_ID slot, const Call& call) {
    return Forward(function, [&](CK_FUNCTION_LIST& module) {
        return Get().slots.IsHidden(slot) ? CKR_TOKEN_NOT_PRESENT : call(module);
    });
}

template <typename Call>
CK_RV ForwardOnSession(const char* function, CK_SESSION_HANDLE session, const Call& call) {
    return Forward(function, [&](CK_FUNCTION_LIST& module) {
        const auto lost = Get().slots.Lost(session);
        return lost.has_value() ? *lost : call(module);
    });
}

CK_RV LoadModule() {
    State& state = Get();
    if (state.module != nullptr) return CKR_OK;
    const char* const path = std::getenv("FORWARD_PKCS11_MODULE");
    void* const library = dlopen(path != nullptr ? path : "/usr/lib/softhsm/libsofthsm2.so", RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) return CKR_LIBRARY_LOAD_FAILED;
    const auto get = reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"));
    if (get == nullptr || get(&state.module) != CKR_OK) return CKR_LIBRARY_LOAD_FAILED;
    state.slots.SetModule(state.module);
    return CKR_OK;
}

CK_RV Initialize(void* init_args) {
    State& state = Get();
    CK_C_INITIALIZE_ARGS args{};
    args.flags = CKF_OS_LOCKING_OK;
    const auto* const given = static_cast<const CK_C_INITIALIZE_ARGS*>(init_args);
    const std::string reserved =
        given != nullptr && given->pReserved != nullptr ? static_cast<const char*>(given->pReserved) : "";
    const char* const from_environment = std::getenv("FORWARD_PKCS11_CONTROL");
    constexpr std::string_view kControl = "control=";
    state.control.SetPath(reserved.starts_with(kControl) ? reserved.substr(kControl.size())
                                                         : (from_environment == nullptr ? "" : from_environment));
    if (const auto answer = Intervene("C_Initialize")) return *answer;
    if (const CK_RV rv = LoadModule(); rv != CKR_OK) return rv;
    CK_RV rv = state.module->C_Initialize(&args);
    state.finalize = rv == CKR_OK;
    // Two copies of this module may stand on one other module.
    if (rv == CKR_CRYPTOKI_ALREADY_INITIALIZED) rv = CKR_OK;
    state.control.Trace("C_Initialize", rv);
    return rv;
}

CK_RV Finalize(void* reserved) {
    State& state = Get();
    if (const auto answer = Intervene("C_Finalize")) return *answer;
    if (state.module == nullptr) return CKR_CRYPTOKI_NOT_INITIALIZED;
    const CK_RV rv = state.finalize ? state.module->C_Finalize(reserved) : CKR_OK;
    state.slots.Clear();
    state.control.Trace("C_Finalize", rv);
    return rv;
}

CK_RV GetSlotList(unsigned char token_present, CK_SLOT_ID* slots, CK_ULONG* count) {
    return Forward("C_GetSlotList", [&](CK_FUNCTION_LIST& module) {
        CK_ULONG all = 0;
        CK_RV rv = module.C_GetSlotList(token_present, nullptr, &all);
        std::vector<CK_SLOT_ID> list(all);
        if (rv == CKR_OK) rv = module.C_GetSlotList(token_present, list.data(), &all);
        if (rv != CKR_OK) return rv;
        list.resize(std::min<std::size_t>(all, list.size()));
        if (token_present != 0) std::erase_if(list, [](CK_SLOT_ID slot) { return Get().slots.IsHidden(slot); });
        for (CK_ULONG i = Get().control.Get().slots; i > 0; --i) list.push_back(kGhost + i);
        const bool fits = slots == nullptr || *count >= list.size();
        *count = list.size();
        if (slots != nullptr && fits) std::copy(list.begin(), list.end(), slots);
        return fits ? CKR_OK : CKR_BUFFER_TOO_SMALL;
    });
}

CK_RV GetSlotInfo(CK_SLOT_ID slot, CK_SLOT_INFO* info) {
    return Forward("C_GetSlotInfo", [&](CK_FUNCTION_LIST& module) {
        const CK_RV rv = module.C_GetSlotInfo(slot, info);
        if (rv == CKR_OK && Get().slots.IsHidden(slot)) info->flags &= ~CK_FLAGS{CKF_TOKEN_PRESENT};
        return rv;
    });
}

void Describe(CK_FUNCTION_LIST& module, const std::string& label, CK_TOKEN_INFO& info) {
    std::array<CK_SLOT_ID, 64> slots{};
    CK_ULONG count = slots.size();
    if (module.C_GetSlotList(1, slots.data(), &count) != CKR_OK) return;
    for (CK_ULONG i = 0; i < count; ++i) {
        CK_TOKEN_INFO other{};
        if (module.C_GetTokenInfo(slots[i], &other) == CKR_OK && Label(other) == label) info = other;
    }
}

CK_RV GetTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO* info) {
    return ForwardOnSlot("C_GetTokenInfo", slot, [&](CK_FUNCTION_LIST& module) {
        const CK_RV rv = module.C_GetTokenInfo(slot, info);
        const Directives directives = Get().control.Get();
        const auto pose = directives.pose.find(Label(*info));
        if (rv == CKR_OK && pose != directives.pose.end()) Describe(module, pose->second, *info);
        const auto flags = directives.flags.find(Label(*info));
        if (rv == CKR_OK && flags != directives.flags.end()) info->flags |= flags->second;
        return rv;
    });
}

/// What the token does not offer the mechanism for.
CK_FLAGS LeftOut(CK_MECHANISM_TYPE type) {
    return Get().control.Ask([&](const Directives& d) {
        const auto found = d.without.find(type);
        return found == d.without.end() ? CK_FLAGS{0} : found->second;
    });
}

bool IsLeftOut(CK_MECHANISM_TYPE type) {
    return LeftOut(type) == kAllUses;
}

CK_RV GetMechanismList(CK_SLOT_ID slot, CK_MECHANISM_TYPE* types, CK_ULONG* count) {
    return ForwardOnSlot("C_GetMechanismList", slot, [&](CK_FUNCTION_LIST& module) {
        const CK_RV rv = module.C_GetMechanismList(slot, types, count);
        // Asked for the number alone, it may be too high.
        if (rv == CKR_OK && types != nullptr)
            *count = static_cast<CK_ULONG>(std::remove_if(types, types + *count, IsLeftOut) - types);
        return rv;
    });
}

CK_RV GetMechanismInfo(CK_SLOT_ID slot, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* info) {
    return ForwardOnSlot("C_GetMechanismInfo", slot, [&](CK_FUNCTION_LIST& module) {
        const CK_RV rv = IsLeftOut(type) ? CKR_MECHANISM_INVALID : module.C_GetMechanismInfo(slot, type, info);
        if (rv == CKR_OK) info->flags &= ~LeftOut(type);
        return rv;
    });
}

CK_RV WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID* slot, void* /*reserved*/) {
    const auto end = std::chrono::steady_clock::now() + kLongestHang;
    for (;;) {
        const CK_RV rv = Forward("C_WaitForSlotEvent", [&](CK_FUNCTION_LIST&) -> CK_RV {
            if (Get().control.Get().no_events) return CKR_FUNCTION_NOT_SUPPORTED;
            const auto event = Get().slots.TakeEvent();
            if (event.has_value()) *slot = *event;
            return event.has_value() ? CKR_OK : CKR_NO_EVENT;
        });
        if (rv != CKR_NO_EVENT || (flags & CKF_DONT_BLOCK) != 0 || std::chrono::steady_clock::now() > end) return rv;
        std::this_thread::sleep_for(kLook);
    }
}

CK_RV OpenSession(CK_SLOT_ID slot, CK_FLAGS flags, void* application, CK_NOTIFY notify, CK_SESSION_HANDLE* session) {
    return ForwardOnSlot("C_OpenSession", slot, [&](CK_FUNCTION_LIST& module) {
        const CK_RV rv = module.C_OpenSession(slot, flags, application, notify, session);
        if (rv == CKR_OK) Get().slots.Opened(*session, slot);
        return rv;
    });
}

CK_RV CloseSession(CK_SESSION_HANDLE session) {
    return ForwardOnSession("C_CloseSession", session, [&](CK_FUNCTION_LIST& module) {
        Get().slots.Closed(session);
        return module.C_CloseSession(session);
    });
}

CK_RV FindObjects(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE* objects, CK_ULONG capacity, CK_ULONG* found) {
    return ForwardOnSession("C_FindObjects", session, [&](CK_FUNCTION_LIST& module) -> CK_RV {
        if (Get().control.Get().endless) {
            std::fill_n(objects, *found = capacity, kGhost);
            return CKR_OK;
        }
        const CK_RV rv = module.C_FindObjects(session, objects, capacity, found);
        // On the last page, which is not full.
        if (rv == CKR_OK && *found > 0 && *found < capacity && Get().control.Get().ghost) objects[(*found)++] = kGhost;
        return rv;
    });
}

/// A function of the interface, as the module's list holds it: forwarded as a call on a slot or on a session, by its
/// first argument.
enum class On { kSlot, kSession };

/// Whether a call's second argument is a mechanism that the token does not offer for this.
template <typename... Rest>
bool UsesLeftOut(std::string_view function, CK_MECHANISM* mechanism, Rest...) {
    const CK_FLAGS use = function == "C_SignInit" ? CKF_SIGN : function == "C_VerifyInit" ? CKF_VERIFY : kAllUses;
    return (LeftOut(mechanism->mechanism) & use) == use;
}
bool UsesLeftOut(...) {
    return false;
}

template <auto Member, On Kind, const char* Name, typename Function>
struct Plain;
template <auto Member, On Kind, const char* Name, typename... Arguments>
struct Plain<Member, Kind, Name, CK_RV (*)(unsigned long, Arguments...)> {
    static CK_RV Call(unsigned long first, Arguments... arguments) {
        const auto call = [&](CK_FUNCTION_LIST& module) {
            return UsesLeftOut(Name, arguments...) ? CKR_MECHANISM_INVALID : (module.*Member)(first, arguments...);
        };
        return Kind == On::kSlot ? ForwardOnSlot(Name, first, call) : ForwardOnSession(Name, first, call);
    }
};

CK_RV GetInfo(CK_INFO* info) {
    return Forward("C_GetInfo", [&](CK_FUNCTION_LIST& module) { return module.C_GetInfo(info); });
}

CK_RV GetFunctionList(CK_FUNCTION_LIST** list);

#define PLAIN(on, function)                    \
    static constexpr char kName[] = #function; \
    list.function = Plain<&CK_FUNCTION_LIST::function, on, kName, CK_##function>::Call
#define ON_SLOT(function) \
    { PLAIN(On::kSlot, function); }
#define ON_SESSION(function) \
    { PLAIN(On::kSession, function); }

/// The functions that the token manager calls; the others are not there.
CK_FUNCTION_LIST MakeList() {
    CK_FUNCTION_LIST list{};
    list.version = {2, 40};
    list.C_Initialize = Initialize;
    list.C_Finalize = Finalize;
    list.C_GetInfo = GetInfo;
    list.C_GetFunctionList = GetFunctionList;
    list.C_GetSlotList = GetSlotList;
    list.C_GetSlotInfo = GetSlotInfo;
    list.C_GetTokenInfo = GetTokenInfo;
    list.C_GetMechanismList = GetMechanismList;
    list.C_GetMechanismInfo = GetMechanismInfo;
    list.C_WaitForSlotEvent = WaitForSlotEvent;
    list.C_OpenSession = OpenSession;
    list.C_CloseSession = CloseSession;
    list.C_FindObjects = FindObjects;
    ON_SLOT(C_InitToken)
    ON_SESSION(C_InitPIN)
    ON_SESSION(C_SetPIN)
    ON_SESSION(C_GetSessionInfo)
    ON_SESSION(C_Login)
    ON_SESSION(C_Logout)
    ON_SESSION(C_CreateObject)
    ON_SESSION(C_DestroyObject)
    ON_SESSION(C_GetAttributeValue)
    ON_SESSION(C_FindObjectsInit)
    ON_SESSION(C_FindObjectsFinal)
    ON_SESSION(C_EncryptInit)
    ON_SESSION(C_Encrypt)
    ON_SESSION(C_DigestInit)
    ON_SESSION(C_Digest)
    ON_SESSION(C_SignInit)
    ON_SESSION(C_Sign)
    ON_SESSION(C_VerifyInit)
    ON_SESSION(C_Verify)
    ON_SESSION(C_VerifyRecoverInit)
    ON_SESSION(C_VerifyRecover)
    ON_SESSION(C_GenerateKey)
    ON_SESSION(C_GenerateKeyPair)
    ON_SESSION(C_SeedRandom)
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
