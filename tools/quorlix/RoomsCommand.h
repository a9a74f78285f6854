#pragma once

#include "Command.h"
#include "MqttClient.h"

#include "quorlix/rooms/RoomArbiter.h"

#include <QElapsedTimer>
#include <QHash>
#include <QSet>
#include <QTimer>

#include <map>
#include <memory>

namespace QuorlixTool {

/// `quorlix rooms`: which room each beacon is in, decided from what every quorlix publish of a
/// building reports, live over MQTT or offline from recordings (--replay).
class RoomsCommand : public Command
{
public:
    QString name() const override { return QStringLiteral("rooms"); }
    QString summary() const override;
    QString description() const override;

protected:
    void describe(QCommandLineParser& parser) const override;
    std::optional<int> start(const QCommandLineParser& parser,
                             const CommonOptions& common) override;
    void interrupt() override { end(); }

private:
    struct Published
    {
        Quorlix::RoomArbiter::Decision decision;
        std::int64_t atNs = 0;
        bool sent = false;
    };

    int replay(const QString& folder, const QCommandLineParser& parser,
               std::optional<double> seconds);
    std::optional<int> live(const QCommandLineParser& parser, std::optional<double> seconds);
    /// One message as a broker delivers it, at nowNs on the arbiter's clock.
    void take(const QByteArray& topic, const QByteArray& payload, std::int64_t nowNs);
    void tick();
    void publish(const QString& beacon, Published& published);
    void print(double timeS, const QString& beacon, const Quorlix::RoomArbiter::Decision& decision);
    QString receiverName(const QString& receiver) const;
    void log(const QString& text) const;
    void end();

    Quorlix::RoomArbiter m_arbiter;
    QHash<QString, QString> m_names; ///< receiver topic name -> its own name
    QSet<QByteArray> m_warned;
    bool m_json = false;
    // Live only.
    std::unique_ptr<MqttClient> m_mqtt;
    QTimer m_ticker;
    QElapsedTimer m_clock;
    qint64 m_startMs = 0;
    std::map<QString, Published> m_published;
    bool m_ended = false;
};

} // namespace QuorlixTool
