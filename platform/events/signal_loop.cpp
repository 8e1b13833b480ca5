#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <system_error>

#include "platform/events/event_host.h"

namespace events {

struct SignalLoop::Impl {
    asio::io_context io{1};
    asio::signal_set signals{io};
};

SignalLoop::SignalLoop(std::initializer_list<int> signals) : impl_(std::make_unique<Impl>()) {
    std::error_code ignored;  // a number that is no signal never comes
    for (const int number : signals) impl_->signals.add(number, ignored);
}

SignalLoop::~SignalLoop() = default;

void SignalLoop::Run(const std::function<bool(int)>& on_signal) {
    bool go_on = true;
    while (go_on) {
        impl_->signals.async_wait([&](const std::error_code& error, int number) {
            if (!error) go_on = on_signal(number);
        });
        impl_->io.restart();
        impl_->io.run();
    }
}

}  // namespace events
