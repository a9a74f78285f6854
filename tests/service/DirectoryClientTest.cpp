#include "quorlix/service/DirectoryClient.h"
#include "quorlix/service/DirectoryAnswer.h"

#include "quorlix/events/VeskEventManager.h"

#include "DirectoryProcess.h"
#include "Files.h"
#include "RecordingLocationManager.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <functional>
#include <thread>
#include <tuple>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Quorlix;

namespace {

constexpr const char* nilStop =
    "fatal error: unexpectedly found nil while unwrapping an Optional value";

TEST(DirectoryClientDeathTest, BuildsUrlsAsGivenAndFetchesOnlyOverHttp)
{
    qputenv("QUORLIX_DIRECTORY_HOST", "h:1");
    EXPECT_EQ(DirectoryClient::deviceUrl("a b/c"), "http://h:1/api/device/a b/c");
    // Only http and https: a small file holding a valid answer would otherwise be read.
    QTemporaryDir dir;
    const QString answer = Testing::writeFile(dir.path(), "answer.json", "[]");
    EXPECT_DEATH(DirectoryClient::fetch("file://" + answer),
                 std::string("file.*not supported.*") + nilStop);
    qputenv("QUORLIX_DIRECTORY_HOST", "");
    EXPECT_EQ(DirectoryClient::host(), QStringLiteral(QUORLIX_EXPECTED_DEFAULT_HOST));

    // clang-format off
    const std::pair<const char*, bool> cases[] = {
        {"http://h/a%2Fb", true}, {"http://h/a b", false},
        {"http://h/a%2", false}, {"http://h/a%zz", false}, {"http://h/\xc3\xa4", false},
        {"http://h/a\"b", false}, {"http://h/a<b>", false}, {"", false}};
    // clang-format on
    for (const auto& [url, valid] : cases)
        EXPECT_EQ(DirectoryClient::isValidUrl(QString::fromUtf8(url)), valid) << url;
}

// Faults: hostile or broken directories. Each misbehaving server lives on a thread of this
// process; the death tests' children are separate processes that reach it over loopback.
using Reply = std::function<void(int connection)>;

bool sendText(int connection, const std::string& text)
{
    return ::send(connection, text.data(), text.size(), MSG_NOSIGNAL) == ssize_t(text.size());
}

QString serve(Reply reply)
{
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
    EXPECT_EQ(::listen(listener, 16), 0);
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    std::thread([listener, reply] { // one fetch, one connection
        const int connection = ::accept(listener, nullptr, nullptr);
        char request[4096];
        (void)::recv(connection, request, sizeof request, 0);
        reply(connection);
        ::close(connection);
    })
        .detach();
    return QStringLiteral("127.0.0.1:%1").arg(ntohs(address.sin_port));
}

Reply answer(std::string status, std::string body)
{
    return [status, body](int connection) {
        sendText(connection, "HTTP/1.1 " + status +
                                 "\r\nContent-Length: " + std::to_string(body.size()) +
                                 "\r\nConnection: close\r\n\r\n" + body);
    };
}

TEST(DirectoryFaults, BadAnswersAndSlowServersStopWithTheirCause)
{
    const std::string deep = std::string(100'000, '[') + std::string(100'000, ']');
    const Reply drip = [](int connection) {
        sendText(connection, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n");
        while (sendText(connection, " "))
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
    };
    const Reply endless = [](int connection) {
        sendText(connection, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n");
        const std::string chunk = "10000\r\n" + std::string(0x10000, '[') + "\r\n";
        while (sendText(connection, chunk)) {
        }
    };
    const struct
    {
        const char* name;
        Reply reply;
        const char* cause; // in the diagnostic line before the stop
        const char* stop = nilStop;
    } cases[] = {
        {"drips", drip, "no complete answer within the time limit"},
        {"sends an endless body", endless, "larger than 1000000 bytes"},
        {"announces a huge body", answer("200 OK", std::string(2'000'000, ' ')),
         "announces more than 1000000 bytes"},
        {"nests deeply", answer("200 OK", deep), "nested deeper than 64 levels"},
        {"answers 404 with a page", answer("404 Not Found", "<html>gone</html>"),
         "HTTP 404, 17 bytes.: not JSON"},
        {"sends a number out of range", answer("200 OK", "[1e400]"), "not JSON"},
    };
    qputenv("QUORLIX_DIRECTORY_TIMEOUT", "1.5");
    qputenv("QUORLIX_DIRECTORY_MAX_BYTES", "1000000");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        qputenv("QUORLIX_DIRECTORY_HOST", serve(c.reply).toUtf8());
        // The alarm turns a hang into a death without the expected message.
        EXPECT_DEATH(
            {
                ::alarm(20);
                Testing::RecordingLocationManager::Installer locations;
                VeskEventManager::create("1047");
            },
            std::string(c.cause) + ".*" + c.stop);
    }
    qunsetenv("QUORLIX_DIRECTORY_TIMEOUT");
    qunsetenv("QUORLIX_DIRECTORY_MAX_BYTES");
    qputenv("QUORLIX_DIRECTORY_HOST",
            QStringLiteral("127.0.0.1:%1").arg(Testing::unusedPort()).toUtf8());
    EXPECT_DEATH(DirectoryClient::fetch(DirectoryClient::deviceUrl("1047")),
                 "/api/device/1047: unreachable.*\n.*" + std::string(nilStop));

    // Answers nested up to 64 levels are JSON.
    const auto nested = [](int depth) { return QByteArray(depth, '[') + QByteArray(depth, ']'); };
    EXPECT_EQ(DirectoryAnswer::describe(DirectoryAnswer::parse(nested(64))), nested(64));
    // Brackets in texts are not nesting, escaped quotes do not end a text.
    const QByteArray text =
        R"(["\"[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[["])";
    EXPECT_EQ(DirectoryAnswer::describe(DirectoryAnswer::parse(text)), text);
    EXPECT_DEATH(DirectoryAnswer::parse(nested(65)),
                 std::string("nested deeper than 64 levels.*") + nilStop);
}

TEST(DirectoryFaults, BoundsComeFromTheEnvironmentAndBadValuesAreNamed)
{
    // Variable after QUORLIX_DIRECTORY_, value, bound in milliseconds or bytes (-1: refused, the
    // default stays).
    // clang-format off
    const std::tuple<const char*, const char*, qint64> cases[] = {
        {"TIMEOUT", "2.5", 2500}, {"TIMEOUT", " 7 ", 7000}, {"CONNECT_TIMEOUT", "0.001", 1},
        {"TIMEOUT", "0", -1}, {"TIMEOUT", "-5", -1}, {"TIMEOUT", "1e3", -1}, {"TIMEOUT", "inf", -1},
        {"TIMEOUT", "99999999999", -1}, {"CONNECT_TIMEOUT", "ten", -1}, {"MAX_BYTES", "16MiB", -1},
        {"MAX_BYTES", "0", -1}, {"MAX_BYTES", "99999999999", -1}};
    // clang-format on
    static QStringList warnings;
    const QtMessageHandler previous = qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext&, const QString& text) { warnings << text; });
    // The bound a variable sets, in milliseconds or bytes.
    const auto bound = [](const DirectoryClient::Limits& limits, const QString& variable) {
        return variable.endsWith("MAX_BYTES")         ? limits.maxBodyBytes
               : variable.endsWith("CONNECT_TIMEOUT") ? limits.connectTimeout.count()
                                                      : limits.totalTimeout.count();
    };
    for (const auto& [name, value, expected] : cases) {
        const QByteArray variable = QByteArray("QUORLIX_DIRECTORY_") + name;
        warnings.clear();
        qputenv(variable, value);
        const qint64 got = bound(DirectoryClient::limits(), variable);
        qunsetenv(variable);
        EXPECT_EQ(got, expected < 0 ? bound({}, variable) : expected) << value;
        // Exactly one warning for a refused value, and it names the variable and the value.
        EXPECT_EQ(warnings.size(), expected < 0 ? 1 : 0) << value;
        EXPECT_EQ(warnings.filter(QStringLiteral("%1=\"%2\"").arg(variable, value)).size(),
                  warnings.size())
            << value;
    }
    qInstallMessageHandler(previous);
    EXPECT_EQ(DirectoryClient::limits().totalTimeout, std::chrono::seconds(60));
    EXPECT_EQ(DirectoryClient::limits().maxBodyBytes, 16 * 1024 * 1024);
}

} // namespace
