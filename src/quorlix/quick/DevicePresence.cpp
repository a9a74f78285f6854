#include "quorlix/quick/DevicePresence.h"

#include "quorlix/quick/CalibrationCheck.h"

#include <QPointer>

namespace Quorlix::Quick {

// The event manager with the whole ranging report at hand: its range handler gets only the RSSI
// and the proximity word as text, and the distance is wanted too.
class DevicePresence::Manager : public VeskEventManager
{
public:
    QPointer<DevicePresence> owner;

    void didRangeBeacons(LocationManager* manager, const QList<Beacon>& beacons,
                         BeaconRegion* region) override
    {
        VeskEventManager::didRangeBeacons(manager, beacons, region);
        if (owner && !beacons.isEmpty()) {
            owner->setRange(beacons.first());
            emit owner->ranged(beacons.first());
        }
    }
};

DevicePresence::DevicePresence(QObject* parent)
    : QObject(parent)
{}

DevicePresence::~DevicePresence()
{
    stop();
}

void DevicePresence::setDeviceId(const QString& deviceId)
{
    if (deviceId == m_deviceId)
        return;
    m_deviceId = deviceId;
    emit deviceIdChanged();
    // Queued and merged, so that a QML host's filterTime is in before the manager is made.
    if (!m_startQueued) {
        m_startQueued = true;
        QMetaObject::invokeMethod(
            this,
            [this] {
                m_startQueued = false;
                start();
            },
            Qt::QueuedConnection);
    }
}

void DevicePresence::setFilterTime(qint64 seconds)
{
    if (seconds == m_filterTime)
        return;
    m_filterTime = seconds;
    if (m_manager)
        m_manager->filter(seconds);
    emit filterTimeChanged();
}

void DevicePresence::start()
{
    stop();
    if (!m_error.isEmpty()) {
        m_error.clear();
        emit errorChanged();
    }
    if (m_deviceId.isEmpty())
        return;
    if (const QString problem = CalibrationCheck::problem(); !problem.isEmpty())
        return fail(problem);
    const DirectoryProbe::Answer answer = DirectoryProbe().lookUp(m_deviceId);
    if (!answer.problem.isEmpty())
        return fail(answer.problem);
    m_majorMinor = answer.majorMinor;
    emit majorMinorChanged();

    m_manager = VeskEventManager::create<Manager>(m_deviceId);
    m_manager->owner = this;
    m_manager->filter(m_filterTime);
    // The filter drops every report after an accepted one of the same kind until the last accepted
    // time is cleared; clearing it at the opposite report lets the device come and go repeatedly.
    const std::weak_ptr<Manager> manager = m_manager;
    m_manager->onEntry([self = QPointer(this), manager](const auto&) {
        if (const auto m = manager.lock())
            m->lastExit = QDateTime();
        if (self) {
            self->setPresent(true);
            emit self->entered();
        }
    });
    m_manager->onExit([self = QPointer(this), manager](const auto&) {
        if (const auto m = manager.lock())
            m->lastEnter = QDateTime();
        if (self) {
            self->setPresent(false);
            self->setRange(
                Beacon{self->m_beacon.proximityUUID, self->m_beacon.major, self->m_beacon.minor});
            emit self->exited();
        }
    });
}

void DevicePresence::stop()
{
    if (!m_manager)
        return;
    // A delayed entry or exit still holds the manager; it must find no handler of ours.
    m_manager->owner = nullptr;
    m_manager->entryHandler = nullptr;
    m_manager->exitHandler = nullptr;
    if (m_manager->locationManager) {
        m_manager->locationManager->stopRangingBeacons(m_manager->beaconRegion);
        m_manager->locationManager->stopMonitoring(m_manager->beaconRegion);
    }
    m_manager.reset();
    setPresent(false);
    setRange(Beacon());
    if (!m_majorMinor.isEmpty()) {
        m_majorMinor.clear();
        emit majorMinorChanged();
    }
}

void DevicePresence::setPresent(bool present)
{
    if (present == m_present)
        return;
    m_present = present;
    emit presentChanged();
}

void DevicePresence::setRange(const Beacon& beacon)
{
    const bool changed = !(beacon == m_beacon);
    m_beacon = beacon;
    if (changed)
        emit rangeChanged();
}

void DevicePresence::fail(const QString& error)
{
    m_error = error;
    emit errorChanged();
    emit errorOccurred(error);
}

} // namespace Quorlix::Quick
