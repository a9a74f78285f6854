#pragma once

#include "quorlix/events/VeskEventManager.h"

#include "EventLoop.h"

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

} // namespace Quorlix::Testing
