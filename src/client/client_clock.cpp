#include "terrane/client/client_clock.hpp"

namespace terrane::common {

namespace {

class SteadyClientClock final : public ClientClock {
  public:
    TimePoint now() const override { return std::chrono::steady_clock::now(); }
    // Its time never jumps, so there is nobody to wake.
    std::uint64_t subscribe(std::function<void()>) override { return 0; }
    void unsubscribe(std::uint64_t) override {}
};

}  // namespace

ClientClock::~ClientClock() = default;

std::shared_ptr<ClientClock> steadyClientClock() {
    static const auto clock = std::make_shared<SteadyClientClock>();
    return clock;
}

}  // namespace terrane::common
