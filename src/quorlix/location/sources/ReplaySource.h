#pragma once

#include "quorlix/location/Clock.h"
#include "quorlix/location/sources/BeaconSource.h"
#include "quorlix/location/sources/IBeaconAdvert.h"

#include <QString>

#include <optional>
#include <vector>

namespace Quorlix {

/// A recorded trace played back on the engine's clock. The trace is CSV with the columns
/// time,address,rssi,manufacturer_data_hex: seconds from any origin (non-decreasing), the
/// advertiser's address, RSSI in dBm, and the manufacturer-specific data as recorded (little-endian
/// company identifier first). A header line is allowed; rows that carry no iBeacon frame are
/// skipped, as a scanner would, and so are bad rows (a field missing or unreadable, a time more
/// than a century after the first row), which real logs have; a time earlier than the row before
/// refuses the whole trace, since its order cannot be trusted.
///
/// The first row plays when scanning is first wanted; rows falling in a pause are not heard.
class ReplaySource : public BeaconSource
{
public:
    struct Row
    {
        std::int64_t offsetNs = 0; ///< from the first row
        QByteArray address;
        int rssi = 0;
        IBeaconFrame frame;
        int line = 0;
    };

    /// The rows left out because they could not be read.
    struct BadRows
    {
        int count = 0;
        int firstLine = 0;
        QString firstProblem; ///< e.g. "rssi \"62\" is not a dBm value (-127 to 20)"
    };

    /// Parses a trace; on failure sets error to a message naming name and the line, and returns
    /// nothing. skipped, when given, counts rows without an iBeacon frame; bad, the bad rows. A
    /// trace with bad rows and no good one is refused.
    static std::optional<std::vector<Row>> parse(const QByteArray& csv, const QString& name,
                                                 QString* error, int* skipped = nullptr,
                                                 BadRows* bad = nullptr);
    /// Refuses anything but a regular file of at most 256 MiB.
    static std::optional<std::vector<Row>> load(const QString& path, QString* error,
                                                int* skipped = nullptr, BadRows* bad = nullptr);

    explicit ReplaySource(std::vector<Row> rows);
    ~ReplaySource() override;

    void setScanning(bool wanted) override;

private:
    void play();

    std::vector<Row> m_rows;
    std::size_t m_next = 0;
    bool m_started = false;
    std::int64_t m_originNs = 0;
    Clock::TimerId m_timer = 0;
};

} // namespace Quorlix
