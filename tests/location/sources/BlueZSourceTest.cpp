#include "EventLoop.h"
#include "MockBlueZ.h"

#include "quorlix/location/VirtualClock.h"
#include "quorlix/location/sources/BlueZSource.h"
#include "quorlix/location/sources/IBeaconAdvert.h"

#include <gtest/gtest.h>

namespace Quorlix {

void PrintTo(const Sighting& s, std::ostream* out)
{
    *out << s.address.constData() << " " << s.major << "/" << s.minor << " " << s.rssi << " dBm at "
         << s.timeNs << " ns via " << s.receiver.constData();
}

namespace {

using Testing::MockBlueZ;
using namespace std::chrono_literals;
using namespace Qt::StringLiterals;

const QString familyUuid = u"e1876979-75b5-43de-92cb-2bc1ad6ba999"_s;
const QString filterLine = u"SetDiscoveryFilter DuplicateData=1 RSSI=-127 Transport=le"_s;
const QString start = u"StartDiscovery"_s, stop = u"StopDiscovery"_s, hci0 = u"hci0"_s;
constexpr quint16 apple = IBeaconAdvert::appleCompanyId;

// Messages of the source's logging category.
QStringList messages;
void keep(QtMsgType, const QMessageLogContext& context, const QString& text)
{
    if (QLatin1String(context.category) == QLatin1String("quorlix.platform.bluez"))
        messages << text;
}

// The mock's hci0 has the address 00:01:02:03:04:05.
Sighting expected(std::int64_t timeNs, const char* address, quint16 major, quint16 minor, int rssi)
{
    return {timeNs, address, QUuid(familyUuid), major, minor, -59, rssi, "00:01:02:03:04:05"};
}

QByteArray frame(quint16 major, quint16 minor)
{
    return MockBlueZ::iBeaconData(familyUuid, major, minor, -59);
}

class BlueZSourceTest : public ::testing::Test
{
protected:
    void TearDown() override { qInstallMessageHandler(previous); }

    std::unique_ptr<BlueZSource> makeSource(bool scanning, std::chrono::milliseconds restart = {},
                                            const QStringList& adapters = {})
    {
        auto source = std::make_unique<BlueZSource>(adapters);
        if (restart.count() > 0)
            source->setRestartInterval(restart);
        source->setClock(&clock);
        source->setSink([this](const Sighting& sighting) { sightings.append(sighting); });
        source->setScanning(scanning);
        return source;
    }

    // True once the adapter's discovery calls are exactly `calls`.
    bool waitForLog(const QString& adapter, const QStringList& calls)
    {
        QStringList seen;
        if (Testing::runUntil([&] { return (seen = mock.discoveryLog(adapter)) == calls; }, 5000))
            return true;
        ADD_FAILURE() << adapter.toStdString() << ": " << seen.join(u", ").toStdString();
        return false;
    }

    bool waitForSightings(qsizetype n)
    {
        return Testing::runUntil([&] { return sightings.size() >= n; }, 5000);
    }

    std::unique_ptr<BlueZSource> scanningSource()
    {
        mock.addAdapter(hci0);
        auto source = makeSource(true);
        EXPECT_TRUE(waitForLog(hci0, {filterLine, start}));
        return source;
    }

    bool logged(const QString& text)
    {
        return Testing::runUntil([&] { return messages.join(u'\n').contains(text); }, 5000);
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
    ASSERT_TRUE(waitForSightings(3));
    const auto at = [](std::int64_t t, int rssi) {
        return expected(t, "C0:FF:EE:00:00:01", 12, 7, rssi);
    };
    EXPECT_EQ(sightings, (QList<Sighting>{at(1000, -61), at(2000, -70), at(2000, -70)}));
    mock.addAdapter(u"hci1"_s);
    ASSERT_TRUE(waitForLog(u"hci1"_s, {filterLine, start}));
    mock.addBeacon(u"hci1"_s, u"C0:FF:EE:00:00:05"_s, -60, apple, frame(1, 1));
    ASSERT_TRUE(waitForSightings(4));
    // Destroying the source releases every adapter.
    source.reset();
    EXPECT_TRUE(waitForLog(hci0, {filterLine, start, stop}));
    EXPECT_TRUE(waitForLog(u"hci1"_s, {filterLine, start, stop}));
}

// Whatever owns org.bluez may send malformed signals or adverts that are not iBeacons. None may
// crash the source, and none may become a reading (a malformed RSSI used to read as 0 dBm,
// "immediate"; the RSSI of a device that no longer carries the frame is not the beacon's).
TEST_F(BlueZSourceTest, MalformedSignalsAndOtherAdvertsAreNoReadings)
{
    const auto source = scanningSource();
    const QByteArray good = frame(9, 9);
    const QString beacon = mock.addBeacon(hci0, u"C0:FF:EE:00:00:09"_s, -60, apple, good);
    const QString marker = mock.addBeacon(hci0, u"C0:FF:EE:00:00:03"_s, -90, apple, frame(300, 2));
    ASSERT_TRUE(waitForSightings(2));
    const auto expectOnlyMarker = [&] {
        // Signals arrive in order: once the marker is seen, the signals before it were handled.
        mock.advertise(marker, -91, apple, frame(300, 2));
        ASSERT_TRUE(waitForSightings(1));
        EXPECT_EQ(sightings, QList<Sighting>{expected(0, "C0:FF:EE:00:00:03", 300, 2, -91)});
        sightings.clear();
    };
    sightings.clear();
    for (const char* kind :
         {"added-without-interface-level", "added-as-strings", "removed-as-map",
          "changed-without-invalidated", "changed-as-array", "rssi-string", "rssi-huge",
          "rssi-unsigned-huge", "rssi-struct", "rssi-implausible", "rssi-double"}) {
        SCOPED_TRACE(kind);
        mock.sendMalformed(QString::fromLatin1(kind), beacon, good);
        expectOnlyMarker();
    }
    const std::pair<quint16, QByteArray> others[] = {{0x0059, good},
                                                     {apple, good.left(good.size() - 1)},
                                                     {apple, QByteArray("\x10\x05\x01", 3)}};
    for (const auto& [company, data] : others) {
        SCOPED_TRACE(data.toHex().toStdString());
        mock.advertise(beacon, -51, company, data);
        mock.changeRssi(beacon, -52);
        expectOnlyMarker();
        mock.advertise(beacon, -53, apple, good);
        ASSERT_TRUE(waitForSightings(1));
        EXPECT_EQ(sightings.constFirst().rssi, -53);
        sightings.clear();
    }
}

TEST_F(BlueZSourceTest, DiscoveryRunsExactlyWhileScanningIsWantedAndOnlyFreshRssiCounts)
{
    mock.addAdapter(hci0);
    const QString beacon = mock.addBeacon(hci0, u"C0:FF:EE:00:00:04"_s, -60, apple, frame(1200, 7));
    const QString known = mock.addBeacon(hci0, u"C0:FF:EE:00:00:05"_s, -60, apple, frame(1200, 5));
    const auto source = makeSource(true);
    source->setScanning(true); // wanted twice: still one discovery session
    ASSERT_TRUE(waitForLog(hci0, {filterLine, start}));
    // bluetoothd sends a known beacon's data again only when it changes: its frame comes from the
    // object list, and an RSSI update alone is a sighting.
    mock.changeRssi(known, -65);
    ASSERT_TRUE(waitForSightings(1));
    EXPECT_EQ(sightings.takeFirst(), expected(0, "C0:FF:EE:00:00:05", 1200, 5, -65));
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
    ASSERT_TRUE(waitForLog(hci0, {filterLine, start, stop}));
    // The advert reaches the source on its own connection, in no set order with the mock's
    // replies to us; an adapter added after it is announced on that connection after it.
    mock.advertise(beacon, -67, apple, frame(1200, 7));
    mock.addAdapter(u"hci1"_s);
    ASSERT_TRUE(logged(u"adapter /org/bluez/hci1 is on"_s));
    source->setScanning(true);
    ASSERT_TRUE(waitForLog(hci0, {filterLine, start, stop, filterLine, start}));
    mock.advertise(beacon, -68, apple, frame(1200, 7));
    ASSERT_TRUE(waitForSightings(4));
    // Nor is the advert heard while scanning was not wanted.
    const auto at = [](quint16 minor, int rssi) {
        return expected(0, "C0:FF:EE:00:00:04", 1200, minor, rssi);
    };
    EXPECT_EQ(sightings, (QList<Sighting>{at(7, -66), at(8, -66), at(7, -69), at(7, -68)}));
}

TEST_F(BlueZSourceTest, RestartsDiscoveryPeriodicallyAndRetriesARefusedStart)
{
    mock.addAdapter(hci0);
    mock.refuseStarts(hci0, 1);
    const auto source = makeSource(true, 150ms);
    const auto log = [&] { return mock.discoveryLog(hci0); };
    // A refused start is retried without stopping a session it never had.
    const QStringList cycles{filterLine, start, filterLine, start,     stop,
                             filterLine, start, stop,       filterLine};
    ASSERT_TRUE(Testing::runUntil([&] { return log().size() >= cycles.size(); }, 5000));
    EXPECT_EQ(log().mid(0, cycles.size()), cycles);
    EXPECT_TRUE(logged(u"cannot start discovery"_s));
    mock.addBeacon(hci0, u"C0:FF:EE:00:00:09"_s, -60, apple, frame(2001, 1));
    EXPECT_TRUE(waitForSightings(1));

    source->setScanning(false);
    ASSERT_TRUE(Testing::runUntil([&] { return log().constLast() == stop; }, 5000));
    const qsizetype calls = log().size();
    Testing::runFor(400);
    EXPECT_EQ(log().size(), calls) << "restarted while scanning was not wanted";
}

TEST_F(BlueZSourceTest, ScansOnlyTheAdaptersAskedFor)
{
    const QString hci1 = u"hci1"_s, hci2 = u"hci2"_s; // hci1 is 01:02:03:04:05:06
    for (const QString& name : {hci0, hci1, hci2})
        mock.addAdapter(name);
    const auto source = makeSource(true, {}, {hci0, u"01:02:03:04:05:06"_s});
    ASSERT_TRUE(waitForLog(hci0, {filterLine, start}));
    ASSERT_TRUE(waitForLog(hci1, {filterLine, start}));
    mock.addBeacon(hci2, u"C0:FF:EE:00:00:02"_s, -60, apple, frame(1, 2));
    mock.addBeacon(hci1, u"C0:FF:EE:00:00:01"_s, -60, apple, frame(1, 1));
    ASSERT_TRUE(waitForSightings(1));
    Testing::runFor(100);
    EXPECT_EQ(sightings.size(), 1);
    EXPECT_EQ(sightings.constFirst().minor, 1);
    EXPECT_TRUE(mock.discoveryLog(hci2).isEmpty());
}

// bluetoothd answers a stop only once the kernel stopped, and a start that comes before that
// answer is granted and then lost: restarts must wait for the answer.
TEST_F(BlueZSourceTest, ARestartStartsOnlyOnceItsStopIsAnswered)
{
    mock.addAdapter(hci0);
    mock.setStopDelay(hci0, 80);
    const auto source = makeSource(true, 200ms);
    const QString beacon = mock.addBeacon(hci0, u"C0:FF:EE:00:00:06"_s, -60, apple, frame(6, 6));
    ASSERT_TRUE(Testing::runUntil([&] { return mock.discoveryLog(hci0).count(stop) >= 6; }, 8000));
    EXPECT_EQ(mock.lostStarts(hci0), 0u);
    sightings.clear();
    mock.advertise(beacon, -61, apple, frame(6, 6));
    EXPECT_TRUE(Testing::runUntil(
        [&] {
            mock.advertise(beacon, -61, apple, frame(6, 6));
            return !sightings.isEmpty();
        },
        2000))
        << "deaf after the restarts";
}

// Discovery that ends under the source, or an adapter that falls silent while it says it
// discovers, is restarted without waiting for a periodic restart (disabled here), and said so.
TEST_F(BlueZSourceTest, LostOrSilentDiscoveryIsRestarted)
{
    const std::pair<const char*, QString> cases[] = {
        {"drop", u"stopped discovering while we scan"_s},
        {"deafen", u"has heard nothing for"_s},
    };
    mock.addAdapter(hci0);
    auto source = makeSource(false);
    source->setRestartInterval(0ms);
    source->setSilenceLimit(2500ms);
    source->setScanning(true);
    ASSERT_TRUE(waitForLog(hci0, {filterLine, start}));
    const QString beacon = mock.addBeacon(hci0, u"C0:FF:EE:00:00:0A"_s, -60, apple, frame(10, 1));
    for (const auto& [fault, warning] : cases) {
        SCOPED_TRACE(fault);
        ASSERT_TRUE(waitForSightings(1));
        QString(fault) == u"drop" ? mock.dropDiscovery(hci0) : mock.deafen(hci0);
        messages.clear();
        // A beacon that keeps advertising is heard again once discovery is restarted.
        sightings.clear();
        EXPECT_TRUE(Testing::runUntil(
            [&] {
                mock.advertise(beacon, -60, apple, frame(10, 1));
                Testing::runFor(50);
                return !sightings.isEmpty();
            },
            5000));
        EXPECT_TRUE(messages.join(u'\n').contains(warning)) << messages.join(u'\n').toStdString();
    }
}

// Scanning is wanted while nothing usable is there, from the start or from the middle of a scan;
// the source says why, and starts by itself once the adapter is usable again.
struct Unusable
{
    const char* name;
    bool midScan;
    QByteArray disrupt, restore; ///< what happens to bluetoothd or the adapter, see act()
    const char* warning;
    QStringList calls; ///< the adapter object's whole discovery log once restored
    friend void PrintTo(const Unusable& u, std::ostream* out) { *out << u.name; }
};

class BlueZSourceWaitTest : public BlueZSourceTest, public ::testing::WithParamInterface<Unusable>
{
protected:
    void act(const QByteArray& what)
    {
        if (what == "no bus") {
            bus = qgetenv("DBUS_SYSTEM_BUS_ADDRESS");
            qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/quorlix-test-bus");
            mock.addAdapter(hci0);
        }
        if (what == "bus")
            qputenv("DBUS_SYSTEM_BUS_ADDRESS", bus);
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
    QByteArray bus;
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
    if (!c.midScan)
        source = makeSource(true);
    ASSERT_TRUE(logged(QString::fromUtf8(c.warning))) << messages.join(u'\n').toStdString();
    act(c.restore);
    ASSERT_TRUE(waitForLog(hci0, c.calls));
    mock.addBeacon(hci0, u"C0:FF:EE:00:00:08"_s, -62, apple, frame(12, 8));
    ASSERT_TRUE(waitForSightings(c.midScan ? 2 : 1));
    EXPECT_EQ(sightings.constLast(), expected(0, "C0:FF:EE:00:00:08", 12, 8, -62));
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Adapters, BlueZSourceWaitTest, ::testing::Values(
    Unusable{"NoSystemBus", false, "no bus", "bus", "cannot reach the system bus", {filterLine, start}},
    Unusable{"NoBluetoothd", false, "kill", "restart", "bluetoothd (org.bluez) is not on the system bus", {filterLine, start}},
    Unusable{"NoAdapter", false, "", "add", "no Bluetooth adapter is present", {filterLine, start}},
    Unusable{"AdapterOff", false, "add off", "on", "adapter /org/bluez/hci0 is powered off", {filterLine, start}},
    Unusable{"PoweredOff", true, "off", "on", "adapter /org/bluez/hci0 was powered off", {filterLine, start, filterLine, start}},
    Unusable{"Removed", true, "remove", "add", "adapter /org/bluez/hci0 was removed", {filterLine, start}},
    Unusable{"BluetoothdRestarted", true, "kill", "restart", "bluetoothd left the system bus", {filterLine, start}}),
    [](const auto& info) { return std::string(info.param.name); });
// clang-format on

} // namespace
} // namespace Quorlix
