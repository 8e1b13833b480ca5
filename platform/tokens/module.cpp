#include "platform/tokens/module.h"

#include <p11-kit/p11-kit.h>

#include <cstdlib>
#include <set>

namespace tokens {
namespace {

/// The modules that are loaded now. Never destroyed: a module may be left behind.
class LoadedPaths {
  public:
    static LoadedPaths& Instance() {
        static LoadedPaths* const paths = new LoadedPaths;
        return *paths;
    }
    bool Add(const std::string& path) {
        const std::lock_guard lock(mutex_);
        return paths_.insert(path).second;
    }
    void Remove(const std::string& path) {
        const std::lock_guard lock(mutex_);
        paths_.erase(path);
    }

  private:
    std::mutex mutex_;
    std::set<std::string> paths_;  // guarded by mutex_
};

}  // namespace

std::shared_ptr<const Module> Module::Load(const Provider& provider, std::string& error) {
    if (!LoadedPaths::Instance().Add(provider.module_path)) {
        error = "is still in use: a call from before does not return";
        return nullptr;
    }
    NoteModuleCall("C_GetFunctionList");
    CK_FUNCTION_LIST* const list = p11_kit_module_load(provider.module_path.c_str(), P11_KIT_MODULE_UNMANAGED);
    if (list == nullptr) {
        LoadedPaths::Instance().Remove(provider.module_path);
        const char* const reason = p11_kit_message();
        error = reason == nullptr ? "cannot be loaded" : reason;
        return nullptr;
    }
    const std::shared_ptr<Module> module(new Module(provider.module_path, list));
    if (const Result result = module->Initialize(provider.init_args); !result.ok()) {
        error = std::string(result.function) + ": " + RvName(result.rv);
        return nullptr;
    }
    // What the module registered for the end of the process runs after this.
    if (std::atexit(Stop) == 0) return module;
    error = "cannot be taken down at the end of the process";
    return nullptr;
}

Result Module::Initialize(const std::string& init_args) {
    std::string reserved = init_args;
    CK_C_INITIALIZE_ARGS args{};
    args.flags = CKF_OS_LOCKING_OK;
    args.pReserved = reserved.empty() ? nullptr : reserved.data();
    Result result = api_.Initialize(args);
    finalize_ = result.ok();
    // Somebody else in the process uses the module, too; it is theirs to finalise.
    if (result.rv == CKR_CRYPTOKI_ALREADY_INITIALIZED) result.rv = CKR_OK;
    return result;
}

Module::~Module() {
    if (finalize_) api_.Finalize();
    p11_kit_module_release(list_);
    LoadedPaths::Instance().Remove(path_);
}

ModuleLinkPtr ModuleLink::Make(CallRunner::Milliseconds limit, std::function<void()> on_trouble,
                               std::function<void(const char*)> on_stuck) {
    ModuleLinkPtr link(new ModuleLink(std::move(on_trouble)));
    // An abandoned call may return when the link is long gone.
    const std::weak_ptr<ModuleLink> weak = link;
    link->runner_ = std::make_unique<CallRunner>(limit, std::move(on_stuck), [weak] {
        if (const ModuleLinkPtr self = weak.lock()) self->on_trouble_();
    });
    return link;
}

ModuleLink::Entry ModuleLink::Enter() {
    // The count goes up before the flag is read, and Close sets the flag before it reads the count: one of the two
    // sees the other.
    inside_.fetch_add(1);
    if (open_) return Entry(this);
    Leave();
    return {};
}

void ModuleLink::Leave() {
    if (inside_.fetch_sub(1) != 1 || open_) return;
    std::shared_ptr<const Module> given_up;
    const std::lock_guard lock(empty_mutex_);
    empty_.notify_all();
    if (left_behind_) given_up = TakeModule();
}

bool ModuleLink::Close(CallRunner::Milliseconds limit) {
    open_ = false;
    std::unique_lock lock(empty_mutex_);
    left_behind_ = !empty_.wait_for(lock, limit, [&] { return inside_ == 0; });
    return !left_behind_;
}

}  // namespace tokens
