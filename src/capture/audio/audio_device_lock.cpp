#include "capture/audio/audio_device_lock.h"

#include "capture/audio/audio_device_control.h"
#include "common/notification_names.h"

namespace velocast::capture {

std::unique_ptr<AudioDeviceLock> AudioDeviceLock::lockOutputDeviceWithUID(const QString &uid)
{
    auto lock = std::make_unique<AudioDeviceLock>();
    lock->startLockWithUID(uid);
    return lock;
}

void AudioDeviceLock::startLockWithUID(const QString &uid)
{
    for (AudioObjectID id : AudioDeviceControl::allDevicesIDS()) {
        if (AudioDeviceControl::deviceUID(id) == uid) {
            _deviceID = id;
            break;
        }
    }
    if (_deviceID == 0) return;
    AudioDeviceControl::changeDefaultOutputDeviceWithID(_deviceID);
    outputObservation_ = NotificationCenter::defaultCenter().addObserver(
        QString::fromLatin1(notice::kDVKAudioHardwareDefaultOutputDeviceDidChangeNotification),
        [this](const QVariant &notification) { outputChanged(notification); });
    AudioDeviceControl::addPropertyListener();
}

void AudioDeviceLock::stopLock()
{
    AudioDeviceControl::removePropertyListener();
    outputObservation_.reset();
}

void AudioDeviceLock::outputChanged(const QVariant &) { AudioDeviceControl::changeDefaultOutputDeviceWithID(_deviceID); }

} // namespace velocast::capture
