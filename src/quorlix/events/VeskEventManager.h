#pragma once

#include "quorlix/Export.h"

#include "quorlix/location/LocationManager.h"
#include "quorlix/model/VeskDevice.h"

#include <QDateTime>
#include <QObject>

#include <memory>
#include <type_traits>

namespace Quorlix {

/// Watches one device, named by its device ID: resolves it through the directory service, monitors
/// and ranges its beacon region, and calls the host back on entry, exit and every ranging report.
///
/// Made only through create(), which runs the whole set-up at once: one blocking directory request,
/// then the region, then monitoring, ranging and location updates. Every failure on the way stops
/// the process. Everything runs on the thread that created the manager, which must be the thread of
/// the QCoreApplication instance for entry and exit reports to be delivered.
class QUORLIX_EXPORT VeskEventManager : public QObject,
                                        public LocationManagerDelegate,
                                        public std::enable_shared_from_this<VeskEventManager>
{
    Q_OBJECT
    Q_PROPERTY(std::shared_ptr<Quorlix::LocationManager> locationManager MEMBER locationManager)
    Q_PROPERTY(std::shared_ptr<Quorlix::BeaconRegion> beaconRegion MEMBER beaconRegion)
    Q_PROPERTY(qint64 filterTime MEMBER filterTime)
    Q_PROPERTY(bool cancelExit MEMBER cancelExit)
    Q_PROPERTY(bool cancelEnter MEMBER cancelEnter)
    Q_PROPERTY(QDateTime lastExit MEMBER lastExit)
    Q_PROPERTY(QDateTime lastEnter MEMBER lastEnter)

public:
    /// A manager watching deviceID's region.
    static std::shared_ptr<VeskEventManager> create(const QString& deviceID);

    /// The same for a subclass M, whose overrides are in effect during the set-up. M needs a public
    /// default constructor.
    template <class M> static std::shared_ptr<M> create(const QString& deviceID)
    {
        static_assert(std::is_base_of_v<VeskEventManager, M>);
        std::shared_ptr<M> manager(new M());
        manager->initWithDeviceID(deviceID);
        return manager;
    }

    /// The plain constructor is not supported: stops the process.
    [[noreturn]] static std::shared_ptr<VeskEventManager> create();

    ~VeskEventManager() override;

    std::shared_ptr<LocationManager> locationManager;
    std::shared_ptr<BeaconRegion> beaconRegion;
    /// Filter interval in whole seconds: the delay of entry and exit reports.
    qint64 filterTime = 0;
    bool cancelExit = false;
    bool cancelEnter = false;
    /// Time of the last accepted exit; null when none.
    QDateTime lastExit;
    /// Time of the last accepted entry; null when none. Resetting it reopens the filter.
    QDateTime lastEnter;
    DeviceCallback entryHandler;
    DeviceCallback exitHandler;
    DeviceCallback rangeHandler;
    /// Stored for the host; no report ever calls it.
    DeviceCallback updateHandler;

    /// The whole set-up; create() calls it once. Reachable as "initWithDeviceID".
    Q_INVOKABLE virtual void initWithDeviceID(const QString& deviceID);
    /// Stops the process: the plain initialiser is not supported.
    Q_INVOKABLE void init();

    virtual void onEntry(DeviceCallback handler);
    virtual void onRange(DeviceCallback handler);
    virtual void onExit(DeviceCallback handler);
    virtual void onUpdate(DeviceCallback handler);
    /// Stores seconds in filterTime as given, zero and negative values included.
    Q_INVOKABLE virtual void filter(qint64 seconds);

    Q_INVOKABLE void didEnterRegion(Quorlix::LocationManager* manager,
                                    Quorlix::BeaconRegion* region) override;
    Q_INVOKABLE void didRangeBeacons(Quorlix::LocationManager* manager,
                                     const QList<Quorlix::Beacon>& beacons,
                                     Quorlix::BeaconRegion* region) override;
    Q_INVOKABLE void didExitRegion(Quorlix::LocationManager* manager,
                                   Quorlix::BeaconRegion* region) override;

    /// The body of a directory request (blocking; failures stop the process).
    Q_INVOKABLE virtual QByteArray getJSON(const QString& url);
    /// The "MajorMinor" text of a directory answer, or "".
    Q_INVOKABLE virtual QString getMajorMinor(const QByteArray& data);

    /// Delivers one ranging report: the first beacon's signal strength and proximity reach handler
    /// as a new record; an empty report or an empty handler does nothing.
    static void reportRanging(const QList<Beacon>& beacons, const DeviceCallback& handler);
    /// The record of one ranging reading: rssi as signed decimal text, and the proximity word for
    /// codes 0 to 3 (absent for any other code).
    static std::shared_ptr<VeskDevice> rangingRecord(int rssi, int proximityCode);

protected:
    VeskEventManager();

private:
    struct RegionEventKind;
    void regionEvent(const RegionEventKind& kind);
};

} // namespace Quorlix
