#include "quorlix/location/sources/IBeaconAdvert.h"

#include <gtest/gtest.h>

namespace Quorlix {
namespace {

// The advert fuzzer holds parseManufacturerData to the whole format; this table pins the company
// check of parse() and the field values of typical frames.
TEST(IBeaconAdvert, ParsesOnlyWellFormedAppleFrames)
{
    const QByteArray header = QByteArray::fromHex("0215e187697975b543de92cb2bc1ad6ba999");
    const QByteArray valid = header + QByteArray::fromHex("000c0007c5");
    const auto frame = [&](quint16 major, quint16 minor, qint8 power) {
        return IBeaconFrame{QUuid::fromRfc4122(header.mid(2)), major, minor, power};
    };
    const struct
    {
        quint16 companyId;
        QByteArray data;
        std::optional<IBeaconFrame> expected;
    } cases[] = {
        {0x004C, valid, frame(12, 7, -59)},
        {0x004C, header + QByteArray::fromHex("0102a0b180"), frame(258, 41137, -128)},
        {0x004C, header + QByteArray::fromHex("ffffffff7f"), frame(65535, 65535, 127)},
        {0x004C, QByteArray(), std::nullopt},
        {0x004C, valid.left(22), std::nullopt},
        {0x004C, valid + '\0', std::nullopt},
        {0x004C, QByteArray(valid).replace(0, 1, "\x01"), std::nullopt},
        {0x004C, QByteArray(valid).replace(1, 1, "\x14"), std::nullopt},
        {0x004D, valid, std::nullopt},
        {0x4C00, valid, std::nullopt},
    };
    for (const auto& c : cases)
        EXPECT_EQ(IBeaconAdvert::parse(c.companyId, c.data), c.expected) << c.data.toHex().data();
    EXPECT_EQ(IBeaconAdvert::parseManufacturerData(QByteArray::fromHex("4c00") + valid),
              frame(12, 7, -59));
    EXPECT_EQ(IBeaconAdvert::parseManufacturerData(QByteArray::fromHex("004c") + valid),
              std::nullopt);
}

} // namespace
} // namespace Quorlix
