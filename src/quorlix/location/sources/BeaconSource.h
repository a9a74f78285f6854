#pragma once

#include "quorlix/location/Sighting.h"

#include <functional>

namespace Quorlix {

class Clock;

/// Where sightings come from (a radio, a simulation, a recorded trace). The region engine tells the
/// source whether scanning is wanted and receives its sightings through the sink, on the engine's
/// thread.
class BeaconSource
{
public:
    using Sink = std::function<void(const Sighting&)>;

    virtual ~BeaconSource();

    /// Scanning is wanted while some region is monitored or ranged.
    virtual void setScanning(bool wanted) = 0;

    void setSink(Sink sink) { m_sink = std::move(sink); }
    /// The clock that stamps sightings; set by the engine before scanning starts.
    void setClock(Clock* clock) { m_clock = clock; }

protected:
    void deliver(const Sighting& sighting) const
    {
        if (m_sink)
            m_sink(sighting);
    }
    /// Also runs the source's timers, so that simulated and replayed traffic follows virtual time.
    Clock* clock() const { return m_clock; }

private:
    Sink m_sink;
    Clock* m_clock = nullptr;
};

} // namespace Quorlix
