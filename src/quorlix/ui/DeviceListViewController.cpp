#include "quorlix/ui/DeviceListViewController.h"

#include "quorlix/platform/Fatal.h"
#include "quorlix/platform/Log.h"

#include <QCloseEvent>
#include <QCoreApplication>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QLabel>
#include <QPalette>
#include <QPushButton>
#include <QTimer>
#include <QWindow>

namespace Quorlix {

DeviceListViewController::DeviceListViewController()
{
    // A window of its own, never a child: the shared_ptr is its only owner. A dialog, because Qt's
    // X11 backend writes WM_TRANSIENT_FOR (which makes the window manager place the screen over
    // the host and keep it above) only for dialog-type windows. It asks for a title and a close
    // button only: a modal list has nothing to minimise or maximise.
    setWindowFlags(Qt::Dialog | Qt::CustomizeWindowHint | Qt::WindowTitleHint |
                   Qt::WindowCloseButtonHint);
    setWindowTitle(QStringLiteral("List of Nearby Devices"));
    setFixedSize(300, 420);

    // A window manager may give the focus to the host when the user clicks it (openbox does),
    // where Qt then drops every key; the keyboard belongs to the screen while it is up.
    connect(qGuiApp, &QGuiApplication::focusWindowChanged, this, [this](QWindow* focused) {
        if (focused != nullptr && isVisible() && windowModality() != Qt::NonModal &&
            focused == windowHandle()->transientParent())
            activateWindow();
    });
}

DeviceListViewController::~DeviceListViewController()
{
    // The table is destroyed after this body; it must not ask a half-destroyed screen for rows.
    if (table != nullptr)
        table->setDataSource(nullptr);
}

void DeviceListViewController::loadViewIfNeeded()
{
    if (m_viewLoaded)
        return;
    m_viewLoaded = true;
    viewDidLoad();
}

void DeviceListViewController::showEvent(QShowEvent* event)
{
    loadViewIfNeeded();
    QWidget::showEvent(event);
    if (table != nullptr)
        table->setFocus(Qt::OtherFocusReason);
}

// A close that the window system asks for (title-bar button, Alt+F4) is the user leaving the
// screen without a choice, so the host hears of it as of a Cancel. Only that close is spontaneous:
// the screen's own dismissal after a choice or a cancel, and a host closing its windows, are not
// and report nothing. The dismissal inside cancelPair() finds this close under way and leaves it.
void DeviceListViewController::closeEvent(QCloseEvent* event)
{
    if (event->spontaneous())
        cancelPair(m_cancelButton);
    QWidget::closeEvent(event);
}

void DeviceListViewController::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_Escape && event->modifiers() == Qt::NoModifier)
        return cancelPair(m_cancelButton);
    QWidget::keyPressEvent(event);
}

void DeviceListViewController::viewDidLoad()
{
    QPalette background = palette();
    background.setColor(QPalette::Window, Qt::white);
    setPalette(background);
    setAutoFillBackground(true);

    auto* label = new QLabel(this);
    label->setGeometry(10, 20, 200, 21);
    label->setAlignment(Qt::AlignCenter);
    label->setText(QStringLiteral("List of Nearby Devices"));
    label->show();

    auto* button = m_cancelButton = new QPushButton(this);
    button->setGeometry(200, 20, 100, 50);
    button->setText(QStringLiteral("Cancel"));
    // A borderless text button in the accent colour, as a system button looks.
    button->setFlat(true);
    QPalette accent = button->palette();
    accent.setColor(QPalette::ButtonText, QColor(0, 122, 255));
    button->setPalette(accent);
    // Return presses it when it has the focus, as it does a dialog's buttons.
    button->setAutoDefault(true);
    connect(button, &QPushButton::clicked, this, [this, button] { cancelPair(button); });
    button->show();

    table = new TableView(this);
    table->setGeometry(0, 120, 300, 300);
    table->setDataSource(this);
    table->show();
}

void DeviceListViewController::cancelPair(QObject*)
{
    const auto self = weak_from_this().lock();
    if (delegate)
        delegate->itemPaired(QString());
    Log::line(QStringLiteral("canceling"));
    dismiss();
    releaseAfterEventIfLast();
}

int DeviceListViewController::numberOfRowsInSection(int)
{
    return static_cast<int>(items.size());
}

QString DeviceListViewController::cellForRowAtIndexPath(const QModelIndex& indexPath)
{
    if (table == nullptr)
        Fatal::noTable();
    const int row = indexPath.row();
    if (row < 0 || row >= items.size())
        Fatal::indexOutOfRange();
    return items.at(row);
}

void DeviceListViewController::didSelectRowAtIndexPath(int row)
{
    const auto self = weak_from_this().lock();
    if (delegate) {
        if (row < 0 || row >= items.size())
            Fatal::indexOutOfRange();
        delegate->itemPaired(items.at(row));
    }
    dismiss();
    releaseAfterEventIfLast();
}

void DeviceListViewController::present(QWidget* host, bool)
{
    if (host != nullptr) {
        // Linking the native windows makes the screen modal to the host without making the host
        // its QObject parent (which would delete it behind its owner's back).
        QWidget* hostWindow = host->window();
        hostWindow->winId();
        winId();
        windowHandle()->setTransientParent(hostWindow->windowHandle());
        setWindowModality(Qt::WindowModal);
    } else {
        if (windowHandle() != nullptr)
            windowHandle()->setTransientParent(nullptr);
        setWindowModality(Qt::NonModal);
    }
    show();
    activateWindow();
}

void DeviceListViewController::dismiss(bool)
{
    close();
}

// The delegate may have dropped the last other reference to this screen while it was told of the
// choice. The screen is then still running a click handler of its own button or table, so the
// final release is put off until control is back in the event loop.
void DeviceListViewController::releaseAfterEventIfLast()
{
    auto self = weak_from_this().lock();
    // Two holders: this local and the one taken at the start of the calling operation.
    if (self && self.use_count() == 2 && QCoreApplication::instance() != nullptr)
        QTimer::singleShot(0, QCoreApplication::instance(), [self] {});
}

} // namespace Quorlix
