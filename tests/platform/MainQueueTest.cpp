#include "quorlix/platform/MainQueue.h"

#include "EventLoop.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

#include <gtest/gtest.h>

using namespace Quorlix;

namespace {

// Delays are rounded up to whole milliseconds, so that nothing runs early: 1 ns waits for a
// timer of 1 ms (after the 0 ms actions), 149'000'001 ns for the same 150 ms as 150'000'000.
// Actions scheduled from another thread run on the main thread.
TEST(MainQueue, RunsActionsInDueOrderNeverEarlyOnTheMainThread)
{
    QStringList ran;
    // The worker's timer starts when the main thread takes it over, in the loop below; the others
    // start right before that however long the worker took on a loaded machine.
    std::unique_ptr<QThread> worker(QThread::create([&] {
        MainQueue::after(50'000'000, [&] {
            ran << (QThread::currentThread() == qApp->thread() ? "main" : "other");
        });
    }));
    worker->start();
    worker->wait();
    QElapsedTimer clock;
    clock.start();
    qint64 lateActionAt = -1;
    MainQueue::after(150'000'000, [&] {
        ran << "150 ms";
        lateActionAt = clock.elapsed();
    });
    MainQueue::after(149'000'001, [&] { ran << "149.000001 ms"; });
    MainQueue::after(1, [&] { ran << "1 ns"; });
    MainQueue::after(0, [&] { ran << "now"; });
    Testing::runUntil([&] { return ran.size() == 5; }, 2000);
    EXPECT_EQ(ran, (QStringList{"now", "1 ns", "main", "150 ms", "149.000001 ms"}));
    EXPECT_GE(lateActionAt, 150);
}

TEST(MainQueueDeathTest, WithoutAnApplicationThereIsNoMainQueue)
{
    qputenv("QUORLIX_TEST_NO_APPLICATION", "1");
    EXPECT_DEATH(MainQueue::after(0, [] {}),
                 "fatal error: unexpectedly found nil while unwrapping an Optional value");
    qunsetenv("QUORLIX_TEST_NO_APPLICATION");
}

} // namespace
