#include "quorlix/platform/MainQueue.h"

#include "EventLoop.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

#include <gtest/gtest.h>

using namespace Quorlix;

namespace {

TEST(MainQueue, RunsActionsInDueOrderNeverEarly)
{
    QStringList ran;
    QElapsedTimer clock;
    clock.start();
    qint64 lateActionAt = -1;
    MainQueue::after(150'000'000, [&] {
        ran << "late";
        lateActionAt = clock.elapsed();
    });
    MainQueue::after(0, [&] { ran << "now"; });
    MainQueue::after(-5, [&] { ran << "negative"; });
    // Not run synchronously: the caller always returns first.
    EXPECT_TRUE(ran.isEmpty());
    Testing::runUntil([&] { return ran.size() == 3; }, 2000);
    EXPECT_EQ(ran, (QStringList{"now", "negative", "late"}));
    EXPECT_GE(lateActionAt, 150);
}

TEST(MainQueue, ActionsScheduledFromAnotherThreadRunOnTheMainThread)
{
    QThread* ranOn = nullptr;
    std::unique_ptr<QThread> worker(QThread::create(
        [&] { MainQueue::after(1'000'000, [&] { ranOn = QThread::currentThread(); }); }));
    worker->start();
    worker->wait();
    Testing::runUntil([&] { return ranOn != nullptr; }, 2000);
    EXPECT_EQ(ranOn, qApp->thread());
}

TEST(MainQueueDeathTest, WithoutAnApplicationThereIsNoMainQueue)
{
    qputenv("QUORLIX_TEST_NO_APPLICATION", "1");
    EXPECT_DEATH(MainQueue::after(0, [] {}),
                 "fatal error: unexpectedly found nil while unwrapping an Optional value");
    qunsetenv("QUORLIX_TEST_NO_APPLICATION");
}

} // namespace
