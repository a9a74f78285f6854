#include "quorlix/location/sources/BlueZSource.h"

#include "quorlix/LoggingCategories.h"
#include "quorlix/location/Clock.h"
#include "quorlix/location/sources/IBeaconAdvert.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusServiceWatcher>
#include <QDBusVariant>
#include <QHash>
#include <QSet>

#include <QTimer>

#include <algorithm>
#include <optional>

// What BlueZ does about duplicate adverts, and how this source copes (BlueZ 5.66, Debian 12;
// doc/adapter-api.txt and the daemon's behaviour):
// - With plain StartDiscovery, bluetoothd reports a known device's RSSI only when it moved by
//   8 dBm or more since the last report ("During discovery RSSI delta-threshold is imposed"), and
//   its ManufacturerData only when the bytes change. An iBeacon's bytes never change, so a
//   stationary beacon goes quiet after its first report, and the engine would call it gone.
// - A discovery filter with an RSSI (or Pathloss) criterion lifts the delta threshold: every
//   received advert's RSSI is reported. DuplicateData true makes bluetoothd re-emit
//   ManufacturerData for every advert. bluetoothd sends both in one PropertiesChanged, so each
//   such signal is one sighting here. RSSI -127 dBm is the lowest threshold it accepts, so the
//   criterion filters nothing out.
// - Below bluetoothd, the kernel turns the controller's own duplicate filter on while scanning.
//   Many controllers then report an address once per scan, whatever the filter above says; the
//   kernel restarts the scan for RSSI updates only for controllers it knows to filter that way.
//   Restarting our discovery session every few seconds (setRestartInterval) resets that filter,
//   so every present beacon is heard again well within the engine's exit period.
// - When discovery stops underneath bluetoothd while clients still want it, bluetoothd starts it
//   again after an idle pause of 5 s (IDLE_DISCOV_TIMEOUT): far below the 30 s exit period.
// - Devices not seen for a while (TemporaryTimeout, 30 s by default) are removed from the object
//   tree (InterfacesRemoved). That only drops our cache; deciding an exit stays the engine's job.
// - Objects already in the tree when we start (GetManagedObjects) carry old readings: they seed
//   the cache (address, last frame) but are never delivered as sightings.

namespace Quorlix {

namespace {

const QString service = QStringLiteral("org.bluez");
const QString objectManagerInterface = QStringLiteral("org.freedesktop.DBus.ObjectManager");
const QString propertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");
const QString adapterInterface = QStringLiteral("org.bluez.Adapter1");
const QString deviceInterface = QStringLiteral("org.bluez.Device1");

using PropertyMap = QVariantMap;
using InterfaceMap = QMap<QString, PropertyMap>;

// Every argument is read only after its message's signature was checked: QDBusArgument reads
// whatever it is told to and crashes on a mismatch, and a misbehaving bluetoothd (or anything
// that owns org.bluez) can send anything.
const QString interfacesAddedSignature = QStringLiteral("oa{sa{sv}}");
const QString interfacesRemovedSignature = QStringLiteral("oas");
const QString propertiesChangedSignature = QStringLiteral("sa{sv}as");
const QString managedObjectsSignature = QStringLiteral("a{oa{sa{sv}}}");

bool hasSignature(const QDBusMessage& message, const QString& expected)
{
    if (message.signature() == expected)
        return true;
    // Once per kind of message as a warning: a stream of them must not flood the log.
    static QSet<QString> warned;
    const bool first = !warned.contains(message.member());
    warned.insert(message.member());
    const QString text = QStringLiteral("ignoring %1 from %2 with signature \"%3\" instead of %4")
                             .arg(message.member(), message.path(), message.signature(), expected);
    if (first)
        qCWarning(lcBlueZ).noquote() << text;
    else
        qCDebug(lcBlueZ).noquote() << text;
    return false;
}

// bluetoothd sends RSSI as int16; anything else, or a value no receiver reports, is not a reading.
std::optional<int> readRssi(const QVariant& value)
{
    qlonglong rssi = 0;
    switch (value.typeId()) {
    case QMetaType::Short:
    case QMetaType::Int:
    case QMetaType::LongLong:
        rssi = value.toLongLong();
        break;
    case QMetaType::UChar:
    case QMetaType::UShort:
    case QMetaType::UInt:
    case QMetaType::ULongLong:
        rssi = qlonglong(std::min<qulonglong>(value.toULongLong(), 1000));
        break;
    default:
        return std::nullopt;
    }
    if (rssi < -127 || rssi > 20)
        return std::nullopt;
    return int(rssi);
}

// a{sa{sv}}: interfaces of one object with their properties.
InterfaceMap readInterfaces(const QDBusArgument& argument)
{
    InterfaceMap interfaces;
    argument.beginMap();
    while (!argument.atEnd()) {
        QString name;
        PropertyMap properties;
        argument.beginMapEntry();
        argument >> name >> properties;
        argument.endMapEntry();
        interfaces.insert(name, properties);
    }
    argument.endMap();
    return interfaces;
}

// ManufacturerData, a{qv} with byte arrays: the first entry that is an iBeacon frame.
std::optional<IBeaconFrame> readIBeacon(const QVariant& value)
{
    if (!value.canConvert<QDBusArgument>())
        return std::nullopt;
    const auto argument = value.value<QDBusArgument>();
    if (argument.currentSignature() != QLatin1String("a{qv}"))
        return std::nullopt;
    std::optional<IBeaconFrame> found;
    argument.beginMap();
    while (!argument.atEnd()) {
        quint16 company = 0;
        QDBusVariant data;
        argument.beginMapEntry();
        argument >> company >> data;
        argument.endMapEntry();
        if (!found && data.variant().typeId() == QMetaType::QByteArray)
            found = IBeaconAdvert::parse(company, data.variant().toByteArray());
    }
    argument.endMap();
    return found;
}

bool isAlreadyActive(const QDBusError& error)
{
    return error.name() == QLatin1String("org.bluez.Error.InProgress");
}

} // namespace

class BlueZSource::Private : public QObject
{
    Q_OBJECT

public:
    explicit Private(BlueZSource& source);

    void setScanning(bool wanted);
    void setRestartInterval(std::chrono::milliseconds interval);

private slots:
    void onInterfacesAdded(const QDBusMessage& message);
    void onInterfacesRemoved(const QDBusMessage& message);
    void onDevicePropertiesChanged(const QDBusMessage& message);
    void onAdapterPropertiesChanged(const QDBusMessage& message);

private:
    struct Adapter
    {
        bool powered = false;
        bool session = false; ///< our discovery session is started or being started
        QByteArray address;   ///< what per-receiver calibration names it by
    };
    struct Device
    {
        QByteArray address;
        QByteArray receiver; ///< its adapter's address
        std::optional<IBeaconFrame> frame;
        std::optional<int> rssi;
    };

    void connectSignals();
    void loadObjects();
    void forgetAll();
    void addObject(const QString& path, const InterfaceMap& interfaces, bool fresh);
    void addAdapter(const QString& path, const PropertyMap& properties);
    void removeAdapter(const QString& path);
    void addDevice(const QString& path, const PropertyMap& properties, bool fresh);
    void updateDevice(Device& device, const PropertyMap& changed, const QStringList& invalidated);
    void startDiscovery(const QString& path);
    void stopDiscovery(const QString& path);
    void restartDiscovery();
    void reportAdapters() const;
    void call(const QString& path, const QString& method, const QVariantList& arguments,
              std::function<void(const QDBusError&)> onError);
    std::int64_t now() const;

    BlueZSource& m_source;
    QDBusConnection m_bus;
    QDBusServiceWatcher m_watcher;
    QTimer m_restartTimer;
    bool m_wanted = false;
    // bluetoothd is on the bus and its object list has been read.
    bool m_loaded = false;
    // Replies from a bluetoothd that has gone since are ignored.
    quint64 m_generation = 0;
    QHash<QString, Adapter> m_adapters;
    QHash<QString, Device> m_devices;
};

BlueZSource::Private::Private(BlueZSource& source)
    : m_source(source)
    , m_bus(QDBusConnection::systemBus())
{
    m_restartTimer.setInterval(defaultRestartInterval);
    connect(&m_restartTimer, &QTimer::timeout, this, &Private::restartDiscovery);
    if (!m_bus.isConnected()) {
        qCWarning(lcBlueZ).noquote()
            << "cannot reach the system bus:" << m_bus.lastError().message()
            << "; no Bluetooth adapter will be used";
        return;
    }
    connectSignals();
    m_watcher.setConnection(m_bus);
    m_watcher.addWatchedService(service);
    m_watcher.setWatchMode(QDBusServiceWatcher::WatchForRegistration |
                           QDBusServiceWatcher::WatchForUnregistration);
    connect(&m_watcher, &QDBusServiceWatcher::serviceRegistered, this, [this] {
        qCInfo(lcBlueZ) << "bluetoothd appeared on the system bus";
        loadObjects();
    });
    connect(&m_watcher, &QDBusServiceWatcher::serviceUnregistered, this, [this] {
        qCWarning(lcBlueZ) << "bluetoothd left the system bus; waiting for it to come back";
        forgetAll();
    });
    if (m_bus.interface()->isServiceRegistered(service))
        loadObjects();
    else
        qCWarning(lcBlueZ) << "bluetoothd (org.bluez) is not on the system bus; waiting for it";
}

void BlueZSource::Private::connectSignals()
{
    m_bus.connect(service, QStringLiteral("/"), objectManagerInterface,
                  QStringLiteral("InterfacesAdded"), this, SLOT(onInterfacesAdded(QDBusMessage)));
    m_bus.connect(service, QStringLiteral("/"), objectManagerInterface,
                  QStringLiteral("InterfacesRemoved"), this,
                  SLOT(onInterfacesRemoved(QDBusMessage)));
    // The first argument of PropertiesChanged is the interface; matching it in the bus daemon
    // keeps the signals of other interfaces (media, battery...) out of this process.
    m_bus.connect(service, QString(), propertiesInterface, QStringLiteral("PropertiesChanged"),
                  {deviceInterface}, QString(), this,
                  SLOT(onDevicePropertiesChanged(QDBusMessage)));
    m_bus.connect(service, QString(), propertiesInterface, QStringLiteral("PropertiesChanged"),
                  {adapterInterface}, QString(), this,
                  SLOT(onAdapterPropertiesChanged(QDBusMessage)));
}

void BlueZSource::Private::loadObjects()
{
    const quint64 generation = ++m_generation;
    const auto message = QDBusMessage::createMethodCall(
        service, QStringLiteral("/"), objectManagerInterface, QStringLiteral("GetManagedObjects"));
    auto* watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(message), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, generation](QDBusPendingCallWatcher* call) {
                call->deleteLater();
                if (generation != m_generation)
                    return;
                const QDBusMessage reply = call->reply();
                if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) {
                    qCWarning(lcBlueZ).noquote()
                        << "cannot list BlueZ objects:" << call->error().message();
                    return;
                }
                if (!hasSignature(reply, managedObjectsSignature))
                    return;
                const auto objects = reply.arguments().constFirst().value<QDBusArgument>();
                objects.beginMap();
                while (!objects.atEnd()) {
                    QDBusObjectPath path;
                    objects.beginMapEntry();
                    objects >> path;
                    const InterfaceMap interfaces = readInterfaces(objects);
                    objects.endMapEntry();
                    // Signals may have announced the object while the call was under way.
                    if (!m_adapters.contains(path.path()) && !m_devices.contains(path.path()))
                        addObject(path.path(), interfaces, false);
                }
                objects.endMap();
                m_loaded = true;
                reportAdapters();
            });
}

void BlueZSource::Private::forgetAll()
{
    m_loaded = false;
    ++m_generation;
    m_adapters.clear();
    m_devices.clear();
}

void BlueZSource::Private::addObject(const QString& path, const InterfaceMap& interfaces,
                                     bool fresh)
{
    if (const auto adapter = interfaces.constFind(adapterInterface);
        adapter != interfaces.constEnd())
        addAdapter(path, adapter.value());
    if (const auto device = interfaces.constFind(deviceInterface); device != interfaces.constEnd())
        addDevice(path, device.value(), fresh);
}

void BlueZSource::Private::addAdapter(const QString& path, const PropertyMap& properties)
{
    Adapter& adapter = m_adapters[path];
    const QVariant powered = properties.value(QStringLiteral("Powered"));
    adapter.powered = powered.typeId() == QMetaType::Bool && powered.toBool();
    adapter.session = false;
    adapter.address = properties.value(QStringLiteral("Address")).toString().toLatin1();
    if (adapter.powered)
        qCInfo(lcBlueZ).noquote() << "adapter" << path << "is on";
    else
        qCWarning(lcBlueZ).noquote()
            << "adapter" << path << "is powered off; it is used once it is powered on";
    if (m_wanted && adapter.powered)
        startDiscovery(path);
}

void BlueZSource::Private::removeAdapter(const QString& path)
{
    if (!m_adapters.remove(path))
        return;
    qCWarning(lcBlueZ).noquote() << "adapter" << path << "was removed";
    // bluetoothd does not always announce the removal of an adapter's devices.
    const QString prefix = path + QLatin1Char('/');
    m_devices.removeIf([&prefix](const auto& entry) { return entry.key().startsWith(prefix); });
    reportAdapters();
}

void BlueZSource::Private::addDevice(const QString& path, const PropertyMap& properties, bool fresh)
{
    Device& device = m_devices[path];
    const QVariant address = properties.value(QStringLiteral("Address"));
    device.address = address.typeId() == QMetaType::QString ? address.toString().left(64).toLatin1()
                                                            : QByteArray();
    if (device.address.isEmpty()) // the path ends in dev_XX_XX_XX_XX_XX_XX
        device.address = path.section(QLatin1Char('/'), -1)
                             .mid(4)
                             .replace(QLatin1Char('_'), QLatin1Char(':'))
                             .toLatin1();
    device.receiver = m_adapters.value(path.section(QLatin1Char('/'), 0, -2)).address;
    if (fresh) {
        updateDevice(device, properties, {});
        return;
    }
    device.frame = readIBeacon(properties.value(QStringLiteral("ManufacturerData")));
}

void BlueZSource::Private::updateDevice(Device& device, const PropertyMap& changed,
                                        const QStringList& invalidated)
{
    const auto rssi = changed.constFind(QStringLiteral("RSSI"));
    const auto data = changed.constFind(QStringLiteral("ManufacturerData"));
    std::optional<int> reading;
    if (rssi != changed.constEnd()) {
        reading = readRssi(*rssi);
        if (reading)
            device.rssi = reading;
        else
            qCDebug(lcBlueZ).noquote()
                << "dropping a malformed RSSI of" << device.address << ":" << *rssi;
    } else if (invalidated.contains(QLatin1String("RSSI"))) {
        device.rssi.reset();
    }
    if (data != changed.constEnd())
        device.frame = readIBeacon(*data);
    // An advert whose RSSI is malformed is not heard at all: an older reading must not stand in.
    const bool heard =
        rssi != changed.constEnd() ? reading.has_value() : data != changed.constEnd();
    if (!heard || !m_wanted || !device.frame || !device.rssi)
        return;
    Sighting sighting;
    sighting.timeNs = now();
    sighting.address = device.address;
    sighting.proximityUUID = device.frame->proximityUUID;
    sighting.major = device.frame->major;
    sighting.minor = device.frame->minor;
    sighting.measuredPower = device.frame->measuredPower;
    sighting.rssi = *device.rssi;
    sighting.receiver = device.receiver;
    m_source.deliver(sighting);
}

void BlueZSource::Private::onInterfacesAdded(const QDBusMessage& message)
{
    if (!hasSignature(message, interfacesAddedSignature))
        return;
    const QVariantList arguments = message.arguments();
    const QString path = arguments[0].value<QDBusObjectPath>().path();
    const InterfaceMap interfaces = readInterfaces(arguments[1].value<QDBusArgument>());
    const bool adapter = interfaces.contains(adapterInterface);
    addObject(path, interfaces, true);
    if (adapter)
        reportAdapters();
}

void BlueZSource::Private::onInterfacesRemoved(const QDBusMessage& message)
{
    if (!hasSignature(message, interfacesRemovedSignature))
        return;
    const QVariantList arguments = message.arguments();
    const QString path = arguments[0].value<QDBusObjectPath>().path();
    const QStringList interfaces = arguments[1].toStringList();
    if (interfaces.contains(deviceInterface))
        m_devices.remove(path);
    if (interfaces.contains(adapterInterface))
        removeAdapter(path);
}

void BlueZSource::Private::onDevicePropertiesChanged(const QDBusMessage& message)
{
    if (!hasSignature(message, propertiesChangedSignature))
        return;
    const QVariantList arguments = message.arguments();
    const auto device = m_devices.find(message.path());
    // Known from InterfacesAdded or GetManagedObjects; an unknown device is only possible while
    // the object list is being read, and its next advert is not far.
    if (device == m_devices.end())
        return;
    updateDevice(device.value(), qdbus_cast<PropertyMap>(arguments[1].value<QDBusArgument>()),
                 arguments[2].toStringList());
}

void BlueZSource::Private::onAdapterPropertiesChanged(const QDBusMessage& message)
{
    if (!hasSignature(message, propertiesChangedSignature))
        return;
    const QVariantList arguments = message.arguments();
    const auto adapter = m_adapters.find(message.path());
    if (adapter == m_adapters.end())
        return;
    const PropertyMap changed = qdbus_cast<PropertyMap>(arguments[1].value<QDBusArgument>());
    const auto powered = changed.constFind(QStringLiteral("Powered"));
    if (powered == changed.constEnd() || powered->typeId() != QMetaType::Bool ||
        powered->toBool() == adapter->powered)
        return;
    adapter->powered = powered->toBool();
    // Powering off ends every discovery session on the adapter.
    adapter->session = false;
    if (adapter->powered) {
        qCInfo(lcBlueZ).noquote() << "adapter" << message.path() << "was powered on";
        if (m_wanted)
            startDiscovery(message.path());
    } else {
        qCWarning(lcBlueZ).noquote()
            << "adapter" << message.path() << "was powered off; it is used again once powered on";
    }
    reportAdapters();
}

void BlueZSource::Private::setScanning(bool wanted)
{
    if (wanted == m_wanted)
        return;
    m_wanted = wanted;
    for (auto it = m_adapters.cbegin(); it != m_adapters.cend(); ++it) {
        if (wanted && it->powered)
            startDiscovery(it.key());
        else if (!wanted)
            stopDiscovery(it.key());
    }
    if (wanted) {
        if (m_restartTimer.interval() > 0)
            m_restartTimer.start();
        reportAdapters();
    } else {
        m_restartTimer.stop();
    }
}

void BlueZSource::Private::setRestartInterval(std::chrono::milliseconds interval)
{
    m_restartTimer.setInterval(interval);
    if (interval.count() <= 0)
        m_restartTimer.stop();
    else if (m_wanted)
        m_restartTimer.start();
}

void BlueZSource::Private::startDiscovery(const QString& path)
{
    Adapter& adapter = m_adapters[path];
    if (adapter.session)
        return;
    adapter.session = true;
    // The filter belongs to our discovery session and goes with it, so it is set before every
    // start. Calls on one connection reach bluetoothd in order.
    const QVariantMap filter{
        {QStringLiteral("Transport"), QStringLiteral("le")},
        {QStringLiteral("DuplicateData"), true},
        {QStringLiteral("RSSI"), QVariant::fromValue(qint16(-127))},
    };
    call(path, QStringLiteral("SetDiscoveryFilter"), {filter}, [path](const QDBusError& error) {
        qCWarning(lcBlueZ).noquote()
            << "adapter" << path << "refused the discovery filter (" << error.name()
            << error.message() << "); stationary beacons may be reported only now and then";
    });
    call(path, QStringLiteral("StartDiscovery"), {}, [this, path](const QDBusError& error) {
        if (isAlreadyActive(error))
            return;
        if (const auto adapter = m_adapters.find(path); adapter != m_adapters.end())
            adapter->session = false;
        qCWarning(lcBlueZ).noquote() << "adapter" << path << "cannot start discovery ("
                                     << error.name() << error.message() << ")";
    });
}

void BlueZSource::Private::stopDiscovery(const QString& path)
{
    Adapter& adapter = m_adapters[path];
    if (!adapter.session)
        return;
    adapter.session = false;
    call(path, QStringLiteral("StopDiscovery"), {}, [path](const QDBusError& error) {
        qCDebug(lcBlueZ).noquote() << "adapter" << path << "StopDiscovery:" << error.message();
    });
}

void BlueZSource::Private::restartDiscovery()
{
    for (auto it = m_adapters.cbegin(); it != m_adapters.cend(); ++it) {
        if (it->session)
            stopDiscovery(it.key());
        // Also a retry for a powered adapter whose start was refused (busy, not ready yet).
        if (it->powered)
            startDiscovery(it.key());
    }
}

void BlueZSource::Private::reportAdapters() const
{
    if (!m_wanted || !m_loaded)
        return;
    if (m_adapters.isEmpty())
        qCWarning(lcBlueZ) << "no Bluetooth adapter is present; waiting for one";
    else if (std::none_of(m_adapters.cbegin(), m_adapters.cend(),
                          [](const Adapter& adapter) { return adapter.powered; }))
        qCWarning(lcBlueZ) << "every Bluetooth adapter is powered off; waiting for one to be on";
}

void BlueZSource::Private::call(const QString& path, const QString& method,
                                const QVariantList& arguments,
                                std::function<void(const QDBusError&)> onError)
{
    auto message = QDBusMessage::createMethodCall(service, path, adapterInterface, method);
    message.setArguments(arguments);
    const quint64 generation = m_generation;
    auto* watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(message), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, generation, onError = std::move(onError)](QDBusPendingCallWatcher* call) {
                call->deleteLater();
                if (call->isError() && generation == m_generation)
                    onError(call->error());
            });
}

std::int64_t BlueZSource::Private::now() const
{
    if (const Clock* clock = m_source.clock())
        return clock->nowNs();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

BlueZSource::BlueZSource()
    : d(std::make_unique<Private>(*this))
{}

BlueZSource::~BlueZSource()
{
    // Our discovery sessions end with our bus connection's name only when the process exits;
    // release them now so that the radio does not keep scanning for nobody.
    d->setScanning(false);
}

void BlueZSource::setScanning(bool wanted)
{
    d->setScanning(wanted);
}

void BlueZSource::setRestartInterval(std::chrono::milliseconds interval)
{
    d->setRestartInterval(interval);
}

} // namespace Quorlix

#include "BlueZSource.moc"
