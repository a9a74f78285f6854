#pragma once

#include "quorlix/platform/UserDefaults.h"
#include "quorlix/service/DirectoryProbe.h"

#include <QStringList>

namespace QuorlixDemo {

using Quorlix::DirectoryProbe;

/// Checks the pairing key store against the directory before the library loads it. The library
/// stops the process at the next Pair when a stored key no longer resolves, so the demo moves
/// such keys to an entry of their own, where they are kept but not loaded, and moves them back
/// once the directory knows them again.
class KeyStoreCheck
{
public:
    /// The entry the library loads; the library's default name, which the demo does not change.
    static constexpr char loadedEntry[] = "VeskDeviceManagerKeys";
    /// Where the demo keeps the keys it set aside.
    static constexpr char setAsideEntry[] = "QuorlixDemoSetAsideKeys";

    struct Result
    {
        /// One readable line per key moved out of the loaded entry, or back into it.
        QStringList notes;
        /// Empty when the store was checked (and rewritten if needed); otherwise what stopped
        /// the check, and the store is as it was.
        QString problem;
    };

    static Result run(const DirectoryProbe& probe, Quorlix::UserDefaults store);
};

} // namespace QuorlixDemo
