#include "quorlix/location/SourceSelection.h"

#include "Files.h"

#include <gtest/gtest.h>

#include <QStringList>
#include <QTemporaryDir>

namespace Quorlix {
namespace {

QStringList messages;

void keep(QtMsgType, const QMessageLogContext& context, const QString& text)
{
    messages << QString::fromLatin1(context.category) + u' ' + text;
}

// The message each setting logs; every one still gives a manager, which reports nothing.
TEST(SourceSelection, UnusableChoicesAreNamedAndNeverReplaced)
{
    QTemporaryDir dir;
    const QString trace = Testing::writeFile(dir.path(), "bad.csv", "0,A,-60,4c00\n1,A,-60\n");
    // Never the machine's own Bluetooth from a unit test: the default, BlueZ, gets no bus.
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/quorlix-test-bus");
    const std::pair<QString, QString> cases[] = {
        {"simulate:", "QUORLIX_LOCATION_SOURCE=simulate:: simulate needs a file"},
        {"simulate:/nonexistent/walk.json", "scenario /nonexistent/walk.json: cannot be read"},
        {"replay:" + trace, QStringLiteral("trace %1: line 2: expected 4 fields").arg(trace)},
        {"wifi", "unknown source \"wifi\"; expected bluez, bluez:<adapters>, "
                 "simulate:<scenario.json> or replay:<trace.csv>"},
        {"bluez:hci0,wlan0", "bluez:<adapters> wants hciN or a Bluetooth address "
                             "(comma-separated), not \"wlan0\""},
        {"bluez:" + QString(100, u'x'), "not \"" + QString(40, u'x') + "...\""},
        {"bluez:hci1,00:1a:7D:DA:71:13", "quorlix.platform.bluez cannot reach the system bus"},
        {"bluez", "quorlix.platform.bluez cannot reach the system bus"},
        {"", "quorlix.platform.bluez cannot reach the system bus"}};
    const QtMessageHandler previous = qInstallMessageHandler(keep);
    for (const auto& [setting, message] : cases) {
        messages.clear();
        qputenv(SourceSelection::variable, setting.toUtf8());
        const std::shared_ptr<LocationManager> manager = LocationManager::create();
        ASSERT_NE(manager, nullptr);
        ASSERT_EQ(messages.size(), 1) << setting.toStdString();
        EXPECT_TRUE(messages.first().contains(message)) << messages.first().toStdString();
    }
    qInstallMessageHandler(previous);
    qunsetenv(SourceSelection::variable);
}

} // namespace
} // namespace Quorlix
