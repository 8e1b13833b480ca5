#include "ike/sa/server.h"

#include <algorithm>
#include <utility>

#include "ike/wire/bytes.h"

namespace ikeauth {

Server::Server(const ExchangeSettings& settings, Listener listener, bool always_cookies)
    : settings_(settings),
      listener_(std::move(listener)),
      always_cookies_(always_cookies),
      renewed_(settings.clock()) {}

// --- Cookies ---

std::string Server::Cookie(const std::string& secret, const std::string& nonce, const Key& key) {
    return Sha1(secret + NetworkOrder(key.first) + key.second + nonce + secret);
}

/// A secret that is used for ever may be found; the one before is good for cookies that are on their way.
void Server::RenewSecret() {
    const auto lives = (settings_.clock() - renewed_) / kCookieLife;
    if (lives == 0) return;
    renewed_ += lives * kCookieLife;
    previous_secret_ = lives == 1 ? secret_ : RandomBytes(kSecretBytes);
    secret_ = RandomBytes(kSecretBytes);
}

bool Server::HasCookie(const Message& message, const Key& key) const {
    const Payload* nonce = FindPayload(message.payloads, kPayloadNonce);
    Notify cookie;
    return nonce != nullptr && FindNotify(message.payloads, kCookie, cookie) &&
           (EqualSecret(cookie.data, Cookie(secret_, nonce->body, key)) ||
            EqualSecret(cookie.data, Cookie(previous_secret_, nonce->body, key)));
}

void Server::AskForCookie(const Message& message, const Key& key) {
    const Payload* nonce = FindPayload(message.payloads, kPayloadNonce);
    if (nonce == nullptr) return;
    Message answer;
    answer.header = {.initiator_spi = key.first, .exchange = kSaInit, .flags = kIsResponse};
    answer.payloads.push_back(MakeNotify(kCookie, Cookie(secret_, nonce->body, key)));
    outgoing_.push_back({key.second, EncodeMessage(answer)});
}

// --- Strangers ---

void Server::Refuse(const Header& header, const std::string& peer, const Flaw& flaw) {
    const Time now = settings_.clock();
    if (now - refusals_since_ >= std::chrono::seconds(1)) {
        refusals_since_ = now;
        refusals_ = 0;
    }
    if (++refusals_ > kMaxRefusals) return;
    Message answer;
    answer.header = {.initiator_spi = header.initiator_spi,
                     .responder_spi = header.responder_spi,
                     .exchange = header.exchange,
                     .flags = kIsResponse,
                     .message_id = header.message_id};
    answer.payloads.push_back(MakeNotify(flaw.notify, flaw.data));
    outgoing_.push_back({peer, EncodeMessage(answer)});
}

bool Server::HasRoom(const Endpoints& endpoints) const {
    const auto of_one = half_open_of_.find(endpoints.Origin());
    return entries_.size() < kMaxAssociations && load() < kMaxHalfOpen &&
           (of_one == half_open_of_.end() || of_one->second < kMaxHalfOpenOfOne);
}

/// Whether a datagram of an unknown SA may make one. Responses are never answered.
bool Server::Admit(const Key& key, const Endpoints& endpoints, std::string_view datagram) {
    Message message;
    Flaw flaw;
    const bool read = ParseMessage(datagram, message, flaw);
    const Header& header = message.header;
    if (header.is_response() || !header.from_initiator()) return false;
    if (header.version >> 4U > kVersion2 >> 4U) {
        Refuse(header, key.second, {.notify = kInvalidMajorVersion});
        return false;
    }
    if (header.exchange != kSaInit || header.version >> 4U != kVersion2 >> 4U || header.message_id != 0 ||
        header.responder_spi != 0) {
        return false;
    }
    if (!read) Refuse(header, key.second, flaw);
    if (!read || !HasRoom(endpoints)) return false;
    if ((!always_cookies_ && load() < kCookieThreshold) || HasCookie(message, key)) return true;
    AskForCookie(message, key);
    return false;
}

// --- SAs ---

void Server::Make(const Key& key, const Endpoints& endpoints) {
    auto entry = std::make_unique<Entry>();
    entry->peer = key.second;
    entry->endpoints = endpoints;
    const auto tell = [this, spi = key.first](const Step& step) {
        if (listener_.on_step) listener_.on_step(spi, step);
    };
    entry->report = Report(tell, settings_.clock);
    entry->report.Start();
    entry->responder = std::make_unique<Responder>(settings_, entry->endpoints, entry->report, key.first);
    ++half_open_;
    ++half_open_of_[endpoints.Origin()];
    entries_[key] = std::move(entry);
}

void Server::NoteProgress(Entry& entry) {
    if (!entry.half_open || (entry.responder->half_open() && !entry.responder->finished())) return;
    entry.half_open = false;
    --half_open_;
    // What was refused at once has cost a key and a line of the log all the same.
    const std::string origin = entry.endpoints.Origin();
    if (entry.responder->keys() != nullptr) return LeaveOrigin(origin);
    refused_.emplace_back(settings_.clock() + kRefusedLife, origin);
}

void Server::LeaveOrigin(const std::string& origin) {
    const auto of_one = half_open_of_.find(origin);
    if (--of_one->second == 0) half_open_of_.erase(of_one);
}

void Server::ForgetRefused() {
    const Time now = settings_.clock();
    for (; !refused_.empty() && refused_.front().first <= now; refused_.pop_front()) {
        LeaveOrigin(refused_.front().second);
    }
}

Server::Entries::iterator Server::Find(const Header& header, const Key& key) {
    if (header.responder_spi == 0) return entries_.find(key);
    const auto found = by_spi_.find(header.responder_spi);
    return found == by_spi_.end() ? entries_.end() : entries_.find(found->second);
}

void Server::Receive(const std::string& peer, const Endpoints& endpoints, std::string_view datagram) {
    Header header;
    std::uint8_t first = 0;
    Flaw flaw;
    if (!ParseHeader(datagram, header, first, flaw)) return;
    RenewSecret();
    ForgetRefused();
    const Key key(header.initiator_spi, peer);
    auto found = Find(header, key);
    if (found == entries_.end()) {
        if (!Admit(key, endpoints, datagram)) return;
        Make(key, endpoints);
        found = entries_.find(key);
    }
    Entry& entry = *found->second;
    const unsigned accepted = entry.responder->accepted();
    entry.responder->Receive(datagram);
    // A repetition may be a stranger's: it is answered to where it came from (RFC 7296, 2.11) but moves nothing (2.23).
    if (entry.responder->accepted() != accepted) entry.peer = peer;
    if (entry.responder->responder_spi() != 0) by_spi_[entry.responder->responder_spi()] = found->first;
    Settle(found, peer);
}

Server::Entries::iterator Server::Settle(Entries::iterator at, const std::string& peer) {
    Entry& entry = *at->second;
    NoteProgress(entry);
    for (std::string& datagram : entry.responder->TakeOutgoing()) {
        outgoing_.push_back({peer, std::move(datagram)});
    }
    if (entry.responder->outcome() && !entry.told) {
        entry.told = true;
        if (listener_.on_ended) listener_.on_ended(*entry.responder, entry.report);
    }
    if (!entry.responder->finished()) return std::next(at);
    by_spi_.erase(entry.responder->responder_spi());
    return entries_.erase(at);
}

void Server::Tick() {
    const Time now = settings_.clock();
    for (auto at = entries_.begin(); at != entries_.end();) {
        const std::optional<Time> wake = at->second->responder->wake();
        if (wake && *wake <= now) {
            at->second->responder->Tick();
            at = Settle(at, at->second->peer);
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
