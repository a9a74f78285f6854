#include "quorlix/location/sources/ReplaySource.h"

#include "quorlix/location/sources/SourceFile.h"

#include <QList>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <limits>

namespace Quorlix {

namespace {

// A century in nanoseconds stays far from the end of the clocks' 64-bit range, whatever their
// origin; real traces span hours.
constexpr double maxSpanS = 100 * 365.25 * 86400;
constexpr qint64 maxTraceBytes = 256 * 1024 * 1024;

// The time a row is due; saturates rather than overflow on a clock far from its origin.
std::int64_t dueTime(std::int64_t originNs, std::int64_t offsetNs)
{
    std::int64_t due = 0;
    if (__builtin_add_overflow(originNs, offsetNs, &due))
        return std::numeric_limits<std::int64_t>::max();
    return due;
}

QString shown(const QByteArray& field)
{
    return SourceFile::quoted(QString::fromLatin1(field.left(SourceFile::maxQuoted + 1)));
}

} // namespace

std::optional<std::vector<ReplaySource::Row>> ReplaySource::parse(const QByteArray& csv,
                                                                  const QString& name,
                                                                  QString* error, int* skipped,
                                                                  BadRows* bad)
{
    std::vector<Row> rows;
    int withoutFrame = 0;
    BadRows badRows;
    std::optional<double> firstS;
    double previousS = 0;
    const auto badRow = [&badRows](int line, const QString& problem) {
        if (badRows.count++ == 0) {
            badRows.firstLine = line;
            badRows.firstProblem = problem;
        }
    };
    int lineNumber = 0;
    for (qsizetype start = 0; start < csv.size();) {
        qsizetype end = csv.indexOf('\n', start);
        if (end < 0)
            end = csv.size();
        const QByteArray line = csv.mid(start, end - start).trimmed();
        start = end + 1;
        ++lineNumber;
        if (line.isEmpty() || line.startsWith('#'))
            continue;
        if (!firstS && line.startsWith("time,"))
            continue;
        const QList<QByteArray> fields = line.split(',');
        if (fields.size() != 4) {
            badRow(lineNumber, QStringLiteral("expected 4 fields "
                                              "(time,address,rssi,manufacturer_data_hex), found %1")
                                   .arg(fields.size()));
            continue;
        }
        bool ok = false;
        const double timeS = fields[0].trimmed().toDouble(&ok);
        if (!ok || !std::isfinite(timeS)) {
            badRow(lineNumber,
                   QStringLiteral("time \"%1\" is not a number of seconds").arg(shown(fields[0])));
            continue;
        }
        if (firstS && std::abs(timeS - *firstS) > maxSpanS) {
            badRow(lineNumber,
                   QStringLiteral("time %1 is more than a century from the first row").arg(timeS));
            continue;
        }
        const int rssi = fields[2].trimmed().toInt(&ok);
        if (!ok || rssi < -127 || rssi > 20) {
            badRow(lineNumber, QStringLiteral("rssi \"%1\" is not a dBm value (-127 to 20)")
                                   .arg(shown(fields[2])));
            continue;
        }
        const QByteArray hex = fields[3].trimmed();
        const bool hexDigits = std::all_of(hex.begin(), hex.end(), [](char c) {
            return std::isxdigit(static_cast<unsigned char>(c)) != 0;
        });
        if (!hexDigits || hex.size() % 2 != 0) {
            badRow(lineNumber,
                   QStringLiteral("manufacturer data \"%1\" is not an even count of hex digits")
                       .arg(shown(hex)));
            continue;
        }
        if (firstS && timeS < previousS) {
            *error = QStringLiteral("trace %1: line %2: time %3 is earlier than the row before")
                         .arg(name)
                         .arg(lineNumber)
                         .arg(timeS);
            return std::nullopt;
        }
        if (!firstS)
            firstS = timeS;
        previousS = timeS;
        const std::optional<IBeaconFrame> frame =
            IBeaconAdvert::parseManufacturerData(QByteArray::fromHex(hex));
        if (!frame) {
            ++withoutFrame;
            continue;
        }
        rows.push_back(Row{std::llround((timeS - *firstS) * 1e9), fields[1].trimmed(), rssi, *frame,
                           lineNumber});
    }
    if (rows.empty() && badRows.count > 0) {
        *error = QStringLiteral("trace %1: line %2: %3; no usable row (%4 bad)")
                     .arg(name)
                     .arg(badRows.firstLine)
                     .arg(badRows.firstProblem)
                     .arg(badRows.count);
        return std::nullopt;
    }
    if (skipped != nullptr)
        *skipped = withoutFrame;
    if (bad != nullptr)
        *bad = badRows;
    return rows;
}

std::optional<std::vector<ReplaySource::Row>>
ReplaySource::load(const QString& path, QString* error, int* skipped, BadRows* bad)
{
    QByteArray bytes;
    QString problem;
    if (!SourceFile::read(path, maxTraceBytes, &bytes, &problem)) {
        *error = QStringLiteral("trace %1: cannot be read: %2").arg(path, problem);
        return std::nullopt;
    }
    return parse(bytes, path, error, skipped, bad);
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
    while (m_next < m_rows.size() && dueTime(m_originNs, m_rows[m_next].offsetNs) < now)
        ++m_next;
    if (m_next < m_rows.size())
        m_timer =
            timeBase->schedule(dueTime(m_originNs, m_rows[m_next].offsetNs), [this] { play(); });
}

void ReplaySource::play()
{
    m_timer = 0;
    Clock* timeBase = clock();
    const std::int64_t now = timeBase->nowNs();
    std::vector<Sighting> due;
    while (m_next < m_rows.size() && dueTime(m_originNs, m_rows[m_next].offsetNs) <= now) {
        const Row& row = m_rows[m_next++];
        due.push_back(Sighting{now, row.address, row.frame.proximityUUID, row.frame.major,
                               row.frame.minor, row.frame.measuredPower, row.rssi});
    }
    if (m_next < m_rows.size())
        m_timer =
            timeBase->schedule(dueTime(m_originNs, m_rows[m_next].offsetNs), [this] { play(); });
    for (const Sighting& sighting : due)
        deliver(sighting);
}

} // namespace Quorlix
