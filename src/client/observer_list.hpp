#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "terrane/client/offline_client_observer.hpp"

namespace terrane::common {

// The observers of one OfflineClient. add() and remove() from any thread; notify() from the
// client's thread. Delivery holds a lock that remove() takes too, so that once remove() returns
// on another thread the observer is not called again; the client's thread itself may add and
// remove observers from inside a callback. An exception thrown by an observer is swallowed.
class ObserverList {
  public:
    void add(std::shared_ptr<OfflineClientObserver> observer);
    void remove(const std::shared_ptr<OfflineClientObserver>& observer);
    void notify(const std::function<void(OfflineClientObserver&)>& call);

  private:
    std::recursive_mutex mutex_;
    std::vector<std::shared_ptr<OfflineClientObserver>> observers_;
};

}  // namespace terrane::common
