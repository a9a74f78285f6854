#pragma once

#include "quorlix/Export.h"

#include "quorlix/location/LocationManager.h"
#include "quorlix/model/VeskDevice.h"
#include "quorlix/ui/DeviceListViewController.h"
#include "quorlix/ui/PairDelegate.h"

#include <QHash>
#include <QObject>
#include <QVariant>

#include <memory>
#include <type_traits>

class QWidget;

namespace Quorlix {

/// Finds nearby devices and pairs with them. Made once per host with its application ID: reloads
/// the keys of the devices paired before (one blocking directory request per stored key), then
/// scans for every beacon of the family on startLooking() or pair(), resolves each heard beacon to
/// a device key, lists the keys on a pairing screen and stores the keys when the user has chosen.
///
/// Made only through create(); everything runs on the thread that made it, which must be the
/// thread of the QApplication instance. While a screen is up, the manager and the screen hold each
/// other (listViewController and the screen's delegate); clear one of the two to release both.
class QUORLIX_EXPORT VeskDeviceManager : public QObject,
                                         public LocationManagerDelegate,
                                         public PairDelegate,
                                         public std::enable_shared_from_this<VeskDeviceManager>
{
    Q_OBJECT
    Q_PROPERTY(QString veskDeviceKeysConstant MEMBER veskDeviceKeysConstant)
    Q_PROPERTY(std::shared_ptr<Quorlix::LocationManager> locationManager MEMBER locationManager)
    Q_PROPERTY(std::shared_ptr<Quorlix::BeaconRegion> beaconRegion MEMBER beaconRegion)
    Q_PROPERTY(std::shared_ptr<Quorlix::DeviceListViewController> listViewController MEMBER
                   listViewController)
    Q_PROPERTY(QHash<QString, QString> keys MEMBER keys)
    Q_PROPERTY(QHash<QString, QVariant> devices MEMBER devices)

public:
    /// A manager for the host application appID, with its stored keys reloaded.
    static std::shared_ptr<VeskDeviceManager> create(const QString& appID);

    /// The same for a subclass M, whose overrides are in effect during the set-up. M needs a public
    /// default constructor.
    template <class M> static std::shared_ptr<M> create(const QString& appID)
    {
        static_assert(std::is_base_of_v<VeskDeviceManager, M>);
        std::shared_ptr<M> manager(new M());
        manager->initWithAppID(appID);
        return manager;
    }

    /// The plain constructor is not supported: stops the process.
    [[noreturn]] static std::shared_ptr<VeskDeviceManager> create();

    ~VeskDeviceManager() override;

    /// The user-defaults key of the key store; read at every save.
    QString veskDeviceKeysConstant = QStringLiteral("VeskDeviceManagerKeys");
    /// Absent only when the set-up ended early on a stored key that the service no longer knows.
    std::shared_ptr<LocationManager> locationManager;
    std::shared_ptr<BeaconRegion> beaconRegion;
    /// The pairing screen, from pair() on.
    std::shared_ptr<DeviceListViewController> listViewController;
    /// Major-minor text to device key, of every device resolved so far.
    QHash<QString, QString> keys;
    /// Device key to the directory service's parsed answer for it.
    QHash<QString, QVariant> devices;
    /// The host's callback for the pairing under way.
    PairingCompletion pairCompletion;

    /// The whole set-up; create() calls it once.
    Q_INVOKABLE virtual void initWithAppID(const QString& appID);
    /// Stops the process: the plain initialiser is not supported.
    Q_INVOKABLE void init();

    /// Starts monitoring, then ranging, of the region of every beacon of the family.
    Q_INVOKABLE virtual void startLooking();
    /// Stops ranging, then monitoring, of beaconRegion as it stands (possibly none).
    Q_INVOKABLE virtual void stopLooking();
    /// Starts the scan and shows a new pairing screen over host; completion gets the chosen key,
    /// or "" on a cancel.
    Q_INVOKABLE virtual void pair(QWidget* host, Quorlix::PairingCompletion completion);
    /// Saves every value of keys to the key store, then calls pairCompletion with item.
    Q_INVOKABLE void itemPaired(const QString& item) override;
    /// Only logs; the key store keeps its keys.
    Q_INVOKABLE virtual void unpair();
    /// Only logs; nothing is sent or stored.
    Q_INVOKABLE virtual void setInfo(const QString& key, const QString& info);
    Q_INVOKABLE virtual QString fetchInfo(const QString& key);
    Q_INVOKABLE virtual QString getType(const QString& key);
    Q_INVOKABLE virtual QString getSubType(const QString& key);
    Q_INVOKABLE virtual QString getMajorMinor(const QString& key);
    /// The text member field of the answer cached for key; "" when nothing is cached for it.
    Q_INVOKABLE virtual QString extractField(const QString& key, const QString& field);

    Q_INVOKABLE void didRangeBeacons(Quorlix::LocationManager* manager,
                                     const QList<Quorlix::Beacon>& beacons,
                                     Quorlix::BeaconRegion* region) override;

    /// The body of a directory request (blocking; failures stop the process).
    Q_INVOKABLE virtual QByteArray getJSON(const QString& url);
    /// The device key of a directory answer, or ""; caches the parsed answer under a key found.
    Q_INVOKABLE virtual QString getKey(const QByteArray& data);

protected:
    VeskDeviceManager();
};

} // namespace Quorlix
