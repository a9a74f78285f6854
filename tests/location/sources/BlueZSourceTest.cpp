#include "EventLoop.h"
#include "MockBlueZ.h"

#include "quorlix/location/VirtualClock.h"
#include "quorlix/location/sources/BlueZSource.h"
#include "quorlix/location/sources/IBeaconAdvert.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QTest>

#include <functional>
#include <ostream>

namespace Quorlix {

void PrintTo(const Sighting& s, std::ostream* out)
{
    *out << "{t=" << s.timeNs << " " << s.address.constData() << " "
         << s.proximityUUID.toString(QUuid::WithoutBraces).toStdString() << " " << s.major << "/"
         << s.minor << " power=" << int(s.measuredPower) << " rssi=" << s.rssi << "}";
}

namespace {

using Testing::MockBlueZ;
using namespace std::chrono_literals;

const QString familyUuid = QStringLiteral("e1876979-75b5-43de-92cb-2bc1ad6ba999");
const QString filterLine =
    QStringLiteral("SetDiscoveryFilter DuplicateData=1 RSSI=-127 Transport=le");
const QString start = QStringLiteral("StartDiscovery");
const QString stop = QStringLiteral("StopDiscovery");

// Messages of the source's logging category, as "level: text".
class CategoryLog
{
public:
    CategoryLog() { previous = qInstallMessageHandler(&CategoryLog::handle); }
    ~CategoryLog()
    {
        qInstallMessageHandler(previous);
        lines().clear();
    }
    static QStringList& lines()
    {
        static QStringList captured;
        return captured;
    }
    bool contains(const QString& text) const
    {
        return std::any_of(lines().cbegin(), lines().cend(),
                           [&](const QString& line) { return line.contains(text); });
    }

private:
    static void handle(QtMsgType type, const QMessageLogContext& context, const QString& text)
    {
        if (QLatin1String(context.category) != QLatin1String("quorlix.platform.bluez"))
            return;
        lines().append(
            (type == QtWarningMsg ? QStringLiteral("warning: ") : QStringLiteral("info: ")) + text);
    }
    QtMessageHandler previous = nullptr;
};

Sighting expected(std::int64_t timeNs, const char* address, quint16 major, quint16 minor,
                  qint8 power, int rssi)
{
    return Sighting{timeNs, address, QUuid::fromString(familyUuid), major, minor, power, rssi};
}

class BlueZSourceTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(MockBlueZ::onPrivateBus()) << "run under private-bus.sh"; }

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
        const bool ok =
            QTest::qWaitFor([&] { return (seen = mock.discoveryLog(adapter)) == calls; }, 5000);
        if (!ok)
            ADD_FAILURE() << "discovery calls on " << adapter.toStdString() << ": "
                          << seen.join(QStringLiteral(", ")).toStdString();
        return ok;
    }

    bool waitForSightings(qsizetype count)
    {
        return QTest::qWaitFor([&] { return sightings.size() >= count; }, 5000);
    }

    CategoryLog log;
    MockBlueZ mock;
    VirtualClock clock;
    QList<Sighting> sightings;
};

TEST_F(BlueZSourceTest, EveryAdvertOfABeaconBecomesASighting)
{
    mock.addAdapter(QStringLiteral("hci0"));
    const auto source = makeSource();
    source->setScanning(true);
    ASSERT_TRUE(waitForDiscoveryLog(QStringLiteral("hci0"), {filterLine, start}));

    clock.advanceTo(1000);
    const QString beacon =
        mock.addBeacon(QStringLiteral("hci0"), QStringLiteral("C0:FF:EE:00:00:01"), -61,
                       IBeaconAdvert::appleCompanyId, frame(12, 7));
    ASSERT_TRUE(waitForSightings(1));
    clock.advanceTo(2000);
    // Identical adverts are not duplicates to drop: each one is a fresh reading.
    mock.advertise(beacon, -70, IBeaconAdvert::appleCompanyId, frame(12, 7));
    mock.advertise(beacon, -70, IBeaconAdvert::appleCompanyId, frame(12, 7));
    // bluetoothd sends RSSI alone when the advert data did not change.
    mock.changeRssi(beacon, -75);
    ASSERT_TRUE(waitForSightings(4));

    EXPECT_EQ(sightings, (QList<Sighting>{expected(1000, "C0:FF:EE:00:00:01", 12, 7, -59, -61),
                                          expected(2000, "C0:FF:EE:00:00:01", 12, 7, -59, -70),
                                          expected(2000, "C0:FF:EE:00:00:01", 12, 7, -59, -70),
                                          expected(2000, "C0:FF:EE:00:00:01", 12, 7, -59, -75)}));
}

TEST_F(BlueZSourceTest, AdvertsThatAreNotIBeaconsAreIgnoredAndEndTheDevicesFrame)
{
    struct Case
    {
        const char* name;
        quint16 company;
        QByteArray data;
    };
    const QByteArray good = frame(300, 1);
    const Case cases[] = {
        {"another company's data", 0x0059, good},
        {"a truncated frame", IBeaconAdvert::appleCompanyId, good.left(good.size() - 1)},
        {"another Apple frame type", IBeaconAdvert::appleCompanyId,
         QByteArray("\x10\x05\x01\x02\x03\x04\x05", 7)},
    };
    mock.addAdapter(QStringLiteral("hci0"));
    const auto source = makeSource();
    source->setScanning(true);
    ASSERT_TRUE(waitForDiscoveryLog(QStringLiteral("hci0"), {filterLine, start}));
    const QString beacon =
        mock.addBeacon(QStringLiteral("hci0"), QStringLiteral("C0:FF:EE:00:00:02"), -50,
                       IBeaconAdvert::appleCompanyId, good);
    const QString marker =
        mock.addBeacon(QStringLiteral("hci0"), QStringLiteral("C0:FF:EE:00:00:03"), -90,
                       IBeaconAdvert::appleCompanyId, frame(300, 2));
    ASSERT_TRUE(waitForSightings(2));

    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        sightings.clear();
        mock.advertise(beacon, -51, c.company, c.data);
        // The device no longer carries the frame: its RSSI is not a reading of the beacon.
        mock.changeRssi(beacon, -52);
        // Signals arrive in order, so the marker's sighting means the two above were handled.
        mock.advertise(marker, -91, IBeaconAdvert::appleCompanyId, frame(300, 2));
        ASSERT_TRUE(waitForSightings(1));
        EXPECT_EQ(sightings, QList<Sighting>{expected(0, "C0:FF:EE:00:00:03", 300, 2, -59, -91)});
        // And the beacon is back with its next iBeacon advert.
        sightings.clear();
        mock.advertise(beacon, -53, IBeaconAdvert::appleCompanyId, good);
        ASSERT_TRUE(waitForSightings(1));
        EXPECT_EQ(sightings.constFirst().rssi, -53);
    }
}

TEST_F(BlueZSourceTest, DiscoveryRunsExactlyWhileScanningIsWanted)
{
    mock.addAdapter(QStringLiteral("hci0"));
    const QString beacon =
        mock.addBeacon(QStringLiteral("hci0"), QStringLiteral("C0:FF:EE:00:00:04"), -60,
                       IBeaconAdvert::appleCompanyId, frame(1200, 7));
    const auto source = makeSource();

    source->setScanning(true);
    source->setScanning(true);
    ASSERT_TRUE(waitForDiscoveryLog(QStringLiteral("hci0"), {filterLine, start}));
    // Known before the start: its old reading is not a sighting, its RSSI updates are.
    mock.changeRssi(beacon, -66);
    ASSERT_TRUE(waitForSightings(1));
    EXPECT_EQ(sightings, QList<Sighting>{expected(0, "C0:FF:EE:00:00:04", 1200, 7, -59, -66)});

    source->setScanning(false);
    ASSERT_TRUE(waitForDiscoveryLog(QStringLiteral("hci0"), {filterLine, start, stop}));
    // Its signal is in before the reply to this call, and is handled right after.
    mock.advertise(beacon, -67, IBeaconAdvert::appleCompanyId, frame(1200, 7));
    QCoreApplication::processEvents();

    source->setScanning(true);
    ASSERT_TRUE(
        waitForDiscoveryLog(QStringLiteral("hci0"), {filterLine, start, stop, filterLine, start}));
    mock.advertise(beacon, -68, IBeaconAdvert::appleCompanyId, frame(1200, 7));
    ASSERT_TRUE(waitForSightings(2));
    // The advert heard while scanning was not wanted is not passed on.
    EXPECT_EQ(sightings.size(), 2);
    EXPECT_EQ(sightings.constLast().rssi, -68);
}

TEST_F(BlueZSourceTest, ScansOnEveryAdapterAndReleasesThemWhenDestroyed)
{
    mock.addAdapter(QStringLiteral("hci0"));
    auto source = makeSource();
    source->setScanning(true);
    ASSERT_TRUE(waitForDiscoveryLog(QStringLiteral("hci0"), {filterLine, start}));
    mock.addAdapter(QStringLiteral("hci1"));
    ASSERT_TRUE(waitForDiscoveryLog(QStringLiteral("hci1"), {filterLine, start}));
    mock.addBeacon(QStringLiteral("hci1"), QStringLiteral("C0:FF:EE:00:00:05"), -60,
                   IBeaconAdvert::appleCompanyId, frame(1, 1));
    ASSERT_TRUE(waitForSightings(1));

    source.reset();
    EXPECT_TRUE(waitForDiscoveryLog(QStringLiteral("hci0"), {filterLine, start, stop}));
    EXPECT_TRUE(waitForDiscoveryLog(QStringLiteral("hci1"), {filterLine, start, stop}));
}

TEST_F(BlueZSourceTest, RestartsDiscoveryPeriodicallyToDefeatTheControllersDuplicateFilter)
{
    mock.addAdapter(QStringLiteral("hci0"));
    const auto source = makeSource();
    source->setRestartInterval(150ms);
    source->setScanning(true);
    const QStringList cycles{filterLine, start, stop, filterLine, start, stop, filterLine, start};
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return mock.discoveryLog(QStringLiteral("hci0")).size() >= cycles.size(); }, 5000));
    EXPECT_EQ(mock.discoveryLog(QStringLiteral("hci0")).mid(0, cycles.size()), cycles);

    source->setScanning(false);
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return mock.discoveryLog(QStringLiteral("hci0")).constLast() == stop; }, 5000));
    const qsizetype calls = mock.discoveryLog(QStringLiteral("hci0")).size();
    QTest::qWait(400);
    EXPECT_EQ(mock.discoveryLog(QStringLiteral("hci0")).size(), calls)
        << "discovery restarted while scanning was not wanted";
}

TEST_F(BlueZSourceTest, RetriesARefusedStartWithoutStoppingASessionItNeverHad)
{
    mock.addAdapter(QStringLiteral("hci0"));
    mock.refuseStarts(QStringLiteral("hci0"), 1);
    const auto source = makeSource();
    source->setRestartInterval(150ms);
    source->setScanning(true);
    ASSERT_TRUE(QTest::qWaitFor([&] { return log.contains("cannot start discovery"); }, 5000));
    const QStringList retried{filterLine, start, filterLine, start};
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return mock.discoveryLog(QStringLiteral("hci0")).size() >= retried.size(); }, 5000));
    EXPECT_EQ(mock.discoveryLog(QStringLiteral("hci0")).mid(0, retried.size()), retried);

    mock.addBeacon(QStringLiteral("hci0"), QStringLiteral("C0:FF:EE:00:00:09"), -60,
                   IBeaconAdvert::appleCompanyId, frame(2001, 1));
    EXPECT_TRUE(waitForSightings(1));
}

// Scanning is wanted before anything usable exists; the source waits, says why, and starts by
// itself once the adapter is there.
struct Unusable
{
    const char* name;
    std::function<void(MockBlueZ&)> before;
    std::function<void(MockBlueZ&)> makeUsable;
    const char* warning;
};

void PrintTo(const Unusable& u, std::ostream* out)
{
    *out << u.name;
}

class BlueZSourceWaitTest : public BlueZSourceTest, public ::testing::WithParamInterface<Unusable>
{};

TEST_P(BlueZSourceWaitTest, StartsOnceAnAdapterIsUsable)
{
    GetParam().before(mock);
    const auto source = makeSource();
    source->setScanning(true);
    ASSERT_TRUE(QTest::qWaitFor([&] { return log.contains(GetParam().warning); }, 5000))
        << CategoryLog::lines().join(QLatin1Char('\n')).toStdString();

    GetParam().makeUsable(mock);
    ASSERT_TRUE(waitForDiscoveryLog(QStringLiteral("hci0"), {filterLine, start}));
    mock.addBeacon(QStringLiteral("hci0"), QStringLiteral("C0:FF:EE:00:00:06"), -60,
                   IBeaconAdvert::appleCompanyId, frame(12, 8));
    ASSERT_TRUE(waitForSightings(1));
    EXPECT_EQ(sightings.constFirst().major, 12);
}

INSTANTIATE_TEST_SUITE_P(
    Initially, BlueZSourceWaitTest,
    ::testing::Values(Unusable{"NoBluetoothd", [](MockBlueZ& m) { m.stop(); },
                               [](MockBlueZ& m) {
                                   m.start();
                                   m.addAdapter(QStringLiteral("hci0"));
                               },
                               "bluetoothd (org.bluez) is not on the system bus"},
                      Unusable{"NoAdapter", [](MockBlueZ&) {},
                               [](MockBlueZ& m) { m.addAdapter(QStringLiteral("hci0")); },
                               "no Bluetooth adapter is present"},
                      Unusable{"AdapterOff",
                               [](MockBlueZ& m) {
                                   m.addAdapter(QStringLiteral("hci0"));
                                   m.setPowered(QStringLiteral("hci0"), false);
                               },
                               [](MockBlueZ& m) { m.setPowered(QStringLiteral("hci0"), true); },
                               "adapter /org/bluez/hci0 is powered off"}),
    [](const auto& info) { return std::string(info.param.name); });

// The adapter goes away in the middle of a scan and comes back; scanning resumes on its own.
struct Disruption
{
    const char* name;
    std::function<void(MockBlueZ&)> disrupt;
    std::function<void(MockBlueZ&)> restore;
    const char* warning;
    QStringList callsAfterRestore; ///< the adapter object's whole discovery log
};

void PrintTo(const Disruption& d, std::ostream* out)
{
    *out << d.name;
}

class BlueZSourceDisruptionTest : public BlueZSourceTest,
                                  public ::testing::WithParamInterface<Disruption>
{};

TEST_P(BlueZSourceDisruptionTest, ResumesScanningWhenTheAdapterComesBack)
{
    mock.addAdapter(QStringLiteral("hci0"));
    const auto source = makeSource();
    source->setScanning(true);
    ASSERT_TRUE(waitForDiscoveryLog(QStringLiteral("hci0"), {filterLine, start}));
    mock.addBeacon(QStringLiteral("hci0"), QStringLiteral("C0:FF:EE:00:00:07"), -60,
                   IBeaconAdvert::appleCompanyId, frame(12, 7));
    ASSERT_TRUE(waitForSightings(1));

    GetParam().disrupt(mock);
    ASSERT_TRUE(QTest::qWaitFor([&] { return log.contains(GetParam().warning); }, 5000))
        << CategoryLog::lines().join(QLatin1Char('\n')).toStdString();
    GetParam().restore(mock);
    ASSERT_TRUE(waitForDiscoveryLog(QStringLiteral("hci0"), GetParam().callsAfterRestore));

    mock.addBeacon(QStringLiteral("hci0"), QStringLiteral("C0:FF:EE:00:00:08"), -62,
                   IBeaconAdvert::appleCompanyId, frame(12, 8));
    ASSERT_TRUE(waitForSightings(2));
    EXPECT_EQ(sightings.constLast(), expected(0, "C0:FF:EE:00:00:08", 12, 8, -59, -62));
}

INSTANTIATE_TEST_SUITE_P(
    MidScan, BlueZSourceDisruptionTest,
    ::testing::Values(Disruption{"PoweredOff",
                                 [](MockBlueZ& m) { m.setPowered(QStringLiteral("hci0"), false); },
                                 [](MockBlueZ& m) { m.setPowered(QStringLiteral("hci0"), true); },
                                 "adapter /org/bluez/hci0 was powered off",
                                 {filterLine, start, filterLine, start}},
                      Disruption{
                          "Removed",
                          [](MockBlueZ& m) { m.removeAdapterWithDevices(QStringLiteral("hci0")); },
                          [](MockBlueZ& m) { m.addAdapter(QStringLiteral("hci0")); },
                          "adapter /org/bluez/hci0 was removed",
                          {filterLine, start}},
                      Disruption{"BluetoothdRestarted",
                                 [](MockBlueZ& m) { m.stop(); },
                                 [](MockBlueZ& m) {
                                     m.start();
                                     m.addAdapter(QStringLiteral("hci0"));
                                 },
                                 "bluetoothd left the system bus",
                                 {filterLine, start}}),
    [](const auto& info) { return std::string(info.param.name); });

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
        EXPECT_EQ(sightings, QList<Sighting>{expected(0, "C0:FF:EE:00:00:09", 9, 9, -59, -61)});
    }
}

} // namespace
} // namespace Quorlix
