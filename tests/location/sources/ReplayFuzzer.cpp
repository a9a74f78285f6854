// libFuzzer target: any bytes given as a trace are refused with a message or give rows that play
// in order, within range, on a clock anywhere in its range; never a crash or an overflow.
#include "quorlix/location/VirtualClock.h"
#include "quorlix/location/sources/ReplaySource.h"

#include <cstddef>
#include <cstdint>
#include <limits>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArray csv(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    QString error;
    int skipped = 0;
    Quorlix::ReplaySource::BadRows bad;
    auto rows =
        Quorlix::ReplaySource::parse(csv, QStringLiteral("fuzz.csv"), &error, &skipped, &bad);
    if (rows.has_value() == !error.isEmpty() || error.size() > 400 || bad.firstProblem.size() > 200)
        __builtin_trap();
    if (!rows)
        return 0;
    std::int64_t previous = 0;
    for (const Quorlix::ReplaySource::Row& row : *rows) {
        if (row.offsetNs < previous || row.rssi < -127 || row.rssi > 20 ||
            (bad.count > 0 && bad.firstLine == row.line))
            __builtin_trap();
        previous = row.offsetNs;
    }
    // Played near the end of the clock's range, where offsets would overflow.
    constexpr std::int64_t end = std::numeric_limits<std::int64_t>::max();
    Quorlix::VirtualClock clock(end - (size % 2 == 0 ? 1'000'000'000 : 0));
    const std::size_t count = rows->size();
    std::size_t played = 0;
    {
        Quorlix::ReplaySource source(std::move(*rows));
        source.setClock(&clock);
        source.setSink([&](const Quorlix::Sighting&) { ++played; });
        source.setScanning(true);
        clock.advanceTo(end);
    }
    if (played > count)
        __builtin_trap();
    return 0;
}
