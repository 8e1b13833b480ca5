// Offers the host libraries and loads the module at run time.
//
//     vendor_loader MODULE cycle COUNT   load, start, reload, stop, unload; COUNT times
//     vendor_loader MODULE queued        unload while a reload timer is armed, then let the time pass
//     vendor_loader MODULE leave         leave the process without stopping anything, a reload under way
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tests/support/pki.h"
#include "tests/vendor/host/vendor_host.h"

namespace {

std::shared_ptr<vendor_host::Token> token;

[[noreturn]] void Fail(const char* what) {
    const char* reason = dlerror();
    std::fprintf(stderr, "%s: %s\n", what, reason == nullptr ? "" : reason);
    std::_Exit(1);
}

class Module {
  public:
    explicit Module(const char* path) : path_(path), handle_(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
        if (handle_ == nullptr) Fail("dlopen");
    }

    void Start() const {
        Call("_ZN2CM15CertEngine_InitEv");
        Call("_ZN2CM4InitEv");
        Call("_ZN2CM6ReloadEv");
    }
    void Stop() const {
        Call("_ZN2CM5FinitEv");
        Call("_ZN2CM16CertEngine_FinitEv");
    }
    void Unload() const {
        if (dlclose(handle_) != 0) Fail("dlclose");
        if (dlopen(path_, RTLD_NOW | RTLD_NOLOAD) != nullptr) Fail("the module is still loaded");
    }

  private:
    void Call(const char* symbol) const {
        void* address = dlsym(handle_, symbol);
        if (address == nullptr) Fail("dlsym");
        reinterpret_cast<void (*)()>(address)();
    }

    const char* path_;
    void* handle_;
};

void FillToken() {
    const test_pki::Cert root = test_pki::MakeCa("CN=Root");
    const test_pki::Cert leaf = test_pki::MakeLeaf("CN=Leaf", root);
    token = vendor_host::AddToken("card");
    token->AddCertificate(root.der, {.trusted = true});
    token->AddPersonal(leaf.der, leaf.key);
    token->AddPresharedKey("key", "value");
    token->AddCrl("crl", test_pki::MakeCrl({}, root));
}

void Cycle(const char* path, int count) {
    for (int i = 0; i < count; ++i) {
        token->ClearCalls();
        const Module module(path);
        module.Start();
        vendor_host::FireInsert(*token);
        vendor_host::Advance(2);
        if (token->Calls(vendor_host::Op::kEnumCertificates) != 2) Fail("a reload is missing");
        module.Stop();
        module.Unload();
    }
}

void Queued(const char* path) {
    const Module module(path);
    module.Start();
    vendor_host::FireInsert(*token);
    if (vendor_host::PendingEvents() == 0) Fail("no timer");
    module.Stop();
    module.Unload();
    vendor_host::FireRemove(*token);
    vendor_host::Advance(10);
}

void Leave(const char* path) {
    vendor_host::SetEventMode(vendor_host::EventMode::kThreaded);
    const auto gate = std::make_shared<vendor_host::Gate>();
    const Module module(path);
    module.Start();
    token->Block(vendor_host::Op::kEnumCRLs, gate);
    vendor_host::FireInsert(*token);
    if (!gate->WaitForArrivals(1)) Fail("no reload");
    gate->Open();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    FillToken();
    if (std::strcmp(argv[2], "cycle") == 0 && argc > 3) Cycle(argv[1], std::atoi(argv[3]));
    if (std::strcmp(argv[2], "queued") == 0) Queued(argv[1]);
    if (std::strcmp(argv[2], "leave") == 0) Leave(argv[1]);
    std::puts("done");
    return 0;
}
