#include "quorlix/service/DirectoryClient.h"

#include "quorlix/platform/Fatal.h"

#include <QUrl>

#include <curl/curl.h>

#include <mutex>

namespace Quorlix::DirectoryClient {
namespace {

bool isUrlCharacter(char16_t c)
{
    if ((c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9'))
        return true;
    return QStringView(u"-._~:/?#[]@!$&'()*+,;=%").contains(QChar(c));
}

bool isHexDigit(QChar c)
{
    return (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f') || (c >= u'A' && c <= u'F');
}

std::size_t appendToBody(char* data, std::size_t size, std::size_t count, void* body)
{
    static_cast<QByteArray*>(body)->append(data, static_cast<qsizetype>(size * count));
    return size * count;
}

struct EasyHandle
{
    CURL* handle = curl_easy_init();
    ~EasyHandle() { curl_easy_cleanup(handle); }
};

} // namespace

QString host()
{
    const QString fromEnvironment = qEnvironmentVariable("QUORLIX_DIRECTORY_HOST");
    return fromEnvironment.isEmpty() ? QStringLiteral(QUORLIX_DEFAULT_DIRECTORY_HOST)
                                     : fromEnvironment;
}

QString deviceUrl(const QString& key)
{
    return QStringLiteral("http://") + host() + QStringLiteral("/api/device/") + key;
}

QString majorMinorUrl(const QString& majorMinor)
{
    return QStringLiteral("http://") + host() +
           QStringLiteral("/api/device/majorminor/?major-minor=") + majorMinor;
}

bool isValidUrl(const QString& text)
{
    if (text.isEmpty())
        return false;
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (!isUrlCharacter(text[i].unicode()))
            return false;
        if (text[i] == u'%' &&
            (i + 2 >= text.size() || !isHexDigit(text[i + 1]) || !isHexDigit(text[i + 2])))
            return false;
    }
    return QUrl(text, QUrl::StrictMode).isValid();
}

QByteArray fetch(const QString& url)
{
    if (!isValidUrl(url))
        Fatal::invalidUrl();

    static std::once_flag curlInitialised;
    std::call_once(curlInitialised, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });

    EasyHandle easy;
    if (easy.handle == nullptr)
        Fatal::noHttpClient();
    const QByteArray address = url.toUtf8();
    QByteArray body;
    curl_easy_setopt(easy.handle, CURLOPT_URL, address.constData());
    curl_easy_setopt(easy.handle, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy.handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy.handle, CURLOPT_WRITEFUNCTION, &appendToBody);
    curl_easy_setopt(easy.handle, CURLOPT_WRITEDATA, &body);
    if (curl_easy_perform(easy.handle) != CURLE_OK)
        Fatal::noDirectoryData();
    return body;
}

} // namespace Quorlix::DirectoryClient
