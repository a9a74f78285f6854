#include "DirectoryProcess.h"
#include "EventLoop.h"
#include "MockBlueZ.h"

#include "quorlix/events/VeskEventManager.h"
#include "quorlix/location/EngineLocationManager.h"
#include "quorlix/location/SourceSelection.h"

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QTimer>

namespace Quorlix {
namespace {

using Testing::MockBlueZ;
using namespace Qt::StringLiterals;

constexpr int exitPeriodMs = 1500;

TEST(BlueZEndToEnd, AdvertsOnTheBusReachAnEventManagerAsEntryRangingAndExit)
{
    ASSERT_TRUE(MockBlueZ::onPrivateBus()) << "run under private-bus.sh";
    MockBlueZ mock;
    mock.addAdapter(u"hci0"_s);
    Testing::DirectoryProcess directory; // device 1047 is 12-7

    qputenv(SourceSelection::variable, "bluez");
    const auto manager = VeskEventManager::create(u"1047"_s);
    qunsetenv(SourceSelection::variable);
    auto* location = dynamic_cast<EngineLocationManager*>(manager->locationManager.get());
    ASSERT_NE(location, nullptr) << "QUORLIX_LOCATION_SOURCE=bluez gave no region engine";
    location->engine().setExitPeriodNs(exitPeriodMs * 1'000'000LL);
    QStringList events;
    QList<std::shared_ptr<VeskDevice>> ranges;
    manager->onEntry([&](const auto&) { events << u"entry"_s; });
    manager->onExit([&](const auto&) { events << u"exit"_s; });
    manager->onRange([&](const auto& device) { ranges << device; });
    // Device 1047, and a nearer beacon of the family that belongs to another device (12-8).
    const QString uuid = u"e1876979-75b5-43de-92cb-2bc1ad6ba999"_s;
    const QByteArray frames[] = {MockBlueZ::iBeaconData(uuid, 12, 7, -59),
                                 MockBlueZ::iBeaconData(uuid, 12, 8, -59)};
    const QString beacons[] = {
        mock.addBeacon(u"hci0"_s, u"C0:FF:EE:10:47:00"_s, -55, 0x4C, frames[0]),
        mock.addBeacon(u"hci0"_s, u"C0:FF:EE:10:48:00"_s, -40, 0x4C, frames[1])};
    // Byte-identical adverts at a steady RSSI for three exit periods: exactly what de-duplication
    // would silence, and must not end in an exit.
    QTimer advertiser;
    QObject::connect(&advertiser, &QTimer::timeout, [&] {
        mock.advertise(beacons[0], -55, 0x4C, frames[0]);
        mock.advertise(beacons[1], -40, 0x4C, frames[1]);
    });
    advertiser.start(100);
    Testing::runFor(3 * exitPeriodMs);
    EXPECT_EQ(events, QStringList{u"entry"_s});
    ASSERT_GE(ranges.size(), 3);
    for (const auto& device : ranges)
        EXPECT_EQ(device->rssi, u"-55"_s) << "a report of another beacon";

    advertiser.stop();
    QElapsedTimer silence;
    silence.start();
    ASSERT_TRUE(Testing::runUntil([&] { return events.size() == 2; }, 4 * exitPeriodMs));
    EXPECT_EQ(events, (QStringList{u"entry"_s, u"exit"_s}));
    EXPECT_GE(silence.elapsed(), exitPeriodMs - 100);
}

} // namespace
} // namespace Quorlix
