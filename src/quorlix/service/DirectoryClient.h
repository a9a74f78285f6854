#pragma once

#include <QByteArray>
#include <QString>

/// Requests to the directory web service. Every call blocks the calling thread until the whole
/// answer is in; there is no time-out and no retry of our own, and every failure stops the process.
namespace Quorlix::DirectoryClient {

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
/// valid URL or the transfer fails.
QByteArray fetch(const QString& url);

} // namespace Quorlix::DirectoryClient
