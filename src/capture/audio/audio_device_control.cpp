#include "capture/audio/audio_device_control.h"

#include "common/log.h"
#include "common/notification_center.h"
#include "common/notification_names.h"

#include <atomic>
#include <cstdio>
#include <new>

namespace velocast::capture {

using namespace audio_property;

namespace {
std::atomic<bool> gListenerInstalled{false};
} // namespace

std::vector<AudioObjectID> AudioDeviceControl::allDevicesIDS() { return decicesForSelector(kDevices).value_or(std::vector<AudioObjectID>()); }

AudioObjectID AudioDeviceControl::defaultOutputDevice()
{
    const auto ids = decicesForSelector(kDefaultOutputDevice);
    return ids && !ids->empty() ? ids->front() : 0;
}

AudioObjectID AudioDeviceControl::defaultInputDevice()
{
    const auto ids = decicesForSelector(kDefaultInputDevice);
    return ids && !ids->empty() ? ids->front() : 0;
}

std::optional<std::vector<AudioObjectID>> AudioDeviceControl::decicesForSelector(uint32_t selector)
{
    AudioHardware &hardware = systemAudioHardware();
    uint32_t size = 0;
    if (hardware.idListSize(selector, &size) != 0) return std::nullopt;
    std::vector<AudioObjectID> ids;
    try {
        // Whole identifiers only: a size that is not a multiple of four ends in a part of one.
        ids.resize(size / sizeof(AudioObjectID));
    } catch (const std::bad_alloc &) {
        logLine(lcCapture(), QStringLiteral("Can't obtain device list size"));
        return std::nullopt;
    }
    uint32_t read = uint32_t(ids.size() * sizeof(AudioObjectID));
    if (hardware.idListData(selector, &read, ids.data()) != 0) {
        logLine(lcCapture(), QStringLiteral("Can't obtain device list"));
        return std::nullopt;
    }
    ids.resize(read / sizeof(AudioObjectID)); // the list may have shrunk in between
    return ids;
}

AudioObjectID AudioDeviceControl::deviceWithUID(const QString &uid)
{
    AudioObjectID device = 0;
    if (const int32_t status = systemAudioHardware().deviceForUID(uid, &device)) {
        std::printf("Error in AudioObjectGetPropertyData: %d\n", int(status));
        std::fflush(stdout);
        return 0;
    }
    return device;
}

QString AudioDeviceControl::deviceNameWithID(AudioObjectID id) { return deviceID(id, kName); }
QString AudioDeviceControl::deviceManufacturerWithID(AudioObjectID id) { return deviceID(id, kManufacturer); }
QString AudioDeviceControl::deviceUID(AudioObjectID id) { return deviceID(id, kDeviceUID); }

QString AudioDeviceControl::deviceID(AudioObjectID deviceID, uint32_t info)
{
    QString value;
    if (systemAudioHardware().deviceString(deviceID, info, &value) != 0) return QString();
    return value;
}

void AudioDeviceControl::changeDefaultOutputDeviceWithID(AudioObjectID id) { changeDevice(kDefaultOutputDevice, id); }
void AudioDeviceControl::changeDefaultInputDeviceWithID(AudioObjectID id) { changeDevice(kDefaultInputDevice, id); }

void AudioDeviceControl::changeDevice(uint32_t selector, AudioObjectID deviceID)
{
    systemAudioHardware().setDefaultDevice(selector, deviceID, [](int32_t status) {
        logLine(lcCapture(), QStringLiteral("statu: %1").arg(status));
        if (status != 0) logLine(lcCapture(), QStringLiteral("change device failed"));
    });
}

void AudioDeviceControl::addPropertyListener()
{
    if (gListenerInstalled.exchange(true)) return;
    if (systemAudioHardware().addListener(&AudioDeviceControl::propertyListener) != 0)
        logLine(lcCapture(), QStringLiteral("addPropertyListener faild"));
}

void AudioDeviceControl::removePropertyListener()
{
    if (systemAudioHardware().removeListener() != 0) logLine(lcCapture(), QStringLiteral("removePropertyListener faild"));
}

bool AudioDeviceControl::isListenerInstalled() { return gListenerInstalled.load(); }

int AudioDeviceControl::propertyListener(std::span<const AudioPropertyAddress> changed)
{
    for (const AudioPropertyAddress &address : changed) {
        const char *name = nullptr;
        switch (address.selector) {
        case kDefaultOutputDevice: name = notice::kDVKAudioHardwareDefaultOutputDeviceDidChangeNotification; break;
        case kDefaultInputDevice: name = notice::kDVKAudioHardwareDefaultInputDeviceDidChangeNotification; break;
        case kDefaultSystemOutputDevice: name = notice::kDVKAudioHardwareDefaultSystemOutputDeviceDidChangeNotification; break;
        case kDevices: name = notice::kDVKAudioHardwareDeviceListDidChangeNotification; break;
        default: return 0; // the first property without a notification ends the walk
        }
        NotificationCenter::defaultCenter().post(QString::fromLatin1(name));
    }
    return 0;
}

} // namespace velocast::capture
