// libFuzzer target: any bytes given as a scenario are either refused with a message or give a
// scenario within the documented bounds; never a crash, an uncaught exception or a stack overflow.
#include "quorlix/location/sources/Scenario.h"

#include <cmath>
#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArray json(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    QString error;
    const std::optional<Quorlix::Scenario> scenario =
        Quorlix::Scenario::parse(json, QStringLiteral("fuzz.json"), &error);
    if (scenario.has_value() == !error.isEmpty() || error.size() > 400)
        __builtin_trap();
    if (!scenario)
        return 0;
    if (scenario->beacons.size() > 10'000)
        __builtin_trap();
    for (const Quorlix::ScenarioBeacon& beacon : scenario->beacons) {
        if (beacon.path.empty() || beacon.intervalS < 0.02 || beacon.loss > 1)
            __builtin_trap();
        for (const double t :
             {-1.0, 0.0, beacon.path.back().timeS / 2, beacon.path.back().timeS, 2e9}) {
            const std::optional<double> distance = beacon.distanceAt(t);
            if (distance && (!std::isfinite(*distance) || *distance < 0.01 || *distance > 1e6))
                __builtin_trap();
        }
    }
    return 0;
}
