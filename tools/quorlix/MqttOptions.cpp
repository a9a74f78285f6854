#include "MqttOptions.h"

#include "quorlix/location/sources/SourceFile.h"

#include <QFileInfo>
#include <QRegularExpression>

namespace QuorlixTool {
namespace {

struct Option
{
    const char* name;
    const char* variable;
    const char* valueName;
    const char* help;
};

constexpr Option options[] = {
    {"broker", "QUORLIX_BROKER", "host:port",
     "host[:port] of the MQTT broker (port 1883, 8883 with TLS, by default)."},
    {"username", "QUORLIX_MQTT_USERNAME", "name", "Log in to the broker as this user."},
    {"password-file", "QUORLIX_MQTT_PASSWORD_FILE", "path",
     "A file whose first line is the password (needs --username)."},
    {"cafile", "QUORLIX_MQTT_CAFILE", "path",
     "Connect with TLS, trusting the certificate authorities in this PEM file."},
    {"capath", "QUORLIX_MQTT_CAPATH", "folder",
     "Connect with TLS, trusting the certificate authorities in this folder (hashed, as "
     "c_rehash makes it), e.g. /etc/ssl/certs."},
    {"client-id", "QUORLIX_MQTT_CLIENT_ID", "id",
     "The client identifier towards the broker (default: quorlix- and the room)."},
};

// The option's value, else its environment variable's; empty when neither is set.
QString valueOf(const QCommandLineParser& parser, const Option& option)
{
    const QString name = QString::fromLatin1(option.name);
    return parser.isSet(name) ? parser.value(name) : qEnvironmentVariable(option.variable);
}

// "--name" or "QUORLIX_..." as the user gave it, for messages.
QString origin(const QCommandLineParser& parser, const Option& option)
{
    return parser.isSet(QString::fromLatin1(option.name))
               ? QStringLiteral("--%1").arg(QLatin1StringView(option.name))
               : QString::fromLatin1(option.variable);
}

QString readable(const QString& path, bool folder)
{
    const QFileInfo info(path);
    if (folder ? !info.isDir() : !info.isFile())
        return QStringLiteral("'%1' is not a %2")
            .arg(Quorlix::SourceFile::quoted(path), folder ? "folder" : "file");
    if (!info.isReadable())
        return QStringLiteral("cannot read '%1'").arg(Quorlix::SourceFile::quoted(path));
    return {};
}

} // namespace

QString MqttOptions::address() const
{
    return QStringLiteral("%1:%2").arg(host.contains(u':') ? u'[' + host + u']' : host).arg(port);
}

void MqttOptions::addTo(QCommandLineParser& parser)
{
    for (const Option& option : options)
        parser.addOption(
            {QString::fromLatin1(option.name),
             QStringLiteral("%1 Environment: %2.")
                 .arg(QLatin1StringView(option.help), QLatin1StringView(option.variable)),
             QString::fromLatin1(option.valueName)});
}

std::optional<MqttOptions> MqttOptions::read(const QCommandLineParser& parser, QString* error)
{
    const auto& [broker, username, passwordFile, caFile, caPath, clientId] = options;
    MqttOptions result;
    result.username = valueOf(parser, username);
    result.caFile = valueOf(parser, caFile);
    result.caPath = valueOf(parser, caPath);
    result.clientId = valueOf(parser, clientId);

    static const QRegularExpression form(
        QStringLiteral("^([A-Za-z0-9.\\-]+|\\[([0-9A-Fa-f:]+)\\])(?::([0-9]{1,5}))?$"));
    const QString brokerText = valueOf(parser, broker);
    const QRegularExpressionMatch match = form.match(brokerText);
    if (brokerText.isEmpty()) {
        *error = QStringLiteral("--broker is needed: host[:port] of the MQTT broker");
        return std::nullopt;
    }
    if (!match.hasMatch()) {
        *error = QStringLiteral("%1 wants host[:port], e.g. localhost:1883, not '%2'")
                     .arg(origin(parser, broker), Quorlix::SourceFile::quoted(brokerText));
        return std::nullopt;
    }
    result.host = match.hasCaptured(2) ? match.captured(2) : match.captured(1);
    result.port =
        match.hasCaptured(3) ? match.captured(3).toInt() : (result.tls() ? tlsPort : plainPort);
    if (result.port < 1 || result.port > 65535) {
        *error = QStringLiteral("%1: '%2' is not a port number (1-65535)")
                     .arg(origin(parser, broker), match.captured(3));
        return std::nullopt;
    }

    const QString passwordPath = valueOf(parser, passwordFile);
    if (!passwordPath.isEmpty()) {
        if (result.username.isEmpty()) {
            *error = QStringLiteral("%1 needs --username").arg(origin(parser, passwordFile));
            return std::nullopt;
        }
        // A password is short; anything larger is not the file the user meant.
        QByteArray bytes;
        QString problem;
        if (!Quorlix::SourceFile::read(passwordPath, 64 * 1024, &bytes, &problem)) {
            *error = QStringLiteral("%1: cannot read '%2': %3")
                         .arg(origin(parser, passwordFile),
                              Quorlix::SourceFile::quoted(passwordPath), problem);
            return std::nullopt;
        }
        result.password = QString::fromUtf8(bytes.left(bytes.indexOf('\n'))).remove(u'\r');
    }
    for (const auto& [option, path, folder] :
         {std::tuple{&caFile, result.caFile, false}, std::tuple{&caPath, result.caPath, true}}) {
        if (path.isEmpty())
            continue;
        if (const QString problem = readable(path, folder); !problem.isEmpty()) {
            *error = QStringLiteral("%1: %2").arg(origin(parser, *option), problem);
            return std::nullopt;
        }
    }
    // MQTT carries a client identifier in at most 65535 bytes; brokers take 23 at the least.
    if (parser.isSet(QString::fromLatin1(clientId.name)) || !result.clientId.isEmpty()) {
        if (result.clientId.isEmpty() || result.clientId.toUtf8().size() > 65535) {
            *error = QStringLiteral("%1 wants a client identifier of 1 to 65535 bytes")
                         .arg(origin(parser, clientId));
            return std::nullopt;
        }
    }
    return result;
}

} // namespace QuorlixTool
