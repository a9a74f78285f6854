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

#include <QCoreApplication>
#include <QTimer>

#include <algorithm>
#include <atomic>
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
// - bluetoothd answers StopDiscovery only once the kernel has stopped. A StartDiscovery that
//   arrives before that answer finds the old filter "equal", is granted without restarting the
//   scan, and the finishing stop then takes our discovery away: deaf until the next restart. So
//   each adapter's discovery calls wait for the previous reply, and a restart starts only after
//   its stop was answered.
// - Discovery can still end under us (a stop inside bluetoothd, a suspended scan, a controller
//   that falls silent while it reports Discovering). bluetoothd would restart it only after an
//   idle pause of 5 s (IDLE_DISCOV_TIMEOUT), so Adapter1.Discovering is watched, and an adapter
//   from which nothing at all was heard for a while gets its discovery restarted. Each such
//   recovery is one warning line.
// - Each source has a bus connection of its own: bluetoothd keeps one discovery session per
//   client (bus name), so two sources sharing a connection would stop each other's discovery.
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
    Private(BlueZSource& source, QStringList adapters);
    ~Private() override;
    Private(const Private&) = delete;
    Private& operator=(const Private&) = delete;

    void setScanning(bool wanted);
    void setRestartInterval(std::chrono::milliseconds interval);
    void setSilenceLimit(std::chrono::milliseconds limit) { m_silenceLimit = limit; }

private slots:
    void onInterfacesAdded(const QDBusMessage& message);
    void onInterfacesRemoved(const QDBusMessage& message);
    void onDevicePropertiesChanged(const QDBusMessage& message);
    void onAdapterPropertiesChanged(const QDBusMessage& message);

private:
    using Steady = std::chrono::steady_clock;
    struct Adapter
    {
        quint64 id = 0;     ///< replies for an adapter object that has gone since are ignored
        QByteArray address; ///< what per-receiver calibration names it by
        bool powered = false;
        bool discovering = false; ///< Adapter1.Discovering, as bluetoothd last said
        bool session = false;     ///< bluetoothd granted our discovery and it was not stopped since
        bool busy = false;        ///< a discovery call is under way; the next waits for its reply
        bool restart = false;     ///< stop and start again once the adapter is not busy
        Steady::time_point lastHeard;   ///< any device's advert, or the start of our session
        Steady::time_point lastAttempt; ///< our last start
        Steady::time_point notDiscoveringSince;
        int strikes = 0; ///< recoveries since something was last heard; each waits longer
    };
    struct Device
    {
        QByteArray address;
        QString adapter;     ///< its adapter's object path
        QByteArray receiver; ///< its adapter's address
        std::optional<IBeaconFrame> frame;
        std::optional<int> rssi;
    };
    using Reply = std::function<void(Adapter&, const QDBusError&)>;

    void connectToBus();
    void connectSignals();
    void loadObjects();
    void forgetAll();
    bool isSelected(const QString& path, const QByteArray& address) const;
    void addObject(const QString& path, const InterfaceMap& interfaces, bool fresh);
    void addAdapter(const QString& path, const PropertyMap& properties);
    void removeAdapter(const QString& path);
    void addDevice(const QString& path, const PropertyMap& properties, bool fresh);
    void updateDevice(Device& device, const PropertyMap& changed, const QStringList& invalidated);
    void heard(const QString& adapterPath);
    void advance(const QString& path);
    void start(const QString& path, Adapter& adapter);
    void restartDiscovery();
    void supervise();
    void recover(const QString& path, Adapter& adapter);
    void reportAdapters() const;
    void call(const QString& path, const QString& method, const QVariantList& arguments,
              Reply reply);
    std::int64_t now() const;

    BlueZSource& m_source;
    const QStringList m_selection; ///< adapters asked for by name (hci0) or address; empty: all
    const QString m_connectionName;
    QDBusConnection m_bus{QString()};
    QTimer m_busRetry;
    int m_busAttempts = 0;
    QDBusServiceWatcher m_watcher;
    QTimer m_restartTimer;
    QTimer m_superviseTimer;
    std::chrono::milliseconds m_silenceLimit = defaultSilenceLimit;
    bool m_wanted = false;
    // bluetoothd is on the bus and its object list has been read.
    bool m_loaded = false;
    // Replies from a bluetoothd that has gone since are ignored.
    quint64 m_generation = 0;
    quint64 m_nextAdapterId = 0;
    QHash<QString, Adapter> m_adapters;
    QHash<QString, Device> m_devices;
};

namespace {

// Bounds every discovery call: a bluetoothd that does not answer must not hold an adapter busy.
constexpr int callTimeoutMs = 5000;
// How long Discovering may stay false under our session, with nothing heard, before we take the
// session as lost: bluetoothd passes through false when it restarts its own scan, and a starved
// bluetoothd reports true late after granting a start.
constexpr auto discoveryGrace = std::chrono::seconds(2);
constexpr int quickRetries = 8;
// A refused start is tried again after this, when no periodic restart came first.
constexpr auto startRetry = std::chrono::seconds(1);
// Recoveries that hear nothing back off up to this, so that a silent room logs little.
constexpr auto longestBackoff = std::chrono::seconds(60);

std::chrono::milliseconds backedOff(std::chrono::milliseconds base, int strikes)
{
    const auto cap = std::max<std::chrono::milliseconds>(base, longestBackoff);
    auto wait = base;
    for (int i = 0; i < strikes && wait < cap; ++i)
        wait *= 2;
    return std::min(wait, cap);
}

QString connectionName()
{
    static std::atomic<quint64> next{0};
    return QStringLiteral("quorlix-bluez-%1").arg(next++);
}

} // namespace

BlueZSource::Private::Private(BlueZSource& source, QStringList adapters)
    : m_source(source)
    , m_selection(std::move(adapters))
    , m_connectionName(connectionName())
{
    m_restartTimer.setInterval(defaultRestartInterval);
    connect(&m_restartTimer, &QTimer::timeout, this, &Private::restartDiscovery);
    m_superviseTimer.setInterval(500);
    connect(&m_superviseTimer, &QTimer::timeout, this, &Private::supervise);
    m_busRetry.setSingleShot(true);
    connect(&m_busRetry, &QTimer::timeout, this, &Private::connectToBus);
    connect(&m_watcher, &QDBusServiceWatcher::serviceRegistered, this, [this] {
        qCInfo(lcBlueZ) << "bluetoothd appeared on the system bus";
        loadObjects();
    });
    connect(&m_watcher, &QDBusServiceWatcher::serviceUnregistered, this, [this] {
        qCWarning(lcBlueZ) << "bluetoothd left the system bus; waiting for it to come back";
        forgetAll();
    });
    connectToBus();
}

BlueZSource::Private::~Private()
{
    // Our discovery sessions end with our connection: bluetoothd drops a client's discovery when
    // the client leaves the bus. The stops are sent first, so that bluetoothd hears them in any
    // case, and the connection is closed once they are answered.
    auto* app = QCoreApplication::instance();
    auto open = std::make_shared<int>(0);
    const QString name = m_connectionName;
    for (auto it = m_adapters.cbegin(); app && m_bus.isConnected() && it != m_adapters.cend();
         ++it) {
        if (!it->session && !it->busy)
            continue;
        const auto message = QDBusMessage::createMethodCall(service, it.key(), adapterInterface,
                                                            QStringLiteral("StopDiscovery"));
        auto* watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(message, 1000), app);
        ++*open;
        QObject::connect(watcher, &QDBusPendingCallWatcher::finished, app,
                         [open, name](QDBusPendingCallWatcher* call) {
                             call->deleteLater();
                             if (--*open == 0)
                                 QDBusConnection::disconnectFromBus(name);
                         });
    }
    if (*open == 0)
        QDBusConnection::disconnectFromBus(name);
}

void BlueZSource::Private::connectToBus()
{
    // The address is read at each attempt: libdbus reads the environment only once per process.
    const QByteArray address = qgetenv("DBUS_SYSTEM_BUS_ADDRESS");
    m_bus = QDBusConnection::connectToBus(
        address.isEmpty() ? QStringLiteral("unix:path=/var/run/dbus/system_bus_socket")
                          : QString::fromLocal8Bit(address),
        m_connectionName);
    if (!m_bus.isConnected()) {
        const QString why = m_bus.lastError().message();
        QDBusConnection::disconnectFromBus(m_connectionName);
        const int delay = 1 << std::min(m_busAttempts++, 5);
        qCWarning(lcBlueZ).noquote() << QStringLiteral("cannot reach the system bus: %1; waiting "
                                                       "for it (trying again in %2 s)")
                                            .arg(why.left(200))
                                            .arg(delay);
        m_busRetry.start(delay * 1000);
        return;
    }
    if (m_busAttempts > 0)
        qCInfo(lcBlueZ) << "reached the system bus";
    connectSignals();
    m_watcher.setConnection(m_bus);
    m_watcher.addWatchedService(service);
    m_watcher.setWatchMode(QDBusServiceWatcher::WatchForRegistration |
                           QDBusServiceWatcher::WatchForUnregistration);
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
    auto* watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(message, callTimeoutMs), this);
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
                // Adapters first, so that devices listed before their adapter know its address.
                QList<std::pair<QString, InterfaceMap>> listed;
                objects.beginMap();
                while (!objects.atEnd()) {
                    QDBusObjectPath path;
                    objects.beginMapEntry();
                    objects >> path;
                    listed.append({path.path(), readInterfaces(objects)});
                    objects.endMapEntry();
                }
                objects.endMap();
                std::stable_partition(listed.begin(), listed.end(), [](const auto& object) {
                    return object.second.contains(adapterInterface);
                });
                for (const auto& [path, interfaces] : listed) {
                    // Signals may have announced the object while the call was under way.
                    if (!m_adapters.contains(path) && !m_devices.contains(path))
                        addObject(path, interfaces, false);
                }
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

bool BlueZSource::Private::isSelected(const QString& path, const QByteArray& address) const
{
    if (m_selection.isEmpty())
        return true;
    const QString name = path.section(QLatin1Char('/'), -1);
    return std::any_of(m_selection.cbegin(), m_selection.cend(), [&](const QString& wanted) {
        return wanted == name || (!address.isEmpty() &&
                                  wanted.compare(QLatin1String(address), Qt::CaseInsensitive) == 0);
    });
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
    const QByteArray address = properties.value(QStringLiteral("Address")).toString().toLatin1();
    if (!isSelected(path, address)) {
        qCDebug(lcBlueZ).noquote() << "adapter" << path << "is not among" << m_selection;
        return;
    }
    Adapter& adapter = m_adapters[path];
    adapter = Adapter{};
    adapter.id = ++m_nextAdapterId;
    adapter.address = address;
    const QVariant powered = properties.value(QStringLiteral("Powered"));
    adapter.powered = powered.typeId() == QMetaType::Bool && powered.toBool();
    const QVariant discovering = properties.value(QStringLiteral("Discovering"));
    adapter.discovering = discovering.typeId() == QMetaType::Bool && discovering.toBool();
    adapter.lastHeard = adapter.notDiscoveringSince = Steady::now();
    if (adapter.powered)
        qCInfo(lcBlueZ).noquote() << "adapter" << path << "is on";
    else
        qCWarning(lcBlueZ).noquote()
            << "adapter" << path << "is powered off; it is used once it is powered on";
    advance(path);
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
    const QString adapterPath = path.section(QLatin1Char('/'), 0, -2);
    const auto adapter = m_adapters.constFind(adapterPath);
    if (adapter == m_adapters.constEnd())
        return; // an adapter not asked for, or one already gone
    Device& device = m_devices[path];
    const QVariant address = properties.value(QStringLiteral("Address"));
    device.address = address.typeId() == QMetaType::QString ? address.toString().left(64).toLatin1()
                                                            : QByteArray();
    if (device.address.isEmpty()) // the path ends in dev_XX_XX_XX_XX_XX_XX
        device.address = path.section(QLatin1Char('/'), -1)
                             .mid(4)
                             .replace(QLatin1Char('_'), QLatin1Char(':'))
                             .toLatin1();
    device.adapter = adapterPath;
    device.receiver = adapter->address;
    if (fresh) {
        heard(adapterPath);
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
    const bool isHeard =
        rssi != changed.constEnd() ? reading.has_value() : data != changed.constEnd();
    if (!isHeard || !m_wanted || !device.frame || !device.rssi)
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

void BlueZSource::Private::heard(const QString& adapterPath)
{
    if (const auto adapter = m_adapters.find(adapterPath); adapter != m_adapters.end()) {
        adapter->lastHeard = Steady::now();
        adapter->strikes = 0;
    }
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
    heard(device->adapter);
    updateDevice(device.value(), qdbus_cast<PropertyMap>(arguments[1].value<QDBusArgument>()),
                 arguments[2].toStringList());
}

void BlueZSource::Private::onAdapterPropertiesChanged(const QDBusMessage& message)
{
    if (!hasSignature(message, propertiesChangedSignature))
        return;
    const QVariantList arguments = message.arguments();
    const QString path = message.path();
    const auto adapter = m_adapters.find(path);
    if (adapter == m_adapters.end())
        return;
    const PropertyMap changed = qdbus_cast<PropertyMap>(arguments[1].value<QDBusArgument>());
    if (const auto discovering = changed.constFind(QStringLiteral("Discovering"));
        discovering != changed.constEnd() && discovering->typeId() == QMetaType::Bool) {
        adapter->discovering = discovering->toBool();
        if (!adapter->discovering)
            adapter->notDiscoveringSince = Steady::now();
        else if (adapter->session)
            adapter->strikes = 0;
    }
    const auto powered = changed.constFind(QStringLiteral("Powered"));
    if (powered == changed.constEnd() || powered->typeId() != QMetaType::Bool ||
        powered->toBool() == adapter->powered)
        return;
    adapter->powered = powered->toBool();
    if (adapter->powered) {
        qCInfo(lcBlueZ).noquote() << "adapter" << path << "was powered on";
        advance(path);
    } else {
        // Powering off ends every discovery session on the adapter.
        adapter->session = false;
        adapter->restart = false;
        qCWarning(lcBlueZ).noquote()
            << "adapter" << path << "was powered off; it is used again once powered on";
    }
    reportAdapters();
}

void BlueZSource::Private::setScanning(bool wanted)
{
    if (wanted == m_wanted)
        return;
    m_wanted = wanted;
    const auto now = Steady::now();
    for (auto it = m_adapters.begin(); it != m_adapters.end(); ++it) {
        it->lastHeard = now;
        it->strikes = 0;
        advance(it.key());
    }
    if (wanted) {
        if (m_restartTimer.interval() > 0)
            m_restartTimer.start();
        m_superviseTimer.start();
        reportAdapters();
    } else {
        m_restartTimer.stop();
        m_superviseTimer.stop();
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

// Brings the adapter's discovery one call closer to what is wanted; called again with each reply.
void BlueZSource::Private::advance(const QString& path)
{
    const auto it = m_adapters.find(path);
    if (it == m_adapters.end() || it->busy)
        return;
    Adapter& adapter = *it;
    const bool wanted = m_wanted && adapter.powered;
    if (adapter.session && (!wanted || adapter.restart)) {
        adapter.busy = true;
        call(path, QStringLiteral("StopDiscovery"), {},
             [path](Adapter& stopped, const QDBusError& error) {
                 // Refused or not, there is no session of ours left to stop.
                 stopped.session = false;
                 stopped.restart = false;
                 stopped.busy = false;
                 if (error.isValid())
                     qCDebug(lcBlueZ).noquote()
                         << "adapter" << path << "StopDiscovery:" << error.message();
             });
        return;
    }
    adapter.restart = false;
    if (!adapter.session && wanted)
        start(path, adapter);
}

void BlueZSource::Private::start(const QString& path, Adapter& adapter)
{
    adapter.busy = true;
    adapter.lastAttempt = Steady::now();
    // The filter belongs to our discovery session and goes with it, so it is set before every
    // start.
    const QVariantMap filter{
        {QStringLiteral("Transport"), QStringLiteral("le")},
        {QStringLiteral("DuplicateData"), true},
        {QStringLiteral("RSSI"), QVariant::fromValue(qint16(-127))},
    };
    const auto started = [path](Adapter& starting, const QDBusError& error) {
        starting.busy = false;
        if (!error.isValid() || isAlreadyActive(error)) {
            starting.session = true;
            starting.lastHeard = starting.notDiscoveringSince = Steady::now();
            return;
        }
        qCWarning(lcBlueZ).noquote() << "adapter" << path << "cannot start discovery ("
                                     << error.name() << error.message() << ")";
    };
    call(path, QStringLiteral("SetDiscoveryFilter"), {filter},
         [this, path, started](Adapter& starting, const QDBusError& error) {
             if (error.isValid())
                 qCWarning(lcBlueZ).noquote()
                     << "adapter" << path << "refused the discovery filter (" << error.name()
                     << error.message()
                     << "); stationary beacons may be reported only now and then";
             if (!m_wanted || !starting.powered) {
                 starting.busy = false;
                 return;
             }
             call(path, QStringLiteral("StartDiscovery"), {}, started);
         });
}

void BlueZSource::Private::restartDiscovery()
{
    for (auto it = m_adapters.begin(); it != m_adapters.end(); ++it) {
        // Also a retry for a powered adapter whose start was refused (busy, not ready yet).
        if (it->session)
            it->restart = true;
        advance(it.key());
    }
}

void BlueZSource::Private::supervise()
{
    const auto now = Steady::now();
    for (auto it = m_adapters.begin(); it != m_adapters.end(); ++it) {
        Adapter& adapter = *it;
        if (adapter.busy || !adapter.powered)
            continue;
        if (!adapter.session) {
            if (now - adapter.lastAttempt >= startRetry)
                advance(it.key());
            continue;
        }
        // Adverts still heard mean discovery works, whatever the flag says. A failed start after
        // a bluetoothd crash looks like a lost session too: the kernel still runs the dead
        // daemon's scan and refuses a new one, which bluetoothd reports as "in progress". So the
        // first few tries come quickly.
        if (!adapter.discovering && adapter.lastHeard <= adapter.notDiscoveringSince &&
            now - adapter.notDiscoveringSince >=
                backedOff(discoveryGrace, std::max(0, adapter.strikes - quickRetries))) {
            qCWarning(lcBlueZ).noquote()
                << "adapter" << it.key()
                << "stopped discovering while we scan (Discovering is false); starting it again";
            recover(it.key(), adapter);
        } else if (m_silenceLimit.count() > 0 &&
                   now - adapter.lastHeard >= backedOff(m_silenceLimit, adapter.strikes)) {
            const auto silent =
                std::chrono::duration_cast<std::chrono::milliseconds>(now - adapter.lastHeard);
            qCWarning(lcBlueZ).noquote()
                << QStringLiteral("adapter %1 has heard nothing for %2 s while scanning; "
                                  "restarting its discovery")
                       .arg(it.key())
                       .arg(silent.count() / 1000.0, 0, 'f', 1);
            recover(it.key(), adapter);
        }
    }
}

void BlueZSource::Private::recover(const QString& path, Adapter& adapter)
{
    adapter.strikes = std::min(adapter.strikes + 1, 16);
    adapter.lastHeard = adapter.notDiscoveringSince = Steady::now();
    adapter.restart = true;
    advance(path);
}

void BlueZSource::Private::reportAdapters() const
{
    if (!m_wanted || !m_loaded)
        return;
    if (m_adapters.isEmpty() && !m_selection.isEmpty())
        qCWarning(lcBlueZ).noquote() << "no Bluetooth adapter named" << m_selection.join(u", ")
                                     << "is present; waiting for one";
    else if (m_adapters.isEmpty())
        qCWarning(lcBlueZ) << "no Bluetooth adapter is present; waiting for one";
    else if (std::none_of(m_adapters.cbegin(), m_adapters.cend(),
                          [](const Adapter& adapter) { return adapter.powered; }))
        qCWarning(lcBlueZ) << "every Bluetooth adapter is powered off; waiting for one to be on";
}

void BlueZSource::Private::call(const QString& path, const QString& method,
                                const QVariantList& arguments, Reply reply)
{
    auto message = QDBusMessage::createMethodCall(service, path, adapterInterface, method);
    message.setArguments(arguments);
    const quint64 generation = m_generation;
    const quint64 id = m_adapters.value(path).id;
    auto* watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(message, callTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, generation, id, path, reply = std::move(reply)](QDBusPendingCallWatcher* call) {
                call->deleteLater();
                const auto adapter = m_adapters.find(path);
                if (generation != m_generation || adapter == m_adapters.end() || adapter->id != id)
                    return;
                reply(*adapter, call->error());
                advance(path);
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

BlueZSource::BlueZSource(QStringList adapters)
    : d(std::make_unique<Private>(*this, std::move(adapters)))
{}

BlueZSource::~BlueZSource() = default;

void BlueZSource::setScanning(bool wanted)
{
    d->setScanning(wanted);
}

void BlueZSource::setRestartInterval(std::chrono::milliseconds interval)
{
    d->setRestartInterval(interval);
}

void BlueZSource::setSilenceLimit(std::chrono::milliseconds limit)
{
    d->setSilenceLimit(limit);
}

} // namespace Quorlix

#include "BlueZSource.moc"
