#include "quorlix/location/EngineLocationManager.h"
#include "quorlix/location/VirtualClock.h"

#include <gtest/gtest.h>

#include <QStringList>

namespace Quorlix {
namespace {

constexpr std::int64_t ms = 1'000'000;

// A delegate that runs a test-given action inside each report.
struct ActingDelegate : LocationManagerDelegate
{
    std::function<void(const char*)> act;
    void didEnterRegion(LocationManager*, BeaconRegion*) override { act("enter"); }
    void didExitRegion(LocationManager*, BeaconRegion*) override { act("exit"); }
    void didRangeBeacons(LocationManager*, const QList<Beacon>&, BeaconRegion*) override
    {
        act("range");
    }
};

// The delegate is read at each report, and may destroy its manager inside one.
TEST(EngineLocationManager, DelegateMayChangeOrDestroyItsManagerInsideAReport)
{
    auto clock = std::make_shared<VirtualClock>();
    auto manager = std::make_shared<EngineLocationManager>(clock, nullptr);
    QStringList seen;
    ActingDelegate first, second;
    first.act = [&](const char* what) {
        seen << QStringLiteral("first ") + QLatin1StringView(what);
        manager->delegate = &second;
    };
    second.act = [&](const char* what) {
        seen << QStringLiteral("second ") + QLatin1StringView(what);
        if (QLatin1StringView(what) == "exit")
            manager.reset();
    };
    manager->delegate = &first;
    const auto region =
        std::make_shared<BeaconRegion>(BeaconRegion{QUuid::createUuid(), {}, {}, {}});
    manager->startMonitoring(region);
    manager->startRangingBeacons(region);
    manager->engine().addSighting(Sighting{0, {}, region->proximityUUID, 1, 1, -59, -60});
    clock->advanceTo(60 * 1000 * ms);
    // Ranged each second until the exit, 30 s after the sighting; nothing once it is gone.
    EXPECT_EQ(seen, QStringList{"first enter"} + QStringList(29, "second range") +
                        QStringList{"second exit"});
    EXPECT_EQ(clock->pendingCount(), 0u);
}

} // namespace
} // namespace Quorlix
