#include "MqttClient.h"

#include <QElapsedTimer>
#include <QMetaObject>
#include <QThread>

#include <mosquitto.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace QuorlixTool {
namespace {

constexpr int keepAliveS = 30;
constexpr int qos = 1;
constexpr int maxRetryMs = 8000;
constexpr double firstReminderS = 5;
constexpr double maxReminderGapS = 600;

void initLibrary()
{
    static const int once = mosquitto_lib_init();
    (void)once;
}

// CONNACK codes that the same attempt would get again: a wrong protocol, identifier or login.
// "Server unavailable" (3) passes, so it is retried.
bool isFinalRefusal(int code)
{
    return code == 1 || code == 2 || code == 4 || code == 5;
}

} // namespace

MqttClient::MqttClient(MqttOptions options, QByteArray willTopic, QByteArray willPayload)
    : m_options(std::move(options))
{
    initLibrary();
    m_client = mosquitto_new(m_options.clientId.toUtf8().constData(), true, this);
    if (m_client == nullptr)
        return;
    mosquitto_threaded_set(m_client, true);
    mosquitto_will_set(m_client, willTopic.constData(), static_cast<int>(willPayload.size()),
                       willPayload.constData(), qos, true);
    mosquitto_connect_callback_set(m_client, &MqttClient::onConnect);
    mosquitto_publish_callback_set(m_client, &MqttClient::onPublish);
    mosquitto_log_callback_set(m_client, &MqttClient::onLog);
}

MqttClient::~MqttClient()
{
    if (m_thread.joinable()) {
        {
            const std::lock_guard lock(m_mutex);
            m_stopping = true;
        }
        m_wake.notify_all();
        mosquitto_disconnect(m_client);
        m_thread.join();
    }
    if (m_client != nullptr)
        mosquitto_destroy(m_client);
}

bool MqttClient::start(QString* error)
{
    if (m_client == nullptr) {
        *error = QStringLiteral("cannot make an MQTT client");
        return false;
    }
    const auto fail = [&](const QString& what, int code) {
        *error = QStringLiteral("%1: %2").arg(what, QString::fromUtf8(mosquitto_strerror(code)));
        return false;
    };
    if (!m_options.username.isEmpty()) {
        const QByteArray user = m_options.username.toUtf8();
        const QByteArray password = m_options.password.toUtf8();
        if (const int code = mosquitto_username_pw_set(
                m_client, user.constData(), password.isEmpty() ? nullptr : password.constData());
            code != MOSQ_ERR_SUCCESS)
            return fail(QStringLiteral("cannot use the MQTT login"), code);
    }
    if (m_options.tls()) {
        const QByteArray file = m_options.caFile.toLocal8Bit();
        const QByteArray path = m_options.caPath.toLocal8Bit();
        if (const int code = mosquitto_tls_set(
                m_client, file.isEmpty() ? nullptr : file.constData(),
                path.isEmpty() ? nullptr : path.constData(), nullptr, nullptr, nullptr);
            code != MOSQ_ERR_SUCCESS)
            return fail(QStringLiteral("cannot set up TLS with %1")
                            .arg(m_options.caFile.isEmpty() ? m_options.caPath : m_options.caFile),
                        code);
    }
    m_thread = std::thread([this] { network(); });
    return true;
}

bool MqttClient::pause(int ms)
{
    std::unique_lock lock(m_mutex);
    return !m_wake.wait_for(lock, std::chrono::milliseconds(ms), [this] { return m_stopping; });
}

// Connection attempts, by hand rather than by libmosquitto's own loop thread: that one retries
// in silence and ends without a word on a TLS failure, and both must be reported.
void MqttClient::network()
{
    const QByteArray host = m_options.host.toUtf8();
    QElapsedTimer failingSince;
    double nextReminderS = 0;
    int retryMs = 1000;
    bool everConnected = false;
    while (true) {
        {
            const std::lock_guard lock(m_mutex);
            if (m_stopping)
                return;
            m_lastError.clear();
        }
        m_refusal = -1;
        m_accepted = false;
        errno = 0;
        int code = everConnected ? mosquitto_reconnect_async(m_client)
                                 : mosquitto_connect_async(m_client, host.constData(),
                                                           m_options.port, keepAliveS);
        int error = errno;
        QElapsedTimer attempt;
        attempt.start();
        bool wasAccepted = false;
        while (code == MOSQ_ERR_SUCCESS) {
            errno = 0;
            code = mosquitto_loop(m_client, 200, 1);
            error = errno;
            {
                const std::lock_guard lock(m_mutex);
                if (m_stopping)
                    return;
            }
            if (m_accepted && !wasAccepted) {
                wasAccepted = everConnected = true;
                failingSince.invalidate();
                retryMs = 1000;
            }
            if (m_refusal > 0)
                break;
            if (!wasAccepted && attempt.elapsed() > connectTimeoutMs) {
                mosquitto_disconnect(m_client);
                code = MOSQ_ERR_ERRNO;
                error = ETIMEDOUT;
                break;
            }
        }
        const int refusal = m_refusal;
        QString reason;
        if (refusal > 0) {
            reason = QStringLiteral("the broker refused: %1")
                         .arg(QString::fromUtf8(mosquitto_connack_string(refusal)));
        } else {
            reason = QString::fromUtf8(mosquitto_strerror(code));
            if (code == MOSQ_ERR_ERRNO && error != 0)
                reason = QString::fromLocal8Bit(std::strerror(error));
            const std::lock_guard lock(m_mutex);
            if (!m_lastError.isEmpty())
                reason += QStringLiteral(" (%1)").arg(m_lastError);
        }
        // libmosquitto reports a failed TLS handshake as MOSQ_ERR_TLS or as EPROTO.
        const bool tlsFailed = code == MOSQ_ERR_TLS || (code == MOSQ_ERR_ERRNO && error == EPROTO);
        if ((refusal > 0 && isFinalRefusal(refusal)) || tlsFailed || code == MOSQ_ERR_AUTH ||
            code == MOSQ_ERR_INVAL) {
            if (tlsFailed && !reason.startsWith(u"TLS"))
                reason = QStringLiteral("TLS failed: ") + reason;
            QMetaObject::invokeMethod(
                this, [this, reason] { emit gaveUp(reason); }, Qt::QueuedConnection);
            return;
        }
        if (wasAccepted) {
            QMetaObject::invokeMethod(
                this,
                [this, reason] {
                    m_connected = false;
                    emit disconnected(reason);
                },
                Qt::QueuedConnection);
        } else {
            if (!failingSince.isValid()) {
                failingSince.start();
                nextReminderS = 0;
            }
            const double forS = static_cast<double>(failingSince.elapsed()) / 1000.0;
            if (refusal > 0 || forS >= nextReminderS) {
                QMetaObject::invokeMethod(
                    this, [this, reason, forS] { emit failing(reason, forS); },
                    Qt::QueuedConnection);
                if (forS >= nextReminderS)
                    nextReminderS = nextReminderS == 0 ? firstReminderS
                                                       : std::min(nextReminderS * 2,
                                                                  nextReminderS + maxReminderGapS);
            }
        }
        if (!pause(retryMs))
            return;
        retryMs = std::min(retryMs * 2, maxRetryMs);
    }
}

bool MqttClient::publish(const QByteArray& topic, const QByteArray& payload)
{
    if (!m_connected)
        return false;
    return mosquitto_publish(m_client, nullptr, topic.constData(), static_cast<int>(payload.size()),
                             payload.constData(), qos, true) == MOSQ_ERR_SUCCESS;
}

void MqttClient::stop(const QByteArray& topic, const QByteArray& payload, int timeoutMs)
{
    if (!m_thread.joinable())
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
    {
        const std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    mosquitto_disconnect(m_client);
    m_thread.join();
    m_connected = false;
}

void MqttClient::onConnect(mosquitto*, void* self, int code)
{
    auto* client = static_cast<MqttClient*>(self);
    if (code != 0) {
        client->m_refusal = code;
        return;
    }
    client->m_accepted = true;
    QMetaObject::invokeMethod(
        client,
        [client] {
            client->m_connected = true;
            emit client->connected();
        },
        Qt::QueuedConnection);
}

void MqttClient::onPublish(mosquitto*, void* self, int messageId)
{
    static_cast<MqttClient*>(self)->m_lastAcknowledged.store(messageId);
}

void MqttClient::onLog(mosquitto*, void* self, int level, const char* text)
{
    if (level != MOSQ_LOG_ERR)
        return;
    auto* client = static_cast<MqttClient*>(self);
    const std::lock_guard lock(client->m_mutex);
    client->m_lastError = QString::fromUtf8(text).left(200);
}

} // namespace QuorlixTool
