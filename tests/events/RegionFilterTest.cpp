#include "EventTestSupport.h"

#include "RecordingLocationManager.h"
#include "StdoutCapture.h"

#include <gtest/gtest.h>

using namespace Quorlix;
using namespace Quorlix::Testing;

namespace {

class RegionFilter : public testing::Test
{
protected:
    void SetUp() override
    {
        CannedEventManager::majorMinor = "12-7";
        manager = VeskEventManager::create<CannedEventManager>("1047");
        location = locations.last;
        manager->onEntry([this](const std::shared_ptr<VeskDevice>& device) {
            calls << "entry";
            devices.push_back(device);
        });
        manager->onExit([this](const std::shared_ptr<VeskDevice>& device) {
            calls << "exit";
            devices.push_back(device);
        });
    }

    RecordingLocationManager::Installer locations;
    std::shared_ptr<VeskEventManager> manager;
    std::shared_ptr<RecordingLocationManager> location;
    QStringList calls;
    std::vector<std::shared_ptr<VeskDevice>> devices;
};

TEST_F(RegionFilter, WithoutAFilterEveryReportIsDeliveredOnTheNextTurn)
{
    StdoutCapture capture;
    location->enter();
    location->enter();
    EXPECT_TRUE(calls.isEmpty()) << "handlers must not run inside the location callback";
    runUntil([&] { return calls.size() == 2; }, 1000);
    EXPECT_EQ(calls, (QStringList{"entry", "entry"}));
    EXPECT_EQ(capture.lines(),
              (QStringList{"got enter from cl", "entering", "got enter from cl", "entering"}));
    // Each call gets a fresh, empty record.
    ASSERT_EQ(devices.size(), 2u);
    EXPECT_NE(devices[0], devices[1]);
    EXPECT_EQ(*devices[0], VeskDevice{});
    EXPECT_EQ(*devices[1], VeskDevice{});
}

TEST_F(RegionFilter, AFilterDelaysTheHandlerAndDropsRepeatsUntilTheHostReopensIt)
{
    manager->filter(1);
    StdoutCapture capture;
    location->enter();
    const QDateTime accepted = manager->lastEnter;
    ASSERT_TRUE(accepted.isValid());
    runFor(600);
    EXPECT_TRUE(calls.isEmpty()) << "delivered before the filter interval";
    runUntil([&] { return !calls.isEmpty(); }, 2000);
    EXPECT_EQ(calls, QStringList{"entry"});

    // Long after the delay it still counts as a repeat: the threshold is in nanoseconds.
    location->enter();
    EXPECT_EQ(manager->lastEnter, accepted);

    manager->lastEnter = QDateTime();
    location->enter();
    runUntil([&] { return calls.size() == 2; }, 2000);
    EXPECT_EQ(calls, (QStringList{"entry", "entry"}));
    EXPECT_EQ(capture.lines(), (QStringList{"got enter from cl", "entering", "got enter from cl",
                                            "duplicate enter", "got enter from cl", "entering"}));
}

TEST_F(RegionFilter, EntryAndExitAreFilteredIndependentlyAndTheFlagsCancelNothing)
{
    manager->filter(1);
    location->enter();
    EXPECT_TRUE(manager->cancelExit);
    EXPECT_FALSE(manager->cancelEnter);
    location->exit();
    EXPECT_TRUE(manager->cancelEnter);
    EXPECT_TRUE(manager->lastExit.isValid());
    runUntil([&] { return calls.size() == 2; }, 3000);
    EXPECT_EQ(calls, (QStringList{"entry", "exit"}));
    EXPECT_FALSE(manager->cancelEnter);
    EXPECT_FALSE(manager->cancelExit);
    EXPECT_TRUE(manager->lastEnter.isValid()) << "an exit must not clear the last entry";
}

TEST_F(RegionFilter, AReportAfterTheClockWentBackIsARepeat)
{
    manager->lastExit = QDateTime::currentDateTimeUtc().addSecs(3600);
    StdoutCapture capture;
    location->exit();
    EXPECT_EQ(capture.lines(), (QStringList{"got exit from cl", "duplicate exit"}));
    runFor(50);
    EXPECT_TRUE(calls.isEmpty());
}

TEST_F(RegionFilter, APendingActionKeepsTheManagerAliveAndUsesTheHandlerCurrentWhenItRuns)
{
    location->enter();
    location->exit();
    QStringList late;
    manager->onExit([&](const std::shared_ptr<VeskDevice>&) { late << "replaced exit"; });
    const std::weak_ptr<VeskEventManager> watched = manager;
    manager.reset();
    EXPECT_FALSE(watched.expired());
    runUntil([&] { return watched.expired(); }, 1000);
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(calls, QStringList{"entry"});
    EXPECT_EQ(late, QStringList{"replaced exit"});
}

TEST_F(RegionFilter, NegativeFilterMeansNoDelayAndNoRepeats)
{
    manager->filter(-5);
    location->enter();
    location->enter();
    runUntil([&] { return calls.size() == 2; }, 1000);
    EXPECT_EQ(calls.size(), 2);
}

TEST_F(RegionFilter, OverflowingFiltersStop)
{
    manager->filter(9300000000);
    EXPECT_DEATH(location->enter(), "fatal error: floating point value can not be converted to "
                                    "Int64 because it is greater than Int64.max");
    manager->filter(-9300000000);
    EXPECT_DEATH(location->exit(), "less than Int64.min");
    // Once an entry was accepted the threshold itself overflows, without a message.
    manager->filter(9300000000);
    manager->lastEnter = QDateTime::currentDateTimeUtc();
    EXPECT_DEATH(location->enter(), "^$");
}

} // namespace
