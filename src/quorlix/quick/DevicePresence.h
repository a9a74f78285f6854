#pragma once

#include <quorlix/Quorlix.h>

#include <QObject>
#include <QtQml/qqmlregistration.h>

#include <memory>

namespace Quorlix::Quick {

/// Whether one device is near, for a Qt host: VeskEventManager's entry, exit and ranging reports as
/// properties and signals. The device is checked through the directory first, so an unknown
/// device, an unreachable directory or a calibration file that does not read sets error (and
/// emits errorOccurred) where the manager would stop the process.
///
/// Watching starts once deviceId is set, with the filterTime in effect at that moment; setting
/// deviceId again watches the new device.
class DevicePresence : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(QString deviceId READ deviceId WRITE setDeviceId NOTIFY deviceIdChanged)
    /// Seconds by which entry and exit are delayed (VeskEventManager::filter).
    Q_PROPERTY(qint64 filterTime READ filterTime WRITE setFilterTime NOTIFY filterTimeChanged)
    /// The device's beacon, "12-7"; empty until the directory has answered.
    Q_PROPERTY(QString majorMinor READ majorMinor NOTIFY majorMinorChanged)
    Q_PROPERTY(bool present READ isPresent NOTIFY presentChanged)
    Q_PROPERTY(Quorlix::Proximity proximity READ proximity NOTIFY rangeChanged)
    /// Smoothed signal strength in dBm; 0 when not heard lately.
    Q_PROPERTY(int rssi READ rssi NOTIFY rangeChanged)
    /// Estimated distance in metres; negative when unknown.
    Q_PROPERTY(double distance READ distance NOTIFY rangeChanged)
    /// The latest ranging report's beacon.
    Q_PROPERTY(Quorlix::Beacon beacon READ beacon NOTIFY rangeChanged)
    /// Why the device is not watched; empty while it is (or before deviceId is set).
    Q_PROPERTY(QString error READ error NOTIFY errorChanged)

public:
    explicit DevicePresence(QObject* parent = nullptr);
    ~DevicePresence() override;

    QString deviceId() const { return m_deviceId; }
    void setDeviceId(const QString& deviceId);
    qint64 filterTime() const { return m_filterTime; }
    void setFilterTime(qint64 seconds);
    QString majorMinor() const { return m_majorMinor; }
    bool isPresent() const { return m_present; }
    Proximity proximity() const { return m_beacon.proximity; }
    int rssi() const { return m_beacon.rssi; }
    double distance() const { return m_beacon.accuracy; }
    Beacon beacon() const { return m_beacon; }
    QString error() const { return m_error; }

signals:
    void deviceIdChanged();
    void filterTimeChanged();
    void majorMinorChanged();
    void presentChanged();
    void rangeChanged();
    void errorChanged();

    /// The device came near (after the filter time).
    void entered();
    /// The device went away (after the filter time).
    void exited();
    /// One ranging report of the device.
    void ranged(const Quorlix::Beacon& beacon);
    /// Watching failed; error says why.
    void errorOccurred(const QString& error);

private:
    class Manager;

    void start();
    void stop();
    void setPresent(bool present);
    void setRange(const Beacon& beacon);
    void fail(const QString& error);

    QString m_deviceId;
    qint64 m_filterTime = 0;
    QString m_majorMinor;
    bool m_present = false;
    Beacon m_beacon;
    QString m_error;
    bool m_startQueued = false;
    std::shared_ptr<Manager> m_manager;
};

} // namespace Quorlix::Quick
