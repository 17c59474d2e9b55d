// The computer's audio devices: the list, each device's name, maker and UID, the default
// output and input, switching them, and the four process-wide change notifications.
// Class operations only, over the process's AudioHardware (libpulse on Linux).
#pragma once

#include "capture/audio/audio_hardware.h"

#include <QString>

#include <optional>
#include <span>
#include <vector>

namespace velocast::capture {

class AudioDeviceControl {
public:
    static std::vector<AudioObjectID> allDevicesIDS();
    // The first identifier of the list; 0 when there is none.
    static AudioObjectID defaultOutputDevice();
    static AudioObjectID defaultInputDevice();
    // The identifier list of a system object property, in the order given; nothing when it
    // cannot be read.
    static std::optional<std::vector<AudioObjectID>> decicesForSelector(uint32_t selector);
    // 0 when no device has that UID.
    static AudioObjectID deviceWithUID(const QString &uid);
    // Null strings when the device or the property is not there.
    static QString deviceNameWithID(AudioObjectID deviceID);
    static QString deviceManufacturerWithID(AudioObjectID deviceID);
    static QString deviceUID(AudioObjectID deviceID);
    static QString deviceID(AudioObjectID deviceID, uint32_t info);
    static void changeDefaultOutputDeviceWithID(AudioObjectID deviceID);
    static void changeDefaultInputDeviceWithID(AudioObjectID deviceID);
    static void changeDevice(uint32_t selector, AudioObjectID deviceID);
    // Installs the listener once per process. Removing it does not make it installable
    // again: the installed flag stays set (callers rely on this).
    static void addPropertyListener();
    static void removePropertyListener();

    // The listener: posts the notification of each changed property in order and stops at
    // the first property it has no notification for. Runs on the sound server's
    // notification thread; public so that a batch can be handed to it directly.
    static int propertyListener(std::span<const AudioPropertyAddress> changed);
    // Whether the listener-installed flag is set.
    static bool isListenerInstalled();
};

} // namespace velocast::capture
