#pragma once

#include <avahi-common/watch.h>

namespace velocast {

// An AvahiPoll that runs Avahi's watches and timeouts on the Qt event loop of the thread
// that calls its functions (the main thread here): every Avahi callback, and so every
// reply from the daemon, arrives there. The poll lives for the whole process.
const AvahiPoll *qtAvahiPoll();

} // namespace velocast
