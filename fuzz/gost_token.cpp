// Files of the GOST token, its own and those of objects. Input: a file whose checksum, or seal, is made right here, so that
// what is behind it is reached; the first line says which it is.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/target.h"
#include "tokens/gost/fields.h"
#include "tokens/gost/object_file.h"
#include "tokens/gost/object_rules.h"
#include "tokens/gost/token_file.h"

namespace {

using namespace gost_token;

constexpr ObjectPlace kPlace{"0123456789ABCDEF", "0.object"};

const vpnfc::SecretString& TokenKey() {
    static const vpnfc::SecretString key{std::string(kKeyBytes, 'k')};
    return key;
}

/// A refusal is an answer.
template <typename Work>
void Try(const Work& work) {
    try {
        work();
    } catch (const Failure&) {
    }
}

std::string TokenProblem(const std::string& body) {
    const std::string content = body + Checksum(body);
    const auto file = TokenFile::Decode(content);
    if (!file) return "";
    const std::string twice = file->Encode();
    const bool same = content.find(twice.substr(0, twice.size() / 2)) != std::string::npos;
    return same ? "" : "a token file is written in another way than it was read";
}

/// An attribute is set to what it is, and to nothing; another process wrote the object.
std::string ChangeProblem(const Attributes& object, const Field& field) {
    std::string value(field.value);
    std::string problem;
    for (const std::size_t length : {value.size(), std::size_t{0}}) {
        CK_ATTRIBUTE attribute{field.type, value.data(), length};
        Try([&] {
            const Attributes changed = Changed(object, {&attribute, 1}, Role::kUser);
            if (changed.Bytes(field.type).size() != length) problem = "an attribute was not changed";
        });
        if (Show(object, &attribute, 1) == CKR_OK && attribute.ulValueLen > length) problem = "beyond the room given";
    }
    return problem;
}

std::string UseProblem(const Attributes& object) {
    static const Engine engine;
    std::string problem;
    const vpnfc::SecretString encoded = object.Encode();
    FieldReader reader(encoded.get());
    for (Field field; reader.Next(field) && problem.empty();) problem = ChangeProblem(object, field);
    Try([&] { CheckObject(engine, object); });
    Try([&] {
        if (KeyOf(engine, object)->PublicValue().size() != 2 * KeyOf(engine, object)->kind().bytes)
            problem = "half a key";
    });
    return problem;
}

std::string ObjectProblem(const std::string& content) {
    Attributes object;
    if (DecodeObject(content, kPlace, TokenKey(), object) != Readable::kYes) return {};
    Attributes again;
    const bool same =
        DecodeObject(EncodeObject(object, kPlace, TokenKey()), kPlace, TokenKey(), again) == Readable::kYes &&
        again.Encode().get() == object.Encode().get();
    return same ? UseProblem(object) : "an object is another one when it was written and read";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t line = input.find('\n') + 1;  // none: 0
    const std::string magic = input.substr(0, line);
    const std::string body = input.substr(line);
    const std::string purpose = std::string(magic).append(kPlace.serial).append(kPlace.file_name);
    fuzz::Require(TokenProblem(input));
    fuzz::Require(ObjectProblem(input));
    fuzz::Require(ObjectProblem(input + Checksum(purpose + body)));
    fuzz::Require(ObjectProblem(magic + Seal(TokenKey(), purpose, body)));
    return 0;
}
