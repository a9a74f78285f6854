#include "DirectoryServer.h"

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace Quorlix::Tools {
namespace {

using Json = nlohmann::json;

std::string keyText(const Json& record)
{
    const Json& key = record.at("Key");
    if (key.is_number_integer() || key.is_number_unsigned())
        return key.dump();
    return std::to_string(static_cast<long long>(key.get<double>()));
}

} // namespace

struct DirectoryServer::Private
{
    Json devices;
    httplib::Server server;
    std::thread thread;
    std::mutex logMutex;
    RequestLog log;

    void answer(const httplib::Request& request, httplib::Response& response, int status,
                const Json& body)
    {
        response.status = status;
        response.set_content(body.dump(), "application/json");
        std::lock_guard lock(logMutex);
        if (log) {
            std::string target = request.path;
            if (!request.params.empty()) {
                target += '?';
                for (const auto& [name, value] : request.params)
                    target += name + '=' + value;
            }
            log(request.method + ' ' + target + " -> " + std::to_string(status));
        }
    }
};

DirectoryServer::DirectoryServer(const std::string& devicesFile)
    : d(std::make_unique<Private>())
{
    std::ifstream in(devicesFile);
    if (!in)
        throw std::runtime_error("cannot read the device file " + devicesFile);
    d->devices = Json::parse(in, nullptr, false);
    if (d->devices.is_discarded() || !d->devices.is_array())
        throw std::runtime_error(devicesFile + " does not hold a JSON array of device records");
    for (const Json& record : d->devices) {
        if (!record.is_object() || !record.contains("Key") || !record.at("Key").is_number())
            throw std::runtime_error(devicesFile +
                                     ": every device record needs a numeric \"Key\"; "
                                     "this one has none: " +
                                     record.dump());
    }

    d->server.Get(R"(/api/device/majorminor/?)",
                  [this](const httplib::Request& request, httplib::Response& response) {
                      const std::string wanted = request.get_param_value("major-minor");
                      Json matches = Json::array();
                      for (const Json& record : d->devices) {
                          if (record.contains("MajorMinor") && record.at("MajorMinor") == wanted)
                              matches.push_back(record);
                      }
                      d->answer(request, response, 200, matches);
                  });
    d->server.Get(R"(/api/device/([^/]*))",
                  [this](const httplib::Request& request, httplib::Response& response) {
                      const std::string key = request.matches[1];
                      for (const Json& record : d->devices) {
                          if (keyText(record) == key) {
                              d->answer(request, response, 200, record);
                              return;
                          }
                      }
                      d->answer(request, response, 404, Json::array());
                  });
}

DirectoryServer::~DirectoryServer()
{
    stop();
}

void DirectoryServer::setRequestLog(RequestLog log)
{
    std::lock_guard lock(d->logMutex);
    d->log = std::move(log);
}

int DirectoryServer::bind(int port)
{
    const int bound = port == 0 ? d->server.bind_to_any_port("127.0.0.1")
                                : (d->server.bind_to_port("127.0.0.1", port) ? port : -1);
    if (bound <= 0)
        throw std::runtime_error("cannot listen on 127.0.0.1:" + std::to_string(port));
    return bound;
}

void DirectoryServer::listen()
{
    d->server.listen_after_bind();
}

void DirectoryServer::startInBackground()
{
    // The socket already listens after bind(), so early clients queue instead of failing.
    d->thread = std::thread([this] { d->server.listen_after_bind(); });
}

void DirectoryServer::stop()
{
    d->server.stop();
    if (d->thread.joinable())
        d->thread.join();
}

std::size_t DirectoryServer::deviceCount() const
{
    return d->devices.size();
}

} // namespace Quorlix::Tools
