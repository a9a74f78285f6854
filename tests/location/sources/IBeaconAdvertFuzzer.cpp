// libFuzzer target: the advert parser must accept exactly the well-formed frames, read nothing
// out of bounds, and give back the fields that are in the bytes.
#include "quorlix/location/sources/IBeaconAdvert.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // An exact-size copy, so that AddressSanitizer sees any read past the input.
    const QByteArray payload(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    const std::optional<Quorlix::IBeaconFrame> frame =
        Quorlix::IBeaconAdvert::parseManufacturerData(payload);
    const bool wellFormed =
        size == 25 && data[0] == 0x4c && data[1] == 0x00 && data[2] == 0x02 && data[3] == 0x15;
    if (frame.has_value() != wellFormed)
        __builtin_trap();
    if (frame) {
        const QByteArray uuid = frame->proximityUUID.toRfc4122();
        if (uuid != payload.mid(4, 16) || frame->major != (data[20] << 8 | data[21]) ||
            frame->minor != (data[22] << 8 | data[23]) ||
            frame->measuredPower != static_cast<qint8>(data[24]))
            __builtin_trap();
    }
    return 0;
}
