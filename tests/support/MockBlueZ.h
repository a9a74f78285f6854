#pragma once

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <memory>

namespace Quorlix::Testing {

/// A mock bluetoothd (python3-dbusmock's bluez5 template with the beacon extension in
/// bluez_beacons.py, whose org.bluez.Mock methods these calls name) owning org.bluez on the system
/// bus, which must be a private bus (tests/support/private-bus.sh). Refused calls throw.
class MockBlueZ
{
public:
    /// Starts the mock and waits until it owns org.bluez.
    MockBlueZ() { start(); }
    /// Stops the mock as stop() does, so that the next mock can take the name.
    ~MockBlueZ();
    MockBlueZ(const MockBlueZ&) = delete;
    MockBlueZ& operator=(const MockBlueZ&) = delete;

    /// True when the system bus is a private one, so that tests cannot touch the real stack.
    static bool onPrivateBus();
    /// The manufacturer data bytes of an iBeacon frame (after Apple's company identifier).
    static QByteArray iBeaconData(const QString& uuid, quint16 major, quint16 minor, qint8 power);

    /// Kills the mock (bluetoothd going away) and waits, bounded, until org.bluez is released.
    void stop();
    /// Starts a fresh mock, with no adapter, and waits for org.bluez.
    void start();

    QString addAdapter(const QString& name)
    {
        return call("AddAdapter", name, QStringLiteral("Quorlix test")).toString();
    }
    void removeAdapterWithDevices(const QString& name) { call("RemoveAdapterWithDevices", name); }
    void setPowered(const QString& name, bool on) { call("SetPowered", name, on); }
    /// The adapter's next count StartDiscovery calls fail.
    void refuseStarts(const QString& name, quint32 count) { call("RefuseStarts", name, count); }
    /// The adapter's discovery calls, see DiscoveryLog in bluez_beacons.py.
    QStringList discoveryLog(const QString& name)
    {
        return call("DiscoveryLog", name).toStringList();
    }
    /// Makes the adapter a radio (see bluez_beacons.py) whose stops are answered after ms.
    void setStopDelay(const QString& name, quint32 ms) { call("SetStopDelay", name, ms); }
    quint32 lostStarts(const QString& name) { return call("LostStarts", name).toUInt(); }
    /// Discovery ends inside bluetoothd (Discovering false), or the controller goes deaf.
    void dropDiscovery(const QString& name) { call("DropDiscovery", name); }
    void deafen(const QString& name) { call("Deafen", name); }
    QString addBeacon(const QString& adapter, const QString& address, int rssi, quint16 company,
                      const QByteArray& data)
    {
        return call("AddBeacon", adapter, address, qint16(rssi), company, data).toString();
    }
    void advertise(const QString& device, int rssi, quint16 company, const QByteArray& data)
    {
        call("Advertise", device, qint16(rssi), company, data);
    }
    /// ManufacturerData alone, with RSSI invalidated when asked.
    void advertiseData(const QString& device, quint16 company, const QByteArray& data, bool noRssi)
    {
        call("AdvertiseData", device, company, data, noRssi);
    }
    void changeRssi(const QString& device, int rssi) { call("ChangeRssi", device, qint16(rssi)); }

    /// Emits one malformed signal of a kind named in SendMalformed of bluez_beacons.py, about the
    /// device at devicePath, with data as an iBeacon frame where one is needed.
    void sendMalformed(const QString& kind, const QString& devicePath, const QByteArray& data)
    {
        call("SendMalformed", kind, devicePath, data);
    }

private:
    template <class... Arguments> QVariant call(const char* method, const Arguments&... arguments)
    {
        return call(QString::fromLatin1(method), QVariantList{QVariant::fromValue(arguments)...});
    }
    QVariant call(const QString& method, const QVariantList& arguments);

    std::unique_ptr<QProcess> m_process;
};

} // namespace Quorlix::Testing
