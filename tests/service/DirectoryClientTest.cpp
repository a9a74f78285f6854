#include "quorlix/service/DirectoryClient.h"
#include "quorlix/service/DirectoryAnswer.h"

#include "DirectoryProcess.h"

#include <gtest/gtest.h>

using namespace Quorlix;
using Quorlix::Testing::DirectoryProcess;

namespace {

constexpr const char* nilStop =
    "fatal error: unexpectedly found nil while unwrapping an Optional value";

class DirectoryClientTest : public testing::Test
{
protected:
    static void SetUpTestSuite() { directory = new DirectoryProcess(); }
    static void TearDownTestSuite()
    {
        delete directory;
        directory = nullptr;
    }
    void SetUp() override { qputenv("QUORLIX_DIRECTORY_HOST", directory->host().toUtf8()); }

    static DirectoryProcess* directory;
};

DirectoryProcess* DirectoryClientTest::directory = nullptr;

TEST_F(DirectoryClientTest, FetchesRecordsAndTheBodyOfAFailedLookup)
{
    const QVariant record =
        DirectoryAnswer::parse(DirectoryClient::fetch(DirectoryClient::deviceUrl("1047")));
    EXPECT_EQ(DirectoryAnswer::textMember(record, "MajorMinor"), "12-7");

    // The service answers an unknown key with 404 and a body; the body is what counts.
    EXPECT_EQ(DirectoryClient::fetch(DirectoryClient::deviceUrl("999")), "[]");

    const QVariant matches =
        DirectoryAnswer::parse(DirectoryClient::fetch(DirectoryClient::majorMinorUrl("12-8")));
    EXPECT_EQ(DirectoryAnswer::describe(*DirectoryAnswer::member(matches, "Key")), "[1048]");

    const QStringList requests = directory->requests();
    EXPECT_TRUE(requests.contains("GET /api/device/1047 -> 200"))
        << requests.join('\n').toStdString();
    EXPECT_TRUE(requests.contains("GET /api/device/999 -> 404"));
    EXPECT_TRUE(requests.contains("GET /api/device/majorminor/?major-minor=12-8 -> 200"));
}

TEST_F(DirectoryClientTest, UrlsAreBuiltFromTheHostWithTheTextAppendedAsItIs)
{
    EXPECT_EQ(DirectoryClient::deviceUrl("a b/c"),
              "http://" + directory->host() + "/api/device/a b/c");
    EXPECT_EQ(DirectoryClient::majorMinorUrl("1-2"),
              "http://" + directory->host() + "/api/device/majorminor/?major-minor=1-2");
    qputenv("QUORLIX_DIRECTORY_HOST", "");
    EXPECT_EQ(DirectoryClient::host(), QStringLiteral(QUORLIX_EXPECTED_DEFAULT_HOST));
}

TEST(DirectoryClient, RecognisesMalformedUrls)
{
    struct Case
    {
        const char* url;
        bool valid;
    };
    for (const Case& c :
         {Case{"http://127.0.0.1:8080/api/device/1047", true},
          Case{"http://h/api/device/1047/extra", true},
          Case{"http://h/api/device/majorminor/?major-minor=12-7", true},
          Case{"http://h/a%2Fb", true}, Case{"http://h/a b", false}, Case{"http://h/a%2", false},
          Case{"http://h/a%zz", false}, Case{"http://h/\xc3\xa4", false},
          Case{"http://h/a\"b", false}, Case{"http://h/a<b>", false}, Case{"", false}})
        EXPECT_EQ(DirectoryClient::isValidUrl(QString::fromUtf8(c.url)), c.valid) << c.url;
}

TEST_F(DirectoryClientTest, FailuresStop)
{
    EXPECT_DEATH(DirectoryClient::fetch(DirectoryClient::deviceUrl("10 47")), nilStop);
    EXPECT_DEATH(DirectoryClient::fetch("ftp://127.0.0.1/x"), nilStop);
    qputenv("QUORLIX_DIRECTORY_HOST",
            QStringLiteral("127.0.0.1:%1").arg(Testing::unusedPort()).toUtf8());
    EXPECT_DEATH(DirectoryClient::fetch(DirectoryClient::deviceUrl("1047")), nilStop);
}

} // namespace
