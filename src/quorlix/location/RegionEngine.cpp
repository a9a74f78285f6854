#include "quorlix/location/RegionEngine.h"

#include "quorlix/location/ProximityFilter.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <list>
#include <unordered_map>

namespace Quorlix {
namespace {

struct BeaconKey
{
    QUuid uuid;
    quint16 major = 0;
    quint16 minor = 0;

    friend bool operator==(const BeaconKey&, const BeaconKey&) = default;
};

struct BeaconKeyHash
{
    std::size_t operator()(const BeaconKey& key) const noexcept
    {
        std::uint64_t tail = 0;
        std::memcpy(&tail, key.uuid.data4, sizeof tail);
        std::uint64_t hash = (std::uint64_t{key.uuid.data1} << 32 |
                              std::uint64_t{key.uuid.data2} << 16 | key.uuid.data3) *
                             0x9E3779B97F4A7C15ULL;
        hash ^= tail + 0x7F4A7C159E3779B9ULL + (hash << 6) + (hash >> 2);
        hash ^= (std::uint64_t{key.major} << 16 | key.minor) * 0xC2B2AE3D27D4EB4FULL;
        return static_cast<std::size_t>(hash ^ (hash >> 29));
    }
};

struct Tracked
{
    BeaconKey key;
    int advertisedPower = 0;
    int calibratedPower = 0; ///< from the settings; 0 when they name none for this beacon
    std::int64_t lastHeardNs = 0;
    /// Smoothed time between readings; negative until the second reading.
    double meanIntervalNs = -1;
    ProximityFilter filter;
    // Readings since the last ranging tick, and what they came to at the last tick with some.
    double rssiSum = 0;
    int rssiCount = 0;
    bool quiet = true;
    int lastRssi = 0;

    int power() const { return calibratedPower != 0 ? calibratedPower : advertisedPower; }
};

// Until a second reading shows a beacon's pace, it is taken to read once a second: a beacon heard
// once turns Unknown after a few seconds and is forgotten a few seconds later, yet one that reads
// every 5 s is still listed when its second reading comes.
constexpr double firstIntervalNs = 1e9;
// Weight of a new interval in the smoothed one. The intervals of a lossy beacon spread about as
// much as their mean; at 1/16 the smoothed one stays within about 20% of it, and follows a change
// of pace within some 16 readings.
constexpr double intervalWeight = 1.0 / 16;

struct Watch
{
    std::uint64_t id = 0;
    std::shared_ptr<BeaconRegion> region;
    bool inside = false;
    std::int64_t lastMatchNs = 0;
};

// Saturating, so that a huge exit period means "never" rather than an overflow.
std::int64_t deadline(std::int64_t lastMatchNs, std::int64_t periodNs)
{
    return lastMatchNs > std::numeric_limits<std::int64_t>::max() - periodNs
               ? std::numeric_limits<std::int64_t>::max()
               : lastMatchNs + periodNs;
}

Watch* findWatch(std::vector<Watch>& watches, std::uint64_t id)
{
    const auto found =
        std::find_if(watches.begin(), watches.end(), [id](const Watch& w) { return w.id == id; });
    return found == watches.end() ? nullptr : &*found;
}

bool matches(const BeaconRegion& region, const BeaconKey& key)
{
    return region.matches(key.uuid, key.major, key.minor);
}

Beacon report(const Tracked& tracked, const ProximityFilter::Model& model)
{
    Beacon beacon;
    beacon.proximityUUID = tracked.key.uuid;
    beacon.major = tracked.key.major;
    beacon.minor = tracked.key.minor;
    // Still tracked but quiet for longer than its pace explains: no current reading.
    if (!tracked.quiet) {
        beacon.proximity = tracked.filter.proximity();
        beacon.rssi = tracked.lastRssi;
        beacon.accuracy = tracked.filter.distance(tracked.power(), model);
    }
    return beacon;
}

} // namespace

struct RegionEngine::State
{
    std::list<Tracked> tracked; // most recently heard first
    std::unordered_map<BeaconKey, std::list<Tracked>::iterator, BeaconKeyHash> index;
    std::vector<Watch> monitored;
    std::vector<Watch> rangedRegions;
    std::vector<std::uint64_t> pendingEntries;
    std::uint64_t lastWatchId = 0;
    Clock::TimerId flushTimer = 0;
    Clock::TimerId exitTimer = 0;
    std::int64_t exitTimerAtNs = 0;
    Clock::TimerId tickTimer = 0;
    std::int64_t nextTickNs = 0;
    ProximityFilter::Model model;
    QHash<BeaconId, int> measuredPower;
    // Few receivers, compared byte-wise per sighting: cheaper than hashing the address.
    std::vector<std::pair<QByteArray, double>> rssiOffset;

    int calibratedPower(const BeaconKey& key) const
    {
        return measuredPower.value(BeaconId{key.uuid, key.major, key.minor}, 0);
    }

    double offsetOf(const QByteArray& receiver) const
    {
        for (const auto& [address, offset] : rssiOffset) {
            if (address.compare(receiver, Qt::CaseInsensitive) == 0)
                return offset;
        }
        return 0;
    }

    void forget(std::list<Tracked>::iterator it)
    {
        index.erase(it->key);
        tracked.erase(it);
    }
};

RegionEngine::RegionEngine(Clock& clock)
    : RegionEngine(clock, Tuning{})
{}

RegionEngine::RegionEngine(Clock& clock, Tuning tuning)
    : m_clock(clock)
    , m_tuning(tuning)
    , m_state(std::make_unique<State>())
{}

RegionEngine::~RegionEngine()
{
    *m_alive = false;
    for (const Clock::TimerId timer :
         {m_state->flushTimer, m_state->exitTimer, m_state->tickTimer}) {
        if (timer != 0)
            m_clock.cancel(timer);
    }
}

namespace {

void removeByIdentifier(std::vector<Watch>& watches, const BeaconRegion& region)
{
    std::erase_if(watches,
                  [&](const Watch& w) { return w.region->identifier == region.identifier; });
}

} // namespace

void RegionEngine::startMonitoring(const std::shared_ptr<BeaconRegion>& region)
{
    if (!region)
        return;
    removeByIdentifier(m_state->monitored, *region);
    m_state->monitored.push_back(Watch{++m_state->lastWatchId, region, false, 0});
    updateScanning();
}

void RegionEngine::stopMonitoring(const std::shared_ptr<BeaconRegion>& region)
{
    if (!region)
        return;
    removeByIdentifier(m_state->monitored, *region);
    armExitTimer();
    updateScanning();
}

void RegionEngine::startRanging(const std::shared_ptr<BeaconRegion>& region)
{
    if (!region)
        return;
    removeByIdentifier(m_state->rangedRegions, *region);
    m_state->rangedRegions.push_back(Watch{++m_state->lastWatchId, region, false, 0});
    updateScanning();
}

void RegionEngine::stopRanging(const std::shared_ptr<BeaconRegion>& region)
{
    if (!region)
        return;
    removeByIdentifier(m_state->rangedRegions, *region);
    updateScanning();
}

void RegionEngine::setExitPeriodNs(std::int64_t periodNs)
{
    m_exitPeriodNs = std::max<std::int64_t>(0, periodNs);
    // A shorter period may bring the next exit forward.
    if (m_state->exitTimer != 0 && m_state->exitTimerAtNs > m_clock.nowNs()) {
        m_clock.cancel(m_state->exitTimer);
        m_state->exitTimer = 0;
    }
    armExitTimer();
}

void RegionEngine::applySettings(const LocationSettings& settings)
{
    State& state = *m_state;
    state.model = {settings.pathLossExponent, settings.immediateLimitM, settings.nearLimitM};
    state.measuredPower = settings.measuredPower;
    state.rssiOffset.clear();
    for (auto it = settings.rssiOffset.begin(); it != settings.rssiOffset.end(); ++it)
        state.rssiOffset.emplace_back(it.key().toLatin1(), it.value());
    for (Tracked& beacon : state.tracked)
        beacon.calibratedPower = state.calibratedPower(beacon.key);
    setExitPeriodNs(
        std::chrono::duration_cast<std::chrono::nanoseconds>(settings.exitPeriod).count());
}

std::size_t RegionEngine::trackedCount() const
{
    return m_state->index.size();
}

void RegionEngine::addSighting(const Sighting& sighting)
{
    State& state = *m_state;
    const BeaconKey key{sighting.proximityUUID, sighting.major, sighting.minor};

    bool newEntry = false;
    for (Watch& watch : state.monitored) {
        if (!matches(*watch.region, key))
            continue;
        watch.lastMatchNs = std::max(watch.lastMatchNs, sighting.timeNs);
        if (!watch.inside) {
            watch.inside = true;
            state.pendingEntries.push_back(watch.id);
            newEntry = true;
        }
    }
    if (newEntry) {
        scheduleFlush();
        armExitTimer();
    }

    // Only beacons that some ranging wants are tracked, so foreign beacons cost no memory.
    const bool wanted = std::any_of(state.rangedRegions.begin(), state.rangedRegions.end(),
                                    [&](const Watch& w) { return matches(*w.region, key); });
    if (!wanted)
        return;

    auto found = state.index.find(key);
    std::list<Tracked>::iterator it;
    if (found == state.index.end()) {
        if (state.index.size() >= maxTrackedBeacons)
            state.forget(std::prev(state.tracked.end()));
        state.tracked.emplace_front();
        state.tracked.front().key = key;
        state.tracked.front().calibratedPower = state.calibratedPower(key);
        it = state.tracked.begin();
        state.index.emplace(key, it);
    } else {
        it = found->second;
        if (it != state.tracked.begin())
            state.tracked.splice(state.tracked.begin(), state.tracked, it);
        Tracked& beacon = *it;
        // Sightings out of order count as arriving together.
        const double gap = static_cast<double>(std::min(
            std::max<std::int64_t>(sighting.timeNs - beacon.lastHeardNs, 0), m_tuning.maxQuietNs));
        beacon.meanIntervalNs =
            beacon.meanIntervalNs < 0
                ? gap
                : beacon.meanIntervalNs + intervalWeight * (gap - beacon.meanIntervalNs);
    }
    Tracked& beacon = *it;
    const double rssi = state.rssiOffset.empty()
                            ? sighting.rssi
                            : sighting.rssi + state.offsetOf(sighting.receiver);
    beacon.advertisedPower = sighting.measuredPower;
    beacon.lastHeardNs = std::max(beacon.lastHeardNs, sighting.timeNs);
    beacon.filter.addReading(sighting.timeNs, rssi);
    beacon.rssiSum += rssi;
    ++beacon.rssiCount;
}

std::int64_t RegionEngine::quietAfterNs(double meanIntervalNs) const
{
    const double interval = meanIntervalNs < 0 ? firstIntervalNs : meanIntervalNs;
    const double quiet =
        std::min(m_tuning.quietIntervals * interval, static_cast<double>(m_tuning.maxQuietNs));
    return std::max(rangingIntervalNs, static_cast<std::int64_t>(quiet));
}

void RegionEngine::updateScanning()
{
    State& state = *m_state;
    // The ranging tick runs only while something is ranged; monitoring alone needs no timer but
    // its exit deadline.
    const bool ticking = !state.rangedRegions.empty();
    if (ticking && state.tickTimer == 0) {
        state.nextTickNs = m_clock.nowNs() + rangingIntervalNs;
        state.tickTimer = m_clock.schedule(state.nextTickNs, [this] { onTick(); });
    } else if (!ticking && state.tickTimer != 0) {
        m_clock.cancel(state.tickTimer);
        state.tickTimer = 0;
        state.tracked.clear();
        state.index.clear();
    }
    const bool wanted = !state.monitored.empty() || ticking;
    if (wanted == m_scanning)
        return;
    m_scanning = wanted;
    if (scanningWanted)
        scanningWanted(wanted);
}

void RegionEngine::scheduleFlush()
{
    if (m_state->flushTimer == 0)
        m_state->flushTimer = m_clock.schedule(m_clock.nowNs(), [this] { onFlush(); });
}

void RegionEngine::armExitTimer()
{
    State& state = *m_state;
    std::int64_t earliest = 0;
    bool any = false;
    for (const Watch& watch : state.monitored) {
        if (watch.inside) {
            const std::int64_t due = deadline(watch.lastMatchNs, m_exitPeriodNs);
            earliest = any ? std::min(earliest, due) : due;
            any = true;
        }
    }
    if (!any) {
        m_clock.cancel(state.exitTimer);
        state.exitTimer = 0;
        return;
    }
    // An earlier timer is kept: when it fires it finds the later deadline and re-arms.
    if (state.exitTimer != 0 && state.exitTimerAtNs <= earliest)
        return;
    m_clock.cancel(state.exitTimer);
    state.exitTimerAtNs = earliest;
    state.exitTimer = m_clock.schedule(earliest, [this] { onExitTimer(); });
}

void RegionEngine::onFlush()
{
    m_state->flushTimer = 0;
    std::vector<std::uint64_t> entries;
    entries.swap(m_state->pendingEntries);
    const std::shared_ptr<bool> alive = m_alive;
    for (const std::uint64_t id : entries) {
        // The region may have been stopped (or replaced) since, also by an earlier handler here.
        const Watch* watch = findWatch(m_state->monitored, id);
        if (watch == nullptr || !watch->inside || !entered)
            continue;
        const std::shared_ptr<BeaconRegion> region = watch->region;
        const RegionHandler handler = entered;
        handler(region);
        if (!*alive)
            return;
    }
}

void RegionEngine::onExitTimer()
{
    State& state = *m_state;
    state.exitTimer = 0;
    const std::int64_t now = m_clock.nowNs();
    std::vector<std::uint64_t> exits;
    for (Watch& watch : state.monitored) {
        // The same test as the timer's time, or the timer would be re-armed for the same moment.
        if (watch.inside && now >= deadline(watch.lastMatchNs, m_exitPeriodNs)) {
            watch.inside = false;
            exits.push_back(watch.id);
        }
    }
    armExitTimer();
    const std::shared_ptr<bool> alive = m_alive;
    for (const std::uint64_t id : exits) {
        const Watch* watch = findWatch(state.monitored, id);
        if (watch == nullptr || watch->inside || !exited)
            continue;
        const std::shared_ptr<BeaconRegion> region = watch->region;
        const RegionHandler handler = exited;
        handler(region);
        if (!*alive)
            return;
    }
}

void RegionEngine::onTick()
{
    State& state = *m_state;
    const std::int64_t now = m_clock.nowNs();
    state.nextTickNs += rangingIntervalNs;
    state.tickTimer = m_clock.schedule(state.nextTickNs, [this] { onTick(); });

    for (auto it = state.tracked.begin(); it != state.tracked.end();) {
        Tracked& beacon = *it;
        const std::int64_t silence = now - beacon.lastHeardNs;
        const std::int64_t quietAfter = quietAfterNs(beacon.meanIntervalNs);
        if (silence > std::max(trackingWindowNs, 2 * quietAfter)) {
            state.forget(it++);
            continue;
        }
        if (beacon.rssiCount > 0) {
            beacon.quiet = false;
            beacon.lastRssi = static_cast<int>(std::lround(beacon.rssiSum / beacon.rssiCount));
            beacon.filter.update(beacon.power(), state.model);
        } else if (silence >= quietAfter) {
            beacon.quiet = true;
        }
        beacon.rssiSum = 0;
        beacon.rssiCount = 0;
        ++it;
    }

    struct Report
    {
        std::uint64_t id;
        std::shared_ptr<BeaconRegion> region;
        QList<Beacon> beacons;
    };
    std::vector<Report> reports;
    reports.reserve(state.rangedRegions.size());
    for (const Watch& watch : state.rangedRegions) {
        Report r{watch.id, watch.region, {}};
        for (const Tracked& beacon : state.tracked) {
            if (matches(*watch.region, beacon.key))
                r.beacons.append(report(beacon, state.model));
        }
        std::sort(r.beacons.begin(), r.beacons.end(), nearerFirst);
        reports.push_back(std::move(r));
    }

    const std::shared_ptr<bool> alive = m_alive;
    for (const Report& r : reports) {
        if (findWatch(state.rangedRegions, r.id) == nullptr || !ranged)
            continue;
        const RangingHandler handler = ranged;
        handler(r.beacons, r.region);
        if (!*alive)
            return;
    }
}

} // namespace Quorlix
