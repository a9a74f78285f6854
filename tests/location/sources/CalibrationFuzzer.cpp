// libFuzzer target: any bytes given as a calibration file are refused with a short message or give
// settings without a problem, which read back the same from their own JSON form.
#include "quorlix/location/LocationSettings.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArray json(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    QString error;
    const std::optional<Quorlix::LocationSettings> settings =
        Quorlix::LocationSettings::parse(json, QStringLiteral("fuzz.json"), &error);
    if (settings.has_value() == !error.isEmpty() || error.size() > 400)
        __builtin_trap();
    if (!settings)
        return 0;
    if (!settings->problem().isEmpty())
        __builtin_trap();
    const auto again = Quorlix::LocationSettings::parse(settings->toJson(), QString(), &error);
    if (!again || *again != *settings)
        __builtin_trap();
    return 0;
}
