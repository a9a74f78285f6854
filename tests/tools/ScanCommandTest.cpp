// quorlix scan on a mock bluetoothd, on the test's private system bus: what it waits for is in its
// output, --adapter scans with the adapters named only, and each row names its transmitter.

#include "MockBlueZ.h"
#include "ProgramRun.h"

#include <QDeadlineTimer>
#include <QSet>
#include <QTemporaryDir>
#include <QThread>

namespace {

using namespace Quorlix::Testing;

constexpr char family[] = "E1876979-75B5-43DE-92CB-2BC1AD6BA999";
constexpr quint16 apple = 0x004C;

TEST(ScanCommand, SaysWhatItWaitsForAndScansWithTheAdaptersNamed)
{
    ASSERT_TRUE(MockBlueZ::onPrivateBus());
    QTemporaryDir home;
    const ProgramRun waiting = runProgram(QStringLiteral(QUORLIX_COMMAND),
                                          {"scan", "--json", "--seconds", "1"}, home.path());
    EXPECT_EQ(waiting.exitCode, 0);
    EXPECT_TRUE(waiting.err.contains(QStringLiteral(
        "quorlix.platform.bluez: bluetoothd (org.bluez) is not on the system bus; waiting")))
        << waiting.err.toStdString();

    MockBlueZ bluez;
    bluez.addAdapter(QStringLiteral("hci0"));
    bluez.addAdapter(QStringLiteral("hci1"));
    const QByteArray frames[] = {MockBlueZ::iBeaconData(QLatin1StringView(family), 12, 7, -59),
                                 MockBlueZ::iBeaconData(QLatin1StringView(family), 12, 8, -59)};
    const QString beacons[] = {
        bluez.addBeacon(QStringLiteral("hci0"), QStringLiteral("C0:FF:EE:00:00:01"), -60, apple,
                        frames[0]),
        bluez.addBeacon(QStringLiteral("hci1"), QStringLiteral("C0:FF:EE:00:00:02"), -65, apple,
                        frames[1])};
    const QString first = QStringLiteral("12-7 C0:FF:EE:00:00:01");
    const QString second = QStringLiteral("12-8 C0:FF:EE:00:00:02");
    const std::pair<QStringList, QSet<QString>> table[] = {
        {{}, {first, second}},
        {{"--adapter", "hci1"}, {second}},
        {{"--adapter", "hci1", "--adapter", "hci0,hci1"}, {first, second}},
    };
    for (const auto& [arguments, expected] : table) {
        SCOPED_TRACE(arguments.join(u' ').toStdString());
        QProcess scan;
        startProgram(scan, QStringLiteral(QUORLIX_COMMAND),
                     QStringList{"scan", "--json", "--seconds", "3"} + arguments, home.path());
        // Adverts keep coming for as long as the scan runs.
        const QDeadlineTimer deadline(15000);
        while (!scan.waitForFinished(100) && !deadline.hasExpired()) {
            for (int i = 0; i < 2; ++i)
                bluez.advertise(beacons[i], -60 - 5 * i, apple, frames[i]);
        }
        ASSERT_EQ(scan.exitStatus(), QProcess::NormalExit);
        ProgramRun run{scan.exitCode(), QString::fromUtf8(scan.readAllStandardOutput()), {}};
        QSet<QString> heard;
        for (const QJsonObject& row : run.json())
            heard << QStringLiteral("%1-%2 %3")
                         .arg(row[u"major"].toInt())
                         .arg(row[u"minor"].toInt())
                         .arg(row[u"address"].toString());
        EXPECT_TRUE(run.exitCode == 0 && heard == expected)
            << QStringList(heard.values()).join(u", ").toStdString()
            << scan.readAllStandardError().toStdString();
    }
}

} // namespace
