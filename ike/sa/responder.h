// The responder's side of an IKE SA.
#pragma once

#include <memory>

#include "ike/sa/association.h"

namespace ikeauth {

class Responder : public Association {
  public:
    Responder(const ExchangeSettings& settings, const Endpoints& endpoints, Report& report,
              std::uint64_t initiator_spi);

    /// The peer has proved who it is, or failed to: it is no longer one of the half-open ones.
    bool half_open() const { return state_ == State::kInit || state_ == State::kAuth; }

  private:
    enum class State : std::uint8_t { kInit, kAuth, kFarewell };

    void OnInit(const Message& message, std::string_view datagram) override;
    void OnResponse(const Message& message) override;
    void OnRequest(const Message& message) override;
    void OnSilence() override;
    void OnTimer() override;

    bool ChooseSuite(const Message& message, KeyExchangeData& data);
    void RefuseInit(const Message& message, std::uint16_t notify, std::string data = {});
    void AnswerInit(const Message& message, const KeyExchange& own);
    Message InitResponse(const Message& request) const;
    void OnAuth(const Message& message);
    void RefuseAuth(const Message& message, const Outcome& outcome);
    /// The initiator tells what it thinks of our AUTH by closing the SA, or by an error, or by answering when we close it.
    void ConcludeGood();
    void NoteRefusal(const Payloads& in);
    void SayGoodbye();
    void AnswerChild(const Payloads& in, Payloads& out);

    State state_ = State::kInit;
    Proposal chosen_;
    std::string child_spi_;
    bool child_open_ = false;
    bool goodbye_due_ = false;
    bool goodbye_sent_ = false;
};

}  // namespace ikeauth
