// The public location service on the real stack (inside the radio lab): entry, ranging that
// follows the beacon's signal, and exit, as a host sees them through LocationManager::create().

#include "RadioLab.h"

#include "quorlix/location/LocationManager.h"

using namespace Quorlix;
using namespace Quorlix::Testing;
using namespace std::chrono_literals;

namespace {

class Recorder : public LocationManagerDelegate
{
public:
    void didEnterRegion(LocationManager*, BeaconRegion*) override { ++entries; }
    void didExitRegion(LocationManager*, BeaconRegion*) override { ++exits; }
    void didRangeBeacons(LocationManager*, const QList<Beacon>& beacons, BeaconRegion*) override
    {
        if (!beacons.isEmpty())
            last = beacons.front();
    }
    int entries = 0;
    int exits = 0;
    std::optional<Beacon> last;
};

} // namespace

TEST(LocationManagerRadio, EntryRangingAndExitThroughBluetoothd)
{
    labctl({"beacons", "12:7@10"});
    labctl({"rssi", "-50"});
    qputenv("QUORLIX_LOCATION_SOURCE", "bluez");
    auto manager = LocationManager::create();
    LocationSettings settings = manager->settings();
    settings.exitPeriod = 5s;
    ASSERT_TRUE(manager->applySettings(settings));
    Recorder recorder;
    manager->delegate = &recorder;
    auto region = std::make_shared<BeaconRegion>(
        BeaconRegion{QUuid(QStringLiteral("E1876979-75B5-43DE-92CB-2BC1AD6BA999")), 12, 7,
                     QStringLiteral("lab")});
    manager->startMonitoring(region);
    manager->startRangingBeacons(region);

    ASSERT_TRUE(runUntil([&] { return recorder.entries == 1; }, 20'000)) << "no entry";
    const auto rssiNear = [&](int dbm) {
        return runUntil([&] { return recorder.last && std::abs(recorder.last->rssi - dbm) <= 3; },
                        15'000);
    };
    EXPECT_TRUE(rssiNear(-50)) << "ranging says " << (recorder.last ? recorder.last->rssi : 0);
    const Proximity close = recorder.last->proximity;
    labctl({"rssi", "-85"});
    EXPECT_TRUE(rssiNear(-85)) << "ranging says " << recorder.last->rssi << " after -85 dBm";
    // The proximity word is smoothed: it follows within seconds, not at once.
    EXPECT_TRUE(runUntil([&] { return recorder.last->proximity == Proximity::Far; }, 10'000));
    EXPECT_NE(close, Proximity::Far);

    labctl({"beacons", ""});
    EXPECT_TRUE(runUntil([&] { return recorder.exits == 1; }, 5000 + 4000)) << "no exit";
    EXPECT_EQ(recorder.entries, 1);
    manager->stopRangingBeacons(region);
    manager->stopMonitoring(region);
    manager->delegate = nullptr;
    labctl({"rssi", "-60"});
    labctl({"beacons", "12:7@10"});
}
