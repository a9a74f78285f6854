#include "quorlix/location/RegionEngine.h"
#include "quorlix/location/EngineLocationManager.h"
#include "quorlix/location/VirtualClock.h"

#include <gtest/gtest.h>

#include <QStringList>

namespace Quorlix {
namespace {

constexpr std::int64_t ms = 1'000'000;
constexpr std::int64_t s = 1'000'000'000;
const QUuid family = QUuid::fromString(QStringLiteral("E1876979-75B5-43DE-92CB-2BC1AD6BA999"));
const QUuid other = QUuid::fromString(QStringLiteral("11111111-2222-3333-4444-555555555555"));

std::shared_ptr<BeaconRegion> region(const char* id, std::optional<quint16> major = {},
                                     std::optional<quint16> minor = {}, QUuid uuid = family)
{
    return std::make_shared<BeaconRegion>(
        BeaconRegion{uuid, major, minor, QString::fromLatin1(id)});
}

// Records the engine's reports as lines "enter A @1000" (time in ms).
class EngineTest : public ::testing::Test
{
protected:
    VirtualClock clock;
    std::unique_ptr<RegionEngine> engine = std::make_unique<RegionEngine>(clock);
    QStringList events;
    std::vector<std::pair<std::int64_t, QList<Beacon>>> reports;

    void SetUp() override
    {
        engine->entered = [this](const std::shared_ptr<BeaconRegion>& r) { record("enter", r); };
        engine->exited = [this](const std::shared_ptr<BeaconRegion>& r) { record("exit", r); };
        engine->ranged = [this](const QList<Beacon>& beacons,
                                const std::shared_ptr<BeaconRegion>& r) {
            record("range", r);
            reports.emplace_back(clock.nowNs(), beacons);
        };
    }

    void record(const char* what, const std::shared_ptr<BeaconRegion>& r)
    {
        events << QStringLiteral("%1 %2 @%3")
                      .arg(QLatin1StringView(what), r->identifier)
                      .arg(clock.nowNs() / ms);
    }

    void see(quint16 major, quint16 minor, int rssi = -60, QUuid uuid = family)
    {
        engine->addSighting(
            Sighting{clock.nowNs(), "AA:BB:CC:DD:EE:FF", uuid, major, minor, -59, rssi});
    }

    // Sightings of one beacon every periodNs from now until untilNs.
    void seeEvery(std::int64_t periodNs, std::int64_t untilNs, quint16 major, quint16 minor,
                  int rssi = -60)
    {
        while (clock.nowNs() + periodNs <= untilNs) {
            clock.advanceBy(periodNs);
            see(major, minor, rssi);
        }
    }

    QStringList take()
    {
        QStringList taken;
        taken.swap(events);
        return taken;
    }
};

TEST_F(EngineTest, EntryIsReportedAtTheSightingsTimeButNotFromInsideIt)
{
    engine->startMonitoring(region("A", 12, 7));
    clock.advanceTo(1500 * ms);
    see(12, 7);
    EXPECT_TRUE(events.isEmpty());
    clock.advanceBy(0);
    EXPECT_EQ(take(), QStringList{"enter A @1500"});
    seeEvery(100 * ms, 3 * s, 12, 7);
    EXPECT_EQ(take(), QStringList());
}

TEST_F(EngineTest, ExitComesExactlyOneExitPeriodAfterTheLastSighting)
{
    const struct
    {
        std::optional<std::int64_t> period;
        std::int64_t expectedNs;
    } cases[] = {{std::nullopt, 30 * s}, {10 * s, 10 * s}, {2500 * ms, 2500 * ms}};
    for (const auto& c : cases) {
        VirtualClock local;
        RegionEngine e(local);
        std::int64_t exitAt = -1;
        e.exited = [&](const std::shared_ptr<BeaconRegion>&) { exitAt = local.nowNs(); };
        if (c.period)
            e.setExitPeriodNs(*c.period);
        e.startMonitoring(region("A"));
        local.advanceTo(5 * s);
        e.addSighting(Sighting{local.nowNs(), {}, family, 1, 2, -59, -60});
        local.advanceTo(5 * s + c.expectedNs - 1);
        EXPECT_EQ(exitAt, -1);
        local.advanceTo(5 * s + c.expectedNs + 10 * s);
        EXPECT_EQ(exitAt, 5 * s + c.expectedNs);
    }
}

TEST_F(EngineTest, HugeExitPeriodMeansNever)
{
    engine->setExitPeriodNs(std::numeric_limits<std::int64_t>::max());
    engine->startMonitoring(region("A"));
    clock.advanceTo(10 * s);
    see(1, 1);
    clock.advanceTo(std::numeric_limits<std::int64_t>::max() - 1);
    EXPECT_EQ(take(), QStringList{"enter A @10000"});
}

TEST_F(EngineTest, GapsShorterThanTheExitPeriodNeverExit)
{
    engine->startMonitoring(region("A", 12));
    see(12, 1);
    // Gaps of 29.9 s, different minors of the same major: still one presence.
    for (int i = 0; i < 20; ++i) {
        clock.advanceBy(29'900 * ms);
        see(12, static_cast<quint16>(i));
    }
    clock.advanceBy(0);
    EXPECT_EQ(take(), QStringList{"enter A @0"});
    const std::int64_t last = clock.nowNs();
    clock.advanceTo(last + 60 * s);
    EXPECT_EQ(take(), QStringList{QStringLiteral("exit A @%1").arg((last + 30 * s) / ms)});
}

TEST_F(EngineTest, RegionsAreIndependent)
{
    engine->startMonitoring(region("exact", 12, 7));
    engine->startMonitoring(region("family"));
    engine->startMonitoring(region("major300", 300));
    engine->startMonitoring(region("foreign", {}, {}, other));
    see(12, 7);
    clock.advanceBy(0);
    EXPECT_EQ(take(), (QStringList{"enter exact @0", "enter family @0"}));
    clock.advanceTo(20 * s);
    see(300, 1);
    see(7, 7, -60, other);
    clock.advanceBy(0);
    EXPECT_EQ(take(), (QStringList{"enter major300 @20000", "enter foreign @20000"}));
    // "family" keeps hearing 300-1 and stays; "exact" heard nothing since 0.
    seeEvery(10 * s, 45 * s, 300, 1);
    EXPECT_EQ(take(), QStringList{"exit exact @30000"});
    clock.advanceTo(100 * s);
    EXPECT_EQ(take(),
              (QStringList{"exit foreign @50000", "exit family @70000", "exit major300 @70000"}));
}

TEST_F(EngineTest, StoppingMonitoringForgetsAndReportsNothing)
{
    const auto a = region("A");
    engine->startMonitoring(a);
    see(1, 1);
    engine->stopMonitoring(a); // before the pending entry is delivered
    clock.advanceTo(5 * s);
    engine->startMonitoring(a);
    see(1, 1);
    clock.advanceBy(0);
    engine->stopMonitoring(region("A")); // another object, same identifier
    clock.advanceTo(100 * s);
    EXPECT_EQ(take(), QStringList{"enter A @5000"});
    // Monitored again: not "still inside" from before.
    engine->startMonitoring(a);
    see(1, 1);
    clock.advanceBy(0);
    EXPECT_EQ(take(), QStringList{"enter A @100000"});
}

TEST_F(EngineTest, RangingReportsOnceASecondPerRegionAlsoWhenEmpty)
{
    clock.advanceTo(300 * ms);
    engine->startRanging(region("A", 12));
    engine->startRanging(region("B", 99));
    seeEvery(100 * ms, 10'300 * ms, 12, 7);
    ASSERT_EQ(reports.size(), 20u);
    for (std::size_t i = 0; i < reports.size(); ++i) {
        EXPECT_EQ(reports[i].first, static_cast<std::int64_t>(1300 + 1000 * (i / 2)) * ms);
        EXPECT_EQ(reports[i].second.size(), i % 2 == 0 ? 1 : 0) << i;
    }
    engine->stopRanging(region("A"));
    reports.clear();
    clock.advanceTo(15 * s);
    EXPECT_EQ(reports.size(), 4u); // 11.3 to 14.3 s
    EXPECT_TRUE(std::all_of(reports.begin(), reports.end(),
                            [](const auto& r) { return r.second.isEmpty(); }));
}

TEST_F(EngineTest, ReportListsNearestFirstWithTheLastSecondsMeanRssi)
{
    engine->startRanging(region("A"));
    // Second 0..1: the readings that must not count in the second report.
    clock.advanceTo(500 * ms);
    see(1, 1, -90);
    clock.advanceTo(1 * s);
    clock.advanceTo(1200 * ms);
    see(1, 1, -60);
    see(1, 1, -62);
    see(1, 1, -65); // mean -62.33
    see(2, 2, -50);
    see(3, 3, -75);
    see(4, 4, -70, other);
    clock.advanceTo(2 * s);
    ASSERT_EQ(reports.size(), 2u);
    const QList<Beacon>& beacons = reports.back().second;
    ASSERT_EQ(beacons.size(), 3);
    // 1-1 is ordered by its smoothed reading, still pulled down by the -90 from before; its rssi
    // is the plain mean of the last second.
    EXPECT_EQ(beacons[0].minor, 2);
    EXPECT_EQ(beacons[1].minor, 3);
    EXPECT_EQ(beacons[2].minor, 1);
    EXPECT_EQ(beacons[2].rssi, -62);
    EXPECT_EQ(beacons[0].proximity, Proximity::Immediate);
    EXPECT_EQ(beacons[1].proximity, Proximity::Far);
    EXPECT_LT(beacons[0].accuracy, beacons[1].accuracy);
    EXPECT_LT(beacons[1].accuracy, beacons[2].accuracy);
}

// A beacon heard at its own pace keeps its word and rssi; once quiet for several of its own
// intervals (at least a ranging period, at most 30 s) it is Unknown, and after twice that (at
// least 5 s) it is gone. Times in s: the last reading, at 60 s, counts in the report at 61 s.
TEST(RegionEngineQuiet, UnknownAfterSeveralOwnIntervalsThenForgotten)
{
    const struct
    {
        std::int64_t periodMs;
        double quietIntervals;
        std::int64_t unknownAtS, goneAtS;
    } cases[] = {
        {100, 6, 62, 66},   // 10 Hz: as before
        {500, 6, 63, 67},   // 3 s quiet, 6 s window
        {2000, 6, 72, 85},  // 12 s, 24 s
        {5000, 6, 90, 121}, // capped at 30 s
        {500, 0, 62, 66},   // the rule before: Unknown after any second without a reading
    };
    for (const auto& c : cases) {
        VirtualClock clock;
        RegionEngine engine(clock, RegionEngine::Tuning{c.quietIntervals, 30 * s});
        std::vector<std::pair<std::int64_t, QList<Beacon>>> reports;
        engine.ranged = [&](const QList<Beacon>& beacons, const std::shared_ptr<BeaconRegion>&) {
            reports.emplace_back(clock.nowNs() / s, beacons);
        };
        engine.startRanging(region("A"));
        for (std::int64_t t = c.periodMs * ms; t <= 60 * s; t += c.periodMs * ms) {
            clock.advanceTo(t);
            engine.addSighting(Sighting{t, {}, family, 1, 1, -59, t % (2 * s) < s ? -70 : -72});
        }
        clock.advanceTo(130 * s);
        const auto at = std::to_string(c.periodMs) + " ms, " + std::to_string(c.quietIntervals);
        for (const auto& [time, beacons] : reports) {
            if (time * 1000 <= c.periodMs)
                continue; // not heard yet
            if (time >= c.goneAtS) {
                EXPECT_TRUE(beacons.isEmpty()) << at << " @" << time;
                continue;
            }
            ASSERT_EQ(beacons.size(), 1) << at << " @" << time;
            const Beacon& b = beacons.first();
            if (time >= c.unknownAtS) {
                EXPECT_EQ(b, (Beacon{family, 1, 1, Proximity::Unknown, 0, -1.0})) << at << time;
            } else {
                EXPECT_EQ(b.proximity, Proximity::Far) << at << " @" << time;
                EXPECT_TRUE(b.rssi == -70 || b.rssi == -72) << at << " @" << time;
                EXPECT_NEAR(b.accuracy, 4.0, 0.55) << at << " @" << time;
            }
        }
    }
}

// Calibration reaches beacons already tracked; a receiver's offset applies to its own readings
// only. A -65 dBm reading of a beacon advertising -59 dBm is 2 m away by default.
TEST(RegionEngineCalibration, SettingsChangeDistanceAndWordAtOnce)
{
    const auto settings = [](auto change) {
        LocationSettings s;
        change(s);
        return s;
    };
    const struct
    {
        const char* what;
        LocationSettings settings;
        int rssi;
        double distanceM;
        Proximity word;
    } cases[] = {
        {"defaults", {}, -65, 1.995, Proximity::Near},
        {"beacon's measured power", settings([](auto& s) {
             s.measuredPower.insert(BeaconId{family, 1, 1}, -65);
         }),
         -65, 1.0, Proximity::Near},
        {"another beacon's measured power", settings([](auto& s) {
             s.measuredPower.insert(BeaconId{family, 1, 2}, -40);
         }),
         -65, 1.995, Proximity::Near},
        {"receiver offset, any case",
         settings([](auto& s) { s.rssiOffset.insert(QStringLiteral("00:1a:7d:da:71:13"), 6); }),
         -59, 1.0, Proximity::Near},
        {"another receiver's offset",
         settings([](auto& s) { s.rssiOffset.insert(QStringLiteral("00:1A:7D:DA:71:14"), 6); }),
         -65, 1.995, Proximity::Near},
        {"exponent 3", settings([](auto& s) { s.pathLossExponent = 3; }), -65, 1.585,
         Proximity::Near},
        {"near limit 1.5 m", settings([](auto& s) { s.nearLimitM = 1.5; }), -65, 1.995,
         Proximity::Far},
        {"immediate limit 2.9 m", settings([](auto& s) { s.immediateLimitM = 2.9; }), -65, 1.995,
         Proximity::Immediate},
    };
    for (const auto& c : cases) {
        VirtualClock clock;
        RegionEngine engine(clock);
        QList<Beacon> last;
        engine.ranged = [&](const QList<Beacon>& beacons, const std::shared_ptr<BeaconRegion>&) {
            last = beacons;
        };
        engine.startRanging(region("A"));
        // Far away at first, so that the word must move past the hysteresis to its band.
        engine.addSighting(Sighting{0, {}, family, 1, 1, -59, -100, "00:1A:7D:DA:71:13"});
        clock.advanceTo(1 * s);
        engine.applySettings(c.settings);
        for (std::int64_t t = 1 * s; t <= 30 * s; t += 100 * ms) {
            clock.advanceTo(t);
            engine.addSighting(Sighting{t, {}, family, 1, 1, -59, -65, "00:1A:7D:DA:71:13"});
        }
        ASSERT_EQ(last.size(), 1) << c.what;
        EXPECT_NEAR(last.first().accuracy, c.distanceM, 0.01) << c.what;
        EXPECT_EQ(last.first().rssi, c.rssi) << c.what;
        EXPECT_EQ(last.first().proximity, c.word) << c.what;
    }
}

TEST_F(EngineTest, TrackedBeaconsAreCappedKeepingTheNewest)
{
    engine->startRanging(region("A"));
    engine->startMonitoring(region("M", 60000));
    const int flood = static_cast<int>(RegionEngine::maxTrackedBeacons) + 1000;
    for (int i = 0; i < flood; ++i) {
        see(static_cast<quint16>(i / 1000), static_cast<quint16>(i % 1000));
        EXPECT_LE(engine->trackedCount(), RegionEngine::maxTrackedBeacons);
    }
    see(60000, 1); // monitoring still works with a full table
    clock.advanceTo(1 * s);
    EXPECT_EQ(take().first(), "enter M @0");
    const QList<Beacon>& listed = reports.back().second;
    ASSERT_EQ(listed.size(), static_cast<qsizetype>(RegionEngine::maxTrackedBeacons));
    const bool newestKept = std::any_of(listed.begin(), listed.end(), [&](const Beacon& b) {
        return b.major == (flood - 1) / 1000 && b.minor == (flood - 1) % 1000;
    });
    const bool oldestGone = std::none_of(
        listed.begin(), listed.end(), [](const Beacon& b) { return b.major == 0 && b.minor == 0; });
    EXPECT_TRUE(newestKept);
    EXPECT_TRUE(oldestGone);
}

TEST_F(EngineTest, ScanningIsWantedWhileAnyRegionIsWatched)
{
    QList<bool> calls;
    engine->scanningWanted = [&](bool wanted) { calls << wanted; };
    const auto a = region("A");
    engine->startMonitoring(a);
    engine->startRanging(a);
    engine->stopMonitoring(a);
    engine->stopRanging(region("other"));
    engine->stopRanging(a);
    engine->startRanging(nullptr);
    EXPECT_EQ(calls, (QList<bool>{true, false}));
}

TEST_F(EngineTest, HandlersMayStopRegionsOrDestroyTheEngine)
{
    const auto a = region("A");
    const auto b = region("B");
    engine->startRanging(a);
    engine->startRanging(b);
    engine->startMonitoring(a);
    engine->startMonitoring(b);
    // The first ranging handler stops the other region; the other is then not reported.
    engine->ranged = [&](const QList<Beacon>&, const std::shared_ptr<BeaconRegion>& r) {
        record("range", r);
        engine->stopRanging(r == a ? b : a);
    };
    clock.advanceTo(1 * s);
    EXPECT_EQ(take(), QStringList{"range A @1000"});
    // The first entry handler destroys the engine: nothing more happens, nothing is touched.
    engine->entered = [&](const std::shared_ptr<BeaconRegion>& r) {
        record("enter", r);
        engine.reset();
    };
    see(1, 1);
    clock.advanceTo(100 * s);
    EXPECT_EQ(take(), QStringList{"enter A @1000"});
    EXPECT_EQ(clock.pendingCount(), 0u);
}

// A delegate that runs a test-given action inside each report.
class ActingDelegate : public LocationManagerDelegate
{
public:
    std::function<void(const char*)> act;
    void didEnterRegion(LocationManager*, BeaconRegion*) override { act("enter"); }
    void didExitRegion(LocationManager*, BeaconRegion*) override { act("exit"); }
    void didRangeBeacons(LocationManager*, const QList<Beacon>&, BeaconRegion*) override
    {
        act("range");
    }
};

TEST(EngineLocationManager, DelegateMayDestroyItsLocationManagerInsideAReport)
{
    auto clock = std::make_shared<VirtualClock>();
    auto manager = std::make_shared<EngineLocationManager>(clock, nullptr);
    QStringList seen;
    ActingDelegate delegate;
    delegate.act = [&](const char* what) {
        seen << QLatin1StringView(what);
        manager.reset();
    };
    manager->delegate = &delegate;
    manager->startMonitoring(region("A"));
    manager->startRangingBeacons(region("A"));
    manager->engine().addSighting(Sighting{0, {}, family, 1, 1, -59, -60});
    clock->advanceTo(60 * s);
    EXPECT_EQ(seen, QStringList{"enter"});
    EXPECT_EQ(clock->pendingCount(), 0u);
}

TEST(EngineLocationManager, DelegateIsReadAtEachReport)
{
    auto clock = std::make_shared<VirtualClock>();
    EngineLocationManager manager(clock, nullptr);
    QStringList seen;
    ActingDelegate first;
    ActingDelegate second;
    first.act = [&](const char* what) {
        seen << QStringLiteral("first ") + QLatin1StringView(what);
        manager.delegate = &second;
    };
    second.act = [&](const char* what) {
        seen << QStringLiteral("second ") + QLatin1StringView(what);
        manager.delegate = nullptr;
    };
    manager.delegate = &first;
    manager.startRangingBeacons(region("A"));
    clock->advanceTo(5 * s);
    EXPECT_EQ(seen, (QStringList{"first range", "second range"}));
}

} // namespace
} // namespace Quorlix
