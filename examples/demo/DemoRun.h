#pragma once

#include "DemoOptions.h"

#include <QDir>
#include <QObject>
#include <QTimer>

namespace QuorlixDemo {

class DemoWindow;

/// The timed part of a run: in a headless run, the pairing started after a few seconds and the
/// automatic choice on the list screen; in every run, the stop after --seconds with a closing
/// summary, and the screenshots: the pairing screen's once a pairing lists a device (a headless
/// run pairs by itself; on a display, when the user pairs), the main window's at the end.
class DemoRun : public QObject
{
    Q_OBJECT

public:
    struct Plan
    {
        bool autoPair = false;
        DemoOptions::Pick pick = DemoOptions::Pick::None;
        int pairAfterMs = 3000;
        /// How long the list must show a device before the screenshot and the choice, so that
        /// the picture shows what the user would see.
        int settleMs = 1500;
        std::optional<int> seconds;
        QString screenshots; ///< directory; empty for none
    };

    DemoRun(DemoWindow* window, Plan plan, QObject* parent = nullptr);

    void start();
    /// Writes the main window's screenshot (if asked) and prints the summary.
    void finish();

private:
    void watchPairingScreen();
    void saveScreenshot(QWidget* widget, const QString& name);
    void choose();

    DemoWindow* m_window;
    Plan m_plan;
    QTimer m_poll;
    qint64 m_listedSinceMs = -1;
    bool m_pairStarted = false;
    bool m_screenSaved = false;
    bool m_chosen = false;
    bool m_finished = false;
};

} // namespace QuorlixDemo
