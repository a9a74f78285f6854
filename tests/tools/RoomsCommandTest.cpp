// quorlix rooms as a user runs it: offline on the recordings of a small building (a beacon carried
// from the kitchen to the hall, one heard only in the kitchen that leaves), and live against a real
// mosquitto with two publish commands replaying traces, one killed, the broker restarted.

#include "Broker.h"
#include "DirectoryProcess.h"
#include "ProgramRun.h"

#include <QDateTime>
#include <QDeadlineTimer>
#include <QDir>
#include <QTemporaryDir>
#include <QThread>

#include <csignal>
#include <map>

namespace {

using namespace Quorlix::Testing;

// A beacon of the family heard at rssi twice a second from fromS to toS.
struct Heard
{
    double fromS;
    double toS;
    int major;
    int rssi;
};

QByteArray trace(const std::vector<Heard>& heard)
{
    std::map<double, QByteArray> rows; // by time, as a recording is ordered
    for (const Heard& h : heard) {
        for (double t = h.fromS; t < h.toS; t += 0.5)
            rows[t + h.major * 1e-4] +=
                QStringLiteral("%1,C0:FF:EE:00:00:%2,%3,4c000215e187697975b543de92cb2bc1ad6ba999"
                               "%4%5c5\n")
                    .arg(t + h.major * 1e-4, 0, 'f', 4)
                    .arg(h.major % 100, 2, 10, QChar(u'0'))
                    .arg(h.rssi)
                    .arg(h.major, 4, 16, QChar(u'0'))
                    .arg(7, 4, 16, QChar(u'0'))
                    .toLatin1();
    }
    QByteArray text = "time,address,rssi,manufacturer_data_hex\n";
    for (const auto& [time, row] : rows)
        text += row;
    return text;
}

QString receiver(const QString& building, const QString& room, const QString& name,
                 const std::vector<Heard>& heard)
{
    QDir().mkpath(building + u'/' + room);
    return writeFile(building + u'/' + room, name + QStringLiteral(".csv"), trace(heard));
}

ProgramRun rooms(const QStringList& arguments, const QString& home)
{
    return runProgram(QStringLiteral(QUORLIX_COMMAND), QStringList{"rooms"} + arguments, home, {},
                      60000);
}

// Each beacon's (room, receiver) by second.
std::map<QString, std::map<int, std::pair<QString, QString>>> decisions(const ProgramRun& run)
{
    std::map<QString, std::map<int, std::pair<QString, QString>>> result;
    for (const QJsonObject& line : run.json()) {
        EXPECT_EQ(line.keys(), QStringList({"beacon", "receiver", "room", "time"}));
        result[line[u"beacon"].toString()][line[u"time"].toInt()] = {
            line[u"room"].isNull() ? QStringLiteral("null") : line[u"room"].toString(),
            line[u"receiver"].toString()};
    }
    return result;
}

TEST(RoomsCommand, ReplaysABuildingAsPublishWouldReportIt)
{
    QTemporaryDir home;
    const QString building = home.filePath(QStringLiteral("building"));
    // 12-7 is carried from the kitchen to the hall at 60 s (20 dB down there, 10 dB up here: the
    // hall within 15 s); 300-7 is heard in the kitchen until 30 s. h2 starts recording at 70 s: its
    // rows are at their time, not at its start.
    receiver(building, "kitchen", "k1", {{0, 60, 12, -60}, {60, 120, 12, -80}, {0, 30, 300, -65}});
    receiver(building, "hall", "h1", {{0, 60, 12, -78}, {60, 120, 12, -68}});
    receiver(building, "hall", "h2", {{70, 120, 12, -56}});

    const ProgramRun run = rooms({"--replay", building, "--fast", "--json"}, home.path());
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    auto seen = decisions(run);
    ASSERT_EQ(seen["12-7"].size(), 120u); // every second of the recordings
    ASSERT_EQ(seen["300-7"].size(), 120u);
    for (int t = 1; t <= 120; ++t) {
        SCOPED_TRACE(t);
        const auto& [room, by] = seen["12-7"][t];
        const QString expected = t == 1 ? "" : t < 60 ? "kitchen/k1" : t >= 80 ? "hall/h2" : "";
        if (!expected.isEmpty()) {
            EXPECT_EQ(room + u'/' + by, expected);
        } else if (t >= 75 && t < 80) {
            EXPECT_EQ(room, "hall");
        }
        // Away from every room only after the exit period in all of them.
        if (t < 58 || t > 62) {
            EXPECT_EQ(seen["300-7"][t].first, t < 58 ? "kitchen" : "null");
        }
    }

    // The calibration's receiver offsets apply by receiver name: h1 reading 25 dB higher wins.
    const QString calibration =
        writeFile(home.path(), QStringLiteral("calibration.json"),
                  R"({"receivers": [{"address": "h1", "rssiOffset": 25}]})");
    const ProgramRun calibrated = rooms(
        {"--replay", building, "--fast", "--json", "--seconds", "40", "--calibration", calibration},
        home.path());
    ASSERT_EQ(calibrated.exitCode, 0) << calibrated.err.toStdString();
    seen = decisions(calibrated);
    EXPECT_EQ(seen["12-7"].size(), 40u);
    EXPECT_EQ(seen["12-7"][30], std::pair(QStringLiteral("hall"), QStringLiteral("h1")));
}

// What a subscriber finds retained of a beacon's room; "none" when nothing is.
QString roomOf(const Retained& messages, const QString& beacon)
{
    const QString topic = QStringLiteral("quorlix/rooms/%1/state").arg(beacon);
    if (!messages.contains(topic))
        return QStringLiteral("none");
    const QJsonValue room = json(messages, topic)[u"room"];
    return room.isNull() ? QStringLiteral("null") : room.toString();
}

TEST(RoomsCommand, LiveAReceiverKilledMakesNoBeaconAwayAndARestartedBrokerGetsItAllBack)
{
    QTemporaryDir home;
    const int port = unusedPort();
    QProcess broker;
    startBroker(broker, port);
    const QString kitchen = writeFile(home.path(), QStringLiteral("kitchen.csv"),
                                      trace({{0, 300, 12, -60}, {0, 300, 300, -70}}));
    const QString hall =
        writeFile(home.path(), QStringLiteral("hall.csv"), trace({{0, 300, 12, -75}}));
    const QString at = QStringLiteral("127.0.0.1:%1").arg(port);
    QProcess kitchenPublish, hallPublish, decide;
    startProgram(kitchenPublish, QUORLIX_COMMAND,
                 {"publish", "--broker", at, "--room", "kitchen", "--source", "replay:" + kitchen},
                 home.path());
    startProgram(hallPublish, QUORLIX_COMMAND,
                 {"publish", "--broker", at, "--room", "hall", "--source", "replay:" + hall},
                 home.path());
    startProgram(decide, QUORLIX_COMMAND, {"rooms", "--broker", at}, home.path());

    const auto decided = [](const Retained& messages) {
        return roomOf(messages, "12-7") == u"kitchen" && roomOf(messages, "300-7") == u"kitchen" &&
               messages.value("quorlix/rooms/availability") == "online" &&
               messages.contains("homeassistant/sensor/quorlix_rooms_12-7_room/config") &&
               messages.contains("homeassistant/device_tracker/quorlix_rooms_300-7/config");
    };
    Retained messages = retainedWhen(port, decided);
    ASSERT_TRUE(decided(messages)) << messages.keys().join(u' ').toStdString();
    const QJsonObject state = json(messages, "quorlix/rooms/12-7/state");
    EXPECT_EQ(state[u"receiver"].toString(), u"kitchen");
    EXPECT_NEAR(state[u"distance"].toDouble(), 1.0, 0.3);
    EXPECT_NEAR(state[u"since"].toDouble(), QDateTime::currentSecsSinceEpoch(), 30);
    const QJsonObject tracker =
        json(messages, "homeassistant/device_tracker/quorlix_rooms_12-7/config");
    EXPECT_EQ(tracker[u"state_topic"].toString(), u"quorlix/rooms/12-7/state");

    // The kitchen's receiver dies: its will says offline, and its last word stands.
    ::kill(static_cast<pid_t>(kitchenPublish.processId()), SIGKILL);
    QByteArray said;
    for (const QDeadlineTimer deadline(15000);
         !said.contains("receiver kitchen is offline") && !deadline.hasExpired();)
        if (decide.waitForReadyRead(500))
            said += decide.readAllStandardOutput();
    ASSERT_TRUE(said.contains("receiver kitchen is offline")) << said.toStdString();
    QThread::sleep(3);
    messages = retainedWhen(port, decided);
    EXPECT_EQ(roomOf(messages, "300-7"), u"kitchen");
    EXPECT_EQ(roomOf(messages, "12-7"), u"kitchen");

    // A broker restarted without persistence gets the rooms back from quorlix rooms.
    broker.terminate();
    broker.waitForFinished(5000);
    startBroker(broker, port);
    messages = retainedWhen(port, decided);
    EXPECT_TRUE(decided(messages)) << messages.keys().join(u' ').toStdString();

    decide.terminate();
    ASSERT_TRUE(decide.waitForFinished(5000));
    EXPECT_EQ(decide.exitCode(), 0);
    hallPublish.terminate();
    hallPublish.waitForFinished(5000);
    EXPECT_EQ(retainedWhen(port,
                           [](const Retained& m) {
                               return m.value("quorlix/rooms/availability") == "offline";
                           })
                  .value("quorlix/rooms/availability"),
              "offline");
    broker.terminate();
    broker.waitForFinished(5000);
}

} // namespace
