// quorlix-directory: the development directory service on loopback.
//
//   quorlix-directory <port> [devices.json]
//
// Port 0 picks a free port. The first line printed is "listening on 127.0.0.1:<port>".

#include "DirectoryServer.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

namespace {

Quorlix::Tools::DirectoryServer* running = nullptr;

void stopOnSignal(int)
{
    if (running != nullptr)
        running->stop();
}

int usage()
{
    std::cerr << "usage: quorlix-directory <port> [devices.json]\n"
                 "  port          TCP port on 127.0.0.1, 0 for any free port\n"
                 "  devices.json  array of device records (default: the sample devices)\n";
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 3)
        return usage();
    char* end = nullptr;
    const long port = std::strtol(argv[1], &end, 10);
    if (*argv[1] == '\0' || *end != '\0' || port < 0 || port > 65535) {
        std::cerr << "quorlix-directory: '" << argv[1] << "' is not a port number (0-65535)\n";
        return usage();
    }
    const std::string devices = argc == 3 ? argv[2] : QUORLIX_SAMPLE_DEVICES;
    try {
        Quorlix::Tools::DirectoryServer server(devices);
        server.setRequestLog([](const std::string& line) { std::cout << line << std::endl; });
        const int bound = server.bind(static_cast<int>(port));
        std::cout << "listening on 127.0.0.1:" << bound << std::endl;
        std::cout << "serving " << server.deviceCount() << " devices from " << devices << std::endl;
        running = &server;
        std::signal(SIGINT, stopOnSignal);
        std::signal(SIGTERM, stopOnSignal);
        server.listen();
        running = nullptr;
    } catch (const std::exception& error) {
        std::cerr << "quorlix-directory: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
