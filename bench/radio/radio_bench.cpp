// Figures of the BlueZ source on the real stack; a program that measures and prints, run inside the
// radio lab (it needs the lab's bluetoothd, emulated controllers and advertiser):
//
//   tests/radio/lab-vm.sh -- build/bench/radio/bench_radio throughput [SECONDS]
//   tests/radio/lab-vm.sh -- build/bench/radio/bench_radio gaps [SECONDS] [RESTART_MS]
//
// throughput: for 1 beacon at 10 Hz and 20 beacons at 1 Hz each (the same air time), the adverts
// the lab's advertiser sent per second and the readings per second that reach the consumer
// through kernel, bluetoothd and D-Bus, with the CPU time per reading of this process and of
// bluetoothd over the same window; first Quorlix's BlueZSource, then Qt's
// QBluetoothDeviceDiscoveryAgent on the same feed as the yardstick. Every reading is one advert
// heard by one of the lab's two scanning adapters.
// gaps: a 10 Hz beacon, the source's default restart interval (or RESTART_MS): the longest silence
// per adapter and how many seconds of the run had the beacon unheard for more than 2 s.

#include "quorlix/location/sources/BlueZSource.h"

#include <QBluetoothDeviceDiscoveryAgent>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QHash>
#include <QProcess>
#include <QSet>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace {

using namespace std::chrono_literals;

void labctl(const QStringList& arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.start(QStringLiteral(QUORLIX_LABCTL), arguments);
    if (!process.waitForFinished(120'000) || process.exitCode() != 0) {
        std::fprintf(stderr, "labctl %s failed\n", qPrintable(arguments.join(' ')));
        std::exit(1);
    }
}

void runFor(qint64 ms)
{
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < ms)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
}

double ownCpuMs()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
}

double bluetoothdCpuMs()
{
    QFile pidFile(QStringLiteral("/run/lab/bluetoothd.pid"));
    if (!pidFile.open(QIODevice::ReadOnly))
        return 0;
    QFile stat(
        QStringLiteral("/proc/%1/stat").arg(QString::fromLatin1(pidFile.readAll().trimmed())));
    if (!stat.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray text = stat.readAll();
    // Fields after the command's closing parenthesis; utime and stime are the 14th and 15th.
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    return (fields.value(11).toDouble() + fields.value(12).toDouble()) * 1e3 /
           double(sysconf(_SC_CLK_TCK));
}

QString beaconWords(int count)
{
    QStringList words;
    for (int minor = 1; minor <= count; ++minor)
        words << QStringLiteral("40:%1@%2").arg(minor).arg(count == 1 ? 10 : 1);
    return words.join(' ');
}

qint64 advertsSent()
{
    QFile file(QStringLiteral("/run/lab/sent"));
    return file.open(QIODevice::ReadOnly) ? file.readAll().trimmed().toLongLong() : 0;
}

// A consumer scans from construction on and counts every reading that reaches it.
struct Consumer
{
    virtual ~Consumer() = default;
    quint64 readings = 0;
};

struct QuorlixConsumer : Consumer
{
    QuorlixConsumer()
    {
        source.setSink([this](const Quorlix::Sighting&) { ++readings; });
        source.setScanning(true);
    }
    Quorlix::BlueZSource source;
};

struct QtConsumer : Consumer
{
    QtConsumer()
    {
        agent.setLowEnergyDiscoveryTimeout(0); // until stopped
        QObject::connect(&agent, &QBluetoothDeviceDiscoveryAgent::deviceDiscovered,
                         [this] { ++readings; });
        QObject::connect(&agent, &QBluetoothDeviceDiscoveryAgent::deviceUpdated,
                         [this] { ++readings; });
        agent.start(QBluetoothDeviceDiscoveryAgent::LowEnergyMethod);
    }
    ~QtConsumer() override { agent.stop(); }
    QBluetoothDeviceDiscoveryAgent agent;
};

void throughput(qint64 seconds)
{
    std::printf("%-12s %7s %9s %12s %16s %20s\n", "consumer", "beacons", "adverts/s", "readings/s",
                "own CPU ms/read", "bluetoothd ms/read");
    for (int beacons : {1, 20}) {
        labctl({QStringLiteral("beacons"), beaconWords(beacons)});
        const std::pair<const char*, std::function<std::unique_ptr<Consumer>()>> kinds[] = {
            {"BlueZSource", [] { return std::make_unique<QuorlixConsumer>(); }},
            {"QtBluetooth", [] { return std::make_unique<QtConsumer>(); }},
        };
        for (const auto& [name, make] : kinds) {
            auto consumer = make();
            runFor(4000); // discovery started, every beacon known to bluetoothd
            const quint64 before = consumer->readings;
            const qint64 sentBefore = advertsSent();
            const double own = ownCpuMs(), daemon = bluetoothdCpuMs();
            runFor(seconds * 1000);
            const double readings = double(consumer->readings - before);
            const double perRead = std::max(readings, 1.0);
            std::printf("%-12s %7d %9.1f %12.1f %16.3f %20.3f\n", name, beacons,
                        double(advertsSent() - sentBefore) / double(seconds),
                        readings / double(seconds), (ownCpuMs() - own) / perRead,
                        (bluetoothdCpuMs() - daemon) / perRead);
            std::fflush(stdout);
            consumer.reset();
            runFor(1000);
        }
    }
}

void gaps(qint64 seconds, std::chrono::milliseconds restart)
{
    labctl({QStringLiteral("beacons"), QStringLiteral("12:7@10")});
    QElapsedTimer clock;
    clock.start();
    std::map<QByteArray, std::vector<qint64>> heard; // receiver -> ms of each reading
    Quorlix::BlueZSource source;
    source.setRestartInterval(restart);
    source.setSink(
        [&](const Quorlix::Sighting& s) { heard[s.receiver].push_back(clock.elapsed()); });
    source.setScanning(true);
    runFor(5000); // the first sighting, then measure
    const qint64 from = clock.elapsed(), to = from + seconds * 1000;
    runFor(seconds * 1000);
    std::printf("restart interval %lld ms, %lld s of a 10 Hz beacon\n",
                static_cast<long long>(restart.count()), static_cast<long long>(seconds));
    for (const auto& [receiver, times] : heard) {
        qint64 last = from, longest = 0, readings = 0;
        QSet<qint64> deafSeconds;
        const auto silence = [&](qint64 start, qint64 end) {
            longest = std::max(longest, end - start);
            // Every second of the run during which the beacon had been unheard for over 2 s.
            for (qint64 t = start + 2000; t < end; t += 100)
                deafSeconds.insert((t - from) / 1000);
        };
        for (qint64 t : times) {
            if (t < from || t > to)
                continue;
            ++readings;
            silence(last, t);
            last = t;
        }
        silence(last, to);
        std::printf("adapter %s: %.1f readings/s, longest silence %.1f s, seconds with >2 s "
                    "silence: %lld of %lld\n",
                    receiver.constData(), double(readings) / double(seconds),
                    double(longest) / 1000.0, static_cast<long long>(deafSeconds.size()),
                    static_cast<long long>(seconds));
    }
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const QString mode = args.value(1);
    if (mode == u"throughput") {
        throughput(args.value(2, QStringLiteral("10")).toLongLong());
    } else if (mode == u"gaps") {
        gaps(
            args.value(2, QStringLiteral("100")).toLongLong(),
            std::chrono::milliseconds(
                args.value(3, QString::number(Quorlix::BlueZSource::defaultRestartInterval.count()))
                    .toLongLong()));
    } else {
        std::fprintf(stderr,
                     "usage: bench_radio throughput [SECONDS] | gaps [SECONDS] [RESTART_MS]\n");
        return 2;
    }
    return 0;
}
