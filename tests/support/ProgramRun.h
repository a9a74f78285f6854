#pragma once

// The one way the tests run a program of the project: as a user would, but with none of the user's
// Quorlix settings, no display, a scratch home and a bound on the time.

#include "Files.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <gtest/gtest.h>

#include <vector>

namespace Quorlix::Testing {

/// One finished run of a program.
struct ProgramRun
{
    int exitCode = -1; ///< -1: crashed or timed out
    QString out, err;

    /// Standard output's lines parsed as JSON objects (a line that is not one fails the test).
    std::vector<QJsonObject> json() const
    {
        std::vector<QJsonObject> objects;
        for (const QString& line : out.split(u'\n', Qt::SkipEmptyParts)) {
            const QJsonDocument document = QJsonDocument::fromJson(line.toUtf8());
            EXPECT_TRUE(document.isObject()) << "not a JSON object: " << line.toStdString();
            objects.push_back(document.object());
        }
        return objects;
    }
};

/// Starts program with HOME at home (and so its settings under home/.config), plus the given
/// environment settings ("NAME=value").
inline void startProgram(QProcess& process, const QString& program, const QStringList& arguments,
                         const QString& home, const QStringList& settings = {})
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char* name :
         {"QUORLIX_DIRECTORY_HOST", "QUORLIX_LOCATION_SOURCE", "QUORLIX_CALIBRATION",
          "XDG_CONFIG_HOME", "DISPLAY", "WAYLAND_DISPLAY"})
        environment.remove(QString::fromLatin1(name));
    environment.insert(QStringLiteral("HOME"), home);
    for (const QString& setting : settings)
        environment.insert(setting.section(u'=', 0, 0), setting.section(u'=', 1));
    process.setProcessEnvironment(environment);
    process.start(program, arguments);
}

/// Runs program to its end, bounded by timeoutMs.
inline ProgramRun runProgram(const QString& program, const QStringList& arguments,
                             const QString& home, const QStringList& settings = {},
                             int timeoutMs = 30000)
{
    QProcess process;
    startProgram(process, program, arguments, home, settings);
    ProgramRun run;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        run.err = QStringLiteral("timed out\n");
    } else if (process.exitStatus() == QProcess::NormalExit) {
        run.exitCode = process.exitCode();
    }
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err += QString::fromUtf8(process.readAllStandardError());
    return run;
}

} // namespace Quorlix::Testing
