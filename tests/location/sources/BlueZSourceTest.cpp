#include "EventLoop.h"
#include "MockBlueZ.h"

#include "quorlix/location/VirtualClock.h"
#include "quorlix/location/sources/BlueZSource.h"
#include "quorlix/location/sources/IBeaconAdvert.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QTest>

namespace Quorlix {
namespace {

using Testing::MockBlueZ;
using namespace std::chrono_literals;
using namespace Qt::StringLiterals;

const QString familyUuid = u"e1876979-75b5-43de-92cb-2bc1ad6ba999"_s;
const QString filterLine = u"SetDiscoveryFilter DuplicateData=1 RSSI=-127 Transport=le"_s;
const QString start = u"StartDiscovery"_s;
const QString stop = u"StopDiscovery"_s;
const QString hci0 = u"hci0"_s;
constexpr quint16 apple = IBeaconAdvert::appleCompanyId;

// Messages of the source's logging category.
QStringList messages;
void keep(QtMsgType, const QMessageLogContext& context, const QString& text)
{
    if (QLatin1String(context.category) == QLatin1String("quorlix.platform.bluez"))
        messages << text;
}

Sighting expected(std::int64_t timeNs, const char* address, quint16 major, quint16 minor, int rssi)
{
    // The mock's hci0 has the address 00:01:02:03:04:05.
    return Sighting{timeNs,
                    address,
                    QUuid::fromString(familyUuid),
                    major,
                    minor,
                    -59,
                    rssi,
                    "00:01:02:03:04:05"};
}

class BlueZSourceTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(MockBlueZ::onPrivateBus()) << "run under private-bus.sh"; }
    void TearDown() override { qInstallMessageHandler(previous); }

    std::unique_ptr<BlueZSource> makeSource()
    {
        auto source = std::make_unique<BlueZSource>();
        source->setClock(&clock);
        source->setSink([this](const Sighting& sighting) { sightings.append(sighting); });
        return source;
    }

    static QByteArray frame(quint16 major, quint16 minor, qint8 power = -59)
    {
        return MockBlueZ::iBeaconData(familyUuid, major, minor, power);
    }

    // True once the adapter's discovery calls are exactly `calls`.
    bool waitForDiscoveryLog(const QString& adapter, const QStringList& calls)
    {
        QStringList seen;
        if (QTest::qWaitFor([&] { return (seen = mock.discoveryLog(adapter)) == calls; }, 5000))
            return true;
        ADD_FAILURE() << adapter.toStdString() << ": " << seen.join(u", ").toStdString();
        return false;
    }

    bool waitForSightings(qsizetype count)
    {
        return QTest::qWaitFor([&] { return sightings.size() >= count; }, 5000);
    }

    std::unique_ptr<BlueZSource> scanningSource()
    {
        mock.addAdapter(hci0);
        auto source = makeSource();
        source->setScanning(true);
        EXPECT_TRUE(waitForDiscoveryLog(hci0, {filterLine, start}));
        return source;
    }

    bool logged(const QString& text)
    {
        return QTest::qWaitFor([&] { return messages.join(u'\n').contains(text); }, 5000);
    }

    QtMessageHandler previous = (messages.clear(), qInstallMessageHandler(keep));
    MockBlueZ mock;
    VirtualClock clock;
    QList<Sighting> sightings;
};

TEST_F(BlueZSourceTest, EveryAdvertOnEveryAdapterBecomesASighting)
{
    auto source = scanningSource();
    clock.advanceTo(1000);
    const QString beacon = mock.addBeacon(hci0, u"C0:FF:EE:00:00:01"_s, -61, apple, frame(12, 7));
    ASSERT_TRUE(waitForSightings(1));
    clock.advanceTo(2000);
    // Identical adverts are not duplicates to drop: each one is a fresh reading.
    mock.advertise(beacon, -70, apple, frame(12, 7));
    mock.advertise(beacon, -70, apple, frame(12, 7));
    // bluetoothd sends RSSI alone when the advert data did not change.
    mock.changeRssi(beacon, -75);
    ASSERT_TRUE(waitForSightings(4));
    EXPECT_EQ(sightings, (QList<Sighting>{expected(1000, "C0:FF:EE:00:00:01", 12, 7, -61),
                                          expected(2000, "C0:FF:EE:00:00:01", 12, 7, -70),
                                          expected(2000, "C0:FF:EE:00:00:01", 12, 7, -70),
                                          expected(2000, "C0:FF:EE:00:00:01", 12, 7, -75)}));
    mock.addAdapter(u"hci1"_s);
    ASSERT_TRUE(waitForDiscoveryLog(u"hci1"_s, {filterLine, start}));
    mock.addBeacon(u"hci1"_s, u"C0:FF:EE:00:00:05"_s, -60, apple, frame(1, 1));
    ASSERT_TRUE(waitForSightings(5));
    // Destroying the source releases every adapter.
    source.reset();
    EXPECT_TRUE(waitForDiscoveryLog(hci0, {filterLine, start, stop}));
    EXPECT_TRUE(waitForDiscoveryLog(u"hci1"_s, {filterLine, start, stop}));
}

TEST_F(BlueZSourceTest, AdvertsThatAreNotIBeaconsAreIgnoredAndEndTheDevicesFrame)
{
    const QByteArray good = frame(300, 1);
    const struct
    {
        const char* name;
        quint16 company;
        QByteArray data;
    } cases[] = {
        {"another company's data", 0x0059, good},
        {"a truncated frame", apple, good.left(good.size() - 1)},
        {"another Apple frame type", apple, QByteArray("\x10\x05\x01\x02\x03\x04\x05", 7)},
    };
    const auto source = scanningSource();
    const QString beacon = mock.addBeacon(hci0, u"C0:FF:EE:00:00:02"_s, -50, apple, good);
    const QString marker = mock.addBeacon(hci0, u"C0:FF:EE:00:00:03"_s, -90, apple, frame(300, 2));
    ASSERT_TRUE(waitForSightings(2));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        sightings.clear();
        mock.advertise(beacon, -51, c.company, c.data);
        // The device no longer carries the frame: its RSSI is not a reading of the beacon.
        mock.changeRssi(beacon, -52);
        // Signals arrive in order, so the marker's sighting means the two above were handled.
        mock.advertise(marker, -91, apple, frame(300, 2));
        ASSERT_TRUE(waitForSightings(1));
        EXPECT_EQ(sightings, QList<Sighting>{expected(0, "C0:FF:EE:00:00:03", 300, 2, -91)});
        sightings.clear();
        mock.advertise(beacon, -53, apple, good);
        ASSERT_TRUE(waitForSightings(1));
        EXPECT_EQ(sightings.constFirst().rssi, -53);
    }
}

TEST_F(BlueZSourceTest, DiscoveryRunsExactlyWhileScanningIsWantedAndOnlyFreshRssiCounts)
{
    mock.addAdapter(hci0);
    const QString beacon = mock.addBeacon(hci0, u"C0:FF:EE:00:00:04"_s, -60, apple, frame(1200, 7));
    const auto source = makeSource();
    source->setScanning(true);
    source->setScanning(true);
    ASSERT_TRUE(waitForDiscoveryLog(hci0, {filterLine, start}));
    // An RSSI is a reading only when it came with this signal or an earlier one of this scan: the
    // old reading of a device known before the start, or one bluetoothd invalidated, is never
    // passed on by a signal that carries only the advert data.
    mock.advertiseData(beacon, apple, frame(1200, 7), false);
    mock.changeRssi(beacon, -66);
    ASSERT_TRUE(waitForSightings(1));
    mock.advertiseData(beacon, apple, frame(1200, 8), false);
    ASSERT_TRUE(waitForSightings(2));
    mock.advertiseData(beacon, apple, frame(1200, 9), true);
    mock.advertiseData(beacon, apple, frame(1200, 7), false);
    mock.changeRssi(beacon, -69); // its sighting: the two above were handled while scanning
    ASSERT_TRUE(waitForSightings(3));

    source->setScanning(false);
    ASSERT_TRUE(waitForDiscoveryLog(hci0, {filterLine, start, stop}));
    // Its signal is in before the reply to this call, and is handled right after.
    mock.advertise(beacon, -67, apple, frame(1200, 7));
    QCoreApplication::processEvents();
    source->setScanning(true);
    ASSERT_TRUE(waitForDiscoveryLog(hci0, {filterLine, start, stop, filterLine, start}));
    mock.advertise(beacon, -68, apple, frame(1200, 7));
    ASSERT_TRUE(waitForSightings(4));
    // Nor is the advert heard while scanning was not wanted.
    EXPECT_EQ(sightings, (QList<Sighting>{expected(0, "C0:FF:EE:00:00:04", 1200, 7, -66),
                                          expected(0, "C0:FF:EE:00:00:04", 1200, 8, -66),
                                          expected(0, "C0:FF:EE:00:00:04", 1200, 7, -69),
                                          expected(0, "C0:FF:EE:00:00:04", 1200, 7, -68)}));
}

TEST_F(BlueZSourceTest, RestartsDiscoveryPeriodicallyAndRetriesARefusedStart)
{
    mock.addAdapter(hci0);
    mock.refuseStarts(hci0, 1);
    const auto source = makeSource();
    source->setRestartInterval(150ms);
    source->setScanning(true);
    // A refused start is retried without stopping a session it never had.
    const QStringList cycles{filterLine, start, filterLine, start,     stop,
                             filterLine, start, stop,       filterLine};
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return mock.discoveryLog(hci0).size() >= cycles.size(); }, 5000));
    EXPECT_EQ(mock.discoveryLog(hci0).mid(0, cycles.size()), cycles);
    EXPECT_TRUE(logged(u"cannot start discovery"_s));
    mock.addBeacon(hci0, u"C0:FF:EE:00:00:09"_s, -60, apple, frame(2001, 1));
    EXPECT_TRUE(waitForSightings(1));

    source->setScanning(false);
    ASSERT_TRUE(QTest::qWaitFor([&] { return mock.discoveryLog(hci0).constLast() == stop; }, 5000));
    const qsizetype calls = mock.discoveryLog(hci0).size();
    QTest::qWait(400);
    EXPECT_EQ(mock.discoveryLog(hci0).size(), calls) << "restarted while scanning was not wanted";
}

// Scanning is wanted while nothing usable is there, from the start or from the middle of a scan;
// the source says why, and starts by itself once the adapter is usable again.
struct Unusable
{
    const char* name;
    bool midScan;
    const char* disrupt; ///< what happens to bluetoothd or the adapter, see act()
    const char* restore;
    const char* warning;
    QStringList calls; ///< the adapter object's whole discovery log once restored
    friend void PrintTo(const Unusable& u, std::ostream* out) { *out << u.name; }
};

class BlueZSourceWaitTest : public BlueZSourceTest, public ::testing::WithParamInterface<Unusable>
{
protected:
    void act(const QByteArray& what)
    {
        if (what == "kill")
            mock.stop();
        if (what == "restart")
            mock.start();
        if (what == "restart" || what == "add" || what == "add off")
            mock.addAdapter(hci0);
        if (what == "off" || what == "add off" || what == "on")
            mock.setPowered(hci0, what == "on");
        if (what == "remove")
            mock.removeAdapterWithDevices(hci0);
    }
};

TEST_P(BlueZSourceWaitTest, StartsOnceAnAdapterIsUsable)
{
    const Unusable& c = GetParam();
    std::unique_ptr<BlueZSource> source;
    if (c.midScan) {
        source = scanningSource();
        mock.addBeacon(hci0, u"C0:FF:EE:00:00:07"_s, -60, apple, frame(12, 7));
        ASSERT_TRUE(waitForSightings(1));
    }
    act(c.disrupt);
    if (!c.midScan) {
        source = makeSource();
        source->setScanning(true);
    }
    ASSERT_TRUE(logged(QString::fromUtf8(c.warning))) << messages.join(u'\n').toStdString();
    act(c.restore);
    ASSERT_TRUE(waitForDiscoveryLog(hci0, c.calls));
    mock.addBeacon(hci0, u"C0:FF:EE:00:00:08"_s, -62, apple, frame(12, 8));
    ASSERT_TRUE(waitForSightings(c.midScan ? 2 : 1));
    EXPECT_EQ(sightings.constLast(), expected(0, "C0:FF:EE:00:00:08", 12, 8, -62));
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Adapters, BlueZSourceWaitTest, ::testing::Values(
    Unusable{"NoBluetoothd", false, "kill", "restart", "bluetoothd (org.bluez) is not on the system bus", {filterLine, start}},
    Unusable{"NoAdapter", false, "", "add", "no Bluetooth adapter is present", {filterLine, start}},
    Unusable{"AdapterOff", false, "add off", "on", "adapter /org/bluez/hci0 is powered off", {filterLine, start}},
    Unusable{"PoweredOff", true, "off", "on", "adapter /org/bluez/hci0 was powered off", {filterLine, start, filterLine, start}},
    Unusable{"Removed", true, "remove", "add", "adapter /org/bluez/hci0 was removed", {filterLine, start}},
    Unusable{"BluetoothdRestarted", true, "kill", "restart", "bluetoothd left the system bus", {filterLine, start}}),
    [](const auto& info) { return std::string(info.param.name); });
// clang-format on

// Faults: whatever owns org.bluez may send malformed signals. None may crash the source, and none
// may become a reading (a malformed RSSI used to read as 0 dBm, "immediate").
TEST_F(BlueZSourceTest, MalformedSignalsAreIgnored)
{
    mock.addAdapter(QStringLiteral("hci0"));
    const auto source = makeSource();
    source->setScanning(true);
    ASSERT_TRUE(waitForDiscoveryLog(QStringLiteral("hci0"), {filterLine, start}));
    const QString beacon =
        mock.addBeacon(QStringLiteral("hci0"), QStringLiteral("C0:FF:EE:00:00:09"), -60,
                       IBeaconAdvert::appleCompanyId, frame(9, 9));
    ASSERT_TRUE(Testing::runUntil([&] { return sightings.size() == 1; }, 5000));
    for (const char* kind :
         {"added-without-interface-level", "added-as-strings", "removed-as-map",
          "changed-without-invalidated", "changed-as-array", "rssi-string", "rssi-huge",
          "rssi-unsigned-huge", "rssi-struct", "rssi-implausible", "rssi-double"}) {
        SCOPED_TRACE(kind);
        sightings.clear();
        mock.sendMalformed(QString::fromLatin1(kind), beacon, frame(9, 9));
        // Signals arrive in order: once this advert is seen, the malformed one was handled.
        mock.advertise(beacon, -61, IBeaconAdvert::appleCompanyId, frame(9, 9));
        ASSERT_TRUE(Testing::runUntil([&] { return !sightings.isEmpty(); }, 5000));
        EXPECT_EQ(sightings, QList<Sighting>{expected(0, "C0:FF:EE:00:00:09", 9, 9, -61)});
    }
}

} // namespace
} // namespace Quorlix
