// Links against the installed library and reaches what only an installed copy can get wrong: the
// version symbols, the event manager's meta-object and the location settings, exported and working.
#include <quorlix/Quorlix.h>

#include <QCoreApplication>

#include <cstdio>
#include <cstring>

namespace {

int failures = 0;

void expect(bool ok, const char* what)
{
    if (!ok) {
        std::fprintf(stderr, "consumer: %s\n", what);
        ++failures;
    }
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);

    expect(QuorlixVersionNumber == 1.0, "QuorlixVersionNumber is not 1.0");
    const char* version = reinterpret_cast<const char*>(QuorlixVersionString);
    expect(std::strstr(version, "PROJECT:Quorlix-1") != nullptr, "unexpected version text");

    const QMetaObject& meta = Quorlix::VeskEventManager::staticMetaObject;
    expect(meta.indexOfMethod("filter(qint64)") >= 0, "filter is not runtime-visible");
    expect(meta.indexOfProperty("filterTime") >= 0, "filterTime is not a property");

    // The knobs a host turns: applied at once, refused with a reason when they make no sense.
    Quorlix::LocationManager location;
    Quorlix::LocationSettings settings = location.settings();
    settings.exitPeriod = std::chrono::seconds(10);
    expect(location.applySettings(settings) &&
               location.settings().exitPeriod == std::chrono::seconds(10),
           "exit period not applied");
    settings.nearLimitM = 0.1;
    QString problem;
    expect(!location.applySettings(settings, &problem) && !problem.isEmpty() &&
               location.settings().nearLimitM == 3.0,
           "band limits below the Immediate limit accepted");

    if (failures == 0)
        std::printf("consumer: Quorlix %.1f linked and working\n", QuorlixVersionNumber);
    return failures == 0 ? 0 : 1;
}
