#pragma once

#include <QCommandLineParser>
#include <QString>

#include <optional>

namespace QuorlixTool {

/// The options every subcommand takes: where beacons come from, where the directory service is,
/// and whether a simulated or replayed source runs on virtual time.
struct CommonOptions
{
    /// "bluez", "bluez:<adapter>[,<adapter>...]" (--adapter), "simulate:<absolute path>" or
    /// "replay:<absolute path>".
    QString source = QStringLiteral("bluez");
    /// host[:port] of the directory service.
    QString directory;
    bool fast = false;

    static void addTo(QCommandLineParser& parser);
    /// What is wrong with the given values, or nothing.
    static std::optional<CommonOptions> read(const QCommandLineParser& parser, QString* error);

    /// A positive number of seconds from option name, absent when not given; error on a bad value.
    static std::optional<double> seconds(const QCommandLineParser& parser, const QString& name,
                                         QString* error);
};

} // namespace QuorlixTool
