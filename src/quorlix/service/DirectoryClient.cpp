#include "quorlix/service/DirectoryClient.h"

#include "quorlix/LoggingCategories.h"
#include "quorlix/platform/Fatal.h"

#include <QHash>
#include <QRegularExpression>
#include <QUrl>

#include <curl/curl.h>

#include <cmath>
#include <mutex>
#include <optional>

namespace Quorlix::DirectoryClient {
namespace {

constexpr char connectTimeoutVariable[] = "QUORLIX_DIRECTORY_CONNECT_TIMEOUT";
constexpr char totalTimeoutVariable[] = "QUORLIX_DIRECTORY_TIMEOUT";
constexpr char maxBytesVariable[] = "QUORLIX_DIRECTORY_MAX_BYTES";
constexpr double maxTimeoutS = 86'400;
constexpr qint64 maxBodyCap = qint64(1) << 30;

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

// Plain decimals only: "1e3", "inf", "0x10" or a sign are more likely mistakes than intent.
std::optional<double> decimal(const QString& text)
{
    static const QRegularExpression pattern(QStringLiteral("^[0-9]{1,9}(\\.[0-9]{1,9})?$"));
    if (!pattern.match(text).hasMatch())
        return std::nullopt;
    return text.toDouble();
}

std::chrono::milliseconds timeoutFrom(const char* variable, std::chrono::milliseconds fallback)
{
    if (!qEnvironmentVariableIsSet(variable))
        return fallback;
    const QString text = qEnvironmentVariable(variable);
    const std::optional<double> seconds = decimal(text.trimmed());
    // Zero would mean "no limit" to the HTTP client; below a millisecond rounds to zero.
    if (!seconds || *seconds < 0.001 || *seconds > maxTimeoutS) {
        qCWarning(lcDirectory).noquote()
            << QStringLiteral("%1=\"%2\" is not a number of seconds from 0.001 to %3; using %4 s")
                   .arg(QLatin1StringView(variable), text)
                   .arg(maxTimeoutS)
                   .arg(double(fallback.count()) / 1000);
        return fallback;
    }
    return std::chrono::milliseconds(std::llround(*seconds * 1000));
}

qint64 bytesFrom(const char* variable, qint64 fallback)
{
    if (!qEnvironmentVariableIsSet(variable))
        return fallback;
    const QString text = qEnvironmentVariable(variable);
    static const QRegularExpression pattern(QStringLiteral("^[0-9]{1,10}$"));
    const qint64 bytes = pattern.match(text.trimmed()).hasMatch() ? text.trimmed().toLongLong() : 0;
    if (bytes < 1 || bytes > maxBodyCap) {
        qCWarning(lcDirectory).noquote()
            << QStringLiteral("%1=\"%2\" is not a byte count from 1 to %3; using %4")
                   .arg(QLatin1StringView(variable), text)
                   .arg(maxBodyCap)
                   .arg(fallback);
        return fallback;
    }
    return bytes;
}

struct Body
{
    QByteArray bytes;
    qint64 cap = 0;
    bool overCap = false;
};

std::size_t appendToBody(char* data, std::size_t size, std::size_t count, void* target)
{
    auto* body = static_cast<Body*>(target);
    const std::size_t length = size * count;
    if (qint64(length) > body->cap - body->bytes.size()) {
        body->overCap = true;
        return 0; // makes the transfer fail with CURLE_WRITE_ERROR
    }
    body->bytes.append(data, static_cast<qsizetype>(length));
    return length;
}

struct EasyHandle
{
    CURL* handle = curl_easy_init();
    ~EasyHandle() { curl_easy_cleanup(handle); }
};

// The last answer of this thread, recognised again by size and hash when it is read, so that a
// diagnostic can name its URL without keeping the body alive.
struct LastAnswer
{
    QString url;
    long status = 0;
    qsizetype size = -1;
    size_t hash = 0;
};
thread_local LastAnswer lastAnswer;

QString seconds(std::chrono::milliseconds duration)
{
    return QString::number(double(duration.count()) / 1000) + QStringLiteral(" s");
}

QString failureCause(CURLcode code, const Limits& bounds, const Body& body, const char* detail)
{
    if (body.overCap)
        return QStringLiteral("the answer is larger than %1 bytes (%2)")
            .arg(bounds.maxBodyBytes)
            .arg(QLatin1StringView(maxBytesVariable));
    if (code == CURLE_FILESIZE_EXCEEDED)
        return QStringLiteral("the answer announces more than %1 bytes (%2)")
            .arg(bounds.maxBodyBytes)
            .arg(QLatin1StringView(maxBytesVariable));
    QString cause;
    if (code == CURLE_OPERATION_TIMEDOUT)
        cause = QStringLiteral("no complete answer within the time limit (%1 to connect, %2; "
                               "%3, %4 in total)")
                    .arg(seconds(bounds.connectTimeout), QLatin1StringView(connectTimeoutVariable),
                         seconds(bounds.totalTimeout), QLatin1StringView(totalTimeoutVariable));
    else if (code == CURLE_COULDNT_CONNECT || code == CURLE_COULDNT_RESOLVE_HOST)
        cause = QStringLiteral("unreachable");
    else
        cause = QStringLiteral("the transfer failed");
    return cause + QStringLiteral(": ") +
           QString::fromUtf8(detail[0] != '\0' ? detail : curl_easy_strerror(code));
}

} // namespace

Limits limits()
{
    const Limits defaults;
    Limits bounds;
    bounds.connectTimeout = timeoutFrom(connectTimeoutVariable, defaults.connectTimeout);
    bounds.totalTimeout = timeoutFrom(totalTimeoutVariable, defaults.totalTimeout);
    bounds.maxBodyBytes = bytesFrom(maxBytesVariable, defaults.maxBodyBytes);
    return bounds;
}

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
    if (!isValidUrl(url)) {
        qCWarning(lcDirectory).noquote()
            << QStringLiteral("GET \"%1\": not a valid URL").arg(url.left(2000));
        Fatal::invalidUrl();
    }

    static std::once_flag curlInitialised;
    std::call_once(curlInitialised, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });

    EasyHandle easy;
    if (easy.handle == nullptr) {
        qCWarning(lcDirectory).noquote()
            << QStringLiteral("GET %1: the HTTP client cannot be set up").arg(url);
        Fatal::noHttpClient();
    }
    const Limits bounds = limits();
    const QByteArray address = url.toUtf8();
    Body body;
    body.cap = bounds.maxBodyBytes;
    char detail[CURL_ERROR_SIZE] = {};
    curl_easy_setopt(easy.handle, CURLOPT_URL, address.constData());
    curl_easy_setopt(easy.handle, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy.handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy.handle, CURLOPT_ERRORBUFFER, detail);
    curl_easy_setopt(easy.handle, CURLOPT_CONNECTTIMEOUT_MS, long(bounds.connectTimeout.count()));
    curl_easy_setopt(easy.handle, CURLOPT_TIMEOUT_MS, long(bounds.totalTimeout.count()));
    curl_easy_setopt(easy.handle, CURLOPT_MAXFILESIZE_LARGE, curl_off_t(bounds.maxBodyBytes));
    curl_easy_setopt(easy.handle, CURLOPT_WRITEFUNCTION, &appendToBody);
    curl_easy_setopt(easy.handle, CURLOPT_WRITEDATA, &body);
    const CURLcode code = curl_easy_perform(easy.handle);
    if (code != CURLE_OK) {
        qCWarning(lcDirectory).noquote()
            << QStringLiteral("GET %1: %2").arg(url, failureCause(code, bounds, body, detail));
        Fatal::noDirectoryData();
    }
    long status = 0;
    curl_easy_getinfo(easy.handle, CURLINFO_RESPONSE_CODE, &status);
    lastAnswer = {url, status, body.bytes.size(), qHash(body.bytes)};
    return body.bytes;
}

QString origin(const QByteArray& data)
{
    if (data.size() == lastAnswer.size && qHash(data) == lastAnswer.hash)
        return QStringLiteral("%1 (HTTP %2, %3 bytes)")
            .arg(lastAnswer.url)
            .arg(lastAnswer.status)
            .arg(data.size());
    return QStringLiteral("an answer of %1 bytes").arg(data.size());
}

void diagnose(const QByteArray& data, const QString& cause)
{
    qCWarning(lcDirectory).noquote() << origin(data) + QStringLiteral(": ") + cause;
}

} // namespace Quorlix::DirectoryClient
