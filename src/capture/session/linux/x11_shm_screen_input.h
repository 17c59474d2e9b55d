#pragma once

#include "capture/session/capture_source.h"

#include <memory>

namespace velocast::capture {

// The main display's pictures straight from the X server: MIT-SHM into one reused image,
// only when the DAMAGE extension reported a change inside the display's rectangle (or the
// pointer moved or changed shape), the pointer drawn in from XFixes, converted at once to
// NV12 and paced at 30 per second by a PicturePacer (a tick without a change repeats the
// previous picture). Without MIT-SHM (a display on another machine) every change is read
// with a plain GetImage. Null, with the reason, when the display cannot be opened or has
// no DAMAGE or XFixes extension, or its screen is not 32 bits per pixel.
std::unique_ptr<CaptureSource> makeX11ShmScreenInput(const MainDisplay &display, CaptureSource::SampleHandler handler, QString *error);

} // namespace velocast::capture
