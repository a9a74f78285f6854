#pragma once

#include "quorlix/Export.h"

#include <QString>
#include <QStringList>

#include <optional>

namespace Quorlix {

/// The application's persistent key-value store: lists of texts under text keys, kept in one file
/// per application (<config>/<organisation>/<application>.json, names taken from
/// QCoreApplication), in the JSON form of a QSettings store.
///
/// An empty list and an absent entry stay apart, and a value that is not a list of texts reads as
/// no list. Every write replaces the file as a whole (written aside in full, flushed to disk, then
/// renamed over it), so a crash, a full disk or a file size limit mid-save leaves the previous
/// contents; the file is readable by its owner only. A store that does not parse is moved aside
/// (<file>.unreadable-<time>, the newest three kept), and temporary files of a killed save are
/// removed by the next save.
class QUORLIX_EXPORT UserDefaults
{
public:
    /// The store of the running application.
    static UserDefaults standard();
    /// The store kept in fileName.
    explicit UserDefaults(QString fileName);

    QString fileName() const { return m_fileName; }

    /// The list stored under key; nothing when the entry is absent or is not a list of texts.
    std::optional<QStringList> stringArray(const QString& key) const;
    /// Stores list under key, replacing whatever was there. False when the store could not be
    /// written in full; the old store is then unchanged (the reason goes to the
    /// quorlix.platform.defaults logging category).
    bool setStringArray(const QString& key, const QStringList& list);

private:
    QString m_fileName;
};

} // namespace Quorlix
