// quorlix publish against a real mosquitto broker on a loopback port: discovery, state and
// availability as a subscriber sees them, a broker restart in the middle, a clean stop and a
// killed publisher's last will.

#include "DirectoryProcess.h"
#include "ToolProcess.h"

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <csignal>
#include <functional>
#include <map>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using Retained = std::map<QString, QByteArray>;

bool listening(int port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<quint16>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool open = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return open;
}

// A mosquitto broker without persistence: whatever is retained after a restart was published
// again.
class Broker
{
public:
    Broker(const QString& dir, int port)
        : m_port(port)
        , m_config(Quorlix::Testing::writeFile(
              dir, QStringLiteral("mosquitto.conf"),
              QStringLiteral("listener %1 127.0.0.1\nallow_anonymous true\npersistence false\n")
                  .arg(port)
                  .toUtf8()))
    {
        start();
    }
    ~Broker() { stop(); }

    void start()
    {
        m_process.start(QStringLiteral(QUORLIX_MOSQUITTO), {"-c", m_config});
        for (int i = 0; i < 500 && !listening(m_port); ++i)
            QThread::msleep(10);
        ASSERT_TRUE(listening(m_port)) << "mosquitto did not start on port " << m_port;
    }
    void stop()
    {
        m_process.terminate();
        m_process.waitForFinished(5000);
    }

    // What a new subscriber receives as retained, by topic.
    Retained retained() const
    {
        QProcess subscriber;
        subscriber.start(QStringLiteral(QUORLIX_MOSQUITTO_SUB),
                         {"-h", "127.0.0.1", "-p", QString::number(m_port), "-t", "quorlix/#", "-t",
                          "homeassistant/#", "-v", "--retained-only", "-W", "2"});
        subscriber.waitForFinished(5000);
        Retained messages;
        for (const QByteArray& line : subscriber.readAllStandardOutput().split('\n')) {
            const qsizetype space = line.indexOf(' ');
            if (space > 0)
                messages[QString::fromUtf8(line.left(space))] = line.mid(space + 1);
        }
        return messages;
    }

    // Waits (bounded) until the retained messages satisfy done; returns the last ones seen.
    Retained waitFor(const std::function<bool(const Retained&)>& done, int timeoutMs = 10000) const
    {
        QElapsedTimer waited;
        waited.start();
        Retained messages = retained();
        while (!done(messages) && waited.elapsed() < timeoutMs) {
            QThread::msleep(100);
            messages = retained();
        }
        return messages;
    }

private:
    int m_port;
    QString m_config;
    QProcess m_process;
};

QJsonObject json(const Retained& messages, const QString& topic)
{
    const auto found = messages.find(topic);
    return found == messages.end() ? QJsonObject()
                                   : QJsonDocument::fromJson(found->second).object();
}

QString describe(const Retained& messages)
{
    QString text;
    for (const auto& [topic, payload] : messages)
        text += topic + u' ' + QString::fromUtf8(payload.left(120)) + u'\n';
    return text;
}

QProcess* startPublisher(QProcess& publisher, const QString& home, const QStringList& arguments)
{
    publisher.setProcessEnvironment(Quorlix::Testing::toolEnvironment(home));
    publisher.setProcessChannelMode(QProcess::MergedChannels);
    publisher.start(QStringLiteral(QUORLIX_COMMAND), QStringList{"publish"} + arguments);
    return &publisher;
}

const QByteArray scenarioText = R"({"seed": 4, "beacons": [
    {"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 12, "minor": 7, "noise": 1,
     "path": [[0, 1.0]]},
    {"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 300, "minor": 1, "noise": 1,
     "path": [[0, 6.0]]}]})";

TEST(PublishCommand, FamilyBeaconsSurviveABrokerRestartAndAKilledPublisherLeavesItsWill)
{
    QTemporaryDir dir;
    const int port = Quorlix::Testing::unusedPort();
    Broker broker(dir.path(), port);
    const QString scenario =
        Quorlix::Testing::writeFile(dir.path(), QStringLiteral("room.json"), scenarioText);
    QProcess publisher;
    startPublisher(publisher, dir.path(),
                   {"--broker", QStringLiteral("127.0.0.1:%1").arg(port), "--room", "Test room",
                    "--interval", "1", "--source", "simulate:" + scenario});

    const QString state = QStringLiteral("quorlix/Test_room/12-7/state");
    const QString availability = QStringLiteral("quorlix/Test_room/availability");
    const auto complete = [&](const Retained& messages) {
        return messages.count(availability) &&
               json(messages, state)[u"proximity"].toString() == u"Near" &&
               json(messages, QStringLiteral("quorlix/Test_room/300-1/state"))[u"proximity"]
                       .toString() == u"Far" &&
               messages.size() == 11; // availability, two states, four entities each
    };
    for (const bool restarted : {false, true}) {
        SCOPED_TRACE(restarted ? "after the broker restarted" : "first connection");
        if (restarted) {
            broker.stop();
            broker.start();
        }
        const Retained messages = broker.waitFor(complete);
        ASSERT_TRUE(complete(messages)) << describe(messages).toStdString();
        EXPECT_EQ(messages.at(availability), "online");
        const QJsonObject near = json(messages, state);
        EXPECT_EQ(near[u"presence"].toString(), QStringLiteral("home"));
        EXPECT_NEAR(near[u"distance"].toDouble(), 1.0, 0.4);
        EXPECT_NEAR(near[u"rssi"].toInt(), -59, 4);
        EXPECT_EQ(near[u"room"].toString(), QStringLiteral("Test room"));

        const struct
        {
            const char* topic;
            const char* deviceClass;
            const char* template_;
        } entities[] = {
            {"binary_sensor/quorlix_Test_room_12-7_presence", "presence", "presence"},
            {"sensor/quorlix_Test_room_12-7_proximity", "", "proximity"},
            {"sensor/quorlix_Test_room_12-7_distance", "distance", "distance"},
            {"sensor/quorlix_Test_room_12-7_rssi", "signal_strength", "rssi"},
        };
        for (const auto& entity : entities) {
            const QJsonObject config =
                json(messages, QStringLiteral("homeassistant/%1/config").arg(entity.topic));
            ASSERT_FALSE(config.isEmpty()) << entity.topic;
            EXPECT_EQ(config[u"state_topic"].toString(), state);
            EXPECT_EQ(config[u"availability_topic"].toString(), availability);
            EXPECT_EQ(config[u"unique_id"].toString(),
                      QString::fromLatin1(entity.topic).section(u'/', 1));
            EXPECT_EQ(config[u"device_class"].toString(), QLatin1StringView(entity.deviceClass));
            EXPECT_EQ(
                config[u"value_template"].toString(),
                QStringLiteral("{{ value_json.%1 }}").arg(QLatin1StringView(entity.template_)));
            EXPECT_EQ(config[u"device"][u"identifiers"][0].toString(),
                      QStringLiteral("quorlix_Test_room_12-7"));
        }
    }

    ::kill(static_cast<pid_t>(publisher.processId()), SIGKILL);
    publisher.waitForFinished(5000);
    const Retained afterKill = broker.waitFor([&](const Retained& messages) {
        return messages.count(availability) && messages.at(availability) == "offline";
    });
    EXPECT_EQ(afterKill.count(availability) ? afterKill.at(availability) : QByteArray(), "offline")
        << describe(afterKill).toStdString();
    // The last state stays, retained, for whoever looks next.
    EXPECT_EQ(json(afterKill, state)[u"presence"], QStringLiteral("home"));
}

TEST(PublishCommand, WatchedDevicesOnlyAndACleanStopSaysOffline)
{
    QTemporaryDir dir;
    Quorlix::Testing::DirectoryProcess directory;
    const int port = Quorlix::Testing::unusedPort();
    Broker broker(dir.path(), port);
    const QString scenario =
        Quorlix::Testing::writeFile(dir.path(), QStringLiteral("room.json"), scenarioText);
    const QStringList common{"--broker",    QStringLiteral("127.0.0.1:%1").arg(port),
                             "--room",      "hall",
                             "--directory", directory.host(),
                             "--source",    "simulate:" + scenario};

    // An unknown device stops the start, before anything is published.
    QProcess refused;
    startPublisher(refused, dir.path(), common + QStringList{"--watch", "1047", "--watch", "9999"});
    ASSERT_TRUE(refused.waitForFinished(10000));
    EXPECT_EQ(refused.exitCode(), 1);
    EXPECT_TRUE(refused.readAll().contains("does not know device 9999"));

    QProcess publisher;
    startPublisher(publisher, dir.path(),
                   common + QStringList{"--watch", "1047", "--watch", "1048"});
    const auto settled = [](const Retained& messages) {
        return json(messages, QStringLiteral("quorlix/hall/1047/state"))[u"proximity"].toString() ==
                   u"Near" &&
               messages.count(QStringLiteral("quorlix/hall/1048/state"));
    };
    const Retained messages = broker.waitFor(settled);
    ASSERT_TRUE(settled(messages)) << describe(messages).toStdString();
    // 1048 (beacon 12-8) is not in the room; 300-1 is heard but not watched.
    const QJsonObject away = json(messages, QStringLiteral("quorlix/hall/1048/state"));
    EXPECT_EQ(away[u"presence"].toString(), QStringLiteral("away"));
    EXPECT_EQ(away[u"proximity"].toString(), QStringLiteral("Unknown"));
    EXPECT_TRUE(away[u"distance"].isNull());
    EXPECT_EQ(messages.count(QStringLiteral("quorlix/hall/300-1/state")), 0U);
    EXPECT_EQ(messages.size(), 11U) << describe(messages).toStdString();

    publisher.terminate();
    ASSERT_TRUE(publisher.waitForFinished(5000));
    EXPECT_EQ(publisher.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(publisher.exitCode(), 0);
    EXPECT_EQ(broker.retained()[QStringLiteral("quorlix/hall/availability")], "offline");
}

} // namespace
