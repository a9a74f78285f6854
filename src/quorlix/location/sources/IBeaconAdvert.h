#pragma once

#include <QByteArray>
#include <QUuid>

#include <optional>

namespace Quorlix {

/// The iBeacon frame carried in Apple's manufacturer-specific advert data.
struct IBeaconFrame
{
    QUuid proximityUUID;
    quint16 major = 0;
    quint16 minor = 0;
    qint8 measuredPower = 0; ///< RSSI at 1 m, dBm

    friend bool operator==(const IBeaconFrame&, const IBeaconFrame&) = default;
};

namespace IBeaconAdvert {

/// Apple's Bluetooth SIG company identifier.
inline constexpr quint16 appleCompanyId = 0x004C;

/// The frame in manufacturer data of companyId (the bytes after the company identifier):
/// type 0x02, length 0x15, UUID, big-endian major and minor, measured power. Anything else,
/// including trailing bytes, is rejected.
std::optional<IBeaconFrame> parse(quint16 companyId, const QByteArray& data);

/// The same on a whole manufacturer-specific AD structure payload: the little-endian company
/// identifier followed by its data, as HCI and trace files carry it.
std::optional<IBeaconFrame> parseManufacturerData(const QByteArray& payload);

} // namespace IBeaconAdvert
} // namespace Quorlix
