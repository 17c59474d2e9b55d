#pragma once

#include "capture/input/input_injector.h"

#include <memory>

namespace velocast::input {

// The pointer on a wlroots compositor (sway, Hyprland) through its virtual-pointer protocol
// (zwlr_virtual_pointer_manager_v1): absolute motion over the captured output, buttons and
// wheel clicks. The protocol has no keyboard: text is logged and dropped. Null, with the
// reason in *why, when WAYLAND_DISPLAY cannot be reached or the compositor does not offer
// the protocol.
std::unique_ptr<InputInjector> makeVirtualPointerInjector(QString *why);

} // namespace velocast::input
