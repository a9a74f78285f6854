#pragma once

#include "quorlix/Export.h"

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QUuid>

#include <chrono>
#include <optional>

namespace Quorlix {

/// One beacon, as per-beacon calibration names it.
struct BeaconId
{
    QUuid proximityUUID;
    quint16 major = 0;
    quint16 minor = 0;

    friend bool operator==(const BeaconId&, const BeaconId&) = default;
};

QUORLIX_EXPORT size_t qHash(const BeaconId& id, size_t seed = 0) noexcept;

/// The knobs of the location service that a host may turn: presence timing, the distance model and
/// calibration. Default-constructed, it holds the built-in values.
///
/// A location manager starts with LocationSettings::defaults(); a host changes one manager with
/// LocationManager::applySettings(), or every manager made afterwards with setDefaults(). Programs
/// that are not recompiled read a calibration file instead, in the JSON form of toJson(): the one
/// QUORLIX_CALIBRATION names, else the user's, else the system's (see file()).
struct QUORLIX_EXPORT LocationSettings
{
    /// A monitored region is exited after this long without a sighting of it.
    std::chrono::milliseconds exitPeriod{30'000};
    /// Exponent of the log-distance path-loss model: 2 is free space; indoor paths measure 1.5
    /// to 3.
    double pathLossExponent = 2.0;
    /// Band limits in metres: Immediate closer than immediateLimitM, Near up to nearLimitM, Far
    /// beyond.
    double immediateLimitM = 0.5;
    double nearLimitM = 3.0;
    /// RSSI at 1 m (dBm) per beacon, in place of what its advert says.
    QHash<BeaconId, int> measuredPower;
    /// Added to every reading of a receiver (dB), by adapter address ("00:1A:7D:DA:71:13").
    QHash<QString, double> rssiOffset;

    friend bool operator==(const LocationSettings&, const LocationSettings&) = default;

    /// What is wrong with these values, in a sentence; empty when every value is usable.
    QString problem() const;

    /// Reads the JSON form; every member is optional. On failure sets error to a message naming
    /// name and the offending member, and returns nothing.
    static std::optional<LocationSettings> parse(const QByteArray& json, const QString& name,
                                                 QString* error);
    static std::optional<LocationSettings> load(const QString& path, QString* error);
    /// The JSON form, every member written.
    QByteArray toJson() const;
    /// Replaces the file in one step (written aside, flushed, renamed); false and error on failure.
    bool save(const QString& path, QString* error) const;

    /// The settings new location managers start with: the built-in values, or those of file()
    /// when there is one and it is usable (a problem with it is logged on the
    /// "quorlix.platform.location" category and the built-in values stay).
    static LocationSettings defaults();
    /// The calibration file that defaults() reads: the one QUORLIX_CALIBRATION names, else
    /// userFile() if it exists, else systemFile if it exists; empty when there is none.
    static QString file();
    /// $XDG_CONFIG_HOME/quorlix/calibration.json, ~/.config/quorlix/calibration.json without it:
    /// where `quorlix calibrate` writes unless told otherwise.
    static QString userFile();
    /// For services, which run without a home folder of their own.
    static constexpr char systemFile[] = "/etc/quorlix/calibration.json";
    /// Replaces defaults() for location managers made afterwards; refuses values with a problem.
    static bool setDefaults(const LocationSettings& settings, QString* error = nullptr);

    static constexpr char fileVariable[] = "QUORLIX_CALIBRATION";
};

} // namespace Quorlix
