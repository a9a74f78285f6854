#pragma once

#include <QByteArray>
#include <QString>

#include <chrono>

/// Requests to the directory web service. Every call blocks the calling thread until the whole
/// answer is in, within bounds (limits()); there is no retry of our own, and every failure stops
/// the process after one diagnostic line on the "quorlix.service.directory" logging category.
namespace Quorlix::DirectoryClient {

/// The bounds of one request. Defaults: 10 s to connect, 60 s for the whole request (the phone
/// platform's request default), 16 MiB of body.
struct Limits
{
    std::chrono::milliseconds connectTimeout{10'000};
    std::chrono::milliseconds totalTimeout{60'000};
    qint64 maxBodyBytes = 16 * 1024 * 1024;
};

/// The bounds in effect: the defaults, each replaced by its environment variable when that is set
/// to a usable value (QUORLIX_DIRECTORY_CONNECT_TIMEOUT and QUORLIX_DIRECTORY_TIMEOUT in seconds,
/// decimals allowed, up to one day; QUORLIX_DIRECTORY_MAX_BYTES in bytes, up to 1 GiB). An
/// unusable value is named in a warning and the default is used.
Limits limits();

/// host[:port] of the service: QUORLIX_DIRECTORY_HOST from the environment when set and not
/// empty, else the value the library was built with.
QString host();

/// "http://" + host() + "/api/device/" + key, the key appended as it is.
QString deviceUrl(const QString& key);

/// "http://" + host() + "/api/device/majorminor/?major-minor=" + majorMinor, appended as it is.
QString majorMinorUrl(const QString& majorMinor);

/// Whether text is a well-formed URL: only characters that a URL may hold, percent signs followed
/// by two hex digits, and a structure that parses strictly.
bool isValidUrl(const QString& text);

/// The whole body answered for url, whatever the HTTP status. Stops the process when url is not a
/// valid URL or the transfer fails (unreachable, over a time limit, body over the size limit).
QByteArray fetch(const QString& url);

/// Where an answer came from, for diagnostics: "<url> (HTTP <status>, <n> bytes)" when data is
/// the body of this thread's last fetch, else "an answer of <n> bytes".
QString origin(const QByteArray& data);

/// Logs one line on the directory category: origin(data) and cause. For the stops that the
/// directory's answers cause, just before them.
void diagnose(const QByteArray& data, const QString& cause);

} // namespace Quorlix::DirectoryClient
