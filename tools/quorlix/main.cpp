// quorlix: beacons from a shell. scan, watch, record, calibrate and publish; `quorlix <command>
// --help` describes each.

#include "CalibrateCommand.h"
#include "PublishCommand.h"
#include "RecordCommand.h"
#include "ScanCommand.h"
#include "WatchCommand.h"

#include <QCoreApplication>
#include <QLoggingCategory>

#include <cstdio>
#include <memory>
#include <vector>

namespace {

std::vector<std::unique_ptr<QuorlixTool::Command>> commands()
{
    std::vector<std::unique_ptr<QuorlixTool::Command>> all;
    all.push_back(std::make_unique<QuorlixTool::ScanCommand>());
    all.push_back(std::make_unique<QuorlixTool::WatchCommand>());
    all.push_back(std::make_unique<QuorlixTool::RecordCommand>());
    all.push_back(std::make_unique<QuorlixTool::CalibrateCommand>());
    all.push_back(std::make_unique<QuorlixTool::PublishCommand>());
    return all;
}

void printOverview(std::FILE* to, const std::vector<std::unique_ptr<QuorlixTool::Command>>& all)
{
    std::fputs("Usage: quorlix <command> [options]\n\n"
               "Bluetooth LE proximity beacons from a shell.\n\nCommands:\n",
               to);
    for (const auto& command : all)
        std::fprintf(to, "  %-10s %s\n", qPrintable(command->name()),
                     qPrintable(command->summary()));
    std::fputs("\n'quorlix <command> --help' describes a command and its options; "
               "'quorlix --version' prints the version.\n",
               to);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("quorlix"));
    QCoreApplication::setApplicationVersion(QStringLiteral(QUORLIX_VERSION));
    // What the BlueZ source waits for (the system bus, bluetoothd, an adapter) is the first thing
    // a user without Bluetooth needs to see: shown even where a system-wide logging file silences
    // informational lines. QT_LOGGING_RULES still decides over it.
    QLoggingCategory::setFilterRules(QStringLiteral("quorlix.platform.bluez.info=true\n"
                                                    "quorlix.platform.bluez.warning=true"));
    const QStringList arguments = QCoreApplication::arguments();
    const auto all = commands();

    const QString first = arguments.value(1);
    if (first == u"--help" || first == u"-h" || first == u"help") {
        printOverview(stdout, all);
        return 0;
    }
    if (first == u"--version" || first == u"-V") {
        std::printf("quorlix %s\n", QUORLIX_VERSION);
        return 0;
    }
    for (const auto& command : all) {
        if (command->name() == first)
            return command->run(arguments.mid(1));
    }
    if (!first.isEmpty())
        std::fprintf(stderr, "quorlix: unknown command '%s'\n\n", qPrintable(first));
    printOverview(stderr, all);
    return QuorlixTool::Command::badUsage;
}
