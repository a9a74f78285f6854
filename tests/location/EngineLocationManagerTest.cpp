#include "quorlix/location/EngineLocationManager.h"
#include "quorlix/events/VeskEventManager.h"
#include "quorlix/location/VirtualClock.h"
#include "quorlix/location/sources/SimulatedSource.h"

#include "DirectoryProcess.h"
#include "EventLoop.h"

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
        manager.reset();
    };
    manager->delegate = &first;
    const auto region =
        std::make_shared<BeaconRegion>(BeaconRegion{QUuid::createUuid(), {}, {}, {}});
    manager->startMonitoring(region);
    manager->startRangingBeacons(region);
    manager->engine().addSighting(Sighting{0, {}, region->proximityUUID, 1, 1, -59, -60});
    clock->advanceTo(60 * 1000 * ms);
    EXPECT_EQ(seen, (QStringList{"first enter", "second range"}));
    EXPECT_EQ(clock->pendingCount(), 0u);
}

TEST(EndToEnd, SimulatedDeviceReachesTheEventManagerInVirtualTime)
{
    Testing::DirectoryProcess directory;
    // Device 1047 is 12-7: it arrives at 2 s at 0.8 m and leaves at 20 s. 12-8, much nearer the
    // whole time, belongs to another device and must never be reported.
    QString error;
    const auto scenario = Scenario::parse(R"({"seed": 3, "beacons": [
        {"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 12, "minor": 7,
         "interval": 0.1, "loss": 0.2, "noise": 3, "path": [[0, null], [2, 0.8], [20, 0.8],
         [20, null]]},
        {"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 12, "minor": 8,
         "interval": 0.1, "path": [[0, 0.2]]}]})",
                                          QStringLiteral("walk.json"), &error);
    ASSERT_TRUE(scenario) << error.toStdString();
    auto clock = std::make_shared<VirtualClock>();
    LocationManager::setFactory([&] {
        return std::make_shared<EngineLocationManager>(
            clock, std::make_unique<SimulatedSource>(*scenario));
    });
    const auto manager = VeskEventManager::create(QStringLiteral("1047"));
    LocationManager::setFactory({});
    // Entries ('e') and exits ('x') with their times in ms; ranging reports with theirs in ns.
    QList<std::pair<char, std::int64_t>> moves;
    QList<std::pair<std::int64_t, std::shared_ptr<VeskDevice>>> ranges;
    manager->onEntry([&](const auto&) { moves.append({'e', clock->nowNs() / ms}); });
    manager->onExit([&](const auto&) { moves.append({'x', clock->nowNs() / ms}); });
    manager->onRange([&](const auto& device) { ranges.append({clock->nowNs(), device}); });
    // Entry and exit handlers run on the main queue: let it turn after each step.
    const auto advanceTo = [&](std::int64_t t) {
        for (std::int64_t step = clock->nowNs(); step < t; step += 100 * ms) {
            clock->advanceTo(std::min(step + 100 * ms, t));
            QCoreApplication::processEvents();
        }
    };

    advanceTo(1900 * ms);
    EXPECT_TRUE(moves.isEmpty());
    EXPECT_TRUE(ranges.isEmpty()); // empty reports reach no handler
    advanceTo(51'000 * ms);
    ASSERT_EQ(moves.size(), 2);
    EXPECT_TRUE(moves[0].first == 'e' && moves[0].second <= 2400) << moves[0].second;
    EXPECT_TRUE(moves[1].first == 'x' && moves[1].second >= 49'900) << moves[1].second;
    ASSERT_GE(ranges.size(), 16);
    for (const auto& [time, device] : ranges) {
        if (time < 4000 * ms || time > 20'000 * ms)
            continue;
        EXPECT_EQ(device->distance, QStringLiteral("Near")) << time / ms;
        EXPECT_NEAR(device->rssi.value_or(QString()).toInt(), -57, 2) << time / ms;
    }
}

} // namespace
} // namespace Quorlix
