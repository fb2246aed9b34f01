#include "client/observer_list.hpp"

#include <algorithm>

namespace terrane::common {

void ObserverList::add(std::shared_ptr<OfflineClientObserver> observer) {
    std::lock_guard lock(mutex_);
    if (observer && std::find(observers_.begin(), observers_.end(), observer) == observers_.end()) {
        observers_.push_back(std::move(observer));
    }
}

void ObserverList::remove(const std::shared_ptr<OfflineClientObserver>& observer) {
    std::lock_guard lock(mutex_);
    std::erase(observers_, observer);
}

void ObserverList::notify(const std::function<void(OfflineClientObserver&)>& call) {
    std::lock_guard lock(mutex_);
    // A copy, since a callback may change the list; each is asked whether it still belongs.
    const auto snapshot = observers_;
    for (const auto& observer : snapshot) {
        if (std::find(observers_.begin(), observers_.end(), observer) == observers_.end()) {
            continue;
        }
        try {
            call(*observer);
        } catch (...) {
            // One observer's failure must not cost the others their call, nor the client its
            // thread; there is nobody else to tell.
        }
    }
}

}  // namespace terrane::common
