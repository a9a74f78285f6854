#pragma once

#include "quorlix/location/sources/BeaconSource.h"

#include <chrono>
#include <memory>

namespace Quorlix {

/// Sightings from the machine's Bluetooth adapters, through BlueZ (org.bluez on the system bus).
/// Scans on every powered adapter while scanning is wanted; never powers an adapter itself.
/// Adapters that appear, are powered on, or come back with a restarted bluetoothd are picked up.
/// Problems (no bluetoothd, no adapter, adapter off, a refused call) are reported through the
/// logging category "quorlix.platform.bluez".
class BlueZSource final : public BeaconSource
{
public:
    BlueZSource();
    ~BlueZSource() override;
    BlueZSource(const BlueZSource&) = delete;
    BlueZSource& operator=(const BlueZSource&) = delete;

    void setScanning(bool wanted) override;

    /// While scanning, each adapter's discovery is restarted this often so that a controller
    /// that filters duplicate adverts reports every present beacon again, and a refused start is
    /// retried; zero disables both. Default 10 s, a third of the region engine's default exit
    /// period.
    void setRestartInterval(std::chrono::milliseconds interval);

    static constexpr std::chrono::milliseconds defaultRestartInterval{10'000};

private:
    class Private;
    std::unique_ptr<Private> d;
};

} // namespace Quorlix
