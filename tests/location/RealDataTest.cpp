#include "quorlix/location/RegionEngine.h"
#include "quorlix/location/VirtualClock.h"

#include <gtest/gtest.h>

#include <QFile>

#include <cmath>

// Recordings of a real beacon at known distances (data/README.md) through the region engine in
// virtual time: the floors hold the quality measured when the rules were made, with some room.
namespace Quorlix {
namespace {

const QUuid family = QUuid::fromString(QStringLiteral("E1876979-75B5-43DE-92CB-2BC1AD6BA999"));

struct Trace
{
    QByteArray receiver;
    double distanceM = 0;
    std::vector<std::pair<double, int>> readings; // seconds, dBm
};

std::vector<Trace> excerpt()
{
    QFile file(QStringLiteral(QUORLIX_LOCATION_DATA_DIR "/ble-rssi-excerpt.txt"));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    std::vector<Trace> traces;
    for (const QByteArray& line : file.readAll().split('\n')) {
        const QList<QByteArray> words = line.split(' ');
        if (line.startsWith("trace ") && words.size() == 4)
            traces.push_back({words[2], words[3].toDouble(), {}});
        else if (!line.isEmpty() && !line.startsWith('#') && !traces.empty())
            traces.back().readings.emplace_back(line.split(',')[0].toDouble(),
                                                line.split(',')[1].toInt());
    }
    return traces;
}

// Band accuracy, share of Unknown, word changes per minute and the median distance error over the
// traces closer than 3 m, each against its floor.
void expectQuality(const char* what, const LocationSettings& settings, int shiftDb, int keepEvery)
{
    long reports = 0, correct = 0, unknown = 0, changes = 0;
    double minutes = 0;
    std::vector<double> nearErrors;
    for (const Trace& trace : excerpt()) {
        VirtualClock clock;
        RegionEngine engine(clock);
        engine.applySettings(settings);
        std::vector<std::pair<std::int64_t, Beacon>> words; // time in ns, the first beacon
        engine.ranged = [&](const QList<Beacon>& beacons, const auto&) {
            words.emplace_back(clock.nowNs(), beacons.value(0));
        };
        engine.startRanging(
            std::make_shared<BeaconRegion>(BeaconRegion{family, {}, {}, QStringLiteral("A")}));
        const auto ns = [](double s) { return std::llround((s + 0.5) * 1e9); };
        for (std::size_t i = 0; i < trace.readings.size(); i += keepEvery) {
            const auto& [time, rssi] = trace.readings[i];
            clock.advanceTo(ns(time));
            engine.addSighting(Sighting{ns(time), "E7:8F:13:56:24:CE", family, 1, 1, 0,
                                        rssi + shiftDb, trace.receiver});
        }
        const Proximity truth = trace.distanceM < 3 ? Proximity::Near : Proximity::Far;
        std::optional<Proximity> previous;
        for (const auto& [timeNs, beacon] : words) {
            if (timeNs < ns(trace.readings.front().first) ||
                timeNs > ns(trace.readings.back().first))
                continue;
            ++reports;
            correct += beacon.proximity == truth;
            unknown += beacon.proximity == Proximity::Unknown;
            changes += previous && *previous != beacon.proximity;
            previous = beacon.proximity;
            if (trace.distanceM < 3 && beacon.accuracy >= 0)
                nearErrors.push_back(std::abs(beacon.accuracy - trace.distanceM));
        }
        minutes += (trace.readings.back().first - trace.readings.front().first) / 60;
    }
    ASSERT_TRUE(reports > 0 && !nearErrors.empty()) << what;
    std::nth_element(nearErrors.begin(), nearErrors.begin() + nearErrors.size() / 2,
                     nearErrors.end());
    EXPECT_GE(static_cast<double>(correct) / reports, 0.9) << what;
    EXPECT_LE(static_cast<double>(unknown) / reports, 0.01) << what;
    EXPECT_LE(changes / minutes, 1.0) << what;
    EXPECT_LE(nearErrors[nearErrors.size() / 2], 0.5) << what;
}

TEST(RealData, QualityStaysAboveItsFloors)
{
    ASSERT_EQ(excerpt().size(), 4u);
    LocationSettings phonePower;
    phonePower.measuredPower.insert(BeaconId{family, 1, 1}, -59 - 14);
    LocationSettings receiverOffsets;
    for (const Trace& trace : excerpt())
        receiverOffsets.rssiOffset.insert(QString::fromLatin1(trace.receiver).toLower(), 14);
    const struct
    {
        const char* what;
        LocationSettings settings;
        int shiftDb;
        int keepEvery;
    } cases[] = {
        {"as recorded (2 readings/s)", {}, 0, 1},
        {"every 10th reading (0.2/s)", {}, 0, 10},
        {"14 dB weaker, beacon calibrated", phonePower, -14, 1},
        {"14 dB weaker, receivers calibrated", receiverOffsets, -14, 1},
    };
    for (const auto& c : cases)
        expectQuality(c.what, c.settings, c.shiftDb, c.keepEvery);
}

} // namespace
} // namespace Quorlix
