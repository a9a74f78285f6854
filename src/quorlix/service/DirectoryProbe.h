#pragma once

#include "quorlix/Export.h"

#include <QString>

namespace Quorlix {

/// Asks the directory service about a device before the managers do, and never stops the process.
/// The managers stop it when the service is unreachable or a device does not resolve; a host that
/// checks here first turns a typo in a device ID or a wrong directory address into a message. The
/// demo, the quorlix command and the Qt Quick layer all check this way.
class QUORLIX_EXPORT DirectoryProbe
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
        /// The record's "Key" as the managers read it (a number, or a list whose first element is
        /// one); empty when the service has no usable key for the device, which stops the pairing
        /// manager when it reloads that ID as a stored key.
        QString key = QString();
        /// The record's "Info" text; empty when it has none.
        QString info = QString();
    };

    /// A probe of the service the managers use: QUORLIX_DIRECTORY_HOST, else the built-in host.
    DirectoryProbe();
    /// A probe of the service at host[:port].
    explicit DirectoryProbe(QString host);

    QString host() const { return m_host; }

    /// Looks deviceID up with GET /api/device/<deviceID> (blocking, a few seconds at most).
    Answer lookUp(const QString& deviceID) const;

    /// Looks up the device whose beacon has majorMinor, as pairing does (blocking, a few seconds at
    /// most). A resolved answer has a key; one without a key has problem set.
    Answer lookUpMajorMinor(const QString& majorMinor) const;

    /// Whether text has the form the managers can turn into a region: two numbers 0-65535 joined
    /// by '-'.
    static bool isMajorMinor(const QString& text);

private:
    QString m_host;
};

} // namespace Quorlix
