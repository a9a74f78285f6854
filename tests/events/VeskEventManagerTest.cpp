#include "EventTestSupport.h"

#include "DirectoryProcess.h"
#include "RecordingLocationManager.h"
#include "StdoutCapture.h"

#include <QMetaObject>

#include <gtest/gtest.h>

using namespace Quorlix;
using namespace Quorlix::Testing;

namespace {

const QString regionText = "VeskDevice e1876979-75b5-43de-92cb-2bc1ad6ba999";

class EventManagerSetup : public testing::Test
{
protected:
    static void SetUpTestSuite() { directory = new DirectoryProcess(); }
    static void TearDownTestSuite() { delete directory; }
    void SetUp() override { qputenv("QUORLIX_DIRECTORY_HOST", directory->host().toUtf8()); }

    static DirectoryProcess* directory;
    RecordingLocationManager::Installer locations;
};

DirectoryProcess* EventManagerSetup::directory = nullptr;

TEST_F(EventManagerSetup, ResolvesTheDeviceAndWatchesItsRegion)
{
    StdoutCapture capture;
    const auto manager = VeskEventManager::create("1047");
    EXPECT_EQ(capture.lines(), (QStringList{"Event Manager with device id", "1047"}));

    EXPECT_TRUE(directory->requests().contains("GET /api/device/1047 -> 200"));
    ASSERT_EQ(locations.made, 1);
    EXPECT_EQ(manager->locationManager, locations.last);
    EXPECT_EQ(locations.last->delegate, manager.get());
    EXPECT_FALSE(locations.last->pausesLocationUpdatesAutomatically);
    EXPECT_EQ(locations.last->calls, (QStringList{"startMonitoring " + regionText + " 12 7",
                                                  "startRangingBeacons " + regionText + " 12 7",
                                                  "startUpdatingLocation"}));
    // Monitoring and ranging are handed the very region the manager keeps.
    EXPECT_EQ(locations.last->lastRegion, manager->beaconRegion);
    EXPECT_FALSE(manager->lastEnter.isValid());
    EXPECT_FALSE(manager->entryHandler);
}

TEST_F(EventManagerSetup, DestructionStopsNothingAndPrintsNothing)
{
    auto manager = VeskEventManager::create("1048");
    const auto location = locations.last;
    StdoutCapture capture;
    manager.reset();
    EXPECT_TRUE(capture.lines().isEmpty());
    EXPECT_EQ(location->calls.size(), 3);
    // The location manager must not keep calling a delegate that is gone.
    EXPECT_EQ(location->delegate, nullptr);
}

TEST_F(EventManagerSetup, OperationsAndPropertiesAreReachableThroughTheMetaObject)
{
    const auto manager = VeskEventManager::create("2001");
    EXPECT_TRUE(QMetaObject::invokeMethod(manager.get(), "filter", Q_ARG(qint64, -5)));
    EXPECT_EQ(manager->filterTime, -5);
    EXPECT_TRUE(manager->setProperty("filterTime", qint64(9)));
    EXPECT_EQ(manager->filterTime, 9);

    const QDateTime when = QDateTime::currentDateTimeUtc();
    EXPECT_TRUE(manager->setProperty("lastEnter", when));
    EXPECT_EQ(manager->lastEnter, when);
    EXPECT_TRUE(manager->setProperty("lastEnter", QDateTime()));
    EXPECT_FALSE(manager->lastEnter.isValid());

    QString majorMinor;
    EXPECT_TRUE(QMetaObject::invokeMethod(manager.get(), "getMajorMinor",
                                          Q_RETURN_ARG(QString, majorMinor),
                                          Q_ARG(QByteArray, R"({"MajorMinor":"3-4"})")));
    EXPECT_EQ(majorMinor, "3-4");
    EXPECT_EQ(manager->property("locationManager").value<std::shared_ptr<LocationManager>>(),
              manager->locationManager);
}

TEST_F(EventManagerSetup, TheDeviceIdIsAppendedToTheAddressUnchanged)
{
    CannedEventManager::majorMinor = "1-2";
    CannedEventManager::requestedUrls.clear();
    VeskEventManager::create<CannedEventManager>("ab/c d");
    VeskEventManager::create<CannedEventManager>("");
    EXPECT_EQ(CannedEventManager::requestedUrls,
              (QStringList{"http://" + directory->host() + "/api/device/ab/c d",
                           "http://" + directory->host() + "/api/device/"}));
}

struct SplitCase
{
    const char* text;
    int major;
    int minor;
    friend void PrintTo(const SplitCase& c, std::ostream* os) { *os << '"' << c.text << '"'; }
};

class MajorMinorSplit : public testing::TestWithParam<SplitCase>
{
protected:
    RecordingLocationManager::Installer locations;
};

TEST_P(MajorMinorSplit, SplitsAtEveryDashAndDropsEmptyPieces)
{
    CannedEventManager::majorMinor = GetParam().text;
    const auto manager = VeskEventManager::create<CannedEventManager>("x");
    ASSERT_TRUE(manager->beaconRegion);
    EXPECT_EQ(manager->beaconRegion->major, GetParam().major);
    EXPECT_EQ(manager->beaconRegion->minor, GetParam().minor);
    EXPECT_EQ(manager->beaconRegion->identifier, "VeskDevice");
}

INSTANTIATE_TEST_SUITE_P(Texts, MajorMinorSplit,
                         testing::Values(SplitCase{"5-7", 5, 7}, SplitCase{"5-7-9", 5, 7},
                                         SplitCase{"-5-7", 5, 7}, SplitCase{"-1-0", 1, 0},
                                         SplitCase{"+5-+7", 5, 7}, SplitCase{"12--34-", 12, 34},
                                         SplitCase{"0065535-0", 65535, 0},
                                         SplitCase{"0-65535", 0, 65535}));

struct StopCase
{
    const char* text;
    const char* stop;
    friend void PrintTo(const StopCase& c, std::ostream* os) { *os << '"' << c.text << '"'; }
};

class MajorMinorStopDeathTest : public testing::TestWithParam<StopCase>
{
protected:
    RecordingLocationManager::Installer locations;
};

TEST_P(MajorMinorStopDeathTest, StopsWhereTheTextCannotNameARegion)
{
    CannedEventManager::majorMinor = GetParam().text;
    EXPECT_DEATH(VeskEventManager::create<CannedEventManager>("x"), GetParam().stop);
}

constexpr const char* indexStop = "fatal error: Index out of range";
// The stop itself is silent; the one line before it names the cause.
constexpr const char* silent =
    "^quorlix.service.directory: GET [^\n]*: MajorMinor [^\n]* out of range \\(0 to 65535\\)\n$";

INSTANTIATE_TEST_SUITE_P(Texts, MajorMinorStopDeathTest,
                         testing::Values(StopCase{"", indexStop}, StopCase{"5", indexStop},
                                         StopCase{"5-", indexStop}, StopCase{"---", indexStop},
                                         StopCase{"x-7", nilStop}, StopCase{"5-x", nilStop},
                                         StopCase{"5 -7", nilStop}, StopCase{"x", nilStop},
                                         StopCase{"99999999999999999999-1", nilStop},
                                         // Both pieces are parsed before either is range-checked.
                                         StopCase{"65536-x", nilStop}, StopCase{"65536-0", silent},
                                         StopCase{"5-65536", silent}));

TEST_F(EventManagerSetup, SetUpFailuresStop)
{
    // An unknown device: the service answers [] and the text reader indexes it.
    EXPECT_DEATH(VeskEventManager::create("999"), "fatal error: Index out of range");
    EXPECT_DEATH(VeskEventManager::create("10 47"), nilStop);
    EXPECT_DEATH(
        {
            LocationManager::setFactory([] { return std::shared_ptr<LocationManager>(); });
            VeskEventManager::create("1047");
        },
        nilStop);
    constexpr const char* initStop =
        "fatal error: use of unimplemented initializer 'init\\(\\)' for class "
        "'Quorlix.VeskEventManager'";
    EXPECT_DEATH(VeskEventManager::create(), initStop);
    EXPECT_DEATH(QMetaObject::invokeMethod(VeskEventManager::create("1047").get(), "init"),
                 initStop);
}

} // namespace
