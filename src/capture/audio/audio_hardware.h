// The sound server's device model as the audio device control sees it: audio objects with
// 32-bit identifiers, properties addressed by (selector, scope, element) four-character
// codes, a system object (identifier 1) that holds the device list and the defaults, and
// one listener for property changes. The Linux backend maps it onto libpulse (linux/).
#pragma once

#include <QString>

#include <cstdint>
#include <functional>
#include <span>

namespace velocast::capture {

using AudioObjectID = uint32_t;

constexpr uint32_t fourCharCode(const char (&code)[5])
{
    return uint32_t(uint8_t(code[0])) << 24 | uint32_t(uint8_t(code[1])) << 16 | uint32_t(uint8_t(code[2])) << 8 | uint32_t(uint8_t(code[3]));
}

namespace audio_property {
inline constexpr AudioObjectID kSystemObject = 1;
inline constexpr AudioObjectID kUnknownObject = 0;
inline constexpr uint32_t kDevices = fourCharCode("dev#");
inline constexpr uint32_t kDefaultOutputDevice = fourCharCode("dOut");
inline constexpr uint32_t kDefaultInputDevice = fourCharCode("dIn ");
inline constexpr uint32_t kDefaultSystemOutputDevice = fourCharCode("sOut");
inline constexpr uint32_t kDeviceForUID = fourCharCode("duid");
inline constexpr uint32_t kName = fourCharCode("lnam");
inline constexpr uint32_t kManufacturer = fourCharCode("lmak");
inline constexpr uint32_t kDeviceUID = fourCharCode("uid ");
inline constexpr uint32_t kVolumeScalar = fourCharCode("volm");
inline constexpr uint32_t kScopeGlobal = fourCharCode("glob");
inline constexpr uint32_t kWildcard = fourCharCode("****");
inline constexpr uint32_t kWildcardElement = 0xFFFFFFFFu;
} // namespace audio_property

struct AudioPropertyAddress {
    uint32_t selector = 0;
    uint32_t scope = audio_property::kWildcard;
    uint32_t element = audio_property::kWildcardElement;
};

// Every call returns a status: 0 for success, otherwise the backend's error number.
class AudioHardware {
public:
    // Called on the sound server's notification thread with the properties that changed.
    using Listener = std::function<void(std::span<const AudioPropertyAddress> changed)>;
    using StatusBlock = std::function<void(int32_t status)>;

    virtual ~AudioHardware() = default;
    // Size in bytes of an identifier list of the system object ('dev#', 'dOut', 'dIn ').
    virtual int32_t idListSize(uint32_t selector, uint32_t *bytes) = 0;
    // Reads at most *bytes of that list into out; *bytes becomes the number of bytes written.
    virtual int32_t idListData(uint32_t selector, uint32_t *bytes, void *out) = 0;
    // The device with that UID; kUnknownObject (and status 0) when none has it.
    virtual int32_t deviceForUID(const QString &uid, AudioObjectID *device) = 0;
    // A string property ('lnam', 'lmak', 'uid ') of a device; a null string when it has none.
    virtual int32_t deviceString(AudioObjectID device, uint32_t selector, QString *value) = 0;
    // Makes the device the default output ('dOut') or input ('dIn '). done gets the status:
    // before this returns, or later on the notification thread when called from there (the
    // server's answer cannot be awaited on the thread that delivers it).
    virtual void setDefaultDevice(uint32_t selector, AudioObjectID device, StatusBlock done) = 0;
    // The one listener on the system object, for every property.
    virtual int32_t addListener(Listener listener) = 0;
    virtual int32_t removeListener() = 0;
};

// The process-wide backend (libpulse). Connects on first use and again after the server
// has gone and come back.
AudioHardware &systemAudioHardware();

} // namespace velocast::capture
