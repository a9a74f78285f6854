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
#include <memory>
#include <vector>

#include <pwd.h>
#include <unistd.h>

namespace {

using namespace Quorlix::Testing;

// A certificate authority that signed the broker's certificate (for 127.0.0.1), another that did
// not, and a password file with one user; all made fresh in dir.
bool makeCredentials(const QString& dir)
{
    QProcess make;
    make.setWorkingDirectory(dir);
    make.setProcessChannelMode(QProcess::MergedChannels);
    make.start(QStringLiteral("/bin/sh"), {"-ec", R"(
        for ca in ca other-ca; do "$1" req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=$ca \
            -keyout $ca.key -out $ca.pem; done
        "$1" req -newkey rsa:2048 -nodes -subj /CN=localhost -keyout server.key -out server.csr
        echo subjectAltName=IP:127.0.0.1,DNS:localhost > san.cnf
        "$1" x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 \
            -extfile san.cnf -out server.pem
        "$2" -c -b passwd kitchen s3cret)",
                                           "sh", QUORLIX_OPENSSL, QUORLIX_MOSQUITTO_PASSWD});
    const bool made = make.waitForFinished(60000) && make.exitCode() == 0;
    EXPECT_TRUE(made) << make.readAll().toStdString();
    return made;
}

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
                 common + QStringList{"--room", "hall", "--watch", "1047", "--watch", "1048",
                                      "--exit-period", "2"},
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
        ASSERT_TRUE(settled(messages))
            << messages.size()
            << " retained messages: " << QStringList(messages.keys()).join(u' ').toStdString();
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
    everyBeacon.waitForFinished(5000);
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

    // The receiver restarts: the first states it sends are entries, never an away first.
    // Its debug lines (-d, line-buffered) say when the broker granted the subscription: only then
    // may the publisher start.
    QProcess fresh;
    fresh.start(QStringLiteral("stdbuf"),
                {"-oL", QUORLIX_MOSQUITTO_SUB, "-d", "-p", QString::number(port), "-t",
                 "quorlix/Test_room/+/state", "-v", "-R", "-C", "2", "-W", "30"});
    QByteArray said;
    for (const QDeadlineTimer deadline(10000);
         !said.contains("received SUBACK") && !deadline.hasExpired();)
        if (fresh.waitForReadyRead(500))
            said += fresh.readAllStandardOutput();
    ASSERT_TRUE(said.contains("received SUBACK")) << said.toStdString();
    startProgram(everyBeacon, QUORLIX_COMMAND, common + QStringList{"--room", "Test room"},
                 dir.path());
    ASSERT_TRUE(fresh.waitForFinished(30000));
    said += fresh.readAllStandardOutput();
    QList<QByteArray> states;
    for (const QByteArray& line : said.split('\n'))
        if (line.startsWith("quorlix/"))
            states << line;
    ASSERT_EQ(states.size(), 2) << said.toStdString();
    for (const QByteArray& state : states)
        EXPECT_TRUE(state.contains(R"("presence":"home")")) << state.toStdString();
    everyBeacon.terminate();
    EXPECT_TRUE(everyBeacon.waitForFinished(5000));
}

// A broker that wants a login, plainly and over TLS: a good login connects; a refused login or a
// failed TLS handshake ends with status 1 and the reason; an unreachable broker is retried and
// said so again later.
TEST(PublishCommand, LoginAndTlsConnectAndWhatRetryingCannotFixEndsWithStatusOne)
{
    QTemporaryDir dir;
    ASSERT_TRUE(makeCredentials(dir.path()));
    const int plain = unusedPort(), tls = unusedPort(), nobody = unusedPort();
    const QString config = writeFile(
        dir.path(), QStringLiteral("broker.conf"),
        // Run by root, mosquitto would become user mosquitto, who cannot read the scratch folder.
        QStringLiteral("allow_anonymous false\npassword_file %1/passwd\nuser %4\n"
                       "listener %2 127.0.0.1\nlistener %3 127.0.0.1\ncafile %1/ca.pem\n"
                       "certfile %1/server.pem\nkeyfile %1/server.key\n")
            .arg(dir.path())
            .arg(plain)
            .arg(tls)
            .arg(QString::fromLocal8Bit(::getpwuid(::getuid())->pw_name))
            .toUtf8());
    QProcess broker;
    startBroker(broker, {"-c", config});
    const QString scenario = writeFile(dir.path(), QStringLiteral("room.json"), R"({"beacons": [
        {"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 12, "minor": 7,
         "path": [[0, 1.0]]}]})");
    const QString password = writeFile(dir.path(), QStringLiteral("password"), "s3cret\n");
    const QString ca = dir.filePath(QStringLiteral("ca.pem"));
    const QString otherCa = dir.filePath(QStringLiteral("other-ca.pem"));
    const QStringList login{"--username", "kitchen", "--password-file", password};
    const auto at = [](int port) { return QStringLiteral("127.0.0.1:%1").arg(port); };

    struct Case
    {
        QStringList arguments;
        QStringList environment;
        int exitCode;
        QString message; ///< in standard output or error
    };
    const Case cases[] = {
        {QStringList{"--broker", at(plain)} + login, {}, 0, "connected to 127.0.0.1:"},
        // The environment stands for every option, as /etc/default/quorlix-publish sets it.
        {{},
         {"QUORLIX_BROKER=" + at(tls), "QUORLIX_MQTT_USERNAME=kitchen",
          "QUORLIX_MQTT_PASSWORD_FILE=" + password, "QUORLIX_MQTT_CAFILE=" + ca,
          "QUORLIX_MQTT_CLIENT_ID=kitchen-sensor"},
         0,
         "connected to 127.0.0.1:"},
        {{"--broker", at(plain)}, {}, 1, "the broker refused: Connection Refused: not authorised"},
        {QStringList{"--broker", at(tls), "--cafile", otherCa} + login, {}, 1, "TLS failed"},
        // Nothing listens: retried, said at once and again after 5 s, and never a failure.
        {{"--broker", at(nobody)}, {}, 0, "still cannot connect to 127.0.0.1:"},
    };
    // All at once: most of them wait for their --seconds.
    std::vector<std::unique_ptr<QProcess>> runs;
    for (const Case& c : cases) {
        runs.push_back(std::make_unique<QProcess>());
        startProgram(*runs.back(), QUORLIX_COMMAND,
                     QStringList{"publish", "--source", "simulate:" + scenario, "--room", "kitchen",
                                 "--seconds", "9"} +
                         c.arguments,
                     dir.path(), c.environment);
    }
    for (std::size_t i = 0; i < runs.size(); ++i) {
        const Case& c = cases[i];
        SCOPED_TRACE(c.message.toStdString());
        QProcess& process = *runs[i];
        ASSERT_TRUE(process.waitForFinished(20000));
        const QString out = QString::fromUtf8(process.readAllStandardOutput());
        const QString err = QString::fromUtf8(process.readAllStandardError());
        EXPECT_EQ(process.exitCode(), c.exitCode) << out.toStdString() << err.toStdString();
        EXPECT_TRUE((out + err).contains(c.message)) << out.toStdString() << err.toStdString();
        if (c.exitCode == 1) {
            EXPECT_TRUE(err.contains("cannot connect to 127.0.0.1:")) << err.toStdString();
        }
        if (c.message.startsWith(u"still")) {
            EXPECT_TRUE(out.contains("cannot connect to " + at(nobody) +
                                     " (Connection refused); "
                                     "retrying\n"))
                << out.toStdString();
        }
    }
}

} // namespace
