#include "quorlix/service/DirectoryClient.h"
#include "quorlix/service/DirectoryAnswer.h"

#include "DirectoryProcess.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

using namespace Quorlix;

namespace {

constexpr const char* nilStop =
    "fatal error: unexpectedly found nil while unwrapping an Optional value";

TEST(DirectoryClientDeathTest, FetchesFromTheServiceAndStopsOnFailures)
{
    Testing::DirectoryProcess directory;
    const QString base = "http://" + directory.host();
    EXPECT_EQ(DirectoryClient::deviceUrl("a b/c"), base + "/api/device/a b/c");
    EXPECT_EQ(DirectoryClient::majorMinorUrl("1-2"),
              base + "/api/device/majorminor/?major-minor=1-2");
    const QVariant record =
        DirectoryAnswer::parse(DirectoryClient::fetch(DirectoryClient::deviceUrl("1047")));
    EXPECT_EQ(DirectoryAnswer::textMember(record, "MajorMinor"), "12-7");
    // The service answers an unknown key with 404 and a body; the body is what counts.
    EXPECT_EQ(DirectoryClient::fetch(DirectoryClient::deviceUrl("999")), "[]");
    const QVariant matches =
        DirectoryAnswer::parse(DirectoryClient::fetch(DirectoryClient::majorMinorUrl("12-8")));
    EXPECT_EQ(DirectoryAnswer::describe(*DirectoryAnswer::member(matches, "Key")), "[1048]");
    EXPECT_EQ(directory.requests(),
              QStringList({"GET /api/device/1047 -> 200", "GET /api/device/999 -> 404",
                           "GET /api/device/majorminor/?major-minor=12-8 -> 200"}));

    EXPECT_DEATH(DirectoryClient::fetch(DirectoryClient::deviceUrl("10 47")), nilStop);
    // Only http and https: a file that exists would otherwise be read.
    EXPECT_DEATH(DirectoryClient::fetch("file://" + QCoreApplication::applicationFilePath()),
                 nilStop);
    qputenv("QUORLIX_DIRECTORY_HOST", "127.0.0.1:" + QByteArray::number(Testing::unusedPort()));
    EXPECT_DEATH(DirectoryClient::fetch(DirectoryClient::deviceUrl("1047")), nilStop);
    qputenv("QUORLIX_DIRECTORY_HOST", "");
    EXPECT_EQ(DirectoryClient::host(), QStringLiteral(QUORLIX_EXPECTED_DEFAULT_HOST));
}

TEST(DirectoryClient, RecognisesMalformedUrls)
{
    const std::pair<const char*, bool> cases[] = {
        {"http://127.0.0.1:8080/api/device/1047", true},
        {"http://h/api/device/majorminor/?major-minor=12-7", true},
        {"http://h/a%2Fb", true},
        {"http://h/a b", false},
        {"http://h/a%2", false},
        {"http://h/a%zz", false},
        {"http://h/\xc3\xa4", false},
        {"http://h/a\"b", false},
        {"http://h/a<b>", false},
        {"", false}};
    for (const auto& [url, valid] : cases)
        EXPECT_EQ(DirectoryClient::isValidUrl(QString::fromUtf8(url)), valid) << url;
}

} // namespace
