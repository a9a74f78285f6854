// Adverts fed through a mock bluetoothd as fast as it can send them, counted where they reach
// the consumer: Quorlix's BlueZSource (sightings at its sink) and, on the same feed, Qt's own
// QBluetoothDeviceDiscoveryAgent (deviceDiscovered + deviceUpdated). Needs a private system bus:
//
//   tests/support/private-bus.sh build/bench/bluez/bench_bluez
//
// Two figures per consumer:
// - live: the mock sends while the consumer runs; adverts/s reaching the consumer, and how many
//   were still missing when the mock had finished sending (lag_at_end). The mock (Python) is
//   usually the slower side here, so this says "keeps up", not how much faster it could go.
// - backlog: the mock sends everything while the consumer's thread is blocked, then the consumer
//   drains the queue; adverts/s drained is the consumer's own capacity.

#include "MockBlueZ.h"

#include "quorlix/location/sources/BlueZSource.h"
#include "quorlix/location/sources/IBeaconAdvert.h"

#include <benchmark/benchmark.h>

#include <QBluetoothDeviceDiscoveryAgent>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDBusPendingCallWatcher>
#include <QDeadlineTimer>

#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>

namespace {

using Quorlix::Testing::MockBlueZ;
using Clock = std::chrono::steady_clock;

constexpr quint32 advertsPerRun = 20'000;
const QString uuid = QStringLiteral("e1876979-75b5-43de-92cb-2bc1ad6ba999");

std::unique_ptr<MockBlueZ> mock;
int adapterNumber = 0;

// One consumer under measurement: starts scanning on construction, counts what reaches it.
class Consumer
{
public:
    virtual ~Consumer() = default;
    quint64 found = 0;    ///< devices reported when first found
    quint64 received = 0; ///< readings, one per advert
};

class QuorlixConsumer : public Consumer
{
public:
    static constexpr const char* label = "BlueZSource";
    QuorlixConsumer()
    {
        source.setSink([this](const Quorlix::Sighting&) {
            ++found;
            ++received;
        });
        source.setScanning(true);
    }
    Quorlix::BlueZSource source;
};

class QtAgentConsumer : public Consumer
{
public:
    static constexpr const char* label = "QtDiscoveryAgent";
    QtAgentConsumer()
    {
        QObject::connect(&agent, &QBluetoothDeviceDiscoveryAgent::deviceDiscovered,
                         [this] { ++found; });
        // Qt signals each advert twice, as a discovery and as an update; the RSSI update is the
        // reading. It reports manufacturer data only when the bytes change.
        QObject::connect(&agent, &QBluetoothDeviceDiscoveryAgent::deviceUpdated,
                         [this](const QBluetoothDeviceInfo&, QBluetoothDeviceInfo::Fields fields) {
                             if (fields.testFlag(QBluetoothDeviceInfo::Field::RSSI))
                                 ++received;
                         });
        QObject::connect(&agent, &QBluetoothDeviceDiscoveryAgent::errorOccurred, [this] {
            std::fprintf(stderr, "Qt discovery agent: %s\n", qPrintable(agent.errorString()));
        });
        agent.setLowEnergyDiscoveryTimeout(0);
        agent.start(QBluetoothDeviceDiscoveryAgent::LowEnergyMethod);
    }
    QBluetoothDeviceDiscoveryAgent agent;
};

bool spin(const std::function<bool()>& done, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    }
    return true;
}

QDBusPendingCall flood(const QStringList& devices, quint32 count)
{
    auto message =
        QDBusMessage::createMethodCall(QStringLiteral("org.bluez"), QStringLiteral("/"),
                                       QStringLiteral("org.bluez.Mock"), QStringLiteral("Flood"));
    message.setArguments({devices, QVariant::fromValue(count),
                          QVariant::fromValue(Quorlix::IBeaconAdvert::appleCompanyId),
                          MockBlueZ::iBeaconData(uuid, 12, 7, -59)});
    return QDBusConnection::systemBus().asyncCall(message, 600'000);
}

// A new adapter with the consumer scanning on it and `deviceCount` beacons found. A new adapter
// rather than a new bluetoothd: Qt's discovery manager keeps its bookkeeping across a bluetoothd
// restart and does not start discovery again.
template <class C>
std::pair<std::unique_ptr<C>, QStringList> setUp(int deviceCount, benchmark::State& state)
{
    if (adapterNumber > 0)
        mock->removeAdapterWithDevices(QStringLiteral("hci%1").arg(adapterNumber - 1));
    const QString adapter = QStringLiteral("hci%1").arg(adapterNumber++);
    mock->addAdapter(adapter);
    auto consumer = std::make_unique<C>();
    if (!spin(
            [&] { return mock->discoveryLog(adapter).contains(QStringLiteral("StartDiscovery")); },
            5000)) {
        state.SkipWithError("the consumer did not start discovery");
        return {};
    }
    std::fprintf(stderr, "%s discovery calls: %s\n", C::label,
                 qPrintable(mock->discoveryLog(adapter).join(QStringLiteral(", "))));
    QStringList devices;
    for (int i = 0; i < deviceCount; ++i)
        devices << mock->addBeacon(adapter,
                                   QStringLiteral("C0:FF:EE:00:%1:%2")
                                       .arg(i / 256, 2, 16, QLatin1Char('0'))
                                       .arg(i % 256, 2, 16, QLatin1Char('0'))
                                       .toUpper(),
                                   -60, Quorlix::IBeaconAdvert::appleCompanyId,
                                   MockBlueZ::iBeaconData(uuid, 12, static_cast<quint16>(i), -59));
    if (!spin([&] { return consumer->found >= quint64(deviceCount); }, 5000))
        state.SkipWithError("the consumer did not see every beacon");
    return {std::move(consumer), devices};
}

template <class C> void live(benchmark::State& state)
{
    auto [consumer, devices] = setUp<C>(static_cast<int>(state.range(0)), state);
    if (!consumer)
        return;
    double seconds = 0;
    quint64 delivered = 0;
    quint64 lagAtEnd = 0;
    for (auto _ : state) {
        const quint64 before = consumer->received;
        const auto started = Clock::now();
        QDBusPendingCallWatcher sent(flood(devices, advertsPerRun));
        bool mockDone = false;
        QObject::connect(&sent, &QDBusPendingCallWatcher::finished, [&] {
            mockDone = true;
            lagAtEnd +=
                advertsPerRun - std::min<quint64>(advertsPerRun, consumer->received - before);
        });
        spin([&] { return mockDone && consumer->received - before >= advertsPerRun; }, 60'000);
        const std::chrono::duration<double> elapsed = Clock::now() - started;
        state.SetIterationTime(elapsed.count());
        seconds += elapsed.count();
        delivered += consumer->received - before;
    }
    state.counters["adverts_per_s"] = benchmark::Counter(double(delivered) / seconds);
    state.counters["lost"] =
        benchmark::Counter(double(advertsPerRun * state.iterations()) - double(delivered));
    state.counters["lag_at_end"] =
        benchmark::Counter(double(lagAtEnd), benchmark::Counter::kAvgIterations);
}

template <class C> void backlog(benchmark::State& state)
{
    auto [consumer, devices] = setUp<C>(static_cast<int>(state.range(0)), state);
    if (!consumer)
        return;
    double seconds = 0;
    quint64 delivered = 0;
    for (auto _ : state) {
        const quint64 before = consumer->received;
        QDBusPendingCall sent = flood(devices, advertsPerRun);
        // Blocks this thread only: the bus connection's own thread keeps reading, so the adverts
        // queue up for the consumer.
        sent.waitForFinished();
        const auto started = Clock::now();
        spin([&] { return consumer->received - before >= advertsPerRun; }, 60'000);
        const std::chrono::duration<double> elapsed = Clock::now() - started;
        state.SetIterationTime(elapsed.count());
        seconds += elapsed.count();
        delivered += consumer->received - before;
    }
    state.counters["adverts_per_s"] = benchmark::Counter(double(delivered) / seconds);
    state.counters["lost"] =
        benchmark::Counter(double(advertsPerRun * state.iterations()) - double(delivered));
}

void configure(benchmark::internal::Benchmark* b)
{
    b->Arg(1)->Arg(100)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);
}

BENCHMARK(live<QuorlixConsumer>)->Name("Live/BlueZSource")->Apply(configure);
BENCHMARK(live<QtAgentConsumer>)->Name("Live/QtDiscoveryAgent")->Apply(configure);
BENCHMARK(backlog<QuorlixConsumer>)->Name("Backlog/BlueZSource")->Apply(configure);
BENCHMARK(backlog<QtAgentConsumer>)->Name("Backlog/QtDiscoveryAgent")->Apply(configure);

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    if (!MockBlueZ::onPrivateBus()) {
        std::fprintf(stderr,
                     "bench_bluez needs a private system bus: run it as\n"
                     "  tests/support/private-bus.sh %s\n",
                     argv[0]);
        return 1;
    }
    try {
        mock = std::make_unique<MockBlueZ>();
        benchmark::RunSpecifiedBenchmarks();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_bluez: %s\n", error.what());
        return 1;
    }
    mock.reset();
    benchmark::Shutdown();
    return 0;
}
