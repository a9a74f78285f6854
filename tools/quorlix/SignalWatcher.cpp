#include "SignalWatcher.h"

#include <QSocketNotifier>

#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace QuorlixTool {
namespace {

int pipeEnds[2] = {-1, -1};

// Only async-signal-safe work here: the loop reads the number from the other end.
void onSignal(int number)
{
    const unsigned char byte = static_cast<unsigned char>(number);
    [[maybe_unused]] const ssize_t written = ::write(pipeEnds[0], &byte, 1);
}

} // namespace

SignalWatcher::SignalWatcher()
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pipeEnds) != 0)
        return;
    m_notifier = new QSocketNotifier(pipeEnds[1], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, [this] {
        unsigned char byte = 0;
        if (::read(pipeEnds[1], &byte, 1) == 1)
            emit interrupted(byte);
    });
    struct sigaction action = {};
    action.sa_handler = &onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

SignalWatcher::~SignalWatcher()
{
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    delete m_notifier;
    for (int& end : pipeEnds) {
        if (end >= 0)
            ::close(end);
        end = -1;
    }
}

} // namespace QuorlixTool
