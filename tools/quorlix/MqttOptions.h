#pragma once

#include <QCommandLineParser>
#include <QString>

#include <optional>

namespace QuorlixTool {

/// How to reach and log in to an MQTT broker, as mosquitto's own clients take it: --broker,
/// --username, --password-file, --cafile/--capath (TLS) and --client-id, each also settable in the
/// environment (QUORLIX_MQTT_*, which /etc/default/quorlix-publish sets for the service).
struct MqttOptions
{
    QString host;
    int port = 1883;
    QString username;
    /// Read from --password-file; never given on the command line, where others can read it.
    QString password;
    QString caFile;
    QString caPath;
    /// Empty: the command's own default.
    QString clientId;

    bool tls() const { return !caFile.isEmpty() || !caPath.isEmpty(); }
    /// "host:port", as messages name the broker.
    QString address() const;

    static void addTo(QCommandLineParser& parser);
    /// The options as given, the environment filling what is not; nothing and error (a sentence
    /// naming the option) when a value is unusable or a file cannot be read.
    static std::optional<MqttOptions> read(const QCommandLineParser& parser, QString* error);

    static constexpr int plainPort = 1883;
    static constexpr int tlsPort = 8883;
};

} // namespace QuorlixTool
