#include "CommonOptions.h"

#include "quorlix/location/sources/SourceFile.h"
#include "quorlix/service/DirectoryClient.h"

#include <QFileInfo>
#include <QRegularExpression>

#include <cmath>

namespace QuorlixTool {
namespace {

// origin names where the value came from: "--directory" or the environment variable.
QString checkDirectory(const QString& text, const QString& origin)
{
    static const QRegularExpression form(QStringLiteral("^([A-Za-z0-9.\\-]+|\\[[0-9A-Fa-f:]+\\])"
                                                        "(?::([0-9]{1,5}))?$"));
    const QRegularExpressionMatch match = form.match(text);
    if (!match.hasMatch())
        return QStringLiteral("%1 wants host[:port], e.g. localhost:8080, not '%2'")
            .arg(origin, Quorlix::SourceFile::quoted(text));
    if (match.hasCaptured(2)) {
        const int port = match.captured(2).toInt();
        if (port < 1 || port > 65535)
            return QStringLiteral("%1: '%2' is not a port number (1-65535)")
                .arg(origin, match.captured(2));
    }
    return {};
}

// hci0 or 00:1A:7D:DA:71:13, as bluetoothd names an adapter.
bool isAdapter(const QString& text)
{
    static const QRegularExpression form(
        QStringLiteral("^(hci[0-9]{1,3}|([0-9A-Fa-f]{2}:){5}[0-9A-Fa-f]{2})$"));
    return form.match(text).hasMatch();
}

// The file of a simulate: or replay: source is checked now, so that a typo is reported before
// anything starts, and made absolute, so that messages name it unambiguously.
QString checkSource(const QString& text, QString* resolved)
{
    if (text == u"bluez" || text.startsWith(u"bluez:")) {
        const QStringList adapters = text.mid(6).split(u',', Qt::SkipEmptyParts);
        for (const QString& adapter : adapters) {
            if (!isAdapter(adapter))
                return QStringLiteral("--source bluez:<adapter>[,<adapter>...] wants adapters "
                                      "such as hci0 or 00:1A:7D:DA:71:13, not '%1'")
                    .arg(Quorlix::SourceFile::quoted(adapter));
        }
        *resolved = adapters.isEmpty() ? QStringLiteral("bluez")
                                       : QStringLiteral("bluez:") + adapters.join(u',');
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
        .arg(Quorlix::SourceFile::quoted(text));
}

} // namespace

void CommonOptions::addTo(QCommandLineParser& parser)
{
    parser.addOption({QStringLiteral("source"),
                      QStringLiteral("Where beacons come from: bluez (the Bluetooth adapters, the "
                                     "default), simulate:<scenario.json> or replay:<trace.csv>."),
                      QStringLiteral("source"), QStringLiteral("bluez")});
    parser.addOption({QStringLiteral("adapter"),
                      QStringLiteral("Scan with this Bluetooth adapter only (hci0, or its address "
                                     "such as 00:1A:7D:DA:71:13); repeat it or give a comma list "
                                     "for several (default: every adapter). Same as --source "
                                     "bluez:<adapter>[,<adapter>...]."),
                      QStringLiteral("adapter")});
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
    if (parser.isSet(QStringLiteral("adapter"))) {
        if (!options.source.startsWith(u"bluez")) {
            *error = QStringLiteral("--adapter is for the bluez source, not %1")
                         .arg(options.source.section(u':', 0, 0));
            return std::nullopt;
        }
        QStringList adapters = options.source.mid(6).split(u',', Qt::SkipEmptyParts);
        for (const QString& value : parser.values(QStringLiteral("adapter")))
            adapters += value.split(u',', Qt::SkipEmptyParts);
        adapters.removeDuplicates();
        if (QString problem =
                checkSource(QStringLiteral("bluez:") + adapters.join(u','), &options.source);
            !problem.isEmpty() || adapters.isEmpty()) {
            *error = adapters.isEmpty() ? QStringLiteral("--adapter wants hci0 or an address")
                                        : problem.replace(QStringLiteral("--source bluez:<adapter>"
                                                                         "[,<adapter>...] wants"),
                                                          QStringLiteral("--adapter wants"));
            return std::nullopt;
        }
    }
    const bool given = parser.isSet(QStringLiteral("directory"));
    options.directory =
        given ? parser.value(QStringLiteral("directory")) : Quorlix::DirectoryClient::host();
    const bool fromEnvironment = !given && qEnvironmentVariableIsSet("QUORLIX_DIRECTORY_HOST") &&
                                 !qEnvironmentVariable("QUORLIX_DIRECTORY_HOST").isEmpty();
    if (QString problem = checkDirectory(
            options.directory, given ? QStringLiteral("--directory")
                                     : (fromEnvironment ? QStringLiteral("QUORLIX_DIRECTORY_HOST")
                                                        : QStringLiteral("the built-in directory "
                                                                         "host")));
        !problem.isEmpty()) {
        *error = problem;
        return std::nullopt;
    }
    options.fast = parser.isSet(QStringLiteral("fast"));
    if (options.fast && options.source.startsWith(u"bluez")) {
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
