#pragma once

#include "BeaconFeed.h"
#include "Command.h"

#include <QJsonObject>

#include <memory>

namespace QuorlixTool {

/// `quorlix watch <device ID>`: the device's entries, exits and ranging, as lines or JSON.
class WatchCommand : public Command
{
public:
    QString name() const override { return QStringLiteral("watch"); }
    QString summary() const override;
    QString description() const override;

    /// The device's region: the family UUID with the major and minor the directory gives, or a
    /// message saying why the device cannot be watched (directory unreachable, unknown device).
    static std::shared_ptr<Quorlix::BeaconRegion>
    resolve(const QString& directory, const QString& deviceID, QString* problem);
    /// The exit period from --exit-period, else the calibration file's; error on a bad value.
    static std::int64_t exitPeriodNs(const QCommandLineParser& parser, QString* problem);
    static void addExitPeriodOption(QCommandLineParser& parser);

protected:
    void describe(QCommandLineParser& parser) const override;
    std::optional<int> start(const QCommandLineParser& parser,
                             const CommonOptions& common) override;

private:
    void print(const QString& event, const QString& text, QJsonObject fields);

    std::unique_ptr<BeaconFeed> m_feed;
    std::shared_ptr<Quorlix::BeaconRegion> m_region;
    QString m_device;
    bool m_json = false;
};

} // namespace QuorlixTool
