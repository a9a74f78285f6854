#pragma once

#include <quorlix/Quorlix.h>

#include <QAbstractListModel>
#include <QDateTime>
#include <QtQml/qqmlregistration.h>

#include <memory>

namespace Quorlix::Quick {

/// The family's beacons in range, nearest first (unknown distances last), for a list view: one row
/// per beacon of the latest ranging report, with the roles uuid, major, minor, rssi, proximity,
/// distance and lastHeard. Ranging runs while active is true (from the start).
class BeaconModel : public QAbstractListModel
{
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(bool active READ isActive WRITE setActive NOTIFY activeChanged)
    Q_PROPERTY(int count READ rowCount NOTIFY countChanged)
    /// Why the model cannot range (a calibration file that does not read); empty when it can.
    Q_PROPERTY(QString error READ error NOTIFY errorChanged)

public:
    enum Role
    {
        UuidRole = Qt::UserRole + 1,
        MajorRole,
        MinorRole,
        RssiRole,
        ProximityRole,
        DistanceRole,
        LastHeardRole,
        BeaconRole,
    };
    Q_ENUM(Role)

    explicit BeaconModel(QObject* parent = nullptr);
    ~BeaconModel() override;

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    bool isActive() const { return m_active; }
    void setActive(bool active);
    QString error() const { return m_error; }

    /// The beacon at row; a default Beacon outside the rows.
    Q_INVOKABLE Quorlix::Beacon beacon(int row) const;

signals:
    void activeChanged();
    void countChanged();
    void errorChanged(const QString& error);

private:
    struct Row
    {
        Beacon beacon;
        QDateTime lastHeard;
    };
    class Delegate;

    void start();
    void stop();
    void update(const QList<Beacon>& beacons);
    void setError(const QString& error);

    bool m_active = true;
    QString m_error;
    QList<Row> m_rows;
    std::shared_ptr<LocationManager> m_location;
    std::shared_ptr<BeaconRegion> m_region;
    std::unique_ptr<Delegate> m_delegate;
};

} // namespace Quorlix::Quick
