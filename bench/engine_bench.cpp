// Region engine throughput (sightings per second with 1, 100 and 1,000 tracked beacons, ranging
// and monitoring running) and memory over 10 M sightings of a rotating population.
//
//   bench_engine [--benchmark_filter=...]
#include "quorlix/location/RegionEngine.h"
#include "quorlix/location/VirtualClock.h"

#include <benchmark/benchmark.h>

#include <fstream>
#include <unistd.h>

using namespace Quorlix;

namespace {

const QUuid family = QUuid::fromString(QStringLiteral("E1876979-75B5-43DE-92CB-2BC1AD6BA999"));

std::shared_ptr<BeaconRegion> everyBeacon(const char* id)
{
    return std::make_shared<BeaconRegion>(BeaconRegion{family, {}, {}, QString::fromLatin1(id)});
}

Sighting sighting(std::int64_t timeNs, int beacon, int rssi)
{
    return Sighting{timeNs,
                    "C0:FF:EE:00:00:01",
                    family,
                    static_cast<quint16>(beacon / 1000),
                    static_cast<quint16>(beacon % 1000),
                    -59,
                    rssi};
}

void attach(RegionEngine& engine)
{
    engine.ranged = [](const QList<Beacon>& beacons, const std::shared_ptr<BeaconRegion>&) {
        benchmark::DoNotOptimize(beacons.size());
    };
    engine.entered = [](const std::shared_ptr<BeaconRegion>&) {};
    engine.exited = [](const std::shared_ptr<BeaconRegion>&) {};
    engine.startMonitoring(everyBeacon("monitored"));
    engine.startRanging(everyBeacon("ranged"));
}

// Sightings spread evenly over the tracked beacons, 100,000 a second of virtual time: the engine's
// ranging ticks (averaging, sorting, reports) are part of the cost measured.
void sightingsPerSecond(benchmark::State& state)
{
    const int beacons = static_cast<int>(state.range(0));
    VirtualClock clock;
    RegionEngine engine(clock);
    attach(engine);
    std::vector<int> rssi(4096);
    for (std::size_t i = 0; i < rssi.size(); ++i)
        rssi[i] = -60 - static_cast<int>((i * 7919) % 25);
    std::int64_t n = 0;
    for (auto _ : state) {
        const std::int64_t now = n * 10'000;
        if ((n & 1023) == 0)
            clock.advanceTo(now);
        engine.addSighting(sighting(now, static_cast<int>(n % beacons), rssi[n & 4095]));
        ++n;
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["tracked"] = static_cast<double>(engine.trackedCount());
    state.counters["ns_per_sighting"] =
        benchmark::Counter(static_cast<double>(state.iterations()),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(sightingsPerSecond)->Arg(1)->Arg(100)->Arg(1000);

double residentMiB()
{
    std::ifstream statm("/proc/self/statm");
    long size = 0;
    long resident = 0;
    statm >> size >> resident;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1048576.0;
}

// 10 M sightings, 100,000 a virtual second; each second a fresh set of 1,000 beacons replaces the
// last (100,000 distinct beacons in all). The tracking window would hold 5,000: the cap holds it.
void rotatingPopulationMemory(benchmark::State& state)
{
    for (auto _ : state) {
        VirtualClock clock;
        RegionEngine engine(clock);
        attach(engine);
        std::size_t mostTracked = 0;
        for (std::int64_t n = 0; n < 10'000'000; ++n) {
            const std::int64_t now = n * 10'000;
            if ((n & 1023) == 0) {
                clock.advanceTo(now);
                mostTracked = std::max(mostTracked, engine.trackedCount());
            }
            const int beacon = static_cast<int>(n % 1000 + 1000 * (now / 1'000'000'000));
            engine.addSighting(sighting(now, beacon, -70));
            if (n + 1 == 1'000'000)
                state.counters["rss_MiB_at_1M"] = residentMiB();
            if (n + 1 == 5'000'000)
                state.counters["rss_MiB_at_5M"] = residentMiB();
        }
        state.counters["rss_MiB_at_10M"] = residentMiB();
        state.counters["most_tracked"] = static_cast<double>(mostTracked);
    }
    state.SetItemsProcessed(state.iterations() * 10'000'000);
}
BENCHMARK(rotatingPopulationMemory)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
