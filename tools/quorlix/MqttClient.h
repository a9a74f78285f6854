#pragma once

#include "MqttOptions.h"

#include <QByteArray>
#include <QObject>
#include <QString>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

struct mosquitto;

namespace QuorlixTool {

/// A connection to an MQTT broker through libmosquitto, with a last will, login, TLS and
/// reconnection. The network runs on a thread of its own, which connects, retries after 1 s, 2 s,
/// 4 s, then every 8 s while the broker cannot be reached or goes away, and gives up on what
/// retrying cannot fix; the signals arrive on the thread that made the client.
class MqttClient : public QObject
{
    Q_OBJECT
public:
    MqttClient(MqttOptions options, QByteArray willTopic, QByteArray willPayload);
    ~MqttClient() override;

    /// Starts connecting; false and error when the client cannot be set up (e.g. TLS files that
    /// libmosquitto refuses). A broker that is down is not an error: the client keeps trying.
    bool start(QString* error);
    bool isConnected() const { return m_connected; }
    /// Retained, at least once. Only while connected (false otherwise): what matters is
    /// published again on connected().
    bool publish(const QByteArray& topic, const QByteArray& payload);
    /// Publishes the last words, waits for the broker to take them (at most timeoutMs), then
    /// disconnects cleanly, so that the will is not sent.
    void stop(const QByteArray& topic, const QByteArray& payload, int timeoutMs);

    /// How long the network thread waits for a broker to answer a connection.
    static constexpr int connectTimeoutMs = 10'000;

signals:
    void connected();
    /// An established connection was lost; the client is retrying.
    void disconnected(const QString& reason);
    /// Connecting failed and the client retries. Sent for the first failure, for every refusal
    /// by the broker, and while the broker stays unreachable at growing intervals (5 s, 10 s,
    /// 20 s... then every 10 minutes); failingForS says since when.
    void failing(const QString& reason, double failingForS);
    /// The broker refused the login or the client identifier, or TLS failed: retrying cannot help,
    /// so the client has stopped.
    void gaveUp(const QString& reason);

private:
    static void onConnect(mosquitto*, void* self, int code);
    static void onPublish(mosquitto*, void* self, int messageId);
    static void onLog(mosquitto*, void* self, int level, const char* text);

    void network();
    /// Sleeps up to ms on the network thread; false when told to stop meanwhile.
    bool pause(int ms);

    MqttOptions m_options;
    mosquitto* m_client = nullptr;
    std::thread m_thread;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stopping = false;        ///< under m_mutex
    QString m_lastError;            ///< libmosquitto's last error log line, under m_mutex
    std::atomic<int> m_refusal{-1}; ///< the broker's CONNACK code of the current attempt
    std::atomic<bool> m_accepted{false};
    bool m_connected = false; ///< on the owner's thread
    std::atomic<int> m_lastAcknowledged{0};
};

} // namespace QuorlixTool
