#pragma once

#include "quorlix/events/VeskEventManager.h"

#include <QCoreApplication>
#include <QElapsedTimer>

namespace Quorlix::Testing {

inline constexpr const char* nilStop =
    "fatal error: unexpectedly found nil while unwrapping an Optional value";

/// An event manager whose directory answer is given by the test instead of fetched.
class CannedEventManager : public VeskEventManager
{
public:
    static inline QString majorMinor;
    static inline QStringList requestedUrls;

    QByteArray getJSON(const QString& url) override
    {
        requestedUrls << url;
        return "{}";
    }
    QString getMajorMinor(const QByteArray&) override { return majorMinor; }
};

/// Runs the event loop until done() or the timeout.
inline void runUntil(const std::function<bool()>& done, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!done() && timer.elapsed() < timeoutMs)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
}

inline void runFor(int ms)
{
    runUntil([] { return false; }, ms);
}

} // namespace Quorlix::Testing
