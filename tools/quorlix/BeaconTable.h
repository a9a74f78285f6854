#pragma once

#include "quorlix/location/Beacon.h"
#include "quorlix/location/LocationSettings.h"
#include "quorlix/location/ProximityFilter.h"
#include "quorlix/location/Sighting.h"

#include <QHash>
#include <QVariant>

#include <deque>
#include <vector>

namespace QuorlixTool {

/// What scan shows: every beacon heard lately, with its smoothed signal, proximity word, distance,
/// reading rate and the time since it was last heard.
class BeaconTable
{
public:
    struct Row
    {
        Quorlix::BeaconId id;
        int rssi = 0; ///< smoothed, dBm
        Quorlix::Proximity proximity = Quorlix::Proximity::Unknown;
        double distanceM = -1;
        double readingsPerSecond = 0;
        double lastHeardS = 0; ///< seconds ago
        /// The transmitter's Bluetooth address in its latest advert ("C0:FF:EE:00:00:01"); a
        /// beacon that changes its address shows the newest.
        QByteArray address;
    };

    /// A beacon unheard this long leaves the table.
    static constexpr std::int64_t forgetAfterNs = 10'000'000'000;
    /// Readings per second are counted over this window.
    static constexpr std::int64_t rateWindowNs = 5'000'000'000;

    /// Calibration applies as in the library's ranging: measured powers take the place of what
    /// adverts say, receiver offsets, the path-loss exponent and the band limits count too.
    explicit BeaconTable(Quorlix::LocationSettings settings);

    void add(const Quorlix::Sighting& sighting);
    /// Updates the words and drops forgotten beacons; rows ordered by UUID, major, minor.
    std::vector<Row> rows(std::int64_t nowNs);
    std::size_t size() const { return static_cast<std::size_t>(m_beacons.size()); }

    /// "Immediate", "Near", "Far" or "Unknown", as the library's ranging reports name them.
    static QString word(Quorlix::Proximity proximity);
    /// A distance rounded to centimetres for output; null (JSON) when unknown.
    static QVariant metres(double distanceM);

private:
    struct Entry
    {
        Quorlix::ProximityFilter filter;
        std::deque<std::int64_t> recent;
        std::int64_t firstNs = 0;
        std::int64_t lastNs = 0;
        int measuredPower = Quorlix::ProximityFilter::defaultMeasuredPower;
        QByteArray address;
    };

    Quorlix::LocationSettings m_settings;
    Quorlix::ProximityFilter::Model m_model;
    QHash<Quorlix::BeaconId, Entry> m_beacons;
};

} // namespace QuorlixTool
