#include "quorlix/location/sources/IBeaconAdvert.h"

namespace Quorlix::IBeaconAdvert {
namespace {

constexpr char frameType = 0x02;
constexpr char frameLength = 0x15;
constexpr qsizetype frameSize = 2 + frameLength;

quint16 bigEndian16(const QByteArray& data, qsizetype at)
{
    return static_cast<quint16>((static_cast<quint8>(data[at]) << 8) |
                                static_cast<quint8>(data[at + 1]));
}

} // namespace

std::optional<IBeaconFrame> parse(quint16 companyId, const QByteArray& data)
{
    if (companyId != appleCompanyId || data.size() != frameSize || data[0] != frameType ||
        data[1] != frameLength)
        return std::nullopt;
    IBeaconFrame frame;
    frame.proximityUUID = QUuid::fromRfc4122(QByteArrayView(data).sliced(2, 16));
    frame.major = bigEndian16(data, 18);
    frame.minor = bigEndian16(data, 20);
    frame.measuredPower = static_cast<qint8>(data[22]);
    return frame;
}

std::optional<IBeaconFrame> parseManufacturerData(const QByteArray& payload)
{
    if (payload.size() < 2)
        return std::nullopt;
    const auto companyId = static_cast<quint16>(static_cast<quint8>(payload[0]) |
                                                (static_cast<quint8>(payload[1]) << 8));
    return parse(companyId, payload.sliced(2));
}

} // namespace Quorlix::IBeaconAdvert
