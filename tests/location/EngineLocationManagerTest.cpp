#include "quorlix/location/EngineLocationManager.h"
#include "quorlix/events/VeskEventManager.h"
#include "quorlix/location/VirtualClock.h"
#include "quorlix/location/sources/SimulatedSource.h"

#include "DirectoryProcess.h"
#include "EventLoop.h"

#include <gtest/gtest.h>

namespace Quorlix {
namespace {

constexpr std::int64_t ms = 1'000'000;

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
    // Times in ms of entries and exits; ranging reports with their times in ns.
    QList<std::int64_t> entries, exits;
    QList<std::pair<std::int64_t, std::shared_ptr<VeskDevice>>> ranges;
    manager->onEntry([&](const auto&) { entries << clock->nowNs() / ms; });
    manager->onExit([&](const auto&) { exits << clock->nowNs() / ms; });
    manager->onRange([&](const auto& device) { ranges.append({clock->nowNs(), device}); });
    // Entry and exit handlers run on the main queue: let it turn after each step.
    const auto advanceTo = [&](std::int64_t t) {
        for (std::int64_t step = clock->nowNs(); step < t; step += 100 * ms) {
            clock->advanceTo(std::min(step + 100 * ms, t));
            QCoreApplication::processEvents();
        }
    };

    advanceTo(1900 * ms);
    EXPECT_TRUE(entries.isEmpty());
    EXPECT_TRUE(ranges.isEmpty()); // empty reports reach no handler
    advanceTo(3000 * ms);
    ASSERT_EQ(entries.size(), 1);
    EXPECT_LE(entries.first(), 2400);

    advanceTo(20 * 1000 * ms);
    ASSERT_GE(ranges.size(), 16);
    for (const auto& [time, device] : ranges) {
        if (time < 4000 * ms)
            continue;
        EXPECT_EQ(device->distance, QStringLiteral("Near")) << time / ms;
        EXPECT_NEAR(device->rssi.value_or(QString()).toInt(), -57, 2) << time / ms;
    }
    advanceTo(49'900 * ms);
    EXPECT_TRUE(exits.isEmpty());
    advanceTo(51'000 * ms);
    ASSERT_EQ(exits.size(), 1);
    EXPECT_GE(exits.first(), 49'900);
    EXPECT_EQ(entries.size(), 1);
}

} // namespace
} // namespace Quorlix
