#include "DirectoryProbe.h"

#include "DirectoryProcess.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using Quorlix::Testing::DirectoryProcess;
using QuorlixDemo::DirectoryProbe;

namespace {

TEST(DirectoryProbe, ResolvesKnownDevicesAndExplainsTheOthers)
{
    // The major-minor form the library can turn into a region.
    for (const char* good : {"12-7", "0-0", "65535-65535"})
        EXPECT_TRUE(DirectoryProbe::isMajorMinor(good)) << good;
    for (const char* bad :
         {"65536-1", "1-65536", "012-7", "12-", "-7", "12-7-1", "12 - 7", "", "a-b"})
        EXPECT_FALSE(DirectoryProbe::isMajorMinor(bad)) << bad;

    QTemporaryDir dir;
    QFile devices(dir.filePath("devices.json"));
    ASSERT_TRUE(devices.open(QIODevice::WriteOnly));
    devices.write(R"([{"Key": 1047, "MajorMinor": "12-7"}, {"Key": 5, "MajorMinor": "12-x"},
                      {"Key": 6}])");
    devices.close();
    DirectoryProcess service(devices.fileName());
    const DirectoryProbe probe(service.host());
    const DirectoryProbe::Answer known = probe.lookUp("1047");
    EXPECT_TRUE(known.problem.isEmpty()) << known.problem.toStdString();
    EXPECT_EQ(known.majorMinor, "12-7");
    const std::pair<const char*, const char*> bad[] = {
        {"9999", "does not know device 9999"},
        {"5", "no usable \"MajorMinor\" in the directory (got '12-x')"},
        {"6", "no usable \"MajorMinor\""},
        {"10/47", "is not a device ID"},
        {"", "is not a device ID"}};
    for (const auto& [id, problem] : bad) {
        const DirectoryProbe::Answer answer = probe.lookUp(QString::fromUtf8(id));
        EXPECT_TRUE(answer.problem.contains(QString::fromUtf8(problem)) && answer.reachable)
            << id << ": " << answer.problem.toStdString();
    }
    // Only the well-formed IDs reached the service.
    EXPECT_EQ(service.requests().size(), 4);

    // An unreachable service is not mistaken for an unknown device.
    const QString host = QStringLiteral("127.0.0.1:%1").arg(Quorlix::Testing::unusedPort());
    const DirectoryProbe::Answer answer = DirectoryProbe(host).lookUp("1047");
    EXPECT_FALSE(answer.reachable);
    EXPECT_TRUE(answer.problem.contains("does not answer") && answer.problem.contains(host))
        << answer.problem.toStdString();
}

} // namespace
