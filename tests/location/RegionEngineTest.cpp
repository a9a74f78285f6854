#include "quorlix/location/RegionEngine.h"
#include "quorlix/location/VirtualClock.h"

#include <gtest/gtest.h>

#include <QSet>
#include <QStringList>

#include <tuple>

namespace Quorlix {
namespace {

constexpr std::int64_t ms = 1'000'000;
constexpr std::int64_t s = 1'000'000'000;
const QUuid family = QUuid::fromString(QStringLiteral("E1876979-75B5-43DE-92CB-2BC1AD6BA999"));
const QUuid other = QUuid::fromString(QStringLiteral("11111111-2222-3333-4444-555555555555"));
const QByteArray receiver = "00:1A:7D:DA:71:13";
const BeaconId beacon11{family, 1, 1}, beacon12{family, 1, 2};

std::shared_ptr<BeaconRegion> region(const char* id, std::optional<quint16> major = {},
                                     std::optional<quint16> minor = {}, QUuid uuid = family)
{
    return std::make_shared<BeaconRegion>(
        BeaconRegion{uuid, major, minor, QString::fromLatin1(id)});
}

// A house of regions in virtual time; the engine's reports are recorded as lines "enter A @1000"
// (time in ms; "range" or "empty" for ranging reports), ranging reports also with their beacons.
class EngineTest : public ::testing::Test
{
protected:
    std::unique_ptr<VirtualClock> clock;
    std::unique_ptr<RegionEngine> engine;
    QStringList events;
    std::vector<std::pair<std::int64_t, QList<Beacon>>> reports;

    void SetUp() override { fresh(); }

    // A new clock at 0 and a new engine, for each case of a table.
    void fresh(RegionEngine::Tuning tuning = {})
    {
        engine.reset();
        clock = std::make_unique<VirtualClock>();
        engine = std::make_unique<RegionEngine>(*clock, tuning);
        events.clear();
        reports.clear();
        engine->entered = [this](const std::shared_ptr<BeaconRegion>& r) { record("enter", r); };
        engine->exited = [this](const std::shared_ptr<BeaconRegion>& r) { record("exit", r); };
        engine->ranged = [this](const QList<Beacon>& beacons,
                                const std::shared_ptr<BeaconRegion>& r) {
            record(beacons.isEmpty() ? "empty" : "range", r);
            reports.emplace_back(clock->nowNs(), beacons);
        };
    }

    void record(const char* what, const std::shared_ptr<BeaconRegion>& r)
    {
        events << QStringLiteral("%1 %2 @%3")
                      .arg(QLatin1StringView(what), r->identifier)
                      .arg(clock->nowNs() / ms);
    }

    void see(quint16 major, quint16 minor, int rssi = -60, QUuid uuid = family)
    {
        engine->addSighting(
            Sighting{clock->nowNs(), "AA:BB:CC:DD:EE:FF", uuid, major, minor, -59, rssi, receiver});
    }

    // Sightings of one beacon every periodNs from now until untilNs.
    void seeEvery(std::int64_t periodNs, std::int64_t untilNs, quint16 major, quint16 minor,
                  int rssi = -60)
    {
        while (clock->nowNs() + periodNs <= untilNs) {
            clock->advanceBy(periodNs);
            see(major, minor, rssi);
        }
    }

    QStringList take() { return std::exchange(events, {}); }
};

TEST_F(EngineTest, ExitComesExactlyOneExitPeriodAfterTheLastSighting)
{
    constexpr auto never = std::numeric_limits<std::int64_t>::max();
    for (const std::int64_t period : {10 * s, 2500 * ms, never}) {
        fresh();
        engine->setExitPeriodNs(20 * s);
        engine->startMonitoring(region("A"));
        clock->advanceTo(5 * s);
        see(1, 2);
        clock->advanceTo(6 * s);
        engine->setExitPeriodNs(period); // while inside: the pending exit moves with it
        clock->advanceTo(period == never ? never - 1 : 5 * s + period - 1);
        EXPECT_EQ(take(), QStringList{"enter A @5000"}) << period;
        if (period != never) {
            clock->advanceTo(5 * s + period + 10 * s);
            EXPECT_EQ(take(), QStringList{QStringLiteral("exit A @%1").arg(5000 + period / ms)});
        }
    }
}

// Entries come at the sighting's time but not from inside addSighting, once per stay.
TEST_F(EngineTest, RegionsAreIndependent)
{
    engine->startMonitoring(region("exact", 12, 7));
    engine->startMonitoring(region("family"));
    engine->startMonitoring(region("major300", 300));
    engine->startMonitoring(region("foreign", {}, {}, other));
    see(12, 7);
    EXPECT_TRUE(events.isEmpty());
    clock->advanceBy(0);
    EXPECT_EQ(take(), (QStringList{"enter exact @0", "enter family @0"}));
    clock->advanceTo(20 * s);
    see(12, 8); // "exact" hears only 12-7
    see(300, 1);
    see(7, 7, -60, other);
    clock->advanceBy(0);
    EXPECT_EQ(take(), (QStringList{"enter major300 @20000", "enter foreign @20000"}));
    // "family" keeps hearing 300-1 and stays; "exact" heard nothing since 0.
    seeEvery(10 * s, 45 * s, 300, 1);
    EXPECT_EQ(take(), QStringList{"exit exact @30000"});
    clock->advanceTo(100 * s);
    EXPECT_EQ(take(),
              (QStringList{"exit foreign @50000", "exit family @70000", "exit major300 @70000"}));
}

TEST_F(EngineTest, StoppingMonitoringForgetsAndReportsNothing)
{
    const auto a = region("A");
    engine->startMonitoring(a);
    see(1, 1);
    engine->stopMonitoring(a); // before the pending entry is delivered
    clock->advanceTo(5 * s);
    engine->startMonitoring(a);
    see(1, 1);
    clock->advanceBy(0);
    engine->stopMonitoring(region("A")); // another object, same identifier
    clock->advanceTo(100 * s);
    EXPECT_EQ(take(), QStringList{"enter A @5000"});
    // Monitored again: not "still inside" from before.
    engine->startMonitoring(a);
    see(1, 1);
    clock->advanceBy(0);
    EXPECT_EQ(take(), QStringList{"enter A @100000"});
}

TEST_F(EngineTest, ReportListsNearestFirstWithTheLastSecondsMeanRssi)
{
    engine->startRanging(region("A"));
    clock->advanceTo(500 * ms);
    see(1, 1, -90); // in the first second: must not count in the second report
    clock->advanceTo(1200 * ms);
    for (const auto& [minor, rssi] : {std::pair{1, -60}, {1, -63}, {1, -65}, {2, -50}, {3, -75}})
        see(minor, minor, rssi);
    see(4, 4, -70, other);
    clock->advanceTo(2 * s);
    ASSERT_EQ(reports.size(), 2u);
    const QList<Beacon>& b = reports.back().second;
    ASSERT_EQ(b.size(), 3);
    // 1-1 is ordered by its smoothed reading, still pulled down by the -90 from before; its rssi
    // is the plain mean of the last second rounded to the nearest dB (-62.67).
    EXPECT_EQ((QList<int>{b[0].minor, b[1].minor, b[2].minor, b[2].rssi}),
              (QList<int>{2, 3, 1, -63}));
    EXPECT_TRUE(b[0].proximity == Proximity::Immediate && b[1].proximity == Proximity::Far);
    EXPECT_TRUE(b[0].accuracy < b[1].accuracy && b[1].accuracy < b[2].accuracy);
    // Beacons gone quiet (Unknown, no distance) come after every one in range, whose readings
    // are the ones a host acts on.
    seeEvery(100 * ms, 8 * s, 3, 3, -75);
    const QList<Beacon>& later = reports.back().second;
    ASSERT_EQ(later.size(), 3);
    EXPECT_EQ((QList<int>{later[0].minor, later[1].minor, later[2].minor}), (QList<int>{3, 1, 2}));
    EXPECT_TRUE(later[0].accuracy > 0 && later[1].proximity == Proximity::Unknown &&
                later[2].proximity == Proximity::Unknown);
}

// A beacon heard at its own pace keeps its word and rssi; once quiet for several of its own
// intervals (at least a ranging period, at most 30 s) it is Unknown, and after twice that (at
// least 5 s) it is gone. Times in s: the last reading, at 60 s, counts in the report at 61 s.
TEST_F(EngineTest, QuietBeaconIsUnknownAfterSeveralOwnIntervalsThenForgotten)
{
    // Advert period (ms), quiet intervals, Unknown from and gone from (s).
    const std::tuple<std::int64_t, double, std::int64_t, std::int64_t> cases[] = {
        {100, 6, 62, 66},   // 10 Hz: as before
        {500, 6, 63, 67},   // 3 s quiet, 6 s window
        {2000, 6, 72, 85},  // 12 s, 24 s
        {5000, 6, 90, 121}, // capped at 30 s
        {500, 0, 62, 66},   // the rule before: Unknown after any second without a reading
    };
    for (const auto& [periodMs, quietIntervals, unknownAtS, goneAtS] : cases) {
        fresh(RegionEngine::Tuning{quietIntervals, 30 * s});
        engine->startRanging(region("A"));
        for (std::int64_t t = periodMs * ms; t <= 60 * s; t += periodMs * ms) {
            clock->advanceTo(t);
            see(1, 1, t % (2 * s) < s ? -70 : -72);
        }
        clock->advanceTo(130 * s);
        // What each report says of the beacon: heard (its word, rssi and distance), unknown, gone.
        const auto state = [](const QList<Beacon>& l) {
            const Beacon b = l.value(0);
            if (l.size() != 1)
                return l.isEmpty() ? "gone" : "many";
            if (b == Beacon{family, 1, 1, Proximity::Unknown, 0, -1.0})
                return "unknown";
            const bool far = b.proximity == Proximity::Far && std::abs(b.accuracy - 4.0) < 0.55;
            return far && (b.rssi == -70 || b.rssi == -72) ? "heard" : "wrong";
        };
        for (const auto& [timeNs, beacons] : reports) {
            const std::int64_t t = timeNs / s;
            if (t * 1000 <= periodMs)
                continue; // not heard yet
            EXPECT_STREQ(state(beacons), t >= goneAtS      ? "gone"
                                         : t >= unknownAtS ? "unknown"
                                                           : "heard")
                << periodMs << " ms, " << quietIntervals << " @" << t;
        }
    }
}

// Calibration reaches beacons already tracked; a receiver's offset applies to its own readings
// only, its address in any case. A -65 dBm reading of a beacon advertising -59 dBm is 2 m away by
// default.
TEST_F(EngineTest, CalibrationChangesDistanceAndWordAtOnce)
{
    using S = LocationSettings;
    using P = Proximity;
    const std::tuple<const char*, void (*)(S&), int, double, Proximity> cases[] = {
        {"beacon's power", [](S& s) { s.measuredPower.insert(beacon11, -65); }, -65, 1, P::Near},
        {"other's power", [](S& s) { s.measuredPower.insert(beacon12, -40); }, -65, 1.995, P::Near},
        {"offset", [](S& s) { s.rssiOffset.insert("00:1a:7d:da:71:13", 6); }, -59, 1, P::Near},
        {"other's", [](S& s) { s.rssiOffset.insert("00:1A:7D:DA:71:14", 6); }, -65, 1.995, P::Near},
        {"exponent 3", [](S& s) { s.pathLossExponent = 3; }, -65, 1.585, P::Near},
        {"near limit 1.5 m", [](S& s) { s.nearLimitM = 1.5; }, -65, 1.995, P::Far},
        {"immediate limit 2.9 m", [](S& s) { s.immediateLimitM = 2.9; }, -65, 1.995, P::Immediate},
    };
    for (const auto& [what, change, rssi, distanceM, word] : cases) {
        fresh();
        engine->startRanging(region("A"));
        see(1, 1, -100); // far at first: the word must move past the hysteresis to its band
        clock->advanceTo(1 * s);
        S settings;
        change(settings);
        engine->applySettings(settings);
        seeEvery(100 * ms, 30 * s, 1, 1, -65);
        const Beacon& b = reports.back().second.value(0);
        EXPECT_NEAR(b.accuracy, distanceM, 0.01) << what;
        EXPECT_EQ(b.rssi, rssi) << what;
        EXPECT_EQ(b.proximity, word) << what;
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
    clock->advanceTo(1 * s);
    EXPECT_EQ(take().first(), "enter M @0");
    const QList<Beacon>& listed = reports.back().second;
    ASSERT_EQ(listed.size(), static_cast<qsizetype>(RegionEngine::maxTrackedBeacons));
    QSet<int> ids;
    for (const Beacon& b : listed)
        ids << b.major * 1000 + b.minor;
    EXPECT_TRUE(ids.contains(flood - 1) && !ids.contains(0)); // the newest kept, the oldest gone
}

TEST_F(EngineTest, ScanningIsWantedWhileAnyRegionIsWatched)
{
    QList<bool> calls;
    engine->scanningWanted = [&](bool wanted) { calls << wanted; };
    const auto a = region("A");
    engine->startMonitoring(a);
    EXPECT_EQ(calls, QList<bool>{true}); // monitoring alone scans too
    engine->startRanging(a);
    engine->stopMonitoring(a);
    engine->stopRanging(region("other"));
    engine->stopRanging(a);
    engine->startRanging(nullptr);
    EXPECT_EQ(calls, (QList<bool>{true, false}));
}

TEST_F(EngineTest, HandlersMayStopRegionsOrDestroyTheEngine)
{
    const auto a = region("A"), b = region("B");
    for (const auto& r : {a, b}) {
        engine->startRanging(r);
        engine->startMonitoring(r);
    }
    // The first ranging handler stops the other region; the other is then not reported.
    engine->ranged = [&](const QList<Beacon>&, const std::shared_ptr<BeaconRegion>& r) {
        record("empty", r);
        engine->stopRanging(r == a ? b : a);
    };
    clock->advanceTo(1 * s);
    EXPECT_EQ(take(), QStringList{"empty A @1000"});
    // The first entry handler destroys the engine: nothing more happens, nothing is touched.
    engine->entered = [&](const std::shared_ptr<BeaconRegion>& r) {
        record("enter", r);
        engine.reset();
    };
    see(1, 1);
    clock->advanceTo(100 * s);
    EXPECT_EQ(take(), QStringList{"enter A @1000"});
    EXPECT_EQ(clock->pendingCount(), 0u);
}

} // namespace
} // namespace Quorlix
