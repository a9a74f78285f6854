#pragma once

#include <QObject>

class QSocketNotifier;

namespace QuorlixTool {

/// Turns SIGINT and SIGTERM into a Qt signal on the event loop, so that a command ends cleanly
/// (a trace flushed, "offline" published) rather than being cut off.
class SignalWatcher : public QObject
{
    Q_OBJECT
public:
    SignalWatcher();
    ~SignalWatcher() override;

signals:
    void interrupted(int signalNumber);

private:
    QSocketNotifier* m_notifier = nullptr;
};

} // namespace QuorlixTool
