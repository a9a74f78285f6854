#include "DemoWindow.h"

#include "quorlix/Quorlix.h"
#include "quorlix/pairing/VeskDeviceManager.h"
#include "quorlix/platform/UserDefaults.h"
#include "quorlix/ui/DeviceListViewController.h"

#include <QFontDatabase>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPointer>
#include <QPushButton>
#include <QScreen>
#include <QSpinBox>
#include <QTimer>
#include <QVBoxLayout>

#include <cstdio>

namespace QuorlixDemo {
namespace {

QString orNone(const std::optional<QString>& text)
{
    return text ? *text : QStringLiteral("(none)");
}

} // namespace

DemoWindow::DemoWindow(const Setup& setup, QWidget* parent)
    : QWidget(parent)
    , m_probe(setup.directoryHost)
    , m_exitPeriod(setup.exitPeriod)
{
    m_clock.start();
    setWindowTitle(QStringLiteral("Quorlix demo"));

    auto* title = new QLabel(QStringLiteral("<b>Quorlix demo</b>"));
    auto* where = new QLabel(QStringLiteral("Directory: %1<br>Beacons: %2")
                                 .arg(setup.directoryDescription.toHtmlEscaped(),
                                      setup.sourceDescription.toHtmlEscaped()));
    where->setTextInteractionFlags(Qt::TextSelectableByMouse);
    // A long scenario path must not set the window's minimum width; the tooltip has it whole.
    where->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    where->setToolTip(QStringLiteral("Directory: %1\nBeacons: %2")
                          .arg(setup.directoryDescription, setup.sourceDescription));

    m_deviceField = new QLineEdit(setup.device);
    m_deviceField->setPlaceholderText(QStringLiteral("device ID, e.g. 1047"));
    m_deviceField->setMinimumWidth(
        m_deviceField->fontMetrics().horizontalAdvance(QStringLiteral("0000000000")));
    m_filterField = new QSpinBox;
    m_filterField->setRange(0, 3600);
    m_filterField->setSuffix(QStringLiteral(" s"));
    m_filterField->setValue(setup.filter);
    m_filterField->setToolTip(QStringLiteral(
        "Delay of entry and exit reports. From 1 s up, a repeated entry or exit is held back until "
        "the filter is reopened."));
    auto* watchButton = new QPushButton(QStringLiteral("Watch"));
    auto* reopenButton = new QPushButton(QStringLiteral("Reopen filter"));
    reopenButton->setToolTip(QStringLiteral("Forget the last accepted entry and exit"));
    m_watchStatus = new QLabel(QStringLiteral("Not watching"));

    auto* watchRow = new QHBoxLayout;
    watchRow->addWidget(new QLabel(QStringLiteral("Device ID")));
    watchRow->addWidget(m_deviceField, 1);
    watchRow->addWidget(new QLabel(QStringLiteral("Filter")));
    watchRow->addWidget(m_filterField);
    watchRow->addWidget(watchButton);
    watchRow->addWidget(reopenButton);
    auto* watchBox = new QGroupBox(QStringLiteral("Watch a device"));
    auto* watchLayout = new QVBoxLayout(watchBox);
    watchLayout->addLayout(watchRow);
    watchLayout->addWidget(m_watchStatus);

    m_pairButton = new QPushButton(QStringLiteral("Pair"));
    m_chosenLabel = new QLabel(QStringLiteral("none yet"));
    m_storedLabel = new QLabel;
    auto* pairBox = new QGroupBox(QStringLiteral("Pairing"));
    auto* pairLayout = new QFormLayout(pairBox);
    auto* pairRow = new QHBoxLayout;
    pairRow->addWidget(m_pairButton);
    pairRow->addWidget(
        new QLabel(QStringLiteral("opens the list of nearby devices over this window")));
    pairRow->addStretch(1);
    pairLayout->addRow(pairRow);
    pairLayout->addRow(QStringLiteral("Chosen key:"), m_chosenLabel);
    pairLayout->addRow(QStringLiteral("Stored keys:"), m_storedLabel);

    m_log = new QPlainTextEdit;
    m_log->setReadOnly(true);
    m_log->setMaximumBlockCount(2000);
    m_log->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    m_log->setMinimumHeight(m_log->fontMetrics().lineSpacing() * 6);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(title);
    layout->addWidget(where);
    layout->addWidget(watchBox);
    layout->addWidget(pairBox);
    layout->addWidget(new QLabel(QStringLiteral("Event log")));
    layout->addWidget(m_log, 1);
    // As large as it likes where there is room, down to a 1280x800 screen at 150% (853x533
    // device-independent pixels), less the window manager's frame; never below what stays usable.
    const QSize room = screen()->availableGeometry().size() - QSize(16, 48);
    resize(QSize(720, 560).boundedTo(room).expandedTo(minimumSizeHint()));

    connect(watchButton, &QPushButton::clicked, this, [this] { watch(m_deviceField->text()); });
    connect(m_deviceField, &QLineEdit::returnPressed, this,
            [this] { watch(m_deviceField->text()); });
    connect(m_filterField, &QSpinBox::valueChanged, this, &DemoWindow::applyFilter);
    connect(reopenButton, &QPushButton::clicked, this, [this] {
        if (!m_eventManager)
            return;
        m_eventManager->lastEnter = QDateTime();
        m_eventManager->lastExit = QDateTime();
        logEvent(QStringLiteral("filter"), QStringLiteral("reopened for %1").arg(m_watched));
    });
    connect(m_pairButton, &QPushButton::clicked, this, &DemoWindow::pair);

    for (const QString& note : setup.storeNotes)
        logEvent(QStringLiteral("store"), note);
    // The device manager reloads the stored keys and resolves each of them right away, as a host
    // that pairs would do at start.
    m_deviceManager = Quorlix::VeskDeviceManager::create(setup.appID);
    showStoredKeys();
}

DemoWindow::~DemoWindow() = default;

void DemoWindow::logEvent(const QString& kind, const QString& text)
{
    const QString line = QStringLiteral("%1 s  %2 %3")
                             .arg(static_cast<double>(m_clock.elapsed()) / 1000.0, 6, 'f', 1)
                             .arg(kind.leftJustified(7), text);
    m_log->appendPlainText(line);
    // One write per line: the library logs to stdout too, and lines must not interleave.
    const QByteArray bytes = line.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, static_cast<std::size_t>(bytes.size()), stdout);
    std::fflush(stdout);
}

bool DemoWindow::watch(const QString& deviceID)
{
    const QString id = deviceID.trimmed();
    const DirectoryProbe::Answer answer = m_probe.lookUp(id);
    if (!answer.problem.isEmpty()) {
        logEvent(QStringLiteral("error"), answer.problem);
        m_watchStatus->setText(QStringLiteral("Cannot watch: %1").arg(answer.problem));
        return false;
    }
    startWatching(id, answer.majorMinor);
    return true;
}

void DemoWindow::startWatching(const QString& id, const QString& majorMinor)
{
    logEvent(QStringLiteral("watch"), QStringLiteral("device %1, beacon %2").arg(id, majorMinor));
    m_eventManager = Quorlix::VeskEventManager::create(id);
    m_eventManager->filter(m_filterField->value());
    if (m_exitPeriod) {
        Quorlix::LocationSettings settings = m_eventManager->locationManager->settings();
        settings.exitPeriod = std::chrono::seconds(*m_exitPeriod);
        QString problem;
        if (!m_eventManager->locationManager->applySettings(settings, &problem))
            logEvent(QStringLiteral("note"),
                     QStringLiteral("exit period not set: %1").arg(problem));
    }
    m_watched = id;

    // The handlers may outlive the window: a pending delayed report holds its manager.
    const QPointer<DemoWindow> self(this);
    m_eventManager->onEntry([self, id](const std::shared_ptr<Quorlix::VeskDevice>&) {
        if (!self)
            return;
        ++self->m_counts.entries;
        self->logEvent(QStringLiteral("entry"), QStringLiteral("device %1 is near").arg(id));
    });
    m_eventManager->onExit([self, id](const std::shared_ptr<Quorlix::VeskDevice>&) {
        if (!self)
            return;
        ++self->m_counts.exits;
        self->logEvent(QStringLiteral("exit"), QStringLiteral("device %1 is gone").arg(id));
    });
    m_eventManager->onRange([self, id](const std::shared_ptr<Quorlix::VeskDevice>& device) {
        if (!self)
            return;
        ++self->m_counts.rangings;
        self->logEvent(QStringLiteral("range"),
                       QStringLiteral("device %1  rssi %2 dBm  distance %3")
                           .arg(id, orNone(device->rssi), orNone(device->distance)));
    });
    m_watchedBeacon = majorMinor;
    showWatchStatus();
}

void DemoWindow::applyFilter(int seconds)
{
    if (!m_eventManager)
        return;
    m_eventManager->filter(seconds);
    showWatchStatus();
}

void DemoWindow::showWatchStatus()
{
    const QString exitPeriod = m_exitPeriod ? QStringLiteral("%1 s").arg(*m_exitPeriod)
                                            : QStringLiteral("as the source has it");
    m_watchStatus->setText(QStringLiteral("Watching device %1 (beacon %2), filter %3 s, exit "
                                          "period %4")
                               .arg(m_watched, m_watchedBeacon)
                               .arg(m_filterField->value())
                               .arg(exitPeriod));
}

void DemoWindow::pair()
{
    logEvent(QStringLiteral("pair"), QStringLiteral("looking for nearby devices"));
    const QPointer<DemoWindow> self(this);
    m_deviceManager->pair(this, [self](const QString& result) {
        if (!self)
            return;
        self->m_chosenKey = result;
        self->logEvent(QStringLiteral("paired"),
                       result.isEmpty() ? QStringLiteral("cancelled")
                                        : QStringLiteral("chose device %1").arg(result));
        self->m_chosenLabel->setText(result.isEmpty() ? QStringLiteral("none (cancelled)")
                                                      : result);
        // The scan runs until the host stops it; once the choice is made there is no need. Later,
        // so that the screen finishes its own report first.
        QTimer::singleShot(0, self, [self] {
            self->m_deviceManager->stopLooking();
            self->showStoredKeys();
        });
    });
}

Quorlix::DeviceListViewController* DemoWindow::pairingScreen() const
{
    return m_deviceManager ? m_deviceManager->listViewController.get() : nullptr;
}

std::optional<QStringList> DemoWindow::storedKeys() const
{
    return Quorlix::UserDefaults::standard().stringArray(m_deviceManager->veskDeviceKeysConstant);
}

void DemoWindow::showStoredKeys()
{
    const QString text = describeKeys(storedKeys());
    m_storedLabel->setText(text);
    logEvent(QStringLiteral("store"), QStringLiteral("stored keys: %1").arg(text));
}

QString DemoWindow::describeKeys(const std::optional<QStringList>& keys)
{
    if (!keys)
        return QStringLiteral("none (nothing stored yet)");
    return keys->isEmpty() ? QStringLiteral("none") : keys->join(u' ');
}

} // namespace QuorlixDemo
