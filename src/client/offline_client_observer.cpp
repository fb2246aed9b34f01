#include "terrane/client/offline_client_observer.hpp"

namespace terrane::common {

OfflineClientObserver::~OfflineClientObserver() = default;

void OfflineClientObserver::onPackState(const PackState&) {
}

void OfflineClientObserver::onLogMessage(const std::string&) {
}

}  // namespace terrane::common
