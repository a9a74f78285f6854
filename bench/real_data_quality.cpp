// Proximity quality on recorded radio: one beacon heard by 12 fixed receivers at 45 known points,
// 30 minutes each (the "Position Annotated BLE RSSI Dataset for Indoor Localization", CC0; see
// /work/shared/data/README.md or tests/location/data/README.md). Each recording becomes a trace
// of sightings that runs through the region engine in virtual time, with ranging and monitoring as
// a host uses them; the reports are compared with the true distance.
//
// Printed per distance band and overall, for today's rules, the engine as it is, and a naive
// per-reading classifier with the same model: band accuracy (true band < 0.5 m Immediate,
// 0.5-3 m Near, beyond Far; Unknown or an unlisted beacon counts as wrong), median and 90th
// percentile distance error, word changes per minute (every trace stands still), Unknown share,
// false exits. The recordings are also thinned at random to 0.5 and 0.2 readings/s (a slow
// transmitter or a phone in a pocket), and run with a per-transmitter calibration taken from
// the other points only (never from the evaluated trace).
//
//   real_data_quality <ble-rssi-set2.tar.xz | unpacked folder> [quiet intervals]
#include "quorlix/location/LocationSettings.h"
#include "quorlix/location/ProximityFilter.h"
#include "quorlix/location/RegionEngine.h"
#include "quorlix/location/VirtualClock.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <map>
#include <optional>
#include <random>

using namespace Quorlix;

namespace {

constexpr std::int64_t second = 1'000'000'000;
// Words in the first seconds are the start-up, not flicker.
constexpr std::int64_t settleNs = 10 * second;
constexpr double immediateLimitM = 0.5;
constexpr double nearLimitM = 3.0;
// A user calibrating a transmitter measures it close by: calibration uses recordings up to here.
constexpr double calibrationRangeM = 3.0;
const QUuid family = QUuid::fromString(QStringLiteral("E1876979-75B5-43DE-92CB-2BC1AD6BA999"));

struct Reading
{
    double timeS;
    int rssi;
};

struct Trace
{
    QString receiver;        // "sensor12"
    QString receiverAddress; // "00:00:00:00:01:02"
    QString point;           // "8.18_17.28_1.85"
    double distanceM = 0;
    std::vector<Reading> readings;
    double medianRssi = 0;
};

struct Dataset
{
    std::vector<Trace> traces;
    int glitchRows = 0;
};

[[noreturn]] void fail(const QString& message)
{
    std::fprintf(stderr, "real_data_quality: %s\n", qPrintable(message));
    std::exit(1);
}

QString colonAddress(const QString& hex)
{
    QString out;
    for (int i = 0; i < hex.size(); i += 2)
        out += (i > 0 ? QStringLiteral(":") : QString()) + hex.mid(i, 2).toUpper();
    return out;
}

Dataset load(const QString& root)
{
    QFile devices(root + QStringLiteral("/cnf/tetam.dev"));
    if (!devices.open(QIODevice::ReadOnly))
        fail(devices.fileName() + QStringLiteral(": cannot be read"));
    // "Dongles:{address: [[x, y, z], colour, alias], ...}"
    std::map<QString, std::pair<std::array<double, 3>, QString>> receivers;
    for (const QByteArray& line : devices.readAll().split('\n')) {
        if (!line.startsWith("Dongles:"))
            continue;
        const QJsonObject dongles = QJsonDocument::fromJson(line.mid(8)).object();
        for (auto it = dongles.begin(); it != dongles.end(); ++it) {
            const QJsonArray entry = it.value().toArray();
            const QJsonArray at = entry[0].toArray();
            receivers[entry[2].toString()] = {
                {at[0].toDouble(), at[1].toDouble(), at[2].toDouble()}, colonAddress(it.key())};
        }
    }
    if (receivers.empty())
        fail(devices.fileName() + QStringLiteral(": no Dongles line"));

    Dataset data;
    static const QRegularExpression name(
        QStringLiteral(R"(^(sensor\d+)_([\d.]+)_([\d.]+)_([\d.]+)\.mbd$)"));
    const QDir folder(root + QStringLiteral("/hst/set_2"));
    for (const QString& file :
         folder.entryList({QStringLiteral("*.mbd")}, QDir::Files, QDir::Name)) {
        const auto match = name.match(file);
        if (!match.hasMatch() || receivers.count(match.captured(1)) == 0)
            fail(file + QStringLiteral(": unexpected name"));
        const auto& [at, address] = receivers[match.captured(1)];
        Trace trace;
        trace.receiver = match.captured(1);
        trace.receiverAddress = address;
        trace.point =
            QStringLiteral("%1_%2_%3").arg(match.captured(2), match.captured(3), match.captured(4));
        trace.distanceM =
            std::hypot(at[0] - match.captured(2).toDouble(), at[1] - match.captured(3).toDouble(),
                       at[2] - match.captured(4).toDouble());
        QFile f(folder.filePath(file));
        if (!f.open(QIODevice::ReadOnly))
            fail(f.fileName() + QStringLiteral(": cannot be read"));
        for (const QByteArray& line : f.readAll().split('\n')) {
            const QList<QByteArray> cells = line.trimmed().split(',');
            if (cells.size() != 4)
                continue;
            const int rssi = cells[3].toInt();
            // Receiver glitches report a positive RSSI; real logs have such rows.
            if (rssi >= 0 || rssi < -127) {
                ++data.glitchRows;
                continue;
            }
            trace.readings.push_back({cells[0].toDouble(), rssi});
        }
        if (trace.readings.size() < 2)
            continue;
        std::vector<int> values;
        for (const Reading& r : trace.readings)
            values.push_back(r.rssi);
        std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
        trace.medianRssi = values[values.size() / 2];
        data.traces.push_back(std::move(trace));
    }
    return data;
}

// The path-loss model's measured power, given the exponent: median over the calibration
// recordings of what each one implies.
double impliedPower(double rssi, double distanceM, double exponent)
{
    return rssi + 10.0 * exponent * std::log10(distanceM);
}

double median(std::vector<double> values)
{
    if (values.empty())
        return NAN;
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

double percentile(std::vector<double> values, double p)
{
    if (values.empty())
        return NAN;
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, static_cast<std::size_t>(p * values.size()))];
}

// What a host would put into LocationSettings for trace `self` having measured the transmitter
// close by at the other points (every receiver's recordings there): its measured power.
LocationSettings calibrationFor(const Dataset& data, const Trace& self, int shiftDb)
{
    std::vector<double> implied;
    LocationSettings settings;
    for (const Trace& t : data.traces) {
        if (t.point != self.point && t.distanceM <= calibrationRangeM)
            implied.push_back(
                impliedPower(t.medianRssi + shiftDb, t.distanceM, settings.pathLossExponent));
    }
    settings.measuredPower.insert(BeaconId{family, 1, 1},
                                  static_cast<int>(std::lround(median(implied))));
    return settings;
}

Proximity trueBand(double distanceM)
{
    if (distanceM < immediateLimitM)
        return Proximity::Immediate;
    return distanceM < nearLimitM ? Proximity::Near : Proximity::Far;
}

// Distance bands of the table.
constexpr std::array<double, 6> bandEdges = {0, nearLimitM, 5, 8, 12, 1e9};
constexpr std::size_t rows = bandEdges.size() - 1;

std::size_t rowOf(double distanceM)
{
    std::size_t i = 0;
    while (i + 1 < rows && distanceM >= bandEdges[i + 1])
        ++i;
    return i;
}

struct Tally
{
    int traces = 0;
    long reports = 0;
    long correct = 0;
    long unknown = 0;
    long changes = 0;
    double minutes = 0;
    long falseExits = 0;
    std::vector<double> absError, signedError;

    void add(const Tally& o)
    {
        traces += o.traces;
        reports += o.reports;
        correct += o.correct;
        unknown += o.unknown;
        changes += o.changes;
        minutes += o.minutes;
        falseExits += o.falseExits;
        absError.insert(absError.end(), o.absError.begin(), o.absError.end());
        signedError.insert(signedError.end(), o.signedError.begin(), o.signedError.end());
    }
};

struct Word
{
    std::int64_t timeNs;
    Proximity proximity;
    double accuracy;
};

void score(const std::vector<Word>& words, double truthM, std::int64_t firstNs, std::int64_t lastNs,
           long exits, Tally& tally)
{
    tally.traces += 1;
    tally.falseExits += exits;
    std::optional<Proximity> previous;
    const Proximity truth = trueBand(truthM);
    for (const Word& w : words) {
        if (w.timeNs < firstNs || w.timeNs > lastNs)
            continue;
        ++tally.reports;
        tally.correct += w.proximity == truth;
        tally.unknown += w.proximity == Proximity::Unknown;
        if (w.accuracy >= 0) {
            tally.absError.push_back(std::abs(w.accuracy - truthM));
            tally.signedError.push_back(w.accuracy - truthM);
        }
        if (w.timeNs >= firstNs + settleNs) {
            if (previous && *previous != w.proximity)
                ++tally.changes;
            previous = w.proximity;
        }
    }
    tally.minutes += std::max<double>(0, static_cast<double>(lastNs - firstNs - settleNs) / 60e9);
}

struct Run
{
    std::array<Tally, rows> before, engine, naive;
};

// One trace through a fresh engine; the naive classifier answers at the same ticks from the
// latest reading alone, Unknown when nothing came within the tracking window.
void runTrace(const Trace& trace, const std::vector<Reading>& readings,
              const LocationSettings& settings, RegionEngine::Tuning tuning,
              std::array<Tally, rows>& engineTally, std::array<Tally, rows>* naiveTally)
{
    VirtualClock clock;
    RegionEngine engine(clock, tuning);
    engine.applySettings(settings);
    const auto region =
        std::make_shared<BeaconRegion>(BeaconRegion{family, 1, 1, QStringLiteral("beacon")});
    long exits = 0;
    std::vector<Word> words, naiveWords;
    std::optional<Reading> latest;
    std::int64_t latestNs = 0;
    long naiveExits = 0;
    bool naiveInside = false;
    const double offset = settings.rssiOffset.value(trace.receiverAddress, 0.0);
    const int power = settings.measuredPower.value(BeaconId{family, 1, 1}, 0);
    constexpr std::int64_t naiveWindowNs = 5 * second;
    engine.entered = [](const std::shared_ptr<BeaconRegion>&) {};
    engine.exited = [&](const std::shared_ptr<BeaconRegion>&) { ++exits; };
    engine.ranged = [&](const QList<Beacon>& beacons, const std::shared_ptr<BeaconRegion>&) {
        const std::int64_t now = clock.nowNs();
        words.push_back(beacons.isEmpty()
                            ? Word{now, Proximity::Unknown, -1}
                            : Word{now, beacons.first().proximity, beacons.first().accuracy});
        if (latest && now - latestNs <= naiveWindowNs) {
            const double d = ProximityFilter::distanceFor(latest->rssi + offset, power);
            naiveWords.push_back({now, ProximityFilter::bandFor(d), d});
        } else {
            naiveWords.push_back({now, Proximity::Unknown, -1});
            if (naiveInside && latest) {
                naiveInside = false;
                ++naiveExits;
            }
        }
    };
    engine.startMonitoring(region);
    engine.startRanging(region);

    const double t0 = readings.front().timeS - 0.5;
    auto ns = [t0](double t) { return static_cast<std::int64_t>(std::llround((t - t0) * 1e9)); };
    for (const Reading& r : readings) {
        const std::int64_t at = ns(r.timeS);
        clock.advanceTo(at);
        engine.addSighting(Sighting{at, "E7:8F:13:56:24:CE", family, 1, 1, 0, r.rssi,
                                    trace.receiverAddress.toLatin1()});
        latest = r;
        latestNs = at;
        naiveInside = true;
    }
    const std::int64_t firstNs = ns(readings.front().timeS);
    const std::int64_t lastNs = ns(readings.back().timeS);
    const std::size_t row = rowOf(trace.distanceM);
    score(words, trace.distanceM, firstNs, lastNs, exits, engineTally[row]);
    if (naiveTally != nullptr)
        score(naiveWords, trace.distanceM, firstNs, lastNs, naiveExits, (*naiveTally)[row]);
}

// Each reading kept with a fixed probability, so that about `rate` readings a second remain.
std::vector<Reading> thin(const std::vector<Reading>& readings, double rate, std::mt19937& random)
{
    const double recorded =
        static_cast<double>(readings.size() - 1) / (readings.back().timeS - readings.front().timeS);
    if (rate <= 0 || rate >= recorded)
        return readings;
    std::bernoulli_distribution keep(rate / recorded);
    std::vector<Reading> out;
    for (const Reading& r : readings) {
        if (keep(random))
            out.push_back(r);
    }
    return out;
}

QString number(double x, int decimals)
{
    return std::isnan(x) ? QStringLiteral("-") : QString::number(x, 'f', decimals);
}

void print(const char* title, const std::array<Tally, rows>& tallies)
{
    std::printf("  %s\n", title);
    std::printf("    %-10s %6s %8s %9s %8s %8s %10s %11s %8s %11s\n", "distance", "traces",
                "reports", "band acc", "med err", "p90 err", "med signed", "changes/min", "Unknown",
                "false exits");
    Tally all;
    Tally byTrueBand[4];
    auto line = [](const QString& label, const Tally& t) {
        std::printf(
            "    %-10s %6d %8ld %8s%% %8s %8s %10s %11s %7s%% %11ld\n", qPrintable(label), t.traces,
            t.reports, qPrintable(number(t.reports ? 100.0 * t.correct / t.reports : NAN, 1)),
            qPrintable(number(median(t.absError), 2)),
            qPrintable(number(percentile(t.absError, 0.9), 2)),
            qPrintable(number(median(t.signedError), 2)),
            qPrintable(number(t.minutes > 0 ? t.changes / t.minutes : NAN, 3)),
            qPrintable(number(t.reports ? 100.0 * t.unknown / t.reports : NAN, 2)), t.falseExits);
    };
    for (std::size_t i = 0; i < rows; ++i) {
        if (tallies[i].traces == 0)
            continue;
        const QString label =
            i + 1 == rows ? QStringLiteral("> %1 m").arg(bandEdges[i])
                          : QStringLiteral("%1-%2 m").arg(bandEdges[i]).arg(bandEdges[i + 1]);
        line(label, tallies[i]);
        all.add(tallies[i]);
        byTrueBand[static_cast<int>(trueBand((bandEdges[i] + bandEdges[i + 1]) / 2))].add(
            tallies[i]);
    }
    line(QStringLiteral("overall"), all);
    double sum = 0;
    int bands = 0;
    QString parts;
    for (const Proximity band : {Proximity::Immediate, Proximity::Near, Proximity::Far}) {
        const Tally& t = byTrueBand[static_cast<int>(band)];
        static const char* names[] = {"", "Immediate", "Near", "Far"};
        if (t.reports == 0) {
            parts += QStringLiteral(" %1 -").arg(QLatin1StringView(names[static_cast<int>(band)]));
            continue;
        }
        const double accuracy = 100.0 * t.correct / t.reports;
        sum += accuracy;
        ++bands;
        parts += QStringLiteral(" %1 %2%")
                     .arg(QLatin1StringView(names[static_cast<int>(band)]))
                     .arg(accuracy, 0, 'f', 1);
    }
    std::printf("    band accuracy averaged over true bands: %.1f%% (%s)\n", sum / bands,
                qPrintable(parts.trimmed()));
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc < 2 || argc > 3) {
        std::fprintf(stderr, "usage: real_data_quality <ble-rssi-set2.tar.xz | unpacked folder> "
                             "[quiet intervals]\n");
        return 2;
    }
    RegionEngine::Tuning tuning;
    if (argc == 3)
        tuning.quietIntervals = std::atof(argv[2]);
    const QString source = QString::fromLocal8Bit(argv[1]);
    QTemporaryDir unpacked;
    QString root = source;
    if (!QFileInfo(source).isDir()) {
        if (!unpacked.isValid())
            fail(QStringLiteral("no temporary folder"));
        QProcess tar;
        tar.start(QStringLiteral("tar"),
                  {QStringLiteral("-xJf"), source, QStringLiteral("-C"), unpacked.path()});
        if (!tar.waitForFinished(300'000) || tar.exitStatus() != QProcess::NormalExit ||
            tar.exitCode() != 0)
            fail(source + QStringLiteral(": cannot be unpacked: ") +
                 QString::fromLocal8Bit(tar.readAllStandardError()));
        root = unpacked.path();
    }
    const Dataset data = load(root);
    std::printf("%zu recordings (receiver, point), %d glitch rows left out\n", data.traces.size(),
                data.glitchRows);

    // The recorded transmitter reads about -60 dBm at 1 m, close to what an uncalibrated advert
    // is taken for (-59). Phones as transmitters read about 14 dB weaker: the same recordings
    // shifted by that show what calibration is for.
    struct Setting
    {
        const char* name;
        int shiftDb;
        bool calibrated;
        std::vector<double> rates;
    };
    const std::vector<Setting> settingsToRun = {
        {"beacon, advert says 0 (so -59 dBm)", 0, false, {0.0, 0.5, 0.2}},
        {"beacon, measured power calibrated at the other points", 0, true, {0.0}},
        {"phone-class transmitter (14 dB weaker), advert says 0", -14, false, {0.0}},
        {"phone-class transmitter, measured power calibrated at the other points",
         -14,
         true,
         {0.0, 0.2}},
    };
    for (const Setting& setting : settingsToRun) {
        for (const double rate : setting.rates) {
            std::mt19937 random(2024);
            Run run;
            for (const Trace& original : data.traces) {
                Trace trace = original;
                for (Reading& r : trace.readings)
                    r.rssi += setting.shiftDb;
                const std::vector<Reading> readings = thin(trace.readings, rate, random);
                if (readings.size() < 2)
                    continue;
                const LocationSettings settings = setting.calibrated
                                                      ? calibrationFor(data, trace, setting.shiftDb)
                                                      : LocationSettings{};
                // The rule before: Unknown after any second without a reading.
                runTrace(trace, readings, settings, RegionEngine::Tuning{0, 0}, run.before,
                         nullptr);
                runTrace(trace, readings, settings, tuning, run.engine, &run.naive);
            }
            std::printf("\n%s; %s\n", setting.name,
                        rate > 0 ? qPrintable(QStringLiteral("thinned to %1 readings/s").arg(rate))
                                 : "readings as recorded (about 2/s)");
            print("before (Unknown after a second without a reading)", run.before);
            print("engine", run.engine);
            print("naive (latest reading alone; exit after 5 s without one)", run.naive);
        }
    }
    return 0;
}
