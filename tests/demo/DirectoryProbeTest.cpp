#include "DirectoryProbe.h"

#include "DirectoryProcess.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using Quorlix::Testing::DirectoryProcess;
using QuorlixDemo::DirectoryProbe;

namespace {

TEST(DirectoryProbe, MajorMinorFormIsWhatTheLibraryCanTurnIntoARegion)
{
    const struct
    {
        const char* text;
        bool usable;
    } cases[] = {
        {"12-7", true},     {"0-0", true},     {"65535-65535", true}, {"65536-1", false},
        {"1-65536", false}, {"012-7", false},  {"12-", false},        {"-7", false},
        {"12-7-1", false},  {"12 - 7", false}, {"", false},           {"a-b", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(DirectoryProbe::isMajorMinor(QString::fromUtf8(c.text)), c.usable) << c.text;
}

TEST(DirectoryProbe, ResolvesKnownDevicesAndExplainsTheOthers)
{
    QTemporaryDir dir;
    QFile devices(dir.filePath("devices.json"));
    ASSERT_TRUE(devices.open(QIODevice::WriteOnly));
    devices.write(R"([{"Key": 1047, "MajorMinor": "12-7"},
                      {"Key": 5, "MajorMinor": "12-x"},
                      {"Key": 6}])");
    devices.close();
    DirectoryProcess service(devices.fileName());
    const DirectoryProbe probe(service.host());

    const DirectoryProbe::Answer known = probe.lookUp("1047");
    EXPECT_TRUE(known.problem.isEmpty()) << known.problem.toStdString();
    EXPECT_EQ(known.majorMinor, "12-7");

    const struct
    {
        const char* id;
        const char* problemPart;
    } bad[] = {
        {"9999", "does not know device 9999"},
        {"5", "no usable \"MajorMinor\" in the directory (got '12-x')"},
        {"6", "no usable \"MajorMinor\""},
        {"10/47", "is not a device ID"},
        {"", "is not a device ID"},
    };
    for (const auto& c : bad) {
        const DirectoryProbe::Answer answer = probe.lookUp(QString::fromUtf8(c.id));
        EXPECT_TRUE(answer.problem.contains(QString::fromUtf8(c.problemPart)))
            << c.id << ": " << answer.problem.toStdString();
        EXPECT_TRUE(answer.reachable) << c.id;
    }
    // Only the well-formed IDs reached the service; "10/47" and "" never left the process.
    EXPECT_EQ(service.requests().size(), 4);
}

TEST(DirectoryProbe, UnreachableServiceIsNotMistakenForAnUnknownDevice)
{
    const QString host = QStringLiteral("127.0.0.1:%1").arg(Quorlix::Testing::unusedPort());
    const DirectoryProbe::Answer answer = DirectoryProbe(host).lookUp("1047");
    EXPECT_FALSE(answer.reachable);
    EXPECT_TRUE(answer.problem.contains("does not answer")) << answer.problem.toStdString();
    EXPECT_TRUE(answer.problem.contains(host));
}

} // namespace
