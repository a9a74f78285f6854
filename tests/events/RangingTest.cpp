#include "EventTestSupport.h"

#include "RecordingLocationManager.h"
#include "StdoutCapture.h"

#include <gtest/gtest.h>

using namespace Quorlix;
using namespace Quorlix::Testing;

namespace {

Beacon beacon(int rssi, int proximity)
{
    Beacon b;
    b.rssi = rssi;
    b.proximity = static_cast<Proximity>(proximity);
    return b;
}

class Ranging : public testing::Test
{
protected:
    void SetUp() override
    {
        CannedEventManager::majorMinor = "12-7";
        manager = VeskEventManager::create<CannedEventManager>("1047");
        manager->onRange(
            [this](const std::shared_ptr<VeskDevice>& device) { reports.push_back(device); });
        const auto unexpected = [this](const std::shared_ptr<VeskDevice>&) { ++otherCalls; };
        manager->onEntry(unexpected);
        manager->onExit(unexpected);
        manager->onUpdate(unexpected);
    }

    RecordingLocationManager::Installer locations;
    std::shared_ptr<VeskEventManager> manager;
    std::vector<std::shared_ptr<VeskDevice>> reports;
    int otherCalls = 0;
};

TEST_F(Ranging, ReportsTheFirstBeaconsSignalAndDistanceWord)
{
    struct Case
    {
        int rssi;
        int proximity;
        const char* rssiText;
        std::optional<QString> distance;
    };
    const Case cases[] = {{-59, 2, "-59", "Near"},      {-80, 3, "-80", "Far"},
                          {-40, 1, "-40", "Immediate"}, {0, 0, "0", "Unknown"},
                          {7, 4, "7", std::nullopt},    {-1, -1, "-1", std::nullopt}};
    StdoutCapture capture;
    for (const Case& c : cases) {
        reports.clear();
        locations.last->range({beacon(c.rssi, c.proximity), beacon(-30, 1), beacon(-31, 1)});
        ASSERT_EQ(reports.size(), 1u);
        VeskDevice expected;
        expected.rssi = QString::fromLatin1(c.rssiText);
        expected.distance = c.distance;
        EXPECT_EQ(*reports[0], expected) << c.rssi << " " << c.proximity;
    }
    EXPECT_TRUE(capture.lines().isEmpty());
    EXPECT_EQ(otherCalls, 0);
}

TEST_F(Ranging, EmptyReportsAndMissingHandlersDeliverNothingAndTouchNoState)
{
    locations.last->range({});
    EXPECT_TRUE(reports.empty());

    manager->filter(7);
    manager->cancelEnter = true;
    const QDateTime entered = QDateTime::currentDateTimeUtc();
    manager->lastEnter = entered;
    locations.last->range({beacon(-50, 2)});
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(manager->filterTime, 7);
    EXPECT_TRUE(manager->cancelEnter);
    EXPECT_EQ(manager->lastEnter, entered);

    manager->rangeHandler = nullptr;
    locations.last->range({beacon(-50, 2)});
    EXPECT_EQ(reports.size(), 1u);
}

TEST_F(Ranging, AHandlerMayReplaceItselfWhileRunning)
{
    int second = 0;
    manager->onRange([&](const std::shared_ptr<VeskDevice>&) {
        manager->onRange([&](const std::shared_ptr<VeskDevice>&) { ++second; });
        reports.push_back(nullptr);
    });
    locations.last->range({beacon(-50, 2)});
    locations.last->range({beacon(-50, 2)});
    EXPECT_EQ(reports.size(), 1u);
    EXPECT_EQ(second, 1);
}

} // namespace
