// Names of the notifications the subsystems exchange through NotificationCenter.
// Spelled once, here; everybody uses these constants.
#pragma once

namespace velocast::notice {

// Control channel.
inline constexpr char NETCONTROL_SEND[] = "NETCONTROL_SEND";
inline constexpr char NETCONTROL_RECEIVE[] = "NETCONTROL_RECEIVE";
inline constexpr char NETCONTROL_DISCONNECT[] = "NETCONTROL_DISCONNECT";
inline constexpr char NETCONTROL_CONNECTBROKEN[] = "NETCONTROL_CONNECTBROKEN";

// Session and panel.
inline constexpr char NOTICE_DISCONNECT[] = "NOTICE_DISCONNECT";
inline constexpr char NOTICE_BEDISCONNECT[] = "NOTICE_BEDISCONNECT";
inline constexpr char NOTICE_RENAME[] = "NOTICE_RENAME";
inline constexpr char NOTICE_CANCELREQUEST[] = "NOTICE_CANCELREQUEST";
inline constexpr char NOTICE_SHOWREQUESTVIEW[] = "NOTICE_SHOWREQUESTVIEW";
inline constexpr char NOTICE_SCREENCAPTURESTATE[] = "NOTICE_SCREENCAPTURESTATE";
inline constexpr char NOTICE_STARTSCREENCAPTURE[] = "NOTICE_STARTSCREENCAPTURE";
inline constexpr char NOTICE_STOPSCREENCAPTURE[] = "NOTICE_STOPSCREENCAPTURE";
inline constexpr char NOTICE_BESTOPSCREENCAPTURE[] = "NOTICE_BESTOPSCREENCAPTURE";

// AirPlay road.
inline constexpr char AIRPLAYCONTROL_START[] = "AIRPLAYCONTROL_START";
inline constexpr char AIRPLAYCONTROL_STOP[] = "AIRPLAYCONTROL_STOP";
inline constexpr char NOTICE_BESTOP_AIRPLAY[] = "NOTICE_BESTOP_AIRPLAY";

// Audio devices.
inline constexpr char kDVKAudioHardwareDefaultOutputDeviceDidChangeNotification[] =
    "kDVKAudioHardwareDefaultOutputDeviceDidChangeNotification";
inline constexpr char kDVKAudioHardwareDefaultInputDeviceDidChangeNotification[] =
    "kDVKAudioHardwareDefaultInputDeviceDidChangeNotification";
inline constexpr char kDVKAudioHardwareDefaultSystemOutputDeviceDidChangeNotification[] =
    "kDVKAudioHardwareDefaultSystemOutputDeviceDidChangeNotification";
inline constexpr char kDVKAudioHardwareDeviceListDidChangeNotification[] =
    "kDVKAudioHardwareDeviceListDidChangeNotification";

} // namespace velocast::notice
