#include "quorlix/location/SourceSelection.h"

#include "quorlix/location/EngineLocationManager.h"

#include "EventLoop.h"

#include <gtest/gtest.h>

#include <QStringList>
#include <QTemporaryDir>

namespace Quorlix {
namespace {

QStringList messages;

void keep(QtMsgType, const QMessageLogContext& context, const QString& text)
{
    messages << QString::fromLatin1(context.category) + u' ' + text;
}

class Recorder : public LocationManagerDelegate
{
public:
    int reports = 0;
    void didEnterRegion(LocationManager*, BeaconRegion*) override { ++reports; }
    void didExitRegion(LocationManager*, BeaconRegion*) override { ++reports; }
    // Ranging reports come every second, empty while nothing is heard.
    void didRangeBeacons(LocationManager*, const QList<Beacon>& beacons, BeaconRegion*) override
    {
        reports += static_cast<int>(beacons.size());
    }
};

TEST(SourceSelection, UnusableChoicesAreNamedAndNeverReplaced)
{
    QTemporaryDir dir;
    const QString trace = dir.filePath(QStringLiteral("bad.csv"));
    {
        QFile file(trace);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("0,A,-60,4c00\n1,A,-60\n");
    }
    const struct
    {
        QString setting;
        QString message;
    } cases[] = {
        {QStringLiteral("simulate:"),
         QStringLiteral("QUORLIX_LOCATION_SOURCE=simulate:: simulate needs a file")},
        {QStringLiteral("simulate:/nonexistent/walk.json"),
         QStringLiteral("scenario /nonexistent/walk.json: cannot be read")},
        {QStringLiteral("replay:") + trace,
         QStringLiteral("trace %1: line 2: expected 4 fields").arg(trace)},
        {QStringLiteral("wifi"), QStringLiteral("unknown source \"wifi\"; expected bluez, "
                                                "simulate:<scenario.json> or replay:<trace.csv>")},
    };
    const QtMessageHandler previous = qInstallMessageHandler(keep);
    for (const auto& c : cases) {
        messages.clear();
        const std::shared_ptr<LocationManager> manager = SourceSelection::fromSetting(c.setting);
        ASSERT_NE(manager, nullptr);
        ASSERT_EQ(messages.size(), 1) << c.setting.toStdString();
        EXPECT_TRUE(messages.first().contains(c.message)) << messages.first().toStdString();
    }
    qInstallMessageHandler(previous);
}

TEST(SourceSelection, DefaultIsBlueZWhichWithoutABusSaysSoAndReportsNothing)
{
    qunsetenv(SourceSelection::variable);
    // Never the machine's own Bluetooth from a unit test; tests/bluez drives it on a mock bus.
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/quorlix-test-bus");
    messages.clear();
    const QtMessageHandler previous = qInstallMessageHandler(keep);
    const std::shared_ptr<LocationManager> manager = LocationManager::create();
    qInstallMessageHandler(previous);
    EXPECT_NE(dynamic_cast<EngineLocationManager*>(manager.get()), nullptr);
    ASSERT_EQ(messages.size(), 1);
    EXPECT_TRUE(messages.first().startsWith(u"quorlix.platform.bluez cannot reach the system bus"))
        << messages.first().toStdString();

    Recorder recorder;
    manager->delegate = &recorder;
    manager->startMonitoring(std::make_shared<BeaconRegion>());
    manager->startRangingBeacons(std::make_shared<BeaconRegion>());
    Testing::runUntil([] { return false; }, 1300);
    EXPECT_EQ(recorder.reports, 0);
}

} // namespace
} // namespace Quorlix
