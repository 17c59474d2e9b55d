#pragma once

#include "net/network_platform.h"

#include <vector>

namespace velocast {

// The wireless interfaces of the calling thread's network namespace, by interface index, with
// the SSID each is associated with, from an nl80211 interface dump. Empty when sysfs shows no
// wireless device (nl80211 is then not asked at all), when the kernel has no nl80211, or when
// the query fails. Blocking on the kernel only, for at most about a second.
std::vector<WifiInterface> readWifiInterfaces();

} // namespace velocast
