#pragma once

#include <string>

#include "terrane/client/pack_state.hpp"
#include "terrane/export.hpp"

namespace terrane::common {

// What an application implements to follow every pack of one OfflineClient, whoever asked for
// it. Unlike the service's observers, these belong to the client they were added to.
//
// Threads: the callbacks run on the client's own thread, one after the other, never on the
// service's worker. A callback that blocks holds back the client's retries and progress
// reports, not the service. Ownership: the client keeps the observer by shared pointer until
// OfflineClient::removeObserver.
class TERRANE_EXPORT OfflineClientObserver {
  public:
    virtual ~OfflineClientObserver();

    // A pack changed state. For Deleting, the client lets go of the pack's files for its part
    // once every one of its observers has returned from this call; so an observer stops using
    // them before it returns.
    virtual void onPackState(const PackState& state);
    // A diagnostic line of the offline service.
    virtual void onLogMessage(const std::string& message);
};

}  // namespace terrane::common
