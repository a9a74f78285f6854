#pragma once

// A mosquitto broker on a loopback port for the command's tests, and what a new subscriber finds
// retained on it.

#include "ProgramRun.h"

#include <QDeadlineTimer>
#include <QMap>

#include <functional>

namespace Quorlix::Testing {

using Retained = QMap<QString, QByteArray>;

// Starts a mosquitto broker on a loopback port that keeps nothing over a restart (so whatever is
// retained afterwards was published again); returns once it listens.
inline void startBroker(QProcess& broker, const QStringList& arguments)
{
    broker.setProcessChannelMode(QProcess::MergedChannels);
    broker.start(QStringLiteral(QUORLIX_MOSQUITTO), arguments);
    for (QByteArray log; !log.contains(" running") && broker.waitForReadyRead(5000);)
        log += broker.readAll();
}

inline void startBroker(QProcess& broker, int port)
{
    startBroker(broker, {"-p", QString::number(port)});
}

// Waits (bounded) until what a new subscriber receives as retained satisfies done; returns the
// last messages seen, by topic.
inline Retained retainedWhen(int port, const std::function<bool(const Retained&)>& done)
{
    const QDeadlineTimer deadline(15000);
    Retained messages;
    do {
        QProcess subscriber;
        subscriber.start(QStringLiteral(QUORLIX_MOSQUITTO_SUB),
                         {"-p", QString::number(port), "-t", "quorlix/#", "-t", "homeassistant/#",
                          "-v", "--retained-only", "-W", "2"});
        subscriber.waitForFinished(5000);
        messages.clear();
        for (const QByteArray& line : subscriber.readAllStandardOutput().split('\n'))
            if (const qsizetype space = line.indexOf(' '); space > 0)
                messages[QString::fromUtf8(line.left(space))] = line.mid(space + 1);
    } while (!done(messages) && !deadline.hasExpired());
    return messages;
}

inline QJsonObject json(const Retained& messages, const QString& topic)
{
    return QJsonDocument::fromJson(messages.value(topic)).object();
}

} // namespace Quorlix::Testing
