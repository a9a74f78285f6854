#include "quorlix/events/VeskEventManager.h"

#include "DirectoryProcess.h"
#include "EventLoop.h"
#include "RecordingLocationManager.h"
#include "StdoutCapture.h"

#include <gtest/gtest.h>

using namespace Quorlix;
using namespace Quorlix::Testing;

namespace {

constexpr const char* nilStop =
    "fatal error: unexpectedly found nil while unwrapping an Optional value";
const QString region = "VeskDevice e1876979-75b5-43de-92cb-2bc1ad6ba999";

// An event manager whose directory answer is given by the test instead of fetched.
struct CannedEventManager : VeskEventManager
{
    static inline QString majorMinor = "12-7";
    QByteArray getJSON(const QString&) override { return "{}"; }
    QString getMajorMinor(const QByteArray&) override { return majorMinor; }
};

TEST(VeskEventManagerDeathTest, ResolvesTheDeviceWatchesItsRegionAndStopsWhereItCannot)
{
    DirectoryProcess directory;
    RecordingLocationManager::Installer locations;
    StdoutCapture capture;
    auto manager = VeskEventManager::create("1047");
    EXPECT_EQ(directory.requests(), QStringList{"GET /api/device/1047 -> 200"});
    const auto location = locations.last;
    ASSERT_EQ(manager->locationManager, location);
    EXPECT_FALSE(location->pausesLocationUpdatesAutomatically);
    EXPECT_EQ(location->calls,
              (QStringList{"startMonitoring " + region + " 12 7",
                           "startRangingBeacons " + region + " 12 7", "startUpdatingLocation"}));
    // Monitoring and ranging are handed the very region the manager keeps.
    EXPECT_EQ(location->lastRegion, manager->beaconRegion);
    // Destruction stops and prints nothing, but the location manager must not call a delegate
    // that is gone.
    manager.reset();
    EXPECT_EQ(capture.lines(), (QStringList{"Event Manager with device id", "1047"}));
    EXPECT_TRUE(location->calls.size() == 3 && !location->delegate);

    // An unknown device: the service answers [] and the text reader indexes it.
    EXPECT_DEATH(VeskEventManager::create("999"), "fatal error: Index out of range");
    EXPECT_DEATH(VeskEventManager::create("10 47"), nilStop);
    EXPECT_DEATH(
        {
            LocationManager::setFactory([] { return std::shared_ptr<LocationManager>(); });
            VeskEventManager::create("1047");
        },
        nilStop);
    constexpr const char* initStop = "fatal error: use of unimplemented initializer 'init\\(\\)' "
                                     "for class 'Quorlix.VeskEventManager'";
    EXPECT_DEATH(VeskEventManager::create(), initStop);
    EXPECT_DEATH(QMetaObject::invokeMethod(VeskEventManager::create("1047").get(), "init"),
                 initStop);
}

TEST(VeskEventManagerDeathTest, TheMajorMinorTextSplitsAtEveryDashOrStops)
{
    RecordingLocationManager::Installer locations;
    constexpr const char* index = "fatal error: Index out of range";
    // The region's numbers, or the stop; both pieces are parsed before either is range-checked,
    // and the range check stops without a message of its own, after one diagnostic line.
    constexpr const char* outOfRange = "^quorlix\\.service\\.directory: GET [^\n]*: MajorMinor "
                                       "\"[-0-9]+\" has 65536, out of range \\(0 to 65535\\)\n$";
    // clang-format off
    const std::pair<const char*, const char*> cases[] = {
        {"5-7", "5 7"}, {"5-7-9", "5 7"}, {"-5-7", "5 7"}, {"-1-0", "1 0"}, {"+5-+7", "5 7"},
        {"12--34-", "12 34"}, {"0065535-0", "65535 0"}, {"0-65535", "0 65535"},
        {"", index}, {"5", index}, {"5-", index}, {"---", index}, {"x-7", nilStop},
        {"5-x", nilStop}, {"5 -7", nilStop}, {"99999999999999999999-1", nilStop},
        {"65536-x", nilStop}, {"65536-0", outOfRange}, {"5-65536", outOfRange}};
    // clang-format on
    for (const auto& [text, outcome] : cases) {
        CannedEventManager::majorMinor = text;
        if (QByteArray(outcome).contains(':')) {
            EXPECT_DEATH(VeskEventManager::create<CannedEventManager>("x"), outcome) << text;
            continue;
        }
        const auto manager = VeskEventManager::create<CannedEventManager>("x");
        EXPECT_EQ(describe(manager->beaconRegion.get()), region + ' ' + outcome) << text;
    }
    CannedEventManager::majorMinor = "12-7";
}

Beacon beacon(int rssi, int proximity)
{
    return {{}, 0, 0, Proximity(proximity), rssi, -1};
}

class Events : public testing::Test
{
protected:
    void SetUp() override
    {
        const auto record = [this](const char* kind) {
            return [this, kind](const auto& device) { calls << kind, devices.push_back(device); };
        };
        manager->onEntry(record("entry"));
        manager->onExit(record("exit"));
        manager->onRange(record("range"));
        manager->onUpdate(record("update"));
    }

    RecordingLocationManager::Installer locations;
    std::shared_ptr<VeskEventManager> manager = VeskEventManager::create<CannedEventManager>("1");
    std::shared_ptr<RecordingLocationManager> location = locations.last;
    QStringList calls;
    std::vector<std::shared_ptr<VeskDevice>> devices;
};

TEST_F(Events, RangingReportsTheFirstBeaconsSignalAndDistanceWordAtOnce)
{
    const std::tuple<int, int, std::optional<QString>> cases[] = {
        {-59, 2, "Near"},  {-80, 3, "Far"},      {-40, 1, "Immediate"},
        {0, 0, "Unknown"}, {7, 4, std::nullopt}, {-1, -1, std::nullopt}};
    StdoutCapture capture;
    location->range({});
    for (const auto& [rssi, proximity, distance] : cases) {
        devices.clear();
        location->range({beacon(rssi, proximity), beacon(-30, 1), beacon(-31, 1)});
        ASSERT_EQ(devices.size(), 1u);
        EXPECT_EQ(*devices[0], (VeskDevice{{}, {}, {}, {}, distance, QString::number(rssi)}))
            << rssi << " " << proximity;
    }
    EXPECT_TRUE(capture.lines().isEmpty());
    // Ranging touches none of the filter's state.
    EXPECT_EQ(calls, QStringList(6, "range"));
    EXPECT_FALSE(manager->lastEnter.isValid() || manager->cancelEnter || manager->cancelExit);

    // A handler may replace itself while it runs; an empty one gets nothing.
    manager->onRange([&](const auto&) {
        manager->onRange(nullptr);
        calls << "replaced";
    });
    location->range({beacon(-50, 2)});
    location->range({beacon(-50, 2)});
    EXPECT_EQ(calls.mid(6), QStringList{"replaced"});
}

TEST_F(Events, WithoutAFilterEveryReportIsDeliveredOnTheNextTurn)
{
    StdoutCapture capture;
    location->enter();
    location->enter();
    EXPECT_TRUE(calls.isEmpty()) << "handlers must not run inside the location callback";
    runUntil([&] { return calls.size() == 2; }, 1000);
    EXPECT_EQ(calls, (QStringList{"entry", "entry"}));
    EXPECT_EQ(capture.lines(),
              (QStringList{"got enter from cl", "entering", "got enter from cl", "entering"}));
    // Each call gets a fresh, empty record.
    EXPECT_NE(devices[0], devices[1]);
    EXPECT_EQ(*devices[1], VeskDevice{});
    manager->filter(-5); // negative: no delay and no repeats either
    location->enter();
    location->enter();
    EXPECT_TRUE(runUntil([&] { return calls.size() == 4; }, 1000));
}

TEST_F(Events, AFilterDelaysTheHandlerAndDropsRepeatsUntilTheHostReopensIt)
{
    manager->filter(1);
    StdoutCapture capture;
    QElapsedTimer sinceReports;
    sinceReports.start();
    location->enter();
    const QDateTime accepted = manager->lastEnter;
    ASSERT_TRUE(accepted.isValid());
    EXPECT_TRUE(manager->cancelExit);
    location->exit(); // filtered apart from entries
    EXPECT_TRUE(manager->cancelEnter);
    runUntil([&] { return calls.size() == 2; }, 3000);
    EXPECT_GE(sinceReports.elapsed(), 1000) << "delivered before the filter interval";
    EXPECT_EQ(calls, (QStringList{"entry", "exit"}));
    // The flags cancel nothing, and an exit does not clear the last entry.
    EXPECT_FALSE(manager->cancelEnter || manager->cancelExit);

    // Long after the delay it still counts as a repeat: the threshold is in nanoseconds.
    location->enter();
    EXPECT_EQ(manager->lastEnter, accepted);
    manager->lastEnter = QDateTime();
    location->enter();
    runUntil([&] { return calls.size() == 3; }, 2000);
    // Without a filter, a report after the clock went back is a repeat too.
    manager->filter(0);
    manager->lastExit = QDateTime::currentDateTimeUtc().addSecs(3600);
    location->exit();
    runFor(50);
    EXPECT_EQ(calls.mid(2), QStringList{"entry"});
    EXPECT_EQ(capture.lines(),
              (QStringList{"got enter from cl", "entering", "got exit from cl", "exiting",
                           "got enter from cl", "duplicate enter", "got enter from cl", "entering",
                           "got exit from cl", "duplicate exit"}));
}

TEST_F(Events, APendingActionKeepsTheManagerAliveAndUsesTheHandlerCurrentWhenItRuns)
{
    location->enter();
    location->exit();
    manager->onExit([&](const auto&) { calls << "replaced exit"; });
    const std::weak_ptr<VeskEventManager> watched = manager;
    manager.reset();
    EXPECT_FALSE(watched.expired());
    EXPECT_TRUE(runUntil([&] { return watched.expired(); }, 1000));
    EXPECT_EQ(calls, (QStringList{"entry", "replaced exit"}));
}

TEST_F(Events, OverflowingFiltersStop)
{
    manager->filter(9300000000);
    EXPECT_DEATH(location->enter(), "fatal error: floating point value can not be converted to "
                                    "Int64 because it is greater than Int64.max");
    manager->filter(-9300000000);
    EXPECT_DEATH(location->exit(), "less than Int64.min");
    // Once an entry was accepted the threshold itself overflows, without a message.
    manager->filter(9300000000);
    manager->lastEnter = QDateTime::currentDateTimeUtc();
    EXPECT_DEATH(location->enter(), "^$");
}

} // namespace
