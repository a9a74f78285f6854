#include "quorlix/quick/DevicePairing.h"

#include <QPointer>
#include <QVariantMap>

namespace Quorlix::Quick {
namespace {

// The manager's own default entry; it is read before there is a manager to ask.
constexpr char keyStoreEntry[] = "VeskDeviceManagerKeys";

} // namespace

DevicePairing::DevicePairing(QObject* parent)
    : QObject(parent)
{}

DevicePairing::~DevicePairing()
{
    stop();
    if (m_manager && m_manager->locationManager && m_manager->locationManager->delegate == this)
        m_manager->locationManager->delegate = nullptr;
}

void DevicePairing::setAppId(const QString& appId)
{
    if (appId == m_appId)
        return;
    // The manager belongs to one application ID; a new one makes a new manager at the next start.
    stop();
    if (m_manager && m_manager->locationManager && m_manager->locationManager->delegate == this)
        m_manager->locationManager->delegate = nullptr;
    m_manager.reset();
    m_appId = appId;
    emit appIdChanged();
}

void DevicePairing::start()
{
    if (m_looking)
        return;
    if (!m_error.isEmpty()) {
        m_error.clear();
        emit errorChanged();
    }
    if (m_appId.isEmpty())
        return fail(QStringLiteral("no appId to pair for"));
    if (!m_manager) {
        // The manager reloads every stored key through the directory and stops the process when
        // the directory does not answer; a key it no longer knows stops it at the scan.
        const DirectoryProbe probe;
        const QStringList stored = UserDefaults::standard()
                                       .stringArray(QString::fromLatin1(keyStoreEntry))
                                       .value_or(QStringList());
        for (const QString& key : stored) {
            const DirectoryProbe::Answer answer = probe.lookUp(key);
            if (!answer.reachable)
                return fail(answer.problem);
            if (answer.key.isEmpty())
                return fail(QStringLiteral("stored device key %1 does not resolve: %2")
                                .arg(key, answer.problem));
        }
        m_manager = VeskDeviceManager::create(m_appId);
        // Heard beacons come here first, to be checked before their keys reach the manager.
        m_manager->locationManager->delegate = this;
    }
    m_unknown.clear();
    m_manager->startLooking();
    setLooking(true);
}

void DevicePairing::stop()
{
    if (!m_looking)
        return;
    m_manager->stopLooking();
    setLooking(false);
}

void DevicePairing::pick(const QString& key)
{
    finish(key);
}

void DevicePairing::cancel()
{
    finish(QString());
}

void DevicePairing::finish(const QString& key)
{
    if (!m_manager)
        return fail(QStringLiteral("nothing to pair with: start() first"));
    stop();
    m_manager->pairCompletion = [self = QPointer(this)](const QString& result) {
        if (!self)
            return;
        if (result.isEmpty())
            emit self->cancelled();
        else
            emit self->paired(result);
    };
    m_manager->itemPaired(key);
}

void DevicePairing::didRangeBeacons(LocationManager*, const QList<Beacon>& beacons, BeaconRegion*)
{
    const DirectoryProbe probe;
    bool added = false;
    for (const Beacon& beacon : beacons) {
        const QString majorMinor = BeaconFamily::majorMinorText(beacon.major, beacon.minor);
        QString key = m_manager->keys.value(majorMinor);
        QString info;
        if (key.isEmpty()) {
            if (m_unknown.contains(majorMinor))
                continue;
            const DirectoryProbe::Answer answer = probe.lookUpMajorMinor(majorMinor);
            if (!answer.reachable) {
                stop();
                return fail(answer.problem);
            }
            if (answer.key.isEmpty()) {
                m_unknown.insert(majorMinor);
                continue;
            }
            key = answer.key;
            info = answer.info;
            m_manager->keys.insert(majorMinor, key);
        }
        const bool listed = std::any_of(m_devices.cbegin(), m_devices.cend(), [&](const auto& d) {
            return d.toMap().value(QStringLiteral("key")).toString() == key;
        });
        if (listed)
            continue;
        if (info.isEmpty())
            info = probe.lookUp(key).info;
        m_devices.append(QVariantMap{{QStringLiteral("key"), key},
                                     {QStringLiteral("majorMinor"), majorMinor},
                                     {QStringLiteral("info"), info}});
        added = true;
    }
    if (added)
        emit devicesChanged();
}

void DevicePairing::setLooking(bool looking)
{
    if (looking == m_looking)
        return;
    m_looking = looking;
    emit lookingChanged();
}

void DevicePairing::fail(const QString& error)
{
    m_error = error;
    emit errorChanged();
    emit errorOccurred(error);
}

} // namespace Quorlix::Quick
