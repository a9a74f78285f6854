#include "MqttClient.h"

#include <QElapsedTimer>
#include <QMetaObject>
#include <QThread>

#include <mosquitto.h>

namespace QuorlixTool {
namespace {

constexpr int keepAliveS = 30;
constexpr int qos = 1;

void initLibrary()
{
    static const int once = mosquitto_lib_init();
    (void)once;
}

} // namespace

MqttClient::MqttClient(QString host, int port, const QString& clientId, QByteArray willTopic,
                       QByteArray willPayload)
    : m_host(std::move(host))
    , m_port(port)
{
    initLibrary();
    m_client = mosquitto_new(clientId.toUtf8().constData(), true, this);
    if (m_client == nullptr)
        return;
    mosquitto_will_set(m_client, willTopic.constData(), static_cast<int>(willPayload.size()),
                       willPayload.constData(), qos, true);
    // A restarted broker is found again within a few seconds, never hammered.
    mosquitto_reconnect_delay_set(m_client, 1, 8, true);
    mosquitto_connect_callback_set(m_client, &MqttClient::onConnect);
    mosquitto_disconnect_callback_set(m_client, &MqttClient::onDisconnect);
    mosquitto_publish_callback_set(m_client, &MqttClient::onPublish);
    mosquitto_message_callback_set(m_client, &MqttClient::onMessage);
}

MqttClient::~MqttClient()
{
    if (m_client == nullptr)
        return;
    if (m_looping) {
        mosquitto_disconnect(m_client);
        mosquitto_loop_stop(m_client, true);
    }
    mosquitto_destroy(m_client);
}

bool MqttClient::start(QString* error)
{
    if (m_client == nullptr) {
        *error = QStringLiteral("cannot make an MQTT client");
        return false;
    }
    const int code =
        mosquitto_connect_async(m_client, m_host.toUtf8().constData(), m_port, keepAliveS);
    // A refused or unreachable broker is retried by the network thread like a lost one.
    if (code != MOSQ_ERR_SUCCESS && code != MOSQ_ERR_ERRNO && code != MOSQ_ERR_CONN_REFUSED) {
        *error = QStringLiteral("cannot connect to the broker at %1:%2: %3")
                     .arg(m_host)
                     .arg(m_port)
                     .arg(QString::fromUtf8(mosquitto_strerror(code)));
        return false;
    }
    if (const int loop = mosquitto_loop_start(m_client); loop != MOSQ_ERR_SUCCESS) {
        *error = QStringLiteral("cannot start the MQTT network thread: %1")
                     .arg(QString::fromUtf8(mosquitto_strerror(loop)));
        return false;
    }
    m_looping = true;
    return true;
}

bool MqttClient::publish(const QByteArray& topic, const QByteArray& payload)
{
    if (!m_connected)
        return false;
    return mosquitto_publish(m_client, nullptr, topic.constData(), static_cast<int>(payload.size()),
                             payload.constData(), qos, true) == MOSQ_ERR_SUCCESS;
}

bool MqttClient::subscribe(const QByteArray& pattern)
{
    if (!m_connected)
        return false;
    return mosquitto_subscribe(m_client, nullptr, pattern.constData(), qos) == MOSQ_ERR_SUCCESS;
}

void MqttClient::stop(const QByteArray& topic, const QByteArray& payload, int timeoutMs)
{
    if (!m_looping)
        return;
    int messageId = 0;
    const bool sent =
        m_connected &&
        mosquitto_publish(m_client, &messageId, topic.constData(), static_cast<int>(payload.size()),
                          payload.constData(), qos, true) == MOSQ_ERR_SUCCESS;
    QElapsedTimer waited;
    waited.start();
    while (sent && m_lastAcknowledged.load() != messageId && waited.elapsed() < timeoutMs)
        QThread::msleep(5);
    mosquitto_disconnect(m_client);
    mosquitto_loop_stop(m_client, false);
    m_looping = false;
    m_connected = false;
}

void MqttClient::onConnect(mosquitto*, void* self, int code)
{
    auto* client = static_cast<MqttClient*>(self);
    QMetaObject::invokeMethod(
        client,
        [client, code] {
            if (code != 0) {
                emit client->disconnected(
                    QStringLiteral("the broker refused: %1")
                        .arg(QString::fromUtf8(mosquitto_connack_string(code))));
                return;
            }
            client->m_connected = true;
            emit client->connected();
        },
        Qt::QueuedConnection);
}

void MqttClient::onDisconnect(mosquitto*, void* self, int code)
{
    auto* client = static_cast<MqttClient*>(self);
    QMetaObject::invokeMethod(
        client,
        [client, code] {
            const bool was = client->m_connected;
            client->m_connected = false;
            if (was)
                emit client->disconnected(QString::fromUtf8(mosquitto_strerror(code)));
        },
        Qt::QueuedConnection);
}

void MqttClient::onMessage(mosquitto*, void* self, const mosquitto_message* message)
{
    auto* client = static_cast<MqttClient*>(self);
    // Copied here: libmosquitto frees the message when the callback returns.
    QByteArray topic(message->topic);
    QByteArray payload(static_cast<const char*>(message->payload), message->payloadlen);
    QMetaObject::invokeMethod(
        client,
        [client, topic = std::move(topic), payload = std::move(payload)] {
            emit client->message(topic, payload);
        },
        Qt::QueuedConnection);
}

void MqttClient::onPublish(mosquitto*, void* self, int messageId)
{
    static_cast<MqttClient*>(self)->m_lastAcknowledged.store(messageId);
}

} // namespace QuorlixTool
