#include "quorlix/service/DirectoryProbe.h"

#include "DirectoryProcess.h"
#include "Files.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

using Quorlix::DirectoryProbe;
using Quorlix::Testing::DirectoryProcess;

// What the probe says must match what the managers would do with the same answer: a device they
// would stop on has a problem, one they accept has its key and major-minor.
TEST(DirectoryProbe, AnswersWhatTheManagersWouldMakeOfTheDirectory)
{
    // The major-minor form the library can turn into a region.
    for (const char* good : {"12-7", "0-0", "65535-65535"})
        EXPECT_TRUE(DirectoryProbe::isMajorMinor(good)) << good;
    for (const char* bad :
         {"65536-1", "1-65536", "012-7", "12-", "-7", "12-7-1", "12 - 7", "", "a-b"})
        EXPECT_FALSE(DirectoryProbe::isMajorMinor(bad)) << bad;

    QTemporaryDir dir;
    DirectoryProcess service(Quorlix::Testing::writeFile(dir.path(), "devices.json", R"([
        {"Key": 1047, "MajorMinor": "12-7", "Info": "Front door"},
        {"Key": 2001, "MajorMinor": "300-1"},
        {"Key": 5, "MajorMinor": "12-x"}, {"Key": 6}, {"Key": 8, "MajorMinor": "bad"}])"));
    const DirectoryProbe probe(service.host());
    struct Case
    {
        const char* id;
        bool byBeacon;
        const char* problem; // empty: resolves
        const char* key;
    };
    const Case cases[] = {
        {"1047", false, "", "1047"},
        {"5", false, "no usable \"MajorMinor\" in the directory (got '12-x')", "5"},
        {"6", false, "no usable \"MajorMinor\"", "6"},
        {"9999", false, "does not know device 9999 (HTTP 404)", ""},
        {"10/47", false, "is not a device ID", ""},
        {"", false, "is not a device ID", ""},
        {"12-7", true, "", "1047"},
        {"300-1", true, "", "2001"},
        {"9-9", true, "knows no device with beacon 9-9", ""},
        {"12-x", true, "is not a beacon's major-minor", ""},
    };
    for (const Case& c : cases) {
        const QString id = QString::fromUtf8(c.id);
        const DirectoryProbe::Answer answer =
            c.byBeacon ? probe.lookUpMajorMinor(id) : probe.lookUp(id);
        SCOPED_TRACE(c.id);
        EXPECT_TRUE(answer.reachable);
        EXPECT_EQ(answer.key, QString::fromUtf8(c.key));
        if (*c.problem == '\0')
            EXPECT_TRUE(answer.problem.isEmpty()) << answer.problem.toStdString();
        else
            EXPECT_TRUE(answer.problem.contains(QString::fromUtf8(c.problem)))
                << answer.problem.toStdString();
    }
    EXPECT_EQ(probe.lookUp("1047").majorMinor, "12-7");
    EXPECT_EQ(probe.lookUp("1047").info, "Front door");
    // Only the well-formed IDs and beacons reached the service.
    EXPECT_EQ(service.requests().size(), 9);

    // An unreachable service is not mistaken for an unknown device.
    const QString host = QStringLiteral("127.0.0.1:%1").arg(Quorlix::Testing::unusedPort());
    const DirectoryProbe::Answer answer = DirectoryProbe(host).lookUpMajorMinor("12-7");
    EXPECT_FALSE(answer.reachable);
    EXPECT_TRUE(answer.problem.contains("does not answer") && answer.problem.contains(host))
        << answer.problem.toStdString();
}
