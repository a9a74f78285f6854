#pragma once

#include "quorlix/Export.h"

#include "quorlix/ui/PairDelegate.h"
#include "quorlix/ui/TableView.h"
#include "quorlix/ui/TableViewDataSource.h"

#include <QStringList>
#include <QWidget>

#include <memory>

class QLabel;
class QPushButton;

namespace Quorlix {

/// The screen on which the user picks the device to pair with: a title, a "Cancel" button and a
/// table with one row per entry of items. A choice or a cancel goes to delegate, then the screen
/// closes itself.
///
/// Owned by a std::shared_ptr and never by a QObject parent: present() shows it as a dialog window
/// of its own, modal to the host's window, and only links the two windows, so neither the host nor
/// Qt ever deletes it. It may be released while shown; it then simply disappears.
///
/// As a desktop window: the window manager keeps it over the host's window; closing it from the
/// window manager (title-bar button, Alt+F4) or pressing Escape is a cancelPair(); the list has the
/// focus first, and Return, Enter or Space pick its highlighted row as a click does.
class QUORLIX_EXPORT DeviceListViewController
    : public QWidget,
      public TableViewDataSource,
      public std::enable_shared_from_this<DeviceListViewController>
{
    Q_OBJECT
    Q_PROPERTY(QStringList items MEMBER items)

public:
    DeviceListViewController();
    ~DeviceListViewController() override;

    /// One row per text, in list order.
    QStringList items;
    /// The list; null until viewDidLoad() has run.
    TableView* table = nullptr;
    /// Receives the choice; held strongly.
    std::shared_ptr<PairDelegate> delegate;

    /// Builds the screen. Runs once, when the screen is first shown or loadViewIfNeeded() is first
    /// called, never in the constructor.
    Q_INVOKABLE virtual void viewDidLoad();
    /// The action of the "Cancel" button: reports "" to the delegate, logs, then closes.
    Q_INVOKABLE virtual void cancelPair(QObject* sender);
    int numberOfRowsInSection(int section) override;
    /// The text of the cell at indexPath: items at its row. Stops the process when the table is
    /// not loaded yet or the row is not in items.
    QString cellForRowAtIndexPath(const QModelIndex& indexPath) override;
    /// Reports items at row to the delegate (if any), then closes.
    void didSelectRowAtIndexPath(int row) override;

    void loadViewIfNeeded();
    bool isViewLoaded() const { return m_viewLoaded; }

    /// Shows the screen over host's window, modal to it; a null host shows it on its own.
    /// "animated" is accepted for the caller's sake and has no effect.
    void present(QWidget* host, bool animated = true);
    /// Closes the screen; it stays alive as long as someone holds it.
    void dismiss(bool animated = true);

protected:
    void showEvent(QShowEvent* event) override;
    void closeEvent(QCloseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    void releaseAfterEventIfLast();

    bool m_viewLoaded = false;
    QPushButton* m_cancelButton = nullptr;
};

} // namespace Quorlix
