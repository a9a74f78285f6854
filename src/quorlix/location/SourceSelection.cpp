#include "quorlix/location/SourceSelection.h"

#include "quorlix/LoggingCategories.h"
#include "quorlix/location/EngineLocationManager.h"
#include "quorlix/location/RealClock.h"
#include "quorlix/location/sources/BlueZSource.h"
#include "quorlix/location/sources/ReplaySource.h"
#include "quorlix/location/sources/SimulatedSource.h"

#include <QMutex>
#include <QRegularExpression>

namespace Quorlix {
namespace {

// Guarded because hosts may install a factory from any thread.
QMutex factoryMutex;
LocationManager::Factory installedFactory;

// Settings come from the environment: a quoted one is cut so that a message stays readable.
QString quoted(const QString& text)
{
    return text.size() <= 40 ? text : text.left(40) + QStringLiteral("...");
}

} // namespace

std::shared_ptr<LocationManager> LocationManager::create()
{
    Factory factory;
    {
        QMutexLocker lock(&factoryMutex);
        factory = installedFactory;
    }
    return factory ? factory() : SourceSelection::fromEnvironment();
}

void LocationManager::setFactory(Factory factory)
{
    QMutexLocker lock(&factoryMutex);
    installedFactory = std::move(factory);
}

std::unique_ptr<BeaconSource> SourceSelection::sourceFor(const QString& setting, QString* problem)
{
    // A missing bluetoothd or adapter is not a reason to refuse: the source waits for them and
    // says so on its own logging category.
    if (setting == u"bluez")
        return std::make_unique<BlueZSource>();
    const qsizetype colon = setting.indexOf(u':');
    const QString kind = setting.left(colon);
    const QString file = colon < 0 ? QString() : setting.mid(colon + 1);
    if (kind == u"bluez") {
        static const QRegularExpression adapter(
            QStringLiteral("^(hci[0-9]{1,3}|([0-9A-Fa-f]{2}:){5}[0-9A-Fa-f]{2})$"));
        const QStringList adapters = file.split(u',');
        for (const QString& name : adapters) {
            if (!adapter.match(name).hasMatch()) {
                *problem = QStringLiteral("bluez:<adapters> wants hciN or a Bluetooth address "
                                          "(comma-separated), not \"%1\"")
                               .arg(quoted(name));
                return nullptr;
            }
        }
        return std::make_unique<BlueZSource>(adapters);
    }
    if (kind == u"simulate" || kind == u"replay") {
        if (file.isEmpty()) {
            *problem = QStringLiteral("%1 needs a file: %1:<file>").arg(kind);
            return nullptr;
        }
        if (kind == u"simulate") {
            std::optional<Scenario> scenario = Scenario::load(file, problem);
            return scenario ? std::make_unique<SimulatedSource>(std::move(*scenario)) : nullptr;
        }
        int skipped = 0;
        ReplaySource::BadRows bad;
        std::optional<std::vector<ReplaySource::Row>> rows =
            ReplaySource::load(file, problem, &skipped, &bad);
        if (!rows)
            return nullptr;
        if (skipped > 0)
            qCInfo(lcLocation).noquote()
                << QStringLiteral("trace %1: %2 rows without an iBeacon frame are skipped")
                       .arg(file)
                       .arg(skipped);
        if (bad.count > 0)
            qCWarning(lcLocation).noquote()
                << QStringLiteral("trace %1: %2 bad rows are skipped, the first at line %3: %4")
                       .arg(file)
                       .arg(bad.count)
                       .arg(bad.firstLine)
                       .arg(bad.firstProblem);
        return std::make_unique<ReplaySource>(std::move(*rows));
    }
    *problem = QStringLiteral("unknown source \"%1\"; expected bluez, bluez:<adapters>, "
                              "simulate:<scenario.json> or replay:<trace.csv>")
                   .arg(quoted(setting));
    return nullptr;
}

std::shared_ptr<LocationManager> SourceSelection::fromEnvironment()
{
    const QString setting = qEnvironmentVariable(variable);
    return fromSetting(setting.isEmpty() ? QStringLiteral("bluez") : setting);
}

std::shared_ptr<LocationManager> SourceSelection::fromSetting(const QString& setting)
{
    QString problem;
    std::unique_ptr<BeaconSource> source = sourceFor(setting, &problem);
    if (!source) {
        qCWarning(lcLocation).noquote()
            << QStringLiteral("%1=%2: %3; the location manager reports nothing")
                   .arg(QLatin1StringView(variable), setting, problem);
        return std::make_shared<LocationManager>();
    }
    return std::make_shared<EngineLocationManager>(std::make_shared<RealClock>(),
                                                   std::move(source));
}

} // namespace Quorlix
