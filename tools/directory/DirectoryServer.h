#pragma once

#include <functional>
#include <memory>
#include <string>

namespace Quorlix::Tools {

/// The development directory service: answers the device lookups of the library from a JSON file
/// holding an array of device records, over plain HTTP on 127.0.0.1.
///
///   GET /api/device/<key>                        the record (404 and [] for an unknown key)
///   GET /api/device/majorminor/?major-minor=<t>  the array of records with that major-minor text
class DirectoryServer
{
public:
    /// Receives one line per answered request.
    using RequestLog = std::function<void(const std::string& line)>;

    /// Loads the devices; throws std::runtime_error naming the problem when the file cannot be
    /// read or does not hold an array of records with a numeric "Key".
    explicit DirectoryServer(const std::string& devicesFile);
    ~DirectoryServer();
    DirectoryServer(const DirectoryServer&) = delete;
    DirectoryServer& operator=(const DirectoryServer&) = delete;

    void setRequestLog(RequestLog log);

    /// Binds 127.0.0.1:port (0 = any free port) and returns the bound port; throws
    /// std::runtime_error when the port cannot be bound.
    int bind(int port);
    /// Serves until stop(); blocks the calling thread.
    void listen();
    /// Serves on a thread of its own until stop() or destruction.
    void startInBackground();
    void stop();

    /// The number of devices loaded.
    std::size_t deviceCount() const;

private:
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace Quorlix::Tools
