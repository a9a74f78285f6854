// quorlix publish against a real mosquitto broker on a loopback port, as a subscriber sees it: two
// rooms (every family beacon heard; watched devices only), a broker restart in the middle, then a
// killed publisher's last will and a clean stop.

#include "Broker.h"
#include "DirectoryProcess.h"
#include "ProgramRun.h"

#include <QDeadlineTimer>
#include <QMap>
#include <QTemporaryDir>

#include <csignal>
#include <functional>

namespace {

using namespace Quorlix::Testing;

TEST(PublishCommand, RoomsSurviveABrokerRestartAndEndOfflineByWillOrByStop)
{
    QTemporaryDir dir;
    DirectoryProcess directory;
    const int port = unusedPort();
    QProcess broker;
    startBroker(broker, port);
    const QString scenario = writeFile(dir.path(), QStringLiteral("room.json"), R"({"seed": 4,
      "beacons": [{"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 12, "minor": 7,
                   "noise": 1, "path": [[0, 1.0]]},
                  {"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 300, "minor": 1,
                   "noise": 1, "path": [[0, 6.0]]},
                  {"uuid": "2f234454-cf6d-4a0f-adf2-f4911ba9ffa6", "major": 5, "minor": 6,
                   "path": [[0, 2]]}]})");
    const QStringList common = QStringList{"publish", "--source", "simulate:" + scenario}
                               << "--broker" << QStringLiteral("127.0.0.1:%1").arg(port)
                               << "--directory" << directory.host() << "--interval"
                               << "1";
    // Every family beacon heard, in "Test room"; devices 1047 (beacon 12-7) and 1048 (not in the
    // room) only, in "hall".
    QProcess everyBeacon, watched;
    startProgram(everyBeacon, QUORLIX_COMMAND, common + QStringList{"--room", "Test room"},
                 dir.path());
    startProgram(watched, QUORLIX_COMMAND,
                 common + QStringList{"--room", "hall", "--watch", "1047", "--watch", "1048"},
                 dir.path());

    const auto settled = [](const Retained& messages) {
        return messages.size() == 22 && // per room: availability, two states, four entities each
               json(messages, "quorlix/Test_room/12-7/state")[u"proximity"].toString() == u"Near" &&
               json(messages, "quorlix/Test_room/300-1/state")[u"proximity"].toString() == u"Far" &&
               json(messages, "quorlix/hall/1047/state")[u"proximity"].toString() == u"Near" &&
               !messages.value("quorlix/hall/1048/state").isEmpty() &&
               messages.value("quorlix/Test_room/availability") == "online" &&
               messages.value("quorlix/hall/availability") == "online";
    };
    for (const bool restarted : {false, true}) {
        SCOPED_TRACE(restarted ? "after the broker restarted" : "first connection");
        if (restarted) {
            broker.terminate();
            broker.waitForFinished(5000);
            startBroker(broker, port);
        }
        const Retained messages = retainedWhen(port, settled);
        ASSERT_TRUE(settled(messages)) << messages.size() << " retained messages";
        const QJsonObject near = json(messages, "quorlix/Test_room/12-7/state");
        EXPECT_EQ(near[u"presence"].toString(), u"home");
        EXPECT_NEAR(near[u"distance"].toDouble(), 1.0, 0.4);
        EXPECT_NEAR(near[u"rssi"].toInt(), -59, 4);
        EXPECT_EQ(near[u"room"].toString(), u"Test room");
        EXPECT_EQ(json(messages, "quorlix/hall/1048/state"),
                  QJsonDocument::fromJson(R"({"presence": "away", "proximity": "Unknown",
                      "distance": null, "rssi": null, "room": "hall", "receiver": "hall"})")
                      .object());
        // Every entity of both rooms reads its field from a state and names its availability.
        const QHash<QString, QString> deviceClasses{
            {"presence", "presence"}, {"distance", "distance"}, {"rssi", "signal_strength"}};
        for (const auto& [topic, text] : messages.asKeyValueRange()) {
            if (!topic.startsWith(u"homeassistant/"))
                continue;
            SCOPED_TRACE(topic.toStdString());
            const QJsonObject entity = QJsonDocument::fromJson(text).object();
            const QString id = topic.section(u'/', 2, 2), field = id.section(u'_', -1);
            EXPECT_EQ(topic.section(u'/', 1, 1), field == u"presence" ? "binary_sensor" : "sensor");
            EXPECT_EQ(entity[u"unique_id"].toString(), id);
            EXPECT_TRUE(id.startsWith(entity[u"device"][u"identifiers"][0].toString() + u'_'));
            EXPECT_EQ(entity[u"device_class"].toString(), deviceClasses.value(field));
            EXPECT_EQ(entity[u"value_template"].toString(), "{{ value_json." + field + " }}");
            EXPECT_TRUE(json(messages, entity[u"state_topic"].toString()).contains(field));
            EXPECT_EQ(messages.value(entity[u"availability_topic"].toString()), "online");
        }
    }

    ::kill(static_cast<pid_t>(everyBeacon.processId()), SIGKILL);
    watched.terminate();
    ASSERT_TRUE(watched.waitForFinished(5000));
    EXPECT_TRUE(watched.exitStatus() == QProcess::NormalExit && watched.exitCode() == 0);
    const auto offline = [](const Retained& messages) {
        return messages.value("quorlix/Test_room/availability") == "offline" &&
               messages.value("quorlix/hall/availability") == "offline";
    };
    const Retained after = retainedWhen(port, offline);
    EXPECT_TRUE(offline(after));
    // The last state stays, retained, for whoever looks next.
    EXPECT_EQ(json(after, "quorlix/Test_room/12-7/state")[u"presence"].toString(), u"home");
}

} // namespace
