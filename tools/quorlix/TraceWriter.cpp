#include "TraceWriter.h"

#include "quorlix/location/sources/IBeaconAdvert.h"

namespace QuorlixTool {

bool TraceWriter::open(const QString& path, bool overwrite, QString* error)
{
    m_file.setFileName(path);
    const QIODevice::OpenMode mode = QIODevice::WriteOnly | QIODevice::Text |
                                     (overwrite ? QIODevice::Truncate : QIODevice::NewOnly);
    if (!m_file.open(mode)) {
        *error =
            m_file.exists() && !overwrite
                ? QStringLiteral("%1 exists already; choose another name or pass --force").arg(path)
                : QStringLiteral("cannot write %1: %2").arg(path, m_file.errorString());
        return false;
    }
    m_file.write("time,address,rssi,manufacturer_data_hex\n");
    return true;
}

QByteArray TraceWriter::manufacturerData(const Quorlix::Sighting& sighting)
{
    QByteArray data;
    data.reserve(27);
    const quint16 company = Quorlix::IBeaconAdvert::appleCompanyId;
    data.append(static_cast<char>(company & 0xff)).append(static_cast<char>(company >> 8));
    data.append('\x02').append('\x15');
    data.append(sighting.proximityUUID.toRfc4122());
    data.append(static_cast<char>(sighting.major >> 8)).append(static_cast<char>(sighting.major));
    data.append(static_cast<char>(sighting.minor >> 8)).append(static_cast<char>(sighting.minor));
    data.append(static_cast<char>(sighting.measuredPower));
    return data;
}

bool TraceWriter::write(double timeS, const Quorlix::Sighting& sighting)
{
    const QByteArray line = QByteArray::number(timeS, 'f', 3) + ',' + sighting.address + ',' +
                            QByteArray::number(sighting.rssi) + ',' +
                            manufacturerData(sighting).toHex() + '\n';
    return m_file.write(line) == line.size();
}

bool TraceWriter::flush(QString* error)
{
    if (m_file.flush() && m_file.error() == QFileDevice::NoError)
        return true;
    *error = QStringLiteral("cannot write %1: %2").arg(m_file.fileName(), m_file.errorString());
    return false;
}

bool TraceWriter::close(QString* error)
{
    const bool flushed = flush(error);
    m_file.close();
    return flushed;
}

} // namespace QuorlixTool
