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
    static inline QStringList requestedUrls;
    QByteArray getJSON(const QString& url) override
    {
        requestedUrls << url;
        return "{}";
    }
    QString getMajorMinor(const QByteArray&) override { return majorMinor; }
};

TEST(VeskEventManagerDeathTest, ResolvesTheDeviceWatchesItsRegionAndStopsWhereItCannot)
{
    DirectoryProcess directory;
    RecordingLocationManager::Installer locations;
    StdoutCapture capture;
    auto manager = VeskEventManager::create("1047");
    EXPECT_EQ(capture.lines(), (QStringList{"Event Manager with device id", "1047"}));
    EXPECT_EQ(directory.requests(), QStringList{"GET /api/device/1047 -> 200"});
    const auto location = locations.last;
    ASSERT_EQ(manager->locationManager, location);
    EXPECT_EQ(location->delegate, manager.get());
    EXPECT_FALSE(location->pausesLocationUpdatesAutomatically);
    EXPECT_EQ(location->calls,
              (QStringList{"startMonitoring " + region + " 12 7",
                           "startRangingBeacons " + region + " 12 7", "startUpdatingLocation"}));
    // Monitoring and ranging are handed the very region the manager keeps.
    EXPECT_EQ(location->lastRegion, manager->beaconRegion);
    // Destruction stops nothing, but the location manager must not call a delegate that is gone.
    manager.reset();
    EXPECT_EQ(location->calls.size(), 3);
    EXPECT_EQ(location->delegate, nullptr);

    CannedEventManager::requestedUrls.clear();
    VeskEventManager::create<CannedEventManager>("ab/c d");
    EXPECT_EQ(CannedEventManager::requestedUrls,
              QStringList{"http://" + directory.host() + "/api/device/ab/c d"});

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
    constexpr const char* outOfRange =
        "^quorlix\\.service\\.directory: [^\n]*out of range \\(0 to 65535\\)\n$";
    const struct
    {
        const char* text;
        int major = 0;
        int minor = 0;
        const char* stop = nullptr;
    } cases[] = {{"5-7", 5, 7},
                 {"5-7-9", 5, 7},
                 {"-5-7", 5, 7},
                 {"-1-0", 1, 0},
                 {"+5-+7", 5, 7},
                 {"12--34-", 12, 34},
                 {"0065535-0", 65535, 0},
                 {"0-65535", 0, 65535},
                 {"", 0, 0, index},
                 {"5", 0, 0, index},
                 {"5-", 0, 0, index},
                 {"---", 0, 0, index},
                 {"x-7", 0, 0, nilStop},
                 {"5-x", 0, 0, nilStop},
                 {"5 -7", 0, 0, nilStop},
                 {"99999999999999999999-1", 0, 0, nilStop},
                 // Both pieces are parsed before either is range-checked; the range check stops
                 // without a message of its own, after one diagnostic line.
                 {"65536-x", 0, 0, nilStop},
                 {"65536-0", 0, 0, outOfRange},
                 {"5-65536", 0, 0, outOfRange}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        CannedEventManager::majorMinor = c.text;
        if (c.stop) {
            EXPECT_DEATH(VeskEventManager::create<CannedEventManager>("x"), c.stop);
            continue;
        }
        const auto manager = VeskEventManager::create<CannedEventManager>("x");
        EXPECT_EQ(describe(manager->beaconRegion.get()),
                  region + QStringLiteral(" %1 %2").arg(c.major).arg(c.minor));
    }
    CannedEventManager::majorMinor = "12-7";
}

Beacon beacon(int rssi, int proximity)
{
    Beacon b;
    b.rssi = rssi;
    b.proximity = static_cast<Proximity>(proximity);
    return b;
}

class Events : public testing::Test
{
protected:
    void SetUp() override
    {
        manager->onEntry([this](const auto& device) { record("entry", device); });
        manager->onExit([this](const auto& device) { record("exit", device); });
        manager->onRange([this](const auto& device) { record("range", device); });
        manager->onUpdate([this](const auto& device) { record("update", device); });
    }
    void record(const char* kind, const std::shared_ptr<VeskDevice>& device)
    {
        calls << kind;
        devices.push_back(device);
    }

    RecordingLocationManager::Installer locations;
    std::shared_ptr<VeskEventManager> manager = VeskEventManager::create<CannedEventManager>("1");
    std::shared_ptr<RecordingLocationManager> location = locations.last;
    QStringList calls;
    std::vector<std::shared_ptr<VeskDevice>> devices;
};

TEST_F(Events, RangingReportsTheFirstBeaconsSignalAndDistanceWordAtOnce)
{
    const struct
    {
        int rssi, proximity;
        const char* rssiText;
        std::optional<QString> distance;
    } cases[] = {{-59, 2, "-59", "Near"}, {-80, 3, "-80", "Far"},    {-40, 1, "-40", "Immediate"},
                 {0, 0, "0", "Unknown"},  {7, 4, "7", std::nullopt}, {-1, -1, "-1", std::nullopt}};
    StdoutCapture capture;
    location->range({});
    for (const auto& c : cases) {
        devices.clear();
        location->range({beacon(c.rssi, c.proximity), beacon(-30, 1), beacon(-31, 1)});
        ASSERT_EQ(devices.size(), 1u);
        EXPECT_EQ(*devices[0], (VeskDevice{{}, {}, {}, {}, c.distance, c.rssiText}))
            << c.rssi << " " << c.proximity;
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
    location->enter();
    const QDateTime accepted = manager->lastEnter;
    ASSERT_TRUE(accepted.isValid());
    EXPECT_TRUE(manager->cancelExit);
    location->exit(); // filtered apart from entries
    EXPECT_TRUE(manager->cancelEnter);
    runFor(600);
    EXPECT_TRUE(calls.isEmpty()) << "delivered before the filter interval";
    runUntil([&] { return calls.size() == 2; }, 2000);
    EXPECT_EQ(calls, (QStringList{"entry", "exit"}));
    // The flags cancel nothing, and an exit does not clear the last entry.
    EXPECT_FALSE(manager->cancelEnter || manager->cancelExit);

    // Long after the delay it still counts as a repeat: the threshold is in nanoseconds.
    location->enter();
    EXPECT_EQ(manager->lastEnter, accepted);
    manager->lastEnter = QDateTime();
    location->enter();
    runUntil([&] { return calls.size() == 3; }, 2000);
    EXPECT_EQ(calls.mid(2), QStringList{"entry"});
    EXPECT_EQ(capture.lines(), (QStringList{"got enter from cl", "entering", "got exit from cl",
                                            "exiting", "got enter from cl", "duplicate enter",
                                            "got enter from cl", "entering"}));
}

TEST_F(Events, AReportAfterTheClockWentBackIsARepeat)
{
    manager->lastExit = QDateTime::currentDateTimeUtc().addSecs(3600);
    StdoutCapture capture;
    location->exit();
    EXPECT_EQ(capture.lines(), (QStringList{"got exit from cl", "duplicate exit"}));
    runFor(50);
    EXPECT_TRUE(calls.isEmpty());
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
