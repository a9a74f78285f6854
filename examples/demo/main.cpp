// quorlix-demo: a host application of Quorlix. Watches a beacon device, pairs with a nearby one,
// and shows the stored keys. Runs on its own: an in-process directory service with the sample
// devices and the simulated beacons of the shipped scenario, unless told otherwise.

#include "DemoOptions.h"
#include "DemoRun.h"
#include "DemoWindow.h"
#include "DirectoryProbe.h"
#include "KeyStoreCheck.h"

#include "DirectoryServer.h"

#include "quorlix/platform/UserDefaults.h"

#include <QApplication>
#include <QDir>
#include <QFileInfo>

#include <cstdio>
#include <exception>
#include <memory>

using namespace QuorlixDemo;

namespace {

void printLine(std::FILE* stream, const QString& text)
{
    const QByteArray bytes = text.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, static_cast<std::size_t>(bytes.size()), stream);
    std::fflush(stream);
}

int fail(int code, const QString& message)
{
    printLine(stderr, QStringLiteral("quorlix-demo: ") + message);
    return code;
}

// Installed programs read <prefix>/share/quorlix/<relative>; a build-tree program reads the source
// tree.
QString dataFile(const QString& relative, const QString& sourceTreePath)
{
    const QString installed = QDir(QCoreApplication::applicationDirPath())
                                  .absoluteFilePath(QStringLiteral("../share/quorlix/") + relative);
    if (QFileInfo(installed).isFile())
        return QDir::cleanPath(installed);
    if (QFileInfo(sourceTreePath).isFile())
        return sourceTreePath;
    return {};
}

// The offscreen platform warns about every window it cannot resize for a window manager, and a
// bare session has no runtime directory; both are noise in a headless event log.
void dropOffscreenNoise(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (message.startsWith(QStringLiteral("This plugin does not support")) ||
        message.startsWith(QStringLiteral("QStandardPaths: XDG_RUNTIME_DIR not set")))
        return;
    qt_message_output(type, context, message);
}

// A platform chosen by the user wins; the ones that draw nowhere count as no display, so that the
// run still ends by itself.
bool hasDisplay()
{
    const QString platform = qEnvironmentVariable("QT_QPA_PLATFORM");
    if (!platform.isEmpty())
        return !platform.startsWith(QStringLiteral("offscreen")) &&
               !platform.startsWith(QStringLiteral("minimal"));
    return !qEnvironmentVariableIsEmpty("DISPLAY") ||
           !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
}

} // namespace

int main(int argc, char** argv)
{
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    const DemoOptions options = DemoOptions::parse(arguments);
    if (!options.error.isEmpty()) {
        printLine(stderr, QStringLiteral("quorlix-demo: %1\n").arg(options.error));
        std::fputs(DemoOptions::usage().toUtf8().constData(), stderr);
        return 2;
    }
    if (options.help) {
        std::fputs(DemoOptions::usage().toUtf8().constData(), stdout);
        return 0;
    }
    if (options.version) {
        std::fputs("quorlix-demo " QUORLIX_VERSION "\n", stdout);
        return 0;
    }

    const bool headless = options.headless || !hasDisplay();
    if (headless) {
        // An offscreen platform chosen by the user keeps its options (its screen's size, say).
        if (!qEnvironmentVariable("QT_QPA_PLATFORM").startsWith(QStringLiteral("offscreen")))
            qputenv("QT_QPA_PLATFORM", "offscreen");
        qInstallMessageHandler(dropOffscreenNoise);
    }
    QApplication app(argc, argv);
    // The key store is the user defaults of this organisation and application.
    QCoreApplication::setOrganizationName(QStringLiteral("Quorlix"));
    QCoreApplication::setApplicationName(QStringLiteral("quorlix-demo"));

    if (!options.screenshots.isEmpty() && !QDir().mkpath(options.screenshots))
        return fail(
            2,
            QStringLiteral("cannot create the screenshot directory '%1'").arg(options.screenshots));

    QString source = options.source;
    if (source.isEmpty()) {
        const QString scenario =
            dataFile(QStringLiteral("scenarios/demo.json"), QStringLiteral(QUORLIX_DEMO_SCENARIO));
        if (scenario.isEmpty())
            return fail(1, QStringLiteral("the demo scenario scenarios/demo.json is not installed "
                                          "next to the program; name one with --source"));
        source = QStringLiteral("simulate:") + scenario;
    }
    qputenv("QUORLIX_LOCATION_SOURCE", source.toUtf8());

    std::unique_ptr<Quorlix::Tools::DirectoryServer> server;
    DemoWindow::Setup setup;
    if (options.directory.isEmpty()) {
        const QString devices =
            dataFile(QStringLiteral("devices.json"), QStringLiteral(QUORLIX_SAMPLE_DEVICES));
        if (devices.isEmpty())
            return fail(1, QStringLiteral("the sample devices (devices.json) are not installed "
                                          "next to the program; name a service with --directory"));
        try {
            server = std::make_unique<Quorlix::Tools::DirectoryServer>(devices.toStdString());
            // Called on the server's thread: one write per line keeps lines whole.
            server->setRequestLog([](const std::string& line) {
                printLine(stdout, QStringLiteral("directory  ") + QString::fromStdString(line));
            });
            const int port = server->bind(0);
            server->startInBackground();
            setup.directoryHost = QStringLiteral("127.0.0.1:%1").arg(port);
            setup.directoryDescription = QStringLiteral("%1, in-process, %2 sample devices")
                                             .arg(setup.directoryHost)
                                             .arg(server->deviceCount());
        } catch (const std::exception& error) {
            return fail(1, QStringLiteral("cannot start the directory service: %1")
                               .arg(QString::fromLocal8Bit(error.what())));
        }
    } else {
        setup.directoryHost = options.directory;
        setup.directoryDescription = options.directory;
    }
    qputenv("QUORLIX_DIRECTORY_HOST", setup.directoryHost.toUtf8());

    setup.sourceDescription = source;
    setup.device = options.device;
    setup.filter = options.filter;
    // Shorter than the library's 30 s, so that a run of the shipped scenario shows an exit too.
    setup.exitPeriod = options.exitPeriod.value_or(2);
    setup.appID = options.appID;
    printLine(stdout, QStringLiteral("quorlix-demo: directory %1").arg(setup.directoryDescription));
    printLine(stdout, QStringLiteral("quorlix-demo: beacons from %1").arg(source));
    printLine(stdout, QStringLiteral("quorlix-demo: key store in %1")
                          .arg(Quorlix::UserDefaults::standard().fileName()));
    printLine(stdout, QStringLiteral("quorlix-demo: exit period %1 s").arg(*setup.exitPeriod));
    printLine(stdout, QStringLiteral("quorlix-demo: %1")
                          .arg(headless ? QStringLiteral("headless (offscreen)")
                                        : QStringLiteral("on the display")));

    // The library stops the process when the service does not answer or the device does not
    // resolve; say what is wrong instead.
    const DirectoryProbe::Answer answer =
        DirectoryProbe(setup.directoryHost).lookUp(options.device);
    if (!answer.problem.isEmpty())
        return fail(answer.reachable ? 2 : 1, answer.problem);
    // It also stops at the next Pair when a stored key no longer resolves.
    const KeyStoreCheck::Result keyCheck =
        KeyStoreCheck::run(DirectoryProbe(setup.directoryHost), Quorlix::UserDefaults::standard());
    if (!keyCheck.problem.isEmpty())
        return fail(1, keyCheck.problem);
    setup.storeNotes = keyCheck.notes;

    DemoWindow window(setup);
    window.show();
    window.startWatching(options.device, answer.majorMinor);

    DemoRun::Plan plan;
    plan.autoPair = headless;
    plan.pick =
        options.pick.value_or(headless ? DemoOptions::Pick::First : DemoOptions::Pick::None);
    plan.seconds = options.seconds;
    if (headless && !plan.seconds)
        plan.seconds = 20;
    plan.screenshots = options.screenshots;
    DemoRun run(&window, plan);
    QObject::connect(&app, &QCoreApplication::aboutToQuit, &run, &DemoRun::finish);
    run.start();

    const int code = QApplication::exec();
    if (server)
        server->stop();
    return code;
}
