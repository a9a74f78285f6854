// The quorlix command run as a user runs it: scan, watch, record and calibrate on simulated and
// replayed beacons in virtual time (--fast), and what it refuses.

#include "DirectoryProcess.h"
#include "ProgramRun.h"

#include "quorlix/location/LocationSettings.h"

#include <QRegularExpression>
#include <QTemporaryDir>

#include <array>
#include <map>
#include <tuple>

namespace {

using namespace Quorlix::Testing;

constexpr char family[] = "E1876979-75B5-43DE-92CB-2BC1AD6BA999";
constexpr char demo[] = "simulate:" QUORLIX_SCENARIOS "/demo.json";

ProgramRun runTool(const QStringList& arguments, const QString& home, int timeoutMs = 20000)
{
    return runProgram(QStringLiteral(QUORLIX_COMMAND), arguments, home, {}, timeoutMs);
}

// Scan rows by refresh time and beacon ("12-7").
std::map<std::pair<double, QString>, QJsonObject> scanRows(const ProgramRun& run)
{
    std::map<std::pair<double, QString>, QJsonObject> rows;
    for (const QJsonObject& row : run.json()) {
        const QString beacon =
            QStringLiteral("%1-%2").arg(row[u"major"].toInt()).arg(row[u"minor"].toInt());
        rows[{row[u"time"].toDouble(), beacon}] = row;
    }
    return rows;
}

TEST(QuorlixCommand, ScanFollowsTheDemoScenario)
{
    QTemporaryDir home;
    const ProgramRun run =
        runTool({"scan", "--source", demo, "--fast", "--seconds", "27"}, home.path());
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const auto rows = scanRows(run);
    const QStringList fields{"address",   "distance",          "lastHeard", "major", "minor",
                             "proximity", "readingsPerSecond", "rssi",      "time",  "uuid"};
    QMap<QString, QString> addresses; // by beacon
    static const QRegularExpression address(QStringLiteral("^([0-9A-F]{2}:){5}[0-9A-F]{2}$"));
    for (const auto& [key, row] : rows) {
        ASSERT_EQ(row.keys(), fields);
        ASSERT_EQ(row[u"uuid"].toString(), QLatin1StringView(family));
        ASSERT_LT(row[u"rssi"].toInt(), -30);
        ASSERT_TRUE(address.match(row[u"address"].toString()).hasMatch());
        addresses[key.second] = row[u"address"].toString();
    }
    // Each transmitter shows its own address.
    EXPECT_EQ(QSet<QString>(addresses.begin(), addresses.end()).size(), addresses.size());
    // Time, beacon, proximity (null: not listed), ranges of readingsPerSecond, lastHeard, distance.
    // (12-7 comes at 0.5 s, 0.3 m from 5 to 9 s; 12-8 at 4 m from 1 to 12 s; 300-1 from 2 s at 2 m
    // drifting to 7 m. Rates are over the last 5 s; a beacon is forgotten after 10 s.)
    using Expect = std::tuple<double, const char*, const char*, std::array<double, 6>>;
    const Expect table[] = {
        {1, "12-7", "Near", {3, 11, 0, 0.5, 0.5, 1.5}},
        {1, "300-1", nullptr, {}},
        {4, "12-8", "Far", {7, 11, 0, 0.5, 3, 6}},
        {7, "12-7", "Immediate", {7, 11, 0, 0.5, 0.2, 0.5}},
        {16, "12-8", "Far", {0.1, 3, 3.5, 4.5, 3, 6}},
        {21, "12-8", "Far", {0, 0, 8.5, 9.5, 3, 6}},
        {23, "12-8", nullptr, {}},
        {27, "300-1", "Far", {2, 6, 0, 1, 4, 12}},
    };
    for (const auto& [time, beacon, proximity, ranges] : table) {
        SCOPED_TRACE(testing::Message() << beacon << " at " << time << " s");
        const auto found = rows.find({time, QString::fromLatin1(beacon)});
        ASSERT_EQ(found == rows.end(), proximity == nullptr);
        if (proximity == nullptr)
            continue;
        const QJsonObject& row = found->second;
        EXPECT_EQ(row[u"proximity"].toString(), QLatin1StringView(proximity));
        for (int i = 0; i < 3; ++i) {
            const char* field = std::array{"readingsPerSecond", "lastHeard", "distance"}[i];
            EXPECT_GE(row[QLatin1StringView(field)].toDouble(), ranges[2 * i]) << field;
            EXPECT_LE(row[QLatin1StringView(field)].toDouble(), ranges[2 * i + 1]) << field;
        }
    }
}

TEST(QuorlixCommand, RefusesWithAMessageAndAnExitCode)
{
    QTemporaryDir home;
    DirectoryProcess directory;
    const QString taken = writeFile(home.path(), QStringLiteral("taken.csv"), "kept\n");
    const std::tuple<QStringList, int, const char*> table[] = {
        {{"watch", "9999", "--directory", directory.host()}, 1, "does not know device 9999"},
        {{"publish", "--broker", "localhost", "--watch", "9999", "--directory", directory.host()},
         1,
         "does not know device 9999"},
        {{"record", taken, "--source", demo}, 1, "exists already"},
        {{"scan", "--source", "simulate:/no/such.json"}, 2, "cannot read the simulate file"},
        {{"rooms"}, 2, "give either --broker host[:port] or --replay DIR"},
        {{"rooms", "--replay", home.path()}, 2, "add --fast"},
        {{"rooms", "--replay", home.path(), "--fast"}, 1, "holds no recording"},
        {{"publish", "--broker", "localhost", "--room", "rooms"}, 2, "'rooms' is taken"},
        {{"publish", "--broker", "localhost", "--source", demo, "--fast"},
         2,
         "--fast is not for publish"},
        {{"publish", "--broker", "localhost", "--password-file", taken}, 2, "needs --username"},
        {{"scan", "--adapter", "wlan0"}, 2, "--adapter wants adapters such as hci0"},
        {{"record", taken, "--adapter", "hci0", "--source", demo}, 2, "--adapter is for the bluez"},
        {{"scan", "--source", "bluez:hci0,nonsense"}, 2, "not 'nonsense'"},
        // The environment's directory host is named as such, not as an option.
        {{"watch", "1047", "QUORLIX_DIRECTORY_HOST=http://x/"},
         2,
         "QUORLIX_DIRECTORY_HOST wants host[:port], e.g. localhost:8080, not 'http://x/'"},
        {{"watch", "1047", "--directory", "x:99999"}, 2, "--directory: '99999' is not a port"},
    };
    for (auto [arguments, exitCode, message] : table) {
        const QStringList settings = arguments.filter(QStringLiteral("QUORLIX_"));
        for (const QString& setting : settings)
            arguments.removeOne(setting);
        const ProgramRun run =
            runProgram(QStringLiteral(QUORLIX_COMMAND), arguments, home.path(), settings, 10000);
        EXPECT_EQ(run.exitCode, exitCode) << arguments.join(u' ').toStdString();
        EXPECT_TRUE(run.err.contains(QLatin1StringView(message)) && run.out.isEmpty())
            << run.out.toStdString() << run.err.toStdString();
    }
}

// Every program says what it is and how it is used, on standard output with status 0.
TEST(QuorlixCommand, EveryProgramAnswersHelpAndVersion)
{
    QTemporaryDir home;
    const std::tuple<const char*, QStringList, const char*> table[] = {
        {QUORLIX_COMMAND, {"--version"}, "quorlix " QUORLIX_VERSION "\n"},
        {QUORLIX_COMMAND, {"publish", "--version"}, "quorlix " QUORLIX_VERSION "\n"},
        {QUORLIX_DIRECTORY_PROGRAM, {"--version"}, "quorlix-directory " QUORLIX_VERSION "\n"},
        {QUORLIX_DIRECTORY_PROGRAM, {"--help"}, "Usage: quorlix-directory <port>"},
    };
    for (const auto& [program, arguments, expected] : table) {
        const ProgramRun run = runProgram(QString::fromUtf8(program), arguments, home.path());
        EXPECT_TRUE(run.exitCode == 0 && run.out.startsWith(QLatin1StringView(expected)))
            << run.out.toStdString() << run.err.toStdString();
    }
}

using Events = std::vector<std::pair<QString, double>>;

// Watch's lines on the simulated scenario and in JSON on a trace recorded from it: the same entries
// and exits, at the same times.
TEST(QuorlixCommand, WatchSeesOnARecordedTraceWhatItSawLive)
{
    QTemporaryDir home;
    DirectoryProcess directory;
    const QString trace = home.filePath(QStringLiteral("room.csv"));
    const ProgramRun record =
        runTool({"record", trace, "--source", demo, "--fast", "--seconds", "25"}, home.path());
    EXPECT_TRUE(record.out.contains(QRegularExpression(
        QStringLiteral("^recorded \\d{3,} readings of 5 beacons in 25.0 s to .*room.csv\n$"))))
        << record.out.toStdString() << record.err.toStdString();
    QFile file(trace);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readLine(), "time,address,rssi,manufacturer_data_hex\n");
    // Replay plays the first row at once: its times are the recording's, less that offset.
    const double offset = file.readLine().split(',')[0].toDouble();

    for (const char* device : {"1047", "1048", "2001", "2002", "3100"}) {
        SCOPED_TRACE(device);
        QStringList arguments{"watch",  device,      "--directory", directory.host(),
                              "--fast", "--seconds", "25",          "--exit-period",
                              "2",      "--source"};
        const ProgramRun shown = runTool(arguments + QStringList{demo}, home.path());
        const ProgramRun replayed =
            runTool(arguments + QStringList{"replay:" + trace, "--json"}, home.path());
        Events heard[2]; // entries and exits: simulated, replayed
        for (const QString& line : shown.out.split(u'\n', Qt::SkipEmptyParts))
            if (const QStringList words = line.split(u' ', Qt::SkipEmptyParts);
                words[2] != u"range")
                heard[0].emplace_back(words[2], words[0].toDouble());
        for (const QJsonObject& line : replayed.json())
            if (line[u"event"].toString() != u"range")
                heard[1].emplace_back(line[u"event"].toString(), line[u"time"].toDouble());
        if (device == QLatin1StringView("1047")) {
            EXPECT_EQ(heard[0], (Events{{"watch", 0}, {"entry", 0.5}, {"exit", 18}}));
            EXPECT_TRUE(shown.out.contains(QRegularExpression(
                QStringLiteral("^    0.0 s  watch  device 1047 is beacon 12-7\n    0.5 s  entry  "
                               "device 1047 is near\n    1.0 s  range  device 1047  rssi -\\d+ "
                               "dBm  Near  \\d\\.\\d\\d m\n"))))
                << shown.out.toStdString();
            EXPECT_TRUE(shown.out.contains(QStringLiteral("  Immediate  0.")));
            // A ranging report every second while the beacon is tracked (heard within 5 s).
            EXPECT_GE(shown.out.count(QStringLiteral("  range  ")), 18);
            EXPECT_LE(shown.out.count(QStringLiteral("  range  ")), 21);
        }
        ASSERT_EQ(heard[0].size(), heard[1].size());
        for (std::size_t i = 0; i < heard[0].size(); ++i) {
            EXPECT_EQ(heard[0][i].first, heard[1][i].first);
            const double shift = heard[0][i].first == u"watch" ? 0 : offset;
            EXPECT_NEAR(heard[0][i].second - shift, heard[1][i].second, 0.15) << i;
        }
    }
}

// A family beacon at one metre and another family's beacon in the room: scan shows the other only
// with --all, calibrate measures the one asked for.
TEST(QuorlixCommand, ScanShowsOtherFamiliesOnlyWithAllAndCalibrateStoresTheMedianAtOneMetre)
{
    QTemporaryDir home;
    const QString atOneMetre =
        writeFile(home.path(), QStringLiteral("one-metre.json"),
                  R"({"seed": 9, "beacons": [{"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999",
        "major": 12, "minor": 7, "measuredPower": -63, "interval": 0.1, "loss": 0.2, "noise": 3,
        "path": [[0, 1.0]]}, {"uuid": "2f234454-cf6d-4a0f-adf2-f4911ba9ffa6", "major": 5,
        "minor": 6, "path": [[0, 2]]}]})");
    // The run with --all is also calibrated: the table follows the exponent and the band limits.
    const QStringList calibrated{
        "QUORLIX_CALIBRATION=" +
        writeFile(home.path(), QStringLiteral("bands.json"),
                  R"({"pathLossExponent": 4, "immediateLimit": 0.2, "nearLimit": 0.5})")};
    for (const bool all : {false, true}) {
        QStringList arguments{"scan",   "--source",  "simulate:" + atOneMetre,
                              "--fast", "--seconds", "3"};
        const auto rows = scanRows(runProgram(QStringLiteral(QUORLIX_COMMAND),
                                              all ? arguments << "--all" : arguments, home.path(),
                                              all ? calibrated : QStringList()));
        ASSERT_EQ(rows.count({3, "12-7"}), 1U);
        EXPECT_EQ(rows.count({3, "5-6"}), all ? 1U : 0U);
        EXPECT_EQ(rows.at({3, "12-7"})[u"proximity"].toString(), QString(all ? "Far" : "Near"));
        // -65 dBm from a -59 dBm beacon: 2 m at exponent 2, 1.41 m at 4.
        EXPECT_NEAR(rows.at({3, all ? "5-6" : "12-7"})[u"distance"].toDouble(), all ? 1.41 : 1,
                    0.25);
    }
    const QString trace = home.filePath(QStringLiteral("one-metre.csv"));
    const ProgramRun recorded = runTool(
        {"record", trace, "--source", "simulate:" + atOneMetre, "--fast", "--seconds", "30"},
        home.path());
    EXPECT_TRUE(recorded.err.isEmpty()) << recorded.err.toStdString(); // nothing after the end
    const QByteArray existing = R"({"exitPeriod": 12, "beacons": [{"uuid":
        "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 1, "minor": 2, "measuredPower": -70}]})";
    const QString given = home.filePath(QStringLiteral("given.json"));
    const QString byDefault = home.filePath(QStringLiteral(".config/quorlix/calibration.json"));
    // beacon, the file (given or the default one), its text before (empty: no file), exit code,
    // message
    const std::tuple<const char*, QString, QByteArray, int, const char*> table[] = {
        {"12-7", given, existing, 0, "measured power -63 dBm"},
        {"12-7", byDefault, {}, 0, "measured power -63 dBm"},
        {"12-7", given, "{ not json", 1, "the file is left as it is"},
        {"12-9", given, existing, 1, "only 0 times"},
    };
    for (const auto& [beacon, path, before, exitCode, message] : table) {
        SCOPED_TRACE(message);
        QFile::remove(path);
        if (!before.isEmpty())
            writeFile(home.path(), QStringLiteral("given.json"), before);
        QStringList arguments{"calibrate", beacon, "--source", "replay:" + trace, "--fast"};
        const ProgramRun run =
            runTool(path == given ? arguments << "--file" << path : arguments, home.path());
        EXPECT_EQ(run.exitCode, exitCode) << run.err.toStdString();
        EXPECT_TRUE((run.out + run.err).contains(QLatin1StringView(message)))
            << run.out.toStdString() << run.err.toStdString();
        if (exitCode != 0) {
            QFile after(path);
            EXPECT_TRUE(after.open(QIODevice::ReadOnly) && after.readAll() == before);
            continue;
        }
        QString error;
        const auto settings = Quorlix::LocationSettings::load(path, &error);
        ASSERT_TRUE(settings) << error.toStdString();
        const QUuid uuid(QLatin1StringView{family});
        EXPECT_NEAR(settings->measuredPower.value({uuid, 12, 7}, 0), -63, 1);
        EXPECT_EQ(settings->measuredPower.value({uuid, 1, 2}, 0), before.isEmpty() ? 0 : -70);
        EXPECT_EQ(settings->exitPeriod.count(), before.isEmpty() ? 30000 : 12000);
    }
}

// Calibration without naming a file: calibrate writes the user's file (XDG_CONFIG_HOME or
// ~/.config) and says where; scan and watch, with nothing set, then read it. The beacon is 2 m away
// but held to be at 1 m, so the stored power makes scan place it at 1 m.
TEST(QuorlixCommand, CalibrateThenScanWithoutTheVariableSeesTheNewDistance)
{
    DirectoryProcess directory;
    for (const bool xdg : {false, true}) {
        SCOPED_TRACE(xdg ? "XDG_CONFIG_HOME" : "~/.config");
        QTemporaryDir home;
        const QString scenario = writeFile(
            home.path(), QStringLiteral("two-metres.json"),
            R"({"seed": 3, "beacons": [{"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 12,
            "minor": 7, "measuredPower": -63, "interval": 0.1, "noise": 1, "path": [[0, 2.0]]}]})");
        const QStringList settings{"XDG_CONFIG_HOME=" + home.filePath(QStringLiteral("xdg"))};
        const QString expected =
            home.filePath(xdg ? QStringLiteral("xdg/quorlix/calibration.json")
                              : QStringLiteral(".config/quorlix/calibration.json"));
        const QStringList source{"--source", "simulate:" + scenario, "--fast", "--seconds", "5"};
        // Scan's table and watch's ranging (the region engine) alike.
        const auto distance = [&](bool watch) {
            const ProgramRun run = runProgram(
                QStringLiteral(QUORLIX_COMMAND),
                (watch ? QStringList{"watch", "1047", "--json", "--directory", directory.host()}
                       : QStringList{"scan"}) +
                    source,
                home.path(), xdg ? settings : QStringList());
            if (watch)
                return run.json().empty() ? -1 : run.json().back()[u"distance"].toDouble();
            const auto rows = scanRows(run);
            return rows.count({5, "12-7"}) != 0 ? rows.at({5, "12-7"})[u"distance"].toDouble() : -1;
        };
        EXPECT_NEAR(distance(false), 2.0, 0.3);
        const ProgramRun calibrated =
            runProgram(QStringLiteral(QUORLIX_COMMAND), QStringList{"calibrate", "12-7"} + source,
                       home.path(), xdg ? settings : QStringList());
        ASSERT_EQ(calibrated.exitCode, 0) << calibrated.err.toStdString();
        EXPECT_TRUE(calibrated.out.contains(QStringLiteral("to ") + expected + u'\n'))
            << calibrated.out.toStdString();
        EXPECT_NEAR(distance(false), 1.0, 0.2);
        EXPECT_NEAR(distance(true), 1.0, 0.2);
    }
}

} // namespace
