#include "DirectoryProcess.h"

#include <QFile>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>
#include <QThread>

#include <arpa/inet.h>
#include <csignal>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Quorlix::Testing {

DirectoryProcess::DirectoryProcess(const QString& devicesFile)
    : m_process(std::make_unique<QProcess>())
{
    static QTemporaryDir logDir;
    static int counter = 0;
    m_logFile = logDir.filePath(QStringLiteral("directory-%1.log").arg(++counter));
    // The service goes with the process that started it, also with a death-test child that stops
    // before any destructor runs. It holds none of our descriptors: a death-test child's service
    // would otherwise keep gtest's pipe open and its parent waiting forever.
    m_process->setChildProcessModifier([] {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        close_range(3, ~0U, 0);
    });
    // The log goes to a file that we can read while the service runs.
    m_process->setStandardOutputFile(m_logFile);
    m_process->start(QStringLiteral(QUORLIX_DIRECTORY_TOOL),
                     QStringList{QStringLiteral("0")} +
                         (devicesFile.isEmpty() ? QStringList() : QStringList{devicesFile}));
    // Its first line names the address it listens on; a line is whole once it ends.
    for (int attempt = 0; attempt < 500 && m_host.isEmpty(); ++attempt) {
        QFile file(m_logFile);
        const QByteArray first = file.open(QIODevice::ReadOnly) ? file.readLine() : QByteArray();
        if (first.startsWith("listening on ") && first.endsWith('\n'))
            m_host = QString::fromUtf8(first.mid(13).trimmed());
        else
            QThread::msleep(10);
    }
    if (m_host.isEmpty())
        throw std::runtime_error("quorlix-directory did not report its port");
    qputenv("QUORLIX_DIRECTORY_HOST", m_host.toUtf8());
}

DirectoryProcess::~DirectoryProcess()
{
    m_process->terminate();
    m_process->waitForFinished();
}

QStringList DirectoryProcess::requests() const
{
    QFile file(m_logFile);
    // The first two lines announce the port and the device file.
    return file.open(QIODevice::ReadOnly)
               ? QString::fromUtf8(file.readAll()).split(u'\n', Qt::SkipEmptyParts).mid(2)
               : QStringList();
}

int unusedPort()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), length);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd); // closed and never listened on: connections are refused
    return ntohs(address.sin_port);
}

} // namespace Quorlix::Testing
