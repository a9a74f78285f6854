#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>

#include <functional>

// Every test program runs with one QApplication made by support/TestMain.cpp; these wait on its
// event loop, always with a bound.
namespace Quorlix::Testing {

/// Runs the event loop until done() holds or timeoutMs passed; returns done().
inline bool runUntil(const std::function<bool()>& done, int timeoutMs)
{
    QElapsedTimer elapsed;
    elapsed.start();
    while (!done() && elapsed.elapsed() < timeoutMs)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    return done();
}

/// Runs the event loop for ms milliseconds.
inline void runFor(int ms)
{
    runUntil([] { return false; }, ms);
}

} // namespace Quorlix::Testing
