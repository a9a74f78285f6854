#include "quorlix/quick/DevicePresence.h"

#include "DirectoryProcess.h"
#include "EventLoop.h"
#include "Files.h"
#include "QuickTesting.h"

#include <QSignalSpy>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace Quorlix;
using Quorlix::Quick::DevicePresence;

// Where the event manager would stop the process, the facade reports, and stays usable.
TEST(DevicePresence, ReportsWhatWouldStopTheManagerAsItsError)
{
    QTemporaryDir dir;
    Testing::DirectoryProcess service;
    const QString badCalibration =
        Testing::writeFile(dir.path(), "calibration.json", R"({"nearLimit": "far"})");
    struct Case
    {
        const char* deviceId;
        QString calibration;
        const char* error;
    };
    const Case cases[] = {
        {"9999", {}, "does not know device 9999"},
        {"1047", badCalibration, "bad calibration: "},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.error);
        qputenv("QUORLIX_CALIBRATION", c.calibration.toUtf8());
        DevicePresence presence;
        QSignalSpy errors(&presence, &DevicePresence::errorOccurred);
        presence.setDeviceId(QString::fromUtf8(c.deviceId));
        ASSERT_TRUE(Testing::runUntil([&] { return errors.count() > 0; }, 10'000));
        EXPECT_TRUE(presence.error().contains(QString::fromUtf8(c.error)))
            << presence.error().toStdString();
        EXPECT_EQ(errors.count(), 1);
        EXPECT_EQ(errors.first().first().toString(), presence.error());
        EXPECT_TRUE(presence.majorMinor().isEmpty());
        EXPECT_FALSE(presence.isPresent());
    }
    qunsetenv("QUORLIX_CALIBRATION");
}

// A QML host with nothing but `import Quorlix`: the simulated device comes, is ranged and leaves,
// and the beacon list orders it among the others.
TEST(DevicePresence, QmlHostSeesTheDeviceComeRangeAndGo)
{
    QTemporaryDir dir;
    Testing::DirectoryProcess service;
    // 12-7 (device 1047) is heard from 0.3 s to 1.8 s at 0.8 m, 12-8 stays at 3.5 m.
    const QString scenario = Testing::writeFile(dir.path(), "scenario.json", R"({"seed": 3,
      "beacons": [
        {"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 12, "minor": 7,
         "measuredPower": -59, "interval": 0.1, "loss": 0, "noise": 0,
         "path": [[0, null], [0.3, 0.8], [1.8, 0.8], [1.8, null]]},
        {"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 12, "minor": 8,
         "measuredPower": -59, "interval": 0.1, "loss": 0, "noise": 0, "path": [[0, 3.5], [60, 3.5]]}
      ]})");
    qputenv("QUORLIX_LOCATION_SOURCE", ("simulate:" + scenario).toUtf8());
    // The library reads its calibration file once per process, so the short exit period is set
    // directly.
    LocationSettings settings;
    settings.exitPeriod = std::chrono::seconds(1);
    ASSERT_TRUE(LocationSettings::setDefaults(settings));
    const std::shared_ptr<void> restore(nullptr, [](void*) { LocationSettings::setDefaults({}); });

    QQmlEngine engine;
    const std::unique_ptr<QObject> host = Testing::createFromQml(engine, R"(
        import QtQml
        import Quorlix
        QtObject {
            property var log: []
            property var nearestSeen: []
            property var watch: Connections {
                target: beacons
                function onDataChanged() {
                    const first = beacons.beacon(0).major + "-" + beacons.beacon(0).minor
                    if (nearestSeen[nearestSeen.length - 1] !== first)
                        nearestSeen.push(first)
                }
            }
            property bool present: presence.present
            property string error: presence.error + beacons.error
            property BeaconModel beacons: BeaconModel { id: beacons }
            property DevicePresence presence: DevicePresence {
                id: presence
                deviceId: "1047"
                onEntered: log.push("entered " + majorMinor)
                onExited: log.push("exited")
                onRanged: beacon => {
                    if (beacon.rssi !== 0 && proximity === Proximity.Near && distance > 0.4 && distance < 1.6)
                        log.push("ranged near " + rssi)
                }
            }
        })");
    ASSERT_TRUE(host);
    const auto log = [&] { return host->property("log").toStringList(); };
    ASSERT_TRUE(Testing::runUntil([&] { return log().contains("exited"); }, 10'000))
        << log().join(", ").toStdString() << host->property("error").toString().toStdString();
    EXPECT_TRUE(host->property("error").toString().isEmpty());
    EXPECT_FALSE(host->property("present").toBool());

    QStringList events = log();
    ASSERT_GE(events.size(), 3) << events.join(", ").toStdString();
    EXPECT_EQ(events.first(), "entered 12-7");
    EXPECT_EQ(events.last(), "exited");
    for (const QString& middle : events.mid(1, events.size() - 2))
        EXPECT_TRUE(middle.startsWith("ranged near -")) << middle.toStdString();
    // The beacon list put 12-7 first while it was near, and 12-8 once 12-7 fell silent.
    const auto nearest = [&] { return host->property("nearestSeen").toStringList(); };
    EXPECT_TRUE(Testing::runUntil([&] { return nearest().endsWith("12-8"); }, 3'000));
    EXPECT_TRUE(nearest().contains("12-7")) << nearest().join(", ").toStdString();
}
