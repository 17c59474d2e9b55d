#include "app/app_start_manager.h"

namespace velocast {

// Placeholder until the autostart backend lands; reports "not enabled" and changes nothing.
bool AppStartManager::isStartAtLogin() { return false; }
bool AppStartManager::setStartAtLogin(bool) { return false; }

} // namespace velocast
