// Writes key pairs and objects on a token, replaces and deletes them, until it is killed: MODULE DIRECTORY PIN. With a fourth argument
// it makes a new token in the first slot instead; the PIN is the security officer's. Prints "wrote N" after
// the object of that number is on the token for good; its value is its label, repeated.
#include <iostream>

#include "tests/gost/module.h"

int main(int argc, char** argv) {
    if (argc < 4) return 2;
    const gost_test::Module module(argv[1], argv[2]);
    if (argc == 5) return module.InitToken(0, argv[3]) == CKR_OK ? 0 : 1;
    const CK_SESSION_HANDLE session = module.Open();
    if (module.Login(session, argv[3]) != CKR_OK) return 1;
    for (unsigned number = 0;; ++number) {
        const std::string label = std::to_string(number);
        std::string value;
        for (int i = 0; i < 1000; ++i) value += label;
        CK_OBJECT_HANDLE kept = 0;
        CK_OBJECT_HANDLE passing = 0;
        CK_ATTRIBUTE change{CKA_VALUE, gost_test::Bytes(value), value.size()};
        if (module.GeneratePair(session, true)[1] == CK_INVALID_HANDLE ||
            module.AddData(session, label, "first", number % 2 == 0, kept) != CKR_OK ||
            module->C_SetAttributeValue(session, kept, &change, 1) != CKR_OK ||
            module.AddData(session, "passing", "x", true, passing) != CKR_OK ||
            module->C_DestroyObject(session, passing) != CKR_OK) {
            return 1;
        }
        std::cout << "wrote " << number << std::endl;
    }
}
