#pragma once

#include "capture/input/input_injector.h"

#include <memory>

namespace velocast::capture {

class PortalSession;

// Remote input through the remote-desktop portal of the running cast's sharing session
// (GNOME, KDE): absolute motion in the shared stream's own pixels, buttons, wheel clicks and
// keysyms. The session may end before the injector: from then on events are dropped.
std::unique_ptr<input::InputInjector> makePortalInputInjector(PortalSession *session);

// The keysym that types a code point (Latin-1 keysyms are the code points themselves, the
// rest of Unicode is 0x01000000 + code point), or 0 for control characters with no key.
uint32_t keysymForCodePoint(char32_t cp);

} // namespace velocast::capture
