#pragma once

#include "BeaconFeed.h"
#include "Command.h"
#include "MqttClient.h"
#include "PresenceTopics.h"

#include <QHash>

#include <map>
#include <memory>

namespace QuorlixTool {

/// `quorlix publish --broker host[:port]`: this host's room presence, per watched device or per
/// family beacon, as retained MQTT messages with Home Assistant discovery.
class PublishCommand : public Command
{
public:
    QString name() const override { return QStringLiteral("publish"); }
    QString summary() const override;
    QString description() const override;

    /// More beacons than this are not followed (one room rarely hears a tenth of it).
    static constexpr int maxBeacons = 1024;

protected:
    void describe(QCommandLineParser& parser) const override;
    std::optional<int> start(const QCommandLineParser& parser,
                             const CommonOptions& common) override;
    void interrupt() override { end(); }

private:
    struct Entity
    {
        QString label;
        std::shared_ptr<Quorlix::BeaconRegion> region;
        PresenceTopics::State state;
        PresenceTopics::State published;
        std::int64_t publishedNs = 0;
        bool everPublished = false;
        /// Whether the engine has said home or away yet: until then no state is published, so
        /// that a restarted receiver never sends away for a beacon it still hears.
        bool decided = false;
    };

    void addEntity(const QString& id, const QString& label,
                   std::shared_ptr<Quorlix::BeaconRegion> region);
    void update(const QString& id, const PresenceTopics::State& state, bool urgent,
                bool decision = false);
    void publishState(const QString& id, Entity& entity);
    void announce(const QString& id, const Entity& entity);
    void republishAll();
    void log(const QString& text) const;
    void end();

    std::unique_ptr<BeaconFeed> m_feed;
    std::unique_ptr<PresenceTopics> m_topics;
    std::unique_ptr<MqttClient> m_mqtt;
    // Ordered, so that a reconnection publishes in the same order every time.
    std::map<QString, Entity> m_entities;
    std::int64_t m_intervalNs = 5'000'000'000;
    bool m_warnedFull = false;
    bool m_ended = false;
};

} // namespace QuorlixTool
