#pragma once

#include "quorlix/location/Sighting.h"

#include <QFile>
#include <QString>

namespace QuorlixTool {

/// Writes sightings as a replay trace (time,address,rssi,manufacturer_data_hex), the format that
/// QUORLIX_LOCATION_SOURCE=replay:<file> plays back.
class TraceWriter
{
public:
    /// Creates path; refuses an existing file unless overwrite, so that no recording is lost.
    bool open(const QString& path, bool overwrite, QString* error);
    /// timeS: seconds since the recording started.
    bool write(double timeS, const Quorlix::Sighting& sighting);
    /// Pushes what is written to the disk; false and error when the disk refused.
    bool flush(QString* error);
    bool close(QString* error);

    /// Apple's manufacturer data (company identifier little-endian first) carrying the frame.
    static QByteArray manufacturerData(const Quorlix::Sighting& sighting);

private:
    QFile m_file;
};

} // namespace QuorlixTool
