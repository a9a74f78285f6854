// quorlix-directory: the development directory service on loopback.
//
//   quorlix-directory <port> [devices.json]    (also --help, --version)
//
// Port 0 picks a free port. The first line printed is "listening on 127.0.0.1:<port>".

#include "DirectoryServer.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <string>
#include <string_view>
#include <system_error>

namespace {

Quorlix::Tools::DirectoryServer* running = nullptr;

void stopOnSignal(int)
{
    if (running != nullptr)
        running->stop();
}

// An installed tool reads the copy installed next to it; a build-tree tool reads the source file.
std::string sampleDevices()
{
    std::error_code error;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    if (!error) {
        const auto installed = self.parent_path().parent_path() / "share/quorlix/devices.json";
        if (std::filesystem::exists(installed, error))
            return installed.string();
    }
    return QUORLIX_SAMPLE_DEVICES;
}

void usage(std::ostream& to)
{
    to << "Usage: quorlix-directory <port> [devices.json]\n"
          "The development directory service: answers device lookups on 127.0.0.1.\n"
          "  port          TCP port on 127.0.0.1, 0 for any free port (printed first)\n"
          "  devices.json  array of device records (default: the sample devices)\n"
          "  -h, --help    show this text\n"
          "  --version     show the version\n";
}

} // namespace

int main(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "--help" || argument == "-h") {
            usage(std::cout);
            return 0;
        }
        if (argument == "--version" || argument == "-V") {
            std::cout << "quorlix-directory " QUORLIX_VERSION "\n";
            return 0;
        }
        if (argument.starts_with("--")) {
            std::cerr << "quorlix-directory: unknown option '" << argument << "'\n";
            usage(std::cerr);
            return 2;
        }
    }
    if (argc < 2 || argc > 3) {
        usage(std::cerr);
        return 2;
    }
    char* end = nullptr;
    const long port = std::strtol(argv[1], &end, 10);
    if (*argv[1] == '\0' || *end != '\0' || port < 0 || port > 65535) {
        std::cerr << "quorlix-directory: '" << argv[1] << "' is not a port number (0-65535)\n";
        usage(std::cerr);
        return 2;
    }
    const std::string devices = argc == 3 ? argv[2] : sampleDevices();
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
