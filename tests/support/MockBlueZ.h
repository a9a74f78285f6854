#pragma once

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>

#include <memory>

namespace Quorlix::Testing {

/// A mock bluetoothd (python3-dbusmock's bluez5 template with the beacon extension in
/// bluez_beacons.py) owning org.bluez on the system bus, which must be a private bus
/// (tests/support/private-bus.sh). Calls fail the current test when the mock refuses them.
class MockBlueZ
{
public:
    /// Starts the mock and waits until it owns org.bluez.
    MockBlueZ();
    ~MockBlueZ();
    MockBlueZ(const MockBlueZ&) = delete;
    MockBlueZ& operator=(const MockBlueZ&) = delete;

    /// True when the system bus is a private one, so that tests cannot touch the real stack.
    static bool onPrivateBus();
    /// The manufacturer data bytes of an iBeacon frame (after Apple's company identifier).
    static QByteArray iBeaconData(const QString& uuid, quint16 major, quint16 minor, qint8 power);

    /// Kills the mock (bluetoothd going away) and waits until org.bluez is gone; so does the
    /// destructor, so that the next mock can take the name.
    void stop();
    /// Starts a fresh mock, with no adapter, and waits for org.bluez.
    void start();

    QString addAdapter(const QString& name);
    void removeAdapterWithDevices(const QString& name);
    void setPowered(const QString& name, bool powered);
    /// The adapter's next count StartDiscovery calls fail.
    void refuseStarts(const QString& name, quint32 count);
    /// The adapter's discovery calls, see DiscoveryLog in bluez_beacons.py.
    QStringList discoveryLog(const QString& name);

    QString addBeacon(const QString& adapter, const QString& address, int rssi, quint16 company,
                      const QByteArray& data);
    void advertise(const QString& devicePath, int rssi, quint16 company, const QByteArray& data);
    /// ManufacturerData alone, with RSSI invalidated when asked.
    void advertiseData(const QString& devicePath, quint16 company, const QByteArray& data,
                       bool invalidateRssi);
    void changeRssi(const QString& devicePath, int rssi);
    /// Asks the mock to send count adverts round-robin over the devices; returns at once.
    void flood(const QStringList& devicePaths, quint32 count, quint16 company,
               const QByteArray& data);

    /// Emits one malformed signal of a kind named in SendMalformed of bluez_beacons.py, about the
    /// device at devicePath, with data as an iBeacon frame where one is needed.
    void sendMalformed(const QString& kind, const QString& devicePath, const QByteArray& data);

private:
    std::unique_ptr<QProcess> m_process;
};

} // namespace Quorlix::Testing
