#include "quorlix/location/sources/IBeaconAdvert.h"

#include <gtest/gtest.h>

namespace Quorlix {
namespace {

const QByteArray uuidBytes = QByteArray::fromHex("e187697975b543de92cb2bc1ad6ba999");

QByteArray frameBytes(quint16 major, quint16 minor, quint8 power)
{
    QByteArray data("\x02\x15", 2);
    data += uuidBytes;
    data += char(major >> 8);
    data += char(major & 0xff);
    data += char(minor >> 8);
    data += char(minor & 0xff);
    data += char(power);
    return data;
}

QByteArray withByte(QByteArray data, qsizetype at, char value)
{
    data[at] = value;
    return data;
}

struct ParseCase
{
    const char* name;
    quint16 companyId;
    QByteArray data;
    std::optional<IBeaconFrame> expected;
};

IBeaconFrame frame(quint16 major, quint16 minor, qint8 power)
{
    return IBeaconFrame{QUuid::fromRfc4122(uuidBytes), major, minor, power};
}

TEST(IBeaconAdvert, ParsesOnlyWellFormedAppleFrames)
{
    const QByteArray valid = frameBytes(12, 7, 0xc5);
    const ParseCase cases[] = {
        {"typical", 0x004C, valid, frame(12, 7, -59)},
        {"zeros", 0x004C, frameBytes(0, 0, 0), frame(0, 0, 0)},
        {"maxima", 0x004C, frameBytes(65535, 65535, 0x7f), frame(65535, 65535, 127)},
        {"power -128", 0x004C, frameBytes(1, 1, 0x80), frame(1, 1, -128)},
        {"big-endian numbers", 0x004C, frameBytes(0x0102, 0xa0b1, 0xff), frame(258, 41137, -1)},
        {"empty", 0x004C, QByteArray(), std::nullopt},
        {"type only", 0x004C, valid.left(1), std::nullopt},
        {"header only", 0x004C, valid.left(2), std::nullopt},
        {"one byte short", 0x004C, valid.left(22), std::nullopt},
        {"one byte over", 0x004C, valid + '\0', std::nullopt},
        {"other type", 0x004C, withByte(valid, 0, 0x01), std::nullopt},
        {"shorter length", 0x004C, withByte(valid, 1, 0x14), std::nullopt},
        {"longer length", 0x004C, withByte(valid, 1, 0x16), std::nullopt},
        {"other company", 0x004D, valid, std::nullopt},
        {"company byte-swapped", 0x4C00, valid, std::nullopt},
    };
    for (const ParseCase& c : cases)
        EXPECT_EQ(IBeaconAdvert::parse(c.companyId, c.data), c.expected) << c.name;
}

TEST(IBeaconAdvert, ManufacturerDataStartsWithLittleEndianCompany)
{
    const QByteArray valid = frameBytes(300, 2, 0xc5);
    const struct
    {
        const char* name;
        QByteArray payload;
        bool parses;
    } cases[] = {
        {"apple", QByteArray("\x4c\x00", 2) + valid, true},
        {"swapped company", QByteArray("\x00\x4c", 2) + valid, false},
        {"empty", QByteArray(), false},
        {"one byte", QByteArray("\x4c", 1), false},
        {"company only", QByteArray("\x4c\x00", 2), false},
        {"truncated", (QByteArray("\x4c\x00", 2) + valid).left(24), false},
    };
    for (const auto& c : cases) {
        const std::optional<IBeaconFrame> parsed = IBeaconAdvert::parseManufacturerData(c.payload);
        EXPECT_EQ(parsed.has_value(), c.parses) << c.name;
        if (parsed && c.parses) {
            EXPECT_EQ(*parsed, frame(300, 2, -59)) << c.name;
        }
    }
}

} // namespace
} // namespace Quorlix
