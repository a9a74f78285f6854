#include "quorlix/location/sources/SimulatedSource.h"
#include "quorlix/location/SourceSelection.h"
#include "quorlix/location/VirtualClock.h"
#include "quorlix/location/sources/ReplaySource.h"

#include "Files.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <tuple>

#include <sys/stat.h>

namespace Quorlix {
namespace {

constexpr std::int64_t s = 1'000'000'000;
const QByteArray frame1207 = "4c000215e187697975b543de92cb2bc1ad6ba999000c0007c5";

// Runs a source on a virtual clock and keeps what it delivers; pauseAt pauses scanning until
// resumeAt.
std::vector<Sighting> collect(BeaconSource& source, VirtualClock& clock, std::int64_t untilNs,
                              std::int64_t pauseAt = 0, std::int64_t resumeAt = 0)
{
    std::vector<Sighting> seen;
    source.setClock(&clock);
    source.setSink([&](const Sighting& sighting) { seen.push_back(sighting); });
    source.setScanning(true);
    if (pauseAt > 0) {
        clock.advanceTo(pauseAt);
        source.setScanning(false);
        clock.advanceTo(resumeAt);
        source.setScanning(true);
    }
    clock.advanceTo(untilNs);
    source.setScanning(false);
    return seen;
}

QByteArray oneBeacon(const QByteArray& members, const QByteArray& extra = "")
{
    return "{" + extra + R"("beacons": [{"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999", )" +
           members + "}]}";
}

Scenario scenario(const QByteArray& members, const QByteArray& extra = "")
{
    QString error;
    std::optional<Scenario> parsed = Scenario::parse(oneBeacon(members, extra), "t.json", &error);
    EXPECT_TRUE(parsed.has_value()) << error.toStdString();
    return parsed.value_or(Scenario{});
}

// Each input is refused with a short error that contains the message.
template <class Parse>
void expectErrors(Parse parse, std::initializer_list<std::pair<QByteArray, QByteArray>> cases)
{
    for (const auto& [input, message] : cases) {
        QString error;
        EXPECT_FALSE(parse(input, &error)) << message.toStdString();
        EXPECT_TRUE(error.contains(QLatin1StringView(message)) && error.size() < 200)
            << error.left(300).toStdString() << "\n  expected: " << message.toStdString();
    }
}

// Scenario and trace files come from users: a bad one is refused with a message naming the file
// and the place, never a crash, a hang or an exhausted memory.
TEST(SourceFiles, BadScenariosAndTracesAreRefusedNamingTheFileAndThePlace)
{
    const QByteArray deep = QByteArray(100'000, '[') + QByteArray(100'000, ']');
    const auto major = [](const QByteArray& m) {
        return oneBeacon(R"("minor": 1, "path": [[0, 1]], "major": )" + m);
    };
    const QByteArray one =
        R"({"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 1, "minor": 1, "path": [[0, 1]]})";
    const QByteArray many = R"({"beacons": [)" + (one + ',').repeated(10'000) + one + "]}";
    // clang-format off
    expectErrors([](const QByteArray& json, QString* error) { return Scenario::parse(json, "bad.json", error); }, {
        {"{}", "scenario bad.json: beacons: missing"},
        {"[]", "scenario bad.json: scenario: expected an object, got array"},
        {"{\"beacons\": {}}", "beacons: expected a list, got object"},
        {"{\"beacons\": [],\n \"seeds\": 3}", "scenario bad.json: seeds: unknown member"},
        {"{\"beacons\": [\n{\"uuid\": \"x\"}]}", "beacons[0].uuid: expected a UUID text, got \"x\""},
        {major("70000"), "beacons[0].major: value 70000 is outside 0 to 65535"},
        {oneBeacon(R"("major": 1, "minor": -1)"), "beacons[0].minor: value -1 is outside 0 to 65535"},
        {oneBeacon(R"("major": 1, "minor": 1)"), "beacons[0].path: missing"},
        {oneBeacon(R"("major": 1, "minor": 1, "path": [[5, 1], [4, 1]])"), "beacons[0].path[1]: time 4 is earlier than the point before"},
        {oneBeacon(R"("major": 1, "minor": 1, "loss": 1.5, "path": [[0, 1]])"), "beacons[0].loss: value 1.5 is outside 0 to 1"},
        {oneBeacon(R"("major": 1, "minor": 1, "path": [[0, "near"]])"), "beacons[0].path[0]: expected a number, got string"},
        {"{\n  \"beacons\": [\n    {,}\n]}", "scenario bad.json: line 3, column 6: not valid JSON"},
        {major("1e400"), "not valid JSON: number overflow"},
        {major(deep), "nested deeper than 64 levels"},
        {major("[[[1]]]"), "beacons[0].major: expected an integer, got array"},
        {major('"' + QByteArray(100'000, 'x') + '"'), "got \"xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx..."},
        {"{\"beacons\": [], \"" + QByteArray(1800, 'y') + "\": 1}", "scenario bad.json: " + QByteArray(37, 'y') + "...: unknown member"},
        {oneBeacon(R"("major": 1, "minor": 1, ")" + QByteArray(1800, 'z') + R"(": 2, "path": [[0, 1]])"), "beacons[0]." + QByteArray(37, 'z') + "...: unknown member"},
        {many, "beacons: more than 10000 beacons"}});
    const QByteArray f = "," + frame1207 + "\n";
    expectErrors([](const QByteArray& csv, QString* error) { return ReplaySource::parse(csv, "t.csv", error); }, {
        {"time,address,rssi,manufacturer_data_hex\n0,A,-60\n", "t.csv: line 2: expected 4 fields"},
        {"time,address,rssi,manufacturer_data_hex\nsoon,A,-60" + f, "line 2: time \"soon\" is not a number"},
        // Times never go back, compared with the row before, a skipped one included.
        {"# recorded\n0,A,-60" + f + "5,A,-60" + f + "4.5,A,-60" + f, "line 4: time 4.5 is earlier than the row before"},
        {"0,A,-60" + f + "5,A,-60,0600\n4.5,A,-60" + f, "line 3: time 4.5 is earlier"},
        {"0,A,loud" + f, "line 1: rssi \"loud\" is not a dBm value"},
        {"0,A," + QByteArray(1800, '9') + f, "rssi \"" + QByteArray(37, '9') + "...\" is not"},
        {"0,A,21" + f, "line 1: rssi \"21\" is not a dBm value"},
        {"0,A,-60,4c0", "line 1: manufacturer data \"4c0\" is not an even count of hex digits"},
        {"0,A,-60,4c0g", "line 1: manufacturer data \"4c0g\""}});
    // clang-format on
    QString error;
    EXPECT_TRUE(ReplaySource::parse("3,A,-127" + f + "3,B,20" + f, "t.csv", &error))
        << "equal times";
    for (const char* name : {"demo.json", "stationary.json"}) {
        const auto loaded = Scenario::load(QStringLiteral(QUORLIX_SCENARIO_DIR "/") + name, &error);
        EXPECT_TRUE(loaded && !loaded->beacons.empty()) << name << error.toStdString();
    }
    // Files that would block or never end are refused before they are read.
    QTemporaryDir dir;
    const QString fifo = dir.filePath("fifo.json");
    ASSERT_EQ(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    for (const QString& path : {fifo, QStringLiteral("/dev/zero"), dir.path()}) {
        EXPECT_FALSE(Scenario::load(path, &error));
        EXPECT_TRUE(error.endsWith("not a regular file")) << error.toStdString();
        EXPECT_FALSE(ReplaySource::load(path, &error));
        EXPECT_TRUE(error.endsWith("not a regular file")) << error.toStdString();
    }
}

TEST(SimulatedSource, RssiFollowsTheLogDistanceModelWithItsNoiseAndLoss)
{
    // Distance, loss, noise, path-loss exponent.
    const std::array<double, 4> cases[] = {{10.0, 0, 0, 2}, {4.0, 0.3, 4, 2}, {2.0, 0.5, 6, 3}};
    for (const auto& [distance, loss, noise, exponent] : cases) {
        VirtualClock clock;
        const auto n = [](double x) { return QByteArray::number(x); };
        SimulatedSource source(scenario(
            R"("major": 3, "minor": 4, "measuredPower": -61, "interval": 0.1, "loss": )" + n(loss) +
                R"(, "noise": )" + n(noise) + R"(, "path": [[0, )" + n(distance) + "]]",
            R"("pathLossExponent": )" + n(exponent) + ","));
        const std::vector<Sighting> seen = collect(source, clock, 300 * s);
        // 100 ms plus BLE's 0-10 ms random delay: 300 s / 105 ms adverts, less the lost.
        const double sent = 300.0 / 0.105;
        const double count = static_cast<double>(seen.size());
        EXPECT_NEAR(count, sent * (1 - loss), sent * 0.03);
        double sum = 0, squares = 0;
        for (const Sighting& sighting : seen) {
            sum += sighting.rssi;
            squares += double(sighting.rssi) * sighting.rssi;
            EXPECT_TRUE(sighting.major == 3 && sighting.measuredPower == -61);
        }
        const double mean = sum / count;
        EXPECT_NEAR(mean, -61 - 10 * exponent * std::log10(distance), 0.4);
        // Rounding to whole dBm adds about 0.29 dB of spread.
        EXPECT_NEAR(std::sqrt(std::max(0.0, squares / count - mean * mean)),
                    std::hypot(noise, noise > 0 ? 0.29 : 0.0), 0.3);
    }
}

TEST(SimulatedSource, SilentWhileOutOfRangeOrNotScanning)
{
    VirtualClock clock;
    SimulatedSource source(scenario(R"("major": 1, "minor": 1, "path": [[0, null], [2, 1.0],
        [4, 1.0], [4, 500.0], [6, 500.0], [6, 1.0]])"));
    const std::vector<Sighting> seen = collect(source, clock, 10 * s, 7 * s, 9 * s);
    const auto within = [&](double from, double to) {
        return std::count_if(seen.begin(), seen.end(), [&](const Sighting& x) {
            return x.timeNs >= from * s && x.timeNs < to * s;
        });
    };
    // At 500 m (4 to 6 s) the -100 dBm sensitivity is not reached; 7 to 9 s is the pause, whose
    // adverts are not replayed when it ends. A heard second has its 9 or 10 adverts.
    const std::tuple<int, int, bool> spans[] = {{0, 2, false}, {2, 3, true},  {4, 6, false},
                                                {6, 7, true},  {7, 9, false}, {9, 10, true}};
    for (const auto& [from, to, heard] : spans) {
        const auto n = within(from, to);
        EXPECT_TRUE(heard ? n >= 9 && n <= 10 : n == 0) << from << ": " << n;
    }
}

TEST(ReplaySource, PlaysRowsAtTheirOffsetsSkipsOtherAdvertsAndNeverOverflows)
{
    const QByteArray csv = "time,address,rssi,manufacturer_data_hex\n100.0,C0:FF:EE:00:00:01,-60," +
                           frame1207 +
                           "\n100.5,C0:FF:EE:00:00:02,-71,4c000215e187697975b543de92cb"
                           "2bc1ad6ba999012c0002c0\n100.7,C0:FF:EE:00:00:03,-50,"
                           "060001092002\n102.0,C0:FF:EE:00:00:01,-62," +
                           frame1207 + "\n104.0,C0:FF:EE:00:00:01,-63," + frame1207 + "\n";
    QString error;
    int skipped = 0;
    auto rows = ReplaySource::parse(csv, QStringLiteral("t.csv"), &error, &skipped);
    ASSERT_TRUE(rows) << error.toStdString();
    EXPECT_EQ(skipped, 1);
    VirtualClock clock(7 * s);
    ReplaySource source(std::move(*rows));
    const QUuid uuid = QUuid::fromString(QStringLiteral("E1876979-75B5-43DE-92CB-2BC1AD6BA999"));
    // The row at 2.0 s falls in the pause.
    EXPECT_EQ(collect(source, clock, 20 * s, 8 * s, 10 * s),
              (std::vector<Sighting>{{7 * s, "C0:FF:EE:00:00:01", uuid, 12, 7, -59, -60},
                                     {7'500'000'000, "C0:FF:EE:00:00:02", uuid, 300, 2, -64, -71},
                                     {11 * s, "C0:FF:EE:00:00:01", uuid, 12, 7, -59, -63}}));
    // Near the end of the clock the second row is due 95 years after its end: never, rather than
    // at once.
    rows =
        ReplaySource::parse("0,A,-60," + frame1207 + "\n3e9,A,-60," + frame1207, "t.csv", &error);
    ASSERT_TRUE(rows) << error.toStdString();
    constexpr std::int64_t end = std::numeric_limits<std::int64_t>::max();
    VirtualClock late(end - 10 * s);
    ReplaySource lateSource(std::move(*rows));
    EXPECT_EQ(collect(lateSource, late, end - 1).size(), 1u);
}

TEST(ReplaySource, SkipsBadRowsCountsThemAndSaysSoOnce)
{
    const QByteArray f = "," + frame1207 + "\n";
    // 9.3e9 s is 292 years later: a bad row, no overflow.
    const QByteArray csv = "time,address,rssi,manufacturer_data_hex\n0,A,-60" + f + "1,A,62" + f +
                           "2,A,-60\nnan,A,-60" + f + "9.3e9,A,-60" + f + "3,A,-60,zz\n4,A,-61" + f;
    QTemporaryDir dir;
    const QString path = Testing::writeFile(dir.path(), "real.csv", csv);
    static QStringList messages;
    const QtMessageHandler previous = qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext&, const QString& text) { messages << text; });
    QString problem;
    const auto source = SourceSelection::sourceFor(QStringLiteral("replay:") + path, &problem);
    qInstallMessageHandler(previous);
    EXPECT_TRUE(source) << problem.toStdString();
    EXPECT_EQ(messages, QStringList{QStringLiteral("trace %1: 5 bad rows are skipped, the first at "
                                                   "line 3: rssi \"62\" is not a dBm value (-127 "
                                                   "to 20)")
                                        .arg(path)});
    const auto rows = ReplaySource::parse(csv, QStringLiteral("t.csv"), &problem);
    ASSERT_TRUE(rows && rows->size() == 2u);
    EXPECT_EQ(rows->back().offsetNs, 4 * s);
}

} // namespace
} // namespace Quorlix
