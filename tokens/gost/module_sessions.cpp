// Sessions, logins and objects.
#include "tokens/gost/entry.h"

namespace gost_token {

CK_RV InitPIN(CK_SESSION_HANDLE session, CK_UTF8CHAR* pin, CK_ULONG length) {
    return WithSession(session, [&](Session& on) { on.token().InitUserPin(Input(pin, length)); });
}

CK_RV SetPIN(CK_SESSION_HANDLE session, CK_UTF8CHAR* old_pin, CK_ULONG old_length, CK_UTF8CHAR* new_pin,
             CK_ULONG new_length) {
    return WithSession(session, [&](Session& on) {
        Require(on.view().read_write, CKR_SESSION_READ_ONLY);
        on.token().ChangePin(Input(old_pin, old_length), Input(new_pin, new_length));
    });
}

CK_RV OpenSession(CK_SLOT_ID slot, CK_FLAGS flags, void*, CK_NOTIFY, CK_SESSION_HANDLE* session) {
    return WithLibrary([&](Library& library) {
        Require((flags & CKF_SERIAL_SESSION) != 0, CKR_SESSION_PARALLEL_NOT_SUPPORTED);
        Require(session != nullptr, CKR_ARGUMENTS_BAD);
        *session = library.OpenSession(slot, (flags & CKF_RW_SESSION) != 0);
    });
}

CK_RV CloseSession(CK_SESSION_HANDLE session) {
    return WithLibrary([&](Library& library) { library.CloseSession(session); });
}

CK_RV CloseAllSessions(CK_SLOT_ID slot) {
    return WithLibrary([&](Library& library) { library.CloseAll(slot); });
}

CK_RV GetSessionInfo(CK_SESSION_HANDLE session, CK_SESSION_INFO* info) {
    return WithSession(session, [&](Session& on) {
        Require(info != nullptr, CKR_ARGUMENTS_BAD);
        on.Describe(*info);
    });
}

CK_RV Login(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_UTF8CHAR* pin, CK_ULONG length) {
    return WithSession(session, [&](Session& on) {
        Require(user == CKU_USER || user == CKU_SO, CKR_USER_TYPE_INVALID);
        on.token().Login(user == CKU_SO ? Role::kOfficer : Role::kUser, Input(pin, length));
    });
}

CK_RV Logout(CK_SESSION_HANDLE session) {
    return WithSession(session, [&](Session& on) { on.token().Logout(); });
}

CK_RV CreateObject(CK_SESSION_HANDLE session, CK_ATTRIBUTE* attributes, CK_ULONG count, CK_OBJECT_HANDLE* object) {
    return WithSession(session, [&](Session& on) {
        Require(object != nullptr, CKR_ARGUMENTS_BAD);
        *object = on.CreateObject(Wanted(attributes, count));
    });
}

CK_RV DestroyObject(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object) {
    return WithSession(session, [&](Session& on) { on.token().Destroy(object, on.view()); });
}

CK_RV GetObjectSize(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ULONG* size) {
    return WithSession(session, [&](Session& on) {
        Require(size != nullptr, CKR_ARGUMENTS_BAD);
        *size = on.token().Find(object)->Encode().get().size();
    });
}

CK_RV GetAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE* attributes, CK_ULONG count) {
    return WithSession(session, [&](Session& on) {
        Require(attributes != nullptr || count == 0, CKR_ARGUMENTS_BAD);
        const CK_RV rv = Show(*on.token().Find(object), attributes, count);
        Require(rv == CKR_OK, rv);
    });
}

CK_RV SetAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE* attributes, CK_ULONG count) {
    return WithSession(session, [&](Session& on) { on.token().Change(object, Wanted(attributes, count), on.view()); });
}

CK_RV FindObjectsInit(CK_SESSION_HANDLE session, CK_ATTRIBUTE* attributes, CK_ULONG count) {
    return WithSession(session, [&](Session& on) { on.StartFind(Wanted(attributes, count)); });
}

CK_RV FindObjects(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE* objects, CK_ULONG most, CK_ULONG* count) {
    return WithSession(session, [&](Session& on) {
        Require(count != nullptr && (objects != nullptr || most == 0), CKR_ARGUMENTS_BAD);
        *count = on.Find(objects, most);
    });
}

CK_RV FindObjectsFinal(CK_SESSION_HANDLE session) {
    return WithSession(session, [&](Session& on) { on.EndFind(); });
}

}  // namespace gost_token
