// The initiator's side of an IKE SA: IKE_SA_INIT, IKE_AUTH, and away again.
#pragma once

#include <memory>

#include "ike/sa/association.h"

namespace ikeauth {

class Initiator : public Association {
  public:
    Initiator(const ExchangeSettings& settings, const Endpoints& endpoints, Report& report);

    void Start();
    /// Nobody listens at the peer's port, or datagrams cannot get there. Advice may be empty.
    void Unreachable(const std::string& why, std::string_view advice);

  private:
    enum class State : std::uint8_t { kInit, kAuth, kFarewell };

    void OnInit(const Message& message, std::string_view datagram) override;
    void OnResponse(const Message& message) override;
    void OnRequest(const Message& message) override;
    void OnSilence() override;
    void OnTimer() override { Finish(); }  // after EndBroken
    void OnStranger(const std::string& why) override;
    void OnMalformedInit(const Flaw& flaw) override;

    void SendInit();
    bool Retry(const Payloads& payloads, std::string_view datagram);
    bool IsStale(std::uint16_t type, std::string_view datagram);
    bool RetryWithGroup(const std::string& data);
    bool RefusedInit(const Payloads& payloads);
    bool AcceptInit(const Message& message, std::string& why);
    void SendAuth();
    void AddChild(Payloads& out);
    Outcome SilentAuth() const;
    void OnAuth(const Message& message);
    bool RefusedAuth(const Payloads& payloads);
    void NoteChild(const Payloads& payloads);
    void NextFarewell();
    void End(Ending ending, std::string reason);

    State state_ = State::kInit;
    std::unique_ptr<KeyExchange> key_exchange_;
    std::string cookie_;
    unsigned retries_ = 0;
    std::uint16_t retry_type_ = 0;  // what the latest one was asked for with
    std::string retry_datagram_;
    unsigned stale_answers_ = 0;  // that may still come to requests that were replaced
    unsigned asked_again_ = 0;
    std::string garbage_;  // what came instead of an answer
    std::string malformed_;
    std::string unreachable_;
    bool childless_ = false;
    bool child_open_ = false;
    std::string child_spi_;
    bool goodbye_sent_ = false;
};

}  // namespace ikeauth
