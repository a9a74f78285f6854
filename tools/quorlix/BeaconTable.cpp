#include "BeaconTable.h"

#include <algorithm>
#include <cmath>

namespace QuorlixTool {

BeaconTable::BeaconTable(Quorlix::LocationSettings settings)
    : m_settings(std::move(settings))
    , m_model{m_settings.pathLossExponent, m_settings.immediateLimitM, m_settings.nearLimitM}
{}

void BeaconTable::add(const Quorlix::Sighting& sighting)
{
    const Quorlix::BeaconId id{sighting.proximityUUID, sighting.major, sighting.minor};
    auto found = m_beacons.find(id);
    if (found == m_beacons.end()) {
        found = m_beacons.insert(id, Entry{});
        found->firstNs = sighting.timeNs;
    }
    Entry& entry = *found;
    // A receiver's calibrated offset applies to its own readings, as the region engine does it.
    double offset = 0;
    for (auto it = m_settings.rssiOffset.cbegin(); it != m_settings.rssiOffset.cend(); ++it) {
        if (it.key().compare(QLatin1StringView(sighting.receiver), Qt::CaseInsensitive) == 0)
            offset = it.value();
    }
    entry.filter.addReading(sighting.timeNs, sighting.rssi + offset);
    entry.lastNs = sighting.timeNs;
    entry.address = sighting.address;
    entry.recent.push_back(sighting.timeNs);
    while (!entry.recent.empty() && entry.recent.front() <= sighting.timeNs - rateWindowNs)
        entry.recent.pop_front();
    // Calibration first, then the advert's own value; 0 means the beacon was never calibrated.
    entry.measuredPower = m_settings.measuredPower.value(
        id, sighting.measuredPower != 0 ? sighting.measuredPower
                                        : Quorlix::ProximityFilter::defaultMeasuredPower);
}

std::vector<BeaconTable::Row> BeaconTable::rows(std::int64_t nowNs)
{
    std::vector<Row> rows;
    for (auto it = m_beacons.begin(); it != m_beacons.end();) {
        Entry& entry = *it;
        if (nowNs - entry.lastNs >= forgetAfterNs) {
            it = m_beacons.erase(it);
            continue;
        }
        while (!entry.recent.empty() && entry.recent.front() <= nowNs - rateWindowNs)
            entry.recent.pop_front();
        // A beacon heard for less than the window is rated over the time it has been heard.
        const std::int64_t spanNs =
            std::clamp<std::int64_t>(nowNs - entry.firstNs, 1'000'000'000, rateWindowNs);
        Row row;
        row.id = it.key();
        row.proximity = entry.filter.update(entry.measuredPower, m_model);
        row.rssi = static_cast<int>(std::lround(entry.filter.smoothedRssi()));
        row.distanceM = entry.filter.distance(entry.measuredPower, m_model);
        row.readingsPerSecond =
            static_cast<double>(entry.recent.size()) * 1e9 / static_cast<double>(spanNs);
        row.lastHeardS = static_cast<double>(nowNs - entry.lastNs) / 1e9;
        row.address = entry.address;
        rows.push_back(row);
        ++it;
    }
    std::sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
        return std::tuple(a.id.proximityUUID.toString(), a.id.major, a.id.minor) <
               std::tuple(b.id.proximityUUID.toString(), b.id.major, b.id.minor);
    });
    return rows;
}

QString BeaconTable::word(Quorlix::Proximity proximity)
{
    switch (proximity) {
    case Quorlix::Proximity::Immediate:
        return QStringLiteral("Immediate");
    case Quorlix::Proximity::Near:
        return QStringLiteral("Near");
    case Quorlix::Proximity::Far:
        return QStringLiteral("Far");
    case Quorlix::Proximity::Unknown:
        break;
    }
    return QStringLiteral("Unknown");
}

QVariant BeaconTable::metres(double distanceM)
{
    if (!(distanceM >= 0) || !std::isfinite(distanceM))
        return QVariant::fromValue(nullptr);
    return std::round(distanceM * 100) / 100;
}

} // namespace QuorlixTool
