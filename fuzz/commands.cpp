// The commands of the management bridge, on tokens in memory. Input: commands, each its number (1 byte), the length of its
// input (2 bytes) and the input; "T" in front of an input stands for the description of the token that is there, "C" for
// that of its certificate.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "certmgr/certmgr.h"
#include "certmgr/records_sync.h"
#include "fuzz/target.h"
#include "tests/support/pki.h"
#include "tests/vendor/host/vendor_host.h"

namespace {

constexpr std::uint8_t kUnknownFrom = 17;

class OneSession : public BridgeSession {
  public:
    std::uint64_t Id() const override { return 1; }
    std::uint32_t User() const override { return 0; }
};

/// A store with one of everything, made anew when a command changed the token.
class World {
  public:
    World() { CM::CertEngine_Init(); }

    void Prepare() {
        if (token_ != nullptr && Objects() == objects_) return;
        if (token_ != nullptr) CM::Finit();
        vendor_host::Reset();
        CM::Init();
        token_ = vendor_host::AddToken("card");
        token_->SetAlgorithms({4, 0x40000});  // keys that are made at once
        token_->AddCertificate(root_.der, {.category = 2, .trusted = true});
        token_->AddPersonal(leaf_.der, leaf_.key);
        token_->AddCrl("crl", crl_);
        token_->AddPresharedKey("name", "value");
        CM::Reload();
        objects_ = Objects();
        certificate_ = FindCertificate();
    }
    /// An input with its abbreviations written out.
    std::string Expand(std::string_view input) const {
        std::string expanded;
        for (const auto& [letter, record] : {std::pair('T', Description()), std::pair('C', certificate_)}) {
            if (input.empty() || input.front() != letter) continue;
            expanded += record;
            input.remove_prefix(1);
        }
        return expanded.append(input);
    }
    const vendor_host::Token& token() const { return *token_; }
    CommandListener& listener() const { return *vendor_host::Listener(bridge::kGroupCertificates); }

  private:
    std::size_t Objects() const {
        return token_->CertObjects().size() * 10000 + token_->CrlObjects().size() * 100 +
               token_->PresharedKeyNames().size();
    }
    std::string Description() const {
        std::string text;
        CommandStreamOut out(text);
        const PKCS11::TokenInfo info = token_->Info();
        sync(out, info);
        return text;
    }
    std::string FindCertificate() const {
        OneSession session;
        std::string list;
        listener().ExecCommand(session, 0, std::string(4, '\0'), list);
        return list.substr(sizeof(std::uint32_t) + Description().size());
    }

    const test_pki::Cert root_ = test_pki::MakeCa("CN=Root");
    const test_pki::Cert leaf_ = test_pki::MakeLeaf("CN=leaf", root_);
    const std::string crl_ = test_pki::MakeCrl({}, root_);
    std::shared_ptr<vendor_host::Token> token_;
    std::size_t objects_ = 0;
    std::string certificate_;
};

/// What does not hold of a command's answer.
std::string Problem(World& world, std::uint8_t number, const std::string& input) {
    OneSession session;
    std::string output;
    bool known = true;
    try {
        known = world.listener().ExecCommand(session, number, input, output);
    } catch (const char* text) {
        if (std::strcmp(text, "CommandStreamError") != 0) return "another exception: " + std::string(text);
    }
    if (known != (number < kUnknownFrom)) return "a number is known that should not be, or the reverse";
    if (!known && !output.empty()) return "an unknown command wrote something";
    if (world.token().OpenSessions() != 0) return "a session was left open";
    return {};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static World& world = *new World;
    world.Prepare();
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    while (rest.size() >= 3) {
        const auto number = static_cast<std::uint8_t>(rest[0]);
        const std::size_t length = static_cast<unsigned char>(rest[1]) | static_cast<unsigned char>(rest[2]) << 8;
        rest.remove_prefix(3);
        fuzz::Require(Problem(world, number, world.Expand(rest.substr(0, length))));
        rest.remove_prefix(std::min(length, rest.size()));
    }
    OneSession session;
    world.listener().OnCloseSession(&session);
    return 0;
}
