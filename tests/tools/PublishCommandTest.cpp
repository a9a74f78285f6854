// quorlix publish against a real mosquitto broker on a loopback port, as a subscriber sees it: two
// rooms (every family beacon heard; watched devices only), a broker restart in the middle, then a
// killed publisher's last will and a clean stop.

#include "DirectoryProcess.h"
#include "ToolProcess.h"

#include <QElapsedTimer>
#include <QTemporaryDir>

#include <csignal>
#include <functional>
#include <map>

namespace {

using namespace Quorlix::Testing;
using Retained = std::map<QString, QByteArray>;

// A mosquitto broker without persistence: whatever is retained after a restart was published
// again.
class Broker
{
public:
    Broker(const QString& dir, int port)
        : m_port(QString::number(port))
        , m_config(writeFile(dir, QStringLiteral("mosquitto.conf"),
                             "listener " + m_port.toUtf8() +
                                 " 127.0.0.1\nallow_anonymous true\npersistence false\n"))
    {
        m_process.setProcessChannelMode(QProcess::MergedChannels);
        start();
    }
    ~Broker() { stop(); }

    void start()
    {
        m_process.start(QStringLiteral(QUORLIX_MOSQUITTO), {"-c", m_config});
        for (QByteArray log; !log.contains(" running") && m_process.waitForReadyRead(5000);)
            log += m_process.readAll();
    }
    void stop()
    {
        m_process.terminate();
        m_process.waitForFinished(5000);
    }

    // Waits (bounded) until what a new subscriber receives as retained satisfies done; returns
    // the last messages seen, by topic.
    Retained waitFor(const std::function<bool(const Retained&)>& done) const
    {
        QElapsedTimer waited;
        waited.start();
        Retained messages;
        do {
            QProcess subscriber;
            subscriber.start(QStringLiteral(QUORLIX_MOSQUITTO_SUB),
                             {"-h", "127.0.0.1", "-p", m_port, "-t", "quorlix/#", "-t",
                              "homeassistant/#", "-v", "--retained-only", "-W", "2"});
            subscriber.waitForFinished(5000);
            messages.clear();
            for (const QByteArray& line : subscriber.readAllStandardOutput().split('\n')) {
                if (const qsizetype space = line.indexOf(' '); space > 0)
                    messages[QString::fromUtf8(line.left(space))] = line.mid(space + 1);
            }
        } while (!done(messages) && waited.elapsed() < 15000);
        return messages;
    }

private:
    QString m_port;
    QString m_config;
    QProcess m_process;
};

QByteArray payload(const Retained& messages, const char* topic)
{
    const auto found = messages.find(QString::fromLatin1(topic));
    return found == messages.end() ? QByteArray() : found->second;
}

QJsonObject json(const Retained& messages, const char* topic)
{
    return QJsonDocument::fromJson(payload(messages, topic)).object();
}

std::string describe(const Retained& messages)
{
    std::string text;
    for (const auto& [topic, payload] : messages)
        text += (topic + u' ' + QString::fromUtf8(payload.left(120)) + u'\n').toStdString();
    return text;
}

TEST(PublishCommand, RoomsSurviveABrokerRestartAndEndOfflineByWillOrByStop)
{
    QTemporaryDir dir;
    DirectoryProcess directory;
    const int port = unusedPort();
    Broker broker(dir.path(), port);
    const QString scenario = writeFile(dir.path(), QStringLiteral("room.json"), R"({"seed": 4,
      "beacons": [
        {"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 12, "minor": 7, "noise": 1,
         "path": [[0, 1.0]]},
        {"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 300, "minor": 1, "noise": 1,
         "path": [[0, 6.0]]},
        {"uuid": "2f234454-cf6d-4a0f-adf2-f4911ba9ffa6", "major": 5, "minor": 6, "path": [[0, 2]]}
      ]})");
    const QStringList common{"publish",
                             "--broker",
                             QStringLiteral("127.0.0.1:%1").arg(port),
                             "--source",
                             "simulate:" + scenario,
                             "--directory",
                             directory.host(),
                             "--interval",
                             "1"};
    // Every family beacon heard, in "Test room"; devices 1047 (beacon 12-7) and 1048 (not in the
    // room) only, in "hall".
    QProcess everyBeacon, watched;
    startTool(everyBeacon, common + QStringList{"--room", "Test room"}, dir.path());
    startTool(watched, common + QStringList{"--room", "hall", "--watch", "1047", "--watch", "1048"},
              dir.path());

    const auto settled = [](const Retained& messages) {
        return messages.size() == 22 && // per room: availability, two states, four entities each
               json(messages, "quorlix/Test_room/12-7/state")[u"proximity"].toString() == u"Near" &&
               json(messages, "quorlix/Test_room/300-1/state")[u"proximity"].toString() == u"Far" &&
               json(messages, "quorlix/hall/1047/state")[u"proximity"].toString() == u"Near" &&
               !payload(messages, "quorlix/hall/1048/state").isEmpty() &&
               payload(messages, "quorlix/Test_room/availability") == "online" &&
               payload(messages, "quorlix/hall/availability") == "online";
    };
    for (const bool restarted : {false, true}) {
        SCOPED_TRACE(restarted ? "after the broker restarted" : "first connection");
        if (restarted) {
            broker.stop();
            broker.start();
        }
        const Retained messages = broker.waitFor(settled);
        ASSERT_TRUE(settled(messages)) << describe(messages);
        const QJsonObject near = json(messages, "quorlix/Test_room/12-7/state");
        EXPECT_EQ(near[u"presence"].toString(), u"home");
        EXPECT_NEAR(near[u"distance"].toDouble(), 1.0, 0.4);
        EXPECT_NEAR(near[u"rssi"].toInt(), -59, 4);
        EXPECT_EQ(near[u"room"].toString(), u"Test room");
        EXPECT_EQ(json(messages, "quorlix/hall/1048/state"),
                  QJsonDocument::fromJson(R"({"presence": "away", "proximity": "Unknown",
                      "distance": null, "rssi": null, "room": "hall"})")
                      .object());
        const struct
        {
            const char *component, *field, *deviceClass;
        } entities[] = {{"binary_sensor", "presence", "presence"},
                        {"sensor", "proximity", ""},
                        {"sensor", "distance", "distance"},
                        {"sensor", "rssi", "signal_strength"}};
        for (const auto& entity : entities) {
            const QString id = QStringLiteral("quorlix_Test_room_12-7_") + entity.field;
            const QJsonObject config =
                json(messages, qPrintable(QStringLiteral("homeassistant/%1/%2/config")
                                              .arg(QLatin1StringView(entity.component), id)));
            EXPECT_EQ(config[u"state_topic"].toString(), u"quorlix/Test_room/12-7/state")
                << entity.field;
            EXPECT_EQ(config[u"availability_topic"].toString(), u"quorlix/Test_room/availability");
            EXPECT_EQ(config[u"unique_id"].toString(), id);
            EXPECT_EQ(config[u"device_class"].toString(), QLatin1StringView(entity.deviceClass));
            EXPECT_EQ(config[u"value_template"].toString(),
                      QStringLiteral("{{ value_json.%1 }}").arg(QLatin1StringView(entity.field)));
            EXPECT_EQ(config[u"device"][u"identifiers"][0].toString(), u"quorlix_Test_room_12-7");
        }
    }

    ::kill(static_cast<pid_t>(everyBeacon.processId()), SIGKILL);
    watched.terminate();
    ASSERT_TRUE(watched.waitForFinished(5000));
    EXPECT_EQ(watched.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(watched.exitCode(), 0);
    const auto offline = [](const Retained& messages) {
        return payload(messages, "quorlix/Test_room/availability") == "offline" &&
               payload(messages, "quorlix/hall/availability") == "offline";
    };
    const Retained after = broker.waitFor(offline);
    EXPECT_TRUE(offline(after)) << describe(after);
    // The last state stays, retained, for whoever looks next.
    EXPECT_EQ(json(after, "quorlix/Test_room/12-7/state")[u"presence"].toString(), u"home");
    everyBeacon.waitForFinished(5000);
}

} // namespace
