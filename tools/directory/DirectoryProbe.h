#pragma once

#include <QString>

namespace QuorlixTools {

/// Asks the directory service about a device before the library does. The library stops the
/// process when the service is unreachable or a device ID does not resolve; the demo and the
/// quorlix command check first, so that a typo in a device ID or a wrong --directory gets a message
/// instead.
class DirectoryProbe
{
public:
    struct Answer
    {
        /// Empty when the device resolves; otherwise what is wrong, readable.
        QString problem;
        /// The device's major-minor text, e.g. "12-7".
        QString majorMinor;
        /// Whether the service answered at all.
        bool reachable = true;
        /// The record's "Key" as the library reads it (a number, or a list whose first element is
        /// one); empty when the service has no usable key for the ID, which stops the library
        /// when it reloads that ID as a stored key.
        QString key = QString();
    };

    explicit DirectoryProbe(QString host);

    /// Looks deviceID up with GET /api/device/<deviceID> (blocking, a few seconds at most).
    Answer lookUp(const QString& deviceID) const;

    /// Whether text has the form the library can turn into a region: two numbers 0-65535
    /// joined by '-'.
    static bool isMajorMinor(const QString& text);

private:
    QString m_host;
};

} // namespace QuorlixTools
