#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>

#include <functional>

namespace Quorlix::Testing {

/// The one application object of the test program, made on first use (real clocks, Qt timers and
/// the main queue need it).
inline QCoreApplication& application()
{
    static int argc = 1;
    static char name[] = "engine_test";
    static char* argv[] = {name, nullptr};
    static QCoreApplication app(argc, argv);
    return app;
}

/// Runs the event loop until done() holds or timeoutMs passed; returns done().
inline bool runEventsUntil(const std::function<bool()>& done, int timeoutMs)
{
    application();
    QElapsedTimer elapsed;
    elapsed.start();
    while (!done() && elapsed.elapsed() < timeoutMs)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    return done();
}

} // namespace Quorlix::Testing
