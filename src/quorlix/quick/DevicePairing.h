#pragma once

#include <quorlix/Quorlix.h>

#include <QObject>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>

#include <memory>

namespace Quorlix::Quick {

/// Pairing without a QWidget: VeskDeviceManager's scan and key store, with the nearby devices as a
/// list that a Qt Quick screen (PairingList in QML) shows. Every beacon heard is checked through
/// the directory before its key is handed to the manager, and the stored keys are checked before
/// the manager reloads them, so an unreachable directory or a stored key it no longer knows sets
/// error (and emits errorOccurred) where the manager would stop the process.
class DevicePairing : public QObject, public LocationManagerDelegate
{
    Q_OBJECT
    QML_ELEMENT
    /// The host application's ID, as VeskDeviceManager::create takes it.
    Q_PROPERTY(QString appId READ appId WRITE setAppId NOTIFY appIdChanged)
    Q_PROPERTY(bool looking READ isLooking NOTIFY lookingChanged)
    /// The devices found so far, in the order heard: maps with key, majorMinor and info.
    Q_PROPERTY(QVariantList devices READ devices NOTIFY devicesChanged)
    Q_PROPERTY(QString error READ error NOTIFY errorChanged)

public:
    explicit DevicePairing(QObject* parent = nullptr);
    ~DevicePairing() override;

    QString appId() const { return m_appId; }
    void setAppId(const QString& appId);
    bool isLooking() const { return m_looking; }
    QVariantList devices() const { return m_devices; }
    QString error() const { return m_error; }

    /// Starts the scan; the list fills as devices are heard and resolved.
    Q_INVOKABLE void start();
    /// Stops the scan; the list stays.
    Q_INVOKABLE void stop();
    /// Pairs with key: the manager stores the keys found and paired() follows. Stops the scan.
    Q_INVOKABLE void pick(const QString& key);
    /// Ends the pairing without a device, as the widget screen's "Cancel" does. Stops the scan.
    Q_INVOKABLE void cancel();

    void didRangeBeacons(LocationManager* manager, const QList<Beacon>& beacons,
                         BeaconRegion* region) override;

signals:
    void appIdChanged();
    void lookingChanged();
    void devicesChanged();
    void errorChanged();
    void paired(const QString& key);
    void cancelled();
    void errorOccurred(const QString& error);

private:
    void finish(const QString& key);
    void setLooking(bool looking);
    void fail(const QString& error);

    QString m_appId;
    bool m_looking = false;
    QVariantList m_devices;
    QString m_error;
    std::shared_ptr<VeskDeviceManager> m_manager;
    // Beacons the directory does not know, asked about once per scan rather than every second.
    QSet<QString> m_unknown;
};

} // namespace Quorlix::Quick
