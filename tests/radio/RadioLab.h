#pragma once

// What the lab's tests share inside the guest: labctl.sh to change the world, and a listener that
// timestamps every sighting of a BlueZ source so that rates and silences can be read back.

#include "EventLoop.h"

#include "quorlix/location/Sighting.h"
#include "quorlix/location/sources/BlueZSource.h"

#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusReply>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QStringList>

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace Quorlix::Testing {

/// Runs labctl.sh with these arguments; a failure fails the test with labctl's words.
inline void labctl(const QStringList& arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral(QUORLIX_LABCTL), arguments);
    const bool finished = process.waitForFinished(120'000);
    ASSERT_TRUE(finished && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0)
        << "labctl " << arguments.join(' ').toStdString() << ": "
        << process.readAll().toStdString();
}

/// How many adverts the lab's advertiser has sent so far (counted once a second).
inline qint64 advertsSent()
{
    QFile file(QStringLiteral("/run/lab/sent"));
    return file.open(QIODevice::ReadOnly) ? file.readAll().trimmed().toLongLong() : 0;
}

/// The address of adapter hciN as bluetoothd reports it ("00:AA:01:01:00:01").
inline QByteArray adapterAddress(int index)
{
    QDBusInterface adapter(QStringLiteral("org.bluez"),
                           QStringLiteral("/org/bluez/hci%1").arg(index),
                           QStringLiteral("org.bluez.Adapter1"), QDBusConnection::systemBus());
    return adapter.property("Address").toString().toLatin1();
}

/// Scans with a BlueZ source and keeps when (ms since start) each sighting arrived.
class Listener
{
public:
    struct Heard
    {
        qint64 ms;
        Sighting sighting;
    };

    explicit Listener(
        std::chrono::milliseconds restartInterval = BlueZSource::defaultRestartInterval)
    {
        m_clock.start();
        m_source.setRestartInterval(restartInterval);
        m_source.setSink([this](const Sighting& s) { heard.push_back({m_clock.elapsed(), s}); });
        m_source.setScanning(true);
    }
    ~Listener() { m_source.setScanning(false); }

    qint64 now() const { return m_clock.elapsed(); }

    /// Sightings from receiver (any when empty) of minor (any when negative) since fromMs.
    std::vector<Heard> since(qint64 fromMs, const QByteArray& receiver = {}, int minor = -1) const
    {
        std::vector<Heard> out;
        for (const Heard& h : heard)
            if (h.ms >= fromMs && (receiver.isEmpty() || h.sighting.receiver == receiver) &&
                (minor < 0 || h.sighting.minor == minor))
                out.push_back(h);
        return out;
    }

    /// Runs the event loop until receiver hears something after fromMs; ms it took, or -1.
    qint64 heardAgain(qint64 fromMs, const QByteArray& receiver, int timeoutMs)
    {
        runUntil([&] { return !since(fromMs, receiver).empty(); }, timeoutMs);
        const auto after = since(fromMs, receiver);
        return after.empty() ? -1 : after.front().ms - fromMs;
    }

    /// The longest stretch in [fromMs, toMs] without a sighting from receiver.
    qint64 longestSilence(qint64 fromMs, qint64 toMs, const QByteArray& receiver) const
    {
        qint64 last = fromMs, longest = 0;
        for (const Heard& h : since(fromMs, receiver)) {
            if (h.ms > toMs)
                break;
            longest = std::max(longest, h.ms - last);
            last = h.ms;
        }
        return std::max(longest, toMs - last);
    }

    std::vector<Heard> heard;

private:
    QElapsedTimer m_clock;
    BlueZSource m_source;
};

} // namespace Quorlix::Testing
