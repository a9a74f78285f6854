// Measures the event side: a directory request through the library against a plain socket GET to
// the same loopback server, and the delivery of ranging reports to a host handler.
//
//   build/bench/bench_events [--benchmark_repetitions=5 --benchmark_report_aggregates_only=true]

#include "quorlix/events/VeskEventManager.h"
#include "quorlix/service/DirectoryClient.h"

#include "DirectoryServer.h"

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

using namespace Quorlix;

namespace {

Tools::DirectoryServer& server()
{
    static Tools::DirectoryServer instance(QUORLIX_SAMPLE_DEVICES);
    static const int port = [] {
        const int bound = instance.bind(0);
        instance.startInBackground();
        qputenv("QUORLIX_DIRECTORY_HOST", QByteArray("127.0.0.1:") + QByteArray::number(bound));
        return bound;
    }();
    (void)port;
    return instance;
}

int serverPort()
{
    server();
    return DirectoryClient::host().section(u':', 1).toInt();
}

// The least a client can do: connect, send one request, read until the server closes.
std::string rawGet(int port, const std::string& path)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error("connect failed");
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    const std::string request =
        "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
    if (write(fd, request.data(), request.size()) != static_cast<ssize_t>(request.size()))
        throw std::runtime_error("write failed");
    std::string response;
    char buffer[4096];
    ssize_t n = 0;
    while ((n = read(fd, buffer, sizeof buffer)) > 0)
        response.append(buffer, static_cast<std::size_t>(n));
    close(fd);
    return response.substr(response.find("\r\n\r\n") + 4);
}

void BM_GetJsonRoundTrip(benchmark::State& state)
{
    server();
    const QString url = DirectoryClient::deviceUrl("1047");
    for (auto _ : state) {
        const QByteArray body = DirectoryClient::fetch(url);
        benchmark::DoNotOptimize(body.data());
    }
}
BENCHMARK(BM_GetJsonRoundTrip)->UseRealTime();

void BM_RawSocketGet(benchmark::State& state)
{
    const int port = serverPort();
    for (auto _ : state) {
        const std::string body = rawGet(port, "/api/device/1047");
        benchmark::DoNotOptimize(body.data());
    }
}
BENCHMARK(BM_RawSocketGet)->UseRealTime();

void BM_RangingReport(benchmark::State& state)
{
    QList<Beacon> beacons;
    for (int i = 0; i < state.range(0); ++i)
        beacons.append(Beacon{QUuid(), 12, static_cast<quint16>(i), Proximity::Near, -60 - i, 1.5});
    std::int64_t delivered = 0;
    const DeviceCallback handler = [&](const std::shared_ptr<VeskDevice>& device) {
        delivered += device->rssi->size();
    };
    for (auto _ : state)
        VeskEventManager::reportRanging(beacons, handler);
    benchmark::DoNotOptimize(delivered);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RangingReport)->Arg(1)->Arg(100);

} // namespace

BENCHMARK_MAIN();
