#include "quorlix/ui/DeviceListViewController.h"
#include "quorlix/platform/Log.h"

#include "StdoutCapture.h"

#include <QApplication>
#include <QImage>
#include <QLabel>
#include <QPointer>
#include <QPushButton>
#include <QTest>
#include <QWindow>

#include <gtest/gtest.h>

using namespace Quorlix;
using Quorlix::Testing::StdoutCapture;

namespace {

constexpr char nilStop[] = "fatal error: unexpectedly found nil while unwrapping an Optional value";
constexpr char indexStop[] = "fatal error: Index out of range";

// Logs what it hears, so that its place among the screen's own log lines shows.
class LoggingDelegate : public PairDelegate
{
public:
    QStringList heard;
    void itemPaired(const QString& item) override
    {
        heard << item;
        Log::line(QStringLiteral("delegate heard ") + item);
    }
};

class CountingScreen : public DeviceListViewController
{
public:
    int loads = 0;
    void viewDidLoad() override
    {
        ++loads;
        DeviceListViewController::viewDidLoad();
    }
};

QPushButton* cancelButton(DeviceListViewController& screen)
{
    return screen.findChild<QPushButton*>();
}

void clickRow(DeviceListViewController& screen, int row)
{
    const QRect cell = screen.table->visualRect(screen.table->model()->index(row, 0));
    ASSERT_TRUE(cell.isValid()) << "row " << row << " is not on screen";
    QTest::mouseClick(screen.table->viewport(), Qt::LeftButton, Qt::NoModifier, cell.center());
}

QStringList shownRows(const DeviceListViewController& screen)
{
    QStringList rows;
    const QAbstractItemModel* model = screen.table->model();
    for (int row = 0; row < model->rowCount(); ++row)
        rows << model->index(row, 0).data().toString();
    return rows;
}

} // namespace

TEST(DeviceListViewController, BuildsItsFixedLayoutOnceWhenFirstShown)
{
    CountingScreen screen;
    EXPECT_EQ(screen.loads, 0);
    EXPECT_EQ(screen.table, nullptr);

    screen.show();
    screen.hide();
    screen.show();
    screen.loadViewIfNeeded();
    EXPECT_EQ(screen.loads, 1);
    ASSERT_NE(screen.table, nullptr);

    const auto* label = screen.findChild<QLabel*>();
    const auto* button = cancelButton(screen);
    ASSERT_NE(label, nullptr);
    ASSERT_NE(button, nullptr);
    EXPECT_EQ(label->geometry(), QRect(10, 20, 200, 21));
    EXPECT_EQ(label->text(), "List of Nearby Devices");
    EXPECT_EQ(label->alignment(), Qt::AlignCenter);
    EXPECT_EQ(button->geometry(), QRect(200, 20, 100, 50));
    EXPECT_EQ(button->text(), "Cancel");
    EXPECT_EQ(screen.table->geometry(), QRect(0, 120, 300, 300));
    EXPECT_EQ(screen.table->parentWidget(), &screen);
    EXPECT_EQ(screen.palette().color(QPalette::Window), QColor(Qt::white));
}

TEST(DeviceListViewController, RowsFollowItemsAtEachReloadAndRenderOnWhite)
{
    DeviceListViewController screen;
    screen.show();
    EXPECT_TRUE(shownRows(screen).isEmpty());

    screen.items << "1047"
                 << "2002";
    screen.table->reloadData();
    EXPECT_EQ(shownRows(screen), QStringList({"1047", "2002"}));
    screen.items << "3100";
    screen.table->reloadData();
    ASSERT_EQ(shownRows(screen), QStringList({"1047", "2002", "3100"}));

    const QImage image = screen.grab().toImage();
    const QString file = QStringLiteral(QUORLIX_TEST_OUTPUT_DIR "/pairing-screen.png");
    ASSERT_TRUE(image.save(file)) << file.toStdString();
    EXPECT_EQ(image.size(), QSize(300, 420));
    // Between the title row and the table only the background shows.
    EXPECT_EQ(image.pixelColor(5, 100), QColor(Qt::white));
    EXPECT_TRUE(screen.table->visualRect(screen.table->model()->index(2, 0)).isValid());
}

struct ExitCase
{
    const char* name;
    int row; // -1: the Cancel button
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
    host.resize(400, 500);
    host.show();
    auto delegate = std::make_shared<LoggingDelegate>();
    auto screen = std::make_shared<DeviceListViewController>();
    screen->items << "1047"
                  << "1048"
                  << "2002";
    if (c.withDelegate)
        screen->delegate = delegate;
    screen->present(&host);
    ASSERT_TRUE(screen->isVisible());

    StdoutCapture capture;
    if (c.row < 0)
        QTest::mouseClick(cancelButton(*screen), Qt::LeftButton);
    else
        clickRow(*screen, c.row);
    EXPECT_EQ(capture.lines(), c.log);
    EXPECT_EQ(delegate->heard, c.heard);
    EXPECT_FALSE(screen->isVisible());
    EXPECT_TRUE(host.isVisible());
    // Closing keeps what the owner may still read.
    EXPECT_EQ(screen->items.size(), 3);
    EXPECT_EQ(screen->delegate != nullptr, c.withDelegate);
}

INSTANTIATE_TEST_SUITE_P(
    Clicks, DeviceListExit,
    testing::Values(ExitCase{"ThirdRow", 2, true, {"2002"}, {"delegate heard 2002"}},
                    ExitCase{"FirstRow", 0, true, {"1047"}, {"delegate heard 1047"}},
                    ExitCase{"RowWithoutDelegate", 1, false, {}, {}},
                    ExitCase{"Cancel", -1, true, {""}, {"delegate heard ", "canceling"}},
                    ExitCase{"CancelWithoutDelegate", -1, false, {}, {"canceling"}}),
    [](const testing::TestParamInfo<ExitCase>& info) { return std::string(info.param.name); });

TEST(DeviceListViewController, IsPresentedModalToTheHostWindowWithoutBeingItsChild)
{
    auto host = std::make_unique<QWidget>();
    host->show();
    auto screen = std::make_shared<DeviceListViewController>();
    screen->present(host.get());

    EXPECT_TRUE(screen->isVisible());
    EXPECT_TRUE(screen->isWindow());
    EXPECT_EQ(screen->parent(), nullptr);
    EXPECT_EQ(screen->windowModality(), Qt::WindowModal);
    ASSERT_NE(screen->windowHandle(), nullptr);
    EXPECT_EQ(screen->windowHandle()->transientParent(), host->windowHandle());

    // The host going away leaves the screen to its owner, still working.
    std::weak_ptr<DeviceListViewController> watch = screen;
    host.reset();
    QApplication::processEvents();
    ASSERT_FALSE(watch.expired());
    EXPECT_EQ(screen->windowHandle()->transientParent(), nullptr);
    StdoutCapture capture;
    QTest::mouseClick(cancelButton(*screen), Qt::LeftButton);
    EXPECT_EQ(capture.lines(), QStringList({"canceling"}));
}

TEST(DeviceListViewController, CanBeReleasedWhileShown)
{
    QWidget host;
    host.show();
    auto screen = std::make_shared<DeviceListViewController>();
    screen->present(&host);
    QPointer<DeviceListViewController> watch = screen.get();
    screen.reset();
    EXPECT_TRUE(watch.isNull());
    QApplication::processEvents();
    EXPECT_TRUE(host.isVisible());
}

// A delegate that drops the last other reference to the screen it hears from, as a host does
// when it forgets the screen in its completion.
class ReleasingDelegate : public PairDelegate
{
public:
    std::shared_ptr<DeviceListViewController> screen;
    void itemPaired(const QString&) override { screen.reset(); }
};

TEST(DeviceListViewController, SurvivesItsOwnerLettingGoDuringAClick)
{
    for (const int row : {0, -1}) {
        auto delegate = std::make_shared<ReleasingDelegate>();
        auto screen = std::make_shared<DeviceListViewController>();
        screen->items << "1047";
        screen->delegate = delegate;
        screen->show();
        delegate->screen = screen;
        std::weak_ptr<DeviceListViewController> watch = screen;
        DeviceListViewController& shown = *screen;
        screen.reset();

        if (row < 0)
            QTest::mouseClick(cancelButton(shown), Qt::LeftButton);
        else
            clickRow(shown, row);
        EXPECT_FALSE(watch.expired()) << "released inside its own click handler";
        QApplication::processEvents();
        EXPECT_TRUE(watch.expired()) << "never released";
    }
}

TEST(DeviceListViewControllerDeathTest, StopsOnACellBeforeTheTableOrBeyondItems)
{
    EXPECT_DEATH(
        {
            DeviceListViewController screen;
            screen.items << "1047";
            screen.cellForRowAtIndexPath(QModelIndex());
        },
        nilStop);
    EXPECT_DEATH(
        {
            DeviceListViewController screen;
            screen.items << "1047";
            screen.loadViewIfNeeded();
            const QModelIndex first = screen.table->model()->index(0, 0);
            // The list shrank after the table last reloaded.
            screen.items.clear();
            screen.cellForRowAtIndexPath(first);
        },
        indexStop);
}

TEST(DeviceListViewControllerDeathTest, SelectionReadsItemsOnlyForADelegate)
{
    DeviceListViewController alone;
    alone.show();
    alone.didSelectRowAtIndexPath(7);
    EXPECT_FALSE(alone.isVisible());

    EXPECT_DEATH(
        {
            DeviceListViewController screen;
            screen.delegate = std::make_shared<LoggingDelegate>();
            screen.items << "1047";
            screen.didSelectRowAtIndexPath(1);
        },
        indexStop);
}
