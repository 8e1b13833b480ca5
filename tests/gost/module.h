// A PKCS #11 module on a directory, called as any program calls it.
#pragma once

#include <dlfcn.h>
#include <p11-kit/pkcs11.h>
#include <p11-kit/pkcs11x.h>

#include <array>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/der.h"

namespace gost_test {

inline CK_BYTE* Bytes(const std::string& text) {
    return reinterpret_cast<CK_BYTE*>(const_cast<char*>(text.data()));
}

/// The values of an object's attributes, by type.
using Template = std::vector<std::pair<CK_ATTRIBUTE_TYPE, std::string>>;

inline std::vector<CK_ATTRIBUTE> Attributes(const Template& values) {
    std::vector<CK_ATTRIBUTE> attributes;
    for (const auto& [type, value] : values) attributes.push_back({type, Bytes(value), value.size()});
    return attributes;
}
inline std::string Number(CK_ULONG number) {
    return {reinterpret_cast<const char*>(&number), sizeof number};
}
inline std::string Flag(bool flag) {
    return std::string(1, static_cast<char>(flag ? CK_TRUE : CK_FALSE));
}

/// Loaded and initialised as long as it lives.
class Module {
  public:
    Module(const char* path, const std::string& directory) : library_(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
        if (library_ == nullptr) throw std::runtime_error(dlerror());
        reinterpret_cast<CK_C_GetFunctionList>(dlsym(library_, "C_GetFunctionList"))(&list_);
        Initialize(directory);
    }
    void Initialize(const std::string& directory) {
        std::string arguments = "directory=" + directory;
        CK_C_INITIALIZE_ARGS args{};
        args.flags = CKF_OS_LOCKING_OK;
        args.pReserved = arguments.data();
        result = list_->C_Initialize(&args);
    }
    ~Module() {
        if (result == CKR_OK) list_->C_Finalize(nullptr);
        dlclose(library_);
    }
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;
    CK_FUNCTION_LIST* operator->() const { return list_; }

    CK_RV InitToken(CK_SLOT_ID slot, const std::string& so_pin) const {
        std::string label(32, ' ');
        label.replace(0, 4, "gost");
        return list_->C_InitToken(slot, Bytes(so_pin), so_pin.size(), Bytes(label));
    }
    CK_SESSION_HANDLE Open(CK_SLOT_ID slot = 0, CK_FLAGS flags = CKF_RW_SESSION) const {
        CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
        list_->C_OpenSession(slot, CKF_SERIAL_SESSION | flags, nullptr, nullptr, &session);
        return session;
    }
    CK_RV Login(CK_SESSION_HANDLE session, const std::string& pin, CK_USER_TYPE user = CKU_USER) const {
        return list_->C_Login(session, user, Bytes(pin), pin.size());
    }
    CK_RV Create(CK_SESSION_HANDLE session, const Template& values, CK_OBJECT_HANDLE& object) const {
        std::vector<CK_ATTRIBUTE> attributes = Attributes(values);
        return list_->C_CreateObject(session, attributes.data(), attributes.size(), &object);
    }
    CK_RV AddData(CK_SESSION_HANDLE session, const std::string& label, const std::string& value, bool is_private,
                  CK_OBJECT_HANDLE& object) const {
        return Create(session,
                      {{CKA_CLASS, Number(CKO_DATA)},
                       {CKA_TOKEN, Flag(true)},
                       {CKA_PRIVATE, Flag(is_private)},
                       {CKA_LABEL, label},
                       {CKA_VALUE, value}},
                      object);
    }
    /// A pair of session objects of 34.10-2012 with 256 bits; of token objects with `on_token`. Public key first.
    std::array<CK_OBJECT_HANDLE, 2> GeneratePair(CK_SESSION_HANDLE session, bool on_token) const {
        const Template values{{CKA_TOKEN, Flag(on_token)},
                              {CKA_GOSTR3410_PARAMS, der::Oid("1.2.643.2.2.35.1")},
                              {CKA_GOSTR3411_PARAMS, der::Oid("1.2.643.7.1.1.2.2")}};
        std::vector<CK_ATTRIBUTE> attributes = Attributes(values);
        std::array<CK_OBJECT_HANDLE, 2> pair{};
        CK_MECHANISM mechanism{CKM_GOSTR3410_KEY_PAIR_GEN, nullptr, 0};
        list_->C_GenerateKeyPair(session, &mechanism, attributes.data(), 3, attributes.data(), 1, pair.data(),
                                 &pair[1]);
        return pair;
    }
    /// Handles of everything that the session sees.
    std::vector<CK_OBJECT_HANDLE> Find(CK_SESSION_HANDLE session) const {
        std::vector<CK_OBJECT_HANDLE> found(10000);
        CK_ULONG count = 0;
        list_->C_FindObjectsInit(session, nullptr, 0);
        list_->C_FindObjects(session, found.data(), found.size(), &count);
        list_->C_FindObjectsFinal(session);
        found.resize(count);
        return found;
    }
    /// A value of bytes; what went wrong in its place.
    std::string Get(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const {
        CK_ATTRIBUTE attribute{type, nullptr, 0};
        CK_RV rv = list_->C_GetAttributeValue(session, object, &attribute, 1);
        std::string value(rv == CKR_OK ? attribute.ulValueLen : 0, '\0');
        attribute.pValue = value.data();
        if (rv == CKR_OK) rv = list_->C_GetAttributeValue(session, object, &attribute, 1);
        return rv == CKR_OK ? value : "CKR " + std::to_string(rv);
    }

    CK_RV result = CKR_OK;

  private:
    void* library_;
    CK_FUNCTION_LIST* list_ = nullptr;
};

}  // namespace gost_test
