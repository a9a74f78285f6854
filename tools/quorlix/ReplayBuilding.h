#pragma once

#include "PresenceTopics.h"

#include "quorlix/location/LocationSettings.h"
#include "quorlix/location/RegionEngine.h"
#include "quorlix/location/VirtualClock.h"
#include "quorlix/location/sources/ReplaySource.h"

#include <QString>

#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace QuorlixTool {

/// A building played back from recordings: DIR/<room>/<receiver>.csv, replay traces with one
/// time origin (time 0 is the same instant in every file). Each receiver runs its own region
/// engine on one virtual clock and sends the state messages quorlix publish would send for every
/// family beacon it hears, at the same cadence, to deliver() instead of a broker.
class ReplayBuilding
{
public:
    using Deliver = std::function<void(const QByteArray& topic, const QByteArray& payload)>;

    static constexpr int maxReceivers = 256;

    /// settings: calibration for every engine; its receiver offsets apply by receiver name.
    /// Null with problem set when the folder holds no usable recording.
    static std::unique_ptr<ReplayBuilding> load(const QString& folder,
                                                const Quorlix::LocationSettings& settings,
                                                std::int64_t intervalNs, QString* problem);
    ~ReplayBuilding();
    ReplayBuilding(const ReplayBuilding&) = delete;
    ReplayBuilding& operator=(const ReplayBuilding&) = delete;

    void setDeliver(Deliver deliver) { m_deliver = std::move(deliver); }
    Quorlix::VirtualClock& clock() { return m_clock; }
    /// The time of the last recorded row in any file.
    std::int64_t endNs() const { return m_endNs; }
    /// Starts every recording at its own first row's time.
    void start();

private:
    struct Entity
    {
        std::shared_ptr<Quorlix::BeaconRegion> region;
        PresenceTopics::State state;
        PresenceTopics::State published;
        std::int64_t publishedNs = 0;
        bool everPublished = false;
    };
    struct Receiver
    {
        QString name;
        std::unique_ptr<PresenceTopics> topics;
        std::unique_ptr<Quorlix::RegionEngine> engine;
        std::unique_ptr<Quorlix::ReplaySource> source;
        std::map<QString, Entity> entities;
        std::int64_t startNs = 0;
    };

    ReplayBuilding() = default;
    void wire(Receiver& receiver);
    void update(Receiver& receiver, const QString& id, const PresenceTopics::State& state,
                bool urgent);

    // Declared first, so that it outlives the engines and sources that hold timers on it.
    Quorlix::VirtualClock m_clock;
    std::vector<std::unique_ptr<Receiver>> m_receivers;
    Deliver m_deliver;
    std::int64_t m_intervalNs = 0;
    std::int64_t m_endNs = 0;
};

} // namespace QuorlixTool
