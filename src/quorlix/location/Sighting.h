#pragma once

#include <QByteArray>
#include <QUuid>

#include <cstdint>

namespace Quorlix {

/// One received iBeacon advert, as a beacon source hands it to the region engine.
struct Sighting
{
    std::int64_t timeNs = 0; ///< on the engine's clock
    QByteArray address;      ///< the advertiser's address, e.g. "C0:FF:EE:00:00:01"
    QUuid proximityUUID;
    quint16 major = 0;
    quint16 minor = 0;
    qint8 measuredPower = 0; ///< the beacon's RSSI at 1 m, in dBm
    int rssi = 0;            ///< dBm
    /// The receiving adapter's address ("00:1A:7D:DA:71:13"), for its RSSI offset; empty when the
    /// source does not know it.
    QByteArray receiver{};

    friend bool operator==(const Sighting&, const Sighting&) = default;
};

} // namespace Quorlix
