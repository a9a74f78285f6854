#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

#include <atomic>

struct mosquitto;
struct mosquitto_message;

namespace QuorlixTool {

/// A connection to an MQTT broker through libmosquitto, with a last will and reconnection: the
/// network runs on libmosquitto's own thread, which retries every few seconds after the broker
/// goes away; connected() and disconnected() arrive on the thread that made the client.
class MqttClient : public QObject
{
    Q_OBJECT
public:
    MqttClient(QString host, int port, const QString& clientId, QByteArray willTopic,
               QByteArray willPayload);
    ~MqttClient() override;

    /// Starts connecting; false and error when libmosquitto refuses at once (e.g. a host name that
    /// does not resolve). A broker that is down is not an error: the client keeps trying.
    bool start(QString* error);
    bool isConnected() const { return m_connected; }
    /// Retained, at least once. Only while connected (false otherwise): what matters is
    /// published again on connected().
    bool publish(const QByteArray& topic, const QByteArray& payload);
    /// Subscribes at QoS 1; only while connected (false otherwise), so subscribe again on
    /// connected(). Messages arrive through message().
    bool subscribe(const QByteArray& pattern);
    /// Publishes the last words, waits for the broker to take them (at most timeoutMs), then
    /// disconnects cleanly, so that the will is not sent.
    void stop(const QByteArray& topic, const QByteArray& payload, int timeoutMs);

signals:
    void connected();
    void disconnected(const QString& reason);
    void message(const QByteArray& topic, const QByteArray& payload);

private:
    static void onConnect(mosquitto*, void* self, int code);
    static void onDisconnect(mosquitto*, void* self, int code);
    static void onPublish(mosquitto*, void* self, int messageId);
    static void onMessage(mosquitto*, void* self, const mosquitto_message* message);

    QString m_host;
    int m_port;
    mosquitto* m_client = nullptr;
    bool m_connected = false;
    bool m_looping = false;
    std::atomic<int> m_lastAcknowledged{0};
};

} // namespace QuorlixTool
