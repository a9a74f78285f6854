#include "ReplayBuilding.h"

#include "BeaconTable.h"
#include "PublishCommand.h"

#include "quorlix/model/BeaconFamily.h"

#include <QDir>
#include <QFile>

#include <cmath>
#include <cstdio>
#include <set>

namespace QuorlixTool {
namespace {

// The time column of one line of a trace, in seconds.
std::optional<double> timeOnLine(const QString& path, int wanted)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    int number = 0;
    while (!file.atEnd()) {
        const QByteArray line = file.readLine();
        if (++number == wanted) {
            bool ok = false;
            const double timeS = line.left(line.indexOf(',')).trimmed().toDouble(&ok);
            return ok ? std::optional<double>(timeS) : std::nullopt;
        }
    }
    return std::nullopt;
}

} // namespace

std::unique_ptr<ReplayBuilding> ReplayBuilding::load(const QString& folder,
                                                     const Quorlix::LocationSettings& settings,
                                                     std::int64_t intervalNs, QString* problem)
{
    const QDir building(folder);
    if (!building.exists()) {
        *problem = QStringLiteral("%1 is not a folder").arg(folder);
        return nullptr;
    }
    std::unique_ptr<ReplayBuilding> result(new ReplayBuilding);
    result->m_intervalNs = intervalNs;
    std::set<QByteArray> names;
    for (const QString& room : building.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name)) {
        const QDir roomFolder(building.filePath(room));
        for (const QString& file :
             roomFolder.entryList({QStringLiteral("*.csv")}, QDir::Files, QDir::Name)) {
            if (result->m_receivers.size() >= maxReceivers) {
                *problem = QStringLiteral("%1 holds more than %2 recordings")
                               .arg(folder)
                               .arg(maxReceivers);
                return nullptr;
            }
            const QString path = roomFolder.filePath(file);
            QString error;
            Quorlix::ReplaySource::BadRows bad;
            std::optional<std::vector<Quorlix::ReplaySource::Row>> rows =
                Quorlix::ReplaySource::load(path, &error, nullptr, &bad);
            if (!rows) {
                *problem = error;
                return nullptr;
            }
            if (bad.count > 0)
                std::fprintf(stderr,
                             "quorlix rooms: %s: %d bad rows left out, the first on line %d "
                             "(%s)\n",
                             qPrintable(path), bad.count, bad.firstLine,
                             qPrintable(bad.firstProblem));
            if (rows->empty())
                continue;
            const std::optional<double> firstS = timeOnLine(path, rows->front().line);
            const double startS =
                firstS ? *firstS - static_cast<double>(rows->front().offsetNs) / 1e9 : -1;
            if (!(startS >= 0)) {
                *problem = QStringLiteral("%1: times are seconds from the building's common "
                                          "origin and cannot be negative")
                               .arg(path);
                return nullptr;
            }
            auto receiver = std::make_unique<Receiver>();
            receiver->name = file.chopped(4);
            receiver->topics = std::make_unique<PresenceTopics>(room, receiver->name);
            // Receivers are told apart by their topics, as on a broker.
            if (!names.insert(receiver->topics->state({})).second) {
                *problem = QStringLiteral("%1: another room has a receiver named %2")
                               .arg(path, receiver->name);
                return nullptr;
            }
            receiver->startNs = std::llround(startS * 1e9);
            result->m_endNs = std::max(result->m_endNs, receiver->startNs + rows->back().offsetNs);
            receiver->source = std::make_unique<Quorlix::ReplaySource>(std::move(*rows));
            receiver->engine = std::make_unique<Quorlix::RegionEngine>(result->m_clock);
            receiver->engine->applySettings(settings);
            result->wire(*receiver);
            result->m_receivers.push_back(std::move(receiver));
        }
    }
    if (result->m_receivers.empty()) {
        *problem =
            QStringLiteral("%1 holds no recording: expected <room>/<receiver>.csv").arg(folder);
        return nullptr;
    }
    return result;
}

ReplayBuilding::~ReplayBuilding()
{
    for (const auto& receiver : m_receivers) {
        receiver->source->setScanning(false);
        receiver->source->setSink({});
    }
}

void ReplayBuilding::wire(Receiver& receiver)
{
    Receiver* r = &receiver;
    const QUuid family = Quorlix::BeaconFamily::proximityUUID();
    const QByteArray name = receiver.name.toUtf8();
    receiver.source->setClock(&m_clock);
    receiver.source->setSink([r, family, name](const Quorlix::Sighting& heard) {
        if (heard.proximityUUID != family)
            return;
        const QString id = Quorlix::BeaconFamily::majorMinorText(heard.major, heard.minor);
        if (r->entities.count(id) == 0 &&
            static_cast<int>(r->entities.size()) < PublishCommand::maxBeacons) {
            Entity& entity = r->entities[id];
            entity.region = std::make_shared<Quorlix::BeaconRegion>(
                Quorlix::BeaconRegion{family, heard.major, heard.minor, id});
            r->engine->startMonitoring(entity.region);
            r->engine->startRanging(entity.region);
        }
        Quorlix::Sighting sighting = heard;
        sighting.receiver = name;
        r->engine->addSighting(sighting);
    });
    // As quorlix publish reports a beacon: entry and exit at once, ranging when it is news.
    receiver.engine->entered = [this, r](const std::shared_ptr<Quorlix::BeaconRegion>& region) {
        PresenceTopics::State state = r->entities[region->identifier].state;
        state.home = true;
        update(*r, region->identifier, state, true);
    };
    receiver.engine->exited = [this, r](const std::shared_ptr<Quorlix::BeaconRegion>& region) {
        update(*r, region->identifier, PresenceTopics::State{}, true);
    };
    receiver.engine->ranged = [this, r](const QList<Quorlix::Beacon>& beacons,
                                        const std::shared_ptr<Quorlix::BeaconRegion>& region) {
        const auto found = r->entities.find(region->identifier);
        if (beacons.isEmpty() || found == r->entities.end())
            return;
        PresenceTopics::State state = found->second.state;
        state.proximity = BeaconTable::word(beacons.first().proximity);
        state.distanceM = beacons.first().accuracy;
        state.rssi = beacons.first().rssi;
        update(*r, region->identifier, state,
               PresenceTopics::isNews(found->second.published, state));
    };
}

void ReplayBuilding::update(Receiver& receiver, const QString& id,
                            const PresenceTopics::State& state, bool urgent)
{
    Entity& entity = receiver.entities[id];
    entity.state = state;
    const std::int64_t nowNs = m_clock.nowNs();
    const bool due = nowNs - entity.publishedNs >= m_intervalNs;
    if (!((urgent || due || !entity.everPublished) && entity.state != entity.published))
        return;
    if (m_deliver)
        m_deliver(receiver.topics->state(id), receiver.topics->statePayload(entity.state));
    entity.published = entity.state;
    entity.publishedNs = nowNs;
    entity.everPublished = true;
}

void ReplayBuilding::start()
{
    for (const auto& receiver : m_receivers) {
        Quorlix::ReplaySource* source = receiver->source.get();
        m_clock.schedule(receiver->startNs, [source] { source->setScanning(true); });
    }
}

} // namespace QuorlixTool
