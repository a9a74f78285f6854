// The quorlix command run as a user runs it: scan, watch, record and calibrate on simulated and
// replayed beacons in virtual time (--fast), and its answers to bad input.

#include "DirectoryProcess.h"
#include "ToolProcess.h"

#include "quorlix/location/LocationSettings.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <map>
#include <optional>

namespace {

using Quorlix::Testing::runTool;
using Quorlix::Testing::scenario;
using Quorlix::Testing::ToolRun;
using Quorlix::Testing::writeFile;

constexpr char family[] = "E1876979-75B5-43DE-92CB-2BC1AD6BA999";

QString beaconOf(const QJsonObject& row)
{
    return QStringLiteral("%1-%2").arg(row[u"major"].toInt()).arg(row[u"minor"].toInt());
}

// The scan rows of one refresh, by beacon.
std::map<QString, QJsonObject> refreshAt(const std::vector<QJsonObject>& rows, double time)
{
    std::map<QString, QJsonObject> at;
    for (const QJsonObject& row : rows) {
        if (row[u"time"].toDouble() == time)
            at[beaconOf(row)] = row;
    }
    return at;
}

TEST(QuorlixCommand, ScanFollowsTheDemoScenario)
{
    QTemporaryDir home;
    const ToolRun run = runTool(
        {"scan", "--source", "simulate:" + scenario("demo.json"), "--fast", "--seconds", "27"},
        home.path());
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const std::vector<QJsonObject> rows = run.json();
    ASSERT_FALSE(rows.empty());
    for (const QJsonObject& row : rows)
        ASSERT_EQ(row[u"uuid"].toString(), QLatin1StringView(family));

    // (scenario: 12-7 comes at 0.5 s, 0.3 m from 5 to 9 s, silent from 16 s; 12-8 at 4 m from 1
    // to 12 s; 300-1 from 2 s at 2 m drifting to 7 m)
    struct Expect
    {
        double time;
        const char* beacon;
        const char* proximity; ///< null: the beacon is not listed
        double minRate, maxRate, minLastHeard, maxLastHeard, minDistance, maxDistance;
    };
    const Expect table[] = {
        {1, "12-7", "Near", 3, 11, 0, 0.5, 0.5, 1.5},
        {1, "300-1", nullptr, 0, 0, 0, 0, 0, 0},
        {4, "12-7", "Near", 7, 11, 0, 0.5, 0.4, 1.2},
        {4, "12-8", "Far", 7, 11, 0, 0.5, 3, 6},
        {7, "12-7", "Immediate", 7, 11, 0, 0.5, 0.2, 0.5},
        {16, "12-8", "Far", 0.1, 3, 3.5, 4.5, 3, 6},
        {18, "12-8", "Far", 0, 0, 5.5, 6.5, 3, 6},
        {21.0, "12-8", "Far", 0, 0, 8.5, 9.5, 3, 6},
        {23, "12-8", nullptr, 0, 0, 0, 0, 0, 0},
        {25, "12-7", "Near", 0, 0, 8.5, 9.5, 1, 3},
        {27, "12-7", nullptr, 0, 0, 0, 0, 0, 0},
        {27, "300-1", "Far", 2, 6, 0, 1, 4, 12},
    };
    for (const Expect& expect : table) {
        SCOPED_TRACE(testing::Message() << expect.beacon << " at " << expect.time << " s");
        const std::map<QString, QJsonObject> at = refreshAt(rows, expect.time);
        ASSERT_FALSE(at.empty()) << "no refresh at that time";
        const auto found = at.find(QString::fromLatin1(expect.beacon));
        if (expect.proximity == nullptr) {
            EXPECT_EQ(found, at.end());
            continue;
        }
        ASSERT_NE(found, at.end());
        const QJsonObject& row = found->second;
        EXPECT_EQ(row[u"proximity"].toString(), QLatin1StringView(expect.proximity));
        EXPECT_GE(row[u"readingsPerSecond"].toDouble(), expect.minRate);
        EXPECT_LE(row[u"readingsPerSecond"].toDouble(), expect.maxRate);
        EXPECT_GE(row[u"lastHeard"].toDouble(), expect.minLastHeard);
        EXPECT_LE(row[u"lastHeard"].toDouble(), expect.maxLastHeard);
        EXPECT_GE(row[u"distance"].toDouble(), expect.minDistance);
        EXPECT_LE(row[u"distance"].toDouble(), expect.maxDistance);
        EXPECT_LT(row[u"rssi"].toInt(), -30);
    }
}

TEST(QuorlixCommand, ScanShowsOtherBeaconsOnlyWithAll)
{
    QTemporaryDir home;
    const QString mixed = writeFile(home.path(), QStringLiteral("mixed.json"), R"({"seed": 2,
      "beacons": [
        {"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 12, "minor": 7, "path": [[0, 1]]},
        {"uuid": "2f234454-cf6d-4a0f-adf2-f4911ba9ffa6", "major": 5, "minor": 6, "path": [[0, 2]]}
      ]})");
    for (const bool all : {false, true}) {
        QStringList arguments{"scan", "--source", "simulate:" + mixed, "--fast", "--seconds", "3"};
        if (all)
            arguments << QStringLiteral("--all");
        const ToolRun run = runTool(arguments, home.path());
        ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
        const std::map<QString, QJsonObject> last = refreshAt(run.json(), 3);
        ASSERT_TRUE(last.count(QStringLiteral("12-7")));
        ASSERT_EQ(last.count(QStringLiteral("5-6")), all ? 1U : 0U);
        if (all) {
            EXPECT_EQ(last.at(QStringLiteral("5-6"))[u"uuid"].toString(),
                      QStringLiteral("2F234454-CF6D-4A0F-ADF2-F4911BA9FFA6"));
        }
    }
}

// Watch events as (event, time) pairs, from its JSON output.
std::vector<std::pair<QString, double>> watchEvents(const ToolRun& run, bool withRanging)
{
    std::vector<std::pair<QString, double>> events;
    for (const QJsonObject& line : run.json()) {
        const QString event = line[u"event"].toString();
        if (withRanging || event != u"range")
            events.emplace_back(event, line[u"time"].toDouble());
    }
    return events;
}

TEST(QuorlixCommand, WatchPrintsEntryRangingAndExitOfTheDevice)
{
    QTemporaryDir home;
    Quorlix::Testing::DirectoryProcess directory;
    const QStringList common{"--directory",
                             directory.host(),
                             "--source",
                             "simulate:" + scenario("demo.json"),
                             "--fast",
                             "--seconds",
                             "22",
                             "--exit-period",
                             "2"};

    const ToolRun lines = runTool(QStringList{"watch", "1047"} + common, home.path());
    ASSERT_EQ(lines.exitCode, 0) << lines.err.toStdString();
    const QStringList shown = lines.out.split(u'\n', Qt::SkipEmptyParts);
    ASSERT_GE(shown.size(), 4);
    EXPECT_EQ(shown.first(), QStringLiteral("    0.0 s  watch  device 1047 is beacon 12-7"));
    EXPECT_EQ(shown[1], QStringLiteral("    0.5 s  entry  device 1047 is near"));
    EXPECT_TRUE(QRegularExpression(
                    QStringLiteral("^    1\\.0 s  range  device 1047  rssi -[0-9]+ dBm  Near  "
                                   "[0-9]\\.[0-9]{2} m$"))
                    .match(shown[2])
                    .hasMatch())
        << shown[2].toStdString();
    EXPECT_EQ(lines.out.count(QStringLiteral("exit")), 1);
    EXPECT_TRUE(lines.out.contains(QStringLiteral("\n   18.0 s  exit   device 1047 is gone\n")));
    EXPECT_TRUE(lines.out.contains(QStringLiteral("  Immediate  0.")));

    const ToolRun json = runTool(QStringList{"watch", "1047", "--json"} + common, home.path());
    ASSERT_EQ(json.exitCode, 0) << json.err.toStdString();
    const auto events = watchEvents(json, true);
    ASSERT_GE(events.size(), 4U);
    EXPECT_EQ(events.front(), std::make_pair(QStringLiteral("watch"), 0.0));
    EXPECT_EQ(events[1], std::make_pair(QStringLiteral("entry"), 0.5));
    EXPECT_NE(std::find(events.begin(), events.end(), std::make_pair(QStringLiteral("exit"), 18.0)),
              events.end());
    // A ranging report every second while the beacon is tracked (heard within 5 s).
    const auto ranging = std::count_if(events.begin(), events.end(),
                                       [](const auto& event) { return event.first == u"range"; });
    EXPECT_GE(ranging, 18);
    EXPECT_LE(ranging, 21);
}

TEST(QuorlixCommand, WatchRefusesAnUnknownDeviceOrAnUnreachableDirectory)
{
    QTemporaryDir home;
    Quorlix::Testing::DirectoryProcess directory;
    const QString nobody = QStringLiteral("127.0.0.1:%1").arg(Quorlix::Testing::unusedPort());
    const struct
    {
        QString device, directory;
        const char* message;
    } table[] = {
        {"9999", directory.host(), "does not know device 9999"},
        {"1047", nobody, "does not answer"},
        {"10/47", directory.host(), "is not a device ID"},
    };
    for (const auto& row : table) {
        const ToolRun run = runTool({"watch", row.device, "--directory", row.directory, "--source",
                                     "simulate:" + scenario("demo.json")},
                                    home.path(), 10000);
        EXPECT_EQ(run.exitCode, 1) << row.message;
        EXPECT_TRUE(run.err.startsWith(QStringLiteral("quorlix watch: ")));
        EXPECT_TRUE(run.err.contains(QLatin1StringView(row.message))) << run.err.toStdString();
        EXPECT_TRUE(run.out.isEmpty());
    }
}

TEST(QuorlixCommand, RecordedTraceReplaysToTheSameEntriesAndExits)
{
    QTemporaryDir home;
    Quorlix::Testing::DirectoryProcess directory;
    const QString trace = home.filePath(QStringLiteral("room.csv"));
    const QString simulated = "simulate:" + scenario("demo.json");
    const ToolRun record =
        runTool({"record", trace, "--source", simulated, "--fast", "--seconds", "25"}, home.path());
    ASSERT_EQ(record.exitCode, 0) << record.err.toStdString();
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^recorded [0-9]+ readings of 5 beacons in 25.0 "
                                                  "s to .*room.csv\n$"))
                    .match(record.out)
                    .hasMatch())
        << record.out.toStdString();

    QFile file(trace);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QList<QByteArray> rows = file.readAll().split('\n');
    ASSERT_GT(rows.size(), 300);
    EXPECT_EQ(rows[0], "time,address,rssi,manufacturer_data_hex");
    // Replay plays the first row at once: its times are the recording's, less that offset.
    const double offset = rows[1].split(',')[0].toDouble();

    for (const char* device : {"1047", "1048", "2001", "2002", "3100"}) {
        SCOPED_TRACE(device);
        std::vector<std::pair<QString, double>> heard[2];
        int index = 0;
        for (const QString& source : {simulated, "replay:" + trace}) {
            const ToolRun watch =
                runTool({"watch", device, "--json", "--directory", directory.host(), "--source",
                         source, "--fast", "--seconds", "25", "--exit-period", "2"},
                        home.path());
            ASSERT_EQ(watch.exitCode, 0) << watch.err.toStdString();
            heard[index++] = watchEvents(watch, false);
        }
        ASSERT_EQ(heard[0].size(), heard[1].size());
        ASSERT_GE(heard[0].size(), 2U);
        for (std::size_t i = 0; i < heard[0].size(); ++i) {
            EXPECT_EQ(heard[0][i].first, heard[1][i].first);
            const double shift = heard[0][i].first == u"watch" ? 0 : offset;
            EXPECT_NEAR(heard[0][i].second - shift, heard[1][i].second, 0.15) << i;
        }
    }

    const ToolRun again =
        runTool({"record", trace, "--source", simulated, "--fast", "--seconds", "1"}, home.path());
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_TRUE(again.err.contains(QStringLiteral("exists already"))) << again.err.toStdString();
    EXPECT_EQ(QFileInfo(trace).size(), file.size());
}

TEST(QuorlixCommand, CalibrateStoresTheMedianAtOneMetreAndKeepsTheRestOfTheFile)
{
    QTemporaryDir home;
    const QString atOneMetre =
        writeFile(home.path(), QStringLiteral("one-metre.json"), R"({"seed": 9,
      "beacons": [{"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 12, "minor": 7,
                   "measuredPower": -63, "interval": 0.1, "loss": 0.2, "noise": 3,
                   "path": [[0, 1.0]]}]})");
    const QString trace = home.filePath(QStringLiteral("one-metre.csv"));
    ASSERT_EQ(runTool({"record", trace, "--source", "simulate:" + atOneMetre, "--fast", "--seconds",
                       "30"},
                      home.path())
                  .exitCode,
              0);
    const QByteArray existing = R"({"exitPeriod": 12, "beacons": [{"uuid":
        "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 1, "minor": 2, "measuredPower": -70}]})";
    const QString defaultFile = home.filePath(QStringLiteral(".config/quorlix/calibration.json"));
    const struct
    {
        const char* beacon;
        QByteArray before; ///< empty: no file
        bool givenFile;
        int exitCode;
        const char* message;
    } table[] = {
        {"12-7", existing, true, 0, "measured power -63 dBm"},
        {"12-7", {}, false, 0, "measured power -63 dBm"},
        {"12-7", "{ not json", true, 1, "the file is left as it is"},
        {"12-9", existing, true, 1, "only 0 times"},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.message);
        const QString path =
            row.givenFile ? home.filePath(QStringLiteral("given.json")) : defaultFile;
        QFile::remove(path);
        if (!row.before.isEmpty())
            writeFile(home.path(), QStringLiteral("given.json"), row.before);
        QStringList arguments{"calibrate", row.beacon, "--source", "replay:" + trace, "--fast"};
        if (row.givenFile)
            arguments << QStringLiteral("--file") << path;
        const ToolRun run = runTool(arguments, home.path());
        EXPECT_EQ(run.exitCode, row.exitCode) << run.err.toStdString();
        EXPECT_TRUE((run.out + run.err).contains(QLatin1StringView(row.message)))
            << run.out.toStdString() << run.err.toStdString();

        QFile after(path);
        if (row.exitCode != 0) {
            ASSERT_TRUE(after.open(QIODevice::ReadOnly));
            EXPECT_EQ(after.readAll(), row.before);
            continue;
        }
        QString error;
        const std::optional<Quorlix::LocationSettings> settings =
            Quorlix::LocationSettings::load(path, &error);
        ASSERT_TRUE(settings) << error.toStdString();
        const QUuid uuid(QLatin1StringView{family});
        EXPECT_NEAR(settings->measuredPower.value({uuid, 12, 7}, 0), -63, 1);
        if (!row.before.isEmpty()) {
            EXPECT_EQ(settings->measuredPower.value({uuid, 1, 2}, 0), -70);
            EXPECT_EQ(settings->exitPeriod.count(), 12000);
        }
    }
}

TEST(QuorlixCommand, HelpForEveryCommandAndClearErrorsForBadUsage)
{
    QTemporaryDir home;
    for (const char* command : {"scan", "watch", "record", "calibrate", "publish"}) {
        const ToolRun help = runTool({command, "--help"}, home.path());
        EXPECT_EQ(help.exitCode, 0) << command;
        EXPECT_TRUE(help.out.startsWith(
            QStringLiteral("Usage: quorlix %1 [options]").arg(QLatin1StringView(command))))
            << help.out.toStdString();
        EXPECT_TRUE(help.out.contains(QStringLiteral("--source")));
    }
    const QString demo = "simulate:" + scenario("demo.json");
    const struct
    {
        QStringList arguments;
        const char* message;
    } table[] = {
        {{"frobnicate"}, "unknown command 'frobnicate'"},
        {{"scan", "--bogus"}, "Unknown option 'bogus'"},
        {{"scan", "--source", "simulate:/no/such.json"}, "cannot read the simulate file"},
        {{"scan", "--source", "radio"}, "--source wants bluez"},
        {{"scan", "--fast", "--seconds", "1"}, "--fast needs a simulate: or replay: source"},
        {{"scan", "--source", demo, "--fast"}, "--fast needs --seconds"},
        {{"scan", "--source", demo, "--seconds", "-1"}, "--seconds wants a number"},
        {{"watch", "--source", demo}, "wants one device ID"},
        {{"watch", "1047", "--directory", "a b"}, "--directory wants host[:port]"},
        {{"record", "--source", demo}, "wants one trace file"},
        {{"calibrate", "70000-1", "--source", demo}, "wants the beacon's major-minor"},
        {{"calibrate", "1-2", "--uuid", "nope", "--source", demo}, "--uuid wants a UUID"},
        {{"publish", "--broker", "host:99999", "--source", demo}, "is not a port number"},
        {{"publish", "--source", demo}, "--broker wants host[:port]"},
    };
    for (const auto& row : table) {
        const ToolRun run = runTool(row.arguments, home.path());
        EXPECT_EQ(run.exitCode, 2) << row.arguments.join(u' ').toStdString();
        EXPECT_TRUE(run.err.contains(QLatin1StringView(row.message))) << run.err.toStdString();
    }
}

} // namespace
