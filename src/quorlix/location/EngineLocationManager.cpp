#include "quorlix/location/EngineLocationManager.h"

namespace Quorlix {

EngineLocationManager::EngineLocationManager(std::shared_ptr<Clock> clock,
                                             std::unique_ptr<BeaconSource> source)
    : m_clock(std::move(clock))
    , m_engine(std::make_unique<RegionEngine>(*m_clock))
    , m_source(std::move(source))
{
    // The delegate is read at each report, never cached: hosts set and clear it at any time.
    m_engine->entered = [this](const std::shared_ptr<BeaconRegion>& region) {
        if (delegate != nullptr)
            delegate->didEnterRegion(this, region.get());
    };
    m_engine->exited = [this](const std::shared_ptr<BeaconRegion>& region) {
        if (delegate != nullptr)
            delegate->didExitRegion(this, region.get());
    };
    m_engine->ranged = [this](const QList<Beacon>& beacons,
                              const std::shared_ptr<BeaconRegion>& region) {
        if (delegate != nullptr)
            delegate->didRangeBeacons(this, beacons, region.get());
    };
    applyToEngine();
    if (m_source) {
        m_source->setClock(m_clock.get());
        RegionEngine* engine = m_engine.get();
        m_source->setSink([engine](const Sighting& sighting) { engine->addSighting(sighting); });
        BeaconSource* source = m_source.get();
        m_engine->scanningWanted = [source](bool wanted) { source->setScanning(wanted); };
    }
}

EngineLocationManager::~EngineLocationManager()
{
    if (m_source) {
        m_source->setScanning(false);
        m_source->setSink({});
    }
}

void EngineLocationManager::startMonitoring(const std::shared_ptr<BeaconRegion>& region)
{
    m_engine->startMonitoring(region);
}

void EngineLocationManager::stopMonitoring(const std::shared_ptr<BeaconRegion>& region)
{
    m_engine->stopMonitoring(region);
}

void EngineLocationManager::startRangingBeacons(const std::shared_ptr<BeaconRegion>& region)
{
    m_engine->startRanging(region);
}

void EngineLocationManager::stopRangingBeacons(const std::shared_ptr<BeaconRegion>& region)
{
    m_engine->stopRanging(region);
}

bool EngineLocationManager::applySettings(const LocationSettings& settings, QString* error)
{
    if (!LocationManager::applySettings(settings, error))
        return false;
    applyToEngine();
    return true;
}

void EngineLocationManager::applyToEngine()
{
    m_engine->applySettings(settings());
}

} // namespace Quorlix
