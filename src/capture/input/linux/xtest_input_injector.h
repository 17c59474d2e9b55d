#pragma once

#include "capture/input/input_injector.h"

#include <memory>

namespace velocast::input {

// Input on an X11 display through the XTest extension: pointer motion in root-window pixels
// (the captured output's origin added), buttons 1/2/3, the wheel as buttons 4-7, and text
// by lending a spare keycode each character's keysym. Null, with the reason in *why, when
// the display cannot be opened or has no XTest. displayName empty: DISPLAY.
std::unique_ptr<InputInjector> makeXTestInputInjector(const QString &displayName, QString *why);

} // namespace velocast::input
