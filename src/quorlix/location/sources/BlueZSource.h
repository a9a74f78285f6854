#pragma once

#include "quorlix/location/sources/BeaconSource.h"

#include <QStringList>

#include <chrono>
#include <memory>

namespace Quorlix {

/// Sightings from the machine's Bluetooth adapters, through BlueZ (org.bluez on the system bus).
/// Scans on every powered adapter (or those asked for) while scanning is wanted; never powers an
/// adapter itself. The system bus, bluetoothd and adapters that appear, are powered on, or come
/// back are picked up; discovery that ends or falls silent under it is restarted. Problems and
/// recoveries (no bus, no bluetoothd, no adapter, adapter off, a refused call, a restart) are
/// reported through the logging category "quorlix.platform.bluez".
class BlueZSource final : public BeaconSource
{
public:
    /// adapters: names (hci0) or addresses of the adapters to use; empty: every adapter.
    explicit BlueZSource(QStringList adapters = {});
    ~BlueZSource() override;
    BlueZSource(const BlueZSource&) = delete;
    BlueZSource& operator=(const BlueZSource&) = delete;

    void setScanning(bool wanted) override;

    /// While scanning, each adapter's discovery is restarted this often so that a controller
    /// that filters duplicate adverts reports every present beacon again, and a refused start is
    /// retried; zero disables both. Default 10 s, a third of the region engine's default exit
    /// period.
    void setRestartInterval(std::chrono::milliseconds interval);

    /// While scanning, an adapter from which nothing at all was heard for this long gets its
    /// discovery restarted (and, while it stays silent, after twice as long each time, up to a
    /// minute); zero disables it. Default 10 s: a deaf adapter is noticed and restarted well
    /// within the default 30 s exit period, twice if need be, before its beacons would be
    /// declared gone.
    void setSilenceLimit(std::chrono::milliseconds limit);

    static constexpr std::chrono::milliseconds defaultRestartInterval{10'000};
    static constexpr std::chrono::milliseconds defaultSilenceLimit{10'000};

private:
    class Private;
    std::unique_ptr<Private> d;
};

} // namespace Quorlix
