#pragma once

#include <QString>
#include <QVariant>

namespace velocast {

// The user preferences store (an INI file under $XDG_CONFIG_HOME/Velocast/). These four
// keys are the whole configuration of the program. Safe to use from any thread.
namespace prefkey {
inline constexpr char UUIDS[] = "UUIDS";                       // sender identifier
inline constexpr char USERNAME[] = "USERNAME";                 // display name
inline constexpr char AutoStartAtLogin[] = "AutoStartAtLogin"; // first-launch marker
inline constexpr char InitPCName[] = "InitPCName";             // first showing of the casting panel
// Not part of the four above: the desktop portal's token for the screen the person chose,
// so later casts on a Wayland desktop start without asking again.
inline constexpr char ScreenCastRestoreToken[] = "ScreenCastRestoreToken";
} // namespace prefkey

class Preferences {
public:
    static QVariant value(const QString &key);
    static void setValue(const QString &key, const QVariant &value);
    static void remove(const QString &key);
    // Writes pending changes to disk now.
    static void sync();
    // Full path of the backing file (for diagnostics and tests).
    static QString fileName();
};

// The name under which this computer presents itself to receivers: "USERNAME" when it is
// a non-empty string, otherwise the localised host name.
QString CurrentDisplayName();
// Stores a display name under "USERNAME".
void SaveDisplayName(const QString &name);
// The host's own name: the pretty host name when one is set, else the host name.
QString LocalizedHostName();

} // namespace velocast
