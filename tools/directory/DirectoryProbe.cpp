#include "DirectoryProbe.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <curl/curl.h>

#include <memory>

namespace QuorlixTools {
namespace {

std::size_t appendToBody(char* data, std::size_t size, std::size_t count, void* body)
{
    static_cast<QByteArray*>(body)->append(data, static_cast<qsizetype>(size * count));
    return size * count;
}

} // namespace

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

    const QByteArray url = QStringLiteral("http://%1/api/device/%2").arg(m_host, deviceID).toUtf8();
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> easy(curl_easy_init(),
                                                                   &curl_easy_cleanup);
    if (!easy)
        return {QStringLiteral("cannot start an HTTP request"), {}, false};
    QByteArray body;
    long status = 0;
    curl_easy_setopt(easy.get(), CURLOPT_URL, url.constData());
    curl_easy_setopt(easy.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy.get(), CURLOPT_TIMEOUT, 5L);
    curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, &appendToBody);
    curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, &body);
    if (const CURLcode code = curl_easy_perform(easy.get()); code != CURLE_OK)
        return {QStringLiteral("the directory service at %1 does not answer (%2)")
                    .arg(m_host, QString::fromUtf8(curl_easy_strerror(code))),
                {},
                false};
    curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);

    const QJsonDocument document = QJsonDocument::fromJson(body);
    if (status == 404 || !document.isObject())
        return {QStringLiteral("the directory service at %1 does not know device %2 (HTTP %3)")
                    .arg(m_host, deviceID)
                    .arg(status),
                {}};
    const QJsonObject record = document.object();
    QJsonValue key = record.value(QStringLiteral("Key"));
    if (key.isArray())
        key = key.toArray().at(0); // undefined for an empty list: no key
    Answer answer;
    if (key.isDouble())
        answer.key = QString::number(key.toInteger());
    answer.majorMinor = record.value(QStringLiteral("MajorMinor")).toString();
    if (!isMajorMinor(answer.majorMinor)) {
        answer.problem =
            QStringLiteral("device %1 has no usable \"MajorMinor\" in the directory (got '%2')")
                .arg(deviceID, answer.majorMinor);
        answer.majorMinor.clear();
    }
    return answer;
}

} // namespace QuorlixTools
