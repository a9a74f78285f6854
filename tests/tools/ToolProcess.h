#pragma once

#include <QJsonObject>
#include <QProcess>
#include <QString>
#include <QStringList>

#include <vector>

namespace Quorlix::Testing {

/// One finished run of the quorlix command.
struct ToolRun
{
    int exitCode = -1; ///< -1: crashed or timed out
    QString out;
    QString err;

    /// Standard output's lines parsed as JSON objects (a line that is not one fails the test).
    std::vector<QJsonObject> json() const;
};

/// The environment a run starts with: none of the user's Quorlix settings, a scratch home.
QProcessEnvironment toolEnvironment(const QString& home);

/// Runs quorlix with arguments, bounded by timeoutMs.
ToolRun runTool(const QStringList& arguments, const QString& home, int timeoutMs = 20000);

/// A file of the shipped scenarios, or text written into a file in dir.
QString scenario(const QString& name);
QString writeFile(const QString& dir, const QString& name, const QByteArray& text);

} // namespace Quorlix::Testing
