#include "quorlix/service/DirectoryProbe.h"

#include "quorlix/service/DirectoryClient.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QUrl>

#include <curl/curl.h>

#include <memory>

namespace Quorlix {
namespace {

std::size_t appendToBody(char* data, std::size_t size, std::size_t count, void* body)
{
    static_cast<QByteArray*>(body)->append(data, static_cast<qsizetype>(size * count));
    return size * count;
}

struct Reply
{
    QString failure; // empty when the service answered
    long status = 0;
    QByteArray body;
};

Reply get(const QString& host, const QString& path)
{
    const QByteArray url = QStringLiteral("http://%1%2").arg(host, path).toUtf8();
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> easy(curl_easy_init(),
                                                                   &curl_easy_cleanup);
    if (!easy)
        return {QStringLiteral("cannot start an HTTP request"), 0, {}};
    Reply reply;
    curl_easy_setopt(easy.get(), CURLOPT_URL, url.constData());
    curl_easy_setopt(easy.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy.get(), CURLOPT_TIMEOUT, 5L);
    curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, &appendToBody);
    curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, &reply.body);
    if (const CURLcode code = curl_easy_perform(easy.get()); code != CURLE_OK) {
        reply.failure = QStringLiteral("the directory service at %1 does not answer (%2)")
                            .arg(host, QString::fromUtf8(curl_easy_strerror(code)));
        return reply;
    }
    curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &reply.status);
    return reply;
}

// The key as the managers read it: a number, or a list whose first element is one.
QString keyOf(const QJsonObject& record)
{
    QJsonValue key = record.value(QStringLiteral("Key"));
    if (key.isArray())
        key = key.toArray().at(0); // undefined for an empty list: no key
    return key.isDouble() ? QString::number(key.toInteger()) : QString();
}

} // namespace

DirectoryProbe::DirectoryProbe()
    : m_host(DirectoryClient::host())
{}

DirectoryProbe::DirectoryProbe(QString host)
    : m_host(std::move(host))
{}

bool DirectoryProbe::isMajorMinor(const QString& text)
{
    static const QRegularExpression form(
        QStringLiteral("^(0|[1-9][0-9]{0,4})-(0|[1-9][0-9]{0,4})$"));
    const QRegularExpressionMatch match = form.match(text);
    return match.hasMatch() && match.captured(1).toInt() <= 65535 &&
           match.captured(2).toInt() <= 65535;
}

DirectoryProbe::Answer DirectoryProbe::lookUp(const QString& deviceID) const
{
    // Device IDs go into the URL path as they stand, so only plain ID characters are allowed.
    static const QRegularExpression idForm(QStringLiteral("^[A-Za-z0-9._~-]+$"));
    if (!idForm.match(deviceID).hasMatch())
        return {QStringLiteral("'%1' is not a device ID (letters, digits, '.', '_', '~', '-')")
                    .arg(deviceID),
                {}};

    const Reply reply = get(m_host, QStringLiteral("/api/device/") + deviceID);
    if (!reply.failure.isEmpty())
        return {reply.failure, {}, false};
    const QJsonDocument document = QJsonDocument::fromJson(reply.body);
    if (reply.status == 404 || !document.isObject())
        return {QStringLiteral("the directory service at %1 does not know device %2 (HTTP %3)")
                    .arg(m_host, deviceID)
                    .arg(reply.status),
                {}};
    const QJsonObject record = document.object();
    Answer answer;
    answer.key = keyOf(record);
    answer.info = record.value(QStringLiteral("Info")).toString();
    answer.majorMinor = record.value(QStringLiteral("MajorMinor")).toString();
    if (!isMajorMinor(answer.majorMinor)) {
        answer.problem =
            QStringLiteral("device %1 has no usable \"MajorMinor\" in the directory (got '%2')")
                .arg(deviceID, answer.majorMinor);
        answer.majorMinor.clear();
    }
    return answer;
}

DirectoryProbe::Answer DirectoryProbe::lookUpMajorMinor(const QString& majorMinor) const
{
    if (!isMajorMinor(majorMinor))
        return {QStringLiteral("'%1' is not a beacon's major-minor (two numbers 0-65535 joined "
                               "by '-')")
                    .arg(majorMinor),
                {}};
    const Reply reply = get(m_host, QStringLiteral("/api/device/majorminor/?major-minor=") +
                                        QString::fromLatin1(QUrl::toPercentEncoding(majorMinor)));
    if (!reply.failure.isEmpty())
        return {reply.failure, {}, false};
    // The service answers the list of records with that beacon; a single record is read as one.
    const QJsonDocument document = QJsonDocument::fromJson(reply.body);
    const QJsonObject record =
        document.isArray() ? document.array().at(0).toObject() : document.object();
    Answer answer;
    answer.majorMinor = majorMinor;
    answer.key = keyOf(record);
    answer.info = record.value(QStringLiteral("Info")).toString();
    if (answer.key.isEmpty())
        answer.problem =
            QStringLiteral("the directory service at %1 knows no device with beacon %2 (HTTP %3)")
                .arg(m_host, majorMinor)
                .arg(reply.status);
    return answer;
}

} // namespace Quorlix
