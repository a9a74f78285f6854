#include "quorlix/platform/SourceSelection.h"

#include "quorlix/platform/BlueZSource.h"
#include "quorlix/platform/EngineLocationManager.h"
#include "quorlix/platform/RealClock.h"
#include "quorlix/platform/ReplaySource.h"
#include "quorlix/platform/SimulatedSource.h"

#include <QLoggingCategory>

namespace Quorlix {
namespace {

Q_LOGGING_CATEGORY(lcSource, "quorlix.platform.location")

std::unique_ptr<BeaconSource> makeSource(const QString& setting, QString* problem)
{
    // A missing bluetoothd or adapter is not a reason to refuse: the source waits for them and
    // says so on its own logging category.
    if (setting == u"bluez")
        return std::make_unique<BlueZSource>();
    const qsizetype colon = setting.indexOf(u':');
    const QString kind = setting.left(colon);
    const QString file = colon < 0 ? QString() : setting.mid(colon + 1);
    if (kind == u"simulate" || kind == u"replay") {
        if (file.isEmpty()) {
            *problem = QStringLiteral("%1 needs a file: %1:<file>").arg(kind);
            return nullptr;
        }
        if (kind == u"simulate") {
            std::optional<SimulatedSource::Scenario> scenario =
                SimulatedSource::load(file, problem);
            return scenario ? std::make_unique<SimulatedSource>(std::move(*scenario)) : nullptr;
        }
        int skipped = 0;
        std::optional<std::vector<ReplaySource::Row>> rows =
            ReplaySource::load(file, problem, &skipped);
        if (!rows)
            return nullptr;
        if (skipped > 0)
            qCInfo(lcSource).noquote()
                << QStringLiteral("trace %1: %2 rows without an iBeacon frame are skipped")
                       .arg(file)
                       .arg(skipped);
        return std::make_unique<ReplaySource>(std::move(*rows));
    }
    *problem = QStringLiteral("unknown source \"%1\"; expected bluez, simulate:<scenario.json> or "
                              "replay:<trace.csv>")
                   .arg(setting);
    return nullptr;
}

} // namespace

std::shared_ptr<LocationManager> SourceSelection::fromEnvironment()
{
    const QString setting = qEnvironmentVariable(variable);
    return fromSetting(setting.isEmpty() ? QStringLiteral("bluez") : setting);
}

std::shared_ptr<LocationManager> SourceSelection::fromSetting(const QString& setting)
{
    QString problem;
    std::unique_ptr<BeaconSource> source = makeSource(setting, &problem);
    if (!source) {
        qCWarning(lcSource).noquote()
            << QStringLiteral("%1=%2: %3; the location manager reports nothing")
                   .arg(QLatin1StringView(variable), setting, problem);
        return std::make_shared<LocationManager>();
    }
    return std::make_shared<EngineLocationManager>(std::make_shared<RealClock>(),
                                                   std::move(source));
}

} // namespace Quorlix
