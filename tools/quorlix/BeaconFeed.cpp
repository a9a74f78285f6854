#include "BeaconFeed.h"

#include "quorlix/location/LocationSettings.h"
#include "quorlix/location/RealClock.h"
#include "quorlix/location/SourceSelection.h"
#include "quorlix/location/VirtualClock.h"

#include <QTimer>

namespace QuorlixTool {
namespace {

// Virtual time moves this far per turn of the event loop: output and signals keep flowing while a
// minute of traffic plays in a fraction of a second.
constexpr std::int64_t virtualStepNs = 100'000'000;

} // namespace

std::unique_ptr<BeaconFeed> BeaconFeed::create(const QString& sourceSetting, bool virtualTime,
                                               QString* problem)
{
    std::unique_ptr<Quorlix::BeaconSource> source =
        Quorlix::SourceSelection::sourceFor(sourceSetting, problem);
    if (!source)
        return nullptr;

    std::unique_ptr<BeaconFeed> feed(new BeaconFeed);
    if (virtualTime) {
        auto clock = std::make_shared<Quorlix::VirtualClock>();
        feed->m_driver = std::make_unique<QTimer>();
        QObject::connect(feed->m_driver.get(), &QTimer::timeout,
                         [clock] { clock->advanceBy(virtualStepNs); });
        feed->m_clock = clock;
    } else {
        feed->m_clock = std::make_shared<Quorlix::RealClock>();
    }
    feed->m_engine = std::make_unique<Quorlix::RegionEngine>(*feed->m_clock);
    // The calibration every program reads, so that a command and a host see the same distances.
    feed->m_engine->applySettings(Quorlix::LocationSettings::defaults());
    feed->m_source = std::move(source);

    BeaconFeed* self = feed.get();
    feed->m_source->setClock(feed->m_clock.get());
    feed->m_source->setSink([self](const Quorlix::Sighting& sighting) {
        for (const Listener& listener : self->m_listeners)
            listener(sighting);
        self->m_engine->addSighting(sighting);
    });
    feed->m_engine->scanningWanted = [self](bool wanted) {
        self->m_engineWantsScanning = wanted;
        self->updateScanning();
    };
    return feed;
}

BeaconFeed::~BeaconFeed()
{
    if (m_driver)
        m_driver->stop();
    for (const Quorlix::Clock::TimerId id : m_timers)
        m_clock->cancel(id);
    for (const auto& repeater : m_repeaters)
        m_clock->cancel(repeater->id);
    m_source->setScanning(false);
    m_source->setSink({});
}

void BeaconFeed::start()
{
    m_originNs = m_clock->nowNs();
    m_started = true;
    updateScanning();
    if (m_driver)
        m_driver->start(0);
}

std::int64_t BeaconFeed::elapsedNs() const
{
    return m_clock->nowNs() - m_originNs;
}

void BeaconFeed::updateScanning()
{
    m_source->setScanning(m_engineWantsScanning || (m_started && !m_listeners.empty()));
}

void BeaconFeed::every(std::int64_t periodNs, std::function<void()> action)
{
    m_repeaters.push_back(std::make_unique<Repeater>(Repeater{periodNs, std::move(action), 0}));
    arm(m_repeaters.back().get(), m_clock->nowNs() + periodNs);
}

void BeaconFeed::arm(Repeater* repeater, std::int64_t dueNs)
{
    // Re-armed before the action runs, so that an action ending the feed cancels the next turn.
    repeater->id = m_clock->schedule(dueNs, [this, repeater, dueNs] {
        arm(repeater, dueNs + repeater->periodNs);
        repeater->action();
    });
}

void BeaconFeed::after(std::int64_t afterNs, std::function<void()> action)
{
    m_timers.push_back(m_clock->schedule(m_clock->nowNs() + afterNs, std::move(action)));
}

} // namespace QuorlixTool
