#include "quorlix/location/sources/IBeaconAdvert.h"

#include <gtest/gtest.h>

namespace Quorlix {
namespace {

// The advert fuzzer holds parseManufacturerData to the whole format; this pins the length checks
// of parse() and the byte order and signedness of the fields (the BlueZ tests cover the company
// check, the replay tests the company's byte order in manufacturer data).
TEST(IBeaconAdvert, ParsesOnlyWellFormedAppleFrames)
{
    const QByteArray header = QByteArray::fromHex("0215e187697975b543de92cb2bc1ad6ba999");
    const QByteArray valid = header + QByteArray::fromHex("0102a0b180");
    EXPECT_EQ(IBeaconAdvert::parse(0x004C, valid),
              (IBeaconFrame{QUuid::fromRfc4122(header.mid(2)), 258, 41137, -128}));
    const QByteArray rejected[] = {valid.left(22), valid + '\0',
                                   QByteArray(valid).replace(1, 1, "\x14")};
    for (const QByteArray& data : rejected)
        EXPECT_EQ(IBeaconAdvert::parse(0x004C, data), std::nullopt) << data.toHex().data();
}

} // namespace
} // namespace Quorlix
