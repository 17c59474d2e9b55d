#pragma once

namespace velocast {

// Start at login through the XDG autostart entry
// ($XDG_CONFIG_HOME/autostart/velocast.desktop) that points at this program.
class AppStartManager {
public:
    // True when an autostart entry for this program exists and is not hidden.
    static bool isStartAtLogin();
    // true: adds the entry if absent (false when it was already there or the write
    // failed); false: removes every matching entry (false when none matched).
    static bool setStartAtLogin(bool enabled);
};

} // namespace velocast
