#include "cli/session.h"

namespace certmgrctl {

void Session::Connect(bool answers_questions) {
    const bool connected = client_.Connect(
        {.socket_path = socket, .name = "certmgrctl " CERTMGR_VERSION, .answers_questions = answers_questions});
    if (connected) return;
    if (client_.failure().kind == bridge::ClientFailure::Kind::kTimeout) {
        throw Failure(kExitNoDaemon, "no daemon answers: " + client_.failure().text,
                      {"See whether certmgrd still runs, and its log."});
    }
    Fail(client_.failure());
}

certmgr_client::Manager& Session::manager() {
    if (!client_.connected()) Connect();
    return manager_;
}

void Session::Fail(const bridge::ClientFailure& failure) const {
    using Kind = bridge::ClientFailure::Kind;
    switch (failure.kind) {
        case Kind::kNoServer:
            throw Failure(kExitNoDaemon, "no daemon: " + failure.text,
                          {"Start certmgrd, or name its socket with --socket PATH."});
        case Kind::kNotAllowed:
            throw Failure(kExitNoDaemon, "not allowed: " + failure.text,
                          {"\"users\" and \"groups\" in [bridge] of the daemon's settings say who may connect."});
        case Kind::kDisconnected:
        case Kind::kMalformed:
            throw Failure(kExitNoDaemon, "the connection to the daemon is lost: " + failure.text);
        default:
            break;
    }
    if (failure.kind == Kind::kServer && failure.code == bridge::Error::kRefused) {
        throw Failure(kExitNoDaemon, "the daemon refuses the connection: " + failure.text,
                      {"\"users\" and \"groups\" in [bridge] of its settings say who may connect."});
    }
    throw Failure(kExitFailed, failure.text);
}

}  // namespace certmgrctl
