#pragma once

#include "capture/session/capture_source.h"

#include <optional>

namespace velocast::capture {

// The primary RandR output of the X display named by DISPLAY (or displayName when not
// empty). Without a primary output, the first connected output that shows a picture; without
// one either, the whole root window with displayID 0. Nothing, with the reason in *why,
// when no X display can be opened or the server has no RandR.
std::optional<MainDisplay> queryMainDisplay(const QString &displayName, QString *why);

} // namespace velocast::capture
