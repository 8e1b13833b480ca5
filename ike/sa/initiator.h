// The initiator's side of an IKE SA: IKE_SA_INIT, IKE_AUTH, and away again.
#pragma once

#include <memory>

#include "ike/sa/association.h"

namespace ikeauth {

class Initiator : public Association {
  public:
    Initiator(const ExchangeSettings& settings, const Endpoints& endpoints, Report& report);

    void Start(Time now);
    /// Nobody listens at the peer's port.
    void Unreachable(Time now);

  private:
    enum class State : std::uint8_t { kInit, kAuth, kFarewell };

    void OnInit(const Message& message, std::string_view datagram) override;
    void OnResponse(const Message& message) override;
    void OnRequest(const Message& message) override;
    void OnSilence() override;
    void OnTimer() override {}
    void OnStranger(const std::string& why) override;

    void SendInit();
    bool Retry(const Payloads& payloads);
    bool RetryWithGroup(const std::string& data);
    bool RefusedInit(const Payloads& payloads);
    bool AcceptInit(const Message& message, std::string& why);
    void SendAuth();
    void AddChild(Payloads& out);
    void OnAuth(const Message& message);
    bool RefusedAuth(const Payloads& payloads);
    void NoteChild(const Payloads& payloads);
    void NextFarewell();
    void End(Ending ending, std::string reason);

    State state_ = State::kInit;
    std::unique_ptr<KeyExchange> key_exchange_;
    std::string cookie_;
    unsigned retries_ = 0;
    std::string garbage_;  // what came instead of an answer
    bool childless_ = false;
    bool child_open_ = false;
    std::string child_spi_;
    bool goodbye_sent_ = false;
};

}  // namespace ikeauth
