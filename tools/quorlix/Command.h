#pragma once

#include "CommonOptions.h"

#include <QCommandLineParser>
#include <QString>
#include <QStringList>

#include <optional>

namespace QuorlixTool {

/// One subcommand of quorlix: its arguments, its help and its run on the event loop.
class Command
{
public:
    virtual ~Command();

    virtual QString name() const = 0;
    /// One line for the list of commands.
    virtual QString summary() const = 0;
    /// A paragraph for its --help.
    virtual QString description() const = 0;

    /// Parses arguments (the command name first), prints help or errors, and runs the command on
    /// the event loop; returns the process's exit code: 0 done, 1 failed, 2 bad usage.
    int run(const QStringList& arguments);
    /// The --help text.
    QString helpText();

    static constexpr int failed = 1;
    static constexpr int badUsage = 2;

protected:
    /// Adds positional arguments and the command's own options.
    virtual void describe(QCommandLineParser& parser) const = 0;
    /// Sets up from the parsed arguments: an exit code ends at once (after printing why), nothing
    /// means the command runs on the event loop until it calls finish().
    virtual std::optional<int> start(const QCommandLineParser& parser,
                                     const CommonOptions& common) = 0;
    /// Ctrl-C or SIGTERM: by default the command finishes at once, successfully.
    virtual void interrupt() { finish(0); }

    void finish(int code);
    /// Prints "quorlix <name>: message" on standard error and returns code.
    int complain(const QString& message, int code = failed) const;

private:
    void setUp(QCommandLineParser& parser) const;
};

} // namespace QuorlixTool
