#include "ike/udp/capture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>

#include "ike/wire/bytes.h"
#include "platform/asn1.h"
#include "platform/base/descriptor.h"

namespace ikeauth {
namespace {

constexpr std::uint32_t kPcapMagic = 0xA1B2C3D4;  // times in microseconds; here all in network order
constexpr std::uint32_t kSnapLength = 0x40000;
constexpr std::uint32_t kRawIp = 101;
constexpr std::uint8_t kUdp = 17;
constexpr std::uint8_t kTimeToLive = 64;
constexpr std::size_t kPortBytes = 2;
constexpr std::size_t kIp4Bytes = 4;
constexpr std::size_t kUdpHeaderBytes = 8;
constexpr std::size_t kIp4HeaderBytes = 20;

/// Header of IPv4 or IPv6; checksums are left at zero, which readers take as "not computed".
std::string IpHeader(const std::string& from, const std::string& to, std::size_t payload_bytes) {
    const std::string from_ip = from.substr(0, from.size() - kPortBytes);
    const std::string to_ip = to.substr(0, to.size() - kPortBytes);
    const auto length = static_cast<std::uint16_t>(payload_bytes);
    if (from_ip.size() != kIp4Bytes) {
        return NetworkOrder(std::uint32_t{0x60000000}) + NetworkOrder(length) + Byte(kUdp) + Byte(kTimeToLive) +
               from_ip + to_ip;
    }
    return NetworkOrder(std::uint16_t{0x4500}) + NetworkOrder(static_cast<std::uint16_t>(length + kIp4HeaderBytes)) +
           NetworkOrder(std::uint32_t{0}) + Byte(kTimeToLive) + Byte(kUdp) + NetworkOrder(std::uint16_t{0}) + from_ip +
           to_ip;
}

/// Wireshark's names.
std::string EncryptionName(const Algorithm& algorithm) {
    const std::string bits = std::to_string(algorithm.key_bits);
    return algorithm.aead ? "AES-GCM-" + bits + " with 16 octet ICV [RFC5282]" : "AES-CBC-" + bits + " [RFC3602]";
}

std::string IntegrityName(const Algorithm* algorithm) {
    if (algorithm == nullptr) return "NONE [RFC4306]";
    const std::string hash = std::to_string(algorithm->key_bytes * 8);
    return "HMAC_SHA2_" + hash + "_" + std::to_string(algorithm->check_bytes * 8) + " [RFC4868]";
}

std::string Hex(const vpnfc::SecretString& key) {
    return TO_HEX_STD_STRING(key.get());
}

}  // namespace

bool Capture::OpenDatagrams(const std::string& path, std::string& error) {
    datagrams_.open(path, std::ios::binary | std::ios::trunc);
    datagrams_ << NetworkOrder(kPcapMagic) << NetworkOrder(std::uint16_t{2}) << NetworkOrder(std::uint16_t{4})
               << NetworkOrder(std::uint64_t{0}) << NetworkOrder(kSnapLength) << NetworkOrder(kRawIp) << std::flush;
    if (!datagrams_) error = path + " cannot be written: " + std::strerror(errno);
    return static_cast<bool>(datagrams_);
}

bool Capture::OpenKeys(const std::string& path, std::string& error) {
    constexpr mode_t kPrivate = S_IRUSR | S_IWUSR;
    vpnfc::Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kPrivate));
    struct stat info {};
    if (!file || fstat(file.get(), &info) != 0) {
        error = path + " cannot be written: " + (errno == ELOOP ? "it is a link" : std::strerror(errno));
    } else if (!S_ISREG(info.st_mode) || info.st_uid != geteuid() || info.st_nlink != 1) {
        error = path + " cannot be written: it is not a file of this user's alone";
    } else if (fchmod(file.get(), kPrivate) != 0 || ftruncate(file.get(), 0) != 0) {
        error = path + " cannot be written: " + std::strerror(errno);
    } else {
        keys_.reset(fdopen(file.get(), "w"));
        if (keys_) file.Release();
    }
    return keys_ != nullptr;
}

void Capture::Add(const Address& from, const Address& to, bool marked, const std::string& datagram) {
    if (!datagrams_.is_open()) return;
    const std::string data = (marked ? std::string(4, '\0') : std::string()) + datagram;
    const std::string source = from.bytes();
    const std::string target = to.bytes();
    const std::string udp = source.substr(source.size() - kPortBytes) + target.substr(target.size() - kPortBytes) +
                            NetworkOrder(static_cast<std::uint16_t>(data.size() + kUdpHeaderBytes)) +
                            NetworkOrder(std::uint16_t{0}) + data;
    const std::string packet = IpHeader(source, target, udp.size()) + udp;
    const auto now =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    const auto size = NetworkOrder(static_cast<std::uint32_t>(packet.size()));
    datagrams_ << NetworkOrder(static_cast<std::uint32_t>(now / 1000000))
               << NetworkOrder(static_cast<std::uint32_t>(now % 1000000)) << size << size << packet << std::flush;
}

void Capture::AddKeys(const Association& association) {
    const SessionKeys* keys = association.keys();
    if (!keys_ || keys == nullptr) return;
    const Suite& suite = association.suite();
    std::ostringstream line;
    line << TO_HEX_STD_STRING(NetworkOrder(association.initiator_spi())) << ','
         << TO_HEX_STD_STRING(NetworkOrder(association.responder_spi())) << ',' << Hex(keys->initiator_encryption)
         << ',' << Hex(keys->responder_encryption) << ",\"" << EncryptionName(*suite.encryption) << "\","
         << Hex(keys->initiator_integrity) << ',' << Hex(keys->responder_integrity) << ",\""
         << IntegrityName(suite.integrity) << "\"\n";
    std::fputs(line.str().c_str(), keys_.get());
    std::fflush(keys_.get());
}

}  // namespace ikeauth
