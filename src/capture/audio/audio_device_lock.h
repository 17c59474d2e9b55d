// Pins the default output to one device: switches to it, and back to it every time
// anything else changes the default output, for as long as the lock lives. Nothing in the
// application takes a lock by itself; it is a facility for whoever wants one.
#pragma once

#include "capture/audio/audio_hardware.h"
#include "common/notification_center.h"

#include <QString>

#include <memory>

namespace velocast::capture {

class AudioDeviceLock {
public:
    // Makes a lock and starts it; the lock holds while the caller keeps the object.
    static std::unique_ptr<AudioDeviceLock> lockOutputDeviceWithUID(const QString &uid);

    AudioDeviceLock() = default;
    ~AudioDeviceLock() { stopLock(); }
    AudioDeviceLock(const AudioDeviceLock &) = delete;
    AudioDeviceLock &operator=(const AudioDeviceLock &) = delete;

    // Finds the device with that UID (nothing happens when none has it), makes it the
    // default output and reverts every later change of the default output.
    void startLockWithUID(const QString &uid);
    void stopLock();
    // On the sound server's notification thread: straight back to the locked device.
    void outputChanged(const QVariant &notification);

    AudioObjectID deviceID() const { return _deviceID; }

private:
    AudioObjectID _deviceID = 0;
    Observation outputObservation_;
};

} // namespace velocast::capture
