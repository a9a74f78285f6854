#pragma once

#include <QString>

#include <functional>
#include <memory>
#include <optional>

namespace Quorlix {

/// The record handed to the event manager's host callbacks. Absent and empty are different values:
/// a report fills only the properties it knows and leaves the others absent.
struct VeskDevice
{
    std::optional<QString> key;
    std::optional<QString> type;
    std::optional<QString> subtype;
    std::optional<QString> info;
    std::optional<QString> distance; ///< "Immediate", "Near", "Far" or "Unknown" (ranging only)
    std::optional<QString> rssi;     ///< signed decimal dBm, e.g. "-67" (ranging only)

    friend bool operator==(const VeskDevice&, const VeskDevice&) = default;
};

/// A host callback for presence events; an empty function means no callback.
using DeviceCallback = std::function<void(const std::shared_ptr<VeskDevice>& device)>;

/// The host callback of a pairing; receives the chosen device key, or "" on a cancel.
using PairingCompletion = std::function<void(const QString& result)>;

} // namespace Quorlix
