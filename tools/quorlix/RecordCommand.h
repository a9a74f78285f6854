#pragma once

#include "BeaconFeed.h"
#include "Command.h"
#include "TraceWriter.h"

#include <QSet>

#include <memory>

namespace QuorlixTool {

/// `quorlix record <trace.csv>`: what the source hears, written in the replay format.
class RecordCommand : public Command
{
public:
    QString name() const override { return QStringLiteral("record"); }
    QString summary() const override;
    QString description() const override;

protected:
    void describe(QCommandLineParser& parser) const override;
    std::optional<int> start(const QCommandLineParser& parser,
                             const CommonOptions& common) override;
    void interrupt() override { end(); }

private:
    void progress();
    void end();

    std::unique_ptr<BeaconFeed> m_feed;
    TraceWriter m_writer;
    QString m_path;
    QSet<QByteArray> m_beacons;
    std::optional<double> m_seconds;
    qint64 m_readings = 0;
    bool m_progressShown = false;
    bool m_writeFailed = false;
    bool m_ended = false;
};

} // namespace QuorlixTool
