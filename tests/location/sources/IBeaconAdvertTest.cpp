#include "quorlix/location/sources/IBeaconAdvert.h"

#include <gtest/gtest.h>

namespace Quorlix {
namespace {

// The advert fuzzer holds parseManufacturerData to the whole format; this table pins the company
// check of parse() and the byte order and signedness of the fields.
TEST(IBeaconAdvert, ParsesOnlyWellFormedAppleFrames)
{
    const QByteArray header = QByteArray::fromHex("0215e187697975b543de92cb2bc1ad6ba999");
    const QByteArray valid = header + QByteArray::fromHex("0102a0b180");
    const std::optional<IBeaconFrame> frame =
        IBeaconFrame{QUuid::fromRfc4122(header.mid(2)), 258, 41137, -128};
    const std::pair<quint16, QByteArray> rejected[] = {
        {0x004C, valid.left(22)},
        {0x004C, valid + '\0'},
        {0x004C, QByteArray(valid).replace(1, 1, "\x14")},
        {0x004D, valid},
        {0x4C00, valid}};
    EXPECT_EQ(IBeaconAdvert::parse(0x004C, valid), frame);
    for (const auto& [company, data] : rejected)
        EXPECT_EQ(IBeaconAdvert::parse(company, data), std::nullopt) << data.toHex().data();
    EXPECT_EQ(IBeaconAdvert::parseManufacturerData(QByteArray::fromHex("4c00") + valid), frame);
}

} // namespace
} // namespace Quorlix
