// Runs a scenario (by default data/scenarios/stationary.json) in virtual time through the region
// engine and prints, per beacon, what a user of the location service notices: how late entries
// and exits come, false exits, and how often the proximity word changes. A naive classifier
// (entry on first sighting, exit after 5 s of silence, the word from each second's mean RSSI with
// fixed limits) runs on the same sightings beside it. Then a sweep of the smoothing constant and
// the hysteresis margin on a beacon standing on the Near/Far limit.
//
//   engine_quality [scenario.json]
#include "quorlix/location/ProximityFilter.h"
#include "quorlix/location/RegionEngine.h"
#include "quorlix/location/VirtualClock.h"
#include "quorlix/location/sources/SimulatedSource.h"

#include <QCoreApplication>

#include <cmath>
#include <cstdio>
#include <map>

using namespace Quorlix;

namespace {

constexpr std::int64_t second = 1'000'000'000;
constexpr std::int64_t naiveTimeoutNs = 5 * second;
// Words before this are the start-up, not flicker.
constexpr std::int64_t settleNs = 10 * second;

struct Track
{
    std::vector<std::int64_t> entries, exits;
    std::vector<std::pair<std::int64_t, Proximity>> words;
};

struct Naive
{
    bool inside = false;
    std::int64_t lastHeardNs = 0;
    double sum = 0;
    int count = 0;
    int measuredPower = 0;
    Track track;
};

double seconds(std::int64_t ns)
{
    return static_cast<double>(ns) / 1e9;
}

// When the beacon first appears on its path, and when it first falls silent after that.
std::pair<std::optional<double>, std::optional<double>> presence(const ScenarioBeacon& beacon)
{
    std::optional<double> arrival, departure;
    for (const auto& point : beacon.path) {
        if (point.distanceM && !arrival)
            arrival = point.timeS;
        if (!point.distanceM && arrival && !departure)
            departure = point.timeS;
    }
    return {arrival, departure};
}

struct Figures
{
    std::optional<double> entryLatency, exitLatency;
    int falseExits = 0;
    double flipsPerMinute = 0;
    /// The same, ignoring seconds without a reading (reported Unknown by rule, not by the filter).
    double heardFlipsPerMinute = 0;
};

Figures measure(const Track& track, std::optional<double> arrival, std::optional<double> departure,
                std::int64_t endNs)
{
    Figures f;
    if (arrival) {
        for (const std::int64_t t : track.entries) {
            if (seconds(t) >= *arrival) {
                f.entryLatency = seconds(t) - *arrival;
                break;
            }
        }
    }
    for (const std::int64_t t : track.exits) {
        if (departure && seconds(t) >= *departure) {
            if (!f.exitLatency)
                f.exitLatency = seconds(t) - *departure;
        } else if (arrival && seconds(t) > *arrival) {
            ++f.falseExits;
        }
    }
    // Word changes while the beacon stands still: from settling to departure (or the end).
    const double from = arrival.value_or(0) + seconds(settleNs);
    const double to = departure.value_or(seconds(endNs));
    int flips = 0;
    int heardFlips = 0;
    std::optional<Proximity> previous;
    std::optional<Proximity> previousHeard;
    for (const auto& [t, word] : track.words) {
        if (seconds(t) < from || seconds(t) > to)
            continue;
        if (previous && *previous != word)
            ++flips;
        previous = word;
        if (word == Proximity::Unknown)
            continue;
        if (previousHeard && *previousHeard != word)
            ++heardFlips;
        previousHeard = word;
    }
    if (to > from) {
        f.flipsPerMinute = flips / ((to - from) / 60.0);
        f.heardFlipsPerMinute = heardFlips / ((to - from) / 60.0);
    }
    return f;
}

QString latency(const std::optional<double>& value)
{
    return value ? QStringLiteral("%1 s").arg(*value, 0, 'f', 2) : QStringLiteral("-");
}

void printRow(const char* who, const Figures& f)
{
    std::printf("    %-7s entry latency %-8s exit latency %-8s false exits %-4d "
                "word flips/min %6.2f (%.2f ignoring unheard seconds)\n",
                who, qPrintable(latency(f.entryLatency)), qPrintable(latency(f.exitLatency)),
                f.falseExits, f.flipsPerMinute, f.heardFlipsPerMinute);
}

std::int64_t scenarioEnd(const Scenario& scenario)
{
    double end = 0;
    for (const auto& beacon : scenario.beacons)
        end = std::max(end, beacon.path.back().timeS);
    // Room for the last exit.
    return static_cast<std::int64_t>((end + 60) * 1e9);
}

void runScenario(const Scenario& scenario)
{
    VirtualClock clock;
    RegionEngine engine(clock);
    SimulatedSource source(scenario);
    std::vector<Track> tracks(scenario.beacons.size());
    std::vector<Naive> naive(scenario.beacons.size());
    std::vector<std::shared_ptr<BeaconRegion>> regions;
    std::map<BeaconRegion*, std::size_t> indexOf;
    for (std::size_t i = 0; i < scenario.beacons.size(); ++i) {
        const auto& b = scenario.beacons[i];
        regions.push_back(std::make_shared<BeaconRegion>(
            BeaconRegion{b.uuid, b.major, b.minor, QStringLiteral("beacon %1").arg(i)}));
        indexOf[regions.back().get()] = i;
    }
    engine.entered = [&](const std::shared_ptr<BeaconRegion>& r) {
        tracks[indexOf[r.get()]].entries.push_back(clock.nowNs());
    };
    engine.exited = [&](const std::shared_ptr<BeaconRegion>& r) {
        tracks[indexOf[r.get()]].exits.push_back(clock.nowNs());
    };
    engine.ranged = [&](const QList<Beacon>& beacons, const std::shared_ptr<BeaconRegion>& r) {
        const std::size_t i = indexOf[r.get()];
        const std::int64_t now = clock.nowNs();
        if (!beacons.isEmpty())
            tracks[i].words.emplace_back(now, beacons.first().proximity);
        // The naive classifier answers at the same moments.
        Naive& n = naive[i];
        if (n.inside && now - n.lastHeardNs >= naiveTimeoutNs) {
            n.inside = false;
            n.track.exits.push_back(now);
        }
        if (n.count > 0)
            n.track.words.emplace_back(now, ProximityFilter::bandFor(ProximityFilter::distanceFor(
                                                n.sum / n.count, n.measuredPower)));
        else if (now - n.lastHeardNs <= RegionEngine::trackingWindowNs && n.lastHeardNs > 0)
            n.track.words.emplace_back(now, Proximity::Unknown);
        n.sum = 0;
        n.count = 0;
    };
    source.setClock(&clock);
    source.setSink([&](const Sighting& sighting) {
        engine.addSighting(sighting);
        for (std::size_t i = 0; i < regions.size(); ++i) {
            if (!regions[i]->matches(sighting.proximityUUID, sighting.major, sighting.minor))
                continue;
            Naive& n = naive[i];
            if (!n.inside) {
                n.inside = true;
                n.track.entries.push_back(sighting.timeNs);
            }
            n.lastHeardNs = sighting.timeNs;
            n.sum += sighting.rssi;
            ++n.count;
            n.measuredPower = sighting.measuredPower;
        }
    });
    engine.scanningWanted = [&](bool wanted) { source.setScanning(wanted); };
    for (const auto& region : regions) {
        engine.startMonitoring(region);
        engine.startRanging(region);
    }
    const std::int64_t end = scenarioEnd(scenario);
    clock.advanceTo(end);

    for (std::size_t i = 0; i < scenario.beacons.size(); ++i) {
        const auto& b = scenario.beacons[i];
        const auto [arrival, departure] = presence(b);
        std::printf("beacon %zu (%d-%d): interval %.2f s, loss %.0f%%, noise %.1f dB, at %s m "
                    "from %s s to %s\n",
                    i, b.major, b.minor, b.intervalS, b.loss * 100, b.noiseDb,
                    qPrintable(b.path.size() > 1 && b.path[1].distanceM
                                   ? QString::number(*b.path[1].distanceM)
                               : b.path[0].distanceM ? QString::number(*b.path[0].distanceM)
                                                     : QStringLiteral("?")),
                    qPrintable(arrival ? QString::number(*arrival) : QStringLiteral("-")),
                    qPrintable(departure ? QString::number(*departure) + QStringLiteral(" s")
                                         : QStringLiteral("the end")));
        printRow("engine", measure(tracks[i], arrival, departure, end));
        printRow("naive", measure(naive[i].track, arrival, departure, end));
    }
}

// A beacon standing at distanceM for an hour; then, to measure reaction, a minute at nearM and a
// jump to farM.
struct SweepResult
{
    double flipsPerMinute;
    double reactionS;
};

SweepResult sweepOne(ProximityFilter::Tuning tuning, double distanceM, double nearM, double farM,
                     double intervalS)
{
    constexpr double hour = 3600;
    Scenario scenario;
    scenario.seed = 99;
    ScenarioBeacon beacon;
    beacon.uuid = QUuid::fromString(QStringLiteral("E1876979-75B5-43DE-92CB-2BC1AD6BA999"));
    beacon.intervalS = intervalS;
    beacon.loss = 0.3;
    beacon.noiseDb = 4;
    beacon.path = {
        {0, distanceM}, {hour, distanceM}, {hour, nearM}, {hour + 60, nearM}, {hour + 60, farM}};
    scenario.beacons.push_back(beacon);

    VirtualClock clock;
    SimulatedSource source(scenario);
    ProximityFilter filter(tuning);
    int heard = 0;
    source.setClock(&clock);
    source.setSink([&](const Sighting& s) {
        filter.addReading(s.timeNs, s.rssi);
        ++heard;
    });
    source.setScanning(true);
    int flips = 0;
    std::optional<Proximity> previous;
    const Proximity target = ProximityFilter::bandFor(farM);
    double reaction = -1;
    for (std::int64_t t = second; t <= static_cast<std::int64_t>((hour + 120) * 1e9); t += second) {
        clock.advanceTo(t);
        const Proximity word = heard > 0 ? filter.update(beacon.measuredPower) : Proximity::Unknown;
        heard = 0;
        if (t <= hour * 1e9) {
            if (t >= settleNs && previous && word != *previous)
                ++flips;
            previous = word;
        } else if (t > (hour + 60) * 1e9 && reaction < 0 && word == target) {
            reaction = seconds(t) - hour - 60;
        }
    }
    return {flips / ((hour - seconds(settleNs)) / 60.0), reaction};
}

void sweep()
{
    std::printf("\nsweep: beacon on the Near/Far limit (3.0 m), 30%% loss, 4 dB noise, one hour;\n"
                "reaction = seconds until the word reads Far after a jump from 1.5 to 6 m\n");
    for (const double intervalS : {0.1, 1.0}) {
        std::printf("  advertising interval %.1f s\n", intervalS);
        std::printf("    tau s  margin dB  flips/min  reaction s\n");
        for (const double tau : {0.1, 1.0, 2.0, 4.0}) {
            for (const double margin : {0.0, 1.0, 2.5, 4.0}) {
                const ProximityFilter::Tuning tuning{static_cast<std::int64_t>(tau * 1e9), margin};
                const SweepResult r = sweepOne(tuning, 3.0, 1.5, 6.0, intervalS);
                std::printf("    %5.1f  %9.1f  %9.2f  %10.0f%s\n", tau, margin, r.flipsPerMinute,
                            r.reactionS,
                            tuning.timeConstantNs == ProximityFilter::Tuning{}.timeConstantNs &&
                                    margin == ProximityFilter::Tuning{}.hysteresisDb
                                ? "   <- chosen"
                                : "");
            }
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QString path = argc > 1 ? QString::fromLocal8Bit(argv[1])
                                  : QStringLiteral(QUORLIX_SCENARIO_DIR "/stationary.json");
    QString error;
    const std::optional<Scenario> scenario = Scenario::load(path, &error);
    if (!scenario) {
        std::fprintf(stderr, "engine_quality: %s\n", qPrintable(error));
        return 1;
    }
    std::printf("scenario %s (exit period %.0f s, naive exit after %.0f s of silence)\n",
                qPrintable(path), seconds(RegionEngine::defaultExitPeriodNs),
                seconds(naiveTimeoutNs));
    runScenario(*scenario);
    sweep();
    return 0;
}
