#include "quorlix/quick/DevicePairing.h"

#include "DirectoryProcess.h"
#include "EventLoop.h"
#include "Files.h"
#include "QuickTesting.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace Quorlix;
using Quorlix::Quick::DevicePairing;

namespace {

// 12-7 (device 1047) and 300-1 (device 2001) are near, 40-4 is a beacon the directory does not
// know.
constexpr char scenario[] = R"({"seed": 5, "beacons": [
  {"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 12, "minor": 7, "measuredPower": -59,
   "interval": 0.1, "loss": 0, "noise": 0, "path": [[0, 1.0], [60, 1.0]]},
  {"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 300, "minor": 1, "measuredPower": -59,
   "interval": 0.1, "loss": 0, "noise": 0, "path": [[0, 2.0], [60, 2.0]]},
  {"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 40, "minor": 4, "measuredPower": -59,
   "interval": 0.1, "loss": 0, "noise": 0, "path": [[0, 0.5], [60, 0.5]]}]})";

constexpr char pairingList[] = R"(
    import Quorlix
    PairingList {
        appId: "com.example.test"
        property string result: "none"
        onPaired: key => result = key
        onCancelled: result = "cancelled"
    })";

class DevicePairingTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(config.path()));
        qputenv("QUORLIX_LOCATION_SOURCE",
                "simulate:" + QFile::encodeName(
                                  Testing::writeFile(config.path(), "scenario.json", scenario)));
    }
    void TearDown() override
    {
        qunsetenv("XDG_CONFIG_HOME");
        qunsetenv("QUORLIX_LOCATION_SOURCE");
    }

    QTemporaryDir config;
    Testing::DirectoryProcess service;
    QQmlEngine engine;
};

} // namespace

// The Qt Quick pairing screen lists what the directory knows of what is heard, and a pick stores
// the keys the way the widget screen does.
TEST_F(DevicePairingTest, QmlListShowsNearbyDevicesAndAPickStoresTheirKeys)
{
    const std::unique_ptr<QObject> list = Testing::createFromQml(engine, pairingList);
    ASSERT_TRUE(list);
    auto* pairing = list->property("pairing").value<DevicePairing*>();
    ASSERT_TRUE(pairing);
    EXPECT_TRUE(pairing->isLooking());
    ASSERT_TRUE(Testing::runUntil([&] { return pairing->devices().size() == 2; }, 5'000))
        << pairing->error().toStdString();
    Testing::runFor(1200); // another report: nothing listed twice, 40-4 never
    QStringList listed;
    for (const QVariant& device : pairing->devices())
        listed << device.toMap().value("key").toString() + " " +
                      device.toMap().value("info").toString();
    listed.sort();
    EXPECT_EQ(listed,
              QStringList({"1047 Front door, ground floor", "2001 Coffee machine, kitchen"}));

    pairing->pick("1047");
    EXPECT_EQ(list->property("result").toString(), "1047");
    EXPECT_FALSE(pairing->isLooking());
    QStringList stored =
        UserDefaults::standard().stringArray("VeskDeviceManagerKeys").value_or(QStringList());
    stored.sort();
    EXPECT_EQ(stored, QStringList({"1047", "2001"}));
    EXPECT_TRUE(pairing->error().isEmpty());
}

// Where the pairing manager would stop the process, the facade reports and stops scanning.
TEST_F(DevicePairingTest, ReportsWhatWouldStopTheManagerAsItsError)
{
    const QString unreachable = QStringLiteral("127.0.0.1:%1").arg(Testing::unusedPort());
    struct Case
    {
        QStringList stored;
        QString directory;
        const char* error;
    };
    const Case cases[] = {
        {{"1047", "9999"}, service.host(), "stored device key 9999 does not resolve"},
        {{}, unreachable, "does not answer"}, // found out at the first beacon heard
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.error);
        ASSERT_TRUE(UserDefaults::standard().setStringArray("VeskDeviceManagerKeys", c.stored));
        qputenv("QUORLIX_DIRECTORY_HOST", c.directory.toUtf8());
        const std::unique_ptr<QObject> list = Testing::createFromQml(engine, pairingList);
        ASSERT_TRUE(list);
        auto* pairing = list->property("pairing").value<DevicePairing*>();
        ASSERT_TRUE(Testing::runUntil([&] { return !pairing->error().isEmpty(); }, 5'000));
        EXPECT_TRUE(pairing->error().contains(c.error)) << pairing->error().toStdString();
        EXPECT_FALSE(pairing->isLooking());
        EXPECT_TRUE(pairing->devices().isEmpty());
    }
    qputenv("QUORLIX_DIRECTORY_HOST", service.host().toUtf8());
}
