#include "quorlix/pairing/NearbyDiscovery.h"

#include "quorlix/model/BeaconFamily.h"
#include "quorlix/platform/Fatal.h"
#include "quorlix/platform/Log.h"
#include "quorlix/ui/DeviceListViewController.h"

namespace Quorlix::NearbyDiscovery {
namespace {

DeviceListViewController& require(const std::shared_ptr<DeviceListViewController>& screen)
{
    if (!screen)
        Fatal::noListScreen();
    return *screen;
}

TableView& requireTable(DeviceListViewController& screen)
{
    if (screen.table == nullptr)
        Fatal::noTable();
    return *screen.table;
}

} // namespace

void run(const QList<Reading>& readings, QHash<QString, QString>& keys,
         const std::shared_ptr<DeviceListViewController>& screen, const Lookup& lookup)
{
    for (const Reading& reading : readings) {
        if (!screen)
            continue;
        const QString majorMinor = BeaconFamily::majorMinorText(reading.major, reading.minor);

        QString key;
        const auto known = keys.constFind(majorMinor);
        if (known != keys.constEnd()) {
            key = *known;
        } else {
            Log::line(majorMinor);
            key = lookup(majorMinor);
            // No negative cache on purpose: an unknown beacon is asked about at every report.
            if (key.isEmpty()) {
                Log::line(QStringLiteral("could not find major minor online"));
                continue;
            }
            keys.insert(majorMinor, key);
            Log::line(QStringLiteral("got key from online"));
            Log::line(key);
        }

        if (require(screen).items.contains(key))
            continue;
        require(screen).items.append(key);
        requireTable(require(screen)).reloadData();
    }
}

} // namespace Quorlix::NearbyDiscovery
