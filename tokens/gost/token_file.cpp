#include "tokens/gost/token_file.h"

#include <algorithm>

#include "tokens/gost/fields.h"

namespace gost_token {
namespace {

using vpnfc::SecretString;

/// Also the version of the format.
constexpr std::string_view kMagic = "certmgr GOST token 1\n";

enum FieldType : std::uint64_t { kLabel = 1, kSerial, kOfficerLock, kUserLock };
enum LockField : std::uint64_t { kLogN = 1, kR, kP, kSalt, kLockedKey };

std::string NewSerial() {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string serial;
    for (const char byte : RandomBytes(kSerialBytes)) serial.push_back(kDigits[static_cast<unsigned char>(byte) & 0xF]);
    return serial;
}

void AppendNumberField(std::string& out, std::uint64_t type, std::uint64_t number) {
    std::string value;
    AppendNumber(value, number);
    AppendField(out, type, value);
}

bool ReadNumberField(FieldReader& reader, std::uint64_t type, std::uint64_t& number) {
    std::string_view value;
    return reader.Read(type, value) && ReadNumber(value, number);
}

}  // namespace

TokenFile TokenFile::New(std::string_view label, std::string_view officer_pin) {
    TokenFile file;
    file.label_ = std::string(label.substr(0, kLabelBytes));
    file.label_.resize(kLabelBytes, ' ');
    file.serial_ = NewSerial();
    file.SetPin(Role::kOfficer, officer_pin, RandomKey());
    return file;
}

std::string TokenFile::EncodeLock(const Lock& lock) {
    std::string out;
    if (lock.locked_key.empty()) return out;
    AppendNumberField(out, kLogN, lock.cost.log_n);
    AppendNumberField(out, kR, lock.cost.r);
    AppendNumberField(out, kP, lock.cost.p);
    AppendField(out, kSalt, lock.salt);
    AppendField(out, kLockedKey, lock.locked_key);
    return out;
}

bool TokenFile::DecodeLock(std::string_view content, Lock& lock) {
    FieldReader reader(content);
    std::string_view salt;
    std::string_view locked_key;
    if (content.empty()) return true;
    if (!ReadNumberField(reader, kLogN, lock.cost.log_n) || !ReadNumberField(reader, kR, lock.cost.r) ||
        !ReadNumberField(reader, kP, lock.cost.p) || !reader.Read(kSalt, salt) ||
        !reader.Read(kLockedKey, locked_key) || !reader.AtEnd()) {
        return false;
    }
    lock.salt = salt;
    lock.locked_key = locked_key;
    return lock.cost.IsSane() && !salt.empty() && !locked_key.empty();
}

std::string TokenFile::Encode() const {
    std::string out(kMagic);
    AppendField(out, kLabel, label_);
    AppendField(out, kSerial, serial_);
    AppendField(out, kOfficerLock, EncodeLock(officer_));
    AppendField(out, kUserLock, EncodeLock(user_));
    out.append(Checksum(out));
    return out + out;
}

std::optional<TokenFile> TokenFile::Decode(std::string_view content) {
    if (auto first = DecodeCopy(content)) return first;
    return DecodeCopy(content.substr(content.size() / 2));
}

std::optional<TokenFile> TokenFile::DecodeCopy(std::string_view content) {
    if (!content.starts_with(kMagic)) return std::nullopt;
    FieldReader reader(content.substr(kMagic.size()));
    TokenFile file;
    std::string_view label;
    std::string_view serial;
    std::string_view officer;
    std::string_view user;
    if (!reader.Read(kLabel, label) || !reader.Read(kSerial, serial) || !reader.Read(kOfficerLock, officer) ||
        !reader.Read(kUserLock, user)) {
        return std::nullopt;
    }
    const std::string_view rest = reader.rest();
    const std::string_view body = content.substr(0, content.size() - rest.size());
    if (rest.substr(0, kChecksumBytes) != Checksum(body) || label.size() != kLabelBytes ||
        serial.size() != kSerialBytes || !DecodeLock(officer, file.officer_) || !DecodeLock(user, file.user_)) {
        return std::nullopt;
    }
    file.label_ = label;
    file.serial_ = serial;
    return file;
}

/// What a locked key belongs to: it opens for this token and this role alone.
std::string TokenFile::Purpose(Role role) const {
    return std::string(kMagic).append(serial_).append(role == Role::kOfficer ? "officer" : "user");
}

bool TokenFile::Unlock(Role role, std::string_view pin, SecretString& key) const {
    const Lock& lock = LockOf(role);
    if (lock.locked_key.empty() || pin.size() > kMaxPinBytes) return false;
    return Unseal(KeyFromPin(pin, lock.salt, lock.cost), Purpose(role), lock.locked_key, key);
}

void TokenFile::SetPin(Role role, std::string_view pin, const SecretString& key) {
    Require(pin.size() >= kMinPinBytes && pin.size() <= kMaxPinBytes, CKR_PIN_LEN_RANGE);
    Lock lock;
    lock.salt = RandomBytes(kSaltBytes);
    lock.locked_key = Seal(KeyFromPin(pin, lock.salt, lock.cost), Purpose(role), key.get());
    (role == Role::kOfficer ? officer_ : user_) = std::move(lock);
}

}  // namespace gost_token
