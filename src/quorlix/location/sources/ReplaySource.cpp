#include "quorlix/location/sources/ReplaySource.h"

#include <QFile>

#include <algorithm>
#include <cctype>
#include <cmath>

namespace Quorlix {

std::optional<std::vector<ReplaySource::Row>>
ReplaySource::parse(const QByteArray& csv, const QString& name, QString* error, int* skipped)
{
    std::vector<Row> rows;
    int withoutFrame = 0;
    double firstS = 0;
    double previousS = 0;
    const QList<QByteArray> lines = csv.split('\n');
    const auto fail = [&](int line, const QString& what) {
        *error = QStringLiteral("trace %1: line %2: %3").arg(name).arg(line).arg(what);
        return std::nullopt;
    };
    for (qsizetype i = 0; i < lines.size(); ++i) {
        const int lineNumber = static_cast<int>(i) + 1;
        const QByteArray line = lines[i].trimmed();
        if (line.isEmpty() || line.startsWith('#'))
            continue;
        if (rows.empty() && withoutFrame == 0 && line.startsWith("time,"))
            continue;
        const QList<QByteArray> fields = line.split(',');
        if (fields.size() != 4)
            return fail(lineNumber, QStringLiteral("expected 4 fields "
                                                   "(time,address,rssi,manufacturer_data_hex), "
                                                   "found %1")
                                        .arg(fields.size()));
        bool ok = false;
        const double timeS = fields[0].trimmed().toDouble(&ok);
        if (!ok || !std::isfinite(timeS))
            return fail(lineNumber, QStringLiteral("time \"%1\" is not a number of seconds")
                                        .arg(QString::fromLatin1(fields[0])));
        const bool first = rows.empty() && withoutFrame == 0;
        if (!first && timeS < previousS)
            return fail(lineNumber,
                        QStringLiteral("time %1 is earlier than the row before").arg(timeS));
        if (first)
            firstS = timeS;
        previousS = timeS;
        const int rssi = fields[2].trimmed().toInt(&ok);
        if (!ok || rssi < -127 || rssi > 20)
            return fail(lineNumber, QStringLiteral("rssi \"%1\" is not a dBm value (-127 to 20)")
                                        .arg(QString::fromLatin1(fields[2])));
        const QByteArray hex = fields[3].trimmed();
        const bool hexDigits = std::all_of(hex.begin(), hex.end(), [](char c) {
            return std::isxdigit(static_cast<unsigned char>(c)) != 0;
        });
        if (!hexDigits || hex.size() % 2 != 0)
            return fail(
                lineNumber,
                QStringLiteral("manufacturer data \"%1\" is not an even count of hex digits")
                    .arg(QString::fromLatin1(hex)));
        const std::optional<IBeaconFrame> frame =
            IBeaconAdvert::parseManufacturerData(QByteArray::fromHex(hex));
        if (!frame) {
            ++withoutFrame;
            continue;
        }
        rows.push_back(Row{std::llround((timeS - firstS) * 1e9), fields[1].trimmed(), rssi, *frame,
                           lineNumber});
    }
    if (skipped != nullptr)
        *skipped = withoutFrame;
    return rows;
}

std::optional<std::vector<ReplaySource::Row>> ReplaySource::load(const QString& path,
                                                                 QString* error, int* skipped)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("trace %1: cannot be read: %2").arg(path, file.errorString());
        return std::nullopt;
    }
    return parse(file.readAll(), path, error, skipped);
}

ReplaySource::ReplaySource(std::vector<Row> rows)
    : m_rows(std::move(rows))
{}

ReplaySource::~ReplaySource()
{
    setScanning(false);
}

void ReplaySource::setScanning(bool wanted)
{
    Clock* timeBase = clock();
    if (timeBase == nullptr)
        return;
    if (!wanted) {
        if (m_timer != 0)
            timeBase->cancel(m_timer);
        m_timer = 0;
        return;
    }
    if (m_timer != 0)
        return;
    const std::int64_t now = timeBase->nowNs();
    if (!m_started) {
        m_started = true;
        m_originNs = now;
    }
    while (m_next < m_rows.size() && m_originNs + m_rows[m_next].offsetNs < now)
        ++m_next;
    if (m_next < m_rows.size())
        m_timer = timeBase->schedule(m_originNs + m_rows[m_next].offsetNs, [this] { play(); });
}

void ReplaySource::play()
{
    m_timer = 0;
    Clock* timeBase = clock();
    const std::int64_t now = timeBase->nowNs();
    std::vector<Sighting> due;
    while (m_next < m_rows.size() && m_originNs + m_rows[m_next].offsetNs <= now) {
        const Row& row = m_rows[m_next++];
        due.push_back(Sighting{now, row.address, row.frame.proximityUUID, row.frame.major,
                               row.frame.minor, row.frame.measuredPower, row.rssi});
    }
    if (m_next < m_rows.size())
        m_timer = timeBase->schedule(m_originNs + m_rows[m_next].offsetNs, [this] { play(); });
    for (const Sighting& sighting : due)
        deliver(sighting);
}

} // namespace Quorlix
