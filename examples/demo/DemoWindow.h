#pragma once

#include "quorlix/service/DirectoryProbe.h"

#include <QElapsedTimer>
#include <QWidget>

#include <memory>
#include <optional>

class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;
class QSpinBox;

namespace Quorlix {
class DeviceListViewController;
class VeskDeviceManager;
class VeskEventManager;
} // namespace Quorlix

namespace QuorlixDemo {

using Quorlix::DirectoryProbe;

/// The demo's main window: watch one device (entry, exit and ranging events in a log), pair with
/// a nearby one over this window, and see the stored device keys.
class DemoWindow : public QWidget
{
    Q_OBJECT

public:
    struct Setup
    {
        QString directoryHost;        ///< host[:port] the library talks to
        QString directoryDescription; ///< shown to the user
        QString sourceDescription;    ///< the location source in use
        QString device;               ///< the ID in the field at start
        int filter = 0;
        std::optional<int> exitPeriod; ///< seconds; absent: the library's default
        QString appID;
        /// What the check of the key store against the directory did, for the log.
        QStringList storeNotes;
    };

    /// Event counts since the start, for the closing summary.
    struct Counts
    {
        int entries = 0;
        int exits = 0;
        int rangings = 0;
    };

    explicit DemoWindow(const Setup& setup, QWidget* parent = nullptr);
    ~DemoWindow() override;

    /// Watches deviceID with a new event manager, replacing the one before. A device the
    /// directory cannot resolve is reported in the log and leaves the current watch as it is.
    bool watch(const QString& deviceID);
    /// The same for a device already resolved to its major-minor text.
    void startWatching(const QString& deviceID, const QString& majorMinor);
    /// Starts a pairing: the list screen opens over this window.
    void pair();
    /// The list screen of the pairing under way or last done; null before the first pair().
    Quorlix::DeviceListViewController* pairingScreen() const;
    /// The device keys in the key store, in stored order; nothing when none were ever stored.
    std::optional<QStringList> storedKeys() const;
    /// The keys as the log and the window show them.
    static QString describeKeys(const std::optional<QStringList>& keys);
    Counts counts() const { return m_counts; }
    /// The key the last pairing chose; empty before one, or after a cancel.
    QString chosenKey() const { return m_chosenKey; }

    /// Appends a line to the event log and prints it on stdout.
    void logEvent(const QString& kind, const QString& text);

private:
    void showStoredKeys();
    void applyFilter(int seconds);
    void showWatchStatus();

    DirectoryProbe m_probe;
    QElapsedTimer m_clock;
    std::shared_ptr<Quorlix::VeskEventManager> m_eventManager;
    std::shared_ptr<Quorlix::VeskDeviceManager> m_deviceManager;
    std::optional<int> m_exitPeriod;
    QString m_watched;
    QString m_watchedBeacon;
    QString m_chosenKey;
    Counts m_counts;

    QLineEdit* m_deviceField = nullptr;
    QSpinBox* m_filterField = nullptr;
    QLabel* m_watchStatus = nullptr;
    QPushButton* m_pairButton = nullptr;
    QLabel* m_chosenLabel = nullptr;
    QLabel* m_storedLabel = nullptr;
    QPlainTextEdit* m_log = nullptr;
};

} // namespace QuorlixDemo
