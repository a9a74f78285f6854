#include "DemoOptions.h"

#include <QFileInfo>
#include <QRegularExpression>

namespace QuorlixDemo {
namespace {

std::optional<int> boundedNumber(const QString& text, int lowest, int highest)
{
    bool ok = false;
    const int value = text.toInt(&ok);
    if (!ok || value < lowest || value > highest)
        return std::nullopt;
    return value;
}

QString checkDirectory(const QString& text)
{
    static const QRegularExpression form(QStringLiteral("^([A-Za-z0-9.\\-]+|\\[[0-9A-Fa-f:]+\\])"
                                                        "(?::([0-9]+))?$"));
    const QRegularExpressionMatch match = form.match(text);
    if (!match.hasMatch())
        return QStringLiteral("--directory wants host[:port], e.g. localhost:8080, not '%1'")
            .arg(text);
    if (match.hasCaptured(2) && !boundedNumber(match.captured(2), 1, 65535))
        return QStringLiteral("--directory: '%1' is not a port number (1-65535)")
            .arg(match.captured(2));
    return {};
}

// Resolves the file of a simulate: or replay: source now, so that a typo is reported before
// anything starts rather than by the beacon source later.
QString checkSource(const QString& text, QString* resolved)
{
    if (text == QStringLiteral("bluez")) {
        *resolved = text;
        return {};
    }
    for (const QString& kind : {QStringLiteral("simulate"), QStringLiteral("replay")}) {
        const QString prefix = kind + u':';
        if (!text.startsWith(prefix))
            continue;
        const QString file = text.mid(prefix.size());
        if (file.isEmpty())
            return QStringLiteral("--source %1: needs a file, as in %1:scenario.json").arg(prefix);
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

DemoOptions DemoOptions::parse(const QStringList& arguments)
{
    DemoOptions options;
    const auto fail = [&options](const QString& message) {
        options.error = message;
        return options;
    };
    static const QStringList withValue{
        QStringLiteral("--seconds"),   QStringLiteral("--screenshots"), QStringLiteral("--pick"),
        QStringLiteral("--directory"), QStringLiteral("--source"),      QStringLiteral("--device"),
        QStringLiteral("--filter"),    QStringLiteral("--exit-period"), QStringLiteral("--app-id")};

    for (qsizetype i = 0; i < arguments.size(); ++i) {
        QString name = arguments[i];
        std::optional<QString> value;
        if (const qsizetype equals = name.indexOf(u'='); name.startsWith(u"--") && equals > 0) {
            value = name.mid(equals + 1);
            name.truncate(equals);
        }
        if (name == u"--help" || name == u"-h") {
            options.help = true;
            continue;
        }
        if (name == u"--version" || name == u"-V") {
            options.version = true;
            continue;
        }
        if (name == u"--headless") {
            if (value)
                return fail(QStringLiteral("--headless takes no value"));
            options.headless = true;
            continue;
        }
        if (!withValue.contains(name))
            return fail(name.startsWith(u'-')
                            ? QStringLiteral("unknown option '%1'").arg(name)
                            : QStringLiteral("unexpected argument '%1'").arg(name));
        if (!value) {
            if (i + 1 >= arguments.size())
                return fail(QStringLiteral("%1 needs a value").arg(name));
            value = arguments[++i];
        }

        if (name == u"--seconds") {
            options.seconds = boundedNumber(*value, 1, 86400);
            if (!options.seconds)
                return fail(
                    QStringLiteral("--seconds wants whole seconds from 1 to 86400, not '%1'")
                        .arg(*value));
        } else if (name == u"--filter") {
            const std::optional<int> filter = boundedNumber(*value, 0, 3600);
            if (!filter)
                return fail(QStringLiteral("--filter wants whole seconds from 0 to 3600, not '%1'")
                                .arg(*value));
            options.filter = *filter;
        } else if (name == u"--exit-period") {
            options.exitPeriod = boundedNumber(*value, 1, 3600);
            if (!options.exitPeriod)
                return fail(
                    QStringLiteral("--exit-period wants whole seconds from 1 to 3600, not '%1'")
                        .arg(*value));
        } else if (name == u"--pick") {
            if (*value == u"first")
                options.pick = Pick::First;
            else if (*value == u"cancel")
                options.pick = Pick::Cancel;
            else if (*value == u"none")
                options.pick = Pick::None;
            else
                return fail(
                    QStringLiteral("--pick wants first, cancel or none, not '%1'").arg(*value));
        } else if (name == u"--directory") {
            if (const QString problem = checkDirectory(*value); !problem.isEmpty())
                return fail(problem);
            options.directory = *value;
        } else if (name == u"--source") {
            if (const QString problem = checkSource(*value, &options.source); !problem.isEmpty())
                return fail(problem);
        } else if (value->isEmpty()) {
            return fail(QStringLiteral("%1 needs a non-empty value").arg(name));
        } else if (name == u"--screenshots") {
            options.screenshots = *value;
        } else if (name == u"--device") {
            options.device = *value;
        } else if (name == u"--app-id") {
            options.appID = *value;
        }
    }
    return options;
}

QString DemoOptions::usage()
{
    return QStringLiteral(
        "usage: quorlix-demo [options]\n"
        "\n"
        "Watches a beacon device and pairs with a nearby one, using Quorlix as a host would.\n"
        "By default the development directory service runs in-process with its sample devices\n"
        "and the beacons come from the shipped demo scenario.\n"
        "\n"
        "  --directory HOST[:PORT]  use this directory service instead of the in-process one\n"
        "  --source SOURCE          bluez | simulate:<file> | replay:<file>\n"
        "  --device ID              device to watch at start (default 1047)\n"
        "  --filter SECONDS         entry/exit filter interval, 0-3600 (default 0)\n"
        "  --exit-period SECONDS    silence after which the watched device is gone, 1-3600\n"
        "                           (default 2; the library's own default is 30)\n"
        "  --app-id ID              application ID of the device manager\n"
        "  --headless               run offscreen (also chosen when there is no display)\n"
        "  --seconds N              stop after N seconds (headless default 20)\n"
        "  --pick first|cancel|none what the headless run does on the pairing screen\n"
        "                           (default first)\n"
        "  --screenshots DIR        write main-window.png and pairing-screen.png to DIR\n"
        "  -h, --help               show this text\n"
        "  --version                show the version\n");
}

} // namespace QuorlixDemo
