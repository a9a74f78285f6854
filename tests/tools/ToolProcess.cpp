#include "ToolProcess.h"

#include <QFile>
#include <QJsonDocument>

#include <gtest/gtest.h>

namespace Quorlix::Testing {

std::vector<QJsonObject> ToolRun::json() const
{
    std::vector<QJsonObject> objects;
    for (const QString& line : out.split(u'\n', Qt::SkipEmptyParts)) {
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(line.toUtf8(), &error);
        EXPECT_TRUE(document.isObject()) << "not a JSON object: " << line.toStdString();
        objects.push_back(document.object());
    }
    return objects;
}

QProcessEnvironment toolEnvironment(const QString& home)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"QUORLIX_DIRECTORY_HOST", "QUORLIX_LOCATION_SOURCE",
                             "QUORLIX_CALIBRATION", "XDG_CONFIG_HOME"})
        environment.remove(QString::fromLatin1(name));
    environment.insert(QStringLiteral("HOME"), home);
    return environment;
}

ToolRun runTool(const QStringList& arguments, const QString& home, int timeoutMs)
{
    QProcess tool;
    tool.setProcessEnvironment(toolEnvironment(home));
    tool.start(QStringLiteral(QUORLIX_COMMAND), arguments);
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

QString scenario(const QString& name)
{
    return QStringLiteral(QUORLIX_SCENARIOS "/") + name;
}

QString writeFile(const QString& dir, const QString& name, const QByteArray& text)
{
    const QString path = dir + u'/' + name;
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(text);
    return path;
}

} // namespace Quorlix::Testing
