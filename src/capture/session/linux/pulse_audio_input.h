// The cast's sound: what the computer plays, taken from the monitor of the default output
// through the sound server's PulseAudio interface (PulseAudio or PipeWire).
#pragma once

#include "capture/session/capture_source.h"

namespace velocast::capture {

// Interleaved S16LE PCM, 44100 Hz, stereo, from the monitor of the default output; where
// the server has no such monitor, from the default input (logged). Follows the default
// output when the user switches it during the cast. When the sound server goes away the
// source delivers nothing (logged) and resumes by itself once the server is back. Null,
// with the reason in *error, when no sound server answers at the start.
std::unique_ptr<CaptureSource> makePulseAudioInput(CaptureSource::SampleHandler handler, QString *error);

} // namespace velocast::capture
