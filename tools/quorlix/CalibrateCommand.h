#pragma once

#include "BeaconFeed.h"
#include "Command.h"

#include "quorlix/location/LocationSettings.h"

#include <memory>
#include <vector>

namespace QuorlixTool {

/// `quorlix calibrate <major-minor>`: the beacon's RSSI at 1 m, written to the calibration file.
class CalibrateCommand : public Command
{
public:
    QString name() const override { return QStringLiteral("calibrate"); }
    QString summary() const override;
    QString description() const override;

    /// --file, else QUORLIX_CALIBRATION, else the user's calibration file.
    static QString calibrationPath(const QCommandLineParser& parser);

    struct Measurement
    {
        int measuredPower = 0; ///< the median, rounded
        double median = 0;
        int lowQuartile = 0;
        int highQuartile = 0;
        int readings = 0;
    };
    static Measurement measure(std::vector<int> rssi);

    /// Fewer readings than this are too few to trust.
    static constexpr int minimumReadings = 10;

protected:
    void describe(QCommandLineParser& parser) const override;
    std::optional<int> start(const QCommandLineParser& parser,
                             const CommonOptions& common) override;
    void interrupt() override;

private:
    void progress();
    void end();

    std::unique_ptr<BeaconFeed> m_feed;
    Quorlix::BeaconId m_beacon;
    Quorlix::LocationSettings m_settings;
    QString m_path;
    /// The file the other entries come from: m_path, or the system's before a first calibration.
    QString m_readFrom;
    std::vector<int> m_rssi;
    double m_seconds = 30;
    bool m_progressShown = false;
};

} // namespace QuorlixTool
