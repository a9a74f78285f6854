#include "quorlix/ui/DeviceListViewController.h"
#include "quorlix/platform/Log.h"

#include "StdoutCapture.h"

#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include <QTest>
#include <QWindow>

#include <gtest/gtest.h>

using namespace Quorlix;
using Quorlix::Testing::StdoutCapture;

namespace {

// Logs what it hears, so that its place among the screen's own log lines shows.
struct LoggingDelegate : PairDelegate
{
    QStringList heard;
    void itemPaired(const QString& item) override
    {
        heard << item;
        Log::line("delegate heard " + item);
    }
};

struct CountingScreen : DeviceListViewController
{
    int loads = 0;
    void viewDidLoad() override
    {
        ++loads;
        DeviceListViewController::viewDidLoad();
    }
};

void click(DeviceListViewController& screen, int row) // -1: the Cancel button
{
    if (row < 0)
        return QTest::mouseClick(screen.findChild<QPushButton*>(), Qt::LeftButton);
    const QRect cell = screen.table->visualRect(screen.table->model()->index(row, 0));
    QTest::mouseClick(screen.table->viewport(), Qt::LeftButton, {}, cell.center());
}

} // namespace

TEST(DeviceListViewController, BuildsItsFixedLayoutOnceWhenFirstShown)
{
    CountingScreen screen;
    EXPECT_EQ(screen.table, nullptr);
    screen.show();
    screen.hide();
    screen.show();
    screen.loadViewIfNeeded();
    EXPECT_EQ(screen.loads, 1);
    ASSERT_NE(screen.table, nullptr);
    const auto* label = screen.findChild<QLabel*>();
    const auto* button = screen.findChild<QPushButton*>();
    EXPECT_EQ(label->geometry(), QRect(10, 20, 200, 21));
    EXPECT_EQ(label->text(), "List of Nearby Devices");
    EXPECT_EQ(label->alignment(), Qt::AlignCenter);
    EXPECT_EQ(button->geometry(), QRect(200, 20, 100, 50));
    EXPECT_EQ(button->text(), "Cancel");
    EXPECT_EQ(screen.table->geometry(), QRect(0, 120, 300, 300));
}

TEST(DeviceListViewController, RowsFollowItemsAtEachReload)
{
    DeviceListViewController screen;
    screen.show();
    screen.items << "1047"
                 << "2002"
                 << "3100";
    screen.table->reloadData();
    ASSERT_EQ(screen.table->model()->rowCount(), 3);
    EXPECT_EQ(screen.table->model()->index(2, 0).data(), "3100");

    const QImage image = screen.grab().toImage();
    ASSERT_TRUE(image.save(QUORLIX_TEST_OUTPUT_DIR "/pairing-screen.png"));
    // Between the title row and the table only the background shows.
    EXPECT_EQ(image.pixelColor(5, 100), QColor(Qt::white));
}

struct ExitCase
{
    const char* name;
    int row;
    bool withDelegate;
    QStringList heard;
    QStringList log;
};

void PrintTo(const ExitCase& c, std::ostream* out)
{
    *out << c.name;
}

class DeviceListExit : public testing::TestWithParam<ExitCase>
{};

TEST_P(DeviceListExit, ReportsToTheDelegateThenCloses)
{
    const ExitCase& c = GetParam();
    QWidget host;
    host.show();
    auto delegate = std::make_shared<LoggingDelegate>();
    auto screen = std::make_shared<DeviceListViewController>();
    screen->items << "1047"
                  << "1048"
                  << "2002";
    if (c.withDelegate)
        screen->delegate = delegate;
    screen->present(&host);

    StdoutCapture capture;
    click(*screen, c.row);
    EXPECT_EQ(capture.lines(), c.log);
    EXPECT_EQ(delegate->heard, c.heard);
    EXPECT_FALSE(screen->isVisible());
    EXPECT_TRUE(host.isVisible());
}

INSTANTIATE_TEST_SUITE_P(
    Clicks, DeviceListExit,
    testing::Values(ExitCase{"ThirdRow", 2, true, {"2002"}, {"delegate heard 2002"}},
                    ExitCase{"RowWithoutDelegate", 1, false, {}, {}},
                    ExitCase{"Cancel", -1, true, {""}, {"delegate heard ", "canceling"}},
                    ExitCase{"CancelWithoutDelegate", -1, false, {}, {"canceling"}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(DeviceListViewController, IsModalToTheHostWindowButOwnedOnlyByItsSharedPtr)
{
    auto host = std::make_unique<QWidget>();
    host->show();
    auto screen = std::make_shared<DeviceListViewController>();
    screen->present(host.get());
    EXPECT_EQ(screen->parent(), nullptr);
    EXPECT_EQ(screen->windowModality(), Qt::WindowModal);
    EXPECT_EQ(screen->windowHandle()->transientParent(), host->windowHandle());

    host.reset();
    StdoutCapture capture;
    click(*screen, -1);
    EXPECT_EQ(capture.lines(), QStringList({"canceling"}));
}

// Drops the last other reference to the screen when told, as a host forgetting it may.
struct ReleasingDelegate : PairDelegate
{
    std::shared_ptr<DeviceListViewController> screen;
    void itemPaired(const QString&) override { screen.reset(); }
};

TEST(DeviceListViewController, OutlivesItsOwnClickHandlerWhenReleasedDuringIt)
{
    for (const int row : {0, -1}) {
        auto delegate = std::make_shared<ReleasingDelegate>();
        delegate->screen = std::make_shared<DeviceListViewController>();
        delegate->screen->items << "1047";
        delegate->screen->delegate = delegate;
        delegate->screen->show();
        std::weak_ptr<DeviceListViewController> watch = delegate->screen;
        click(*delegate->screen, row);
        EXPECT_FALSE(watch.expired());
        QApplication::processEvents();
        EXPECT_TRUE(watch.expired());
    }
}

TEST(DeviceListViewControllerDeathTest, StopsOnMissingTableOrRowBeyondItems)
{
    const char* nilStop = "fatal error: unexpectedly found nil while unwrapping an Optional value";
    const char* indexStop = "fatal error: Index out of range";
    DeviceListViewController screen;
    screen.items << "1047";
    EXPECT_DEATH(screen.cellForRowAtIndexPath({}), nilStop);
    screen.loadViewIfNeeded();
    const QModelIndex first = screen.table->model()->index(0, 0);
    screen.items.clear(); // shrank after the table last reloaded
    EXPECT_DEATH(screen.cellForRowAtIndexPath(first), indexStop);

    screen.didSelectRowAtIndexPath(3); // without a delegate the list is not read
    screen.delegate = std::make_shared<LoggingDelegate>();
    EXPECT_DEATH(screen.didSelectRowAtIndexPath(0), indexStop);
}
