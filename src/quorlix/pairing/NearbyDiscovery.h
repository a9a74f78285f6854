#pragma once

#include <QHash>
#include <QList>
#include <QString>

#include <functional>
#include <memory>

namespace Quorlix {

class DeviceListViewController;

/// Turns beacon readings into rows of the pairing screen: each reading's major-minor text is
/// resolved to a device key (from keys, else by lookup) and every key not listed yet is appended
/// to the screen's items, with one table reload per appended key.
namespace NearbyDiscovery {

struct Reading
{
    quint16 major = 0;
    quint16 minor = 0;
};

/// Maps a major-minor text to a device key, or to "" when there is none.
using Lookup = std::function<QString(const QString& majorMinor)>;

/// Handles readings in order, each one fully before the next. keys gains every key learnt through
/// lookup; an unknown reading is not remembered. screen is read afresh at every step, as a lookup
/// may replace or clear it: while it is null a reading is skipped, and a screen (or its table)
/// that vanished during a lookup stops the process.
void run(const QList<Reading>& readings, QHash<QString, QString>& keys,
         const std::shared_ptr<DeviceListViewController>& screen, const Lookup& lookup);

} // namespace NearbyDiscovery
} // namespace Quorlix
