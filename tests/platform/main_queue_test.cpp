#include "quorlix/platform/MainQueue.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

#include <gtest/gtest.h>

using namespace Quorlix;

namespace {

int argc = 1;
char name[] = "platform_test";
char* argv[] = {name, nullptr};

void runUntil(const std::function<bool()>& done, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!done() && timer.elapsed() < timeoutMs)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
}

TEST(MainQueue, RunsActionsInDueOrderNeverEarly)
{
    QCoreApplication app(argc, argv);
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
    runUntil([&] { return ran.size() == 3; }, 2000);
    EXPECT_EQ(ran, (QStringList{"now", "negative", "late"}));
    EXPECT_GE(lateActionAt, 150);
}

TEST(MainQueue, ActionsScheduledFromAnotherThreadRunOnTheMainThread)
{
    QCoreApplication app(argc, argv);
    QThread* ranOn = nullptr;
    std::unique_ptr<QThread> worker(QThread::create(
        [&] { MainQueue::after(1'000'000, [&] { ranOn = QThread::currentThread(); }); }));
    worker->start();
    worker->wait();
    runUntil([&] { return ranOn != nullptr; }, 2000);
    EXPECT_EQ(ranOn, app.thread());
}

TEST(MainQueueDeathTest, WithoutAnApplicationThereIsNoMainQueue)
{
    ASSERT_EQ(QCoreApplication::instance(), nullptr);
    EXPECT_DEATH(MainQueue::after(0, [] {}),
                 "fatal error: unexpectedly found nil while unwrapping an Optional value");
}

} // namespace
