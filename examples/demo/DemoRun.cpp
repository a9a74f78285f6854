#include "DemoRun.h"

#include "DemoWindow.h"

#include "quorlix/ui/DeviceListViewController.h"

#include <QAbstractItemView>
#include <QApplication>
#include <QDateTime>
#include <QMouseEvent>
#include <QPushButton>

namespace QuorlixDemo {

DemoRun::DemoRun(DemoWindow* window, Plan plan, QObject* parent)
    : QObject(parent)
    , m_window(window)
    , m_plan(std::move(plan))
{
    m_poll.setInterval(100);
    connect(&m_poll, &QTimer::timeout, this, &DemoRun::watchPairingScreen);
}

void DemoRun::start()
{
    if (m_plan.autoPair)
        QTimer::singleShot(m_plan.pairAfterMs, m_window, [this] {
            m_window->pair();
            m_pairStarted = true;
            m_poll.start();
        });
    else if (!m_plan.screenshots.isEmpty())
        m_poll.start(); // the user pairs; the screenshot is still taken when the list fills
    if (m_plan.seconds)
        QTimer::singleShot(*m_plan.seconds * 1000, this, [] { QCoreApplication::exit(0); });
}

void DemoRun::watchPairingScreen()
{
    QWidget* screen = m_window->pairingScreen();
    QAbstractItemView* list = screen ? screen->findChild<QAbstractItemView*>() : nullptr;
    if (!list || !screen->isVisible() || !list->model() || list->model()->rowCount() == 0) {
        m_listedSinceMs = -1;
        return;
    }
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    if (m_listedSinceMs < 0)
        m_listedSinceMs = now;
    if (now - m_listedSinceMs < m_plan.settleMs)
        return;
    if (!m_screenSaved) {
        saveScreenshot(screen, QStringLiteral("pairing-screen.png"));
        m_screenSaved = true;
    }
    if (m_pairStarted && !m_chosen) {
        m_chosen = true;
        choose();
    }
    if (m_screenSaved && (m_chosen || !m_plan.autoPair))
        m_poll.stop();
}

void DemoRun::choose()
{
    QWidget* screen = m_window->pairingScreen();
    if (m_plan.pick == DemoOptions::Pick::First) {
        // A real click on the first row, so the choice takes the user's path through the screen.
        auto* list = screen->findChild<QAbstractItemView*>();
        const QModelIndex first = list->model()->index(0, 0);
        list->scrollTo(first);
        const QPointF at = list->visualRect(first).center();
        const QPointF global = list->viewport()->mapToGlobal(at);
        m_window->logEvent(QStringLiteral("pick"),
                           QStringLiteral("first listed device, %1").arg(first.data().toString()));
        for (const QEvent::Type type : {QEvent::MouseButtonPress, QEvent::MouseButtonRelease}) {
            QMouseEvent click(type, at, global, Qt::LeftButton,
                              type == QEvent::MouseButtonPress ? Qt::LeftButton : Qt::NoButton,
                              Qt::NoModifier);
            QApplication::sendEvent(list->viewport(), &click);
        }
    } else if (m_plan.pick == DemoOptions::Pick::Cancel) {
        const auto buttons = screen->findChildren<QPushButton*>();
        for (QPushButton* button : buttons) {
            if (button->text() == QStringLiteral("Cancel")) {
                m_window->logEvent(QStringLiteral("pick"), QStringLiteral("Cancel"));
                button->click();
                break;
            }
        }
    }
}

void DemoRun::saveScreenshot(QWidget* widget, const QString& name)
{
    if (m_plan.screenshots.isEmpty())
        return;
    const QString path = QDir(m_plan.screenshots).absoluteFilePath(name);
    if (widget->grab().save(path, "PNG"))
        m_window->logEvent(QStringLiteral("shot"), path);
    else
        m_window->logEvent(QStringLiteral("error"), QStringLiteral("cannot write %1").arg(path));
}

void DemoRun::finish()
{
    if (m_finished)
        return;
    m_finished = true;
    saveScreenshot(m_window, QStringLiteral("main-window.png"));
    if (!m_plan.screenshots.isEmpty() && !m_screenSaved)
        m_window->logEvent(QStringLiteral("shot"),
                           QStringLiteral("no pairing-screen.png: no pairing listed a device "
                                          "during the run"));
    if (m_pairStarted && !m_chosen)
        m_window->logEvent(QStringLiteral("pair"),
                           QStringLiteral("no device was listed before the end of the run"));
    const DemoWindow::Counts counts = m_window->counts();
    const QString chosen = m_window->chosenKey();
    const QString stored = DemoWindow::describeKeys(m_window->storedKeys());
    m_window->logEvent(
        QStringLiteral("summary"),
        QStringLiteral("%1 entries, %2 exits, %3 ranging reports, chosen key %4, stored keys %5")
            .arg(counts.entries)
            .arg(counts.exits)
            .arg(counts.rangings)
            .arg(chosen.isEmpty() ? QStringLiteral("none") : chosen, stored));
}

} // namespace QuorlixDemo
