#include "DirectoryProcess.h"
#include "MockBlueZ.h"

#include "quorlix/events/VeskEventManager.h"
#include "quorlix/location/EngineLocationManager.h"
#include "quorlix/location/SourceSelection.h"
#include "quorlix/location/sources/IBeaconAdvert.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTest>
#include <QTimer>

namespace Quorlix {
namespace {

using Testing::MockBlueZ;

const QString familyUuid = QStringLiteral("e1876979-75b5-43de-92cb-2bc1ad6ba999");
constexpr std::int64_t exitPeriodMs = 1500;

void runFor(int ms)
{
    QElapsedTimer elapsed;
    elapsed.start();
    while (elapsed.elapsed() < ms)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
}

TEST(BlueZEndToEnd, AdvertsOnTheBusReachAnEventManagerAsEntryRangingAndExit)
{
    ASSERT_TRUE(MockBlueZ::onPrivateBus()) << "run under private-bus.sh";
    MockBlueZ mock;
    mock.addAdapter(QStringLiteral("hci0"));
    Testing::DirectoryProcess directory; // device 1047 is 12-7

    qputenv(SourceSelection::variable, "bluez");
    const auto manager = VeskEventManager::create(QStringLiteral("1047"));
    qunsetenv(SourceSelection::variable);
    auto* location = dynamic_cast<EngineLocationManager*>(manager->locationManager.get());
    ASSERT_NE(location, nullptr) << "QUORLIX_LOCATION_SOURCE=bluez gave no region engine";
    location->engine().setExitPeriodNs(exitPeriodMs * 1'000'000);
    QStringList events;
    QList<std::shared_ptr<VeskDevice>> ranges;
    manager->onEntry([&](const auto&) { events << QStringLiteral("entry"); });
    manager->onExit([&](const auto&) { events << QStringLiteral("exit"); });
    manager->onRange([&](const auto& device) { ranges << device; });
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            return mock.discoveryLog(QStringLiteral("hci0"))
                .contains(QStringLiteral("StartDiscovery"));
        },
        5000));

    // Device 1047, and a nearer beacon of the family that belongs to another device (12-8).
    const QByteArray frame1047 = MockBlueZ::iBeaconData(familyUuid, 12, 7, -59);
    const QByteArray frame1048 = MockBlueZ::iBeaconData(familyUuid, 12, 8, -59);
    const QString beacon1047 =
        mock.addBeacon(QStringLiteral("hci0"), QStringLiteral("C0:FF:EE:10:47:00"), -55,
                       IBeaconAdvert::appleCompanyId, frame1047);
    const QString beacon1048 =
        mock.addBeacon(QStringLiteral("hci0"), QStringLiteral("C0:FF:EE:10:48:00"), -40,
                       IBeaconAdvert::appleCompanyId, frame1048);
    // Byte-identical adverts at a steady RSSI for three exit periods: exactly what de-duplication
    // would silence, and must not end in an exit.
    QTimer advertiser;
    QObject::connect(&advertiser, &QTimer::timeout, [&] {
        mock.advertise(beacon1047, -55, IBeaconAdvert::appleCompanyId, frame1047);
        mock.advertise(beacon1048, -40, IBeaconAdvert::appleCompanyId, frame1048);
    });
    advertiser.start(100);
    runFor(3 * exitPeriodMs);
    EXPECT_EQ(events, QStringList{QStringLiteral("entry")});
    ASSERT_GE(ranges.size(), 3);
    for (const auto& device : ranges)
        EXPECT_EQ(device->rssi, QStringLiteral("-55")) << "a report of another beacon";

    // Silence: 1047 is gone.
    advertiser.stop();
    QElapsedTimer silence;
    silence.start();
    ASSERT_TRUE(QTest::qWaitFor([&] { return events.size() == 2; }, 4 * exitPeriodMs));
    EXPECT_EQ(events, (QStringList{QStringLiteral("entry"), QStringLiteral("exit")}));
    EXPECT_GE(silence.elapsed(), exitPeriodMs - 100);
}

} // namespace
} // namespace Quorlix
