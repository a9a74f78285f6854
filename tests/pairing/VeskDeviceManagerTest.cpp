#include "quorlix/pairing/VeskDeviceManager.h"
#include "quorlix/model/BeaconFamily.h"
#include "quorlix/platform/UserDefaults.h"

#include "DirectoryProcess.h"
#include "RecordingLocationManager.h"
#include "StdoutCapture.h"

#include <QPushButton>
#include <QSignalSpy>
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
    EXPECT_FALSE(locations.last->pausesLocationUpdatesAutomatically);
    manager->stopLooking();
    manager->startLooking();
    locations.last->range(report({{12, 7}})); // no screen: nothing is looked up
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
    EXPECT_EQ(stored(), QStringList());
    // An empty stored list is not an absent one. Later choices reuse the completion and save
    // under the key name current then.
    const auto next = VeskDeviceManager::create("host.app");
    manager->veskDeviceKeysConstant = "Elsewhere";
    manager->keys.insert("300-1", "2001");
    manager->itemPaired("2001");
    manager->unpair();
    manager->setInfo("2001", "moved");
    EXPECT_EQ(
        capture.lines(),
        QStringList({"Quorlix starting using appID: ", "host.app", "nil", "loading device keys",
                     "0", "pair", "saving device keys", "[:]", "canceling",
                     "Quorlix starting using appID: ", "host.app", "[]", "loading device keys", "0",
                     "saving device keys", R"(["300-1": "2001"])", "unpair", "setInfo device"}));
    EXPECT_EQ(results, QStringList({"", "2001"}));
    EXPECT_EQ(stored("Elsewhere"), QStringList({"2001"}));
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
    QSignalSpy reloads(screen->table->model(), &QAbstractItemModel::modelReset);
    StdoutCapture capture;
    locations.last->range(report({{300, 2}, {12, 7}}));
    locations.last->range(report({{12, 7}, {9, 9}, {12, 8}, {300, 2}}));
    locations.last->range(report({{9, 9}}));
    EXPECT_EQ(capture.lines(), QStringList({"300-2", "[2002]", "got key from online", "2002", //
                                            "12-7", "[1047]", "got key from online", "1047",  //
                                            "9-9", "[]", "could not find major minor online", //
                                            "12-8", "[1048]", "got key from online", "1048",  //
                                            "9-9", "[]", "could not find major minor online"}));
    QStringList lookups;
    for (const char* majorMinor : {"300-2", "12-7", "9-9", "12-8", "9-9"})
        lookups << QString("GET /api/device/majorminor/?major-minor=%1 -> 200").arg(majorMinor);
    EXPECT_EQ(directory.requests(), lookups);
    EXPECT_EQ(screen->items, QStringList({"2002", "1047", "1048"}));
    EXPECT_EQ(reloads.count(), 3); // once per new key
    EXPECT_EQ(manager->getType("1048"), "Room");

    const QRect second = screen->table->visualRect(screen->table->model()->index(1, 0));
    StdoutCapture pairing;
    QTest::mouseClick(screen->table->viewport(), Qt::LeftButton, {}, second.center());
    const QStringList log = pairing.lines();
    EXPECT_TRUE(log.size() == 2 && log[0] == "saving device keys" &&
                log[1].contains(R"("12-8": "1048")"))
        << log.join(" | ").toStdString();
    EXPECT_EQ(results, QStringList({"1047"}));
    QStringList saved = stored().value_or(QStringList{"absent"}), expected;
    const auto next = VeskDeviceManager::create("host.app");
    for (const QString& key : saved)
        expected << "GET /api/device/" + key + " -> 200";
    EXPECT_EQ(directory.requests().mid(lookups.size()), expected);
    saved.sort();
    EXPECT_EQ(saved, QStringList({"1047", "1048", "2002"}));
    EXPECT_EQ(next->keys, manager->keys);
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
}

// Answers from a table instead of the network (1047 as itself, any other key as key 5), or loses
// its screen while a lookup is under way, as a host callback may.
struct CannedManager : VeskDeviceManager
{
    QStringList urls;
    bool forgetful = false;
    QByteArray getJSON(const QString& url) override
    {
        if (forgetful) {
            listViewController.reset();
            return VeskDeviceManager::getJSON(url);
        }
        urls << url.section('/', -1);
        return url.endsWith("/1047") ? R"({"Key": 1047, "MajorMinor": "12-7"})"
                                     : R"([{"Key": 5, "MajorMinor": "1-5"}])";
    }
};

TEST_F(VeskDeviceManagerTest, SetUpRunsOverridesAndTheSpecifiedStops)
{
    UserDefaults::standard().setStringArray("VeskDeviceManagerKeys", {"1047", "2001", "3100"});
    const auto canned = VeskDeviceManager::create<CannedManager>("host.app");
    EXPECT_EQ(canned->urls, QStringList({"1047", "2001", "3100"}));
    // Filed under the stored key, looked up by it: nothing is cached under 2001 or 3100, so both
    // land under "", the later one winning.
    EXPECT_EQ(canned->keys, (QHash<QString, QString>{{"12-7", "1047"}, {"", "3100"}}));
    EXPECT_EQ(canned->getMajorMinor("5"), "1-5");

    canned->forgetful = true;
    canned->pair(&host, completion);
    EXPECT_DEATH(locations.last->range(report({{12, 8}})), nilStop);
    // Without a completion the store is still written first.
    const auto manager = VeskDeviceManager::create("host.app");
    manager->keys = {{"12-7", "1047"}};
    EXPECT_DEATH(manager->itemPaired("1047"), nilStop);
    EXPECT_EQ(stored(), QStringList({"1047"}));
    const char* init = "fatal error: use of unimplemented initializer 'init\\(\\)' for class "
                       "'Quorlix.VeskDeviceManager'";
    EXPECT_DEATH(VeskDeviceManager::create(), init);
    EXPECT_DEATH(QMetaObject::invokeMethod(manager.get(), "init"), init);
    canned->listViewController.reset();
}
