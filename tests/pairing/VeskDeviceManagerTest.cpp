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

#include <algorithm>

using namespace Quorlix;
using namespace Quorlix::Testing;

namespace {

constexpr char nilStop[] = "fatal error: unexpectedly found nil while unwrapping an Optional value";
constexpr char region[] = "VeskDevice e1876979-75b5-43de-92cb-2bc1ad6ba999 * *";

Beacon beacon(quint16 major, quint16 minor)
{
    return Beacon{BeaconFamily::proximityUUID(), major, minor, Proximity::Near, -60, 1.5};
}

QStringList sorted(QStringList list)
{
    std::sort(list.begin(), list.end());
    return list;
}

// A fresh settings folder, a loopback directory service and the recording location manager.
class VeskDeviceManagerTest : public testing::Test
{
protected:
    QTemporaryDir config;
    DirectoryProcess directory;
    RecordingLocationManager::Installer locations;

    void SetUp() override
    {
        ASSERT_TRUE(config.isValid());
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(config.path()));
        // Forked where they stand: a re-run child would start a directory service of its own and
        // write to a settings folder of its own, out of this test's sight.
        GTEST_FLAG_SET(death_test_style, "fast");
    }

    void TearDown() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    static std::optional<QStringList> stored(const QString& key = "VeskDeviceManagerKeys")
    {
        return UserDefaults::standard().stringArray(key);
    }

    static void store(const QStringList& keys)
    {
        ASSERT_TRUE(UserDefaults::standard().setStringArray("VeskDeviceManagerKeys", keys));
    }

    static QString deviceRequest(const QString& key)
    {
        return "GET /api/device/" + key + " -> 200";
    }

    static QString lookupRequest(const QString& majorMinor)
    {
        return "GET /api/device/majorminor/?major-minor=" + majorMinor + " -> 200";
    }

    // The manager and its screen hold each other; the test lets go of both.
    static void release(const std::shared_ptr<VeskDeviceManager>& manager)
    {
        manager->listViewController.reset();
        QApplication::processEvents();
    }
};

} // namespace

TEST_F(VeskDeviceManagerTest, FreshManagerLogsAnAbsentStoreAndScansTheWholeFamily)
{
    StdoutCapture capture;
    const auto manager = VeskDeviceManager::create("host.app");
    EXPECT_EQ(capture.lines(), QStringList({"Quorlix starting using appID: ", "host.app", "nil",
                                            "loading device keys", "0"}));
    EXPECT_TRUE(directory.requests().isEmpty());
    ASSERT_EQ(locations.made, 1);
    EXPECT_EQ(manager->locationManager, locations.last);
    EXPECT_EQ(locations.last->delegate, manager.get());
    EXPECT_FALSE(locations.last->pausesLocationUpdatesAutomatically);
    EXPECT_TRUE(locations.last->calls.isEmpty()) << "the scan starts only on request";

    manager->stopLooking();
    manager->startLooking();
    const std::shared_ptr<BeaconRegion> first = manager->beaconRegion;
    manager->startLooking();
    manager->stopLooking();
    EXPECT_NE(manager->beaconRegion, first);
    EXPECT_EQ(locations.last->calls, QStringList({"stopRangingBeacons none", "stopMonitoring none",
                                                  QStringLiteral("startMonitoring ") + region,
                                                  QStringLiteral("startRangingBeacons ") + region,
                                                  QStringLiteral("startMonitoring ") + region,
                                                  QStringLiteral("startRangingBeacons ") + region,
                                                  QStringLiteral("stopRangingBeacons ") + region,
                                                  QStringLiteral("stopMonitoring ") + region}));

    // The location manager may outlive us; it must not keep pointing at a manager that is gone.
    const auto location = manager->locationManager;
    const_cast<std::shared_ptr<VeskDeviceManager>&>(manager).reset();
    EXPECT_EQ(location->delegate, nullptr);
}

TEST_F(VeskDeviceManagerTest, PairsFromRangingReportsAndTheNextManagerReloadsTheStore)
{
    QWidget host;
    host.show();
    const auto manager = VeskDeviceManager::create("host.app");
    QStringList results;
    manager->pair(&host, [&](const QString& result) { results << result; });

    const auto screen = manager->listViewController;
    ASSERT_NE(screen, nullptr);
    EXPECT_TRUE(screen->isVisible());
    EXPECT_EQ(screen->delegate, manager);
    EXPECT_EQ(locations.last->calls,
              QStringList({QStringLiteral("startMonitoring ") + region,
                           QStringLiteral("startRangingBeacons ") + region}));

    StdoutCapture capture;
    locations.last->range({beacon(300, 2), beacon(12, 7)});
    locations.last->range({beacon(12, 7), beacon(9, 9), beacon(12, 8), beacon(300, 2)});
    locations.last->range({});
    locations.last->range({beacon(9, 9)});
    EXPECT_EQ(capture.lines(), QStringList({"300-2", "[2002]", "got key from online", "2002",
                                            "12-7", "[1047]", "got key from online", "1047", "9-9",
                                            "[]", "could not find major minor online", "12-8",
                                            "[1048]", "got key from online", "1048", "9-9", "[]",
                                            "could not find major minor online"}));
    EXPECT_EQ(directory.requests(),
              QStringList({lookupRequest("300-2"), lookupRequest("12-7"), lookupRequest("9-9"),
                           lookupRequest("12-8"), lookupRequest("9-9")}));
    EXPECT_EQ(screen->items, QStringList({"2002", "1047", "1048"}));
    EXPECT_EQ(manager->getType("1048"), "Room");
    EXPECT_EQ(manager->fetchInfo("2002"), "Printer, second floor");

    const QRect second = screen->table->visualRect(screen->table->model()->index(1, 0));
    StdoutCapture pairing;
    QTest::mouseClick(screen->table->viewport(), Qt::LeftButton, Qt::NoModifier, second.center());
    const QStringList log = pairing.lines();
    ASSERT_EQ(log.size(), 2);
    EXPECT_EQ(log[0], "saving device keys");
    for (const char* entry : {R"("12-7": "1047")", R"("12-8": "1048")", R"("300-2": "2002")"})
        EXPECT_TRUE(log[1].contains(entry)) << log[1].toStdString();
    EXPECT_EQ(results, QStringList({"1047"}));
    EXPECT_FALSE(screen->isVisible());
    const std::optional<QStringList> saved = stored();
    ASSERT_TRUE(saved.has_value());
    EXPECT_EQ(sorted(*saved), QStringList({"1047", "1048", "2002"}));

    // The scan goes on until the host stops it.
    EXPECT_EQ(locations.last->calls.size(), 2);
    const auto firstKeys = manager->keys;
    release(manager);

    const qsizetype before = directory.requests().size();
    StdoutCapture reload;
    const auto next = VeskDeviceManager::create("host.app");
    QStringList expectedLog = {"Quorlix starting using appID: ", "host.app",
                               "[\"" + saved->join("\", \"") + "\"]", "loading device keys", "3"};
    QStringList expectedRequests;
    for (const QString& key : *saved) {
        expectedLog << "loading " + key << key;
        expectedRequests << deviceRequest(key);
    }
    EXPECT_EQ(reload.lines(), expectedLog);
    EXPECT_EQ(directory.requests().mid(before), expectedRequests);
    EXPECT_EQ(next->keys, firstKeys);
    EXPECT_NE(next->locationManager, nullptr);
}

TEST_F(VeskDeviceManagerTest, CancelStillSavesEveryKeyAndReportsTheEmptyText)
{
    store({"2001", "2001"});
    QWidget host;
    host.show();
    const auto manager = VeskDeviceManager::create("host.app");
    EXPECT_EQ(manager->keys, (QHash<QString, QString>{{"300-1", "2001"}}));
    QStringList results;
    manager->pair(&host, [&](const QString& result) { results << result; });

    StdoutCapture capture;
    QTest::mouseClick(manager->listViewController->findChild<QPushButton*>(), Qt::LeftButton);
    EXPECT_EQ(capture.lines(),
              QStringList({"saving device keys", R"(["300-1": "2001"])", "canceling"}));
    EXPECT_EQ(results, QStringList({""}));
    EXPECT_EQ(stored(), QStringList({"2001"}));

    // Later choices reach the same completion; unpair and setInfo change nothing.
    manager->keys.clear();
    manager->veskDeviceKeysConstant = "Elsewhere";
    StdoutCapture more;
    manager->itemPaired("2001");
    manager->unpair();
    manager->setInfo("2001", "moved");
    EXPECT_EQ(more.lines(), QStringList({"saving device keys", "[:]", "unpair", "setInfo device"}));
    EXPECT_EQ(results, QStringList({"", "2001"}));
    EXPECT_EQ(stored("Elsewhere"), QStringList());
    EXPECT_EQ(stored(), QStringList({"2001"}));
    release(manager);
}

TEST_F(VeskDeviceManagerTest, AKeyTheServiceNoLongerKnowsEndsTheSetUpWithoutLocationManager)
{
    store({"1047", "9999", "1048"});
    StdoutCapture capture;
    const auto manager = VeskDeviceManager::create("host.app");
    EXPECT_EQ(capture.lines(), QStringList({"Quorlix starting using appID: ", "host.app",
                                            R"(["1047", "9999", "1048"])", "loading device keys",
                                            "3", "loading 1047", "1047", "loading 9999", "[]"}));
    EXPECT_EQ(directory.requests(),
              QStringList({deviceRequest("1047"), "GET /api/device/9999 -> 404"}));
    EXPECT_EQ(manager->keys, (QHash<QString, QString>{{"12-7", "1047"}}));
    EXPECT_EQ(manager->locationManager, nullptr);
    EXPECT_EQ(locations.made, 0);

    EXPECT_DEATH(manager->startLooking(), nilStop);
    EXPECT_DEATH(manager->stopLooking(), nilStop);
    EXPECT_DEATH(manager->pair(nullptr, [](const QString&) {}), nilStop);
}

// Answers from a table instead of the network, to show that overrides run during the set-up.
class CannedManager : public VeskDeviceManager
{
public:
    QStringList urls;
    QByteArray getJSON(const QString& url) override
    {
        urls << url;
        if (url.endsWith("/1047"))
            return R"({"Key": 1047, "MajorMinor": "12-7"})";
        return R"([{"Key": 5, "MajorMinor": "1-5"}])";
    }
};

TEST_F(VeskDeviceManagerTest, SetUpRunsOverridesAndFilesKeysUnderTheStoredKey)
{
    store({"1047", "2001", "3100"});
    const auto manager = VeskDeviceManager::create<CannedManager>("host.app");
    const QString base = "http://" + directory.host() + "/api/device/";
    EXPECT_EQ(manager->urls, QStringList({base + "1047", base + "2001", base + "3100"}));
    EXPECT_TRUE(directory.requests().isEmpty());
    // The service answered 2001 and 3100 with key 5: nothing is cached under them, so both land
    // under the empty major-minor text, the later one winning.
    EXPECT_EQ(manager->keys, (QHash<QString, QString>{{"12-7", "1047"}, {"", "3100"}}));
    EXPECT_EQ(manager->getMajorMinor("5"), "1-5");
    EXPECT_NE(manager->locationManager, nullptr);
}

TEST_F(VeskDeviceManagerTest, ReportsWhileNoScreenIsUpAreIgnored)
{
    const auto manager = VeskDeviceManager::create("host.app");
    manager->startLooking();
    StdoutCapture capture;
    locations.last->range({beacon(12, 7), beacon(9, 9)});
    EXPECT_TRUE(capture.lines().isEmpty());
    EXPECT_TRUE(directory.requests().isEmpty());
    EXPECT_TRUE(manager->keys.isEmpty());
}

class ForgetfulManager : public VeskDeviceManager
{
public:
    QByteArray getJSON(const QString& url) override
    {
        listViewController.reset();
        return VeskDeviceManager::getJSON(url);
    }
};

TEST_F(VeskDeviceManagerTest, StopsWhenTheScreenVanishedDuringALookup)
{
    EXPECT_DEATH(
        {
            const auto manager = VeskDeviceManager::create<ForgetfulManager>("host.app");
            manager->pair(nullptr, [](const QString&) {});
            locations.last->range({beacon(12, 7)});
        },
        nilStop);
}

TEST_F(VeskDeviceManagerTest, AChoiceWithoutCompletionStopsAfterTheSave)
{
    const auto manager = VeskDeviceManager::create("host.app");
    manager->keys.insert("12-7", "1047");
    EXPECT_DEATH(manager->itemPaired("1047"), nilStop);
    EXPECT_EQ(stored(), QStringList({"1047"}));
}

TEST_F(VeskDeviceManagerTest, ThePlainInitialiserIsNotSupported)
{
    const char* stop = "fatal error: use of unimplemented initializer 'init\\(\\)' for class "
                       "'Quorlix.VeskDeviceManager'";
    EXPECT_DEATH(VeskDeviceManager::create(), stop);
    EXPECT_DEATH(
        QMetaObject::invokeMethod(VeskDeviceManager::create<VeskDeviceManager>("x").get(), "init"),
        stop);
}

TEST_F(VeskDeviceManagerTest, OperationsAndPropertiesAreReachableByName)
{
    const auto manager = VeskDeviceManager::create("host.app");
    ASSERT_TRUE(manager->setProperty("veskDeviceKeysConstant", QStringLiteral("Other")));
    EXPECT_EQ(manager->veskDeviceKeysConstant, "Other");
    QString key;
    ASSERT_TRUE(QMetaObject::invokeMethod(manager.get(), "getKey", Q_RETURN_ARG(QString, key),
                                          Q_ARG(QByteArray, R"({"Key": 3100})")));
    EXPECT_EQ(key, "3100");
    QStringList results;
    ASSERT_TRUE(QMetaObject::invokeMethod(
        manager.get(), "pair", Q_ARG(QWidget*, nullptr),
        Q_ARG(Quorlix::PairingCompletion, [&](const QString& r) { results << r; })));
    ASSERT_TRUE(QMetaObject::invokeMethod(manager.get(), "itemPaired", Q_ARG(QString, "3100")));
    EXPECT_EQ(results, QStringList({"3100"}));
    EXPECT_EQ(stored("Other"), QStringList());
    release(manager);
}
