#include "quorlix/quick/BeaconModel.h"

#include "quorlix/quick/CalibrationCheck.h"

#include <algorithm>

namespace Quorlix::Quick {
namespace {

bool sameBeacon(const Beacon& a, const Beacon& b)
{
    return a.proximityUUID == b.proximityUUID && a.major == b.major && a.minor == b.minor;
}

} // namespace

class BeaconModel::Delegate : public LocationManagerDelegate
{
public:
    explicit Delegate(BeaconModel* model)
        : m_model(model)
    {}
    void didRangeBeacons(LocationManager*, const QList<Beacon>& beacons, BeaconRegion*) override
    {
        m_model->update(beacons);
    }

private:
    BeaconModel* m_model;
};

BeaconModel::BeaconModel(QObject* parent)
    : QAbstractListModel(parent)
{
    // Queued, so that a QML host's property values (active: false) are in before anything starts.
    QMetaObject::invokeMethod(
        this, [this] { setActive(m_active); }, Qt::QueuedConnection);
}

BeaconModel::~BeaconModel()
{
    stop();
}

int BeaconModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : static_cast<int>(m_rows.size());
}

QVariant BeaconModel::data(const QModelIndex& index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return {};
    const Row& row = m_rows.at(index.row());
    switch (role) {
    case Qt::DisplayRole:
    case UuidRole:
        return row.beacon.proximityUUID.toString(QUuid::WithoutBraces).toUpper();
    case MajorRole:
        return int(row.beacon.major);
    case MinorRole:
        return int(row.beacon.minor);
    case RssiRole:
        return row.beacon.rssi;
    case ProximityRole:
        return QVariant::fromValue(row.beacon.proximity);
    case DistanceRole:
        return row.beacon.accuracy;
    case LastHeardRole:
        return row.lastHeard;
    case BeaconRole:
        return QVariant::fromValue(row.beacon);
    default:
        return {};
    }
}

QHash<int, QByteArray> BeaconModel::roleNames() const
{
    return {{UuidRole, "uuid"},           {MajorRole, "major"},         {MinorRole, "minor"},
            {RssiRole, "rssi"},           {ProximityRole, "proximity"}, {DistanceRole, "distance"},
            {LastHeardRole, "lastHeard"}, {BeaconRole, "beacon"}};
}

Beacon BeaconModel::beacon(int row) const
{
    return row >= 0 && row < m_rows.size() ? m_rows.at(row).beacon : Beacon();
}

void BeaconModel::setActive(bool active)
{
    const bool changed = active != m_active;
    m_active = active;
    if (active && !m_location)
        start();
    else if (!active)
        stop();
    if (changed)
        emit activeChanged();
}

void BeaconModel::start()
{
    setError(CalibrationCheck::problem());
    if (!m_error.isEmpty())
        return;
    m_delegate = std::make_unique<Delegate>(this);
    m_location = LocationManager::create();
    m_region = std::make_shared<BeaconRegion>(BeaconRegion{BeaconFamily::proximityUUID(),
                                                           std::nullopt, std::nullopt,
                                                           QStringLiteral("Quorlix.BeaconModel")});
    if (!m_location)
        return;
    m_location->delegate = m_delegate.get();
    m_location->startRangingBeacons(m_region);
}

void BeaconModel::stop()
{
    if (m_location) {
        m_location->stopRangingBeacons(m_region);
        if (m_location->delegate == m_delegate.get())
            m_location->delegate = nullptr;
    }
    m_location.reset();
    m_delegate.reset();
    if (!m_rows.isEmpty()) {
        beginResetModel();
        m_rows.clear();
        endResetModel();
        emit countChanged();
    }
}

void BeaconModel::update(const QList<Beacon>& beacons)
{
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const qsizetype countBefore = m_rows.size();

    // Rows whose beacon left the report go, one by one, so that views keep their other items.
    for (qsizetype i = m_rows.size() - 1; i >= 0; --i) {
        const auto inReport = std::any_of(beacons.begin(), beacons.end(), [&](const Beacon& b) {
            return sameBeacon(b, m_rows.at(i).beacon);
        });
        if (!inReport) {
            beginRemoveRows({}, int(i), int(i));
            m_rows.removeAt(i);
            endRemoveRows();
        }
    }
    for (const Beacon& beacon : beacons) {
        const auto found = std::find_if(m_rows.begin(), m_rows.end(), [&](const Row& row) {
            return sameBeacon(row.beacon, beacon);
        });
        // A beacon not heard since the last report comes with RSSI 0.
        if (found != m_rows.end()) {
            found->beacon = beacon;
            if (beacon.rssi != 0)
                found->lastHeard = now;
            continue;
        }
        const int row = int(m_rows.size());
        beginInsertRows({}, row, row);
        m_rows.append({beacon, beacon.rssi != 0 ? now : QDateTime()});
        endInsertRows();
    }
    // Into order by moves (selection sort): a view animates a beacon passing another.
    for (int target = 0; target < m_rows.size(); ++target) {
        int best = target;
        for (int i = target + 1; i < m_rows.size(); ++i) {
            if (nearerFirst(m_rows.at(i).beacon, m_rows.at(best).beacon))
                best = i;
        }
        if (best != target) {
            beginMoveRows({}, best, best, {}, target);
            m_rows.move(best, target);
            endMoveRows();
        }
    }
    if (!m_rows.isEmpty())
        emit dataChanged(index(0), index(int(m_rows.size()) - 1));
    if (m_rows.size() != countBefore)
        emit countChanged();
}

void BeaconModel::setError(const QString& error)
{
    if (error == m_error)
        return;
    m_error = error;
    emit errorChanged(m_error);
}

} // namespace Quorlix::Quick
