#pragma once

#include <QString>
#include <QStringList>

#include <optional>

namespace QuorlixDemo {

/// The demo's command line, checked. Anything wrong leaves a readable message in error.
class DemoOptions
{
public:
    /// What the headless run does with the pairing screen once it lists a device.
    enum class Pick
    {
        First,  ///< choose the first listed device
        Cancel, ///< press "Cancel"
        None,   ///< leave the screen open
    };

    /// Parses the arguments after the program name.
    static DemoOptions parse(const QStringList& arguments);
    static QString usage();

    /// Empty when the arguments are good.
    QString error;
    bool help = false;
    bool version = false;
    bool headless = false;
    /// How long to run; absent means until the window is closed (headless runs default to 20 s).
    std::optional<int> seconds;
    /// Where to write the PNG screenshots; empty for none.
    QString screenshots;
    std::optional<Pick> pick;
    /// host[:port] of a directory service to use instead of the in-process one.
    QString directory;
    /// Value for QUORLIX_LOCATION_SOURCE ("bluez", "simulate:<file>", "replay:<file>", files made
    /// absolute); empty for the shipped demo scenario.
    QString source;
    QString device = QStringLiteral("1047");
    int filter = 0;
    /// Silence after which the watched device counts as gone; absent: the demo's default.
    std::optional<int> exitPeriod;
    QString appID = QStringLiteral("com.quorlix.demo");
};

} // namespace QuorlixDemo
