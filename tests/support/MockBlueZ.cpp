#include "MockBlueZ.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDeadlineTimer>
#include <QThread>
#include <QUuid>

#include <stdexcept>

namespace Quorlix::Testing {
namespace {

const QString service = QStringLiteral("org.bluez");

bool bluezOnBus()
{
    return QDBusConnection::systemBus().interface()->isServiceRegistered(service);
}

// The bus daemon releases a name only after it has seen the owner's connection close, which may
// be a moment after the process was reaped.
void waitForBus(bool present)
{
    QDeadlineTimer deadline(10'000);
    while (bluezOnBus() != present) {
        if (deadline.hasExpired())
            throw std::runtime_error(present ? "the mock bluetoothd did not appear on the bus"
                                             : "the mock bluetoothd did not leave the bus");
        QThread::msleep(10);
    }
}

} // namespace

MockBlueZ::~MockBlueZ()
{
    try {
        stop();
    } catch (const std::exception& error) {
        qWarning("%s", error.what());
    }
}

bool MockBlueZ::onPrivateBus()
{
    const QByteArray address = qgetenv("DBUS_SYSTEM_BUS_ADDRESS");
    return address.contains("quorlix-bus.") && QDBusConnection::systemBus().isConnected();
}

QByteArray MockBlueZ::iBeaconData(const QString& uuid, quint16 major, quint16 minor, qint8 power)
{
    const char fields[] = {char(major >> 8), char(major), char(minor >> 8), char(minor),
                           char(power)};
    return "\x02\x15" + QUuid::fromString(uuid).toRfc4122() + QByteArray(fields, 5);
}

void MockBlueZ::stop()
{
    if (!m_process)
        return;
    m_process->kill();
    m_process->waitForFinished();
    m_process.reset();
    waitForBus(false);
}

void MockBlueZ::start()
{
    if (!onPrivateBus())
        throw std::runtime_error("the system bus is not a private test bus; run the test through "
                                 "tests/support/private-bus.sh");
    if (bluezOnBus())
        throw std::runtime_error("org.bluez is already owned on the test bus");
    m_process = std::make_unique<QProcess>();
    // The mock logs every call on stdout; its errors still reach stderr.
    m_process->setStandardOutputFile(QProcess::nullDevice());
    m_process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process->start(QStringLiteral(QUORLIX_MOCK_PYTHON),
                     {"-m", "dbusmock", "--system", "--template", QUORLIX_MOCK_TEMPLATE});
    if (!m_process->waitForStarted())
        throw std::runtime_error("cannot run " QUORLIX_MOCK_PYTHON " -m dbusmock (Debian package "
                                 "python3-dbusmock)");
    waitForBus(true);
}

QVariant MockBlueZ::call(const QString& method, const QVariantList& arguments)
{
    auto message = QDBusMessage::createMethodCall(service, QStringLiteral("/"),
                                                  QStringLiteral("org.bluez.Mock"), method);
    message.setArguments(arguments);
    const QDBusMessage reply = QDBusConnection::systemBus().call(message);
    if (reply.type() != QDBusMessage::ReplyMessage)
        throw std::runtime_error(
            QStringLiteral("mock %1 failed: %2").arg(method, reply.errorMessage()).toStdString());
    return reply.arguments().value(0);
}

} // namespace Quorlix::Testing
