// Offers the host libraries and loads the module at run time: vendor_loader MODULE. It is loaded, started, reloaded,
// stopped and unloaded while a reload timer is armed; several times. In the end the process leaves during a reload.
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

#include "tests/support/pki.h"
#include "tests/vendor/host/vendor_host.h"

namespace {

[[noreturn]] void Fail(const char* what) {
    const char* reason = dlerror();
    std::fprintf(stderr, "%s: %s\n", what, reason == nullptr ? "" : reason);
    std::_Exit(1);
}

void Call(void* module, std::initializer_list<const char*> symbols) {
    for (const char* symbol : symbols) {
        void* address = dlsym(module, symbol);
        if (address == nullptr) Fail("dlsym");
        reinterpret_cast<void (*)()>(address)();
    }
}

void* Start(const char* path) {
    void* const module = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) Fail("dlopen");
    Call(module, {"_ZN2CM15CertEngine_InitEv", "_ZN2CM4InitEv", "_ZN2CM6ReloadEv"});
    return module;
}

void Cycle(const char* path, vendor_host::Token& token) {
    token.ClearCalls();
    void* const module = Start(path);
    vendor_host::FireInsert(token);
    vendor_host::Advance(2);
    if (token.Calls(vendor_host::Op::kEnumCertificates) != 2) Fail("a reload is missing");
    vendor_host::FireInsert(token);
    if (vendor_host::PendingEvents() == 0) Fail("no timer");
    Call(module, {"_ZN2CM5FinitEv", "_ZN2CM16CertEngine_FinitEv"});
    if (dlclose(module) != 0) Fail("dlclose");
    if (dlopen(path, RTLD_NOW | RTLD_NOLOAD) != nullptr) Fail("the module is still loaded");
    PKCS11::Callbacks.tokenRemoved(token.Info());
    vendor_host::Advance(10);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const test_pki::Cert root = test_pki::MakeCa("CN=Root");
    const test_pki::Cert leaf = test_pki::MakeLeaf("CN=Leaf", root);
    const auto token = vendor_host::AddToken("card");
    token->AddCertificate(root.der, {.trusted = true});
    token->AddPersonal(leaf.der, leaf.key);
    token->AddPresharedKey("key", "value");
    token->AddCrl("crl", test_pki::MakeCrl({}, root));
    for (int i = 0; i < 5; ++i) Cycle(argv[1], *token);
    Start(argv[1]);
    if (!vendor_host::BeginReload(*token)) Fail("no reload");
    std::puts("done");
    return 0;
}
