#include "CommonOptions.h"

#include "quorlix/service/DirectoryClient.h"

#include <QFileInfo>
#include <QRegularExpression>

#include <cmath>

namespace QuorlixTool {
namespace {

QString checkDirectory(const QString& text)
{
    static const QRegularExpression form(QStringLiteral("^([A-Za-z0-9.\\-]+|\\[[0-9A-Fa-f:]+\\])"
                                                        "(?::([0-9]{1,5}))?$"));
    const QRegularExpressionMatch match = form.match(text);
    if (!match.hasMatch())
        return QStringLiteral("--directory wants host[:port], e.g. localhost:8080, not '%1'")
            .arg(text);
    if (match.hasCaptured(2)) {
        const int port = match.captured(2).toInt();
        if (port < 1 || port > 65535)
            return QStringLiteral("--directory: '%1' is not a port number (1-65535)")
                .arg(match.captured(2));
    }
    return {};
}

// The file of a simulate: or replay: source is checked now, so that a typo is reported before
// anything starts, and made absolute, so that messages name it unambiguously.
QString checkSource(const QString& text, QString* resolved)
{
    if (text == u"bluez") {
        *resolved = text;
        return {};
    }
    for (const QString& kind : {QStringLiteral("simulate"), QStringLiteral("replay")}) {
        const QString prefix = kind + u':';
        if (!text.startsWith(prefix))
            continue;
        const QString file = text.mid(prefix.size());
        if (file.isEmpty())
            return QStringLiteral("--source %1 needs a file, as in %1scenario.json").arg(prefix);
        const QFileInfo info(file);
        if (!info.isFile() || !info.isReadable())
            return QStringLiteral("--source: cannot read the %1 file '%2'").arg(kind, file);
        *resolved = prefix + info.absoluteFilePath();
        return {};
    }
    return QStringLiteral("--source wants bluez, simulate:<file> or replay:<file>, not '%1'")
        .arg(text);
}

} // namespace

void CommonOptions::addTo(QCommandLineParser& parser)
{
    parser.addOption({QStringLiteral("source"),
                      QStringLiteral("Where beacons come from: bluez (the Bluetooth adapters, the "
                                     "default), simulate:<scenario.json> or replay:<trace.csv>."),
                      QStringLiteral("source"), QStringLiteral("bluez")});
    parser.addOption({QStringLiteral("directory"),
                      QStringLiteral("host[:port] of the directory service (default: "
                                     "QUORLIX_DIRECTORY_HOST, else the library's built-in host)."),
                      QStringLiteral("host:port")});
    parser.addOption({QStringLiteral("fast"),
                      QStringLiteral("Run a simulate: or replay: source on virtual time, as fast "
                                     "as the machine allows (needs --seconds).")});
}

std::optional<CommonOptions> CommonOptions::read(const QCommandLineParser& parser, QString* error)
{
    CommonOptions options;
    if (QString problem = checkSource(parser.value(QStringLiteral("source")), &options.source);
        !problem.isEmpty()) {
        *error = problem;
        return std::nullopt;
    }
    options.directory = parser.isSet(QStringLiteral("directory"))
                            ? parser.value(QStringLiteral("directory"))
                            : Quorlix::DirectoryClient::host();
    if (QString problem = checkDirectory(options.directory); !problem.isEmpty()) {
        *error = problem;
        return std::nullopt;
    }
    options.fast = parser.isSet(QStringLiteral("fast"));
    // quorlix rooms --replay brings sources of its own.
    if (options.fast && options.source == u"bluez" &&
        !parser.optionNames().contains(QStringLiteral("replay"))) {
        *error = QStringLiteral("--fast needs a simulate: or replay: source; a radio runs on the "
                                "wall clock");
        return std::nullopt;
    }
    return options;
}

std::optional<double> CommonOptions::seconds(const QCommandLineParser& parser, const QString& name,
                                             QString* error)
{
    if (!parser.isSet(name))
        return std::nullopt;
    bool ok = false;
    const double value = parser.value(name).toDouble(&ok);
    // A week bounds every wait, and keeps the nanosecond arithmetic far from overflow.
    if (!ok || !std::isfinite(value) || value <= 0 || value > 7 * 24 * 3600.0)
        *error = QStringLiteral("--%1 wants a number of seconds above 0 (at most a week), not '%2'")
                     .arg(name, parser.value(name));
    return value;
}

} // namespace QuorlixTool
