#pragma once

#include <deque>
#include <functional>

namespace terrane::common {

// The callbacks a transfer owes its caller, in the order they fell due. Transfers only queue
// them; the engine runs them at points where no libcurl call and no transfer code is on the stack,
// so a callback may re-enter the service (start a request, cancel a transfer, even the one it
// reports on) without pulling anything out from under the engine.
//
// Engine thread only.
class DeliveryQueue {
  public:
    using Delivery = std::move_only_function<void()>;

    void push(Delivery delivery);
    // Runs every delivery, also those queued by the deliveries themselves, in order.
    void drain();
    // Drops the undelivered ones (the engine is shutting down).
    void clear();
    bool empty() const { return queue_.empty(); }

  private:
    std::deque<Delivery> queue_;
};

}  // namespace terrane::common
