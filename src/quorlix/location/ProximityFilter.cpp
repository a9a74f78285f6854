#include "quorlix/location/ProximityFilter.h"

#include <algorithm>
#include <cmath>

namespace Quorlix {
namespace {

int effectivePower(int measuredPower)
{
    return measuredPower == 0 ? ProximityFilter::defaultMeasuredPower : measuredPower;
}

int rank(Proximity band)
{
    return static_cast<int>(band);
}

double outerLimit(Proximity band, const ProximityFilter::Model& model)
{
    return band == Proximity::Immediate ? model.immediateLimitM : model.nearLimitM;
}

} // namespace

ProximityFilter::ProximityFilter()
    : m_tuning(Tuning{})
{}

ProximityFilter::ProximityFilter(Tuning tuning)
    : m_tuning(tuning)
{}

void ProximityFilter::addReading(std::int64_t timeNs, double rssi)
{
    if (!m_primed) {
        m_primed = true;
        m_smoothed = rssi;
        m_lastNs = timeNs;
        return;
    }
    // dt / (tau + dt): the exponential weight 1 - exp(-dt / tau) to first order, exact for evenly
    // spaced readings in the limit, and without an exp() per advert.
    const double step = static_cast<double>(std::max(timeNs - m_lastNs, minimumStepNs));
    const double weight = step / (static_cast<double>(m_tuning.timeConstantNs) + step);
    m_smoothed += weight * (rssi - m_smoothed);
    m_lastNs = std::max(m_lastNs, timeNs);
}

Proximity ProximityFilter::update(int measuredPower, const Model& model)
{
    if (!m_primed)
        return m_band;
    const int power = effectivePower(measuredPower);
    if (m_band == Proximity::Unknown) {
        m_band = bandFor(distanceFor(m_smoothed, power, model), model);
        return m_band;
    }
    // One band at a time, each step only when the average is past the limit by the margin.
    while (m_band != Proximity::Immediate &&
           m_smoothed >= rssiAt(outerLimit(Proximity{rank(m_band) - 1}, model), power, model) +
                             m_tuning.hysteresisDb)
        m_band = Proximity{rank(m_band) - 1};
    while (m_band != Proximity::Far &&
           m_smoothed <= rssiAt(outerLimit(m_band, model), power, model) - m_tuning.hysteresisDb)
        m_band = Proximity{rank(m_band) + 1};
    return m_band;
}

double ProximityFilter::distance(int measuredPower, const Model& model) const
{
    return m_primed ? distanceFor(m_smoothed, measuredPower, model) : -1.0;
}

double ProximityFilter::distanceFor(double rssi, int measuredPower, const Model& model)
{
    return std::pow(10.0, (effectivePower(measuredPower) - rssi) / (10.0 * model.pathLossExponent));
}

double ProximityFilter::rssiAt(double distanceM, int measuredPower, const Model& model)
{
    return effectivePower(measuredPower) - 10.0 * model.pathLossExponent * std::log10(distanceM);
}

Proximity ProximityFilter::bandFor(double distanceM, const Model& model)
{
    if (distanceM < model.immediateLimitM)
        return Proximity::Immediate;
    return distanceM < model.nearLimitM ? Proximity::Near : Proximity::Far;
}

} // namespace Quorlix
