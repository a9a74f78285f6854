#pragma once

#include "BeaconFeed.h"
#include "BeaconTable.h"
#include "Command.h"

#include <memory>

namespace QuorlixTool {

/// `quorlix scan`: a live table of the beacons heard, or one JSON object per beacon and refresh.
class ScanCommand : public Command
{
public:
    QString name() const override { return QStringLiteral("scan"); }
    QString summary() const override;
    QString description() const override;

protected:
    void describe(QCommandLineParser& parser) const override;
    std::optional<int> start(const QCommandLineParser& parser,
                             const CommonOptions& common) override;

private:
    void refresh();
    void printTable(const std::vector<BeaconTable::Row>& rows);
    void printJson(const std::vector<BeaconTable::Row>& rows);

    std::unique_ptr<BeaconFeed> m_feed;
    std::unique_ptr<BeaconTable> m_table;
    bool m_all = false;
    bool m_json = false;
    int m_linesShown = 0;
};

} // namespace QuorlixTool
