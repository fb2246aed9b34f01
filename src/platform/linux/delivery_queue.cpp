#include "platform/linux/delivery_queue.hpp"

#include <utility>

namespace terrane::common {

void DeliveryQueue::push(Delivery delivery) {
    queue_.push_back(std::move(delivery));
}

void DeliveryQueue::drain() {
    while (!queue_.empty()) {
        // Taken off first: the delivery may queue more, which must not move it under its feet.
        Delivery delivery = std::move(queue_.front());
        queue_.pop_front();
        delivery();
    }
}

void DeliveryQueue::clear() {
    std::deque<Delivery> dropped;
    dropped.swap(queue_);
}

}  // namespace terrane::common
