#include "terrane/offline/offline_service_observer.hpp"

#include <gtest/gtest.h>

namespace terrane::common {
namespace {

// An observer that cares about one callback needs to override only that one.
class OnlyIdle : public OfflineServiceObserver {
  public:
    void onIdle() override { ++idles; }
    int idles = 0;
};

TEST(OfflineServiceObserverTest, DefaultsDoNothingAndDeletingIsAcknowledgedAtOnce) {
    OnlyIdle observer;
    OfflineDataRegionMetadata region;
    OfflineDataPack pack;
    observer.onAvailable(OfflineDataDomain::Maps, region, pack);
    observer.onLogMessage("ignored");
    observer.onIdle();
    EXPECT_EQ(observer.idles, 1);

    int acknowledgements = 0;
    observer.onDeleting(OfflineDataDomain::Navigation, region, pack, [&] { ++acknowledgements; });
    EXPECT_EQ(acknowledgements, 1);
    // An empty acknowledgement is tolerated.
    observer.onDeleting(OfflineDataDomain::Maps, region, pack, {});
}

}  // namespace
}  // namespace terrane::common
