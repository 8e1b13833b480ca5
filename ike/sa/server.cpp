#include "ike/sa/server.h"

#include <algorithm>

#include "ike/wire/bytes.h"

namespace ikeauth {

Server::Server(const ExchangeSettings& settings, Listener listener, bool always_cookies)
    : settings_(settings), listener_(std::move(listener)), always_cookies_(always_cookies) {}

std::string Server::Cookie(const std::string& nonce, const Key& key) const {
    return Sha1(secret_ + NetworkOrder(key.first) + key.second + nonce + secret_);
}

bool Server::HasCookie(const Message& message, const Key& key) const {
    const Payload* nonce = FindPayload(message.payloads, kPayloadNonce);
    Notify cookie;
    return nonce != nullptr && FindNotify(message.payloads, kCookie, cookie) &&
           EqualSecret(cookie.data, Cookie(nonce->body, key));
}

/// Whether a datagram of an unknown SA may make one.
bool Server::Admit(const Key& key, std::string_view datagram) {
    Message message;
    std::string error;
    if (!ParseMessage(datagram, message, error) || message.header.exchange != kSaInit ||
        message.header.version >> 4U != kVersion2 >> 4U || message.header.is_response() ||
        !message.header.from_initiator() || message.header.message_id != 0 || message.header.responder_spi != 0) {
        return false;
    }
    if (entries_.size() >= kMaxAssociations || half_open_ >= kMaxHalfOpen) return false;
    if ((!always_cookies_ && half_open_ < kCookieThreshold) || HasCookie(message, key)) return true;
    const Payload* nonce = FindPayload(message.payloads, kPayloadNonce);
    if (nonce == nullptr) return false;
    Message answer;
    answer.header = {.initiator_spi = key.first, .exchange = kSaInit, .flags = kIsResponse};
    answer.payloads.push_back(MakeNotify(kCookie, Cookie(nonce->body, key)));
    outgoing_.push_back({key.second, EncodeMessage(answer)});
    return false;
}

Server::Entry& Server::Make(const Key& key, const Endpoints& endpoints, Time now) {
    auto entry = std::make_unique<Entry>();
    entry->peer = key.second;
    entry->endpoints = endpoints;
    entry->report = Report([this, spi = key.first](const Step& step) {
        if (listener_.on_step) listener_.on_step(spi, step);
    });
    entry->report.Start(now);
    entry->responder = std::make_unique<Responder>(settings_, entry->endpoints, entry->report, key.first);
    ++half_open_;
    return *(entries_[key] = std::move(entry));
}

Server::Entries::iterator Server::Find(const Header& header, const Key& key) {
    if (header.responder_spi == 0) return entries_.find(key);
    const auto found = by_spi_.find(header.responder_spi);
    return found == by_spi_.end() ? entries_.end() : entries_.find(found->second);
}

void Server::Receive(const std::string& peer, const Endpoints& endpoints, std::string_view datagram, Time now) {
    Header header;
    std::uint8_t first = 0;
    std::string error;
    if (!ParseHeader(datagram, header, first, error)) return;
    const Key key(header.initiator_spi, peer);
    auto found = Find(header, key);
    if (found == entries_.end()) {
        if (!Admit(key, datagram)) return;
        Make(key, endpoints, now);
        found = entries_.find(key);
    }
    Entry& entry = *found->second;
    const bool half_open = entry.responder->half_open();
    entry.responder->Receive(datagram, now);
    if (half_open && !entry.responder->half_open()) --half_open_;
    if (entry.responder->has_outgoing()) entry.peer = peer;  // it was the peer's: answer to where it came from
    if (entry.responder->responder_spi() != 0) by_spi_[entry.responder->responder_spi()] = found->first;
    Settle(found);
}

Server::Entries::iterator Server::Settle(Entries::iterator at) {
    Entry& entry = *at->second;
    for (std::string& datagram : entry.responder->TakeOutgoing()) {
        outgoing_.push_back({entry.peer, std::move(datagram)});
    }
    if (entry.responder->outcome() && !entry.told) {
        entry.told = true;
        if (listener_.on_ended) listener_.on_ended(*entry.responder, entry.report);
    }
    if (!entry.responder->finished()) return std::next(at);
    if (entry.responder->half_open()) --half_open_;
    by_spi_.erase(entry.responder->responder_spi());
    return entries_.erase(at);
}

void Server::Tick(Time now) {
    for (auto at = entries_.begin(); at != entries_.end();) {
        const std::optional<Time> wake = at->second->responder->wake();
        if (wake && *wake <= now) {
            at->second->responder->Tick(now);
            at = Settle(at);
        } else {
            ++at;
        }
    }
}

std::optional<Time> Server::wake() const {
    std::optional<Time> first;
    for (const auto& [key, entry] : entries_) {
        const std::optional<Time> wake = entry->responder->wake();
        if (wake && (!first || *wake < *first)) first = wake;
    }
    return first;
}

std::vector<Packet> Server::TakeOutgoing() {
    return std::exchange(outgoing_, {});
}

}  // namespace ikeauth
