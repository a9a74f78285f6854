#pragma once

// The one way the tests run the quorlix command: as a user would, but with none of the user's
// Quorlix settings and a scratch home.

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <gtest/gtest.h>

#include <vector>

namespace Quorlix::Testing {

/// One finished run of the quorlix command.
struct ToolRun
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

inline void startTool(QProcess& tool, const QStringList& arguments, const QString& home)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"QUORLIX_DIRECTORY_HOST", "QUORLIX_LOCATION_SOURCE",
                             "QUORLIX_CALIBRATION", "XDG_CONFIG_HOME"})
        environment.remove(QString::fromLatin1(name));
    environment.insert(QStringLiteral("HOME"), home);
    tool.setProcessEnvironment(environment);
    tool.start(QStringLiteral(QUORLIX_COMMAND), arguments);
}

/// Runs quorlix to its end, bounded by timeoutMs.
inline ToolRun runTool(const QStringList& arguments, const QString& home, int timeoutMs = 20000)
{
    QProcess tool;
    startTool(tool, arguments, home);
    ToolRun run;
    if (!tool.waitForFinished(timeoutMs)) {
        tool.kill();
        tool.waitForFinished();
        run.err = QStringLiteral("timed out\n");
    } else if (tool.exitStatus() == QProcess::NormalExit) {
        run.exitCode = tool.exitCode();
    }
    run.out = QString::fromUtf8(tool.readAllStandardOutput());
    run.err += QString::fromUtf8(tool.readAllStandardError());
    return run;
}

/// Writes text into dir/name; returns the path.
inline QString writeFile(const QString& dir, const QString& name, const QByteArray& text)
{
    const QString path = dir + u'/' + name;
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(text);
    return path;
}

} // namespace Quorlix::Testing
