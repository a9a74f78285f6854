#include "quorlix/pairing/VeskDeviceManager.h"
#include "quorlix/model/BeaconFamily.h"
#include "quorlix/platform/UserDefaults.h"

#include "DirectoryProcess.h"
#include "RecordingLocationManager.h"
#include "StdoutCapture.h"

#include <QApplication>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

using namespace Quorlix;
using namespace Quorlix::Testing;

namespace {

constexpr char nilStop[] = "fatal error: unexpectedly found nil while unwrapping an Optional value";
const QString region = "VeskDevice e1876979-75b5-43de-92cb-2bc1ad6ba999 * *";

QList<Beacon> report(std::initializer_list<std::pair<quint16, quint16>> numbers)
{
    QList<Beacon> beacons;
    for (const auto& [major, minor] : numbers)
        beacons.append({BeaconFamily::proximityUUID(), major, minor, Proximity::Near, -60, 1.5});
    return beacons;
}

QString lookup(const QString& majorMinor)
{
    return "GET /api/device/majorminor/?major-minor=" + majorMinor + " -> 200";
}

std::optional<QStringList> stored(const QString& key = "VeskDeviceManagerKeys")
{
    return UserDefaults::standard().stringArray(key);
}

// A fresh settings folder, a loopback directory service and the recording location manager.
class VeskDeviceManagerTest : public testing::Test
{
protected:
    QTemporaryDir config;
    DirectoryProcess directory;
    RecordingLocationManager::Installer locations;
    QWidget host;
    QStringList results;
    PairingCompletion completion = [this](const QString& result) { results << result; };

    void SetUp() override
    {
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(config.path()));
        host.show();
        // Forked where they stand: a re-run child would start a directory service and a settings
        // folder of its own, out of this test's sight.
        GTEST_FLAG_SET(death_test_style, "fast");
    }
    void TearDown() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

} // namespace

TEST_F(VeskDeviceManagerTest, AFreshManagerScansOnlyOnRequestAndACancelStoresAnEmptyList)
{
    StdoutCapture capture;
    auto manager = VeskDeviceManager::create("host.app");
    ASSERT_EQ(manager->locationManager, locations.last);
    EXPECT_EQ(locations.last->delegate, manager.get());
    EXPECT_FALSE(locations.last->pausesLocationUpdatesAutomatically);
    manager->stopLooking();
    manager->startLooking();
    const auto first = manager->beaconRegion;
    manager->pair(&host, completion);
    EXPECT_NE(manager->beaconRegion, first);
    EXPECT_EQ(manager->listViewController->windowTitle(), "List of Nearby Devices");
    QTest::mouseClick(manager->listViewController->findChild<QPushButton*>(), Qt::LeftButton);
    manager->stopLooking();
    EXPECT_EQ(locations.last->calls,
              QStringList({"stopRangingBeacons none", "stopMonitoring none",
                           "startMonitoring " + region, "startRangingBeacons " + region,
                           "startMonitoring " + region, "startRangingBeacons " + region,
                           "stopRangingBeacons " + region, "stopMonitoring " + region}));
    EXPECT_EQ(results, QStringList({""}));
    EXPECT_EQ(stored(), QStringList());
    // An empty stored list is not an absent one.
    const auto next = VeskDeviceManager::create("host.app");
    EXPECT_EQ(capture.lines(),
              QStringList({"Quorlix starting using appID: ", "host.app", "nil",
                           "loading device keys", "0", "pair", "saving device keys", "[:]",
                           "canceling", "Quorlix starting using appID: ", "host.app", "[]",
                           "loading device keys", "0"}));
    const auto location = manager->locationManager;
    manager->listViewController.reset(); // breaks the manager-screen cycle
    manager.reset();
    EXPECT_EQ(location->delegate, nullptr);
}

TEST_F(VeskDeviceManagerTest, PairsFromRangingReportsAndTheNextManagerReloadsTheStore)
{
    const auto manager = VeskDeviceManager::create("host.app");
    manager->pair(&host, completion);
    const auto screen = manager->listViewController;
    EXPECT_TRUE(screen->isVisible());
    EXPECT_EQ(locations.last->calls,
              QStringList({"startMonitoring " + region, "startRangingBeacons " + region}));

    StdoutCapture capture;
    locations.last->range(report({{300, 2}, {12, 7}}));
    locations.last->range(report({{12, 7}, {9, 9}, {12, 8}, {300, 2}}));
    locations.last->range(report({{9, 9}}));
    EXPECT_EQ(capture.lines(), QStringList({"300-2", "[2002]", "got key from online", "2002", //
                                            "12-7", "[1047]", "got key from online", "1047",  //
                                            "9-9", "[]", "could not find major minor online", //
                                            "12-8", "[1048]", "got key from online", "1048",  //
                                            "9-9", "[]", "could not find major minor online"}));
    EXPECT_EQ(directory.requests(), QStringList({lookup("300-2"), lookup("12-7"), lookup("9-9"),
                                                 lookup("12-8"), lookup("9-9")}));
    EXPECT_EQ(screen->items, QStringList({"2002", "1047", "1048"}));
    EXPECT_EQ(manager->getType("1048"), "Room");

    const QRect second = screen->table->visualRect(screen->table->model()->index(1, 0));
    StdoutCapture pairing;
    QTest::mouseClick(screen->table->viewport(), Qt::LeftButton, {}, second.center());
    const QStringList log = pairing.lines();
    ASSERT_EQ(log.size(), 2);
    EXPECT_EQ(log[0], "saving device keys");
    EXPECT_TRUE(log[1].contains(R"("12-8": "1048")")) << log[1].toStdString();
    EXPECT_EQ(results, QStringList({"1047"}));
    EXPECT_FALSE(screen->isVisible());
    const QStringList saved = stored().value_or(QStringList{"absent"});
    EXPECT_EQ(QSet<QString>(saved.begin(), saved.end()), QSet<QString>({"1047", "1048", "2002"}));
    EXPECT_EQ(saved.size(), 3);

    const qsizetype before = directory.requests().size();
    const auto next = VeskDeviceManager::create("host.app");
    QStringList expected;
    for (const QString& key : saved)
        expected << "GET /api/device/" + key + " -> 200";
    EXPECT_EQ(directory.requests().mid(before), expected);
    EXPECT_EQ(next->keys, manager->keys);
    manager->listViewController.reset(); // breaks the manager-screen cycle
}

TEST_F(VeskDeviceManagerTest, CancelSavesEveryKeyAndLaterChoicesReuseTheCompletion)
{
    UserDefaults::standard().setStringArray("VeskDeviceManagerKeys", {"2001", "2001"});
    const auto manager = VeskDeviceManager::create("host.app");
    manager->pair(&host, completion);
    StdoutCapture capture;
    QTest::mouseClick(manager->listViewController->findChild<QPushButton*>(), Qt::LeftButton);
    manager->veskDeviceKeysConstant = "Elsewhere";
    manager->itemPaired("2001");
    manager->unpair();
    manager->setInfo("2001", "moved");
    EXPECT_EQ(capture.lines(), QStringList({"saving device keys", R"(["300-1": "2001"])",
                                            "canceling", "saving device keys",
                                            R"(["300-1": "2001"])", "unpair", "setInfo device"}));
    EXPECT_EQ(results, QStringList({"", "2001"}));
    EXPECT_EQ(stored(), QStringList({"2001"}));
    EXPECT_EQ(stored("Elsewhere"), QStringList({"2001"}));
    manager->listViewController.reset();
}

TEST_F(VeskDeviceManagerTest, AKeyTheServiceNoLongerKnowsEndsTheSetUpWithoutLocationManager)
{
    UserDefaults::standard().setStringArray("VeskDeviceManagerKeys", {"1047", "9999", "1048"});
    StdoutCapture capture;
    const auto manager = VeskDeviceManager::create("host.app");
    EXPECT_EQ(capture.lines(), QStringList({"Quorlix starting using appID: ", "host.app",
                                            R"(["1047", "9999", "1048"])", "loading device keys",
                                            "3", "loading 1047", "1047", "loading 9999", "[]"}));
    EXPECT_EQ(directory.requests(),
              QStringList({"GET /api/device/1047 -> 200", "GET /api/device/9999 -> 404"}));
    EXPECT_EQ(manager->keys, (QHash<QString, QString>{{"12-7", "1047"}}));
    EXPECT_EQ(manager->locationManager, nullptr);
    EXPECT_DEATH(manager->startLooking(), nilStop);
    EXPECT_DEATH(manager->stopLooking(), nilStop);
    EXPECT_DEATH(manager->pair(&host, completion), nilStop);
}

// Answers from a table instead of the network; the stored key 1047 answers as itself, any other
// as key 5.
struct CannedManager : VeskDeviceManager
{
    QStringList urls;
    QByteArray getJSON(const QString& url) override
    {
        urls << url.section('/', -1);
        return url.endsWith("/1047") ? R"({"Key": 1047, "MajorMinor": "12-7"})"
                                     : R"([{"Key": 5, "MajorMinor": "1-5"}])";
    }
};

TEST_F(VeskDeviceManagerTest, SetUpRunsOverridesAndFilesEachEntryUnderTheStoredKey)
{
    UserDefaults::standard().setStringArray("VeskDeviceManagerKeys", {"1047", "2001", "3100"});
    const auto manager = VeskDeviceManager::create<CannedManager>("host.app");
    EXPECT_EQ(manager->urls, QStringList({"1047", "2001", "3100"}));
    // Nothing is cached under 2001 or 3100: both land under "", the later one winning.
    EXPECT_EQ(manager->keys, (QHash<QString, QString>{{"12-7", "1047"}, {"", "3100"}}));
    EXPECT_EQ(manager->getMajorMinor("5"), "1-5");
}

// Loses its screen while a lookup is under way, as a host callback may.
struct ForgetfulManager : VeskDeviceManager
{
    QByteArray getJSON(const QString& url) override
    {
        listViewController.reset();
        return VeskDeviceManager::getJSON(url);
    }
};

TEST_F(VeskDeviceManagerTest, TheSpecifiedStops)
{
    const auto forgetful = VeskDeviceManager::create<ForgetfulManager>("host.app");
    forgetful->pair(&host, completion);
    EXPECT_DEATH(locations.last->range(report({{12, 7}})), nilStop);

    // Without a completion the store is still written first.
    const auto manager = VeskDeviceManager::create("host.app");
    manager->keys.insert("12-7", "1047");
    EXPECT_DEATH(manager->itemPaired("1047"), nilStop);
    EXPECT_EQ(stored(), QStringList({"1047"}));

    const char* init = "fatal error: use of unimplemented initializer 'init\\(\\)' for class "
                       "'Quorlix.VeskDeviceManager'";
    EXPECT_DEATH(VeskDeviceManager::create(), init);
    EXPECT_DEATH(QMetaObject::invokeMethod(manager.get(), "init"), init);
    forgetful->listViewController.reset();
}
