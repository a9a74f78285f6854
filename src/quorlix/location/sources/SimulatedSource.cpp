#include "quorlix/location/sources/SimulatedSource.h"

#include <cmath>
#include <random>

namespace Quorlix {
namespace {

// Uniform in (0, 1], from the top 53 bits; spelled out so that runs repeat across standard
// libraries.
double uniform(std::mt19937_64& rng)
{
    return (static_cast<double>(rng() >> 11) + 1.0) * 0x1.0p-53;
}

double gaussian(std::mt19937_64& rng)
{
    const double u1 = uniform(rng);
    const double u2 = uniform(rng);
    return std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * M_PI * u2);
}

} // namespace

struct SimulatedSource::Emitter
{
    std::mt19937_64 rng;
    std::int64_t nextNs = 0;
    Clock::TimerId timer = 0;
};

SimulatedSource::SimulatedSource(Scenario scenario)
    : m_scenario(std::move(scenario))
{
    m_emitters.resize(m_scenario.beacons.size());
    for (std::size_t i = 0; i < m_emitters.size(); ++i) {
        // One stream per beacon: adding a beacon leaves the others' traffic as it was.
        std::seed_seq seq{static_cast<std::uint32_t>(m_scenario.seed),
                          static_cast<std::uint32_t>(m_scenario.seed >> 32),
                          static_cast<std::uint32_t>(i)};
        m_emitters[i].rng.seed(seq);
    }
}

SimulatedSource::~SimulatedSource()
{
    setScanning(false);
}

void SimulatedSource::setScanning(bool wanted)
{
    Clock* timeBase = clock();
    if (timeBase == nullptr)
        return;
    if (!wanted) {
        for (Emitter& emitter : m_emitters) {
            if (emitter.timer != 0)
                timeBase->cancel(emitter.timer);
            emitter.timer = 0;
        }
        return;
    }
    const std::int64_t now = timeBase->nowNs();
    if (!m_started) {
        m_started = true;
        m_originNs = now;
        for (std::size_t i = 0; i < m_emitters.size(); ++i) {
            const double interval = m_scenario.beacons[i].intervalS;
            m_emitters[i].nextNs = now + std::llround(uniform(m_emitters[i].rng) * interval * 1e9);
        }
    }
    for (std::size_t i = 0; i < m_emitters.size(); ++i) {
        Emitter& emitter = m_emitters[i];
        if (emitter.timer != 0)
            continue;
        // Adverts sent while nobody listened are gone.
        const auto intervalNs = std::llround(m_scenario.beacons[i].intervalS * 1e9);
        if (emitter.nextNs < now)
            emitter.nextNs += (now - emitter.nextNs + intervalNs - 1) / intervalNs * intervalNs;
        emitter.timer = timeBase->schedule(emitter.nextNs, [this, i] { advertise(i); });
    }
}

void SimulatedSource::advertise(std::size_t index)
{
    Emitter& emitter = m_emitters[index];
    const ScenarioBeacon& beacon = m_scenario.beacons[index];
    const std::int64_t sentNs = emitter.nextNs;
    // BLE adds a random 0-10 ms delay to every advertising event.
    const double jitterS = uniform(emitter.rng) * 0.01;
    emitter.nextNs = sentNs + std::llround((beacon.intervalS + jitterS) * 1e9);
    emitter.timer = clock()->schedule(emitter.nextNs, [this, index] { advertise(index); });

    // Drawn for every advert, heard or not, so that the stream does not depend on the path.
    const double lossDraw = uniform(emitter.rng);
    const double noise = gaussian(emitter.rng);
    const std::optional<double> distance =
        beacon.distanceAt(static_cast<double>(sentNs - m_originNs) / 1e9);
    if (!distance || lossDraw <= beacon.loss)
        return;
    const double rssi = beacon.measuredPower -
                        10.0 * m_scenario.pathLossExponent * std::log10(*distance) +
                        beacon.noiseDb * noise;
    if (rssi < m_scenario.sensitivityDbm)
        return;
    Sighting sighting;
    sighting.timeNs = clock()->nowNs();
    sighting.address = beacon.address;
    sighting.proximityUUID = beacon.uuid;
    sighting.major = beacon.major;
    sighting.minor = beacon.minor;
    sighting.measuredPower = beacon.measuredPower;
    sighting.rssi = static_cast<int>(std::lround(rssi));
    deliver(sighting);
}

} // namespace Quorlix
