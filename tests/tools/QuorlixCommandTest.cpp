// The quorlix command run as a user runs it: scan, watch, record and calibrate on simulated and
// replayed beacons in virtual time (--fast), and what it refuses.

#include "DirectoryProcess.h"
#include "ToolProcess.h"

#include "quorlix/location/LocationSettings.h"

#include <QRegularExpression>
#include <QTemporaryDir>

#include <map>

namespace {

using namespace Quorlix::Testing;

constexpr char family[] = "E1876979-75B5-43DE-92CB-2BC1AD6BA999";

// The scan rows of the refresh at time, by beacon ("12-7").
std::map<QString, QJsonObject> refreshAt(const std::vector<QJsonObject>& rows, double time)
{
    std::map<QString, QJsonObject> at;
    for (const QJsonObject& row : rows) {
        if (row[u"time"].toDouble() == time)
            at[QStringLiteral("%1-%2").arg(row[u"major"].toInt()).arg(row[u"minor"].toInt())] = row;
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
    const QStringList fields{"distance",          "lastHeard", "major", "minor", "proximity",
                             "readingsPerSecond", "rssi",      "time",  "uuid"};
    for (const QJsonObject& row : rows) {
        ASSERT_EQ(row.keys(), fields);
        ASSERT_EQ(row[u"uuid"].toString(), QLatin1StringView(family));
    }
    // (scenario: 12-7 comes at 0.5 s, 0.3 m from 5 to 9 s; 12-8 at 4 m from 1 to 12 s; 300-1 from
    // 2 s at 2 m drifting to 7 m. Rates are over the last 5 s; a beacon is forgotten after 10 s.)
    const struct
    {
        double time;
        const char* beacon;
        const char* proximity; ///< null: the beacon is not listed
        double minRate, maxRate, minLastHeard, maxLastHeard, minDistance, maxDistance;
    } table[] = {
        {1, "12-7", "Near", 3, 11, 0, 0.5, 0.5, 1.5},
        {1, "300-1", nullptr, 0, 0, 0, 0, 0, 0},
        {4, "12-8", "Far", 7, 11, 0, 0.5, 3, 6},
        {7, "12-7", "Immediate", 7, 11, 0, 0.5, 0.2, 0.5},
        {16, "12-8", "Far", 0.1, 3, 3.5, 4.5, 3, 6},
        {21, "12-8", "Far", 0, 0, 8.5, 9.5, 3, 6},
        {23, "12-8", nullptr, 0, 0, 0, 0, 0, 0},
        {27, "300-1", "Far", 2, 6, 0, 1, 4, 12},
    };
    for (const auto& expect : table) {
        SCOPED_TRACE(testing::Message() << expect.beacon << " at " << expect.time << " s");
        const std::map<QString, QJsonObject> at = refreshAt(rows, expect.time);
        ASSERT_FALSE(at.empty()) << "no refresh at that time";
        const auto found = at.find(QString::fromLatin1(expect.beacon));
        ASSERT_EQ(found == at.end(), expect.proximity == nullptr);
        if (expect.proximity == nullptr)
            continue;
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
        const ToolRun run = runTool(all ? arguments << "--all" : arguments, home.path());
        ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
        const std::map<QString, QJsonObject> last = refreshAt(run.json(), 3);
        EXPECT_EQ(last.count(QStringLiteral("12-7")), 1U);
        EXPECT_EQ(last.count(QStringLiteral("5-6")) ? last.at(QStringLiteral("5-6"))[u"uuid"]
                                                    : QJsonValue(),
                  all ? QJsonValue(QStringLiteral("2F234454-CF6D-4A0F-ADF2-F4911BA9FFA6"))
                      : QJsonValue());
    }
}

TEST(QuorlixCommand, WatchPrintsEntryRangingAndExitOfTheDevice)
{
    QTemporaryDir home;
    DirectoryProcess directory;
    const ToolRun run = runTool({"watch", "1047", "--directory", directory.host(), "--source",
                                 "simulate:" + scenario("demo.json"), "--fast", "--seconds", "22",
                                 "--exit-period", "2"},
                                home.path());
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_TRUE(run.out.startsWith(QStringLiteral("    0.0 s  watch  device 1047 is beacon 12-7\n"
                                                  "    0.5 s  entry  device 1047 is near\n")))
        << run.out.toStdString();
    EXPECT_TRUE(QRegularExpression(QStringLiteral("\n    1\\.0 s  range  device 1047  rssi "
                                                  "-[0-9]+ dBm  Near  [0-9]\\.[0-9]{2} m\n"))
                    .match(run.out)
                    .hasMatch());
    EXPECT_TRUE(run.out.contains(QStringLiteral("  Immediate  0.")));
    EXPECT_EQ(run.out.count(QStringLiteral("exit")), 1);
    EXPECT_TRUE(run.out.contains(QStringLiteral("\n   18.0 s  exit   device 1047 is gone\n")));
    // A ranging report every second while the beacon is tracked (heard within 5 s).
    EXPECT_GE(run.out.count(QStringLiteral("  range  ")), 18);
    EXPECT_LE(run.out.count(QStringLiteral("  range  ")), 21);
}

TEST(QuorlixCommand, RefusesWithAMessageAndAnExitCode)
{
    QTemporaryDir home;
    DirectoryProcess directory;
    const QString demo = "simulate:" + scenario("demo.json");
    const QString nobody = QStringLiteral("127.0.0.1:%1").arg(unusedPort());
    const QString taken = writeFile(home.path(), QStringLiteral("taken.csv"), "kept\n");
    const struct
    {
        QStringList arguments;
        int exitCode;
        const char* message;
    } table[] = {
        {{"watch", "9999", "--directory", directory.host()}, 1, "does not know device 9999"},
        {{"watch", "1047", "--directory", nobody}, 1, "does not answer"},
        {{"watch", "10/47", "--directory", directory.host()}, 1, "is not a device ID"},
        {{"publish", "--broker", "127.0.0.1:1", "--directory", directory.host(), "--watch", "1047",
          "--watch", "9999"},
         1,
         "does not know device 9999"},
        {{"record", taken, "--source", demo}, 1, "exists already"},
        {{"frobnicate"}, 2, "unknown command 'frobnicate'"},
        {{"scan", "--source", "simulate:/no/such.json"}, 2, "cannot read the simulate file"},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.arguments.join(u' ').toStdString());
        const ToolRun run = runTool(row.arguments, home.path(), 10000);
        EXPECT_EQ(run.exitCode, row.exitCode);
        EXPECT_TRUE(run.err.contains(QLatin1StringView(row.message))) << run.err.toStdString();
        EXPECT_TRUE(run.out.isEmpty()) << run.out.toStdString();
    }
    QFile kept(taken);
    EXPECT_TRUE(kept.open(QIODevice::ReadOnly) && kept.readAll() == "kept\n");
}

// Watch's entries and exits (event, time), from its JSON lines.
std::vector<std::pair<QString, double>> entriesAndExits(const ToolRun& run)
{
    std::vector<std::pair<QString, double>> events;
    for (const QJsonObject& line : run.json()) {
        if (line[u"event"].toString() != u"range")
            events.emplace_back(line[u"event"].toString(), line[u"time"].toDouble());
    }
    return events;
}

TEST(QuorlixCommand, RecordedTraceReplaysToTheSameEntriesAndExits)
{
    QTemporaryDir home;
    DirectoryProcess directory;
    const QString trace = home.filePath(QStringLiteral("room.csv"));
    const QString simulated = "simulate:" + scenario("demo.json");
    const ToolRun record =
        runTool({"record", trace, "--source", simulated, "--fast", "--seconds", "25"}, home.path());
    ASSERT_EQ(record.exitCode, 0) << record.err.toStdString();
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^recorded [0-9]{3,} readings of 5 beacons in "
                                                  "25.0 s to .*room.csv\n$"))
                    .match(record.out)
                    .hasMatch())
        << record.out.toStdString();
    QFile file(trace);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readLine(), "time,address,rssi,manufacturer_data_hex\n");
    // Replay plays the first row at once: its times are the recording's, less that offset.
    const double offset = file.readLine().split(',')[0].toDouble();

    for (const char* device : {"1047", "1048", "2001", "2002", "3100"}) {
        SCOPED_TRACE(device);
        std::vector<std::pair<QString, double>> heard[2];
        for (const int replayed : {0, 1}) {
            const ToolRun watch =
                runTool({"watch", device, "--json", "--directory", directory.host(), "--source",
                         replayed ? "replay:" + trace : simulated, "--fast", "--seconds", "25",
                         "--exit-period", "2"},
                        home.path());
            ASSERT_EQ(watch.exitCode, 0) << watch.err.toStdString();
            heard[replayed] = entriesAndExits(watch);
        }
        if (device == QLatin1StringView("1047")) {
            EXPECT_EQ(heard[0], (std::vector<std::pair<QString, double>>{
                                    {"watch", 0}, {"entry", 0.5}, {"exit", 18}}));
        }
        ASSERT_EQ(heard[0].size(), heard[1].size());
        ASSERT_GE(heard[0].size(), 2U);
        for (std::size_t i = 0; i < heard[0].size(); ++i) {
            EXPECT_EQ(heard[0][i].first, heard[1][i].first);
            const double shift = heard[0][i].first == u"watch" ? 0 : offset;
            EXPECT_NEAR(heard[0][i].second - shift, heard[1][i].second, 0.15) << i;
        }
    }
}

TEST(QuorlixCommand, CalibrateStoresTheMedianAtOneMetreAndKeepsTheRestOfTheFile)
{
    QTemporaryDir home;
    const QString atOneMetre =
        writeFile(home.path(), QStringLiteral("one-metre.json"),
                  R"({"seed": 9, "beacons": [{"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999",
        "major": 12, "minor": 7, "measuredPower": -63, "interval": 0.1, "loss": 0.2,
        "noise": 3, "path": [[0, 1.0]]}]})");
    const QString trace = home.filePath(QStringLiteral("one-metre.csv"));
    ASSERT_EQ(runTool({"record", trace, "--source", "simulate:" + atOneMetre, "--fast", "--seconds",
                       "30"},
                      home.path())
                  .exitCode,
              0);
    const QByteArray existing = R"({"exitPeriod": 12, "beacons": [{"uuid":
        "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 1, "minor": 2, "measuredPower": -70}]})";
    const QString given = home.filePath(QStringLiteral("given.json"));
    const struct
    {
        const char* beacon;
        QByteArray before; ///< empty: no file
        bool givenFile;    ///< else the default file in the home
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
            row.givenFile ? given
                          : home.filePath(QStringLiteral(".config/quorlix/calibration.json"));
        QFile::remove(path);
        if (!row.before.isEmpty())
            writeFile(home.path(), QStringLiteral("given.json"), row.before);
        QStringList arguments{"calibrate", row.beacon, "--source", "replay:" + trace, "--fast"};
        const ToolRun run =
            runTool(row.givenFile ? arguments << "--file" << path : arguments, home.path());
        EXPECT_EQ(run.exitCode, row.exitCode) << run.err.toStdString();
        EXPECT_TRUE((run.out + run.err).contains(QLatin1StringView(row.message)))
            << run.out.toStdString() << run.err.toStdString();
        if (row.exitCode != 0) {
            QFile after(path);
            EXPECT_TRUE(after.open(QIODevice::ReadOnly) && after.readAll() == row.before);
            continue;
        }
        QString error;
        const auto settings = Quorlix::LocationSettings::load(path, &error);
        ASSERT_TRUE(settings) << error.toStdString();
        const QUuid uuid(QLatin1StringView{family});
        EXPECT_NEAR(settings->measuredPower.value({uuid, 12, 7}, 0), -63, 1);
        if (!row.before.isEmpty()) {
            EXPECT_EQ(settings->measuredPower.value({uuid, 1, 2}, 0), -70);
            EXPECT_EQ(settings->exitPeriod.count(), 12000);
        }
    }
}

} // namespace
