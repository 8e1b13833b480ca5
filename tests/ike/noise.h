// What strangers send to a responder.
#pragma once

#include <algorithm>
#include <string>

#include "ike/sa/initiator.h"

namespace ike_test {

/// Datagrams of all kinds of wrong: noise, headers with noise behind, and IKE_SA_INIT with bits turned.
class Noise {
  public:
    Noise() {
        ikeauth::Report report;
        const ikeauth::Endpoints endpoints{"123456", "123456"};
        const ikeauth::ExchangeSettings settings = Settings();
        ikeauth::Initiator initiator(settings, endpoints, report);
        initiator.Start();
        init_ = initiator.TakeOutgoing().front();
    }
    /// Without certificates, and so without the module.
    static ikeauth::ExchangeSettings Settings() {
        static const LPCFG::auth_ike_t rule;
        ikeauth::ExchangeSettings settings;
        settings.rule = &rule;
        settings.preshared_key = "none";
        return settings;
    }
    const std::string& init() const { return init_; }
    std::string Next(unsigned number) {
        std::string bytes = ikeauth::RandomBytes(1 + number * 7 % 600);
        if (number % 3 == 0) return bytes;
        if (number % 3 == 1) {
            bytes.resize(std::max<std::size_t>(bytes.size(), 28));
            bytes[17] = 0x20;
            bytes[18] = static_cast<char>(34 + number % 4);
            bytes.replace(24, 4,
                          std::string{0, 0, static_cast<char>(bytes.size() >> 8), static_cast<char>(bytes.size())});
            return bytes;
        }
        std::string init = init_;
        std::copy_n(bytes.data(), std::min<std::size_t>(bytes.size(), 8), init.data());  // an SPI of its own
        init[28 + number % (init.size() - 28)] ^= static_cast<char>(1U << number % 8);
        return init;
    }

  private:
    std::string init_;
};

}  // namespace ike_test
