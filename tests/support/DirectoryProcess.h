#pragma once

#include <QString>

#include <memory>

class QProcess;

namespace Quorlix::Testing {

/// A quorlix-directory process on a free loopback port, with QUORLIX_DIRECTORY_HOST pointing the
/// library at it. A separate process, so that forked death-test children can still reach it.
class DirectoryProcess
{
public:
    /// Starts the service with devicesFile (empty: the sample devices).
    explicit DirectoryProcess(const QString& devicesFile = {});
    ~DirectoryProcess();

    /// "127.0.0.1:<port>"
    QString host() const { return m_host; }
    /// The request lines the service logged so far ("GET /api/device/1047 -> 200").
    QStringList requests() const;

private:
    std::unique_ptr<QProcess> m_process;
    QString m_host;
    QString m_logFile;
};

/// A loopback port on which nothing listens.
int unusedPort();

} // namespace Quorlix::Testing
