// quorlix-quick-demo: a Qt Quick host. Everything it shows comes from Main.qml through
// `import Quorlix`; this file only sets the scene up as the widget demo does (the sample directory
// service in-process, the shipped scenario as the beacon source) and can write a screenshot.
#include "DirectoryServer.h"

#include <QCommandLineParser>
#include <QFileInfo>
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQuickWindow>
#include <QTimer>

#include <cstdio>
#include <memory>

int main(int argc, char** argv)
{
    QGuiApplication app(argc, argv);
    // The pairing key store is the user defaults of this organisation and application.
    QCoreApplication::setOrganizationName(QStringLiteral("Quorlix"));
    QCoreApplication::setApplicationName(QStringLiteral("quorlix-quick-demo"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Nearby beacons and one device's presence, "
                                                    "in Qt Quick"));
    parser.addHelpOption();
    const QCommandLineOption seconds(QStringLiteral("seconds"),
                                     QStringLiteral("Quit after N seconds (default: run on)."),
                                     QStringLiteral("N"));
    const QCommandLineOption screenshot(
        QStringLiteral("screenshot"), QStringLiteral("Write the window to FILE (PNG) on quitting."),
        QStringLiteral("FILE"));
    const QCommandLineOption directory(
        QStringLiteral("directory"),
        QStringLiteral("The directory service, host[:port] (default: the sample one, in-process)."),
        QStringLiteral("host"));
    parser.addOptions({seconds, screenshot, directory});
    parser.process(app);
    bool secondsOk = true;
    const int runSeconds = parser.isSet(seconds) ? parser.value(seconds).toInt(&secondsOk) : 0;
    if (!secondsOk || runSeconds < 0) {
        std::fprintf(stderr, "quorlix-quick-demo: --seconds takes a whole number of seconds\n");
        return 2;
    }

    if (qEnvironmentVariableIsEmpty("QUORLIX_LOCATION_SOURCE"))
        qputenv("QUORLIX_LOCATION_SOURCE", "simulate:" QUORLIX_DEMO_SCENARIO);
    std::unique_ptr<Quorlix::Tools::DirectoryServer> server;
    if (parser.isSet(directory)) {
        qputenv("QUORLIX_DIRECTORY_HOST", parser.value(directory).toUtf8());
    } else {
        try {
            server = std::make_unique<Quorlix::Tools::DirectoryServer>(QUORLIX_SAMPLE_DEVICES);
            const int port = server->bind(0);
            server->startInBackground();
            qputenv("QUORLIX_DIRECTORY_HOST", QByteArray("127.0.0.1:") + QByteArray::number(port));
        } catch (const std::exception& error) {
            std::fprintf(stderr, "quorlix-quick-demo: cannot start the directory service: %s\n",
                         error.what());
            return 1;
        }
    }

    QQmlApplicationEngine engine;
    // The module from the build tree; an installed one is in Qt's own QML directory.
    engine.addImportPath(QStringLiteral(QUORLIX_QML_DIR));
    engine.load(QUrl(QStringLiteral("qrc:/QuorlixQuickDemo/Main.qml")));
    if (engine.rootObjects().isEmpty())
        return 1;
    auto* window = qobject_cast<QQuickWindow*>(engine.rootObjects().first());

    if (runSeconds > 0) {
        QTimer::singleShot(runSeconds * 1000, &app, [&] {
            if (parser.isSet(screenshot) && window) {
                const QString file = parser.value(screenshot);
                if (!window->grabWindow().save(file)) {
                    std::fprintf(stderr, "quorlix-quick-demo: cannot write %s\n", qPrintable(file));
                    QCoreApplication::exit(1);
                    return;
                }
                std::printf("quorlix-quick-demo: wrote %s\n",
                            qPrintable(QFileInfo(file).absoluteFilePath()));
            }
            QCoreApplication::quit();
        });
    }
    return app.exec();
}
